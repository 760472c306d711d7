// A host of simulated cards that knows the registers and the transfer buffers from the outside: by
// port, and by byte offset. Each of its port accesses takes a microsecond.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "model/Cards.h"

struct HostLayout {
    int ports, firstPort, portLength, digits, digitsLength, caller, period_ms;
};

constexpr HostLayout hostLayout(int channels) {
    return channels == 4 ? HostLayout{4, 38, 708, 608, 50, 658, 450}
                         : HostLayout{8, 62, 388, 308, 30, 338, 225};
}

class Host {
  public:
    // The faults are those of card 0.
    explicit Host(int channels0, int channels1 = 0, const std::vector<cardsim::Fault>& faults = {})
        : cards({slot(channels0, faults), slot(channels1, {})}, memory.data(), report),
          period_ms(hostLayout(channels0).period_ms) {}
    Host(const Host&) = delete;

    int in(int port, int bytes = 2) {
        return static_cast<int>(cards.in(static_cast<std::uint16_t>(port), bytes, ++now_us));
    }
    void out(int port, int value, int bytes = 2) {
        cards.out(static_cast<std::uint16_t>(port), bytes, static_cast<std::uint32_t>(value),
                  ++now_us);
    }
    void wait(int milliseconds) { cards.advance(now_us += 1000ull * unsigned(milliseconds)); }

    void holdInReset(int base = 0x300) {
        out(base + 14, 8);
        out(base + 2, 0x12);
    }
    // Resets the card and sends it a boot table: the number of bytes that it asked for and took.
    // The table as it is, of 22 bytes, has a block that fills the last page to its end.
    int boot(int base = 0x300, const std::vector<int>& words = {0x08AA, 0x7FFF, 0xF800, 0x7F, 0x80,
                                                                2, 0x7F, 0xFFFE, 0x12, 0xFF, 0}) {
        holdInReset(base);
        out(base + 2, 0x1A);
        int sent = 0;
        for (const int word : words) {
            for (const int byte : {word >> 8, word & 0xFF}) {
                if ((in(base + 2) & 0x20) == 0) {
                    return sent;
                }
                out(base, byte);
                out(base + 2, 0x0A);
                if ((in(base + 2) & 1) != 0) {
                    return sent;
                }
                out(base + 2, 0x1A);
                ++sent;
            }
        }
        return sent;
    }

    // Follows a script with card 0: w waits for its period, 0 and 1 release that buffer, ? adds to
    // the answer which buffers are handed over, bit 0 and bit 1.
    std::string follow(const std::string& script) {
        std::string answer;
        for (const char step : script) {
            if (step == 'w') {
                wait(period_ms);
            } else if (step == '?') {
                answer += std::to_string((in(0x302) & 1) | (in(0x304) & 1) << 1);
            } else {
                out(step == '0' ? 0x302 : 0x304, 0x1A);
            }
        }
        return answer;
    }
    // The next buffer is handed over and released; its number.
    int exchange() {
        const int buffer = follow("w?") == "1" ? 0 : 1;
        follow(std::to_string(buffer));
        return buffer;
    }
    volatile std::uint16_t& word(int buffer, int byteOffset) {
        return memory[static_cast<std::size_t>(buffer * 0x800 + byteOffset / 2)];
    }
    int counter(int buffer) { return word(buffer, 0) | word(buffer, 2) << 16; }

    std::vector<std::uint16_t> memory = std::vector<std::uint16_t>(0x2000);
    cardsim::MachineReport report{};
    std::uint64_t now_us = 0;
    cardsim::Cards cards;

  private:
    static std::optional<cardsim::CardOptions> slot(int channels,
                                                    const std::vector<cardsim::Fault>& faults) {
        const cardsim::CardOptions card{channels, 0, cardsim::AudioSource::kPattern, faults};
        return channels == 0 ? std::nullopt : std::optional(card);
    }
    const int period_ms;
};
