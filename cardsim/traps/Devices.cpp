#include "traps/Devices.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "traps/Hardware.h"
#include "traps/PortDevice.h"
#include "traps/Real.h"
#include "traps/Refusal.h"

namespace cardsim {

namespace {

namespace fs = std::filesystem;

// What devices do not care about, and files do.
constexpr int kForFilesOnly = O_TRUNC | O_NOFOLLOW;
constexpr off64_t kCardMemory = 0xD0000;
constexpr off64_t kEndOfCardMemory = 0xD4000;

enum class Device { kOther, kPorts, kMemory };

fs::path pathOf(int folder) {
    std::error_code ignored;
    return fs::read_symlink(
        folder == AT_FDCWD ? "/proc/self/cwd" : "/proc/self/fd/" + std::to_string(folder), ignored);
}

bool isNumbered(const struct stat& status, unsigned major, unsigned minor) {
    return S_ISCHR(status.st_mode) && status.st_rdev == makedev(major, minor);
}

// A path that leads to something: the device is known by its numbers, whatever it is called, or as
// a descriptor that was opened before.
Device deviceOf(const struct stat& status) {
    if (isNumbered(status, 1, 4) || isPortDevice(status)) {
        return Device::kPorts;
    }
    return isNumbered(status, 1, 1) ? Device::kMemory : Device::kOther;
}

bool hasNameOfDevice(const char* path) {
    const char* const slash = std::strrchr(path, '/');
    const char* const name = slash == nullptr ? path : slash + 1;
    return std::strcmp(name, "port") == 0 || std::strcmp(name, "mem") == 0;
}

// A path that leads to nothing, for a PC without the devices: the device that it names, perhaps by
// links.
Device deviceByName(int folder, const char* path) {
    constexpr int kMostLinks = 40;
    fs::path whole = *path == '/' ? fs::path(path) : pathOf(folder) / path;
    std::error_code failed;
    for (int links = 0; links < kMostLinks && !failed; ++links) {
        whole = whole.lexically_normal();
        const fs::path parent = fs::canonical(whole.parent_path(), failed);
        whole = failed ? whole : parent / whole.filename();
        if (whole == "/dev/port") {
            return Device::kPorts;
        }
        if (whole == "/dev/mem") {
            return Device::kMemory;
        }
        whole = whole.parent_path() / fs::read_symlink(whole, failed);
    }
    return Device::kOther;
}

Device deviceOf(int folder, const char* path) {
    struct stat status {};
    const int savedErrno = errno;
    if (path == nullptr) {
        return Device::kOther;
    }
    Device device = Device::kOther;
    if (fstatat(folder, path, &status, 0) == 0) {
        device = deviceOf(status);
    } else if (errno == ENOENT && (hasNameOfDevice(path) ||
                                   fstatat(folder, path, &status, AT_SYMLINK_NOFOLLOW) == 0)) {
        // Nearly all missing files show by this that they are none, without any memory allocated.
        device = deviceByName(folder, path);
    }
    errno = savedErrno;
    return device;
}

// The number of the file that the program got for /dev/mem last; files without a name are all on
// one file system.
std::atomic<ino_t> memoryFile{0};

int openMemory(Hardware& hardware, int flags) {
    const std::string path = hardware.memoryPath();
    const int fd = path.empty() ? -1 : REAL(open)(path.c_str(), flags);
    struct stat status {};
    if (fd != -1 && fstat(fd, &status) == 0) {
        memoryFile = status.st_ino;
    }
    return fd;
}

int openDevice(Hardware& hardware, Device device, int flags) {
    if ((flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) {
        errno = EEXIST;
        return -1;
    }
    flags &= ~(kForFilesOnly | O_CREAT);
    if (device == Device::kMemory) {
        return openMemory(hardware, flags);
    }
    return hardware.openPorts() == 0 ? openPortDevice(flags) : -1;
}

}  // namespace

bool openDevice(int folder, const char* path, int flags, int& fd) {
    const Device device = deviceOf(folder, path);
    Hardware* const hardware = device == Device::kOther ? nullptr : hardwareAtFirstUse();
    if (hardware == nullptr) {
        return false;
    }
    fd = openDevice(*hardware, device, flags);
    const int error = fd == -1 ? errno : 0;
    const auto kind =
        device == Device::kMemory ? DeviceCall::Kind::kOpenMemory : DeviceCall::Kind::kOpenPorts;
    hardware->noticed({kind, 0, 0, static_cast<std::uint32_t>(flags)}, error);
    errno = fd == -1 ? error : errno;
    return true;
}

bool refusesDevice(const char* path, const char* way) {
    if (deviceOf(AT_FDCWD, path) == Device::kOther || hardwareAtFirstUse() == nullptr) {
        return false;
    }
    refuse(way, path, "only open is served", ENODEV);
    return true;
}

bool isMemoryDevice(int fd) {
    Hardware* const hardware = attachedHardware();
    struct stat status {
    }, memory{};
    if (hardware == nullptr || fd < 0 || fstat(fd, &status) != 0) {
        return false;
    }
    if (S_ISCHR(status.st_mode)) {
        return isNumbered(status, 1, 1);
    }
    if (!S_ISREG(status.st_mode) || status.st_nlink != 0) {
        return false;  // only files without a name stand for memory
    }
    ino_t known = memoryFile;
    const int savedErrno = errno;
    if (known == 0 && stat(hardware->memoryPath().c_str(), &memory) == 0) {
        known = memory.st_ino;  // the descriptor may be a parent's
    }
    errno = savedErrno;
    return known == status.st_ino;
}

bool refusesMapping(int fd, std::size_t length, off64_t offset) {
    if (offset % sysconf(_SC_PAGESIZE) != 0) {
        return false;  // the kernel does
    }
    if (offset >= kCardMemory && offset < kEndOfCardMemory &&
        length <= static_cast<std::size_t>(kEndOfCardMemory - offset)) {
        return false;
    }
    struct stat status {};
    if (!isMemoryDevice(fd) || fstat(fd, &status) != 0 || S_ISCHR(status.st_mode)) {
        return false;
    }
    refuse("map", "/dev/mem beyond 0xD0000 to 0xD3FFF", "nothing else is served", EPERM);
    return true;
}

}  // namespace cardsim
