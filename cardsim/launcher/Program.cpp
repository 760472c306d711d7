#include "launcher/Program.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "config/Session.h"

namespace cardsim {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kNotFound = 127;
constexpr int kNotExecutable = 126;
constexpr std::chrono::seconds kGrace{3};

// Puts a value in front of what an environment variable holds.
void prepend(const char* variable, const std::string& value, char separator) {
    const char* const before = std::getenv(variable);
    const bool isEmpty = before == nullptr || *before == '\0';
    setenv(variable, (isEmpty ? value : value + separator + before).c_str(), 1);
}

[[noreturn]] void becomeProgram(const ProgramStart& start, const sigset_t& signals, int failure) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGINT, SIG_DFL);
    signal(SIGQUIT, SIG_DFL);
    sigprocmask(SIG_UNBLOCK, &signals, nullptr);
    prepend("LD_PRELOAD", start.preloadLibrary, ':');
    // A sanitizer's runtime otherwise insists on being the first library of all.
    prepend("ASAN_OPTIONS", "verify_asan_link_order=0", ':');
    setenv(kSessionVariable, start.sessionFile.c_str(), 1);

    std::vector<char*> arguments;
    for (const std::string& argument : start.command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    const int reason = errno;
    if (write(failure, &reason, sizeof(reason)) != sizeof(reason)) {
        _exit(kNotExecutable);
    }
    _exit(kNotFound);
}

// Waits for one of the signals until then; 0 when the time has come without one.
int awaitSignal(const sigset_t& signals, std::optional<Clock::time_point> until) {
    while (true) {
        int caught = 0;
        if (until) {
            const auto left = std::max(*until - Clock::now(), Clock::duration::zero());
            const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
            const timespec timeout{seconds.count(),
                                   std::chrono::nanoseconds(left - seconds).count()};
            caught = sigtimedwait(&signals, nullptr, &timeout);
        } else {
            caught = sigwaitinfo(&signals, nullptr);
        }
        if (caught > 0) {
            return caught;
        }
        if (errno == EAGAIN) {
            return 0;
        }
    }
}

// Watches the program until it ends.
ProgramEnd watch(pid_t program, const sigset_t& signals,
                 std::optional<std::chrono::milliseconds> runTime) {
    std::optional<Clock::time_point> deadline;
    if (runTime) {
        deadline = Clock::now() + *runTime;
    }
    bool timeIsUp = false;
    while (true) {
        const int caught = awaitSignal(signals, deadline);
        int status = 0;
        if (waitpid(program, &status, WNOHANG) == program) {
            const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return {code, timeIsUp, true};
        }
        if (caught == SIGTERM || caught == SIGHUP) {
            kill(program, caught);
        } else if (caught == 0) {
            kill(program, timeIsUp ? SIGKILL : SIGTERM);
            timeIsUp = true;
            deadline = Clock::now() + kGrace;
        }
    }
}

}  // namespace

ProgramEnd runProgram(const ProgramStart& start) {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGCHLD, SIGTERM, SIGHUP}) {
        sigaddset(&signals, number);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGINT, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);

    int failure[2];
    if (pipe2(failure, O_CLOEXEC) != 0) {
        std::cerr << "cardsim: cannot start a program: " << std::strerror(errno) << std::endl;
        return {kNotExecutable, false, false};
    }
    const pid_t program = fork();
    if (program == 0) {
        becomeProgram(start, signals, failure[1]);
    }
    close(failure[1]);
    int reason = program == -1 ? errno : 0;
    const bool failed = program == -1 || read(failure[0], &reason, sizeof(reason)) > 0;
    close(failure[0]);
    if (failed) {
        waitpid(program, nullptr, 0);
        std::cerr << "cardsim: cannot start " << start.command[0] << ": " << std::strerror(reason)
                  << std::endl;
        return {reason == ENOENT ? kNotFound : kNotExecutable, false, false};
    }
    return watch(program, signals, start.runTime);
}

}  // namespace cardsim
