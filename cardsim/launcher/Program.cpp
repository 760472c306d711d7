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
#include <fstream>
#include <sstream>
#include <system_error>

#include "config/SharedPage.h"

namespace cardsim {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kTimeToEnd{3000};
constexpr int kNotStarted = 126;
constexpr int kKilled = 128;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// The signals that the launcher waits for instead of being interrupted by them.
sigset_t awaitedSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGCHLD, SIGTERM, SIGHUP}) {
        sigaddset(&signals, signal);
    }
    return signals;
}

void prepend(const char* variable, const std::string& value, const char* separator) {
    const char* const before = std::getenv(variable);
    const bool isSet = before != nullptr && *before != '\0';
    setenv(variable, (isSet ? value + separator + before : value).c_str(), 1);
}

void setEnvironment(const ProgramSettings& settings) {
    prepend("LD_PRELOAD", settings.preloadLibrary, ":");
    setenv(kSharedPageVariable, settings.sharedPage.c_str(), 1);
    // Programs built with sanitizers: the one for addresses insists on being first in line; the one
    // for threads takes the cards' work for that of a signal that may come at any time, but it
    // comes at the program's port instructions alone. What the user has set comes later and wins.
    prepend("ASAN_OPTIONS", "verify_asan_link_order=0", ":");
    prepend("TSAN_OPTIONS", "report_signal_unsafe=0", ":");
}

// In the child: becomes the program, or tells the launcher through the pipe why not.
[[noreturn]] void becomeProgram(const ProgramSettings& settings, pid_t launcher,
                                const sigset_t& signals, int failures) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != launcher) {
        _exit(kKilled + SIGTERM);
    }
    setEnvironment(settings);
    std::vector<char*> arguments;
    for (const std::string& argument : settings.command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    sigprocmask(SIG_SETMASK, &signals, nullptr);
    execvp(arguments[0], arguments.data());
    const int error = errno;
    // When this cannot be told either, the exit status has to tell.
    [[maybe_unused]] const ssize_t told = write(failures, &error, sizeof error);
    _exit(kNotStarted);
}

// What the child had to say before it became the program: nothing, or why it could not.
void checkStarted(const ProgramSettings& settings, pid_t child, int failures) {
    int error = 0;
    if (read(failures, &error, sizeof error) != sizeof error) {
        return;
    }
    waitpid(child, nullptr, 0);
    throw CannotStart{settings.command[0] + ": " + std::strerror(error),
                      error == ENOENT || error == ENOTDIR};
}

pid_t start(const ProgramSettings& settings, const sigset_t& signals) {
    int failures[2];
    if (pipe2(failures, O_CLOEXEC) != 0) {
        fail("pipe");
    }
    const pid_t launcher = getpid();
    const pid_t child = fork();
    if (child == -1) {
        fail("fork");
    }
    if (child == 0) {
        becomeProgram(settings, launcher, signals, failures[1]);
    }
    close(failures[1]);
    checkStarted(settings, child, failures[0]);
    close(failures[0]);
    return child;
}

// The next awaited signal, or 0 when the time has come.
int nextSignal(std::optional<Clock::time_point> until) {
    const sigset_t awaited = awaitedSignals();
    if (!until) {
        return sigwaitinfo(&awaited, nullptr);
    }
    const auto left = std::max(Clock::duration::zero(), *until - Clock::now());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    const timespec timeout{seconds.count(), std::chrono::nanoseconds(left - seconds).count()};
    const int signal = sigtimedwait(&awaited, nullptr, &timeout);
    return signal == -1 && errno == EAGAIN ? 0 : signal;
}

int exitStatusOf(int status) {
    return WIFSIGNALED(status) ? kKilled + WTERMSIG(status) : WEXITSTATUS(status);
}

// 0 when the process has ended.
pid_t parentOf(pid_t process) {
    std::string status;
    std::getline(std::ifstream("/proc/" + std::to_string(process) + "/stat"), status);
    const std::size_t nameEnd = status.rfind(')');  // "PID (NAME) STATE PARENT ..."
    char state = 0;
    pid_t parent = 0;
    if (nameEnd != std::string::npos) {
        std::istringstream(status.substr(nameEnd + 1)) >> state >> parent;
    }
    return state == 'Z' ? 0 : parent;
}

// The process that has the cards, when the program has started it; 0 when there is none. What a
// program left in the shared page may be the number of a stranger by now: only a process that
// descends from the launcher counts.
pid_t ownerBelow(const ProgramSettings& settings) {
    const pid_t owner = settings.cardOwner->load();
    pid_t ancestor = owner > 0 ? parentOf(owner) : 0;
    while (ancestor > 0 && ancestor != getpid()) {
        ancestor = parentOf(ancestor);
    }
    return ancestor == getpid() ? owner : 0;
}

void pass(int signal, pid_t child, const ProgramSettings& settings) {
    const pid_t owner = ownerBelow(settings);
    if (owner != 0 && owner != child) {
        kill(owner, signal);
    }
    if (child != 0) {
        kill(child, signal);
    }
}

// Takes note of all that have ended; child becomes 0 when it is among them, with its status.
void reap(pid_t& child, int& status) {
    int ended = 0;
    for (pid_t process = 1; (process = waitpid(-1, &ended, WNOHANG)) > 0;) {
        if (process == child) {
            status = ended;
            child = 0;
        }
    }
}

ProgramEnd waitFor(pid_t child, const ProgramSettings& settings) {
    std::optional<Clock::time_point> deadline;
    if (settings.end) {
        deadline = Clock::now() + *settings.end;
    }
    int ending = 0;  // the last signal that the end of the time has sent
    int status = 0;
    while (true) {
        reap(child, status);
        const bool ownerIsLeft = ending != 0 && ownerBelow(settings) != 0;
        if (child == 0 && !ownerIsLeft) {
            return {exitStatusOf(status), ending != 0};
        }
        const int signal = nextSignal(deadline);
        if (signal == SIGTERM || signal == SIGHUP) {
            pass(signal, child, settings);
        } else if (signal == 0) {
            ending = ending == 0 ? SIGTERM : SIGKILL;
            pass(ending, child, settings);
            deadline = Clock::now() + kTimeToEnd;
        }
    }
}

}  // namespace

ProgramEnd run(const ProgramSettings& settings) {
    const sigset_t awaited = awaitedSignals();
    sigset_t before;
    sigprocmask(SIG_BLOCK, &awaited, &before);
    signal(SIGCHLD, SIG_DFL);          // else the program would end unseen
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // what it leaves behind stays below
    const pid_t child = start(settings, before);
    signal(SIGINT, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
    return waitFor(child, settings);
}

}  // namespace cardsim
