#include "command/CommandLine.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cmath>
#include <iostream>

#include "launcher/Program.h"
#include "recorder/RecordingOptions.h"

namespace cardtrace {

namespace {

constexpr int kUsageError = 2;

struct Given {
    std::vector<std::string> topics;
    std::vector<std::string> strict;
    double from_s = 0;
    std::optional<double> to_s;
};

void declareRecord(CLI::App& app, CommandLine& line) {
    CLI::App* const record = app.add_subcommand(
        "record",
        "run a program on the PC's own cards and keep what they say to each other:\n"
        "record -o FILE -- PROGRAM [ARG...]");
    declareOptions(*record, line.recording,
                   record->add_option("-o,--output", line.recording.path, "the trace to be made")
                       ->required()
                       ->type_name("FILE"));
    record->callback([&line] { line.command = CommandLine::Command::kRecord; });
}

void declareShow(CLI::App& app, CommandLine& line, Given& given) {
    CLI::App* const show = app.add_subcommand("show", "tell a trace in the words of the cards");
    std::vector<std::string> names(std::begin(kTopicNames), std::end(kTopicNames));
    show->add_option("FILE", line.file, "the trace")->required()->type_name("");
    auto* const summary =
        show->add_flag("--summary", line.summary, "what happened as a whole, and what may help");
    show->add_flag("--all", line.story.all, "a line for each access; nothing is put together");
    show->add_option("--card", line.story.card, "what concerns that card only")
        ->check(CLI::Range(0, 1).description(""))
        ->type_name("0|1");
    show->add_option(
            "--kind", given.topics,
            "lines of that kind only, may be given again: " + CLI::detail::join(names, ", "))
        ->check(CLI::IsMember(names).description(""))
        ->expected(1)
        ->take_all()
        ->type_name("KIND");
    show->add_option("--from", given.from_s, "what came after so many seconds")->type_name("N");
    show->add_option("--to", given.to_s, "what came before so many seconds")->type_name("N");
    for (const char* name : {"--all", "--card", "--kind", "--from", "--to"}) {
        summary->excludes(name);  // it is of the whole trace
    }
    show->add_flag("--json", line.json, "as JSON: an object for each line, or one for the summary");
    show->callback([&line] { line.command = CommandLine::Command::kShow; });
}

std::string harmlessHelp() {
    std::string text = "count that as a difference too, may be given again:";
    for (const HarmlessDescription& each : kHarmless) {
        text += "\n" + std::string(each.name) + ": " + each.reason;
    }
    return text;
}

void declareCompare(CLI::App& app, CommandLine& line, Given& given) {
    CLI::App* const compare =
        app.add_subcommand("compare",
                           "give the host's accesses to simulated cards and tell where those\n"
                           "would have answered otherwise");
    compare->add_option("FILE", line.file, "the trace")->required()->type_name("");
    std::vector<std::string> names;
    for (const HarmlessDescription& each : kHarmless) {
        names.emplace_back(each.name);
    }
    compare->add_option("--strict", given.strict, harmlessHelp())
        ->check(CLI::IsMember(names).description(""))
        ->expected(1)
        ->take_all()
        ->type_name("KIND");
    compare->add_flag("--as-real", line.asReal,
                      "compare a trace of simulated cards as one of real ones, of which only the\n"
                      "trace tells how they were made");
    compare->callback([&line] { line.command = CommandLine::Command::kCompare; });
}

std::uint64_t microseconds(double seconds) {
    constexpr double kLongest = 1e12;
    return seconds > 0 ? static_cast<std::uint64_t>(std::llround(std::min(seconds, kLongest) * 1e6))
                       : 0;
}

void complete(CommandLine& line, const Given& given) {
    if (line.command == CommandLine::Command::kRecord && line.program.empty()) {
        throw CLI::ValidationError(
            "no program given: cardtrace record -o FILE -- PROGRAM [ARG...]");
    }
    if (!given.topics.empty()) {
        line.story.topics = 0;
    }
    for (const std::string& topic : given.topics) {
        const auto* const name = std::find(std::begin(kTopicNames), std::end(kTopicNames), topic);
        line.story.topics |= 1u << (name - std::begin(kTopicNames));
    }
    for (const HarmlessDescription& each : kHarmless) {
        if (std::count(given.strict.begin(), given.strict.end(), each.name) != 0) {
            line.strict.push_back(each.kind);
        }
    }
    line.story.from_us = microseconds(given.from_s);
    if (given.to_s) {
        line.story.to_us = microseconds(*given.to_s);
    }
}

}  // namespace

std::optional<CommandLine> readCommandLine(int argc, char** argv, int& exitStatus) {
    CommandLine line;
    line.program = cardsim::takeProgram(argc, argv);
    Given given;
    CLI::App app(
        "Keeps, shows and compares traces of what a program and the cards say to each other.",
        "cardtrace");
    app.set_help_flag();
    app.set_help_all_flag("-h,--help", "show this");
    app.set_version_flag("--version", "cardtrace " CARDTRACE_VERSION, "show the version");
    app.require_subcommand(1);
    declareRecord(app, line);
    declareShow(app, line, given);
    declareCompare(app, line, given);

    try {
        app.parse(argc, argv);
        complete(line, given);
        return line;
    } catch (const CLI::Success& answer) {
        exitStatus = app.exit(answer);
    } catch (const std::exception& error) {
        std::cerr << "cardtrace: " << error.what() << "\nTry: cardtrace --help\n";
        exitStatus = kUsageError;
    }
    return std::nullopt;
}

}  // namespace cardtrace
