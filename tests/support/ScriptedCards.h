// Cards that do no more than a test tells them: registers that read as set, and a record of every
// access. They stand behind the traps, under the driver's own port and device calls. Time is what
// the driver sleeps, plus accessTime_us for each port access. Accesses spoil errno, as any code
// may.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
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
        elapsed_us += accessTime_us;
        const std::uint32_t value = onRead ? onRead(port) : registers[port];
        note(reads(port, value), bytes);
        return value;
    }
    void out(std::uint16_t port, int bytes, std::uint32_t value) override {
        elapsed_us += accessTime_us;
        note(writes(port, value), bytes);
        if (echoes.count(port) != 0) {
            registers[port] = value;
        }
        if (onWrite) {
            onWrite(port, value);
        }
    }
    int grantPorts() override { return fail(portsErrno); }
    int openPorts() override { return fail(++openings == lostOpening ? EMFILE : devPortErrno); }
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
    int lostOpening = 0;  // the opening of /dev/port that fails, from 1; 0: none does

  private:
    void note(const PortAccess& access, int bytes) {
        errno = ENOTTY;
        accesses.push_back(access);
        widths += std::to_string(bytes);
    }
    static int fail(int number) {
        errno = number;
        return number == 0 ? 0 : -1;
    }

    const int memoryFile = memfd_create("card memory", 0);
    int openings = 0;
};
