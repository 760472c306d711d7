#include "format/Record.h"

#include <cstring>

namespace cardtrace {

namespace {

constexpr std::size_t kCallBytes = 20;

}  // namespace

std::string dataOf(const CallData& call) {
    std::string data(kCallBytes, '\0');
    std::memcpy(data.data(), &call.first, 8);
    std::memcpy(data.data() + 8, &call.count, 8);
    std::memcpy(data.data() + 16, &call.how, 4);
    return data;
}

CallData callOf(const Record& record) {
    CallData call{};
    if (record.data.size() == kCallBytes) {
        std::memcpy(&call.first, record.data.data(), 8);
        std::memcpy(&call.count, record.data.data() + 8, 8);
        std::memcpy(&call.how, record.data.data() + 16, 4);
    }
    return call;
}

}  // namespace cardtrace
