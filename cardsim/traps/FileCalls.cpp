// The library calls by which a program opens and uses files, taken in front of the C library's own:
// those that mean the cards' devices are served by the hardware, or refused with a line when they
// cannot be. Every other call, and every call while no hardware is attached, goes on to the C
// library untouched. Where a way is forgotten nothing goes past the hardware: what the program
// holds is a file of no use.
#include <aio.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/io.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <type_traits>

#include "traps/Devices.h"
#include "traps/Hardware.h"
#include "traps/PortDevice.h"
#include "traps/Real.h"
#include "traps/Refusal.h"

namespace cardsim {

namespace {

// A sanitizer opens files and maps memory where it cannot bear a look-up.
[[gnu::constructor]] void lookUpEarly() {
    REAL(openat);
    REAL(openat64);
    REAL(read);
    REAL(close);
    REAL(mmap);
}

// Whether accesses through that descriptor are the hardware's.
bool isPorts(int fd) {
    return isPortDevice(fd) && hardwareAtFirstUse() != nullptr;
}

// Whether either of them is, and may not be used in such a way.
bool refusesPorts(const char* way, int fd, int other = -1) {
    if (!isPorts(fd) && !isPorts(other)) {
        return false;
    }
    refuse(way, "/dev/port", "only read, write and their like are simulated", EINVAL);
    return true;
}

// copy: of the descriptor, or -1 when there is none.
int noteCopy(int fd, int copy) {
    if (copy != -1 && copy != fd && !followCopy(fd, copy)) {
        REAL(close)(copy);
        errno = EMFILE;
        return -1;
    }
    return copy;
}

mode_t modeArgument(int flags, va_list arguments) {
    const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return creates ? static_cast<mode_t>(va_arg(arguments, int)) : mode_t{0};
}

bool isLockCommand(int command) {
    return command == F_SETLK || command == F_SETLKW || command == F_GETLK ||
           command == F_OFD_SETLK || command == F_OFD_SETLKW || command == F_OFD_GETLK;
}

// A call that means /dev/mem: asks the hardware, makes the call, tells the hardware what came of
// it.
template <class Call>
std::invoke_result_t<Call> askThenTell(const DeviceCall& asked, std::invoke_result_t<Call> failure,
                                       Call call) {
    Hardware& hardware = *attachedHardware();
    const int error = hardware.permits(asked);
    auto result = failure;
    if (error != 0) {
        errno = error;
    } else {
        result = call();
    }
    const int outcome = result == failure ? errno : 0;
    hardware.noticed(asked, outcome);
    if (result == failure) {
        errno = outcome;
    }
    return result;
}

}  // namespace

}  // namespace cardsim

using namespace cardsim;

extern "C" {

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

int creat(const char* path, mode_t mode) {
    return open(path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}
int creat64(const char* path, mode_t mode) {
    return open64(path, O_CREAT | O_WRONLY | O_TRUNC, mode);
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
REFUSE(int, ENODEV, posix_spawn_file_actions_addopen,
       (posix_spawn_file_actions_t * actions, int fd, const char* path, int flags, mode_t mode),
       actions, fd, path, flags, mode)
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

// name, and name2 with flags behind that mean nothing to ports.
#define VECTOR(name, nameAt, nameAt64, nameAt2, nameAt264, ports)                         \
    ssize_t name(int fd, const iovec* parts, int count) {                                 \
        return isPorts(fd) ? ports(fd, parts, count) : REAL(name)(fd, parts, count);      \
    }                                                                                     \
    ssize_t nameAt(int fd, const iovec* parts, int count, off_t offset) {                 \
        return isPorts(fd) ? ports(fd, parts, count, offset)                              \
                           : REAL(nameAt)(fd, parts, count, offset);                      \
    }                                                                                     \
    ssize_t nameAt64(int fd, const iovec* parts, int count, off64_t offset) {             \
        return nameAt(fd, parts, count, offset);                                          \
    }                                                                                     \
    ssize_t nameAt2(int fd, const iovec* parts, int count, off_t offset, int flags) {     \
        return isPorts(fd) ? ports(fd, parts, count, offset)                              \
                           : REAL(nameAt2)(fd, parts, count, offset, flags);              \
    }                                                                                     \
    ssize_t nameAt264(int fd, const iovec* parts, int count, off64_t offset, int flags) { \
        return nameAt2(fd, parts, count, offset, flags);                                  \
    }

VECTOR(readv, preadv, preadv64, preadv2, preadv64v2, readPorts)
VECTOR(writev, pwritev, pwritev64, pwritev2, pwritev64v2, writePorts)
#undef VECTOR

// Ways to move data that neither the devices nor what stands for them is served by.
ssize_t sendfile(int to, int from, off_t* offset, std::size_t count) noexcept {
    return refusesPorts("sendfile", to, from) ? -1 : REAL(sendfile)(to, from, offset, count);
}
ssize_t sendfile64(int to, int from, off64_t* offset, std::size_t count) noexcept {
    return sendfile(to, from, offset, count);
}
ssize_t copy_file_range(int from, off64_t* first, int to, off64_t* last, std::size_t count,
                        unsigned flags) {
    return refusesPorts("copy_file_range", from, to)
               ? -1
               : REAL(copy_file_range)(from, first, to, last, count, flags);
}
ssize_t splice(int from, off64_t* first, int to, off64_t* last, std::size_t count, unsigned flags) {
    return refusesPorts("splice", from, to) ? -1
                                            : REAL(splice)(from, first, to, last, count, flags);
}
FILE* fdopen(int fd, const char* mode) noexcept {
    return refusesPorts("fdopen", fd) ? nullptr : REAL(fdopen)(fd, mode);
}
#define ASYNCHRONOUS(name, control)                                             \
    int name(control* block) noexcept {                                         \
        return refusesPorts(#name, block->aio_fildes) ? -1 : REAL(name)(block); \
    }
ASYNCHRONOUS(aio_read, aiocb)
ASYNCHRONOUS(aio_write, aiocb)
ASYNCHRONOUS(aio_read64, aiocb64)
ASYNCHRONOUS(aio_write64, aiocb64)
#undef ASYNCHRONOUS

off_t lseek(int fd, off_t offset, int whence) noexcept {
    if (whence != SEEK_SET && whence != SEEK_CUR && isPorts(fd)) {
        errno = EINVAL;  // the device has no end
        return -1;
    }
    return REAL(lseek)(fd, offset, whence);
}
off64_t lseek64(int fd, off64_t offset, int whence) noexcept {
    return lseek(fd, offset, whence);
}

void* mmap(void* address, std::size_t length, int protection, int flags, int fd,
           off_t offset) noexcept {
    if ((flags & MAP_ANONYMOUS) == 0 && isPorts(fd)) {
        errno = ENODEV;
        return MAP_FAILED;
    }
    const auto map = [=] { return REAL(mmap)(address, length, protection, flags, fd, offset); };
    if ((flags & MAP_ANONYMOUS) != 0 || !isMemoryDevice(fd)) {
        return map();
    }
    if (refusesMapping(fd, length, offset)) {
        return MAP_FAILED;
    }
    const DeviceCall mapping = {DeviceCall::Kind::kMap, static_cast<std::uint64_t>(offset), length,
                                static_cast<std::uint32_t>(protection)};
    return askThenTell(mapping, MAP_FAILED, map);
}
void* mmap64(void* address, std::size_t length, int protection, int flags, int fd,
             off64_t offset) noexcept {
    return mmap(address, length, protection, flags, fd, offset);
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
    const auto call = [=] { return REAL(fcntl)(fd, command, argument); };
    if (isLockCommand(command) && isMemoryDevice(fd)) {
        const auto& lock = *static_cast<const struct flock*>(argument);
        const DeviceCall asked = {DeviceCall::Kind::kLock, static_cast<std::uint64_t>(lock.l_start),
                                  static_cast<std::uint64_t>(lock.l_len),
                                  static_cast<std::uint32_t>(lock.l_type << 16 | command)};
        return askThenTell(asked, -1, call);
    }
    const int result = call();
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

int close_range(unsigned first, unsigned last, int flags) noexcept {
    if ((flags & static_cast<int>(CLOSE_RANGE_CLOEXEC)) == 0) {
        forgetPortDevices(first, last);
    }
    return REAL(close_range)(first, last, flags);
}

// By number: what the devices could be reached by goes the way of the functions above.
long syscall(long number, ...) noexcept {
    va_list arguments;
    va_start(arguments, number);
    long given[6];
    for (long& argument : given) {
        argument = va_arg(arguments, long);
    }
    va_end(arguments);
    const auto [a, b, c, d, e, f] = given;
    const auto fd = static_cast<int>(a);
    const auto text = [](long argument) { return reinterpret_cast<const char*>(argument); };
    const auto buffer = [](long argument) { return reinterpret_cast<void*>(argument); };
    const auto size = [](long argument) { return static_cast<std::size_t>(argument); };
    const auto number32 = [](long argument) { return static_cast<int>(argument); };
    switch (number) {
        case SYS_open:
            return open(text(a), number32(b), static_cast<mode_t>(c));
        case SYS_openat:
            return openat(fd, text(b), number32(c), static_cast<mode_t>(d));
        case SYS_creat:
            return creat(text(a), static_cast<mode_t>(b));
        case SYS_openat2:
            if (refusesDevice(text(b), "openat2")) {
                return -1;
            }
            break;
        case SYS_read:
            return read(fd, buffer(b), size(c));
        case SYS_write:
            return write(fd, buffer(b), size(c));
        case SYS_pread64:
            return pread(fd, buffer(b), size(c), d);
        case SYS_pwrite64:
            return pwrite(fd, buffer(b), size(c), d);
        case SYS_mmap:
            return reinterpret_cast<long>(
                mmap(buffer(a), size(b), number32(c), number32(d), number32(e), f));
        case SYS_dup:
            return dup(fd);
        case SYS_ioperm:
            return ioperm(static_cast<unsigned long>(a), static_cast<unsigned long>(b),
                          number32(c));
        case SYS_iopl:
            return iopl(fd);
        case SYS_close:
            return close(fd);
        default:
            break;
    }
    return REAL(syscall)(number, a, b, c, d, e, f);
}

}  // extern "C"
