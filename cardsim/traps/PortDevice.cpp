#include "traps/PortDevice.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <string>

#include "traps/Hardware.h"
#include "traps/Real.h"

namespace cardsim {

namespace {

// Slots hold the descriptor + 1.
constexpr int kMaxDescriptors = 16;
std::atomic<int> descriptors[kMaxDescriptors];
std::atomic<int> numDescriptors{0};

std::atomic<int>* slotOf(int fd) {
    if (numDescriptors == 0) {
        return nullptr;
    }
    auto* const slot = std::find_if(std::begin(descriptors), std::end(descriptors),
                                    [fd](const auto& taken) { return taken == fd + 1; });
    return slot == std::end(descriptors) ? nullptr : slot;
}

bool takeSlot(int fd) {
    for (auto& slot : descriptors) {
        int free = 0;
        if (slot.compare_exchange_strong(free, fd + 1)) {
            ++numDescriptors;
            return true;
        }
    }
    return false;
}

// A real file keeps the offset and the mode, so that lseek and fcntl need no help. Nothing can be
// written into it: what is not served here fails.
int openRealFile(int flags) {
    const int file = memfd_create("dev-port", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    REAL(fcntl)(file, F_ADD_SEALS, F_SEAL_WRITE | F_SEAL_GROW);
    const int fd = REAL(open)(("/proc/self/fd/" + std::to_string(file)).c_str(), flags);
    REAL(close)(file);
    return fd;
}

// The first of count ports to be accessed; -1 with errno set when the descriptor is not open for
// that.
off_t firstPort(int fd, int modeWithout, std::size_t count, off_t offset) {
    if ((REAL(fcntl)(fd, F_GETFL) & O_ACCMODE) == modeWithout) {
        errno = EBADF;
        return -1;
    }
    const auto length = static_cast<off_t>(count);
    return offset == kWhereItStands ? lseek(fd, length, SEEK_CUR) - length : offset;
}

}  // namespace

int openPortDevice(int flags) {
    const int fd = openRealFile(flags);
    if (fd != -1 && !takeSlot(fd)) {
        REAL(close)(fd);
        errno = EMFILE;
        return -1;
    }
    return fd;
}

bool isPortDevice(int fd) {
    return slotOf(fd) != nullptr;
}

void followCopy(int fd, int copy) {
    forgetPortDevice(copy);
    if (isPortDevice(fd)) {
        takeSlot(copy);
    }
}

void forgetPortDevice(int fd) {
    if (std::atomic<int>* const slot = slotOf(fd)) {
        *slot = 0;
        --numDescriptors;
    }
}

ssize_t readPorts(int fd, void* buffer, std::size_t count, off_t offset) {
    auto* bytes = static_cast<unsigned char*>(buffer);
    const off_t first = firstPort(fd, O_WRONLY, count, offset);
    if (first == -1) {
        return -1;
    }
    for (std::size_t i = 0; i < count; ++i) {
        const auto port = static_cast<std::uint16_t>(first + static_cast<off_t>(i));
        bytes[i] = static_cast<unsigned char>(attachedHardware()->in(port, 1));
    }
    return static_cast<ssize_t>(count);
}

ssize_t writePorts(int fd, const void* buffer, std::size_t count, off_t offset) {
    const auto* bytes = static_cast<const unsigned char*>(buffer);
    const off_t first = firstPort(fd, O_RDONLY, count, offset);
    if (first == -1) {
        return -1;
    }
    for (std::size_t i = 0; i < count; ++i) {
        const auto port = static_cast<std::uint16_t>(first + static_cast<off_t>(i));
        attachedHardware()->out(port, 1, bytes[i]);
    }
    return static_cast<ssize_t>(count);
}

}  // namespace cardsim
