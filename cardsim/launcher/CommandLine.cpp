#include "launcher/CommandLine.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <random>
#include <stdexcept>

#include "scenario/FaultSyntax.h"
#include "scenario/ScenarioFile.h"

namespace cardsim {

namespace {

constexpr int kUsageError = 2;
constexpr const char* kUsage = "cardsim [OPTIONS] -- PROGRAM [ARG...]";
constexpr double kLongestRun_s = 10.0 * 365 * 86400;
constexpr std::uint32_t kLongestPeriod_ms = 60'000;

// The options as they stand on the command line.
struct Given {
    std::string cards = "4";
    std::optional<std::uint64_t> seed;
    std::optional<double> seconds;
    std::string scenario;
    std::vector<std::string> faults;
};

class HelpFormat : public CLI::Formatter {
  public:
    HelpFormat() { column_width(26); }
    std::string make_usage(const CLI::App*, std::string) const override {
        return "Usage: " + std::string(kUsage) + "\n";
    }
};

std::string helpAtEnd() {
    return "A fault: " + faultHelp() +
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
           "the simulated cards are in build/firmware.\n"
           "\n"
           "Exit status: that of PROGRAM, 128 + N when signal N killed it, 0 when --seconds ended\n"
           "it; 2 wrong usage, 126 PROGRAM cannot be run, 127 PROGRAM not found.\n";
}

void declareOptions(CLI::App& app, CommandLine& line, Given& given) {
    SimulatedPc::Options& pc = line.configuration.pc;
    pc.virtualTime = false;

    app.add_option("--cards", given.cards,
                   "Channels of the first and the second card: 4, 8 or none each, as in 4, 8,4 "
                   "or none,8; 4 when not given")
        ->type_name("CARDS");
    app.add_option("--seed", given.seed,
                   "What traffic and random faults follow from; a random one when not given")
        ->type_name("N");
    app.add_option("--period-ms", pc.period_ms,
                   "Time between two buffers of a card; 450 on a four-channel, 225 on an "
                   "eight-channel card when not given")
        ->check(CLI::Range(1u, kLongestPeriod_ms))
        ->type_name("N");
    app.add_option("--seconds", given.seconds, "End PROGRAM after that time (0.5 is possible)")
        ->check(CLI::Range(0.001, kLongestRun_s))
        ->type_name("N");
    app.add_flag("--virtual-time", pc.virtualTime,
                 "Time passes only by what the thread that drives the cards sleeps, and by its "
                 "port accesses: as fast as the machine allows, and the same every time");
    app.add_option("--audio", pc.audio,
                   "What the lines sound like: a pattern that shows every lost byte (the "
                   "default), or something pleasant")
        ->transform(CLI::CheckedTransformer(std::map<std::string, AudioSource>{
            {"pattern", AudioSource::kPattern}, {"pleasant", AudioSource::kPleasant}}))
        ->type_name("pattern|pleasant");
    app.add_flag("--traffic", line.configuration.traffic,
                 "Calls come and go on all lines by themselves");
    app.add_option("--scenario", given.scenario, "What happens when on which line (TOML)")
        ->type_name("FILE");
    app.add_option("--fault", given.faults, "A fault of the cards, see below; may be repeated")
        ->allow_extra_args(false)
        ->type_name("FAULT");
    app.add_option("--speaker", line.configuration.speakerFile, "Keep what card 0 plays, raw")
        ->type_name("FILE");
    app.add_option("--report", line.reportFile, "Write the report at the end as JSON, too")
        ->type_name("FILE");
    app.set_version_flag("--version", "cardsim " CARDSIM_VERSION);
    app.formatter(std::make_shared<HelpFormat>());
    app.footer(helpAtEnd);
}

int channelsFrom(const std::string& text) {
    if (text == "4" || text == "8") {
        return text[0] - '0';
    }
    if (text == "none") {
        return 0;
    }
    throw std::invalid_argument("--cards: no card is called \"" + text +
                                "\"; right are 4, 8 and none, for two cards with a comma between");
}

void readCards(const std::string& text, int (&channels)[portMap::kMaxCards]) {
    const std::size_t comma = text.find(',');
    channels[0] = channelsFrom(text.substr(0, comma));
    channels[1] = comma == std::string::npos ? 0 : channelsFrom(text.substr(comma + 1));
}

// Random, but short enough to be typed again.
std::uint64_t anySeed() {
    return std::random_device()() % 1'000'000;
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
    pc.seed = given.seed ? *given.seed : anySeed();
    pc.faults = faultsFrom(given.faults, pc.channels);
    if (!given.scenario.empty()) {
        configuration.events = readScenario(given.scenario);
        checkScenario(configuration.events, pc.channels);
    }
    if (given.seconds) {
        line.end_ms = static_cast<std::uint64_t>(std::llround(*given.seconds * 1000));
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
}

}  // namespace

std::optional<CommandLine> readCommandLine(int argc, char** argv, int& exitStatus) {
    CommandLine line;
    Given given;
    CLI::App app(
        "Runs a program on simulated telephone-line recording cards: port accesses,\n"
        "/dev/port and /dev/mem of the program act on them.");
    declareOptions(app, line, given);

    // The program's own arguments are none of the option parser's business.
    char** const end = argv + argc;
    char** const mark = std::find(argv, end, std::string("--"));
    line.program.assign(mark == end ? end : mark + 1, end);
    try {
        app.parse(static_cast<int>(mark - argv), argv);
        complete(line, given);
        return line;
    } catch (const CLI::Success& answer) {
        exitStatus = app.exit(answer);
    } catch (const CLI::ExtrasError& error) {
        std::cerr << "cardsim: " << error.what() << "; the program goes behind --: " << kUsage
                  << '\n';
        exitStatus = kUsageError;
    } catch (const std::exception& error) {
        std::cerr << "cardsim: " << error.what() << '\n';
        exitStatus = kUsageError;
    }
    return std::nullopt;
}

}  // namespace cardsim
