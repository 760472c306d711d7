// cardsim: runs a program on simulated cards and reports what the cards saw.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <new>
#include <optional>
#include <system_error>

#include "config/SharedPage.h"
#include "launcher/CommandLine.h"
#include "launcher/PreloadLibrary.h"
#include "launcher/Program.h"
#include "launcher/Replay.h"
#include "launcher/ReportText.h"
#include "launcher/Rights.h"

namespace cardsim {

namespace {

constexpr int kFailed = 1;
constexpr int kCannotRun = 126;
constexpr int kNotFound = 127;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// The file without a name that holds the shared page and the configuration.
class SharedFile {
  public:
    explicit SharedFile(const Configuration& configuration)
        : text(textOf(configuration)),
          length(sizeof(SharedPage) + text.size()),
          fd(memfd_create("cardsim", MFD_CLOEXEC)) {
        if (fd == -1 || ftruncate(fd, static_cast<off_t>(length)) != 0) {
            fail("shared page");
        }
        void* const address = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (address == MAP_FAILED) {
            fail("shared page");
        }
        shared = new (address) SharedPage{};
        shared->magic = SharedPage::kMagic;
        shared->configurationLength = static_cast<std::uint32_t>(text.size());
        shared->launcher = getpid();
        std::memcpy(static_cast<void*>(shared + 1), text.data(), text.size());
        // What there is to say about cards that no program ever touches.
        for (int slot = 0; slot < portMap::kMaxCards; ++slot) {
            shared->report.cards[slot].channels =
                static_cast<std::uint32_t>(configuration.pc.channels[slot]);
        }
    }
    ~SharedFile() {
        munmap(shared, length);
        close(fd);
    }
    SharedFile(const SharedFile&) = delete;
    SharedFile& operator=(const SharedFile&) = delete;

    const SharedPage& page() const { return *shared; }
    // By which any process can open it, as long as the launcher lives.
    std::string path() const {
        return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd);
    }

  private:
    const std::string text;
    const std::size_t length;
    const int fd;
    SharedPage* shared = nullptr;
};

std::string banner(const SimulatedPc::Options& pc) {
    std::string text;
    for (int slot = 0; slot < portMap::kMaxCards; ++slot) {
        if (pc.channels[slot] != 0) {
            text += std::string(text.empty() ? "" : ", ") + "card " + std::to_string(slot) +
                    " with " + std::to_string(pc.channels[slot]) + " channels";
        }
    }
    return "cardsim: simulated: " + (text.empty() ? "no cards" : text) + "; seed " +
           std::to_string(pc.seed) + (pc.virtualTime ? "; in virtual time" : "") + '\n';
}

void writeReport(const CommandLine& line, const SharedPage& page) {
    if (page.report.portAccesses == 0) {
        std::cerr << "cardsim: the program never touched the cards\n";
    }
    std::cerr << reportText(page.report, page.strangerAccesses);
    if (line.reportFile.empty()) {
        return;
    }
    std::ofstream file(line.reportFile, std::ios::trunc);
    file << reportJson(page.report, page.strangerAccesses, line.configuration.pc.seed);
    if (!file.flush()) {
        fail(line.reportFile);
    }
}

// What scenarios say about callers and digits stays away when the trace shall not tell it.
std::string aboutRecording(const CommandLine& line) {
    const std::string configuration =
        line.recording.withoutNumbers ? "null" : descriptionOf(line.configuration);
    return R"({"recorder": "cardsim )" CARDSIM_VERSION R"(", "cards": "simulated", )"
           R"("configuration": )" +
           configuration + "}";
}

// A program that was ended because its time was over did well, unless it ended in another way than
// it was told to.
int exitStatusOf(int program, bool timeIsOver) {
    const bool didAsTold = program == 128 + SIGTERM || program == 128 + SIGKILL;
    return timeIsOver && didAsTold ? 0 : program;
}

// Runs the program until it ends, with all that it needs to find the cards.
ProgramEnd runProgram(const CommandLine& line, const SharedFile& shared,
                      const std::function<void()>& onStarted) {
    ProgramSettings settings;
    settings.command = line.program;
    settings.preloadLibrary = findPreloadLibrary("libcardsim-preload.so");
    settings.variables = {{kSharedPageVariable, shared.path()}};
    settings.onStarted = onStarted;
    if (!line.recording.path.empty()) {
        settings.onLeft = [] {
            std::cerr << "cardsim: the program has ended, but not all that it has started: "
                         "recording goes on until that ends too\n";
        };
    }
    if (line.end_ms && (!line.configuration.pc.virtualTime || !line.replayed.empty())) {
        settings.end = std::chrono::milliseconds(*line.end_ms);
    }
    return run(settings);
}

int replay(CommandLine& line) {
    Replay replayed(line.replayed);
    line.configuration.scriptFile = replayed.path();
    const SharedFile shared(line.configuration);
    std::cerr << replayed.banner(line.configuration.pc.virtualTime);
    const ProgramEnd end = runProgram(line, shared, [] {});
    return replayed.tellEnd(shared.page(), exitStatusOf(end.exitStatus, end.wasEnded));
}

int simulate(CommandLine& line) {
    std::optional<cardtrace::Recording> recording;
    if (!line.recording.path.empty()) {
        checkProgram(line.program[0]);  // an older trace of that name is still there
        recording.emplace(line.recording, aboutRecording(line));
        line.configuration.ringFile = recording->ringPath();
    }
    const SharedFile shared(line.configuration);
    std::cerr << banner(line.configuration.pc);
    const ProgramEnd end = runProgram(line, shared, [&recording] {
        if (recording) {
            recording->start();
        }
    });
    writeReport(line, shared.page());
    const int exitStatus = exitStatusOf(end.exitStatus, end.wasEnded);
    if (recording) {
        recording->finish(exitStatus);
    }
    return exitStatus;
}

int launch(CommandLine& line) {
    const MemoryFile memory;
    line.configuration.memoryFile = memory.path();
    return line.replayed.empty() ? simulate(line) : replay(line);
}

}  // namespace

}  // namespace cardsim

int main(int argc, char** argv) {
    using namespace cardsim;
    int exitStatus = 0;
    std::optional<CommandLine> line = readCommandLine(argc, argv, exitStatus);
    if (!line) {
        return exitStatus;
    }
    try {
        refuseOpenDevices();
        giveUpHardware();
        letProgramsFindThisProcess();
        return launch(*line);
    } catch (const CannotStart& error) {
        std::cerr << "cardsim: cannot start " << error.reason << '\n';
        return error.isMissing ? kNotFound : kCannotRun;
    } catch (const std::exception& error) {
        std::cerr << "cardsim: " << error.what() << '\n';
        return kFailed;
    }
}
