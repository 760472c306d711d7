// The library calls of the program that mean the hardware, but for those that deal with files,
// taken in front of the C library's own: port permission, sleeps, processor time and wishes for
// priority. Every other call, and every call while no hardware is attached, goes on to the C
// library untouched.
#include <pthread.h>
#include <sched.h>
#include <sys/io.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <mutex>

#include "traps/Hardware.h"
#include "traps/PortTrap.h"
#include "traps/Real.h"
#include "traps/Refusal.h"

namespace cardsim {

namespace {

std::atomic<Hardware*> hardwareInPlace{nullptr};
std::atomic<void (*)()> firstUse{nullptr};
std::atomic<std::uint64_t (*)()> systemClock{nullptr};

// A sanitizer asks for the time where it cannot bear a look-up.
[[gnu::constructor]] void lookUpEarly() {
    REAL(clock_gettime);
}

// Whether the sleep of the calling thread has passed in the hardware's own time.
bool sleptAlready(std::uint64_t microseconds) {
    Hardware* const hardware = attachedHardware();
    return hardware != nullptr && drivesCards() && hardware->sleep(microseconds);
}

// The same; a time that makes no sense is left to the machine to refuse. What is shorter than a
// microsecond counts as one, so that time passes.
bool sleptAlready(const timespec* wanted) {
    constexpr long kNanosecondsOfSecond = 1'000'000'000;
    if (attachedHardware() == nullptr || wanted == nullptr || wanted->tv_sec < 0 ||
        wanted->tv_nsec < 0 || wanted->tv_nsec >= kNanosecondsOfSecond) {
        return false;
    }
    return sleptAlready(static_cast<std::uint64_t>(wanted->tv_sec) * 1'000'000 +
                        static_cast<std::uint64_t>(wanted->tv_nsec + 999) / 1000);
}

// Whether the system clock is another than the machine's, and what it shows.
bool readSystemClock(std::uint64_t& microseconds) {
    const auto clock = systemClock.load();
    if (clock != nullptr) {
        microseconds = clock();
    }
    return clock != nullptr;
}

// Whether a thread may not have that priority: in time of the hardware's own, where the driving
// thread never really sleeps, a real-time thread would keep everybody else from running.
bool wouldStarveTheRest(int policy) {
    policy &= ~SCHED_RESET_ON_FORK;
    if (policy != SCHED_FIFO && policy != SCHED_RR) {
        return false;
    }
    Hardware* const hardware = hardwareAtFirstUse();
    return hardware != nullptr && hardware->hasOwnTime();
}

}  // namespace

void attachHardware(Hardware* hardware) {
    hardwareInPlace = hardware;
}

Hardware* attachedHardware() {
    return hardwareInPlace;
}

void replaceSystemClock(std::uint64_t (*microseconds)()) {
    systemClock = microseconds;
}

void onFirstUse(void (*attach)()) {
    firstUse = attach;
}

Hardware* hardwareAtFirstUse() {
    if (Hardware* const present = attachedHardware()) {
        return present;
    }
    // A thread that asks at the same time waits until the hardware is complete; whoever makes it
    // may open files.
    static std::recursive_mutex attaching;
    const std::lock_guard<std::recursive_mutex> guard(attaching);
    if (attachedHardware() == nullptr) {
        if (auto* const attach = firstUse.exchange(nullptr)) {
            attach();
        }
    }
    return attachedHardware();
}

}  // namespace cardsim

using namespace cardsim;

extern "C" {

int ioperm(unsigned long from, unsigned long count, int on) noexcept {
    Hardware* const hardware = hardwareAtFirstUse();
    if (hardware == nullptr) {
        return REAL(ioperm)(from, count, on);
    }
    const bool granted =
        (on == 0 || hardware->grantPorts() == 0) && setPortPermission(from, count, on != 0) == 0;
    const int error = granted ? 0 : errno;
    hardware->noticed({DeviceCall::Kind::kPermission, from, count, on != 0 ? 1u : 0u}, error);
    errno = granted ? errno : error;
    return granted ? 0 : -1;
}

int iopl(int level) noexcept {
    if (level == 0 || hardwareAtFirstUse() == nullptr) {
        return REAL(iopl)(level);
    }
    return refuse("iopl for", "all ports", "only ioperm is served", EPERM);
}

int usleep(useconds_t microseconds) {
    return sleptAlready(microseconds) ? 0 : REAL(usleep)(microseconds);
}

unsigned sleep(unsigned seconds) {
    return sleptAlready(std::uint64_t{seconds} * 1'000'000) ? 0 : REAL(sleep)(seconds);
}

int nanosleep(const timespec* wanted, timespec* left) {
    return sleptAlready(wanted) ? 0 : REAL(nanosleep)(wanted, left);
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* wanted, timespec* left) {
    const bool relative = (flags & TIMER_ABSTIME) == 0;
    if (relative && sleptAlready(wanted)) {
        return 0;
    }
    return REAL(clock_nanosleep)(clock, flags, wanted, left);
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    std::uint64_t now = 0;
    const bool ofSystem = clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
    if (!ofSystem || !readSystemClock(now)) {
        return REAL(clock_gettime)(clock, time);
    }
    *time = {static_cast<time_t>(now / 1'000'000), static_cast<long>(now % 1'000'000) * 1000};
    return 0;
}

int gettimeofday(timeval* time, void* zone) noexcept {
    std::uint64_t now = 0;
    if (!readSystemClock(now)) {
        return REAL(gettimeofday)(time, zone);
    }
    *time = {static_cast<time_t>(now / 1'000'000), static_cast<suseconds_t>(now % 1'000'000)};
    return 0;
}

time_t time(time_t* where) noexcept {
    std::uint64_t now = 0;
    if (!readSystemClock(now)) {
        return REAL(time)(where);
    }
    const auto seconds = static_cast<time_t>(now / 1'000'000);
    if (where != nullptr) {
        *where = seconds;
    }
    return seconds;
}

clock_t clock() noexcept {
    std::clock_t ticks = 0;
    Hardware* const hardware = attachedHardware();
    return hardware != nullptr && hardware->processorTime(ticks) ? ticks : REAL(clock)();
}

int pthread_setschedparam(pthread_t thread, int policy, const sched_param* wanted) noexcept {
    return wouldStarveTheRest(policy) ? EPERM : REAL(pthread_setschedparam)(thread, policy, wanted);
}

int sched_setscheduler(pid_t process, int policy, const sched_param* wanted) noexcept {
    if (wouldStarveTheRest(policy)) {
        errno = EPERM;
        return -1;
    }
    return REAL(sched_setscheduler)(process, policy, wanted);
}

}  // extern "C"
