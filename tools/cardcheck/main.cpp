// cardcheck: tells the person in front of the PC whether the driver would work there, and if not,
// why and how to mend it.
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <iostream>
#include <optional>
#include <sstream>

#include "Cards.h"
#include "LoadFiles.h"
#include "Machine.h"
#include "Report.h"

namespace cardcheck {

namespace {

constexpr int kFailed = 1;
constexpr int kUsageError = 2;
constexpr int kCardsLeftOut = 2;

struct CommandLine {
    bool resetCards = false;
    bool filesOnly = false;
    bool verbose = false;
    std::vector<std::string> loadFiles;
};

class HelpFormat : public CLI::Formatter {
  public:
    HelpFormat() { column_width(18); }
    std::string make_usage(const CLI::App*, std::string) const override {
        return "Usage: cardcheck [OPTIONS] [LOADFILE...]\n";
    }
};

void declareOptions(CLI::App& app, CommandLine& line) {
    app.add_option("LOADFILE", line.loadFiles,
                   "load files to check; when none is named all LOAD_*.TXT in the\n"
                   "working directory, and that each card found has its own. Their\n"
                   "section files are looked for in the working directory")
        ->type_name("");
    app.add_flag("--reset-cards", line.resetCards,
                 "the go-ahead for resetting the cards; without it a user at a\n"
                 "terminal is asked; otherwise the cards are left out");
    app.add_flag("--files-only", line.filesOnly, "touch no hardware, check the load files alone");
    app.add_flag("-v,--verbose", line.verbose, "show the driver's own lines as well");
    app.set_help_flag("-h,--help", "show this");
    app.set_version_flag("--version", "cardcheck " CARDCHECK_VERSION, "show the version");
    app.formatter(std::make_shared<HelpFormat>());
    app.footer(
        "Checks port permission, privilege, kernel lockdown, precedence, /dev/port,\n"
        "/dev/mem, the cards, their memory and their load files. A row a check: PASS,\n"
        "FAIL, WARN (it works, but not as well as it could) or SKIP; each FAIL and WARN\n"
        "names its cause and the fix.\n"
        "\n"
        "The check of the cards resets their DSPs and leaves them in reset: calls that\n"
        "another program records at that time are lost.\n"
        "\n"
        "Exit status: 0 no check failed (some may have been skipped), 1 one failed,\n"
        "2 wrong usage, or none failed and the cards are not checked for want of a\n"
        "go-ahead.\n");
}

// Keeps the lines that the driver prints from the console for as long as it lives.
class QuietDriver {
  public:
    QuietDriver() : out(std::cout.rdbuf(lines.rdbuf())), err(std::cerr.rdbuf(lines.rdbuf())) {}
    ~QuietDriver() {
        std::cout.rdbuf(out);
        std::cerr.rdbuf(err);
    }
    QuietDriver(const QuietDriver&) = delete;
    QuietDriver& operator=(const QuietDriver&) = delete;

  private:
    std::ostringstream lines;
    std::streambuf* const out;
    std::streambuf* const err;
};

bool hasGoAhead(const CommandLine& line) {
    if (!line.resetCards && isatty(STDIN_FILENO) == 0) {
        return false;
    }
    std::cout << "cardcheck: resets the DSPs of the cards and leaves them in reset; a program that "
                 "uses the cards must not run now"
              << std::endl;
    if (line.resetCards) {
        return true;
    }
    std::cout << "Reset the cards? (yes/no) " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "yes";
}

FoundCards checkHardware(Report& report, bool mayReset, bool verbose) {
    std::optional<QuietDriver> quiet;
    if (!verbose) {
        quiet.emplace();
    }
    return checkCards(report, checkMachine(report, readRights()), mayReset);
}

int check(const CommandLine& line) {
    const bool mayReset = !line.filesOnly && hasGoAhead(line);
    std::ostream console(std::cout.rdbuf());
    Report report(console);
    FoundCards found;
    if (line.filesOnly) {
        report.skip("hardware", "not touched (--files-only)");
    } else {
        found = checkHardware(report, mayReset, line.verbose);
    }
    checkLoadFiles(report, line.loadFiles, found);
    report.summarise();
    if (report.hasFailed()) {
        return kFailed;
    }
    return line.filesOnly || mayReset ? 0 : kCardsLeftOut;
}

}  // namespace

}  // namespace cardcheck

int main(int argc, char** argv) {
    using namespace cardcheck;
    CommandLine line;
    CLI::App app(
        "Checks whether the driver of the telephone-line recording cards would work here.");
    declareOptions(app, line);
    try {
        app.parse(argc, argv);
        if (line.resetCards && line.filesOnly) {
            throw CLI::ValidationError("--reset-cards does not go with --files-only");
        }
    } catch (const CLI::Success& answer) {
        return app.exit(answer);
    } catch (const CLI::ParseError& error) {
        std::cerr << "cardcheck: " << error.what() << "\nTry: cardcheck --help\n";
        return kUsageError;
    }
    return check(line);
}
