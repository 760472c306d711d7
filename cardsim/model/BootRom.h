// The DSP's on-chip boot loader: takes a boot table byte by byte, high byte first, and checks it as
// the ROM does. A table that it cannot make sense of leaves it deaf until the next reset.
#pragma once

#include <cstdint>
#include <vector>

namespace cardsim {

class BootRom {
  public:
    enum class State { kLoading, kDone, kDeaf };

    struct Block {
        std::uint16_t page;
        std::uint16_t address;
        std::vector<std::uint16_t> words;
    };

    // Starts over; the image of the last table is forgotten.
    void restart();
    // The next byte of the table; nothing happens unless it is loading.
    void take(std::uint8_t byte);
    // The table is broken in a way that only the wires show.
    void giveUp() { state = State::kDeaf; }

    State currentState() const { return state; }
    std::uint16_t entryPoint() const { return entry; }
    // The blocks received so far, in their order; the last one may be incomplete.
    const std::vector<Block>& image() const { return blocks; }

  private:
    enum class Expects {
        kKeyword,
        kWaitStates,
        kBankSwitching,
        kEntryPage,
        kEntry,
        kSize,
        kPage,
        kAddress,
        kWords,
    };

    void takeWord(std::uint16_t word);
    void beginBlock(std::uint16_t address);

    State state = State::kLoading;
    Expects expects = Expects::kKeyword;
    int highByte = -1;  // -1: the next byte is a high byte
    std::uint16_t entry = 0;
    std::uint16_t size = 0;
    std::uint16_t page = 0;
    std::vector<Block> blocks;
};

std::uint16_t checksumOf(const std::vector<std::uint16_t>& words);

}  // namespace cardsim
