// What the user asked cardtrace for.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "compare/Harmless.h"
#include "recorder/Recording.h"
#include "show/Story.h"

namespace cardtrace {

struct CommandLine {
    enum class Command { kRecord, kShow, kCompare };
    Command command = Command::kShow;
    std::string file;

    Recording::Options recording;
    std::vector<std::string> program;  // to be recorded

    Story::Options story;
    bool summary = false;
    bool json = false;

    std::vector<Harmless> strict;  // differences that count although they are harmless
    bool asReal = false;           // a trace of simulated cards is compared as one of real cards
};

// When the user asked for help or made a mistake, prints the answer and returns nothing; exitStatus
// is then that of the program.
std::optional<CommandLine> readCommandLine(int argc, char** argv, int& exitStatus);

}  // namespace cardtrace
