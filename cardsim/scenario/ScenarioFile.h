// Scenario files: TOML tables that say what happens when on which line.
#pragma once

#include <string>
#include <vector>

#include "model/Scenario.h"

namespace cardsim {

// The events of a file by their time, whole calls taken apart into what happens on the line. Throws
// std::invalid_argument when it cannot be understood, "FILE:LINE: reason", or read, "FILE: reason".
std::vector<ScenarioEvent> readScenario(const std::string& path);

}  // namespace cardsim
