// cardtrace: records what a program and its cards say to each other, and tells it.
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "command/CommandLine.h"
#include "compare/Comparison.h"
#include "format/TraceReader.h"
#include "launcher/PreloadLibrary.h"
#include "launcher/Program.h"
#include "launcher/Rights.h"
#include "recorder/RingVariable.h"
#include "show/Story.h"
#include "show/Summary.h"

namespace cardtrace {

namespace {

constexpr int kDamaged = 1;
constexpr int kFailed = 1;
constexpr int kDiffers = 1;
constexpr int kNoTrace = 3;
constexpr int kIncomplete = 4;  // also when something failed: 1 is a difference
constexpr int kCannotRun = 126;
constexpr int kNotFound = 127;

int record(const CommandLine& line) {
    cardsim::checkProgram(line.program[0]);  // an older trace of that name is still there
    cardsim::letProgramsFindThisProcess();
    Recording recording(line.recording,
                        R"({"recorder": "cardtrace )" CARDTRACE_VERSION R"(", "cards": "real"})");
    cardsim::ProgramSettings settings;
    settings.command = line.program;
    settings.preloadLibrary = cardsim::findPreloadLibrary("libcardtrace-preload.so");
    settings.variables = {{kRingVariable, recording.ringPath()}};
    settings.onStarted = [&recording] { recording.start(); };
    settings.onLeft = [] {
        std::cerr << "cardtrace: the program has ended, but not all that it has started: recording "
                     "goes on until that ends too\n";
    };
    const cardsim::ProgramEnd end = cardsim::run(settings);
    recording.finish(end.exitStatus);
    if (!recording.hasTouchedDevices()) {
        std::cerr << "cardtrace: the program never touched ports or devices: nothing of them is "
                     "in the trace\n";
    }
    return end.exitStatus;
}

void printText(const Line& line) {
    std::printf("%12.6f  %s\n", static_cast<double>(line.time_us) / 1e6, textOf(line).c_str());
}

void printJson(const Line& line) {
    using Json = nlohmann::ordered_json;
    const Json object = {{"record", line.record},
                         {"microseconds", line.time_us},
                         {"card", line.card == -1 ? Json() : Json(line.card)},
                         {"kind", kTopicNames[static_cast<int>(line.topic)]},
                         {"times", line.times},
                         {"text", textOf(line)}};
    std::cout << object.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
}

// What of the file could not be read, as lines; whether there was any.
bool tellTroubles(const std::string& file, const TraceReader& reader) {
    for (const std::string& trouble : reader.troubles()) {
        std::cerr << "cardtrace: " << file << ": " << trouble << '\n';
    }
    return !reader.troubles().empty();
}

// Throws std::runtime_error when not all that was printed has arrived.
void flushOutput() {
    std::cout.flush();
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0 || !std::cout) {
        throw std::runtime_error("standard output: not all could be written");
    }
}

int show(const CommandLine& line) {
    TraceReader reader(line.file);
    const Story::Teller print = line.json ? printJson : printText;
    Story story(line.story, line.summary ? [](const Line&) {} : print);
    for (Record each; reader.next(each);) {
        story.tell(each);
    }
    story.end();
    if (line.summary) {
        std::cout << (line.json ? summaryJson(reader.about(), story.facts())
                                : summaryText(reader.about(), story.facts()));
    }
    const bool isDamaged = tellTroubles(line.file, reader);
    flushOutput();
    return isDamaged ? kDamaged : 0;
}

// The kinds of the cards that answer in the trace, as far as it shows them.
void findCards(const std::string& file, int (&channels)[2]) {
    TraceReader reader(file);
    KindsSeen kinds;
    for (Record each; reader.next(each);) {
        kinds.see(each);
    }
    for (const int slot : {0, 1}) {
        channels[slot] = kinds.kind(slot) == nullptr ? 0 : kinds.kind(slot)->channels;
    }
}

Comparison::Options comparedWith(const CommandLine& line, const std::string& about) {
    Comparison::Options options;
    options.strict = line.strict;
    if (!line.asReal) {
        options.configuration = configurationIn(about);
    }
    if (!options.configuration) {
        findCards(line.file, options.channels);
    }
    return options;
}

void printResult(const ComparisonResult& result, bool isConfigured) {
    std::cout << result.accesses << " accesses compared with simulated cards "
              << (isConfigured ? "made as those of the trace" : "of the same kinds") << '\n';
    if (result.first) {
        std::printf("first difference: record %llu at %.6f s, %s: %s\n",
                    static_cast<unsigned long long>(result.first->record),
                    static_cast<double>(result.first->time_us) / 1e6, result.first->kind.c_str(),
                    result.first->text.c_str());
    } else if (result.accesses != 0) {
        std::cout << "no difference\n";
    }
    for (const auto& [kind, count] : result.differences) {
        std::cout << "  " << kind << ": " << count << '\n';
    }
    for (const HarmlessDescription& each : kHarmless) {
        const auto found = result.harmless.find(each.name);
        if (found != result.harmless.end()) {
            std::cout << "harmless, " << each.name << ": " << found->second << " (" << each.reason
                      << ")\n";
        }
    }
    flushOutput();
}

int compare(const CommandLine& line) {
    TraceReader reader(line.file);
    const Comparison::Options options = comparedWith(line, reader.about());
    ComparisonResult result = Comparison(reader, options).run();
    if (result.accesses == 0 && result.stoppedBy.empty()) {
        result.stoppedBy = "there is no access to a card";
    }
    printResult(result, options.configuration.has_value());
    if (!result.stoppedBy.empty()) {
        std::cerr << "cardtrace: " << line.file << ": not compared to the end: " << result.stoppedBy
                  << '\n';
    }
    const bool isDamaged = tellTroubles(line.file, reader) || !result.stoppedBy.empty();
    return result.first ? kDiffers : isDamaged ? kIncomplete : 0;
}

int carryOut(const CommandLine& line) {
    switch (line.command) {
        case CommandLine::Command::kRecord:
            return record(line);
        case CommandLine::Command::kShow:
            return show(line);
        case CommandLine::Command::kCompare:
            return compare(line);
    }
    return kFailed;
}

}  // namespace

}  // namespace cardtrace

int main(int argc, char** argv) {
    using namespace cardtrace;
    int exitStatus = 0;
    const std::optional<CommandLine> line = readCommandLine(argc, argv, exitStatus);
    if (!line) {
        return exitStatus;
    }
    try {
        return carryOut(*line);
    } catch (const cardsim::CannotStart& error) {
        std::cerr << "cardtrace: cannot start " << error.reason << '\n';
        return error.isMissing ? kNotFound : kCannotRun;
    } catch (const NotATrace& error) {
        std::cerr << "cardtrace: " << error.what() << '\n';
        return kNoTrace;
    } catch (const std::exception& error) {
        std::cerr << "cardtrace: " << error.what() << '\n';
        return line->command == CommandLine::Command::kCompare ? kIncomplete : kFailed;
    }
}
