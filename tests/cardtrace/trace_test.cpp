// Traces from end to end, with real programs: recorded on simulated cards, and on "real" ones that
// are simulated in turn; shown, compared and replayed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "Shell.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace testing;

class Trace : public Test {
  protected:
    Answer run(const std::string& command) const { return shell.run(command); }
    // Calls, settings, playback, a lock-up and the re-boot after it, on both kinds of card.
    Answer recordLockUp(const std::string& options = "") const {
        return run(
            "$cardsim --cards 4,8 --traffic --seed 5 --virtual-time --seconds 60 --fault "
            "counter-stuck@40-48/1 --record $files/trace " +
            options + " -- $host 1 7");
    }
    json summary(const std::string& trace = "$files/trace") const {
        return json::parse(run("$cardtrace show --summary --json " + trace).out);
    }
    // What the program and the driver said, without the lines of the launcher.
    static std::string saidByProgram(const Answer& answer) {
        std::istringstream lines(answer.err);
        std::string said = answer.out;
        for (std::string line; std::getline(lines, line);) {
            said += line.compare(0, 7, "cardsim") == 0 || line.compare(0, 2, "  ") == 0
                        ? ""
                        : line + '\n';
        }
        return said;
    }

    const Shell shell{"cardsim=" CARDSIM " cardtrace=" CARDTRACE " main=" BENCH_PROGRAM
                      " host=" TRACE_HOST " user=" CARD_USER};
    const fs::path& folder = shell.folder;
};

TEST_F(Trace, OfALockUpIsWholeComparesAndReplaysWithTheSamePackets) {
    const Answer recorded = recordLockUp();
    EXPECT_EQ(recorded.status, 0) << recorded.err;
    EXPECT_NE(recorded.out.find("packet 4 2402 "), std::string::npos) << "audio";
    EXPECT_THAT(recorded.err, HasSubstr("DSP Card locked so bootloading!"));

    // Without --record too: a program that ends itself has its cards until its last moment.
    const Answer ended = run(
        "$cardsim --cards 4,8 --virtual-time -- sh -c '$host 1 7 & sleep 0.3; kill $!; wait $!'");
    EXPECT_EQ(ended.status, 0) << ended.err;

    const json told = summary();
    EXPECT_TRUE(told["whole"]);
    for (const json& card : told["cards"]) {
        EXPECT_EQ(card["boots"].size(), 2u);
        EXPECT_EQ(card["boots"][1]["blocks"][0]["name"],
                  card["channels"] == 4 ? "VECT4.BIN" : "VECT8.BIN");
        EXPECT_TRUE(card["boots"][1]["whole"]);
        EXPECT_EQ(card["settingsWritten"], 1);
        EXPECT_GT(card["callers"], 2);
    }
    EXPECT_EQ(told["cards"][0]["missed"], 0);
    EXPECT_EQ(told["cards"][0]["audioPlayed"], 12);
    EXPECT_EQ(told["cards"][1]["repeated"], 7);
    EXPECT_EQ(told["cards"][1]["lines"][1]["trigger"], 0xFF02);
    EXPECT_EQ(told["advice"].back()["message"], "DSP Board Locked Up");

    EXPECT_THAT(run("$cardtrace compare $files/trace"),
                FieldsAre(0, HasSubstr("\nno difference\n"), ""));
    const Answer asReal = run("$cardtrace compare --as-real $files/trace");
    EXPECT_EQ(asReal.status, 1);
    EXPECT_THAT(asReal.out, ContainsRegex("first difference: record [0-9]+ at [0-9.]+ s, counter: "
                                          "card 1 buffer . has counter [0-9]+, the simulated"));
    EXPECT_THAT(asReal.out, HasSubstr("  counter: 7\nharmless, undefined-bits"));

    const Answer replayed = run("$cardsim --replay $files/trace --virtual-time -- $host 1 7");
    EXPECT_EQ(replayed.status, 0);
    EXPECT_THAT(replayed.err, HasSubstr("to the end"));
    EXPECT_TRUE(saidByProgram(recorded) == saidByProgram(replayed)) << "packets and lines";
}

TEST_F(Trace, TellsWhereARealCardDiffersFromASimulatedOne) {
    const std::pair<std::string, std::string> kRows[] = {
        {"absent@300/0", "status: card 0 status answered 0xFFFF, the simulated card"},
        {"wrong-echo@1/0", "data port: card 0 data port answered 0xAA, the simulated card 0x55"},
        {"byte-stuck@57/0", "handshake: card 0 status answered 0x.*1, .*until the host gave up"},
        {"dead-after-boot/1", "hand-over: card 1 has handed over nothing since"},
        {"silent@4+/0", "hand-over: card 0 has handed over nothing since 1\\.4"},
        {"counter-jump@10/0", "status: card 0 status answered 0x.*0, the simulated card 0x.*1"},
        {"taken-back@10/1", "status: card 1 status answered 0x.*0, the simulated card 0x.*1"},
        {"nonsense:level@10/1",
         "voice: card 1 line 2: level 0x80, triggered 0x0, the simulated card has 0x8080"},
        {"nonsense:audio@10/1", "no difference"},
    };
    for (const auto& [fault, difference] : kRows) {
        run("$cardsim --cards 4,8 --traffic --seed 5 --virtual-time --seconds 9 --fault " + fault +
            " --record $files/trace -- $host 1 7");
        EXPECT_THAT(run("$cardtrace compare --as-real $files/trace").out,
                    ContainsRegex(difference));
        EXPECT_EQ(run("$cardtrace compare $files/trace").status, 0) << "that the fault was ordered";
    }
    run("$cardsim --virtual-time --seconds 9 --fault silent@4+ --record $files/trace -- $host 1 7");
    EXPECT_THAT(run("$cardtrace show --summary $files/trace").out,
                ContainsRegex("nothing from 1\\.[0-9]* s on, at [0-9]+ looks\n.*\n    see \"no "
                              "lines and no audio from a card"));
    EXPECT_THAT(run("$cardtrace compare --strict undefined-bits --as-real $files/trace").out,
                HasSubstr("undefined-bits: card 0 status answered"));
}

TEST_F(Trace, OfAHostThatWasHeldUpBlamesNoCardAndCountsWhatWasMissed) {
    run("$cardsim --cards 4,8 --traffic --seed 3 --seconds 8 --report $files/report --record "
        "$files/trace -- sh -c '$main & for i in 1.6 2.1; do sleep 1.3; kill -STOP $!; sleep $i; "
        "kill -CONT $!; done; wait'");
    EXPECT_THAT(run("$cardtrace compare --as-real $files/trace"),
                FieldsAre(0, HasSubstr("\nno difference\n"), ""));
    const json seen = json::parse(contentOf(folder / "report")), told = summary();
    for (const int card : {0, 1}) {
        EXPECT_GT(seen["cards"][card]["missed"], 1);
        EXPECT_EQ(told["cards"][card]["missed"], seen["cards"][card]["missed"]);
    }
    EXPECT_EQ(told["advice"][0]["message"], "Missed Xfer ");
}

TEST_F(Trace, NamesWhereAnotherHostDoesSomethingElse) {
    const std::tuple<std::string, std::string, std::string> kRows[] = {
        {"ask data data", "ask data", "ended after 1 of 2 accesses"},
        {"ask data", "ask data data", "to the end, 1 of 1 accesses"},
        {"ask run data", "ask data", "reads port 0x300, 16 bits, where the trace goes on"},
        {"ask data", "ask run", "writes 0x1A to port 0x302, 16 bits, where the trace"},
        {"ask data", "device", "reads port 0x300, 8 bits, through /dev/port, where"},
        {"ask data run data; $user B ask data fork data",
         "ask data run data; $user B ask data fork data",
         "to the end, 5 of 5 accesses, 0 deviations"},
        {"ask device memory", "ask device", "to the end, 1 of 1 accesses, 0 deviations"},
    };
    for (const auto& [recorded, steps, message] : kRows) {
        run("$cardsim --record $files/trace -- sh -c '$user A " + recorded + "'");
        EXPECT_EQ(run("$cardtrace compare $files/trace").status, 0) << recorded;
        const Answer replayed =
            run("$cardsim --replay $files/trace -- sh -c '$user A " + steps + "'");
        EXPECT_THAT(replayed.err, HasSubstr(message)) << steps;
    }
    recordLockUp();
    const auto replayWith = [this](const std::string& host) {
        return run("$cardsim --replay $files/trace --virtual-time -- " + host);
    };
    EXPECT_THAT(replayWith("$host 2 7").err,
                HasSubstr("has written 0x2 and not 0x1 to byte 0x1008 of the memory of card 0, "
                          "word 2 of the command, where the trace goes on with record "));
    EXPECT_THAT(replayWith("$host 1 8").err, HasSubstr("word 0 of the audio to be played"));
    EXPECT_EQ(replayWith("$main").status, 125);
}

TEST_F(Trace, LeavesOutWhatItMustNotTell) {
    recordLockUp("--audio pleasant");
    const std::uintmax_t length = fs::file_size(folder / "trace");
    const auto numbers =
        run("$cardtrace show $files/trace | grep -o 'caller 0191[0-9]*' | sort -u").out;
    ASSERT_THAT(numbers, HasSubstr("caller 0191"));
    run("cp $files/trace $files/whole");
    recordLockUp("--audio pleasant --without-audio --without-numbers");
    EXPECT_LT(fs::file_size(folder / "trace"), length / 2);
    const std::string bare = run("$cardtrace show --kind transfers $files/trace").out;
    EXPECT_NE(bare.find("caller ***"), std::string::npos);
    EXPECT_THAT(bare.substr(0, 60'000), Not(ContainsRegex("(caller|digits) [0-9]")));
    const json told = summary(), before = summary("$files/whole");
    EXPECT_EQ(told["about"]["configuration"], nullptr);
    for (const int card : {0, 1}) {
        EXPECT_EQ(told["cards"][card], before["cards"][card]);
    }
    EXPECT_THAT(run("$cardtrace compare $files/trace").out, HasSubstr("  counter: 7\nharmless"));
    recordLockUp("--without-audio");
    EXPECT_EQ(run("$cardtrace compare $files/trace").status, 0) << "checksums are compared";
}

TEST_F(Trace, IsCompleteUpToTheMomentAtWhichTheProgramIsKilled) {
    run("$cardsim --record $files/trace -- $user A ask data run data abort");
    EXPECT_THAT(run("$cardtrace show $files/trace").out,
                AllOf(HasSubstr("echoes 0x00 as 0xFF"), HasSubstr("exit status 134")));
    // What it leaves behind belongs to it.
    EXPECT_EQ(run("$cardsim --record $files/trace -- sh -c '{ sleep 0.3; $user B ask data; } & "
                  "exit 3'")
                  .status,
              3);
    EXPECT_THAT(run("$cardtrace show $files/trace").out,
                AllOf(HasSubstr("echoes 0x00: right"), HasSubstr("exit status 3")));
    // And the launcher: then what it had still to write is missing, a second at most.
    run("mkfifo $files/go; $cardsim --record $files/trace -- $user A ask data run data hold "
        "<$files/go & "
        "exec 3>$files/go; sleep 1.5; kill -KILL $!; wait; exec 3>&-");
    EXPECT_THAT(run("$cardtrace show $files/trace"),
                FieldsAre(0, AllOf(HasSubstr("echoes 0x00 as 0xFF"), Not(HasSubstr("exit"))), ""));
    EXPECT_FALSE(summary()["whole"]);
}

TEST_F(Trace, KeepsTheLastWhenItIsBoundedAndSaysThatItBeginsLate) {
    const Answer recorded =
        run("$cardsim --cards 8 --virtual-time --seconds 400 --record $files/trace --last 2MB -- "
            "$main");
    EXPECT_EQ(recorded.status, 0);
    EXPECT_LE(fs::file_size(folder / "trace"), 2'000'000u);
    EXPECT_GT(summary()["records"], 1000);
    EXPECT_THAT(run("$cardtrace show $files/trace | tail -1").out, HasSubstr("exit status 0"));
    EXPECT_THAT(run("$cardtrace compare $files/trace"),
                FieldsAre(4, _, HasSubstr("the beginning of the trace is missing")));
    EXPECT_THAT(run("$cardsim --replay $files/trace -- $main"),
                FieldsAre(1, _, HasSubstr("the beginning of the trace is missing")));
}

TEST_F(Trace, OfRealPortsWithholdsPermissionAndMakesTheAccessesItself) {
    // The PC is a simulated one, in real time: its clock does not see who drives the cards.
    const Answer recorded =
        run("$cardsim --cards 4,8 --traffic --seed 2 --period-ms 300 --seconds 6 --report "
            "$files/report "
            "-- $cardtrace record -o $files/trace -- sh -c '$main & sleep 2; $user B ask; wait'");
    EXPECT_EQ(recorded.status, 0) << recorded.err;
    const json seen = json::parse(contentOf(folder / "report")), told = summary();
    EXPECT_EQ(told["about"]["cards"], "real");
    for (const int card : {0, 1}) {
        EXPECT_EQ(told["cards"][card]["givenBack"], seen["cards"][card]["served"]);
        EXPECT_EQ(told["cards"][card]["missed"], 0);
        EXPECT_GT(told["cards"][card]["givenBack"], 10);
    }
    EXPECT_THAT(run("$cardtrace show $files/trace").out,
                AllOf(HasSubstr("permission for ports 0x300 to 0x31F\n"),
                      Not(ContainsRegex("has the cards\n.*has the cards\n")),
                      HasSubstr("memory locked"), HasSubstr("memory mapped, 0xD0000 to 0xD3FFF"),
                      HasSubstr("boot bytes 1 to 768 of CODE4.BIN")));
    EXPECT_EQ(run("$cardtrace compare $files/trace").status, 0);
    EXPECT_THAT(run("$cardsim --replay $files/trace --virtual-time -- $main").err,
                HasSubstr("0 deviations"));
    // No way leads past the recorder either.
    EXPECT_THAT(
        run("$cardsim -- $cardtrace record -o $files/trace -- " EVERY_WAY " $files " STATIC_USER),
        FieldsAre(0, "", ContainsRegex("cardtrace: process [0-9]+ may not splice ")));
    // A program without permission still dies of the fault.
    EXPECT_EQ(run("$cardsim -- $cardtrace record -o $files/trace -- $user A data").status, 139);
    // On a machine without ports, or without the right to them, it is told the kernel's own answer.
    EXPECT_THAT(
        run("setpriv --bounding-set=-sys_rawio $cardtrace record -o $files/trace -- $user A ask")
            .out,
        ContainsRegex("A ask E(PERM|NOSYS)"));
}

TEST_F(Trace, IsShownAsFarAsItIsAskedFor) {
    const auto show = [this](const std::string& options) {
        std::istringstream out(run("$cardtrace show " + options + " " SAMPLE).out);
        std::vector<std::string> lines;
        for (std::string line; std::getline(out, line);) {
            lines.push_back(line);
        }
        return lines;
    };
    EXPECT_THAT(
        show("--card 1 --kind transfers --from 3 --to 4"),
        AllOf(SizeIs(10), Each(ContainsRegex("^    3\\.[0-9]+  card 1 (hands over|gets) "))));
    // Each record but the buffers, which complete other lines, has a line.
    std::set<std::uint64_t> records;
    for (const std::string& line : show("--all --json")) {
        records.insert(json::parse(line)["record"].get<std::uint64_t>());
    }
    EXPECT_EQ(records.size(), 27842u - 173u);
    std::uint64_t bytes = 0;
    for (const std::string& line : show("--json --kind boot --card 0")) {
        const json told = json::parse(line);
        EXPECT_EQ(told["card"], 0);
        EXPECT_EQ(told["kind"], "boot");
        bytes += told["text"].get<std::string>().find(" of VECT4.BIN,") != std::string::npos
                     ? told["times"].get<std::uint64_t>()
                     : 0;
    }
    EXPECT_EQ(bytes, 2 * 128u) << "two boots";
}

TEST_F(Trace, RefusesWrongUsageAndWhatIsNoTrace) {
    std::ofstream(folder / "data") << "no trace\n";
    const std::tuple<std::string, int, std::string> kRows[] = {
        {"$cardtrace", 2, "subcommand is required"},
        {"$cardtrace record -o $files/x", 2, "no program given"},
        {"$cardtrace record -o $files/no/x -- true", 1, "cannot write"},
        {"$cardtrace record -o $files/x -- $files/none", 127, "cannot start"},
        {"cp " SAMPLE
         " $files/x; $cardtrace record -o $files/x -- no-such-program; cmp $files/x " SAMPLE,
         0, "cannot start"},
        {"cp $cardtrace $user $files; chmod 755 $files; chmod 4755 $files/card_user; setpriv "
         "--reuid=65534 --clear-groups $files/cardtrace record -o $files/y -- $files/card_user A",
         126, "its file gives it rights of its own"},
        {"$cardtrace record -o $files/x -- sh -c 'exit 3'", 3, "never touched ports or devices"},
        {"$cardtrace record -o $files/x --last 1KB -- true", 2, "--last"},
        {"$cardtrace show", 2, "FILE is required"},
        {"$cardtrace show --kind noise $files/data", 2, "--kind"},
        {"$cardtrace show --summary --card 1 " SAMPLE, 2, "--summary excludes --card"},
        {"$cardtrace show " SAMPLE " >/dev/full", 1, "standard output"},
        {"$cardtrace compare $files/none", 3, "No such file"},
        {"$cardtrace show $files/data", 3, "data: is no trace"},
        {"$cardtrace show $files", 3, "is no file"},
        {"$cardtrace compare $files/data", 3, "is no trace"},
        {"$cardtrace compare $files/x", 4, "there is no access to a card"},
        {"$cardsim --replay $files/data -- true", 1, "is no trace"},
        {"$cardsim --replay $files/data --cards 4 -- true", 2, "--cards excludes --replay"},
        {"$cardsim --record /dev/full -- true", 1, "cannot write /dev/full: No space left"},
        {"$cardsim --without-audio -- true", 2, "--without-audio requires --record"},
    };
    for (const auto& [command, status, message] : kRows) {
        const Answer answer = run(command);
        EXPECT_EQ(answer.status, status) << command;
        EXPECT_THAT(answer.err, HasSubstr(message)) << command;
    }
}

}  // namespace
