// Cards that do no more than a test tells them: registers that read as set, and a record of every
// access. They stand behind the traps, under the driver's own port and device calls. Time is what
// the driver sleeps, plus accessTime_us for each port access. Accesses spoil errno, as any code
// may.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "traps/Hardware.h"

using PortAccess = std::tuple<char, int, int>;  // direction, port, value
inline PortAccess reads(int port, std::uint32_t value) {
    return {'r', port, value};
}
inline PortAccess writes(int port, std::uint32_t value) {
    return {'w', port, value};
}

class ScriptedCards : public cardsim::Hardware {
  public:
    ScriptedCards() {
        cardsim::attachHardware(this);
        fail(ftruncate(memoryFile, 0xD4000));
    }
    ~ScriptedCards() override {
        cardsim::attachHardware(nullptr);
        close(memoryFile);
    }

    std::uint32_t in(std::uint16_t port, int bytes) override {
        noteAccess(bytes);
        accesses.push_back(reads(port, onRead ? onRead(port) : registers[port]));
        return static_cast<std::uint32_t>(std::get<2>(accesses.back()));
    }
    void out(std::uint16_t port, int bytes, std::uint32_t value) override {
        noteAccess(bytes);
        accesses.push_back(writes(port, value));
        if (echoes.count(port) != 0) {
            registers[port] = value;
        }
        if (onWrite) {
            onWrite(port, value);
        }
    }
    int grantPorts() override { return fail(portsErrno); }
    int openPorts() override { return fail(devPortErrno); }
    std::string memoryPath() override {
        return fail(devMemErrno) == 0 ? "/proc/self/fd/" + std::to_string(memoryFile) : "";
    }
    bool sleep(std::uint64_t microseconds) override {
        slept_us.push_back(microseconds);
        elapsed_us += static_cast<std::clock_t>(microseconds);
        return true;
    }
    bool processorTime(std::clock_t& ticks) override {
        ticks = elapsed_us;
        return keepsTime;
    }

    std::map<int, std::uint32_t> registers;
    std::set<int> echoes;  // registers that read back what is written to them
    std::function<std::uint32_t(int port)> onRead;
    std::function<void(int port, std::uint32_t value)> onWrite;
    std::vector<PortAccess> accesses;
    std::string widths;  // of the accesses, in bytes
    std::vector<std::uint64_t> slept_us;
    std::clock_t elapsed_us = 0, accessTime_us = 1;
    bool keepsTime = true;  // by what is slept and accessed; otherwise the machine does
    int portsErrno = 0, devPortErrno = 0, devMemErrno = 0;

  private:
    const int memoryFile = memfd_create("card memory", 0);

    void noteAccess(int bytes) {
        elapsed_us += accessTime_us;
        widths += std::to_string(bytes);
        errno = ENOTTY;
    }
    static int fail(int number) {
        errno = number;
        return number == 0 ? 0 : -1;
    }
};
