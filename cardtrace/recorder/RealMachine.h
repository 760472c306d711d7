// The machine's own ports and devices, for a program whose port permission is withheld: each access
// is made for it, with permission, on its behalf. All that recording does on a PC with cards stands
// in this file and its source.
#pragma once

#include "traps/Hardware.h"

namespace cardtrace {

class RealMachine : public cardsim::Hardware {
  public:
    std::uint32_t in(std::uint16_t port, int bytes) override;
    void out(std::uint16_t port, int bytes, std::uint32_t value) override;
    bool readByte(std::uint16_t port, std::uint8_t& byte) override;
    bool writeByte(std::uint16_t port, std::uint8_t byte) override;
    int grantPorts() override;
    int openPorts() override;
    std::string memoryPath() override { return "/dev/mem"; }
    bool sleep(std::uint64_t) override { return false; }
    bool processorTime(std::clock_t&) override { return false; }

    // The memory of both cards, mapped once the program has claimed it; null when that fails.
    const volatile std::uint16_t* memory();

  private:
    int ports = -1;  // /dev/port
    const volatile std::uint16_t* cardMemory = nullptr;
    bool triedMemory = false;
};

}  // namespace cardtrace
