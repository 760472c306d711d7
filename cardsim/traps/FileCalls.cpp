// The library calls by which a program opens and uses files, taken in front of the C library's own:
// those that mean the cards' devices are served by the hardware, or refused with a line when they
// cannot be. Every other call, and every call while no hardware is attached, goes on to the C
// library untouched. Where a way is forgotten nothing goes past the hardware: what the program
// holds is a file of no use.
#include <aio.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
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
#include <cstring>
#include <type_traits>

#include "traps/Devices.h"
#include "traps/Hardware.h"
#include "traps/PortDevice.h"
#include "traps/PortTrap.h"
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
#ifndef LEAVES_MAPPING_ALONE
    REAL(mmap);
#endif
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
    refuse(way, "/dev/port", "only read, write and their like are served", EINVAL);
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

// Hardware that keeps a record wants to know which firmware a card gets.
void tellOfFile(const char* path) {
    Hardware* const hardware = attachedHardware();
    const bool isOrdinary = path != nullptr && std::strncmp(path, "/proc/", 6) != 0 &&
                            std::strncmp(path, "/sys/", 5) != 0 &&
                            std::strncmp(path, "/dev/", 5) != 0;
    if (hardware != nullptr && isOrdinary && drivesCards()) {
        const int savedErrno = errno;
        hardware->noticedFile(path);
        errno = savedErrno;
    }
}

mode_t modeArgument(int flags, va_list arguments) {
    const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return creates ? static_cast<mode_t>(va_arg(arguments, int)) : mode_t{0};
}

// Commands that take a struct flock64, where that differs from a struct flock.
bool isWideLockCommand(int command) {
    return command == F_SETLK64 || command == F_SETLKW64 || command == F_GETLK64 ||
           command == F_OFD_SETLK || command == F_OFD_SETLKW || command == F_OFD_GETLK;
}

bool isLockCommand(int command) {
    return isWideLockCommand(command) || command == F_SETLK || command == F_SETLKW ||
           command == F_GETLK;
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

// The ports' device has no end; sets errno.
bool hasNoEnd(int fd, int whence) {
    const bool refused = whence != SEEK_SET && whence != SEEK_CUR && isPorts(fd);
    errno = refused ? EINVAL : errno;
    return refused;
}

// Of a file, which may be a device.
template <class Map>
void* mapDevice(std::size_t length, int protection, int fd, off64_t offset, Map map) {
    if (isPorts(fd)) {
        errno = ENODEV;
        return MAP_FAILED;
    }
    if (!isMemoryDevice(fd)) {
        return map();
    }
    if (refusesMapping(fd, length, offset)) {
        return MAP_FAILED;
    }
    const DeviceCall mapping = {DeviceCall::Kind::kMap, static_cast<std::uint64_t>(offset), length,
                                static_cast<std::uint32_t>(protection)};
    return askThenTell(mapping, MAP_FAILED, map);
}

// A lock of /dev/mem, as the program asked for it.
template <class Lock>
DeviceCall lockCall(const void* argument, int command) {
    const auto& lock = *static_cast<const Lock*>(argument);
    return {DeviceCall::Kind::kLock, static_cast<std::uint64_t>(lock.l_start),
            static_cast<std::uint64_t>(lock.l_len),
            static_cast<std::uint32_t>(lock.l_type << 16 | command)};
}

// The same by calls that say it in another way.
template <class Call>
int lockPart(int fd, int command, int kind, off64_t first, off64_t length, Call call) {
    return isMemoryDevice(fd)
               ? askThenTell({DeviceCall::Kind::kLock, static_cast<std::uint64_t>(first),
                              static_cast<std::uint64_t>(length),
                              static_cast<std::uint32_t>(kind << 16 | command)},
                             -1, call)
               : call();
}

template <class Call>
int control(int fd, int command, const void* argument, Call call) {
    if (isLockCommand(command) && isMemoryDevice(fd)) {
        return askThenTell(isWideLockCommand(command) ? lockCall<struct flock64>(argument, command)
                                                      : lockCall<struct flock>(argument, command),
                           -1, call);
    }
    const int result = call();
    const bool copies = command == F_DUPFD || command == F_DUPFD_CLOEXEC;
    return copies ? noteCopy(fd, result) : result;
}

}  // namespace

}  // namespace cardsim

using namespace cardsim;

extern "C" {

// name(path, flags) and nameAt(folder, path, flags), with a mode behind when they may create a
// file.
#define OPEN(name, nameAt)                                     \
    int nameAt(int folder, const char* path, int flags, ...) { \
        va_list arguments;                                     \
        va_start(arguments, flags);                            \
        const mode_t mode = modeArgument(flags, arguments);    \
        va_end(arguments);                                     \
        int fd = -1;                                           \
        if (openDevice(folder, path, flags, fd)) {             \
            return fd;                                         \
        }                                                      \
        tellOfFile(path);                                      \
        return REAL(nameAt)(folder, path, flags, mode);        \
    }                                                          \
    int name(const char* path, int flags, ...) {               \
        va_list arguments;                                     \
        va_start(arguments, flags);                            \
        const mode_t mode = modeArgument(flags, arguments);    \
        va_end(arguments);                                     \
        return nameAt(AT_FDCWD, path, flags, mode);            \
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
#define REFUSE(result, failure, name, parameters, ...) \
    result name parameters {                           \
        if (refusesDevice(path, #name)) {              \
            return result(failure);                    \
        }                                              \
        tellOfFile(path);                              \
        return REAL(name)(__VA_ARGS__);                \
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

// With places in a file that are wide enough for every file, and with the program's own.
#define READ_AND_WRITE(readAt, writeAt, place)                                     \
    ssize_t readAt(int fd, void* buffer, std::size_t count, place offset) {        \
        return isPorts(fd) ? readPorts(fd, buffer, count, offset)                  \
                           : REAL(readAt)(fd, buffer, count, offset);              \
    }                                                                              \
    ssize_t writeAt(int fd, const void* buffer, std::size_t count, place offset) { \
        return isPorts(fd) ? writePorts(fd, buffer, count, offset)                 \
                           : REAL(writeAt)(fd, buffer, count, offset);             \
    }
READ_AND_WRITE(pread, pwrite, off_t)
READ_AND_WRITE(pread64, pwrite64, off64_t)
#undef READ_AND_WRITE

// With buffer checks: a buffer that is too short is left to the C library.
ssize_t __read_chk(int fd, void* buffer, std::size_t count, std::size_t length) {
    if (isPorts(fd) && count <= length) {
        return readPorts(fd, buffer, count);
    }
    using ReadChecked = ssize_t(int, void*, std::size_t, std::size_t);
    static auto* const checked = real<ReadChecked>("__read_chk");
    return checked(fd, buffer, count, length);
}

#define READ_CHECKED(name, place)                                                             \
    ssize_t name(int fd, void* buffer, std::size_t count, place offset, std::size_t length) { \
        if (isPorts(fd) && count <= length) {                                                 \
            return readPorts(fd, buffer, count, offset);                                      \
        }                                                                                     \
        using PreadChecked = ssize_t(int, void*, std::size_t, place, std::size_t);            \
        static auto* const checked = real<PreadChecked>(#name);                               \
        return checked(fd, buffer, count, offset, length);                                    \
    }
READ_CHECKED(__pread_chk, off_t)
READ_CHECKED(__pread64_chk, off64_t)
#undef READ_CHECKED

ssize_t write(int fd, const void* buffer, std::size_t count) {
    return isPorts(fd) ? writePorts(fd, buffer, count) : REAL(write)(fd, buffer, count);
}

// name, the same at a place, and with flags behind that mean nothing to ports.
#define VECTOR(name, ports)                                                          \
    ssize_t name(int fd, const iovec* parts, int count) {                            \
        return isPorts(fd) ? ports(fd, parts, count) : REAL(name)(fd, parts, count); \
    }
#define VECTOR_AT(nameAt, nameAt2, place, ports)                                      \
    ssize_t nameAt(int fd, const iovec* parts, int count, place offset) {             \
        return isPorts(fd) ? ports(fd, parts, count, offset)                          \
                           : REAL(nameAt)(fd, parts, count, offset);                  \
    }                                                                                 \
    ssize_t nameAt2(int fd, const iovec* parts, int count, place offset, int flags) { \
        return isPorts(fd) ? ports(fd, parts, count, offset)                          \
                           : REAL(nameAt2)(fd, parts, count, offset, flags);          \
    }

VECTOR(readv, readPorts)
VECTOR_AT(preadv, preadv2, off_t, readPorts)
VECTOR_AT(preadv64, preadv64v2, off64_t, readPorts)
VECTOR(writev, writePorts)
VECTOR_AT(pwritev, pwritev2, off_t, writePorts)
VECTOR_AT(pwritev64, pwritev64v2, off64_t, writePorts)
#undef VECTOR
#undef VECTOR_AT

// Ways to move data that neither the devices nor what stands for them is served by.
ssize_t sendfile(int to, int from, off_t* offset, std::size_t count) noexcept {
    return refusesPorts("sendfile", to, from) ? -1 : REAL(sendfile)(to, from, offset, count);
}
ssize_t sendfile64(int to, int from, off64_t* offset, std::size_t count) noexcept {
    return refusesPorts("sendfile", to, from) ? -1 : REAL(sendfile64)(to, from, offset, count);
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
#define ASYNCHRONOUS(name, parameters)                                          \
    int name parameters noexcept {                                              \
        return refusesPorts(#name, block->aio_fildes) ? -1 : REAL(name)(block); \
    }
ASYNCHRONOUS(aio_read, (aiocb * block))
ASYNCHRONOUS(aio_write, (aiocb * block))
ASYNCHRONOUS(aio_read64, (aiocb64 * block))
ASYNCHRONOUS(aio_write64, (aiocb64 * block))
#undef ASYNCHRONOUS

#define SEEK(name, place)                                                  \
    place name(int fd, place offset, int whence) noexcept {                \
        return hasNoEnd(fd, whence) ? -1 : REAL(name)(fd, offset, whence); \
    }
SEEK(lseek, off_t)
SEEK(lseek64, off64_t)
#undef SEEK

#define MAP(name, place)                                                                      \
    void* name(void* address, std::size_t length, int protection, int flags, int fd,          \
               place offset) noexcept {                                                       \
        const auto map = [=] {                                                                \
            return REAL(name)(address, length, protection, flags, fd, offset);                \
        };                                                                                    \
        return (flags & MAP_ANONYMOUS) != 0 ? map()                                           \
                                            : mapDevice(length, protection, fd, offset, map); \
    }
#ifndef LEAVES_MAPPING_ALONE  // as the thread sanitizer needs, which maps memory at its very start
MAP(mmap, off_t)
MAP(mmap64, off64_t)
#endif
#undef MAP

int dup(int fd) noexcept {
    return noteCopy(fd, REAL(dup)(fd));
}

int dup2(int fd, int copy) noexcept {
    return noteCopy(fd, REAL(dup2)(fd, copy));
}

int dup3(int fd, int copy, int flags) noexcept {
    return noteCopy(fd, REAL(dup3)(fd, copy, flags));
}

#define CONTROL(name)                                                                             \
    int name(int fd, int command, ...) {                                                          \
        va_list arguments;                                                                        \
        va_start(arguments, command);                                                             \
        void* const argument = va_arg(arguments, void*);                                          \
        va_end(arguments);                                                                        \
        return control(fd, command, argument, [=] { return REAL(name)(fd, command, argument); }); \
    }
CONTROL(fcntl)
CONTROL(fcntl64)
#undef CONTROL

// Of the whole file.
int flock(int fd, int operation) noexcept {
    const int kind = (operation & LOCK_UN) != 0   ? F_UNLCK
                     : (operation & LOCK_EX) != 0 ? F_WRLCK
                                                  : F_RDLCK;
    return lockPart(fd, (operation & LOCK_NB) != 0 ? F_SETLK : F_SETLKW, kind, 0, 0,
                    [=] { return REAL(flock)(fd, operation); });
}

#define LOCK_FROM_HERE(name, place)                                                             \
    int name(int fd, int command, place length) {                                               \
        return lockPart(fd,                                                                     \
                        command == F_TEST   ? F_GETLK                                           \
                        : command == F_LOCK ? F_SETLKW                                          \
                                            : F_SETLK,                                          \
                        command == F_ULOCK ? F_UNLCK : F_WRLCK, REAL(lseek64)(fd, 0, SEEK_CUR), \
                        length, [=] { return REAL(name)(fd, command, length); });               \
    }
LOCK_FROM_HERE(lockf, off_t)
LOCK_FROM_HERE(lockf64, off64_t)
#undef LOCK_FROM_HERE

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

// By number: what the devices could be reached by goes the way of the functions above. Most calls
// have fewer arguments than are fetched here, as in the C library's own.
[[gnu::no_sanitize_address]] long syscall(long number, ...) noexcept {
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
    // In two arguments where one is too narrow.
    const auto place = [](long low, [[maybe_unused]] long high) {
        return sizeof(long) == sizeof(off64_t)
                   ? off64_t{low}
                   : static_cast<off64_t>(static_cast<unsigned long>(low)) |
                         static_cast<off64_t>(high) << 32;
    };
    const auto number32 = [](long argument) { return static_cast<int>(argument); };
    const auto parts = [](long argument) { return reinterpret_cast<const iovec*>(argument); };
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
            return pread64(fd, buffer(b), size(c), place(d, e));
        case SYS_pwrite64:
            return pwrite64(fd, buffer(b), size(c), place(d, e));
        case SYS_readv:
            return readv(fd, parts(b), number32(c));
        case SYS_writev:
            return writev(fd, parts(b), number32(c));
        case SYS_preadv:
            return preadv64(fd, parts(b), number32(c), place(d, e));
        case SYS_pwritev:
            return pwritev64(fd, parts(b), number32(c), place(d, e));
        case SYS_preadv2:
            return preadv64v2(fd, parts(b), number32(c), place(d, e), number32(f));
        case SYS_pwritev2:
            return pwritev64v2(fd, parts(b), number32(c), place(d, e), number32(f));
        case SYS_sendfile:
        case SYS_copy_file_range:
        case SYS_splice:
            if (refusesPorts("move data by number with", fd,
                             number32(number == SYS_sendfile ? b : c))) {
                return -1;
            }
            break;
#ifdef SYS_mmap2
        case SYS_mmap2:
            return reinterpret_cast<long>(mmap64(buffer(a), size(b), number32(c), number32(d),
                                                 number32(e), off64_t{f} * 4096));
#else
        case SYS_mmap:
            return reinterpret_cast<long>(
                mmap(buffer(a), size(b), number32(c), number32(d), number32(e), f));
#endif
        case SYS_dup:
            return dup(fd);
        case SYS_dup2:
            return dup2(fd, number32(b));
        case SYS_dup3:
            return dup3(fd, number32(b), number32(c));
        case SYS_fcntl:
            return fcntl(fd, number32(b), buffer(c));
#ifdef SYS_fcntl64
        case SYS_fcntl64:
            return fcntl64(fd, number32(b), buffer(c));
#endif
        case SYS_flock:
            return flock(fd, number32(b));
        case SYS_lseek:
            return lseek(fd, b, number32(c));
        case SYS_ioperm:
            return ioperm(static_cast<unsigned long>(a), static_cast<unsigned long>(b),
                          number32(c));
        case SYS_iopl:
            return iopl(fd);
        case SYS_close:
            return close(fd);
        case SYS_close_range:
            return close_range(static_cast<unsigned>(a), static_cast<unsigned>(b), number32(c));
        default:
            break;
    }
    return REAL(syscall)(number, a, b, c, d, e, f);
}

}  // extern "C"
