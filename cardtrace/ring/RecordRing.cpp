#include "ring/RecordRing.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "format/MachineTime.h"

namespace cardtrace {

struct RecordRing::Head {
    std::uint64_t time_us;
    std::uint32_t value;
    std::uint32_t thread;
    std::uint16_t port;
    std::uint16_t flags;
    std::uint16_t dataLength;
    Kind kind;
    std::uint8_t width;
};

namespace {

// Whoever takes no record for so long has been killed.
constexpr int kPatience_ms = 10'000;

}  // namespace

RecordRing::RecordRing() : started_us(machineTime()), state(State::kOpen), written(0), taken(0) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&writing, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

RecordRing& RecordRing::at(const std::string& path) {
    const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct stat status {};
    void* address = MAP_FAILED;
    if (file != -1 && fstat(file, &status) == 0 &&
        static_cast<std::size_t>(status.st_size) == sizeof(RecordRing)) {
        address = mmap(nullptr, sizeof(RecordRing), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    }
    if (file != -1) {
        ::close(file);
    }
    if (address == MAP_FAILED || static_cast<RecordRing*>(address)->magic != kMagic) {
        throw std::runtime_error(path + ": no records can be written there");
    }
    return *static_cast<RecordRing*>(address);
}

std::uint64_t RecordRing::passed_us() const {
    return machineTime() - started_us;
}

void RecordRing::put(const Record& record, const void* data, std::size_t count) {
    const Head head = {record.time_us, record.value, record.thread,
                       record.port,    record.flags, static_cast<std::uint16_t>(count),
                       record.kind,    record.width};
    const std::size_t length = sizeof(head) + count;
    lock();
    const std::uint64_t place = written.load(std::memory_order_relaxed);
    if (waitForRoom(place + length)) {
        copyIn(place, &head, sizeof(head));
        copyIn(place + sizeof(head), data, count);
        written.store(place + length, std::memory_order_release);
    }
    pthread_mutex_unlock(&writing);
}

// Only the first one waits in vain: nothing else goes in until the launcher is seen again, so that
// all that is missing is missing at one place.
bool RecordRing::waitForRoom(std::uint64_t end) {
    for (int waited_ms = 0;
         state == State::kOpen && end - taken.load(std::memory_order_acquire) > kBytes;
         ++waited_ms) {
        if (waited_ms == kPatience_ms) {
            State open = State::kOpen;
            state.compare_exchange_strong(open, State::kLosing);
        } else {
            poll(nullptr, 0, 1);  // no sleep of the program's
        }
    }
    return state == State::kOpen;
}

bool RecordRing::take(Record& record) {
    const std::uint64_t place = taken.load(std::memory_order_relaxed);
    const std::uint64_t there = written.load(std::memory_order_acquire) - place;
    if (there == 0) {
        return false;
    }
    Head head{};
    if (there < sizeof(head) || there > kBytes) {
        throw std::runtime_error("the program has written over the records");
    }
    copyOut(place, &head, sizeof(head));
    if (there - sizeof(head) < head.dataLength) {
        throw std::runtime_error("the program has written over the records");
    }
    record.kind = head.kind;
    record.width = head.width;
    record.port = head.port;
    record.value = head.value;
    record.thread = head.thread;
    record.flags = head.flags;
    record.time_us = head.time_us;
    record.data.resize(head.dataLength);
    copyOut(place + sizeof(head), record.data.data(), record.data.size());
    taken.store(place + sizeof(head) + head.dataLength, std::memory_order_release);
    return true;
}

bool RecordRing::endLoss() {
    State losing = State::kLosing;
    return state.compare_exchange_strong(losing, State::kOpen);
}

void RecordRing::lock() {
    // Who held it may have been killed: then what it was putting in does not count.
    if (pthread_mutex_lock(&writing) == EOWNERDEAD) {
        pthread_mutex_consistent(&writing);
    }
}

void RecordRing::copyIn(std::uint64_t place, const void* bytes, std::size_t count) {
    const std::size_t begin = place % kBytes;
    const std::size_t first = std::min(count, kBytes - begin);
    std::memcpy(ring + begin, bytes, first);
    std::memcpy(ring, static_cast<const char*>(bytes) + first, count - first);
}

void RecordRing::copyOut(std::uint64_t place, void* bytes, std::size_t count) const {
    const std::size_t begin = place % kBytes;
    const std::size_t first = std::min(count, kBytes - begin);
    std::memcpy(bytes, ring + begin, first);
    std::memcpy(static_cast<char*>(bytes) + first, ring, count - first);
}

}  // namespace cardtrace
