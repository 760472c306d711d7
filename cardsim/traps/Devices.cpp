#include "traps/Devices.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "traps/Hardware.h"
#include "traps/PortDevice.h"
#include "traps/Real.h"

namespace cardsim {

namespace {

// What devices do not care about, and files do.
constexpr int kForFilesOnly = O_TRUNC | O_NOFOLLOW;

enum class Device { kOther, kPorts, kMemory };

std::filesystem::path pathOf(int folder) {
    std::error_code ignored;
    return std::filesystem::read_symlink(
        folder == AT_FDCWD ? "/proc/self/cwd" : "/proc/self/fd/" + std::to_string(folder), ignored);
}

// Nearly all paths show by their last part that they are none, without a look at anything else.
Device deviceOf(int folder, const char* path) {
    const char* const slash = path == nullptr ? nullptr : std::strrchr(path, '/');
    const char* const name = slash == nullptr ? path : slash + 1;
    if (name == nullptr || (std::strcmp(name, "port") != 0 && std::strcmp(name, "mem") != 0)) {
        return Device::kOther;
    }
    const bool isWhole = *path == '/';
    const std::filesystem::path whole =
        (isWhole ? std::filesystem::path(path) : pathOf(folder) / path).lexically_normal();
    if (whole == "/dev/port") {
        return Device::kPorts;
    }
    return whole == "/dev/mem" ? Device::kMemory : Device::kOther;
}

int openMemory(Hardware& hardware, int flags) {
    const std::string path = hardware.memoryPath();
    return path.empty() ? -1 : REAL(open)(path.c_str(), flags);
}

}  // namespace

bool openDevice(int folder, const char* path, int flags, int& fd) {
    const Device device = deviceOf(folder, path);
    Hardware* const hardware = device == Device::kOther ? nullptr : hardwareAtFirstUse();
    if (hardware == nullptr) {
        return false;
    }
    flags &= ~kForFilesOnly;
    if (device == Device::kMemory) {
        fd = openMemory(*hardware, flags);
    } else {
        fd = hardware->openPorts() == 0 ? openPortDevice(flags) : -1;
    }
    return true;
}

bool refusesDevice(const char* path, const char* way) {
    if (deviceOf(AT_FDCWD, path) == Device::kOther || hardwareAtFirstUse() == nullptr) {
        return false;
    }
    std::fprintf(stderr, "cardsim: process %d may not %s %s: only open is simulated\n",
                 static_cast<int>(getpid()), way, path);
    errno = ENODEV;
    return true;
}

}  // namespace cardsim
