// The launcher from outside, with real programs under it: what it prints, what it answers, and what
// the cards report, however the program ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <tuple>

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

    // Runs the launcher in the folder with the load files, from a shell in which $main and $user
    // are programs and $files is a folder for whatever comes up.
    Outcome cardsim(const std::string& arguments) const {
        setenv("main", BENCH_PROGRAM, 1);
        setenv("user", CARD_USER, 1);
        setenv("files", folder.c_str(), 1);
        const std::string whole = "cd " FIRMWARE_FOLDER " && { " CARDSIM " " + arguments + "\n} >" +
                                  (folder / "out").string() + " 2>" + (folder / "err").string();
        const int status = std::system(whole.c_str());
        return {WEXITSTATUS(status), contentOf(folder / "out"), contentOf(folder / "err")};
    }
    Outcome benchProgram(const std::string& options) const {
        return cardsim("--virtual-time " + options + " --report $files/report -- $main");
    }
    json report() const { return json::parse(contentOf(folder / "report")); }

    fs::path folder;
};

TEST_F(Launcher, RefusesWrongUsageInOneLine) {
    const std::pair<std::string, const char*> kCases[] = {
        {"", "no program given"},
        {"true", "the program stands behind --"},
        {"--turbo -- true", "--turbo"},
        {"--cards 5 -- true", "no card is called \"5\""},
        {"--cards 4,4,4 -- true", "no card is called \"4,4\""},
        {"--seed 18446744073709551616 -- true", "no whole number"},
        {"--seconds nan -- true", "--seconds"},
        {"--period-ms 0 -- true", "--period-ms"},
        {"--audio loud -- true", "\"loud\" is neither pattern nor pleasant"},
        {"--fault gremlin -- true", "no kind of fault \"gremlin\""},
        {"--fault absent/1 -- true", "there is no card 1"},
        {"--scenario nowhere.toml -- true", "nowhere.toml"},
        {"--cards none,8 --speaker $files/s -- true", "no card 0"},
        {"--report $files/no/r -- true", "cannot write"},
    };
    for (const auto& [arguments, reason] : kCases) {
        SCOPED_TRACE(arguments);
        const Outcome outcome = cardsim(arguments);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.out, "");
        EXPECT_THAT(outcome.err, AllOf(StartsWith("cardsim: "), HasSubstr(reason),
                                       ContainsRegex("^[^\n]*\nTry: cardsim --help\n$")));
    }
}

TEST_F(Launcher, AnswersAsTheProgramDidHoweverItEnds) {
    std::ofstream(folder / "data") << "no program\n";
    const std::string granted = "user ask granted\n";
    const std::string untilUp =
        "-- sh -c 'echo up >$files/up; exec sleep 60' & "
        "until [ -s $files/up ]; do sleep 0.05; done; rm $files/up; ";
    const std::tuple<std::string, int, std::string, const char*> kCases[] = {
        {"-- sh -c 'exit 7'", 7, "", "card 0: 4 channels"},
        {"-- no-such-program", 127, "", "cardsim: cannot start no-such-program: No such file"},
        {"-- $files/data", 126, "", "/data: Permission denied"},
        {"-- $user user ask data abort", 128 + SIGABRT, granted + "user data 0\n",
         "\n  1 port accesses in "},
        {"--seconds 0.2 -- $user user ask sleep", 0, granted,
         "the program never touched the cards"},
        {"--seconds 7 --virtual-time -- $user user ask data sleep", 0, granted + "user data 0\n",
         " in 7.000 s"},
        // The script ends at once; what it has started has to be killed.
        {"--seconds 0.5 -- sh -c '$user user ask sleep & echo $! >$files/pid; wait'", 0, granted,
         "report of the cards"},
        // By hand, without the page that the launcher shares.
        {"-- env CARDSIM_SHARED_PAGE=$files/data $user user ask device", 0,
         "user ask ENODEV\nuser device ENODEV\n", "are not of one build"},
        {untilUp + "kill -TERM $!; wait $!", 128 + SIGTERM, "", "report of the cards"},
        {untilUp + "kill -HUP $!; wait $!", 128 + SIGHUP, "", "report of the cards"},
        {"--seed 5 -- sh -c 'cat >$files/in; printf \"<%s>\" \"$@\"; echo aside >&2' "
         "sh -- '[a,b]' '' --help <LOAD_4CH.TXT",
         0, "<--><[a,b]><><--help>", "cardsim: simulated: card 0 with 4 channels; seed 5\naside\n"},
    };
    for (const auto& [arguments, status, out, message] : kCases) {
        SCOPED_TRACE(arguments);
        const Outcome outcome = cardsim(arguments);
        EXPECT_EQ(outcome.status, status);
        EXPECT_EQ(outcome.out, out);
        EXPECT_THAT(outcome.err, HasSubstr(message));
    }
    EXPECT_EQ(contentOf(folder / "in"), contentOf(FIRMWARE_FOLDER "/LOAD_4CH.TXT"));
    EXPECT_FALSE(fs::exists("/proc/" + std::to_string(std::stoi(contentOf(folder / "pid")))));
}

TEST_F(Launcher, GivesTheCardsToOneProcessAtATimeAndTheirMemoryToAll) {
    // Z names the process that comes first; when it has ended, the next one gets its cards anew.
    const Outcome outcome = cardsim(
        "--report $files/report -- sh -c 'mkfifo $files/go; $user Z ask memory run data hold "
        "<$files/go >$files/Z & exec 3>$files/go; until grep -q data $files/Z; do sleep 0.05; done;"
        "$user Y memory ask data fork device | sed s/$!/Z/; exec 3>&-; wait; cat $files/Z;"
        "$user X ask memory data'");
    EXPECT_EQ(outcome.out,
              "Y memory of Z 7\nY ask granted\nY data 65535\nchild device 255\nparent device 255\n"
              "Z ask granted\nZ memory locked 0\nZ run done\nZ data 255\nZ hold done\n"
              "X ask granted\nX memory locked 7\nX data 0\n");
    EXPECT_THAT(outcome.err, ContainsRegex("cardsim: process [0-9]+ touched a port while process "
                                           "[0-9]+ has the cards: nobody answers it\n"));
    EXPECT_THAT(outcome.err, HasSubstr("  3 port accesses by processes that had not the cards"));
    EXPECT_EQ(report()["strangerAccesses"], 3);
    EXPECT_EQ(report()["portAccesses"], 3);
}

TEST_F(Launcher, TellsTheSameOfTwoRunsWithOneSeedAndAllThatTheCardsSaw) {
    const std::string options =
        "--cards 4,8 --seconds 600 --traffic --fault nonsense@1% --speaker $files/speaker --seed ";
    const Outcome first = benchProgram(options + "11");
    const json seen = report();
    const Outcome second = benchProgram(options + "11");
    EXPECT_EQ(first.out, second.out);
    EXPECT_EQ(first.err, second.err);
    EXPECT_EQ(seen, report());

    EXPECT_EQ(first.status, 0);
    EXPECT_THAT(first.out, HasSubstr("Transfer Count = "));
    EXPECT_EQ(seen["elapsedMicroseconds"], 600'000'000);
    EXPECT_EQ(seen["strangerAccesses"], 0);
    const json& cards = seen["cards"];
    ASSERT_EQ(cards.size(), 2u);
    for (const json& card : cards) {
        // What the driver counted as it sent the sections.
        for (const json& block : card["image"]["blocks"]) {
            EXPECT_THAT(first.err, HasSubstr(".BIN Checksum: " + block["checksum"].dump() + "\n"));
        }
        EXPECT_EQ(card["image"]["blocks"].size(), card["channels"] == 4 ? 3u : 4u);
        EXPECT_GT(card["served"], 1000);
        EXPECT_GE(card["served"], card["handedOver"].get<int>() - 1) << "all but the one under way";
        EXPECT_EQ(card["missed"], 0);
    }
    EXPECT_GT(cards[0]["bytesPlayed"], 0);
    EXPECT_EQ(cards[0]["bytesPlayed"], fs::file_size(folder / "speaker"));
    EXPECT_THAT(first.err, HasSubstr("checksum " + cards[1]["image"]["checksum"].dump()));
    benchProgram(options + "12");
    EXPECT_NE(seen["timeline"], report()["timeline"]);
}

TEST_F(Launcher, LetsFaultsAndScenariosHappen) {
    std::ofstream(folder / "call") << "[[event]]\nat = 20\nline = 2\ndo = \"call\"\ntalk = 5\n";
    const std::string faults = "--fault nonsense:digits@2 --fault counter-jump@5";
    EXPECT_EQ(benchProgram("--seconds 60 --scenario $files/call " + faults).status, 0);
    EXPECT_EQ(report()["cards"][0]["faults"], 2);
    EXPECT_EQ(report()["cards"][0]["calls"], 1);
}

}  // namespace
