// What the user asked the launcher for.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "config/Configuration.h"
#include "recorder/Recording.h"

namespace cardsim {

struct CommandLine {
    Configuration configuration;
    // After that long the program is ended; nothing: never.
    std::optional<std::uint64_t> end_ms;
    std::string reportFile;  // empty: none
    cardtrace::Recording::Options recording;
    std::string replayed;  // the trace whose cards the program meets again; empty: none
    std::vector<std::string> program;
};

// Reads and checks everything, the scenario included. When the user asked for help or made a
// mistake, prints the answer and returns nothing; exitStatus is then that of the launcher.
std::optional<CommandLine> readCommandLine(int argc, char** argv, int& exitStatus);

}  // namespace cardsim
