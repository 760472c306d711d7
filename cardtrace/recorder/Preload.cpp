// The library that the recorder puts in front of a program's own ones on a PC with cards. Each
// process of the program reaches the machine through it, and what it does there goes into the ring
// of the launcher. What stands behind the traps lives as long as the process.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "recorder/RealMachine.h"
#include "recorder/RecordingHardware.h"
#include "recorder/RingVariable.h"
#include "traps/Hardware.h"
#include "traps/PortDevice.h"
#include "traps/Programs.h"
#include "traps/Refusal.h"

namespace cardtrace {

namespace {

void attach() {
    const char* const path = std::getenv(kRingVariable);
    auto& machine = *new RealMachine;
    try {
        RecordRing& ring = RecordRing::at(path == nullptr ? "" : path);
        auto& recorder = *new RecordingHardware(
            machine, ring,
            {[&ring] { return ring.passed_us(); }, [&machine] { return machine.memory(); }});
        recorder.recordOwnerAtFirstAccess(static_cast<std::uint32_t>(getpid()));
        cardsim::attachHardware(&recorder);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "cardtrace: process %d is not recorded: %s\n",
                     static_cast<int>(getpid()), error.what());
    }
}

// The child is a process like any other.
void forgetInChild() {
    cardsim::attachHardware(nullptr);
    cardsim::onFirstUse(attach);
    forgetThreadNumber();
}

__attribute__((constructor)) void prepare() {
    cardsim::refuseInTheNameOf("cardtrace");
    cardsim::keepForChildren("LD_PRELOAD");
    cardsim::keepForChildren(kRingVariable);
    cardsim::inheritPortDevices();
    cardsim::onFirstUse(attach);
    pthread_atfork(nullptr, nullptr, forgetInChild);
}

}  // namespace

}  // namespace cardtrace
