#include "launcher/Rights.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace cardsim {

namespace {

bool isDevice(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISCHR(status.st_mode) &&
           (status.st_rdev == makedev(1, 1) || status.st_rdev == makedev(1, 4));
}

}  // namespace

void giveUpHardware() {
    constexpr std::uint32_t kRawAccess = 1u << CAP_SYS_RAWIO;
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_LOWER, CAP_SYS_RAWIO, 0, 0);
    prctl(PR_CAPBSET_DROP, CAP_SYS_RAWIO, 0, 0, 0);  // fails for those who never had it
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, sets) == 0) {
        sets[0].effective &= ~kRawAccess;
        sets[0].permitted &= ~kRawAccess;
        sets[0].inheritable &= ~kRawAccess;
        syscall(SYS_capset, &header, sets);
    }
}

void letProgramsFindThisProcess() {
    prctl(PR_SET_DUMPABLE, 1, 0, 0, 0);
}

void refuseOpenDevices() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const std::string name = entry.path().filename();
        if (isDevice(std::atoi(name.c_str()))) {
            throw std::runtime_error("descriptor " + name +
                                     " is the machine's own port or memory device: close it");
        }
    }
}

}  // namespace cardsim
