// The library calls of the program that mean the hardware, taken in front of the C library's own:
// port permission, the cards' devices, sleeps, processor time and wishes for priority. Every other
// call, and every call while no hardware is attached, goes on to the C library untouched.
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/io.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <mutex>

#include "traps/Devices.h"
#include "traps/Hardware.h"
#include "traps/PortDevice.h"
#include "traps/PortTrap.h"
#include "traps/Real.h"

namespace cardsim {

namespace {

std::atomic<Hardware*> hardwareInPlace{nullptr};
std::atomic<void (*)()> firstUse{nullptr};
std::atomic<std::uint64_t (*)()> systemClock{nullptr};

// A sanitizer opens files where it cannot bear a look-up.
[[gnu::constructor]] void lookUpEarly() {
    REAL(openat);
    REAL(openat64);
    REAL(read);
    REAL(close);
    REAL(clock_gettime);
}

// Whether accesses through that descriptor are the hardware's.
bool isPorts(int fd) {
    return isPortDevice(fd) && hardwareAtFirstUse() != nullptr;
}

// copy: of the descriptor, or -1 when there is none.
int noteCopy(int fd, int copy) {
    if (copy != -1 && copy != fd) {
        followCopy(fd, copy);
    }
    return copy;
}

mode_t modeArgument(int flags, va_list arguments) {
    const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return creates ? static_cast<mode_t>(va_arg(arguments, int)) : mode_t{0};
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
    if (on != 0 && hardware->grantPorts() != 0) {
        return -1;
    }
    return setPortPermission(from, count, on != 0);
}

// name(path, flags) and nameAt(folder, path, flags), with a mode behind when they may create a
// file.
#define OPEN(name, nameAt)                                              \
    int nameAt(int folder, const char* path, int flags, ...) {          \
        va_list arguments;                                              \
        va_start(arguments, flags);                                     \
        const mode_t mode = modeArgument(flags, arguments);             \
        va_end(arguments);                                              \
        int fd = -1;                                                    \
        const bool isDevice = openDevice(folder, path, flags, fd);      \
        return isDevice ? fd : REAL(nameAt)(folder, path, flags, mode); \
    }                                                                   \
    int name(const char* path, int flags, ...) {                        \
        va_list arguments;                                              \
        va_start(arguments, flags);                                     \
        const mode_t mode = modeArgument(flags, arguments);             \
        va_end(arguments);                                              \
        return nameAt(AT_FDCWD, path, flags, mode);                     \
    }

OPEN(open, openat)
OPEN(open64, openat64)
#undef OPEN

// What a program built with buffer checks calls instead.
int __open_2(const char* path, int flags) {
    return open(path, flags);
}
int __open64_2(const char* path, int flags) {
    return open64(path, flags);
}
int __openat_2(int folder, const char* path, int flags) {
    return openat(folder, path, flags);
}
int __openat64_2(int folder, const char* path, int flags) {
    return openat64(folder, path, flags);
}

// Ways to open that the devices are not served by.
#define REFUSE(result, failure, name, parameters, ...)                                 \
    result name parameters {                                                           \
        return refusesDevice(path, #name) ? result(failure) : REAL(name)(__VA_ARGS__); \
    }

using Stream = FILE*;
REFUSE(Stream, nullptr, fopen, (const char* path, const char* mode), path, mode)
REFUSE(Stream, nullptr, fopen64, (const char* path, const char* mode), path, mode)
REFUSE(Stream, nullptr, freopen, (const char* path, const char* mode, FILE* old), path, mode, old)
REFUSE(Stream, nullptr, freopen64, (const char* path, const char* mode, FILE* old), path, mode, old)
REFUSE(int, -1, creat, (const char* path, mode_t mode), path, mode)
REFUSE(int, -1, creat64, (const char* path, mode_t mode), path, mode)
#undef REFUSE

ssize_t read(int fd, void* buffer, std::size_t count) {
    return isPorts(fd) ? readPorts(fd, buffer, count) : REAL(read)(fd, buffer, count);
}

ssize_t pread(int fd, void* buffer, std::size_t count, off_t offset) {
    return isPorts(fd) ? readPorts(fd, buffer, count, offset)
                       : REAL(pread)(fd, buffer, count, offset);
}

ssize_t pread64(int fd, void* buffer, std::size_t count, off64_t offset) {
    return pread(fd, buffer, count, offset);
}

// With buffer checks: a buffer that is too short is left to the C library.
ssize_t __read_chk(int fd, void* buffer, std::size_t count, std::size_t length) {
    if (isPorts(fd) && count <= length) {
        return readPorts(fd, buffer, count);
    }
    using ReadChecked = ssize_t(int, void*, std::size_t, std::size_t);
    static auto* const checked = real<ReadChecked>("__read_chk");
    return checked(fd, buffer, count, length);
}

ssize_t __pread_chk(int fd, void* buffer, std::size_t count, off_t offset, std::size_t length) {
    if (isPorts(fd) && count <= length) {
        return readPorts(fd, buffer, count, offset);
    }
    using PreadChecked = ssize_t(int, void*, std::size_t, off_t, std::size_t);
    static auto* const checked = real<PreadChecked>("__pread_chk");
    return checked(fd, buffer, count, offset, length);
}

ssize_t __pread64_chk(int fd, void* buffer, std::size_t count, off64_t offset, std::size_t length) {
    return __pread_chk(fd, buffer, count, offset, length);
}

ssize_t write(int fd, const void* buffer, std::size_t count) {
    return isPorts(fd) ? writePorts(fd, buffer, count) : REAL(write)(fd, buffer, count);
}

ssize_t pwrite(int fd, const void* buffer, std::size_t count, off_t offset) {
    return isPorts(fd) ? writePorts(fd, buffer, count, offset)
                       : REAL(pwrite)(fd, buffer, count, offset);
}

ssize_t pwrite64(int fd, const void* buffer, std::size_t count, off64_t offset) {
    return pwrite(fd, buffer, count, offset);
}

int dup(int fd) noexcept {
    return noteCopy(fd, REAL(dup)(fd));
}

int dup2(int fd, int copy) noexcept {
    return noteCopy(fd, REAL(dup2)(fd, copy));
}

int dup3(int fd, int copy, int flags) noexcept {
    return noteCopy(fd, REAL(dup3)(fd, copy, flags));
}

int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    const int result = REAL(fcntl)(fd, command, argument);
    const bool copies = command == F_DUPFD || command == F_DUPFD_CLOEXEC;
    return copies ? noteCopy(fd, result) : result;
}

int fcntl64(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return fcntl(fd, command, argument);
}

int close(int fd) {
    forgetPortDevice(fd);
    return REAL(close)(fd);
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
