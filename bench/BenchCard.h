// The card that the benchmarks run against: registers and nothing behind them, so that a port
// access costs what the trap costs. It takes each boot byte at once, and hands over its buffers in
// turn, the next one as soon as the last one is released, with the transfer counter advanced.
//
// Everything happens on the thread that drives the cards.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <system_error>

#include "traps/Hardware.h"

class BenchCard : public cardsim::Hardware {
  public:
    explicit BenchCard(int channels) : kind(channels == 8 ? kEightChannels : 0) {
        const off_t cardMemory = 0xD0000;
        file = memfd_create("card memory", MFD_CLOEXEC);
        void* address = MAP_FAILED;
        if (file != -1 && ftruncate(file, cardMemory + kMemoryLength) == 0) {
            address =
                mmap(nullptr, kMemoryLength, PROT_READ | PROT_WRITE, MAP_SHARED, file, cardMemory);
        }
        if (address == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "memory of the card");
        }
        memory = static_cast<volatile std::uint16_t*>(address);
        cardsim::attachHardware(this);
    }
    ~BenchCard() override {
        cardsim::attachHardware(nullptr);
        munmap(const_cast<std::uint16_t*>(memory), kMemoryLength);
        close(file);
    }
    BenchCard(const BenchCard&) = delete;
    BenchCard& operator=(const BenchCard&) = delete;

    // The card's memory, as the card sees it.
    volatile std::uint16_t* words() const { return memory; }
    // The buffer that is handed over, 0 or 1.
    int handedOver() const { return buffer; }

    std::uint32_t in(std::uint16_t port, int) override {
        ++accesses;
        switch (port) {
            case kStatus:
                return kind | kWantsByte | (running && buffer == 0 ? 1u : 0u);
            case kStatus1:
                return running && buffer == 1 ? 1 : 0;
            case kData:
                return data;
            default:
                return 0;
        }
    }
    void out(std::uint16_t port, int, std::uint32_t value) override {
        ++accesses;
        if (port == kData) {
            data = value;
            ++bytes;
        } else if (value == kRelease && port == (buffer == 0 ? kStatus : kStatus1)) {
            buffer ^= 1;
            writeCounter(++counter);
        }
    }
    int grantPorts() override { return 0; }
    int openPorts() override { return 0; }
    std::string memoryPath() override { return "/proc/self/fd/" + std::to_string(file); }
    bool sleep(std::uint64_t) override {
        if (onSleep) {
            onSleep();
        }
        return true;
    }
    bool processorTime(std::clock_t&) override { return false; }

    bool running = false;           // hands over buffers
    std::function<void()> onSleep;  // the driver ends a pass; no time passes
    std::uint64_t accesses = 0;     // of ports
    std::uint64_t bytes = 0;        // written to the data port

  private:
    static constexpr std::uint16_t kData = 0x300, kStatus = 0x302, kStatus1 = 0x304;
    static constexpr std::uint32_t kEightChannels = 0x04, kWantsByte = 0x20, kRelease = 0x1A;
    static constexpr off_t kMemoryLength = 0x4000;
    static constexpr int kWordsOfBuffer = 0x800;

    void writeCounter(std::uint32_t value) {
        volatile std::uint16_t* const words = memory + buffer * kWordsOfBuffer;
        words[0] = static_cast<std::uint16_t>(value & 0xFFFF);
        words[1] = static_cast<std::uint16_t>(value >> 16);
    }

    const std::uint32_t kind;
    int file = -1;
    volatile std::uint16_t* memory = nullptr;
    std::uint32_t data = 0;
    std::uint32_t counter = 0;
    int buffer = 0;
};
