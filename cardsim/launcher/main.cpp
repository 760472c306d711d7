// cardsim: runs an unmodified program on simulated cards. Reads the options, hands them to the
// preload library inside the program, and tells what the cards saw when the program has ended.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <new>
#include <random>
#include <stdexcept>
#include <system_error>

#include "config/Configuration.h"
#include "config/Session.h"
#include "launcher/Program.h"
#include "launcher/ReportText.h"
#include "scenario/FaultSyntax.h"
#include "scenario/ScenarioFile.h"

namespace {

using cardsim::Configuration;

constexpr int kWrongUsage = 2;
constexpr int kCannotRun = 126;

constexpr char kExamples[] =
    "Examples, from the folder with the load files (build/firmware):\n"
    "  cardsim --seconds 10 -- ../bin/main\n"
    "      the bench program on a four-channel card, for ten seconds\n"
    "  cardsim --cards 4,8 --traffic --seed 7 --virtual-time --seconds 3600 -- ../bin/main\n"
    "      an hour of calls on two cards, as fast as the machine allows; the same every time\n"
    "  cardsim --fault counter-stuck@20-26 --report report.json -- ../bin/main\n"
    "      a card that locks up; what the cards saw goes into report.json as well\n";

constexpr char kExitStatus[] =
    "Exit status: that of PROGRAM, 128 + N if signal N ended it; 0 when --seconds ended it; 2 "
    "wrong\n"
    "usage; 126 or 127 PROGRAM cannot be started.\n";

struct Arguments {
    Configuration configuration;
    double seconds = 0;
    std::string scenarioFile;
    std::string reportFile;
    std::vector<std::string> command;
};

// "4,8" and the like; none is an empty slot.
void parseCards(const std::string& text, int (&channels)[cardsim::portMap::kMaxCards]) {
    std::istringstream items(text);
    std::string item;
    int slot = 0;
    std::fill(std::begin(channels), std::end(channels), 0);
    while (std::getline(items, item, ',')) {
        if (slot == cardsim::portMap::kMaxCards || (item != "4" && item != "8" && item != "none")) {
            throw CLI::ValidationError("--cards", "'" + text + "' is not one or two of 4, 8, none");
        }
        channels[slot++] = item == "none" ? 0 : std::stoi(item);
    }
}

void describeOptions(CLI::App& app, Arguments& arguments) {
    Configuration& configuration = arguments.configuration;
    app.add_option_function<std::string>(
           "--cards", [&](const std::string& text) { parseCards(text, configuration.channels); },
           "Cards in the first and second slot by their channels: 4, 8, or none (4 alone)")
        ->type_name("CARDS");
    app.add_option("--seed", configuration.seed,
                   "What everything random follows from; chosen and shown when not given");
    app.add_option("--period-ms", configuration.period_ms,
                   "Milliseconds between buffers (450 with four channels, 225 with eight)")
        ->check(CLI::Range(1, 3'600'000));
    app.add_option("--seconds", arguments.seconds, "End the program after that long, status 0")
        ->check(CLI::Range(0.001, 1e9));
    app.add_flag("--virtual-time", configuration.virtualTime,
                 "Time passes only by what the program's card thread sleeps, and by 1 microsecond "
                 "for each of its port accesses");
    app.add_flag("--traffic", configuration.traffic, "Calls come and go by themselves");
    app.add_option("--scenario", arguments.scenarioFile,
                   "TOML file: what happens when on which line")
        ->type_name("FILE");
    app.add_option_function<std::vector<std::string>>(
           "--fault",
           [&](const std::vector<std::string>& texts) {
               for (const std::string& text : texts) {
                   try {
                       configuration.faults.push_back(cardsim::parseFault(text));
                   } catch (const std::invalid_argument& wrong) {
                       throw CLI::ValidationError("--fault", wrong.what());
                   }
               }
           },
           "Something that goes wrong (see below); may be given several times")
        ->type_name("FAULT")
        ->take_all();
    const std::map<std::string, cardsim::AudioSource> sources = {
        {"pattern", cardsim::AudioSource::kPattern}, {"pleasant", cardsim::AudioSource::kPleasant}};
    app.add_option("--audio", configuration.audio,
                   "What the lines sound like: a pattern that shows every wrong byte (pattern), or "
                   "voices in 8-bit PCM, 1333 bytes a second (pleasant)")
        ->transform(CLI::Transformer(sources).description(""))
        ->type_name("pattern|pleasant");
    app.add_option("--speaker", configuration.speakerFile, "Keep what the first card plays")
        ->type_name("FILE");
    app.add_option("--report", arguments.reportFile, "Write the report of the cards as JSON too")
        ->type_name("FILE");
    app.add_option("PROGRAM", arguments.command, "The program and its arguments, after --")
        ->required()
        ->type_name("");
}

// Checks what no single option can, and reads the scenario.
void complete(Arguments& arguments, bool seedGiven) {
    Configuration& configuration = arguments.configuration;
    if (!seedGiven) {
        configuration.seed = std::random_device{}();
    }
    if (!arguments.scenarioFile.empty()) {
        configuration.scenario = cardsim::readScenario(arguments.scenarioFile);
        cardsim::checkScenario(configuration.scenario, configuration.channels);
    }
    if (configuration.virtualTime) {
        configuration.end_ms = static_cast<std::uint64_t>(arguments.seconds * 1000);
    }
    if (!configuration.speakerFile.empty()) {
        configuration.speakerFile = std::filesystem::absolute(configuration.speakerFile);
    }
    for (const std::string& file : {configuration.speakerFile, arguments.reportFile}) {
        if (!file.empty() && !std::ofstream(file)) {
            throw std::runtime_error(file + " cannot be written: " + std::strerror(errno));
        }
    }
}

std::string banner(const Configuration& configuration) {
    std::string cards;
    for (int slot = 0; slot < cardsim::portMap::kMaxCards; ++slot) {
        if (configuration.channels[slot] != 0) {
            cards += (cards.empty() ? "card " : ", card ") + std::to_string(slot) + " with " +
                     std::to_string(configuration.channels[slot]) + " channels";
        }
    }
    return "cardsim: simulated: " + (cards.empty() ? "no cards" : cards) + "; seed " +
           std::to_string(configuration.seed) +
           (configuration.virtualTime ? "; in virtual time" : "");
}

std::string preloadLibrary() {
    const auto folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    for (const char* const place :
         {"../lib/libcardsim-preload.so", "../lib/cardsim/libcardsim-preload.so",
          "../lib/x86_64-linux-gnu/cardsim/libcardsim-preload.so"}) {
        if (std::filesystem::exists(folder / place)) {
            return std::filesystem::canonical(folder / place);
        }
    }
    throw std::runtime_error("libcardsim-preload.so is neither in " +
                             (folder / "../lib").lexically_normal().string() +
                             " nor in a folder cardsim there");
}

// The session's page and configuration, in a file without a name that the program finds through
// this process.
class SessionFile {
  public:
    explicit SessionFile(const Configuration& configuration)
        : file(memfd_create("cardsim-session", MFD_CLOEXEC)) {
        const std::string text = cardsim::toText(configuration);
        const std::size_t length = sizeof(cardsim::Session) + text.size();
        void* const mapping =
            file != -1 && ftruncate(file, static_cast<off_t>(length)) == 0
                ? mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0)
                : MAP_FAILED;
        if (mapping == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "session");
        }
        page = new (mapping) cardsim::Session{};
        page->configurationLength = text.size();
        std::memcpy(static_cast<void*>(page + 1), text.data(), text.size());
        for (int slot = 0; slot < cardsim::portMap::kMaxCards; ++slot) {
            page->report.cards[slot].channels =
                static_cast<std::uint32_t>(configuration.channels[slot]);
        }
    }

    std::string path() const {
        return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(file);
    }
    const cardsim::Session& session() const { return *page; }

  private:
    const int file;
    cardsim::Session* page;
};

int run(const Arguments& arguments) {
    const Configuration& configuration = arguments.configuration;
    const SessionFile sessionFile(configuration);
    cardsim::ProgramStart start{arguments.command, preloadLibrary(), sessionFile.path(), {}};
    if (arguments.seconds > 0 && !configuration.virtualTime) {
        start.runTime = std::chrono::milliseconds(static_cast<long>(arguments.seconds * 1000));
    }
    std::cerr << banner(configuration) << std::endl;
    const cardsim::ProgramEnd end = cardsim::runProgram(start);
    if (!end.started) {
        return end.status;
    }
    const cardsim::MachineReport& report = sessionFile.session().report;
    std::cerr << cardsim::reportText(report) << std::flush;
    if (!arguments.reportFile.empty()) {
        std::ofstream(arguments.reportFile) << cardsim::reportJson(report);
    }
    const bool virtualTimeIsUp =
        configuration.end_ms != 0 && report.elapsed_us >= configuration.end_ms * 1000;
    return end.timeIsUp || virtualTimeIsUp ? 0 : end.status;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Runs PROGRAM, unmodified, on a PC with simulated telephone-line recording cards.",
                 "cardsim");
    app.footer("Faults:\n" + cardsim::faultHelp() + "\n" + kExamples + "\n" + kExitStatus);
    app.set_version_flag("--version", CARDSIM_VERSION);
    Arguments arguments;
    describeOptions(app, arguments);
    try {
        app.parse(argc, argv);
        complete(arguments, app.count("--seed") > 0);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForVersion& version) {
        return app.exit(version);
    } catch (const std::exception& wrong) {
        std::cerr << "cardsim: " << wrong.what() << "\nTry: cardsim --help" << std::endl;
        return kWrongUsage;
    }
    try {
        return run(arguments);
    } catch (const std::exception& failure) {
        std::cerr << "cardsim: " << failure.what() << std::endl;
        return kCannotRun;
    }
}
