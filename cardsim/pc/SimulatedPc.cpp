#include "pc/SimulatedPc.h"

#include <poll.h>
#include <time.h>

#include <algorithm>

namespace cardsim {

namespace {

std::uint64_t machineTime() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000 +
           static_cast<std::uint64_t>(time.tv_nsec) / 1000;
}

CardOptions cardOptions(const SimulatedPc::Options& options, int slot) {
    CardOptions card;
    card.channels = options.channels[slot];
    card.period_us = options.period_ms * 1000;
    card.audio = options.audio;
    card.faults = options.faults;
    card.seed = options.seed;
    return card;
}

Cards makeCards(const SimulatedPc::Options& options, volatile std::uint16_t* memory,
                MachineReport& report) {
    std::optional<CardOptions> slots[portMap::kMaxCards];
    for (int slot = 0; slot < portMap::kMaxCards; ++slot) {
        if (options.channels[slot] != 0) {
            slots[slot] = cardOptions(options, slot);
        }
    }
    return {slots, memory, report};
}

}  // namespace

SimulatedPc::SimulatedPc(const Options& options)
    : virtualTime(options.virtualTime),
      speed(options.speed),
      started(machineTime()),
      machineReport(options.report == nullptr ? ownReport : *options.report),
      ownMemory(options.memory == nullptr ? new MemoryFile : nullptr),
      memory(options.memory == nullptr ? *ownMemory : *options.memory),
      slots(makeCards(options, memory.words(), machineReport)) {
    attachHardware(this);
}

SimulatedPc::~SimulatedPc() {
    attachHardware(nullptr);
}

std::uint64_t SimulatedPc::now() const {
    return virtualTime ? elapsed.load() : machineTime() - started;
}

void SimulatedPc::at(std::uint64_t milliseconds, std::function<void()> action) {
    const std::lock_guard<std::recursive_mutex> guard(lock);
    slots.at(milliseconds * 1000, std::move(action));
}

std::uint64_t SimulatedPc::timeOfAccess() {
    if (virtualTime) {
        ++elapsed;
    }
    return now();
}

std::uint32_t SimulatedPc::in(std::uint16_t port, int bytes) {
    const std::lock_guard<std::recursive_mutex> guard(lock);
    return slots.in(port, bytes, timeOfAccess());
}

void SimulatedPc::out(std::uint16_t port, int bytes, std::uint32_t value) {
    const std::lock_guard<std::recursive_mutex> guard(lock);
    slots.out(port, bytes, value, timeOfAccess());
}

bool SimulatedPc::sleep(std::uint64_t microseconds) {
    if (!virtualTime) {
        return false;
    }
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        const std::uint64_t left = end - std::min<std::uint64_t>(end, elapsed);
        elapsed += std::min(microseconds, left);
        slots.advance(elapsed);
    }
    if (elapsed >= end) {
        switchOff();
    }
    waitForMachine(microseconds);
    return true;
}

// Until as much of the machine's time has passed as the speed asks for. Time that a busy machine
// has lost is not made up for: the program would see the cards run faster.
void SimulatedPc::waitForMachine(std::uint64_t slept_us) {
    if (speed == 0) {
        return;
    }
    const std::uint64_t due = paced_us + slept_us / speed;
    const std::uint64_t now_us = machineTime();
    if (due > now_us) {
        poll(nullptr, 0, static_cast<int>((due - now_us) / 1000));  // no sleep of the program's
    }
    paced_us = std::max(due, now_us);
}

bool SimulatedPc::processorTime(std::clock_t& ticks) {
    if (virtualTime) {
        ticks = static_cast<std::clock_t>(elapsed.load());
    }
    return virtualTime;
}

}  // namespace cardsim
