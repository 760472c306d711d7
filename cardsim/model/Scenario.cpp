#include "model/Scenario.h"

#include <stdexcept>

namespace cardsim {

namespace {

using Action = ScenarioEvent::Action;

std::string missingPart(const ScenarioEvent& event, const int (&channels)[portMap::kMaxCards]) {
    if (event.action == Action::kFault) {
        const int card = event.fault.card;
        const bool isThere = card == Fault::kEveryCard ||
                             (card >= 0 && card < portMap::kMaxCards && channels[card] != 0);
        return isThere ? "" : "there is no card " + std::to_string(card);
    }
    const int lines = channels[0] + channels[1];
    if (event.line >= 0 && event.line < lines) {
        return "";
    }
    return "there is no line " + std::to_string(event.line) + ", " +
           (lines == 0 ? "because there is no card"
                       : "only lines 0 to " + std::to_string(lines - 1));
}

void planFault(Cards& cards, const Fault& fault) {
    for (int slot = 0; slot < portMap::kMaxCards; ++slot) {
        const bool isMeant = fault.card == Fault::kEveryCard || fault.card == slot;
        if (isMeant && cards.isPresent(slot)) {
            cards.card(slot).faults().add(fault);
        }
    }
}

void happen(Cards& cards, const ScenarioEvent& event) {
    if (event.action == Action::kFault) {
        planFault(cards, event.fault);
        return;
    }
    Line& line = cards.line(event.line);
    switch (event.action) {
        case Action::kRing:
        case Action::kRingEnd:
            line.setRinging(event.action == Action::kRing);
            break;
        case Action::kCaller:
            line.callFrom(event.text);
            break;
        case Action::kOffHook:
        case Action::kOnHook:
            line.setOffHook(event.action == Action::kOffHook);
            break;
        case Action::kDigits:
            line.dial(event.text);
            break;
        case Action::kSpeak:
        case Action::kQuiet:
            line.setSpeaking(event.action == Action::kSpeak);
            break;
        case Action::kLevel:
            line.setLevel(event.level);
            break;
        case Action::kFault:
            break;
    }
}

}  // namespace

void checkScenario(const std::vector<ScenarioEvent>& events,
                   const int (&channels)[portMap::kMaxCards]) {
    for (const ScenarioEvent& event : events) {
        const std::string reason = missingPart(event, channels);
        if (!reason.empty()) {
            throw std::invalid_argument(event.origin + (event.origin.empty() ? "" : ": ") + reason);
        }
    }
}

void planScenario(Cards& cards, const std::vector<ScenarioEvent>& events) {
    for (const ScenarioEvent& event : events) {
        cards.at(event.time_us, [&cards, event] { happen(cards, event); });
    }
}

}  // namespace cardsim
