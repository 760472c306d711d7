// A card's memory in a trace, in the words of the card: what stands where in its two buffers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "format/Record.h"
#include "model/TransferLayout.h"

namespace cardtrace {

// What the host's reads of the control registers tell about the kinds of the cards.
class KindsSeen {
  public:
    void see(const Record& record);
    // Null as long as it is not known.
    const cardsim::CardKind* kind(int slot) const { return kinds[slot]; }

  private:
    const cardsim::CardKind* kinds[2] = {};
};

// Whether a card whose firmware runs is silent: so long, and at so many looks, it has handed over
// nothing.
bool isSilence(const cardsim::CardKind& kind, std::uint64_t passed_us, std::uint64_t looks);

// One of the two buffers in the memory of a card that lies in a record.
class BufferView {
  public:
    BufferView(const Record& buffers, int buffer, const cardsim::CardKind& cardKind);

    std::uint16_t word(int place) const;
    std::uint32_t counter() const;
    bool hasSettings() const;
    // Word number entry (0 beep, 1 trigger, 2 delay) of a line's settings.
    std::uint16_t setting(int line, int entry) const;
    std::uint16_t portWord(int line, int place) const;
    std::string digits(int line) const;
    std::string caller(int line) const;

  private:
    std::string text(int place, int mostBytes) const;

    const std::string& memory;
    const std::size_t begin;
    const cardsim::CardKind& kind;
};

// A text of a trace, which may hold anything, as a terminal may get it.
std::string printable(std::string text);

// Bytes of a card's memory, from its start.
struct Span {
    std::size_t offset;
    std::size_t length;
};
// Where audio lies in it, recorded or to be played; and where digits and callers do, their counts
// included. For a card of unknown kind: everything.
std::vector<Span> audioOf(const cardsim::CardKind* kind);
std::vector<Span> numbersOf(const cardsim::CardKind* kind);

}  // namespace cardtrace
