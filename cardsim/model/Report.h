// What the cards saw, told from their side. Plain memory of fixed size, so that it can lie in a
// page that outlives the program that used the cards. Nothing in it depends on wall-clock time,
// addresses or process numbers.
#pragma once

#include <cstdint>

#include "model/PortMap.h"
#include "model/TransferLayout.h"

namespace cardsim {

// One block of the image that the boot ROM received.
struct BlockReport {
    std::uint16_t address;
    std::uint16_t words;
    std::uint16_t checksum;  // sum of the words
};

struct CardReport {
    static constexpr int kMaxBlocks = 32;

    std::uint32_t channels;  // 0: the slot is empty
    std::uint32_t boots;     // starts of the firmware
    std::uint32_t imageBlocks;
    std::uint32_t imageWords;
    std::uint32_t imageChecksum;     // sum of all words, 16 bits
    BlockReport blocks[kMaxBlocks];  // the first ones of the image
    std::uint64_t handOvers;         // buffers handed to the host
    std::uint64_t served;            // and released by it
    std::uint64_t missed;            // turns at which the host still held the buffer
    std::uint64_t commands[kMaxLines];
    std::uint64_t bytesPlayed;
    std::uint64_t calls;   // off hook, over all lines
    std::uint64_t faults;  // that struck
};

struct MachineReport {
    CardReport cards[portMap::kMaxCards];
    std::uint64_t portAccesses;
    std::uint64_t elapsed_us;
    std::uint64_t timeline;  // hash of all that the cards handed over and got, in order
};

}  // namespace cardsim
