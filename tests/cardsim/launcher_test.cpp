// The launcher from outside, with real programs under it: what it prints, what it answers, and what
// the cards report, however the program ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::StartsWith;

std::string contentOf(const fs::path& file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
}

class Launcher : public testing::Test {
  protected:
    struct Outcome {
        int status;
        std::string out, err;
    };

    Launcher() {
        char name[] = "/tmp/launcher-test-XXXXXX";
        folder = mkdtemp(name);
    }
    ~Launcher() override { fs::remove_all(folder); }

    // Runs a shell command in the folder with the load files; $cardsim, $main and $user are the
    // programs, $files is a folder for whatever comes up.
    Outcome shell(const std::string& command) const {
        setenv("cardsim", CARDSIM, 1);
        setenv("main", BENCH_PROGRAM, 1);
        setenv("user", CARD_USER, 1);
        setenv("files", folder.c_str(), 1);
        const std::string whole = "cd " FIRMWARE_FOLDER " && { " + command + "\n} >" +
                                  (folder / "out").string() + " 2>" + (folder / "err").string();
        const int status = std::system(whole.c_str());
        return {WEXITSTATUS(status), contentOf(folder / "out"), contentOf(folder / "err")};
    }
    Outcome cardsim(const std::string& arguments) const { return shell("$cardsim " + arguments); }

    json report(const std::string& name = "report.json") const {
        return json::parse(contentOf(folder / name));
    }

    fs::path folder;
};

TEST_F(Launcher, RefusesWrongUsageInOneLine) {
    const struct {
        const char* arguments;
        const char* reason;
    } cases[] = {
        {"", "no program given"},
        {"--cards 4 --", "no program given"},
        {"true", "the program stands behind --"},
        {"--turbo -- true", "--turbo"},
        {"--cards 5 -- true", "no card is called \"5\""},
        {"--cards 4,4,4 -- true", "no card is called \"4,4\""},
        {"--cards '' -- true", "no card is called \"\""},
        {"--seed -1 -- true", "\"-1\" is no whole number"},
        {"--seed 18446744073709551616 -- true", "no whole number"},
        {"--seconds 0 -- true", "--seconds"},
        {"--seconds soon -- true", "soon"},
        {"--period-ms 0 -- true", "--period-ms"},
        {"--audio loud -- true", "\"loud\" is neither pattern nor pleasant"},
        {"--fault gremlin -- true", "no kind of fault \"gremlin\""},
        {"--fault absent/1 -- true", "there is no card 1"},
        {"--scenario nowhere.toml -- true", "nowhere.toml"},
        {"--cards none,8 --speaker $files/s -- true", "no card 0"},
        {"--speaker $files/no/s -- true", "cannot write"},
        {"--report $files/no/r -- true", "cannot write"},
    };
    for (const auto& wrong : cases) {
        const Outcome outcome = cardsim(wrong.arguments);
        EXPECT_EQ(outcome.status, 2) << wrong.arguments;
        EXPECT_EQ(outcome.out, "") << wrong.arguments;
        EXPECT_THAT(outcome.err, AllOf(StartsWith("cardsim: "), HasSubstr(wrong.reason),
                                       ContainsRegex("^[^\n]*\nTry: cardsim --help\n$")))
            << wrong.arguments;
    }
}

TEST_F(Launcher, AnswersAsTheProgramDid) {
    std::ofstream(folder / "data") << "no program\n";
    const struct {
        const char* program;
        int status;
        const char* message;
    } cases[] = {
        {"true", 0, "card 0: 4 channels"},
        {"sh -c 'exit 7'", 7, "card 0: 4 channels"},
        {"sh -c 'kill -SEGV $$'", 128 + 11, "card 0: 4 channels"},
        {"no-such-program", 127, "cardsim: cannot start no-such-program: No such file"},
        {"$files/data", 126, "/data: Permission denied"},
    };
    for (const auto& each : cases) {
        const Outcome outcome = cardsim(std::string("-- ") + each.program);
        EXPECT_EQ(outcome.status, each.status) << each.program;
        EXPECT_THAT(outcome.err, HasSubstr(each.message)) << each.program;
    }
}

TEST_F(Launcher, LeavesTheProgramsArgumentsInputAndOutputAlone) {
    const Outcome outcome = cardsim(
        "--seed 5 -- sh -c 'cat; printf \"<%s>\" \"$@\"; echo aside >&2' sh -- '[a,b]' '' --help "
        "<LOAD_4CH.TXT");
    EXPECT_EQ(outcome.out, contentOf(FIRMWARE_FOLDER "/LOAD_4CH.TXT") + "<--><[a,b]><><--help>");
    EXPECT_THAT(outcome.err,
                StartsWith("cardsim: simulated: card 0 with 4 channels; seed 5\naside\n"));
}

TEST_F(Launcher, TellsTheSameOfTwoRunsWithOneSeed) {
    const auto run = [&](const std::string& seed, const std::string& name) {
        Outcome outcome = cardsim(
            "--cards 4,8 --virtual-time --seconds 600 --traffic --fault nonsense@1% --seed " +
            seed + " --speaker $files/speaker --report $files/" + name + " -- $main");
        EXPECT_EQ(outcome.status, 0);
        return outcome;
    };
    const Outcome first = run("11", "first.json");
    const Outcome second = run("11", "second.json");
    EXPECT_EQ(first.out, second.out);
    EXPECT_EQ(first.err, second.err);
    EXPECT_EQ(contentOf(folder / "first.json"), contentOf(folder / "second.json"));
    EXPECT_EQ(report("first.json")["elapsedMicroseconds"], 600'000'000);

    run("12", "other.json");
    EXPECT_NE(report("first.json")["timeline"], report("other.json")["timeline"]);
}

TEST_F(Launcher, ReportsWhatTheCardsSawOfTheBenchProgram) {
    const Outcome outcome = cardsim(
        "--cards 4,8 --virtual-time --seconds 60 --speaker $files/speaker --report "
        "$files/report.json -- $main");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.out, HasSubstr("Transfer Count = "));
    const json cards = report()["cards"];
    ASSERT_EQ(cards.size(), 2u);
    for (const json& card : cards) {
        EXPECT_EQ(card["boots"], 1);
        // What the driver counted as it sent the sections.
        for (const json& block : card["image"]["blocks"]) {
            EXPECT_THAT(outcome.err,
                        HasSubstr(".BIN Checksum: " + block["checksum"].dump() + "\n"));
        }
        EXPECT_EQ(card["image"]["blocks"].size(), card["channels"] == 4 ? 3u : 4u);
        EXPECT_EQ(card["missed"], 0);
        EXPECT_GE(card["served"], card["handedOver"].get<int>() - 1) << "all but the one under way";
    }
    EXPECT_GT(cards[0]["served"], 100);
    EXPECT_GT(cards[0]["bytesPlayed"], 0);
    EXPECT_EQ(cards[0]["bytesPlayed"], fs::file_size(folder / "speaker"));
    EXPECT_THAT(outcome.err, HasSubstr("checksum " + cards[1]["image"]["checksum"].dump()));
}

TEST_F(Launcher, LetsFaultsAndScenariosHappen) {
    EXPECT_THAT(cardsim("--virtual-time --seconds 60 --fault absent -- $main").err,
                HasSubstr("Detected 0 boards"));

    std::ofstream(folder / "call.toml")
        << "[[event]]\nat = 20\nline = 2\ndo = \"call\"\ntalk = 5\n";
    const Outcome outcome = cardsim(
        "--virtual-time --seconds 60 --fault nonsense:digits@2 --fault counter-jump@5 --scenario "
        "$files/call.toml --report $files/report.json -- $main");
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(report()["cards"][0]["faults"], 2);
    EXPECT_EQ(report()["cards"][0]["calls"], 1);
}

TEST_F(Launcher, ReportsAfterACrash) {
    const Outcome outcome = cardsim("--report $files/report.json -- $user crash");
    EXPECT_EQ(outcome.status, 128 + SIGABRT);
    EXPECT_EQ(report()["portAccesses"], 1);
    EXPECT_THAT(outcome.err, HasSubstr("1 port accesses"));
}

TEST_F(Launcher, GivesTheCardsToOneProcess) {
    const Outcome outcome = cardsim("-- $user share");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.out, AllOf(StartsWith("parent: granted\nchild: EBUSY\nask: EBUSY\n"),
                                   HasSubstr("parent still reads")));
    EXPECT_THAT(outcome.err, ContainsRegex("no simulated cards for process [0-9]+: process [0-9]+"
                                           " has them"));
}

TEST_F(Launcher, KillsAProgramThatDoesNotWantToEnd) {
    const Outcome real = cardsim("--seconds 0.2 -- $user stubborn");
    EXPECT_EQ(real.status, 0);
    EXPECT_EQ(real.out, "stubborn: granted\n");

    const Outcome inVirtualTime = cardsim("--seconds 7 --virtual-time -- $user stubborn");
    EXPECT_EQ(inVirtualTime.status, 0);
    EXPECT_THAT(inVirtualTime.err, HasSubstr("in 7.000 s"));
}

TEST_F(Launcher, EndsTheCardsProcessBelowAScript) {
    // The script ends at once; what it has started has to be killed.
    const Outcome outcome =
        cardsim("--seconds 0.5 -- sh -c '$user stubborn & echo $! >$files/pid; wait'");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "stubborn: granted\n");
    EXPECT_FALSE(fs::exists("/proc/" + std::to_string(std::stoi(contentOf(folder / "pid")))));
}

TEST_F(Launcher, PassesOnTheSignalsThatEndIt) {
    for (const char* const name : {"TERM", "HUP"}) {
        const Outcome outcome = shell(
            "$cardsim -- sh -c 'echo up; exec sleep 60' >$files/up & "
            "until [ -s $files/up ]; do sleep 0.05; done; rm $files/up; "
            "kill -" +
            std::string(name) + " $!; wait $!");
        EXPECT_EQ(outcome.status, name == std::string("TERM") ? 128 + SIGTERM : 128 + SIGHUP);
        EXPECT_THAT(outcome.err, HasSubstr("report of the cards"));
    }
}

}  // namespace
