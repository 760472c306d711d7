// What the simulated lines sound like. The real cards' encoding is their firmware's business; two
// sources of our own stand in for it.
#pragma once

#include <cstdint>

namespace cardsim {

enum class AudioSource {
    kPattern,   // verifiable: every word tells where it belongs
    kPleasant,  // 8-bit unsigned PCM, 1333 bytes a second: a hum, and voices during calls
};

// Word number position (from 0) of the verifiable audio of a block. Words 0 to 2 name the block:
// 0xA000 with card and port, then the low and the high half of the transfer counter. The rest is a
// hash of all four, so that a lost, doubled, shifted or altered byte shows.
constexpr std::uint16_t patternWord(unsigned card, unsigned port, std::uint32_t counter,
                                    unsigned position) {
    switch (position) {
        case 0:
            return static_cast<std::uint16_t>(0xA000 | card << 8 | port);
        case 1:
            return static_cast<std::uint16_t>(counter & 0xFFFF);
        case 2:
            return static_cast<std::uint16_t>(counter >> 16);
        default:
            break;
    }
    std::uint32_t hash = counter * 0x9E3779B1u + (card << 24 | port << 16 | position);
    hash ^= hash >> 16;
    hash *= 0x85EBCA6Bu;
    hash ^= hash >> 13;
    hash *= 0xC2B2AE35u;
    return static_cast<std::uint16_t>(hash ^ hash >> 16);
}

// Two samples of the pleasant audio of a line, the earlier one in the low byte; sample counts the
// line's samples from the start of the firmware.
std::uint16_t pleasantWord(unsigned line, bool speaking, std::uint64_t sample);

}  // namespace cardsim
