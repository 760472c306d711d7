// Faults of a card: which there are, when they strike, and the record of their opportunities.
#pragma once

#include <cstdint>
#include <vector>

#include "model/Random.h"

namespace cardsim {

enum class FaultKind {
    kAbsent,         // every access: nobody answers
    kWrongEcho,      // every echo of the data port in reset
    kByteRefused,    // every boot byte: never asked for, nor any other before the next reset
    kByteStuck,      // every boot byte: busy until the next reset
    kDeadAfterBoot,  // every start of the firmware: nothing is ever handed over
    kCounterStuck,   // every hand-over: the counter does not advance
    kCounterJump,    // every hand-over: the counter advances too far
    kTakenBack,      // every hand-over: the buffer is taken back as soon as the host has seen it
    kBothBuffers,    // every hand-over while the other is free: both are handed over at once
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
    kDebug,  // only four-channel cards have it
    kAnyField,
    kCounter,
    kAudio,
};

// A fault and when it strikes: at its opportunities first to last, counted from 1 since the fault
// was planned, and at each of those with a probability.
struct Fault {
    static constexpr int kEveryCard = -1;
    static constexpr std::uint64_t kForEver = ~std::uint64_t{0};

    FaultKind kind = FaultKind::kAbsent;
    int card = kEveryCard;
    std::uint64_t first = 1;
    std::uint64_t last = kForEver;
    double probability = 1;
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
    struct Planned {
        Fault fault;
        std::uint64_t seenBefore;  // opportunities until it was planned
    };

    bool strikesNow(const Planned& plan);

    std::vector<Planned> planned;
    std::uint64_t seen[kNumFaultKinds] = {};
    Random randomness;
};

}  // namespace cardsim
