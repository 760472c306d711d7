// The launcher from outside, with real programs under it: what it prints, answers and reports.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>

#include "Shell.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace testing;

class Launcher : public Test {
  protected:
    Launcher() { std::ofstream(folder / "data") << "no program\n"; }

    Answer cardsim(const std::string& arguments) const {
        return shell.run(CARDSIM " " + arguments);
    }

    const Shell shell{"main=" BENCH_PROGRAM " user=" CARD_USER};
    const fs::path& folder = shell.folder;
};

TEST_F(Launcher, AnswersAsTheProgramDidHoweverItEndsAndRefusesWrongUsage) {
    const std::tuple<std::string, int, std::string, std::string> kCases[] = {
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
        {"-- $user A ask run data abort", 134, "A ask granted\nA run done\nA data 255\n",
         "\n  2 port accesses in "},
        {"-- $user A ask run thread", 0, "A ask granted\nA run done\nA thread 255\n",
         "\n  2 port accesses in "},
        {"--seconds 0.2 -- $user A ask sleep", 0, "A ask granted\n", "never touched the cards"},
        {"--seconds 7 --virtual-time -- $user A ask data sleep", 0, "A ask granted\nA data 0\n",
         " in 7.000 s"},
        {"--speed 2 -- true", 2, "", "only with --virtual-time"},
        {"--virtual-time --speed 3000 -- $user A date ask data doze date", 0,
         "A date 1767225600\nA ask granted\nA data 0\nA doze 1\nA date 1767229200\n",
         " in 3600.000 s"},
        // The script ends at once; what it has started has to be killed.
        {"--seconds 0.5 -- sh -c '$user A stubborn ask sleep & echo $! >$files/pid; wait'", 0,
         "A stubborn done\nA ask granted\n", "report of the cards"},
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
         "process [0-9]+ touched a port while process [0-9]+ has the cards: nobody answers it\n.*"
         "\n  3 port accesses in .*\n  3 port accesses by processes that had not the cards"},
        {"-- sh -c 'kill -TERM $PPID; sleep 60'", 128 + SIGTERM, "", "report of the cards"},
        {"-- sh -c 'kill -HUP $PPID; sleep 60'", 128 + SIGHUP, "", "report of the cards"},
        {"--seed 5 -- sh -c 'cat >$files/in; printf \"<%s>\" \"$@\"; echo aside >&2' "
         "sh -- '[a,b]' '' --help <LOAD_4CH.TXT",
         0, "<--><[a,b]><><--help>", "cardsim: simulated: card 0 with 4 channels; seed 5\naside\n"},
    };
    for (const auto& [arguments, status, out, message] : kCases) {
        SCOPED_TRACE(arguments);
        const auto [seenStatus, seenOut, err] = cardsim(arguments);
        EXPECT_EQ(seenStatus, status);
        EXPECT_EQ(seenOut, out);
        EXPECT_THAT(err, ContainsRegex(message));
        EXPECT_EQ(status == 2, err.find("\nTry: cardsim --help\n") != std::string::npos);
    }
    EXPECT_EQ(contentOf(folder / "in"), contentOf(FIRMWARE_FOLDER "/LOAD_4CH.TXT"));
    EXPECT_FALSE(fs::exists("/proc/" + std::to_string(std::stoi(contentOf(folder / "pid")))));
}

TEST_F(Launcher, LetsNoWayGoPastTheSimulatedCards) {
#ifdef LEAVES_MAPPING_ALONE
    GTEST_SKIP() << "mappings go past the traps under the thread sanitizer";
#endif
    const auto [status, out, err] = cardsim("-- " EVERY_WAY " $files " STATIC_USER);
    EXPECT_EQ(out, "");
    EXPECT_EQ(status, 0);
    const std::string kRefusals[] = {
        "fopen /dev/port: only open",
        "freopen ",
        "fdopen ",
        "sendfile ",
        "copy_file_range ",
        "splice ",
        "aio_read ",
        "openat2 ",
        "iopl for",
        "ioperm for",
        "map /dev/mem beyond",
        "posix_spawn_file_actions_addopen ",
        std::string("start ") + STATIC_USER + ": it is linked statically",
        "/script: it is linked statically"};
    for (const std::string& refusal : kRefusals) {
        EXPECT_THAT(err, ContainsRegex("cardsim: process [0-9]+ may not .*" + refusal));
    }
    EXPECT_THAT(cardsim("-- " STATIC_USER), FieldsAre(126, "", HasSubstr("linked statically")));
}

TEST_F(Launcher, TellsTheSameOfTwoRunsWithOneSeedAndAllThatTheCardsSaw) {
    std::ofstream(folder / "call") << "[[event]]\nat = 20\nline = 2\ndo = \"call\"\ntalk = 5\n";
    const auto run = [&](const std::string& options) {
        const auto [status, out, err] =
            cardsim("--virtual-time --cards 4,8 --seconds 600 --report $files/report " + options);
        return std::pair(json::parse(contentOf(folder / "report")), out + err);
    };
    const std::string busy = "--traffic --fault nonsense@1% --speaker $files/s --seed 11 -- $main";
    const auto first = run(busy);
    EXPECT_EQ(first, run(busy));
    const auto& [seen, said] = first;
    EXPECT_EQ(seen["cards"][0]["bytesPlayed"], fs::file_size(folder / "s"));
    for (const json& card : seen["cards"]) {
        EXPECT_THAT(said, HasSubstr("checksum " + card["image"]["checksum"].dump()));
        EXPECT_GT(card["calls"], 50);
    }
    // Without traffic: one call, and faults at random, as the seed has it.
    const std::string events = "--scenario $files/call --fault nonsense@1% -- $main";
    const json cards = run("--seed 11 " + events).first["cards"];
    EXPECT_EQ(cards[0]["calls"], 1);
    EXPECT_NEAR(cards[1]["faults"].get<int>(), 26, 18);
    EXPECT_NE(cards[1], run("--seed 12 " + events).first["cards"][1]);
}

}  // namespace
