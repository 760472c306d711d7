// What a run of the simulated cards is to be like: made by the launcher from its command line,
// handed to the preload library as text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "model/Scenario.h"
#include "pc/SimulatedPc.h"

namespace cardsim {

struct Configuration {
    SimulatedPc::Options pc;  // but for the report and the memory, which stay null
    std::string memoryFile;   // path of the one that all processes share
    bool traffic = false;
    std::vector<ScenarioEvent> events;
    std::string speakerFile;   // gets appended what card 0 plays; empty: nobody listens
    std::string ringFile;      // path of what a recorded run is put into; empty: it is not recorded
    std::string scriptFile;    // path of what is replayed; empty: the cards are simulated
    std::uint64_t end_ms = 0;  // of a run in virtual time; 0: it goes on until the program ends
};

std::string textOf(const Configuration& configuration);
// The same for people, and for whoever makes such cards again: JSON, without the files of this run.
std::string descriptionOf(const Configuration& configuration);
// text: as descriptionOf wrote it; throws std::exception at any other.
Configuration describedBy(const std::string& text);
// text: as textOf wrote it; throws std::exception at any other.
Configuration configurationFrom(const std::string& text);

}  // namespace cardsim
