// The cards' report for people and for programs. Nothing in it changes between two runs with one
// seed in virtual time.
#pragma once

#include <string>

#include "model/Report.h"

namespace cardsim {

std::string reportText(const MachineReport& report);
std::string reportJson(const MachineReport& report);

}  // namespace cardsim
