#include "Machine.h"

#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "CardMemory.h"
#include "CardPorts.h"
#include "DSPDetect.h"
#include "DirectIO.h"

namespace cardcheck {

namespace {

constexpr const char* kLockdownFile = "/sys/kernel/security/lockdown";
constexpr const char* kUnlock =
    "switch Secure Boot off in the set-up of the PC, or start the kernel without \"lockdown=\"";

constexpr Device kPortDevice = {"/dev/port", "c 1 4", "CONFIG_DEVPORT"};
constexpr Device kMemoryDevice = {"/dev/mem", "c 1 1", "CONFIG_DEVMEM"};

std::string portRange() {
    return hex(kBasePortBoard0, 3) + " to " + hex(kBasePortBoard0 + kNumCardPorts - 1, 3);
}

std::string kernel() {
    utsname name{};
    uname(&name);
    return std::string("Linux ") + name.release + " on " + name.machine;
}

std::string user(const Rights& rights) {
    return rights.isRoot() ? "root" : "user " + std::to_string(rights.user);
}

Refusal lackOfPrivilege(const Rights& rights) {
    if (rights.isRoot()) {
        return {"root without CAP_SYS_RAWIO, as in a container or a confined service",
                "run it outside of that, or give that the capability CAP_SYS_RAWIO"};
    }
    return {user(rights) + " without CAP_SYS_RAWIO",
            "run it as root, for example with sudo, or give it CAP_SYS_RAWIO"};
}

Refusal lockedDown(const Rights& rights) {
    return {"the kernel is locked down (" + rights.lockdown + "), for root as well", kUnlock};
}

// Why the kernel refused something with that error.
Refusal refusalBy(const Rights& rights, int error) {
    if (!rights.hasRawIo) {
        return lackOfPrivilege(rights);
    }
    if (error == EPERM && rights.isLockedDown()) {
        return lockedDown(rights);
    }
    return {std::string(std::strerror(error)) + ", although " + user(rights) +
                " has CAP_SYS_RAWIO: a container, a security module or the kernel's own rules",
            "run it outside of containers; the last lines of dmesg may name what refuses"};
}

std::string nameOfUser(uid_t id) {
    const passwd* const user = getpwuid(id);
    return user != nullptr ? user->pw_name : std::to_string(id);
}

std::string nameOfGroup(gid_t id) {
    const group* const users = getgrgid(id);
    return users != nullptr ? users->gr_name : std::to_string(id);
}

std::string letGroupHave(const Device& device) {
    const std::string path = device.path;
    return std::string("chgrp ") + kDeviceGroup + " " + path + " && chmod 0660 " + path;
}

std::string letIntoGroup(const Rights& rights, const std::string& group) {
    return "adduser " + nameOfUser(rights.user) + " " + group +
           ", then log in again (SupplementaryGroups=" + group + " of a service)";
}

// The file's owners and mode do not let the user in.
Refusal refusalByMode(const Rights& rights, const struct stat& status, const Device& device) {
    constexpr mode_t kGroupMay = S_IRGRP | S_IWGRP;
    const std::string cause =
        user(rights) + " may not read and write it: it is " + ownersAndMode(device.path);
    if ((status.st_mode & kGroupMay) == kGroupMay && status.st_gid != 0) {
        return {cause, "run it as root, or let the user into that group: " +
                           letIntoGroup(rights, nameOfGroup(status.st_gid))};
    }
    const group* const users = getgrnam(kDeviceGroup);
    const bool isMember = users != nullptr && rights.isIn(users->gr_gid);
    return {cause, "run it as root, or let a group of the user's read and write it: " +
                       letGroupHave(device) +
                       ", as the package's rule for udev does (60-dspcard.rules)" +
                       (isMember ? "" : "; " + letIntoGroup(rights, kDeviceGroup)) +
                       "; CAP_SYS_RAWIO alone is not enough, nor is group kmem, which may only "
                       "read"};
}

bool doesModeLetIn(const Rights& rights, const struct stat& status) {
    const mode_t shift = status.st_uid == rights.user ? 6 : rights.isIn(status.st_gid) ? 3 : 0;
    return (status.st_mode >> shift & 06) == 06;
}

bool isWithoutDevices(const Device& device) {
    struct statvfs fileSystem {};
    return statvfs(device.path, &fileSystem) == 0 && (fileSystem.f_flag & ST_NODEV) != 0;
}

bool checkPortPermission(Report& report, const Rights& rights, DirectIO& hardware) {
    constexpr const char* kName = "port permission";
    hardware.allowPortAccess();
    if (hardware.arePortsEnabled()) {
        report.pass(kName, kernel() + " grants " + portRange());
        return true;
    }
    const int error = hardware.getFailureErrno();
    if (error == ENOSYS) {
        report.fail(kName, kernel() + ": this kernel has no port permission",
                    "start a kernel with CONFIG_X86_IOPL_IOPERM=y, on the PC itself: sandboxes "
                    "and small virtual machines often go without");
    } else {
        const Refusal refusal = refusalBy(rights, error);
        report.fail(kName, portRange() + " refused: " + refusal.cause, refusal.fix);
    }
    return false;
}

void checkPrivilege(Report& report, const Rights& rights, bool portsGranted) {
    constexpr const char* kName = "privilege";
    if (rights.hasRawIo) {
        report.pass(kName, user(rights) + " with CAP_SYS_RAWIO");
    } else if (portsGranted) {
        report.pass(kName, lackOfPrivilege(rights).cause + ", but the ports are granted");
    } else {
        const Refusal refusal = lackOfPrivilege(rights);
        report.fail(kName, refusal.cause, refusal.fix);
    }
}

void checkLockdown(Report& report, const Rights& rights, bool portsGranted) {
    constexpr const char* kName = "kernel lockdown";
    if (rights.lockdown.empty()) {
        report.skip(kName, std::string(kLockdownFile) +
                               " cannot be read: no lockdown in this kernel, or no securityfs");
    } else if (!rights.isLockedDown()) {
        report.pass(kName, rights.lockdown);
    } else if (portsGranted) {
        report.pass(kName, rights.lockdown + ", but the ports are granted");
    } else {
        const Refusal refusal = lockedDown(rights);
        report.fail(kName, refusal.cause, refusal.fix);
    }
}

// Without these two the driver works; a busy PC may then keep it waiting.
void checkPrecedence(Report& report, const Rights& rights) {
    constexpr const char* kPriority = "real-time priority";
    constexpr const char* kMemory = "locked memory";
    if (rights.mayTakePriority) {
        report.pass(kPriority, user(rights) + " may take it");
    } else {
        report.warn(kPriority,
                    user(rights) + " may not take it: transfers may be missed while the PC is busy",
                    "allow a priority of 1: LimitRTPRIO=1 of a service, \"rtprio 1\" in "
                    "/etc/security/limits.conf (ulimit -r), or the capability CAP_SYS_NICE");
    }
    if (rights.mayLockMemory) {
        report.pass(kMemory, user(rights) + " may lock all");
    } else {
        report.warn(
            kMemory,
            user(rights) + " may not lock all: transfers may be missed while memory is swapped in",
            "allow it without limit: LimitMEMLOCK=infinity of a service, \"memlock "
            "unlimited\" in /etc/security/limits.conf (ulimit -l), or the capability "
            "CAP_IPC_LOCK");
    }
}

bool checkPortDevice(Report& report, const Rights& rights) {
    constexpr const char* kName = kPortDevice.path;
    if (DSPDetect().openPortDevice()) {
        report.pass(kName, "opens for reading and writing");
        return true;
    }
    const Refusal refusal = refusalOfDevice(rights, errno, kPortDevice);
    report.fail(kName, refusal.cause, refusal.fix);
    return false;
}

void* checkMemory(Report& report, const Rights& rights, DirectIO& hardware) {
    constexpr const char* kDevice = kMemoryDevice.path;
    constexpr const char* kMapping = "card memory";
    void* const memory = hardware.mapMemory(kCardMemBase, kCardMemLength);
    const int error = hardware.getFailureErrno();
    if (hardware.getFailure() == DirectIO::Failure::kMemoryDevice) {
        const Refusal refusal = refusalOfDevice(rights, error, kMemoryDevice);
        report.fail(kDevice, refusal.cause, refusal.fix);
        report.skip(kMapping, "needs /dev/mem");
        return memory;
    }
    report.pass(kDevice, "opens for reading and writing");
    if (hardware.getFailure() == DirectIO::Failure::kMemoryInUse) {
        const std::string& holder = hardware.getHolder();
        report.fail(kMapping, "the cards are in use by " + holder, fixOfCardsInUse(holder));
        return memory;
    }
    const std::string region =
        hex(kCardMemBase, 5) + " to " + hex(kCardMemBase + kCardMemLength - 1, 5);
    if (memory != nullptr) {
        report.pass(kMapping, region + " mapped");
    } else if (error == EPERM && rights.hasRawIo && !rights.isLockedDown()) {
        report.fail(kMapping, region + " refused: the kernel keeps it for another driver",
                    "see in /proc/iomem what has it; \"iomem=relaxed\" on the kernel's command "
                    "line shares it");
    } else {
        const Refusal refusal = refusalBy(rights, error);
        report.fail(kMapping, region + " refused: " + refusal.cause, refusal.fix);
    }
    return memory;
}

bool isCapabilityEffective(int capability) {
    std::ifstream status("/proc/self/status");
    std::string field;
    unsigned long long bits = 0;
    while (status >> field) {
        if (field == "CapEff:" && status >> std::hex >> bits) {
            return (bits >> capability & 1) != 0;
        }
    }
    return false;
}

// The file holds "none [integrity] confidentiality", the one in force in brackets.
std::string lockdownInForce() {
    std::ifstream file(kLockdownFile);
    std::string mode;
    while (file >> mode) {
        if (mode.front() == '[' && mode.back() == ']') {
            return mode.substr(1, mode.size() - 2);
        }
    }
    return {};
}

rlim_t limitOf(decltype(RLIMIT_RTPRIO) resource) {
    rlimit limit{};
    return getrlimit(resource, &limit) == 0 ? limit.rlim_cur : 0;
}

std::vector<gid_t> groupsOfThisProcess() {
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
    groups.resize(static_cast<std::size_t>(
        std::max(getgroups(static_cast<int>(groups.size()), groups.data()), 0)));
    groups.push_back(getegid());
    return groups;
}

}  // namespace

bool Rights::isIn(gid_t group) const {
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

Rights readRights() {
    Rights rights;
    rights.user = geteuid();
    rights.hasRawIo = isCapabilityEffective(CAP_SYS_RAWIO);
    rights.lockdown = lockdownInForce();
    rights.groups = groupsOfThisProcess();
    rights.mayTakePriority = isCapabilityEffective(CAP_SYS_NICE) || limitOf(RLIMIT_RTPRIO) >= 1;
    rights.mayLockMemory =
        isCapabilityEffective(CAP_IPC_LOCK) || limitOf(RLIMIT_MEMLOCK) == RLIM_INFINITY;
    return rights;
}

std::string ownersAndMode(const std::string& file) {
    struct stat status {};
    if (stat(file.c_str(), &status) != 0) {
        return "of unknown owners";
    }
    std::ostringstream text;
    text << nameOfUser(status.st_uid) << ':' << nameOfGroup(status.st_gid) << " 0" << std::oct
         << (status.st_mode & 0777);
    return text.str();
}

Refusal refusalOfDevice(const Rights& rights, int error, const Device& device) {
    const std::string path = device.path;
    const std::string making =
        "mknod " + path + " " + device.number + " && " + letGroupHave(device);
    const std::string kernelWithIt = std::string("start a kernel with ") + device.option + "=y";
    if (error == ENOENT) {
        return {"there is none", making + "; if that does not help, " + kernelWithIt};
    }
    if (error == ENXIO || error == ENODEV) {
        return {"the kernel has nothing behind it",
                kernelWithIt + ", or make it anew: rm " + path + " && " + making};
    }
    struct stat status {};
    const bool isThere = stat(device.path, &status) == 0;
    const bool letsIn = rights.isRoot() || (isThere && doesModeLetIn(rights, status));
    if (error == EACCES && isWithoutDevices(device)) {
        return {user(rights) + " may not open it: the folder is mounted nodev, as in a container",
                "run it outside of containers, or mount that folder without nodev"};
    }
    if (error == EACCES && !letsIn) {  // before the kernel looks at capabilities
        return refusalByMode(rights, status, device);
    }
    if (error == EACCES || (error == EPERM && rights.hasRawIo && !rights.isLockedDown())) {
        return {std::string(std::strerror(error)) + ", although " + user(rights) +
                    (error == EACCES ? " may read and write it (" + ownersAndMode(path) + ")"
                                     : " has CAP_SYS_RAWIO") +
                    ": the device policy of a container or a service, or a security module",
                "run it outside of containers, or let that have the device (DeviceAllow=" + path +
                    " rw of a service); the last lines of dmesg may name what refuses"};
    }
    return refusalBy(rights, error);
}

std::string fixOfCardsInUse(const std::string& holder, const std::string& processes) {
    std::istringstream words(holder);
    std::string process, number, group;
    words >> process >> number;
    std::ifstream groups(processes + "/" + number + "/cgroup");
    while (std::getline(groups, group)) {
        if (group.find("/dspcard-record.service") != std::string::npos) {
            return "systemctl stop dspcard-record, then check again; the service comes back when "
                   "its process is killed";
        }
    }
    return "end " + holder + ", then check again";
}

Access checkMachine(Report& report, const Rights& rights) {
    DirectIO& hardware = DirectIO::getInstance();
    const bool portsGranted = checkPortPermission(report, rights, hardware);
    checkPrivilege(report, rights, portsGranted);
    checkLockdown(report, rights, portsGranted);
    checkPrecedence(report, rights);
    Access access;
    access.ports = portsGranted;
    access.portDevice = checkPortDevice(report, rights);
    access.memory = checkMemory(report, rights, hardware);
    access.cardsInUse = hardware.getFailure() == DirectIO::Failure::kMemoryInUse;
    return access;
}

}  // namespace cardcheck
