// The cards' report for people and for programs. Nothing in it changes between two runs with one
// seed in virtual time.
#pragma once

#include <cstdint>
#include <string>

#include "model/Report.h"

namespace cardsim {

// Lines of text, each ending in a newline. strangerAccesses: by processes that had not the cards.
std::string reportText(const MachineReport& report, std::uint64_t strangerAccesses);
// A JSON document; the timeline stands in it as text, since it takes more bits than every reader of
// JSON has for a number.
std::string reportJson(const MachineReport& report, std::uint64_t strangerAccesses,
                       std::uint64_t seed);

}  // namespace cardsim
