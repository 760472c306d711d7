#include "model/Faults.h"

namespace cardsim {

namespace {

constexpr std::uint64_t kFaultStream = 0x0F00;

}  // namespace

Faults::Faults(const std::vector<Fault>& faults, int card, std::uint64_t seed)
    : randomness(seed, kFaultStream + static_cast<std::uint64_t>(card)) {
    for (const Fault& fault : faults) {
        if (fault.card == Fault::kEveryCard || fault.card == card) {
            add(fault);
        }
    }
}

void Faults::add(const Fault& fault) {
    planned.push_back({fault, opportunities(fault.kind)});
}

const Fault* Faults::strikes(FaultKind kind) {
    ++seen[static_cast<int>(kind)];
    for (const Planned& plan : planned) {
        if (plan.fault.kind == kind && strikesNow(plan)) {
            return &plan.fault;
        }
    }
    return nullptr;
}

bool Faults::strikesNow(const Planned& plan) {
    const Fault& fault = plan.fault;
    const std::uint64_t opportunity = opportunities(fault.kind) - plan.seenBefore;
    return opportunity >= fault.first && opportunity <= fault.last &&
           (fault.probability >= 1 || randomness.chance(fault.probability));
}

}  // namespace cardsim
