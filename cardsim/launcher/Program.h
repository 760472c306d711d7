// The program that runs on the simulated cards: a child process of the launcher.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace cardsim {

// Takes the "--" and what stands behind it off the arguments: the program and its own arguments,
// which are none of an option parser's business.
std::vector<std::string> takeProgram(int& argc, char** argv);

// The program could not be started, and why.
struct CannotStart {
    std::string reason;
    bool isMissing;  // there is no such program
};

struct ProgramSettings {
    std::vector<std::string> command;  // looked up in the PATH
    std::string preloadLibrary;
    // Name and value of what the preload library finds in the environment.
    std::vector<std::pair<std::string, std::string>> variables;
    // After that long its time is over; nothing: never.
    std::optional<std::chrono::milliseconds> end;
    // Called once the program runs; the launcher is free to start threads from then on.
    std::function<void()> onStarted = [] {};
    // Given: the run ends once all processes that the program has started have ended too. Called
    // when the program itself ends and some of them are left.
    std::function<void()> onLeft;
};

struct ProgramEnd {
    int exitStatus;  // as a shell shows it: 128 + N when signal N killed the program
    bool wasEnded;   // its time was over
};

// Throws CannotStart when a program of that name, looked up in the PATH, cannot be started under a
// preload library; what run does first, for whoever wants to know before.
void checkProgram(const std::string& name);

// Runs the program until it ends. Meanwhile SIGINT and SIGQUIT are the program's business alone;
// once it has ended, SIGINT tells those that are left to end. SIGTERM and SIGHUP are passed on to
// it and to all that it has started; afterwards they stay like that. When the time is over, or
// SIGUSR1 says so, all of them are told to end, a little later killed. Should the launcher be
// killed, the program is told to end. Throws CannotStart, or std::system_error when there is no
// process to be had.
ProgramEnd run(const ProgramSettings& settings);

}  // namespace cardsim
