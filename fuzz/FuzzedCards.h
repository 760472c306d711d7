// What the fuzzers put under the driver: cards that take everything at once, a silent console, and
// a way to say that something is wrong.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>

#include "traps/Hardware.h"

// A card 0 whose boot ROM always wants a byte and is never busy; what is written is counted.
class FuzzedCards : public cardsim::Hardware {
  public:
    FuzzedCards() { cardsim::attachHardware(this); }

    std::uint32_t in(std::uint16_t port, int) override { return registers[port % kPorts]; }
    void out(std::uint16_t port, int, std::uint32_t value) override {
        constexpr std::uint16_t kControl = 0x302;
        constexpr std::uint32_t kStrobe = 0x0A;
        bootBytes += port == kControl && value == kStrobe ? 1 : 0;
    }
    int grantPorts() override { return 0; }
    int openPorts() override { return 0; }
    std::string memoryPath() override {
        static const int file = memfd_create("card memory", 0);
        return ftruncate(file, 0xD4000) == 0 ? "/proc/self/fd/" + std::to_string(file) : "";
    }
    bool sleep(std::uint64_t) override { return true; }
    bool processorTime(std::clock_t& ticks) override {
        ticks = 0;
        return true;
    }

    static constexpr int kPorts = 0x20;
    std::uint32_t registers[kPorts] = {};
    std::uint64_t bootBytes = 0;
};

// Console lines would take most of the time.
inline void silenceConsole() {
    std::cout.rdbuf(nullptr);
    std::cerr.rdbuf(nullptr);
}

// Ends the fuzzer, which keeps the input that led here.
inline void require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}
