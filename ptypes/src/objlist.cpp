#include "ptypes.h"

namespace pt {

namespace {

constexpr int kIndexOutOfRange = 3;

void requireIndex(int index, int limit) {
    if (index < 0 || index >= limit) {
        fatal(kIndexOutOfRange, "List index out of range");
    }
}

}  // namespace

unknown::~unknown() = default;

objlist::~objlist() {
    clear(*this);
}

int add(objlist& list, unknown* object) {
    list.objects.push_back(object);
    return length(list) - 1;
}

void ins(objlist& list, int index, unknown* object) {
    requireIndex(index, length(list) + 1);
    list.objects.insert(list.objects.begin() + index, object);
}

unknown* get(const objlist& list, int index) {
    requireIndex(index, length(list));
    return list.objects[static_cast<std::size_t>(index)];
}

void del(objlist& list, int index) {
    requireIndex(index, length(list));
    const auto item = list.objects.begin() + index;
    if (list.ownsObjects) {
        delete *item;
    }
    if (index == 0) {
        list.objects.pop_front();
    } else {
        list.objects.erase(item);
    }
}

int length(const objlist& list) {
    return static_cast<int>(list.objects.size());
}

void clear(objlist& list) {
    if (list.ownsObjects) {
        for (unknown* object : list.objects) {
            delete object;
        }
    }
    list.objects.clear();
}

}  // namespace pt
