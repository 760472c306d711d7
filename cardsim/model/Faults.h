// Faults of a card: which there are, when they strike, and the record of their opportunities.
#pragma once

#include <cstdint>
#include <iterator>
#include <vector>

#include "model/Random.h"

namespace cardsim {

enum class FaultKind {
    kAbsent,
    kWrongEcho,
    kByteRefused,
    kByteStuck,
    kDeadAfterBoot,
    kCounterStuck,
    kCounterJump,
    kTakenBack,
    kBothBuffers,
    kNonsense,
    kSilent,
};

// What there is to say about each kind: in the help, in refusals, and, checked by the tests, in the
// documents.
struct FaultDescription {
    FaultKind kind;
    const char* name;
    const char* opportunity;  // at which it may strike
    const char* effect;       // what the host meets then
};
inline constexpr FaultDescription kFaultDescriptions[] = {
    {FaultKind::kAbsent, "absent", "every access to a port of the card",
     "it reads all ones; writes go nowhere"},
    {FaultKind::kWrongEcho, "wrong-echo", "every read of the data port in reset",
     "the complement of the byte"},
    {FaultKind::kByteRefused, "byte-refused", "every request for a boot byte",
     "the ready bit stays clear until the next reset"},
    {FaultKind::kByteStuck, "byte-stuck", "every boot byte",
     "the busy bit stays set until the next reset"},
    {FaultKind::kDeadAfterBoot, "dead-after-boot", "every start of the firmware",
     "no buffer is handed over until the next boot"},
    {FaultKind::kCounterStuck, "counter-stuck", "every buffer handed over",
     "the counter is that of the last one"},
    {FaultKind::kCounterJump, "counter-jump", "every buffer handed over",
     "the counter is up to 1000 too high, and goes on from there"},
    {FaultKind::kTakenBack, "taken-back", "every buffer handed over",
     "its bit is there once, and then gone"},
    {FaultKind::kBothBuffers, "both-buffers",
     "every buffer handed over while the other one is free", "both bits are set at once"},
    {FaultKind::kNonsense, "nonsense", "every buffer handed over",
     "a field of some line of it holds anything"},
    {FaultKind::kSilent, "silent", "every turn of the card to hand over a buffer",
     "it does not, and its counter stands"},
};

constexpr int kNumFaultKinds = std::size(kFaultDescriptions);

// The fields that nonsense may go to; kAnyField chooses at random among those before it.
enum class FaultField {
    kLevel,
    kOffHook,
    kTriggered,
    kRinging,
    kDigits,
    kCaller,
    kDebug,  // not every kind of card has it
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
