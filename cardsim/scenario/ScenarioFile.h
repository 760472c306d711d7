// Scenario files: TOML tables that say what happens when on which line.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "model/Scenario.h"

namespace cardsim {

// A scenario that cannot be read or understood. what(): "FILE:LINE: reason", or "FILE: reason" for
// a file that cannot be read.
struct ScenarioError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The events of a file by their time, whole calls taken apart into what happens on the line. Throws
// ScenarioError.
std::vector<ScenarioEvent> readScenario(const std::string& path);

}  // namespace cardsim
