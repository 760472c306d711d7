// The program trials: runs one of them and ends with a line of figures.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <iostream>

#include "Trials.h"

namespace {

constexpr int kNothingFound = 0;
constexpr int kSomethingFound = 1;
constexpr int kWrongUsage = 2;
constexpr std::size_t kMostFindingsShown = 20;

int tell(const std::string& trial, const trials::Outcome& outcome) {
    for (const std::string& note : outcome.notes) {
        std::cout << note << '\n';
    }
    std::size_t shown = 0;
    for (const std::string& finding : outcome.findings) {
        if (++shown <= kMostFindingsShown) {
            std::cout << "FOUND " << finding << '\n';
        }
    }
    std::cout << trial << ": " << outcome.runs << " runs, " << outcome.faults << " faults, "
              << outcome.findings.size() << " found" << std::endl;
    const bool nothing = outcome.findings.empty() && outcome.runs > 0;
    return nothing ? kNothingFound : kSomethingFound;
}

}  // namespace

void trials::showProgress(const std::string& trial, std::uint64_t done, std::uint64_t all) {
    if (isatty(STDERR_FILENO) != 0) {
        std::cerr << '\r' << trial << ": " << done << " of " << all << (done == all ? "\n" : "")
                  << std::flush;
    }
}

int main(int argc, char** argv) {
    CLI::App app("Tries to break the driver on simulated cards, in virtual time.");
    app.footer(
        "The last line says how many runs there were, how many faults struck in them, and how\n"
        "many of them the driver did not stand.\n"
        "Exit status: 0 nothing found, 1 something found, 2 wrong usage.");
    app.require_subcommand(1);

    std::string firmware = DEMONSTRATION_FIRMWARE;
    app.add_option("--firmware", firmware, "folder with the load files")
        ->check(CLI::ExistingDirectory)
        ->capture_default_str();

    std::uint64_t every = 1;
    CLI::App* const boots =
        app.add_subcommand("boots", "a card fails at each access of a boot and of a detection");
    CLI::App* const corruption =
        app.add_subcommand("corruption", "each word of a transfer buffer is anything");
    for (CLI::App* const sweep : {boots, corruption}) {
        sweep->add_option("--every", every, "try only each Nth access or word")
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
    }

    std::uint64_t seed = 1;
    std::uint64_t count = 1000;
    bool list = false;
    CLI::App* const schedules = app.add_subcommand(
        "schedules", "cards, calls, faults, commands and a client's pauses, all at random");
    schedules->add_option("--seed", seed, "of the first run; each further one has the next")
        ->capture_default_str();
    schedules->add_option("--count", count, "runs")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    schedules->add_flag("--list", list, "show a digest of everything that happened in each run");

    std::uint64_t minutes = 60;
    CLI::App* const backlog =
        app.add_subcommand("backlog", "the client stays away, then takes all that has waited");
    backlog->add_option("--minutes", minutes, "of the cards' time")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kNothingFound : kWrongUsage;
    }
    std::filesystem::current_path(firmware);
    if (*boots) {
        return tell("boots", trials::sweepBoots(every));
    }
    if (*corruption) {
        return tell("corruption", trials::corruptBuffers(every));
    }
    if (*schedules) {
        return tell("schedules", trials::runSchedules(seed, count, list));
    }
    return tell("backlog", trials::drainBacklog(minutes));
}
