// The checks of what lies between the driver and the cards: the kernel, the rights of this process,
// the devices. They touch no port and no card memory.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "Report.h"

namespace cardcheck {

// The group that may read and write the devices, as the package's rule for udev has it.
constexpr const char* kDeviceGroup = "dspcard";

// What the kernel says about this process and itself.
struct Rights {
    unsigned user = 0;
    bool hasRawIo = false;  // CAP_SYS_RAWIO is effective
    // "none", "integrity", "confidentiality"; empty when it does not say
    std::string lockdown = {};
    std::vector<gid_t> groups = {};
    // What the driver takes where it may, and goes on without.
    bool mayTakePriority = false;  // the lowest of real time
    bool mayLockMemory = false;    // all that it has

    bool isRoot() const { return user == 0; }
    bool isIn(gid_t group) const;
    bool isLockedDown() const { return !lockdown.empty() && lockdown != "none"; }
};
Rights readRights();

// What the checks could get hold of.
struct Access {
    bool ports = false;  // permission of this thread
    bool portDevice = false;
    bool cardsInUse = false;  // by another process: no port may be touched
    void* memory = nullptr;   // of both cards; null when it cannot be mapped
};
// A refusal is put down to the rights, so that nobody is told to become what he is already.
Access checkMachine(Report& report, const Rights& rights);

// "root:kmem 0640" of a file; numbers where there is no name.
std::string ownersAndMode(const std::string& file);

struct Refusal {
    std::string cause;
    std::string fix;
};
struct Device {
    const char* path;
    const char* number;  // as mknod takes it
    const char* option;  // what the kernel is built with, to have it
};
// Why that device does not open for reading and writing.
Refusal refusalOfDevice(const Rights& rights, int error, const Device& device);
// What makes the holder of the cards, "process 1234 (java)", let go of them.
std::string fixOfCardsInUse(const std::string& holder, const std::string& processes = "/proc");

}  // namespace cardcheck
