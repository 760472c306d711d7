// What happens when on which line, and which faults begin when: the plan of a run in the cards' own
// terms. Made by the scenario reader or by hand.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "model/Cards.h"

namespace cardsim {

struct ScenarioEvent {
    enum class Action {
        kRing,
        kRingEnd,
        kCaller,  // text: the caller's identification
        kOffHook,
        kOnHook,
        kDigits,  // text: the digits dialled
        kSpeak,
        kQuiet,
        kLevel,  // level: the voice level from now on
        kFault,  // fault: is planned now; no line
    };

    std::uint64_t time_us = 0;  // since the PC was switched on
    int line = 0;               // over both cards: the second card goes on where the first ends
    Action action = Action::kRing;
    std::string text;
    std::uint16_t level = 0;  // 0 to 0x7FFF
    Fault fault;
    std::string origin;  // where it was ordered, for messages: "FILE:LINE", or nothing
};

// Whether the cards have what the events need. channels: those of the card in each slot, 0 for an
// empty slot. Throws std::invalid_argument, "ORIGIN: reason", at the first line or card that is not
// there.
void checkScenario(const std::vector<ScenarioEvent>& events,
                   const int (&channels)[portMap::kMaxCards]);

// Lets the events happen to the cards in due time; events of the same time in the order given. The
// cards must have what the events need, see checkScenario.
void planScenario(Cards& cards, const std::vector<ScenarioEvent>& events);

}  // namespace cardsim
