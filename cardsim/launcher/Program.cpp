#include "launcher/Program.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

#include "traps/Executable.h"

namespace cardsim {

namespace {

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
    for (const int signal : {SIGCHLD, SIGTERM, SIGHUP, SIGINT, SIGALRM, SIGUSR1}) {
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
    for (const auto& [name, value] : settings.variables) {
        setenv(name.c_str(), value.c_str(), 1);
    }
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

int exitStatusOf(int status) {
    return WIFSIGNALED(status) ? kKilled + WTERMSIG(status) : WEXITSTATUS(status);
}

// 0 when there is no such process.
pid_t parentOf(pid_t process) {
    std::string status;
    std::getline(std::ifstream("/proc/" + std::to_string(process) + "/stat"), status);
    const std::size_t nameEnd = status.rfind(')');  // "PID (NAME) STATE PARENT ..."
    char state = 0;
    pid_t parent = 0;
    if (nameEnd != std::string::npos) {
        std::istringstream(status.substr(nameEnd + 1)) >> state >> parent;
    }
    return parent;
}

bool isBelow(pid_t process) {
    do {
        process = parentOf(process);
    } while (process > 0 && process != getpid());
    return process == getpid();
}

// The program and all that it has started, as far as they have not been reaped.
std::vector<pid_t> processesBelow() {
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const pid_t process = std::atoi(entry.path().filename().c_str());
        if (process > 0 && isBelow(process)) {
            found.push_back(process);
        }
    }
    return found;
}

void signalAll(int signal) {
    for (const pid_t process : processesBelow()) {
        kill(process, signal);
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

void setTimer(milliseconds time) {
    itimerval timer{};
    timer.it_value.tv_sec = static_cast<time_t>(time.count() / 1000);
    timer.it_value.tv_usec = static_cast<suseconds_t>(time.count() % 1000 * 1000);
    setitimer(ITIMER_REAL, &timer, nullptr);
}

ProgramEnd waitFor(pid_t child, const ProgramSettings& settings) {
    const sigset_t awaited = awaitedSignals();
    setTimer(settings.end.value_or(milliseconds::zero()));  // zero: never
    int ending = 0;  // the last signal that the end of the time has sent
    int status = 0;
    bool toldOfLeft = false;
    while (true) {
        reap(child, status);
        if (child == 0) {
            const bool waitsForAll = ending != 0 || settings.onLeft;
            if (!waitsForAll || processesBelow().empty()) {
                return {exitStatusOf(status), ending != 0};
            }
            if (ending == 0 && !std::exchange(toldOfLeft, true)) {
                settings.onLeft();
            }
        }
        const int signal = sigwaitinfo(&awaited, nullptr);
        if (signal == SIGTERM || signal == SIGHUP) {
            signalAll(signal);
        } else if (signal == SIGINT && child == 0) {
            signalAll(SIGTERM);  // what is left may hear nothing of the terminal any more
        } else if (signal == SIGALRM || (signal == SIGUSR1 && ending == 0)) {
            ending = ending == 0 ? SIGTERM : SIGKILL;
            signalAll(ending);
            setTimer(kTimeToEnd);
        }
    }
}

}  // namespace

std::vector<std::string> takeProgram(int& argc, char** argv) {
    char** const end = argv + argc;
    char** const mark = std::find(argv, end, std::string("--"));
    argc = static_cast<int>(mark - argv);
    return {mark == end ? end : mark + 1, end};
}

// A program that the preload library cannot be put under would meet the machine itself.
void checkProgram(const std::string& name) {
    char path[PATH_MAX];
    if (!findInPath(name.c_str(), path, sizeof(path)) || access(path, X_OK) != 0) {
        const bool isMissing = errno == ENOENT || errno == ENOTDIR;
        throw CannotStart{name + ": " + std::strerror(errno), isMissing};
    }
    if (const char* const reason = whyNotTrapped(path)) {
        throw CannotStart{name + ": " + reason, false};
    }
}

ProgramEnd run(const ProgramSettings& settings) {
    checkProgram(settings.command[0]);
    const sigset_t awaited = awaitedSignals();
    sigset_t before;
    sigprocmask(SIG_BLOCK, &awaited, &before);
    signal(SIGCHLD, SIG_DFL);          // else the program would end unseen
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // what it leaves behind stays below
    const pid_t child = start(settings, before);
    signal(SIGQUIT, SIG_IGN);
    settings.onStarted();
    return waitFor(child, settings);
}

}  // namespace cardsim
