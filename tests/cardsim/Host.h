// A host of simulated cards that knows them from the outside: the registers by port, the transfer
// buffers by the driver's structures. Each of its port accesses takes a microsecond.
#pragma once

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "DSPMessageBuffer.h"
#include "model/Cards.h"
#include "scenario/FaultSyntax.h"

class Host {
  public:
    // The faults are those of card 0.
    explicit Host(int channels0, int channels1 = 0, const std::vector<std::string>& faults = {})
        : cards({slot(channels0, faults), slot(channels1, {})}, memory.data(), report),
          period_ms(channels0 == 4 ? 450 : 225) {}
    Host(const Host&) = delete;

    int in(int port, int bytes = 2) {
        return static_cast<int>(cards.in(static_cast<std::uint16_t>(port), bytes, ++now_us));
    }
    void out(int port, int value, int bytes = 2) {
        const auto bits = static_cast<std::uint32_t>(value);
        cards.out(static_cast<std::uint16_t>(port), bytes, bits, ++now_us);
    }
    void wait(int milliseconds) { cards.advance(now_us += 1000ull * unsigned(milliseconds)); }

    // Does what a script says and answers what it has read: "302=1A 302 w450" writes to a port,
    // reads it, and waits for 450 ms, w alone for a period of card 0; boot is what boot() answers.
    // Bit 2 of a control register, the kind of card, is left out.
    std::string follow(const std::string& script) {
        std::istringstream steps(script);
        std::ostringstream answer;
        for (std::string step; steps >> step;) {
            const std::size_t equals = step.find('=');
            if (step == "boot") {
                answer << std::dec << boot() << ' ';
            } else if (step[0] == 'w') {
                wait(step == "w" ? period_ms : std::stoi(step.substr(1)));
            } else if (equals != std::string::npos) {
                out(std::stoi(step, nullptr, 16), std::stoi(step.substr(equals + 1), nullptr, 16));
            } else {
                const int port = std::stoi(step, nullptr, 16);
                answer << std::hex << std::uppercase << (in(port) & (port == 0x302 ? ~4 : ~0))
                       << ' ';
            }
        }
        return answer.str();
    }
    // Resets a card and sends it a boot table: the number of bytes that it asked for and took. The
    // table as it is, of 22 bytes, has a block that fills the last page to its end.
    int boot(int base = 0x300, const std::vector<int>& words = {0x08AA, 0x7FFF, 0xF800, 0x7F, 0x80,
                                                                2, 0x7F, 0xFFFE, 0x12, 0xFF, 0}) {
        out(base + 14, 8);
        out(base + 2, 0x12);
        out(base + 2, 0x1A);
        for (int sent = 0;; ++sent) {
            const auto word = static_cast<std::size_t>(sent / 2);
            if (word == words.size() || (in(base + 2) & 0x20) == 0) {
                return sent;
            }
            out(base, sent % 2 == 0 ? words[word] >> 8 : words[word] & 0xFF);
            out(base + 2, 0x0A);
            if ((in(base + 2) & 1) != 0) {
                return sent;
            }
            out(base + 2, 0x1A);
        }
    }
    // The next buffer of card 0 is handed over and released: calls use(transfer) with it.
    template <class Use>
    auto exchange(Use use) {
        const bool isSecond = follow("w 302") != "1 ";
        follow(isSecond ? "304=1A" : "302=1A");
        return withBuffer(isSecond, use);
    }
    template <class Use>
    auto withBuffer(bool isSecond, Use use) {
        void* const start = memory.data() + (isSecond ? 0x800 : 0);
        return report.cards[0].channels == 4 ? use(*static_cast<DSPTransferFourChannel*>(start))
                                             : use(*static_cast<DSPTransferEightChannel*>(start));
    }

    std::vector<std::uint16_t> memory = std::vector<std::uint16_t>(0x2000);
    cardsim::MachineReport report{};
    std::uint64_t now_us = 0;
    cardsim::Cards cards;
    const int period_ms;

  private:
    static std::optional<cardsim::CardOptions> slot(int channels,
                                                    const std::vector<std::string>& faults) {
        cardsim::CardOptions card;
        card.channels = channels;
        std::transform(faults.begin(), faults.end(), std::back_inserter(card.faults),
                       cardsim::parseFault);
        return channels == 0 ? std::nullopt : std::optional(card);
    }
};
