// The library calls of the program that mean the hardware, taken in front of the C library's own:
// port permission, /dev/port, /dev/mem, sleeps and processor time. Every other call, and every call
// while no hardware is attached, goes on to the C library untouched.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <mutex>
#include <string>

#include "traps/Hardware.h"
#include "traps/PortTrap.h"

namespace cardsim {

namespace {

std::atomic<Hardware*> hardwareInPlace{nullptr};
std::atomic<void (*)()> firstUse{nullptr};

// Descriptors that stand for /dev/port; slots hold the descriptor + 1.
constexpr int kMaxPortDescriptors = 16;
std::atomic<int> portDescriptors[kMaxPortDescriptors];
std::atomic<int> openPortDescriptors{0};

template <class Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// The C library's own function of that name, looked up once.
#define REAL(name)                                                  \
    ([]() -> decltype(&::name) {                                    \
        static const auto function = real<decltype(::name)>(#name); \
        return function;                                            \
    }())

// A sanitizer opens files where it cannot bear a look-up.
[[gnu::constructor]] void lookUpEarly() {
    REAL(open);
    REAL(read);
    REAL(close);
}

int openPortDevice(Hardware& hardware) {
    if (hardware.openPorts() != 0) {
        return -1;
    }
    // A real file keeps the offset, so that lseek needs no help.
    const int fd = memfd_create("dev-port", MFD_CLOEXEC);
    if (fd == -1) {
        return -1;
    }
    for (auto& slot : portDescriptors) {
        int free = 0;
        if (slot.compare_exchange_strong(free, fd + 1)) {
            ++openPortDescriptors;
            return fd;
        }
    }
    close(fd);
    errno = EMFILE;
    return -1;
}

std::atomic<int>* portSlot(int fd) {
    if (openPortDescriptors == 0) {
        return nullptr;
    }
    auto* const slot = std::find_if(std::begin(portDescriptors), std::end(portDescriptors),
                                    [fd](const auto& taken) { return taken == fd + 1; });
    return slot == std::end(portDescriptors) ? nullptr : slot;
}

bool isPortDescriptor(int fd) {
    return portSlot(fd) != nullptr && hardwareAtFirstUse() != nullptr;
}

// Where the descriptor stands, moving on by count bytes.
off_t advance(int fd, std::size_t count) {
    return lseek(fd, static_cast<off_t>(count), SEEK_CUR) - static_cast<off_t>(count);
}

ssize_t readPorts(int fd, void* buffer, std::size_t count) {
    auto* bytes = static_cast<unsigned char*>(buffer);
    const off_t offset = advance(fd, count);
    for (std::size_t i = 0; i < count; ++i) {
        const auto port = static_cast<std::uint16_t>(offset + static_cast<off_t>(i));
        bytes[i] = static_cast<unsigned char>(attachedHardware()->in(port, 1));
    }
    return static_cast<ssize_t>(count);
}

ssize_t writePorts(int fd, const void* buffer, std::size_t count) {
    const auto* bytes = static_cast<const unsigned char*>(buffer);
    const off_t offset = advance(fd, count);
    for (std::size_t i = 0; i < count; ++i) {
        const auto port = static_cast<std::uint16_t>(offset + static_cast<off_t>(i));
        attachedHardware()->out(port, 1, bytes[i]);
    }
    return static_cast<ssize_t>(count);
}

enum class Device { kOther, kPorts, kMemory };

Device deviceOf(const char* path) {
    if (path == nullptr || std::strncmp(path, "/dev/", 5) != 0) {
        return Device::kOther;
    }
    if (std::strcmp(path, "/dev/port") == 0) {
        return Device::kPorts;
    }
    return std::strcmp(path, "/dev/mem") == 0 ? Device::kMemory : Device::kOther;
}

int openMemoryDevice(Hardware& hardware, int flags) {
    const std::string path = hardware.memoryPath();
    return path.empty() ? -1 : REAL(open)(path.c_str(), flags);
}

// Opens one of the cards' devices; false when path is none, or no hardware is attached.
bool openDevice(const char* path, int flags, int& fd) {
    const Device device = deviceOf(path);
    if (device == Device::kOther) {
        return false;
    }
    Hardware* const hardware = hardwareAtFirstUse();
    if (hardware == nullptr) {
        return false;
    }
    fd = device == Device::kPorts ? openPortDevice(*hardware) : openMemoryDevice(*hardware, flags);
    return true;
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

}  // namespace

void attachHardware(Hardware* hardware) {
    hardwareInPlace = hardware;
}

Hardware* attachedHardware() {
    return hardwareInPlace;
}

void onFirstUse(void (*attach)()) {
    firstUse = attach;
}

Hardware* hardwareAtFirstUse() {
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

#define OPEN(name)                                          \
    int name(const char* path, int flags, ...) {            \
        int fd = -1;                                        \
        if (openDevice(path, flags, fd)) {                  \
            return fd;                                      \
        }                                                   \
        va_list arguments;                                  \
        va_start(arguments, flags);                         \
        const mode_t mode = modeArgument(flags, arguments); \
        va_end(arguments);                                  \
        return REAL(name)(path, flags, mode);               \
    }

OPEN(open)
OPEN(open64)
#undef OPEN

// What a program built with buffer checks calls instead.
int __open_2(const char* path, int flags) {
    return open(path, flags);
}
int __open64_2(const char* path, int flags) {
    return open64(path, flags);
}

ssize_t read(int fd, void* buffer, std::size_t count) {
    return isPortDescriptor(fd) ? readPorts(fd, buffer, count) : REAL(read)(fd, buffer, count);
}

ssize_t __read_chk(int fd, void* buffer, std::size_t count, std::size_t length) {
    if (isPortDescriptor(fd) && count <= length) {
        return readPorts(fd, buffer, count);
    }
    using ReadChecked = ssize_t(int, void*, std::size_t, std::size_t);
    static auto* const checked = real<ReadChecked>("__read_chk");
    return checked(fd, buffer, count, length);
}

ssize_t write(int fd, const void* buffer, std::size_t count) {
    return isPortDescriptor(fd) ? writePorts(fd, buffer, count) : REAL(write)(fd, buffer, count);
}

int close(int fd) {
    if (std::atomic<int>* const slot = portSlot(fd)) {
        *slot = 0;
        --openPortDescriptors;
    }
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

clock_t clock() noexcept {
    std::clock_t ticks = 0;
    Hardware* const hardware = attachedHardware();
    return hardware != nullptr && hardware->processorTime(ticks) ? ticks : REAL(clock)();
}

}  // extern "C"
