// Faults of a card: which there are, when they strike, and the record of their opportunities.
#pragma once

#include <cstdint>
#include <vector>

#include "model/Random.h"

namespace cardsim {

enum class FaultKind {
    kAbsent,         // every access: nobody answers
    kWrongEcho,      // every echo of the data port in reset
    kByteRefused,    // every boot byte: never asked for again before the next reset
    kByteStuck,      // every boot byte: busy until the next reset
    kDeadAfterBoot,  // every start of the firmware: nothing is ever handed over
    kCounterStuck,   // every hand-over: the counter does not advance
    kCounterJump,    // every hand-over: the counter advances too far
    kTakenBack,      // every hand-over: the buffer is taken back as soon as the host has seen it
    kBothBuffers,    // every turn: both buffers are handed over at once
    kNonsense,       // every hand-over: a field of the buffer holds anything
};
constexpr int kNumFaultKinds = 10;

// The fields that nonsense may go to; kAnyField chooses at random among those before it.
enum class FaultField {
    kLevel,
    kOffHook,
    kTriggered,
    kRinging,
    kDigits,
    kCaller,
    kDebug,
    kAnyField,
    kCounter,
    kAudio
};

struct Fault {
    enum class When { kOnce, kFrom, kRandom };

    FaultKind kind = FaultKind::kAbsent;
    int card = -1;  // -1: every card
    When when = When::kFrom;
    std::uint64_t opportunity = 1;  // kOnce, kFrom: the number of the opportunity, from 1
    double probability = 0;         // kRandom: at each opportunity
    FaultField field = FaultField::kAnyField;
};

// The faults of one card.
class Faults {
  public:
    Faults(const std::vector<Fault>& faults, int card, std::uint64_t seed);

    void add(const Fault& fault);
    // An opportunity for a fault of that kind: the fault that strikes, or null.
    const Fault* strikes(FaultKind kind);
    std::uint64_t opportunities(FaultKind kind) const { return seen[static_cast<int>(kind)]; }
    Random& random() { return randomness; }

  private:
    bool strikesNow(const Fault& fault);

    std::vector<Fault> planned;
    std::uint64_t seen[kNumFaultKinds] = {};
    Random randomness;
};

}  // namespace cardsim
