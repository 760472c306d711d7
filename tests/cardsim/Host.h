// A host of simulated cards that knows the registers and the transfer buffers from the outside: by
// port, and by byte offset. Each of its port accesses takes a microsecond.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "model/Cards.h"

struct HostLayout {
    int ports, length, firstPort, portLength, audioLength, digits, digitsLength, caller;
    int playbackAudio;
    int period_ms;
};
constexpr HostLayout kFourLayout = {4, 4078, 38, 708, 600, 608, 50, 658, 2878, 450};
constexpr HostLayout kEightLayout = {8, 3554, 62, 388, 300, 308, 30, 338, 3174, 225};

constexpr const HostLayout& hostLayout(int channels) {
    return channels == 4 ? kFourLayout : kEightLayout;
}

class Host {
  public:
    explicit Host(int channels0, int channels1 = 0, const std::vector<cardsim::Fault>& faults = {},
                  std::uint64_t seed = 1)
        : cards({slot(channels0, faults, seed), slot(channels1, faults, seed)}, memory.data(),
                report) {}

    int in(int port) {
        return static_cast<int>(cards.in(static_cast<std::uint16_t>(port), 2, ++now_us));
    }
    void out(int port, int value) {
        cards.out(static_cast<std::uint16_t>(port), 2, static_cast<std::uint32_t>(value), ++now_us);
    }
    void wait(std::uint64_t milliseconds) {
        now_us += 1000 * milliseconds;
        cards.advance(now_us);
    }

    void holdInReset(int base = 0x300) {
        out(base + 14, 8);
        out(base + 2, 0x12);
    }
    void restart(int base = 0x300) {
        holdInReset(base);
        out(base + 2, 0x1A);
    }
    // False when the card does not ask for the byte, or never takes it.
    bool sendByte(int base, int byte) {
        if ((in(base + 2) & 0x20) == 0) {
            return false;
        }
        out(base, byte);
        out(base + 2, 0x0A);
        if ((in(base + 2) & 1) != 0) {
            return false;
        }
        out(base + 2, 0x1A);
        return true;
    }
    // The number of bytes that the card took.
    int send(const std::vector<int>& words, int base = 0x300) {
        int taken = 0;
        for (const int word : words) {
            for (const int byte : {word >> 8, word & 0xFF}) {
                if (!sendByte(base, byte)) {
                    return taken;
                }
                ++taken;
            }
        }
        return taken;
    }
    // The number of boot bytes taken; all of the table's 22 for a good card.
    int boot(int base = 0x300) {
        restart(base);
        return send({0x08AA, 0x7FFF, 0xF800, 0, 0x80, 2, 0, 0x80, 0x1234, 0xFFFF, 0}, base);
    }

    // Which buffers are handed over: bit 0 and bit 1.
    int handedOver(int base = 0x300) { return (in(base + 2) & 1) | (in(base + 4) & 1) << 1; }
    void release(int buffer, int base = 0x300) { out(base + 2 + 2 * buffer, 0x1A); }
    void releaseAll(int base = 0x300) {
        release(0, base);
        release(1, base);
    }

    volatile std::uint16_t& word(int buffer, int byteOffset, int card = 0) {
        return memory[static_cast<std::size_t>(card * 0x1000 + buffer * 0x800 + byteOffset / 2)];
    }
    int counter(int buffer, int card = 0) {
        return word(buffer, 0, card) | word(buffer, 2, card) << 16;
    }
    // A text with its count in front.
    std::string text(int buffer, int byteOffset) {
        const auto byteAt = [&](int offset) {
            return static_cast<char>(word(buffer, offset) >> (offset % 2 * 8) & 0xFF);
        };
        std::string found;
        for (int i = 1; i <= byteAt(byteOffset); ++i) {
            found += byteAt(byteOffset + i);
        }
        return found;
    }
    // Settings for a line, for the card to find in a buffer when its turn comes.
    void orderSettings(int buffer, int line, int beep, int trigger, int delay_ms) {
        word(buffer, 4) = 2;
        int offset = 8 + 6 * line;
        for (const int value : {beep, trigger, delay_ms}) {
            word(buffer, offset) = static_cast<std::uint16_t>(value);
            offset += 2;
        }
    }

    std::vector<std::uint16_t> memory = std::vector<std::uint16_t>(0x2000);
    cardsim::MachineReport report{};
    std::uint64_t now_us = 0;
    cardsim::Cards cards;

  private:
    static std::optional<cardsim::CardOptions> slot(int channels,
                                                    const std::vector<cardsim::Fault>& faults,
                                                    std::uint64_t seed) {
        if (channels == 0) {
            return std::nullopt;
        }
        cardsim::CardOptions options;
        options.channels = channels;
        options.faults = faults;
        options.seed = seed;
        return options;
    }
};
