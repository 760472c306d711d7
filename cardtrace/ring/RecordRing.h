// The way of records out of the program: a ring of bytes in memory that the program's processes
// share with the launcher, so that nothing of what they have put in is lost when they are killed.
// Any thread of any process puts records in; one thread of the launcher takes them out. Putting one
// in waits while the ring is full, but not for ever: then the launcher is gone, and so are that
// record and all that would follow, which wait for nothing.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "format/Record.h"

namespace cardtrace {

class RecordRing {
  public:
    static constexpr std::size_t kBytes = std::size_t{8} << 20;

    // In memory that all share: once, before anybody else uses it.
    RecordRing();

    // For the preload library: the ring in the file at that path. It stays mapped. Throws
    // std::runtime_error.
    static RecordRing& at(const std::string& path);

    // Of the machine's monotonic clock, since the ring was made.
    std::uint64_t passed_us() const;

    // data: count bytes, at most 0xFFFF, in place of the record's own. May run in a signal handler.
    void put(const Record& record, const void* data, std::size_t count);
    // False when there is none. Throws std::runtime_error when the program has spoilt the ring.
    bool take(Record& record);
    // To be asked when there is none: whether records were lost behind the last one, since there
    // was no room for too long. From here on they are put in again.
    bool endLoss();
    // Nobody takes records any more: putting one in does nothing.
    void close() { state = State::kClosed; }

  private:
    struct Head;
    enum class State { kOpen, kLosing, kClosed };

    bool waitForRoom(std::uint64_t end);
    void lock();
    void copyIn(std::uint64_t place, const void* bytes, std::size_t count);
    void copyOut(std::uint64_t place, void* bytes, std::size_t count) const;

    static constexpr std::uint32_t kMagic = 0xCA4D7001;
    std::uint32_t magic = kMagic;  // both sides were built from the same sources
    const std::uint64_t started_us;
    pthread_mutex_t writing;
    std::atomic<State> state;
    std::atomic<std::uint64_t> written;  // bytes, ever
    std::atomic<std::uint64_t> taken;
    char ring[kBytes];
};

}  // namespace cardtrace
