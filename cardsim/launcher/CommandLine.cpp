#include "launcher/CommandLine.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <stdexcept>
#include <system_error>

#include "launcher/Program.h"
#include "recorder/RecordingOptions.h"
#include "scenario/FaultSyntax.h"
#include "scenario/ScenarioFile.h"

namespace cardsim {

namespace {

constexpr int kUsageError = 2;
constexpr const char* kUsage = "cardsim [OPTIONS] -- PROGRAM [ARG...]";
constexpr double kShortestRun_s = 0.001;
constexpr double kLongestRun_s = 10.0 * 365 * 86400;
constexpr std::uint32_t kLongestPeriod_ms = 60'000;
constexpr std::uint32_t kHighestSpeed = 1'000'000;

// The options as they stand on the command line.
struct Given {
    std::string cards = "4";
    std::string seed;
    std::string audio = "pattern";
    std::optional<double> seconds;
    std::string scenario;
    std::vector<std::string> faults;
};

class HelpFormat : public CLI::Formatter {
  public:
    HelpFormat() { column_width(28); }
    std::string make_usage(const CLI::App*, std::string) const override {
        return "Usage: " + std::string(kUsage) + "\n";
    }
};

std::string helpAtEnd() {
    return "A fault is " + faultHelp() +
           "\n"
           "Examples:\n"
           "  cardsim --cards 4 --seconds 10 -- ../bin/main\n"
           "      the bench program on one four-channel card for ten seconds\n"
           "  cardsim --cards 8,4 --traffic --seed 7 --virtual-time --seconds 3600 -- ../bin/main\n"
           "      an hour of calls on two cards, as fast as the machine goes, the same every time\n"
           "  cardsim --fault byte-stuck@57 --report report.json -- ../bin/main\n"
           "      a card that stops taking its firmware; what it saw is kept as JSON\n"
           "\n"
           "Programs that boot cards look for the load files in the working directory; those for\n"
           "the simulated cards are in build/firmware, or /usr/share/dspcard/firmware.\n"
           "\n"
           "Exit status: that of PROGRAM, 128 + N when signal N killed it, 0 when --seconds ended\n"
           "it; 2 wrong usage, 125 it did something else than the replayed trace, 126 PROGRAM\n"
           "cannot be run, 127 PROGRAM not found.\n";
}

// The kinds of cards as --cards names them.
std::string kindNames() {
    std::string names;
    for (const CardKind& kind : kCardKinds) {
        names += (names.empty() ? "" : ", ") + std::to_string(kind.channels);
    }
    return names;
}

std::string periods() {
    std::string text;
    for (const CardKind& kind : kCardKinds) {
        text += (text.empty() ? "" : ", ") + std::to_string(kind.period_us / 1000) + " with " +
                std::to_string(kind.channels);
    }
    return text + " channels";
}

void declareOptions(CLI::App& app, CommandLine& line, Given& given) {
    SimulatedPc::Options& pc = line.configuration.pc;
    pc.virtualTime = false;

    app.add_option("--cards", given.cards,
                   "channels of the first and the second card, " + kindNames() +
                       " or none each:\n4, or 4,8, or none,8 ...; 4 when not given")
        ->type_name("CARDS");
    app.add_option("--seed", given.seed,
                   "what traffic and random faults follow from; chosen and shown\n"
                   "when not given")
        ->type_name("N");
    app.add_option("--period-ms", pc.period_ms,
                   "time between two buffers of a card; when not given\n" + periods())
        ->check(CLI::Range(1u, kLongestPeriod_ms).description(""))
        ->type_name("N");
    app.add_option("--seconds", given.seconds,
                   "end PROGRAM and all that it has started after that time,\n"
                   "0.001 or more")
        ->check(CLI::Range(kShortestRun_s, kLongestRun_s).description(""))
        ->type_name("N");
    app.add_flag("--virtual-time", pc.virtualTime,
                 "time passes only by what the thread that drives the cards\n"
                 "sleeps, and by 1 microsecond for each of its port accesses:\n"
                 "as fast as the machine allows, and the same every time; the\n"
                 "system clock of PROGRAM then begins at 2026-01-01 and goes with it");
    app.add_option("--speed", pc.speed,
                   "let virtual time pass at most N times as fast as the machine's")
        ->check(CLI::Range(1u, kHighestSpeed).description(""))
        ->type_name("N");
    app.add_option("--audio", given.audio,
                   "what the lines sound like: a pattern that shows every wrong byte\n"
                   "(the default), or something pleasant, 8-bit PCM, 1333 bytes/s")
        ->type_name("pattern|pleasant");
    app.add_flag("--traffic", line.configuration.traffic,
                 "calls come and go on all lines by themselves");
    app.add_option("--scenario", given.scenario, "what happens when on which line, as TOML")
        ->type_name("FILE");
    app.add_option("--fault", given.faults, "what goes wrong, see below; may be given again")
        ->expected(1)
        ->take_all()
        ->type_name("FAULT");
    app.add_option("--speaker", line.configuration.speakerFile, "keep what card 0 plays, raw")
        ->type_name("FILE");
    app.add_option("--report", line.reportFile, "write the report at the end as JSON as well")
        ->type_name("FILE");
    cardtrace::declareOptions(
        app, line.recording,
        app.add_option("--record", line.recording.path,
                       "keep what PROGRAM and the cards say to each other, see cardtrace(1)")
            ->type_name("FILE"));
    auto* const replay =
        app.add_option("--replay", line.replayed,
                       "let PROGRAM meet the cards of a trace again, in their time\n"
                       "or in virtual time; it ends where it does something else\n"
                       "than the recorded program did")
            ->check(CLI::ExistingFile.description(""))
            ->type_name("FILE");
    for (const char* name : {"--cards", "--seed", "--period-ms", "--audio", "--traffic",
                             "--scenario", "--fault", "--speaker", "--report", "--record"}) {
        replay->excludes(name);
    }
    app.set_help_flag("-h,--help", "show this");
    app.set_version_flag("--version", "cardsim " CARDSIM_VERSION, "show the version");
    app.formatter(std::make_shared<HelpFormat>());
    app.footer(helpAtEnd);
}

int channelsFrom(const std::string& text) {
    if (text == "none") {
        return 0;
    }
    for (const CardKind& kind : kCardKinds) {
        if (text == std::to_string(kind.channels)) {
            return kind.channels;
        }
    }
    throw std::invalid_argument("--cards: no card is called \"" + text + "\"; right are " +
                                kindNames() + " and none, for two cards with a comma between");
}

void readCards(const std::string& text, int (&channels)[portMap::kMaxCards]) {
    const std::size_t comma = text.find(',');
    channels[0] = channelsFrom(text.substr(0, comma));
    channels[1] = comma == std::string::npos ? 0 : channelsFrom(text.substr(comma + 1));
}

std::uint64_t seedFrom(const std::string& text) {
    std::uint64_t seed = 0;
    const char* const end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, seed);
    if (read.ec != std::errc() || read.ptr != end) {
        throw std::invalid_argument("--seed: \"" + text +
                                    "\" is no whole number from 0 to 18446744073709551615");
    }
    return seed;
}

// Short enough to be typed again.
std::uint64_t anySeed() {
    return std::random_device()() % 1'000'000;
}

AudioSource audioFrom(const std::string& text) {
    if (text == "pattern") {
        return AudioSource::kPattern;
    }
    if (text == "pleasant") {
        return AudioSource::kPleasant;
    }
    throw std::invalid_argument("--audio: \"" + text + "\" is neither pattern nor pleasant");
}

// Makes the file anew and empty: a name that cannot be written shows before the program starts.
void makeEmpty(const std::string& path) {
    if (!path.empty() && !std::ofstream(path, std::ios::trunc)) {
        throw std::system_error(errno, std::generic_category(), "cannot write " + path);
    }
}

std::vector<Fault> faultsFrom(const std::vector<std::string>& texts,
                              const int (&channels)[portMap::kMaxCards]) {
    std::vector<Fault> faults;
    for (const std::string& text : texts) {
        ScenarioEvent event;
        event.action = ScenarioEvent::Action::kFault;
        event.fault = parseFault(text);
        event.origin = "fault \"" + text + "\"";
        checkScenario({event}, channels);
        faults.push_back(event.fault);
    }
    return faults;
}

void complete(CommandLine& line, const Given& given) {
    Configuration& configuration = line.configuration;
    SimulatedPc::Options& pc = configuration.pc;
    if (line.program.empty()) {
        throw std::invalid_argument(std::string("no program given: ") + kUsage);
    }
    readCards(given.cards, pc.channels);
    pc.seed = given.seed.empty() ? anySeed() : seedFrom(given.seed);
    pc.audio = audioFrom(given.audio);
    pc.faults = faultsFrom(given.faults, pc.channels);
    if (!given.scenario.empty()) {
        configuration.events = readScenario(given.scenario);
        checkScenario(configuration.events, pc.channels);
    }
    if (given.seconds) {
        if (!std::isfinite(*given.seconds)) {
            throw std::invalid_argument("--seconds: that is no number of seconds");
        }
        line.end_ms = static_cast<std::uint64_t>(std::llround(*given.seconds * 1000));
    }
    if (pc.speed != 0 && !pc.virtualTime) {
        throw std::invalid_argument("--speed: only with --virtual-time");
    }
    if (pc.virtualTime) {
        configuration.end_ms = line.end_ms.value_or(0);
    }
    if (!configuration.speakerFile.empty()) {
        if (pc.channels[0] == 0) {
            throw std::invalid_argument("--speaker: there is no card 0 to listen to");
        }
        configuration.speakerFile = std::filesystem::absolute(configuration.speakerFile);
    }
    makeEmpty(configuration.speakerFile);
    makeEmpty(line.reportFile);
}

int refuse(const std::string& why) {
    std::cerr << "cardsim: " << why << "\nTry: cardsim --help\n";
    return kUsageError;
}

}  // namespace

std::optional<CommandLine> readCommandLine(int argc, char** argv, int& exitStatus) {
    CommandLine line;
    line.program = takeProgram(argc, argv);
    Given given;
    CLI::App app(
        "Runs a program on simulated telephone-line recording cards: port accesses,\n"
        "/dev/port and /dev/mem of the program act on them.");
    declareOptions(app, line, given);

    try {
        app.parse(argc, argv);
        complete(line, given);
        return line;
    } catch (const CLI::Success& answer) {
        exitStatus = app.exit(answer);
    } catch (const CLI::ExtrasError& error) {
        exitStatus = refuse(error.what() + std::string("; the program stands behind --"));
    } catch (const std::exception& error) {
        exitStatus = refuse(error.what());
    }
    return std::nullopt;
}

}  // namespace cardsim
