#include "model/Faults.h"

namespace cardsim {

namespace {

constexpr std::uint64_t kFaultStream = 0x0F00;

}  // namespace

Faults::Faults(const std::vector<Fault>& faults, int card, std::uint64_t seed)
    : randomness(seed, kFaultStream + static_cast<std::uint64_t>(card)) {
    for (const Fault& fault : faults) {
        if (fault.card == -1 || fault.card == card) {
            add(fault);
        }
    }
}

void Faults::add(const Fault& fault) {
    planned.push_back(fault);
}

const Fault* Faults::strikes(FaultKind kind) {
    ++seen[static_cast<int>(kind)];
    for (const Fault& fault : planned) {
        if (fault.kind == kind && strikesNow(fault)) {
            return &fault;
        }
    }
    return nullptr;
}

bool Faults::strikesNow(const Fault& fault) {
    switch (fault.when) {
        case Fault::When::kOnce:
            return opportunities(fault.kind) == fault.opportunity;
        case Fault::When::kFrom:
            return opportunities(fault.kind) >= fault.opportunity;
        case Fault::When::kRandom:
            return randomness.chance(fault.probability);
    }
    return false;
}

}  // namespace cardsim
