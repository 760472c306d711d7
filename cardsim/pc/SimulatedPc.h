// A PC with simulated cards: the card slots, the file that stands for physical memory, and a clock,
// behind the traps. Made by a test or by the preload library; attaches itself for as long as
// it lives. All accesses are served under one lock, on the thread that makes them.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "model/Cards.h"
#include "pc/MemoryFile.h"
#include "traps/Hardware.h"

namespace cardsim {

// Thrown out of the sleep of the thread that drives the cards once the time of a run is over: the
// way out of a program that never ends by itself.
struct PowerOff : std::exception {
    const char* what() const noexcept override { return "the simulated PC was switched off"; }
};

class SimulatedPc : public Hardware {
  public:
    struct Options {
        // Cards with so many channels, everything else as it stands here.
        static Options with(int channels0, int channels1 = 0) {
            Options options;
            options.channels[0] = channels0;
            options.channels[1] = channels1;
            return options;
        }

        int channels[portMap::kMaxCards] = {4, 0};  // by slot; 0: an empty one
        std::uint64_t seed = 1;
        std::uint32_t period_ms = 0;  // 0: that of each kind of card
        AudioSource audio = AudioSource::kPattern;
        std::vector<Fault> faults;
        // Time passes only by what the thread that drives the cards sleeps, and by one microsecond
        // for each of its port accesses; otherwise it is the machine's.
        bool virtualTime = true;
        // How many times as fast as the machine's virtual time may pass at most; 0: any.
        std::uint32_t speed = 0;
        // Where the cards' memory lies; null: in a file of the PC's own.
        const MemoryFile* memory = nullptr;
        // Where the report goes on; null: into the PC itself.
        MachineReport* report = nullptr;
    };

    explicit SimulatedPc(const Options& options);
    ~SimulatedPc() override;
    SimulatedPc(const SimulatedPc&) = delete;
    SimulatedPc& operator=(const SimulatedPc&) = delete;

    Cards& cards() { return slots; }
    Card& card(int slot) { return slots.card(slot); }
    Line& line(int slot, int port) { return card(slot).line(port); }
    const MachineReport& report() const { return machineReport; }
    std::uint64_t now() const;

    // Does something when that much time has passed since the PC was made. The action may use the
    // cards and the program, but must not sleep.
    void at(std::uint64_t milliseconds, std::function<void()> action);
    // Ends a run in virtual time at the first sleep that reaches that much time since the PC was
    // made.
    void endAt(std::uint64_t milliseconds) { end = milliseconds * 1000; }

    std::uint32_t in(std::uint16_t port, int bytes) override;
    void out(std::uint16_t port, int bytes, std::uint32_t value) override;
    int grantPorts() override { return 0; }
    int openPorts() override { return 0; }
    std::string memoryPath() override { return memory.path(); }
    bool sleep(std::uint64_t microseconds) override;
    bool processorTime(std::clock_t& ticks) override;

  protected:
    // The end of the run has come, on the thread that drives the cards and without the lock.
    virtual void switchOff() { throw PowerOff(); }

  private:
    std::uint64_t timeOfAccess();
    void waitForMachine(std::uint64_t slept_us);

    const bool virtualTime;
    const std::uint32_t speed;
    const std::uint64_t started;
    MachineReport ownReport{};
    MachineReport& machineReport;
    const std::unique_ptr<const MemoryFile> ownMemory;
    const MemoryFile& memory;
    std::recursive_mutex lock;  // a planned action may use the cards
    Cards slots;
    std::atomic<std::uint64_t> elapsed{0};  // microseconds of virtual time
    std::uint64_t paced_us = started;       // of the machine's time, until where the speed was kept
    std::atomic<std::uint64_t> end{~std::uint64_t{0}};
};

}  // namespace cardsim
