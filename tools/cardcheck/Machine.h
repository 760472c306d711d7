// The checks of what lies between the driver and the cards: the kernel, the rights of this process,
// the devices. They touch no port and no card memory.
#pragma once

#include <string>

#include "Report.h"

namespace cardcheck {

// What the kernel says about this process and itself.
struct Rights {
    unsigned user = 0;
    bool hasRawIo = false;  // CAP_SYS_RAWIO is effective
    std::string lockdown;   // "none", "integrity", "confidentiality"; empty when it does not say

    bool isRoot() const { return user == 0; }
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

}  // namespace cardcheck
