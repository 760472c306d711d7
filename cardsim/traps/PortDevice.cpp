#include "traps/PortDevice.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

#include "traps/Hardware.h"
#include "traps/Real.h"

namespace cardsim {

namespace {

constexpr const char* kFileName = "dev-port";
constexpr int kMaxDescriptors = 4096;
constexpr off64_t kNumPorts = 0x10000;

// By descriptor: the number of the file behind it, 0 when it does not stand for the device.
std::atomic<ino_t> files[kMaxDescriptors];
std::atomic<int> numDescriptors{0};

void remember(int fd, ino_t file) {
    if (fd >= 0 && fd < kMaxDescriptors) {
        const ino_t before = files[fd].exchange(file);
        numDescriptors += (file != 0 ? 1 : 0) - (before != 0 ? 1 : 0);
    }
}

ino_t fileBehind(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 ? status.st_ino : 0;
}

// A real file keeps the offset and the mode, so that lseek and fcntl need no help. Nothing can be
// written into it: what is not served here fails.
int openRealFile(int flags) {
    const int file = memfd_create(kFileName, MFD_CLOEXEC | MFD_ALLOW_SEALING);
    REAL(fcntl)(file, F_ADD_SEALS, F_SEAL_WRITE | F_SEAL_GROW);
    const int fd = REAL(open)(("/proc/self/fd/" + std::to_string(file)).c_str(), flags);
    REAL(close)(file);
    return fd;
}

// The first of the ports to be accessed, of which there may be fewer than count; -1 with errno set
// when the descriptor is not open for that.
off64_t firstPort(int fd, int modeWithout, std::size_t& count, off64_t offset) {
    const int flags = REAL(fcntl)(fd, F_GETFL);
    if ((flags & O_ACCMODE) == modeWithout || (flags & O_PATH) != 0) {
        errno = EBADF;
        return -1;
    }
    if (offset < kWhereItStands) {
        errno = EINVAL;
        return -1;
    }
    count = std::min(count, static_cast<std::size_t>(kNumPorts));
    const auto wanted = static_cast<off64_t>(count);
    const off64_t first =
        offset == kWhereItStands ? REAL(lseek64)(fd, wanted, SEEK_CUR) - wanted : offset;
    const off64_t left = std::max<off64_t>(0, kNumPorts - first);
    if (left < wanted) {
        count = static_cast<std::size_t>(left);
        if (offset == kWhereItStands) {
            REAL(lseek64)(fd, left - wanted, SEEK_CUR);
        }
    }
    return first;
}

// Calls access(buffer, length, offset) for each part until one is not served whole.
template <class Access>
ssize_t eachPart(const iovec* parts, int count, off64_t offset, Access access) {
    if (count < 0) {
        errno = EINVAL;
        return -1;
    }
    ssize_t sum = 0;
    for (const iovec* part = parts; part != parts + count; ++part) {
        const ssize_t done =
            access(part->iov_base, part->iov_len, offset == kWhereItStands ? offset : offset + sum);
        if (done < 0) {
            return sum == 0 ? done : sum;
        }
        sum += done;
        if (static_cast<std::size_t>(done) < part->iov_len) {
            break;
        }
    }
    return sum;
}

}  // namespace

int openPortDevice(int flags) {
    const int fd = openRealFile(flags);
    if (fd >= kMaxDescriptors) {
        REAL(close)(fd);
        errno = EMFILE;
        return -1;
    }
    if (fd != -1) {
        remember(fd, fileBehind(fd));
    }
    return fd;
}

void inheritPortDevices() {
    DIR* const folder = opendir("/proc/self/fd");
    while (const dirent* const entry = folder == nullptr ? nullptr : readdir(folder)) {
        char target[64] = {};
        const ssize_t length = readlinkat(dirfd(folder), entry->d_name, target, sizeof(target) - 1);
        if (length > 0 && std::strstr(target, kFileName) != nullptr &&
            std::strncmp(target, "/memfd:", 7) == 0) {
            const int fd = std::atoi(entry->d_name);
            remember(fd, fileBehind(fd));
        }
    }
    if (folder != nullptr) {
        closedir(folder);
    }
}

bool isPortDevice(int fd) {
    if (fd < 0 || fd >= kMaxDescriptors || files[fd] == 0) {
        return false;
    }
    // It may have been closed, and its number given to another file, where no trap could see it.
    if (files[fd] != fileBehind(fd)) {
        forgetPortDevice(fd);
        return false;
    }
    return true;
}

bool isPortDevice(const struct stat& status) {
    return numDescriptors != 0 && S_ISREG(status.st_mode) && status.st_nlink == 0 &&
           std::any_of(std::begin(files), std::end(files),
                       [&](const auto& file) { return file == status.st_ino; });
}

bool followCopy(int fd, int copy) {
    const bool stands = isPortDevice(fd);
    remember(copy, stands ? files[fd].load() : 0);
    return !stands || copy < kMaxDescriptors;
}

void forgetPortDevice(int fd) {
    remember(fd, 0);
}

void forgetPortDevices(unsigned first, unsigned last) {
    for (unsigned fd = first; fd <= last && fd < kMaxDescriptors; ++fd) {
        forgetPortDevice(static_cast<int>(fd));
    }
}

ssize_t readPorts(int fd, void* buffer, std::size_t count, off64_t offset) {
    auto* bytes = static_cast<unsigned char*>(buffer);
    const off64_t first = firstPort(fd, O_WRONLY, count, offset);
    if (first == -1) {
        return -1;
    }
    for (std::size_t i = 0; i < count; ++i) {
        const auto port = static_cast<std::uint16_t>(first + static_cast<off64_t>(i));
        if (!attachedHardware()->readByte(port, bytes[i])) {
            return i == 0 ? -1 : static_cast<ssize_t>(i);
        }
    }
    return static_cast<ssize_t>(count);
}

ssize_t writePorts(int fd, const void* buffer, std::size_t count, off64_t offset) {
    const auto* bytes = static_cast<const unsigned char*>(buffer);
    const off64_t first = firstPort(fd, O_RDONLY, count, offset);
    if (first == -1) {
        return -1;
    }
    for (std::size_t i = 0; i < count; ++i) {
        const auto port = static_cast<std::uint16_t>(first + static_cast<off64_t>(i));
        if (!attachedHardware()->writeByte(port, bytes[i])) {
            return i == 0 ? -1 : static_cast<ssize_t>(i);
        }
    }
    return static_cast<ssize_t>(count);
}

ssize_t readPorts(int fd, const iovec* parts, int count, off64_t offset) {
    return eachPart(parts, count, offset, [fd](void* buffer, std::size_t length, off64_t first) {
        return readPorts(fd, buffer, length, first);
    });
}

ssize_t writePorts(int fd, const iovec* parts, int count, off64_t offset) {
    return eachPart(parts, count, offset, [fd](void* buffer, std::size_t length, off64_t first) {
        return writePorts(fd, buffer, length, first);
    });
}

}  // namespace cardsim
