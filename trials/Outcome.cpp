#include "Outcome.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <deque>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>
#include <system_error>
#include <thread>

// There only in a build with the address sanitizer: whether memory has been lost, said on standard
// error.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace trials {

namespace {

constexpr char kFigures = 'F';
constexpr char kFinding = '!';
constexpr char kNote = 'N';

void writeOutcome(std::ostream& out, const Outcome& outcome) {
    out << kFigures << outcome.runs << ' ' << outcome.faults << '\n';
    for (const std::string& finding : outcome.findings) {
        out << kFinding << finding << '\n';
    }
    for (const std::string& note : outcome.notes) {
        out << kNote << note << '\n';
    }
}

Outcome readOutcome(const std::string& text) {
    Outcome outcome;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const std::string rest = line.substr(1);
        if (line[0] == kFigures) {
            std::istringstream(rest) >> outcome.runs >> outcome.faults;
        } else {
            (line[0] == kFinding ? outcome.findings : outcome.notes).push_back(rest);
        }
    }
    return outcome;
}

// The child's whole life.
[[noreturn]] void runHere(int result, const std::function<Outcome()>& trial, unsigned limit_s) {
    alarm(limit_s);
    std::ofstream nowhere("/dev/null");
    std::cout.rdbuf(nowhere.rdbuf());
    std::streambuf* const console = std::cerr.rdbuf(nowhere.rdbuf());
    Outcome outcome;
    try {
        outcome = trial();
    } catch (const std::exception& problem) {
        outcome.findings.emplace_back(problem.what());
    }
    std::cerr.rdbuf(console);
    if (__lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0) {
        outcome.findings.emplace_back("memory has been lost, see the leak report");
    }
    std::ostringstream text;
    writeOutcome(text, outcome);
    const std::string bytes = text.str();
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t count = write(result, bytes.data() + sent, bytes.size() - sent);
        if (count < 0) {
            break;
        }
        sent += static_cast<std::size_t>(count);
    }
    _exit(0);
}

// A trial under way in a child process.
class Child {
  public:
    Child(std::string trialName, const std::function<Outcome()>& trial, unsigned limit_s)
        : name(std::move(trialName)) {
        int ends[2];
        if (pipe(ends) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe");
        }
        std::cout.flush();
        pid = fork();
        if (pid == -1) {
            throw std::system_error(errno, std::generic_category(), "fork");
        }
        if (pid == 0) {
            close(ends[0]);
            runHere(ends[1], trial, limit_s);
        }
        close(ends[1]);
        result = ends[0];
    }

    // Waits for its end.
    Outcome outcome() const {
        std::string text;
        char bytes[4096];
        for (ssize_t count = 0; (count = read(result, bytes, sizeof bytes)) > 0;) {
            text.append(bytes, static_cast<std::size_t>(count));
        }
        close(result);
        int status = 0;
        waitpid(pid, &status, 0);
        Outcome outcome = readOutcome(text);
        if (WIFSIGNALED(status)) {
            outcome.findings.push_back(WTERMSIG(status) == SIGALRM
                                           ? "it hangs"
                                           : "it dies: " +
                                                 std::string(strsignal(WTERMSIG(status))));
        } else if (WEXITSTATUS(status) != 0) {
            outcome.findings.push_back("it ends with status " +
                                       std::to_string(WEXITSTATUS(status)));
        }
        for (std::string& finding : outcome.findings) {
            finding.insert(0, name + ": ");
        }
        return outcome;
    }

  private:
    std::string name;
    pid_t pid = -1;
    int result = -1;
};

}  // namespace

void Outcome::add(const Outcome& other) {
    runs += other.runs;
    faults += other.faults;
    findings.insert(findings.end(), other.findings.begin(), other.findings.end());
    notes.insert(notes.end(), other.notes.begin(), other.notes.end());
}

Outcome runApart(const std::string& name, const std::function<Outcome()>& trial, unsigned limit_s) {
    return Child(name, trial, limit_s).outcome();
}

void runAllApart(std::uint64_t count, const std::function<std::string(std::uint64_t)>& name,
                 const std::function<Outcome(std::uint64_t)>& trial,
                 const std::function<void(std::uint64_t, const Outcome&)>& listener,
                 unsigned limit_s) {
    const std::size_t atOnce = std::max(1u, std::thread::hardware_concurrency());
    std::deque<Child> underWay;
    std::uint64_t next = 0;
    for (std::uint64_t done = 0; done < count; ++done) {
        for (; next < count && underWay.size() < atOnce; ++next) {
            underWay.emplace_back(
                name(next), [&trial, next] { return trial(next); }, limit_s);
        }
        listener(done, underWay.front().outcome());
        underWay.pop_front();
    }
}

}  // namespace trials
