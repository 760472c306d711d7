// cardtrace: records what a program and its cards say to each other, and tells it.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "command/CommandLine.h"
#include "format/TraceReader.h"
#include "launcher/Program.h"
#include "recorder/RingVariable.h"
#include "show/Story.h"
#include "show/Summary.h"

namespace cardtrace {

namespace {

namespace fs = std::filesystem;

constexpr int kDamaged = 1;
constexpr int kFailed = 1;
constexpr int kNoTrace = 3;
constexpr int kCannotRun = 126;
constexpr int kNotFound = 127;

// Beside the program, built or installed.
std::string preloadLibrary() {
    const fs::path prefix = fs::read_symlink("/proc/self/exe").parent_path().parent_path();
    for (const char* folder : {"lib", "lib/cardsim", "lib/" LIBRARY_ARCHITECTURE "/cardsim"}) {
        const fs::path library = prefix / folder / "libcardtrace-preload.so";
        if (fs::exists(library)) {
            return library;
        }
    }
    throw std::runtime_error("libcardtrace-preload.so is not in " + (prefix / "lib").string());
}

int record(const CommandLine& line) {
    Recording recording(line.recording,
                        R"({"recorder": "cardtrace )" CARDTRACE_VERSION R"(", "cards": "real"})");
    cardsim::ProgramSettings settings;
    settings.command = line.program;
    settings.preloadLibrary = preloadLibrary();
    settings.variables = {{kRingVariable, recording.ringPath()}};
    settings.withholdsHardware = false;
    settings.onStarted = [&recording] { recording.start(); };
    const cardsim::ProgramEnd end = cardsim::run(settings);
    recording.finish(end.exitStatus);
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
    std::cout.flush();
    return tellTroubles(line.file, reader) ? kDamaged : 0;
}

int carryOut(const CommandLine& line) {
    switch (line.command) {
        case CommandLine::Command::kRecord:
            return record(line);
        case CommandLine::Command::kShow:
            return show(line);
        case CommandLine::Command::kCompare:
            break;
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
        return kFailed;
    }
}
