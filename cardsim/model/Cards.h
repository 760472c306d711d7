// Both card slots of the PC, by I/O port, and what is planned to happen on their lines. Not
// thread-safe: one access at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "model/Card.h"

namespace cardsim {

class Cards {
  public:
    // An empty optional is an empty slot. memory: the words of both cards, card 0 first. The report
    // goes on from what stands in it.
    Cards(const std::optional<CardOptions> (&slots)[portMap::kMaxCards],
          volatile std::uint16_t* memory, MachineReport& report);

    // An access of 1, 2 or 4 bytes; ports outside of 0x300 to 0x31F read as nobody. A byte written
    // to an odd port reaches no register.
    std::uint32_t in(std::uint16_t port, int bytes, std::uint64_t now);
    void out(std::uint16_t port, int bytes, std::uint32_t value, std::uint64_t now);
    // Lets the cards and the plan catch up.
    void advance(std::uint64_t until);

    // Does something when that time has come, before any card's turn of that time or later.
    void at(std::uint64_t time, std::function<void()> action);

    bool isPresent(int slot) const { return cards[slot] != nullptr; }
    // The slot must not be empty.
    Card& card(int slot) { return *cards[slot]; }
    // The lines of both cards, the second card's after those of the first.
    int lines() const;
    Line& line(int number);

  private:
    Card* cardAt(std::uint16_t port) const;
    void advanceCards(std::uint64_t until);

    MachineReport& report;
    const std::uint64_t elapsedBefore;
    std::unique_ptr<Card> cards[portMap::kMaxCards];
    std::multimap<std::uint64_t, std::function<void()>> plan;
};

}  // namespace cardsim
