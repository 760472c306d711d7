// Cards that do no more than a test tells them: registers that read as set, and a record of every
// access. They stand behind the traps, under the driver's own port and device calls. Time is what
// the driver sleeps, plus accessTime_us for each port access.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "traps/Hardware.h"

struct PortAccess {
    bool write;
    int port;
    int value;
    bool operator==(const PortAccess& other) const {
        return write == other.write && port == other.port && value == other.value;
    }
};

class ScriptedCards : public cardsim::Hardware {
  public:
    ScriptedCards() { cardsim::attachHardware(this); }
    ~ScriptedCards() override { cardsim::attachHardware(nullptr); }

    std::uint32_t in(std::uint16_t port, int) override {
        elapsed_us += accessTime_us;
        const std::uint32_t value = onRead ? onRead(port) : registers[port];
        accesses.push_back({false, port, static_cast<int>(value)});
        return value;
    }
    void out(std::uint16_t port, int, std::uint32_t value) override {
        elapsed_us += accessTime_us;
        accesses.push_back({true, port, static_cast<int>(value)});
        if (onWrite) {
            onWrite(port, value);
        }
    }
    int grantPorts() override { return fail(portsErrno); }
    int openPorts() override { return fail(devPortErrno); }
    int openMemory() override {
        if (devMemErrno != 0) {
            return fail(devMemErrno);
        }
        const int file = memfd_create("card memory", 0);
        return ftruncate(file, memoryFileLength) == 0 ? file : -1;
    }
    bool sleep(std::uint64_t microseconds) override {
        slept_us.push_back(microseconds);
        elapsed_us += static_cast<std::clock_t>(microseconds);
        return true;
    }
    bool processorTime(std::clock_t& ticks) override {
        ticks = elapsed_us;
        return true;
    }

    std::vector<PortAccess> writes() const {
        std::vector<PortAccess> result;
        for (const PortAccess& access : accesses) {
            if (access.write) {
                result.push_back(access);
            }
        }
        return result;
    }

    std::map<int, std::uint32_t> registers;
    std::function<std::uint32_t(int port)> onRead;
    std::function<void(int port, std::uint32_t value)> onWrite;
    std::vector<PortAccess> accesses;
    std::vector<std::uint64_t> slept_us;
    std::clock_t elapsed_us = 0;
    std::clock_t accessTime_us = 1;
    int portsErrno = 0;
    int devPortErrno = 0;
    int devMemErrno = 0;
    long memoryFileLength = 0xD4000;

  private:
    static int fail(int number) {
        errno = number;
        return number == 0 ? 0 : -1;
    }
};
