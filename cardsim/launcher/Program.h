// The program that runs on the simulated cards: started with the preload library in front, watched
// and, when its time is over, ended.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace cardsim {

struct ProgramStart {
    std::vector<std::string> command;  // program and arguments
    std::string preloadLibrary;
    std::string sessionFile;
    std::optional<std::chrono::milliseconds> runTime;  // ends it after that long
};

struct ProgramEnd {
    int status;     // its exit status; 128 + signal when a signal ended it; 126 or 127 when it
                    // could not be started
    bool timeIsUp;  // it was ended because its time was over
    bool started;
};

// Runs the program to its end. Signals for the terminal's foreground are the program's business;
// SIGTERM and SIGHUP are passed on to it. Writes a line to standard error if it cannot be started.
ProgramEnd runProgram(const ProgramStart& start);

}  // namespace cardsim
