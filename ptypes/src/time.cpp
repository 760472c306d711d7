#include <time.h>

#include <chrono>

#include "ptime.h"

namespace pt {

namespace {

constexpr large kDaysToUnixEpoch = 719162;  // from 0001-01-01 to 1970-01-01
constexpr large kMillisecondsPerDay = 86'400'000;

large localOffsetMilliseconds(time_t instant) {
    tm local{};
    localtime_r(&instant, &local);
    return static_cast<large>(local.tm_gmtoff) * 1000;
}

}  // namespace

datetime now(bool utc) {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    const large unixMilliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count();
    const large offset =
        utc ? 0 : localOffsetMilliseconds(static_cast<time_t>(unixMilliseconds / 1000));
    return kDaysToUnixEpoch * kMillisecondsPerDay + unixMilliseconds + offset;
}

}  // namespace pt
