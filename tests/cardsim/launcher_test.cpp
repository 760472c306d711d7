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

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::ContainsRegex;
using testing::HasSubstr;

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

    Launcher() { std::ofstream(folder / "data") << "no program\n"; }
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

    char pattern[32] = "/tmp/launcher-test-XXXXXX";
    const fs::path folder = mkdtemp(pattern);
};

TEST_F(Launcher, AnswersAsTheProgramDidHoweverItEndsAndRefusesWrongUsage) {
    const std::string granted = "A ask granted\n";
    const std::string untilUp =
        "-- sh -c 'echo up >$files/up; exec sleep 60' & "
        "until [ -s $files/up ]; do sleep 0.05; done; rm $files/up; ";
    const struct {
        std::string arguments;
        int status;
        std::string out, message;
    } kCases[] = {
        {"", 2, "", "no program given"},
        {"true", 2, "", "the program stands behind --"},
        {"--turbo -- true", 2, "", "--turbo"},
        {"--cards 5 -- true", 2, "", "no card is called \"5\"; right are 4, 8 and none"},
        {"--cards 4,4,4 -- true", 2, "", "no card is called \"4,4\""},
        {"--seed 18446744073709551616 -- true", 2, "", "no whole number"},
        {"--seconds nan -- true", 2, "", "--seconds"},
        {"--period-ms 0 -- true", 2, "", "--period-ms"},
        {"--audio loud -- true", 2, "", "\"loud\" is neither pattern nor pleasant"},
        {"--fault gremlin -- true", 2, "", "no kind of fault \"gremlin\""},
        {"--fault absent/1 -- true", 2, "", "there is no card 1"},
        {"--scenario nowhere.toml -- true", 2, "", "nowhere.toml"},
        {"--cards none,8 --speaker $files/s -- true", 2, "", "no card 0"},
        {"--report $files/no/r -- true", 2, "", "cannot write"},
        {"-- sh -c 'exit 7'", 7, "", "card 0: 4 channels"},
        {"-- no-such-program", 127, "", "cardsim: cannot start no-such-program: No such file"},
        {"-- $files/data", 126, "", "/data: Permission denied"},
        {"-- $user A ask run data abort", 134, granted + "A run done\nA data 255\n",
         "\n  2 port accesses in "},
        {"--seconds 0.2 -- $user A ask sleep", 0, granted, "the program never touched the cards"},
        {"--seconds 7 --virtual-time -- $user A ask data sleep", 0, granted + "A data 0\n",
         " in 7.000 s"},
        // The script ends at once; what it has started has to be killed.
        {"--seconds 0.5 -- sh -c '$user A stubborn ask sleep & echo $! >$files/pid; wait'", 0,
         "A stubborn done\n" + granted, "report of the cards"},
        // Without the page that the launcher shares.
        {"-- env CARDSIM_SHARED_PAGE=$files/data $user A ask device", 0,
         "A ask ENODEV\nA device none\n", "are not of one build"},
        // Z is the process that comes first; when it has ended, the next one gets its cards anew.
        {"-- sh -c 'mkfifo $files/go; $user Z ask memory run data hold <$files/go >$files/Z & "
         "exec 3>$files/go; until grep -q data $files/Z; do sleep 0.05; done; $user Y memory ask "
         "data fork device | sed s/$!/Z/; exec 3>&-; wait; cat $files/Z; $user X ask memory data'",
         0,
         "Y memory Z 7\nY ask granted\nY data 65535\nchild fork child\nchild device 255\n"
         "parent fork parent\nparent device 255\nZ ask granted\nZ memory locked 0\nZ run done\n"
         "Z data 255\nZ hold -1\nX ask granted\nX memory locked 7\nX data 0\n",
         "seed [0-9]+\n(cardsim: process [0-9]+ touched a port while process [0-9]+ has the cards: "
         "nobody answers it\n){2}cardsim: report of the cards.*\n  3 port accesses in .*\n"
         "  3 port accesses by processes that had not the cards"},
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
        EXPECT_THAT(outcome.err, ContainsRegex(message));
        EXPECT_EQ(status == 2, outcome.err.find("\nTry: cardsim --help\n") != std::string::npos);
    }
    EXPECT_EQ(contentOf(folder / "in"), contentOf(FIRMWARE_FOLDER "/LOAD_4CH.TXT"));
    EXPECT_FALSE(fs::exists("/proc/" + std::to_string(std::stoi(contentOf(folder / "pid")))));
}

TEST_F(Launcher, TellsTheSameOfTwoRunsWithOneSeedAndAllThatTheCardsSaw) {
    std::ofstream(folder / "call") << "[[event]]\nat = 20\nline = 2\ndo = \"call\"\ntalk = 5\n";
    const auto run = [this](const std::string& options) {
        return cardsim("--virtual-time --cards 4,8 --seconds 600 --fault nonsense@1% --report " +
                       ("$files/report --speaker $files/speaker --seed " + options) + " -- $main");
    };
    const auto report = [this] { return json::parse(contentOf(folder / "report")); };
    const Outcome first = run("11 --traffic");
    const json seen = report(), &cards = seen["cards"];
    const Outcome second = run("11 --traffic");
    EXPECT_EQ(first.out + first.err, second.out + second.err);
    EXPECT_EQ(seen, report());
    EXPECT_EQ(first.status, 0);
    EXPECT_EQ(seen["elapsedMicroseconds"], 600'000'000);
    EXPECT_EQ(seen["strangerAccesses"], 0);
    ASSERT_EQ(cards.size(), 2u);
    for (const json& card : cards) {
        // What the driver counted as it sent the sections.
        for (const json& block : card["image"]["blocks"]) {
            EXPECT_THAT(first.err, HasSubstr(".BIN Checksum: " + block["checksum"].dump() + "\n"));
        }
        EXPECT_EQ(card["image"]["blocks"].size(), card["channels"] == 4 ? 3u : 4u);
        EXPECT_THAT(first.err, HasSubstr("checksum " + card["image"]["checksum"].dump()));
        EXPECT_GT(card["served"], 1000);
        EXPECT_GE(card["served"], card["handedOver"].get<int>() - 1) << "all but the one under way";
        EXPECT_EQ(card["missed"], 0);
        EXPECT_GT(card["calls"], 50);
    }
    EXPECT_GT(cards[0]["bytesPlayed"], 0);
    EXPECT_EQ(cards[0]["bytesPlayed"], fs::file_size(folder / "speaker"));
    // Without traffic: one call, and faults at random, as the seed has it.
    const std::string events = " --scenario $files/call --fault counter-jump@5/0";
    run("11" + events);
    const json other = report();
    EXPECT_EQ(other["cards"][0]["calls"], 1);
    EXPECT_NEAR(other["cards"][1]["faults"].get<int>(), 26, 18);
    run("12" + events);
    EXPECT_NE(other["timeline"], report()["timeline"]);
    EXPECT_NE(other["cards"][1], report()["cards"][1]);
}

}  // namespace
