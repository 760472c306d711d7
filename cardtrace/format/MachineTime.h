// The clock by which recording and replaying count.
#pragma once

#include <time.h>

#include <cstdint>

namespace cardtrace {

// In microseconds; goes on whatever becomes of the system clock. May be called in a signal handler.
inline std::uint64_t machineTime() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000 +
           static_cast<std::uint64_t>(time.tv_nsec) / 1000;
}

}  // namespace cardtrace
