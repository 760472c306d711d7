// Hardware that puts down all that passes between the program and other hardware: it stands between
// the traps and a simulated PC, or the machine itself. Used on whatever threads of the program.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "format/Record.h"
#include "ring/RecordRing.h"
#include "traps/Hardware.h"

namespace cardtrace {

class RecordingHardware : public cardsim::Hardware {
  public:
    // What it can ask of the hardware besides; both may be called in a signal handler.
    struct Surroundings {
        std::function<std::uint64_t()> time_us;  // right after an access: of that access
        // The memory of both cards, or null as long as there is none.
        std::function<const volatile std::uint16_t*()> memory;
        // Whether this process has the cards; right after an access.
        std::function<bool()> hasCards = [] { return true; };
    };

    // All that is given must stay.
    RecordingHardware(Hardware& recorded, RecordRing& recordRing, const Surroundings& outside)
        : hardware(recorded), ring(recordRing), surroundings(outside) {}

    std::uint32_t in(std::uint16_t port, int bytes) override;
    void out(std::uint16_t port, int bytes, std::uint32_t value) override;
    bool readByte(std::uint16_t port, std::uint8_t& byte) override;
    bool writeByte(std::uint16_t port, std::uint8_t byte) override;
    int grantPorts() override { return hardware.grantPorts(); }
    int openPorts() override { return hardware.openPorts(); }
    std::string memoryPath() override { return hardware.memoryPath(); }
    int permits(const cardsim::DeviceCall& call) override { return hardware.permits(call); }
    void noticed(const cardsim::DeviceCall& call, int error) override;
    void noticedFile(const char* name) override;
    bool sleep(std::uint64_t microseconds) override;
    bool processorTime(std::clock_t& ticks) override { return hardware.processorTime(ticks); }
    bool hasOwnTime() override { return hardware.hasOwnTime(); }

    // A process has the cards from now on, or from its first access on.
    void recordOwner(std::uint32_t process);
    void recordOwnerAtFirstAccess(std::uint32_t process) { ownerToTell = process; }

  private:
    void recordOwnerOnce();
    void recordAccess(Kind kind, std::uint16_t port, int bytes, std::uint32_t value,
                      bool failed = false);
    void recordCall(Kind kind, const CallData& call, int error);
    void recordBuffersAtRelease(std::uint16_t port, std::uint32_t value);
    void recordBuffers(int slot);

    Hardware& hardware;
    RecordRing& ring;
    const Surroundings surroundings;
    std::atomic<std::uint32_t> ownerToTell{0};
    std::atomic<std::uint32_t> lastControl[2] = {};  // what was written to each control register
};

// In a child after a fork, whose thread has another number than the one that it is the copy of.
void forgetThreadNumber();

}  // namespace cardtrace
