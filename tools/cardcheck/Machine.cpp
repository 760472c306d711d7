#include "Machine.h"

#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

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

struct Refusal {
    std::string cause;
    std::string fix;
};

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

// As in "root:kmem 0640"; numbers where there is no name.
std::string ownersAndMode(const char* device) {
    struct stat status {};
    if (stat(device, &status) != 0) {
        return "of unknown owners";
    }
    const passwd* const owner = getpwuid(status.st_uid);
    const group* const owners = getgrgid(status.st_gid);
    std::ostringstream text;
    text << (owner != nullptr ? owner->pw_name : std::to_string(status.st_uid)) << ':'
         << (owners != nullptr ? owners->gr_name : std::to_string(status.st_gid)) << " 0"
         << std::oct << (status.st_mode & 0777);
    return text.str();
}

Refusal refusalOfDevice(const Rights& rights, int error, const char* device,
                        const std::string& missingFix) {
    if (error == ENOENT || error == ENXIO || error == ENODEV) {
        return {error == ENOENT ? "there is none" : "the kernel has nothing behind it", missingFix};
    }
    if (error == EACCES) {  // before the kernel looks at capabilities
        return {user(rights) + " may not read and write it: it is " + ownersAndMode(device),
                "run it as root, or let a group of the user's read and write it: "
                "chgrp dspcard-ports " +
                    std::string(device) + " && chmod 0660 " + device +
                    ", as the package's rule for udev does (60-dspcard.rules); CAP_SYS_RAWIO alone "
                    "is not enough, nor is group kmem, which may only read"};
    }
    return refusalBy(rights, error);
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

bool checkPortDevice(Report& report, const Rights& rights) {
    constexpr const char* kName = "/dev/port";
    if (DSPDetect().openPortDevice()) {
        report.pass(kName, "opens for reading and writing");
        return true;
    }
    const Refusal refusal =
        refusalOfDevice(rights, errno, kName,
                        "mknod -m 600 /dev/port c 1 4; if that does not help, start a kernel with "
                        "CONFIG_DEVPORT=y");
    report.fail(kName, refusal.cause, refusal.fix);
    return false;
}

void* checkMemory(Report& report, const Rights& rights, DirectIO& hardware) {
    constexpr const char* kDevice = "/dev/mem";
    constexpr const char* kMapping = "card memory";
    void* const memory = hardware.mapMemory(kCardMemBase, kCardMemLength);
    const int error = hardware.getFailureErrno();
    if (hardware.getFailure() == DirectIO::Failure::kMemoryDevice) {
        const Refusal refusal =
            refusalOfDevice(rights, error, kDevice,
                            "mknod -m 600 /dev/mem c 1 1; if that does not help, start a kernel "
                            "with CONFIG_DEVMEM=y");
        report.fail(kDevice, refusal.cause, refusal.fix);
        report.skip(kMapping, "needs /dev/mem");
        return memory;
    }
    report.pass(kDevice, "opens for reading and writing");
    if (hardware.getFailure() == DirectIO::Failure::kMemoryInUse) {
        const std::string& holder = hardware.getHolder();
        report.fail(kMapping, "the cards are in use by " + holder,
                    "end " + holder + ", then check again");
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

}  // namespace

Rights readRights() {
    return {geteuid(), isCapabilityEffective(CAP_SYS_RAWIO), lockdownInForce()};
}

Access checkMachine(Report& report, const Rights& rights) {
    DirectIO& hardware = DirectIO::getInstance();
    const bool portsGranted = checkPortPermission(report, rights, hardware);
    checkPrivilege(report, rights, portsGranted);
    checkLockdown(report, rights, portsGranted);
    Access access;
    access.ports = portsGranted;
    access.portDevice = checkPortDevice(report, rights);
    access.memory = checkMemory(report, rights, hardware);
    access.cardsInUse = hardware.getFailure() == DirectIO::Failure::kMemoryInUse;
    return access;
}

}  // namespace cardcheck
