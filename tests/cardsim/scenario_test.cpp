// Scenario files and the text form of faults, from the text to what happens on the lines.
#include "model/Scenario.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "Host.h"
#include "scenario/FaultSyntax.h"
#include "scenario/ScenarioFile.h"

namespace {

using cardsim::Fault;
using cardsim::FaultField;
using cardsim::FaultKind;
using cardsim::parseFault;
using cardsim::ScenarioEvent;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using Action = ScenarioEvent::Action;

class Scenario : public testing::Test {
  protected:
    ~Scenario() override { std::filesystem::remove(path); }

    std::vector<ScenarioEvent> read(const std::string& text) {
        std::ofstream(path) << text;
        return cardsim::readScenario(path);
    }
    // What the reader says about a bad text.
    std::string complaint(const std::string& text) {
        try {
            read(text);
        } catch (const cardsim::ScenarioError& error) {
            return error.what();
        }
        return "none";
    }

    const std::string path = testing::TempDir() + "scenario-" + std::to_string(getpid()) + ".toml";
};

std::string describe(const ScenarioEvent& event) {
    constexpr const char* kNames[] = {"ring",   "ring-end", "caller", "off-hook", "on-hook",
                                      "digits", "speak",    "quiet",  "level",    "fault"};
    std::string text = std::to_string(event.time_us / 1000) + " " + std::to_string(event.line) +
                       " " + kNames[static_cast<int>(event.action)];
    text += event.text.empty() ? "" : " " + event.text;
    return event.level == 0 ? text : text + " " + std::to_string(event.level);
}

TEST_F(Scenario, GivesEventsInTheOrderOfTheirTimes) {
    const std::vector<ScenarioEvent> events = read(R"(
# A call that comes, one that goes out, and single steps.
[[event]]
at = 2.5
line = 3
do = "call"
caller = "0191 498 0123"
ring = 2
digits = "5#"
talk = 3.25

[[event]]
at = 1
line = 0
do = "call"
digits = "01914980456"
talk = 2

[[event]]
at = 0.0015
line = 11
do = "level"
level = 0x7FFF

[[event]]
at = 1
line = 1
do = "ring"
)");
    std::vector<std::string> described;
    std::transform(events.begin(), events.end(), std::back_inserter(described), describe);
    EXPECT_EQ(described, (std::vector<std::string>{
                             "1 11 level 32767",
                             "1000 0 off-hook",
                             "1000 0 digits 01914980456",
                             "1000 0 speak",
                             "1000 1 ring",
                             "2500 3 ring",
                             "3000 3 caller 0191 498 0123",
                             "3000 0 quiet",
                             "3000 0 on-hook",
                             "4500 3 ring-end",
                             "4500 3 off-hook",
                             "4500 3 digits 5#",
                             "4500 3 speak",
                             "7750 3 quiet",
                             "7750 3 on-hook",
                         }));
    EXPECT_EQ(1500u, events[0].time_us);
    EXPECT_EQ(path + ":19", events[0].origin);
    EXPECT_TRUE(read("# nothing happens").empty());
}

TEST_F(Scenario, SaysWhereAndWhyItCannotBeUnderstood) {
    const std::string start = "[[event]]\nat = 1\nline = 0\n";
    struct Row {
        std::string text;
        int line;
        const char* reason;
    };
    for (const Row& row : {
             Row{"[[event]]\nat = 1\nline = \n", 3, "value"},
             Row{"[[event]\n", 1, ""},
             Row{"at = 1\n", 1, "only [[event]] tables"},
             Row{"\nevent = 3\n", 2, "only [[event]] tables"},
             Row{"[event]\nat = 1\n", 1, "only [[event]] tables"},
             Row{start + "do = \"ring\"\n[[evnet]]\n", 5, "\"evnet\""},
             Row{"\n[[event]]\nline = 0\ndo = \"ring\"\n", 2, "at is missing"},
             Row{"[[event]]\nat = -0.1\nline = 0\ndo = \"ring\"\n", 2, "at must be a time"},
             Row{"[[event]]\nat = nan\nline = 0\ndo = \"ring\"\n", 2, "at must be a time"},
             Row{"[[event]]\nat = inf\nline = 0\ndo = \"ring\"\n", 2, "at must be a time"},
             Row{"[[event]]\nat = \"1\"\nline = 0\ndo = \"ring\"\n", 2, "at must be a time"},
             Row{"[[event]]\nat = 1\ndo = \"ring\"\n", 1, "line is missing"},
             Row{"[[event]]\nat = 1\nline = -1\ndo = \"ring\"\n", 3, "line must be a whole number"},
             Row{"[[event]]\nat = 1\nline = 0.5\ndo = \"ring\"\n", 3,
                 "line must be a whole number"},
             Row{start, 1, "do is missing"},
             Row{start + "do = \"sing\"\n", 4, "ring-end, caller"},
             Row{start + "do = 3\n", 4, "do must be a text"},
             Row{start + "do = \"ring\"\ncaller = \"1\"\n", 5, "\"caller\" does not belong"},
             Row{start + "do = \"ring\"\nfault = \"absent\"\n", 4, "\"do\" does not belong"},
             Row{start + "do = \"digits\"\n", 1, "digits is missing"},
             Row{start + "do = \"digits\"\ndigits = \"12x\"\n", 5, "digits must be made of"},
             Row{start + "do = \"digits\"\ndigits = \"\"\n", 5, "digits must be made of"},
             Row{start + "do = \"digits\"\ndigits = 12\n", 5, "digits must be a text"},
             Row{start + "do = \"caller\"\ncaller = \"" + std::string(50, '1') + "\"\n", 5,
                 "1 to 49"},
             Row{start + "do = \"caller\"\ncaller = \"\\u00e4\"\n", 5, "1 to 49"},
             Row{start + "do = \"level\"\nlevel = 0x8000\n", 5, "from 0 to 32767"},
             Row{start + "do = \"call\"\nring = 1\n", 1, "talk is missing"},
             Row{start + "do = \"call\"\ntalk = 1\ncaller = \"1\"\n", 6, "ring is missing"},
             Row{"[[event]]\nat = 1\nfault = \"absnt\"\n", 3,
                 "there is no kind of fault \"absnt\""},
             Row{"[[event]]\nat = 1\nfault = 1\n", 3, "fault must be a text"},
         }) {
        EXPECT_THAT(
            complaint(row.text),
            AllOf(StartsWith(path + ":" + std::to_string(row.line) + ": "), HasSubstr(row.reason)))
            << row.text;
    }
}

TEST_F(Scenario, NamesAFileThatCannotBeRead) {
    const auto complaintAbout = [](const std::string& file) {
        try {
            cardsim::readScenario(file);
        } catch (const cardsim::ScenarioError& error) {
            return std::string(error.what());
        }
        return std::string("none");
    };
    EXPECT_EQ("/nowhere/at-all.toml: No such file or directory",
              complaintAbout("/nowhere/at-all.toml"));
    EXPECT_EQ("/: Is a directory", complaintAbout("/"));
}

TEST_F(Scenario, IsCheckedAgainstTheCardsThatAreThere) {
    const auto complaintFor = [](const std::vector<ScenarioEvent>& events, int first, int second) {
        try {
            cardsim::checkScenario(events, {first, second});
        } catch (const std::invalid_argument& error) {
            return std::string(error.what());
        }
        return std::string("fits");
    };
    const auto events = read("[[event]]\nat = 1\nline = 8\ndo = \"ring\"\n");
    EXPECT_EQ("fits", complaintFor(events, 8, 4));
    EXPECT_EQ(path + ":1: there is no line 8, only lines 0 to 7", complaintFor(events, 4, 4));
    EXPECT_EQ(path + ":1: there is no line 8, because there is no card",
              complaintFor(events, 0, 0));
    const auto fault = read("[[event]]\nat = 1\nfault = \"absent/1\"\n");
    EXPECT_EQ("fits", complaintFor(fault, 0, 4));
    EXPECT_EQ(path + ":1: there is no card 1", complaintFor(fault, 8, 0));
    ScenarioEvent handMade;
    handMade.line = 4;
    EXPECT_EQ("there is no line 4, only lines 0 to 3", complaintFor({handMade}, 4, 0));
}

TEST_F(Scenario, HappensToTheLinesInDueTime) {
    Host host(4, 8);
    cardsim::planScenario(host.cards, read(R"(
[[event]]
at = 1
line = 5
do = "call"
caller = "0191 498 0123"
ring = 2
digits = "5"
talk = 3
[[event]]
at = 2
line = 0
do = "level"
level = 77
[[event]]
at = 2
fault = "dead-after-boot@1/1"
)"));
    cardsim::Line& line = host.cards.card(1).line(1);
    const auto state = [&line] {
        return std::string(line.isRinging() ? "R" : "-") + (line.isOffHook() ? "O" : "-") +
               (line.isSpeaking() ? "S" : "-") + line.takeCaller(49) + line.takeDigits(29);
    };
    std::vector<std::string> states;
    for (int second = 0; second < 7; ++second) {
        states.push_back(state());
        host.wait(1000);
    }
    EXPECT_THAT(states, testing::ElementsAre("---", "R--", "R--0191 498 0123", "-OS5", "-OS", "-OS",
                                             "---"));
    EXPECT_EQ(77, host.cards.line(0).level());
    host.boot(0x300);
    host.boot(0x310);
    host.wait(450);
    EXPECT_EQ(1u, host.report.cards[0].handOvers);
    EXPECT_EQ(0u, host.report.cards[1].handOvers);
}

TEST_F(Scenario, IsDocumentedWithExamplesThatFitTwoCards) {
    std::ifstream page(SCENARIO_PAGE);
    std::string line;
    std::string example;
    std::size_t examples = 0;
    bool inside = false;
    while (std::getline(page, line)) {
        if (inside && line == "```") {
            const std::vector<ScenarioEvent> events = read(example);
            EXPECT_GE(events.size(), 2u);
            EXPECT_NO_THROW(cardsim::checkScenario(events, {4, 8}));
            ++examples;
            example.clear();
        }
        inside = inside ? line != "```" : line == "```toml";
        example += inside && line != "```toml" ? line + "\n" : "";
    }
    EXPECT_EQ(3u, examples);
}

TEST(FaultSyntax, ReadsEveryKindFieldAndTime) {
    struct Row {
        const char* text;
        Fault fault;
    };
    constexpr std::uint64_t kForEver = Fault::kForEver;
    for (const Row& row : {
             Row{"absent", {FaultKind::kAbsent}},
             Row{"wrong-echo@3", {FaultKind::kWrongEcho, -1, 3, 3}},
             Row{"byte-refused@57/1", {FaultKind::kByteRefused, 1, 57, 57}},
             Row{"byte-stuck/0", {FaultKind::kByteStuck, 0}},
             Row{"dead-after-boot@2+", {FaultKind::kDeadAfterBoot, -1, 2, kForEver}},
             Row{"counter-stuck@10-16", {FaultKind::kCounterStuck, -1, 10, 16}},
             Row{"counter-jump@2%", {FaultKind::kCounterJump, -1, 1, kForEver, 0.02}},
             Row{"taken-back@0.5%/1", {FaultKind::kTakenBack, 1, 1, kForEver, 0.005}},
             Row{"both-buffers@100%", {FaultKind::kBothBuffers}},
             Row{"nonsense", {FaultKind::kNonsense}},
             Row{"nonsense:off-hook@1", {FaultKind::kNonsense, -1, 1, 1, 1, FaultField::kOffHook}},
         }) {
        const Fault fault = parseFault(row.text);
        EXPECT_EQ(row.fault.kind, fault.kind) << row.text;
        EXPECT_EQ(row.fault.card, fault.card) << row.text;
        EXPECT_EQ(row.fault.first, fault.first) << row.text;
        EXPECT_EQ(row.fault.last, fault.last) << row.text;
        EXPECT_DOUBLE_EQ(row.fault.probability, fault.probability) << row.text;
        EXPECT_EQ(row.fault.field, fault.field) << row.text;
    }
}

TEST(FaultSyntax, SaysWhatIsWrong) {
    const auto complaint = [](const std::string& text) {
        try {
            parseFault(text);
        } catch (const std::invalid_argument& error) {
            return std::string(error.what());
        }
        return std::string("none");
    };
    for (const char* const when : {"", "0", "0+", "-1", "+", "x", "3-2", "1-", "3x", "%", "0%",
                                   "101%", "nan%", "99999999999999999999"}) {
        EXPECT_THAT(complaint("absent@" + std::string(when)), HasSubstr("after @ must stand"));
    }
    for (const char* const card : {"", "2", "-1", "one", "1 "}) {
        EXPECT_THAT(complaint("absent/" + std::string(card)), HasSubstr("after / must stand"));
    }
    EXPECT_THAT(complaint(""),
                HasSubstr("there is no kind of fault \"\", only absent, wrong-echo"));
    EXPECT_THAT(complaint("nonsense:mood"),
                HasSubstr("there is no field \"mood\", only any, level"));
    EXPECT_EQ("fault \"absent:level\": only nonsense goes to a field", complaint("absent:level"));
}

// Each name that the help gives is one that can be used.
TEST(FaultSyntax, IsToldInTheHelp) {
    std::istringstream help(cardsim::faultHelp());
    std::string line;
    int kinds = 0;
    while (std::getline(help, line) && line.compare(0, 5, "FIELD") != 0) {
        if (line.compare(0, 2, "  ") == 0) {
            EXPECT_NO_THROW(parseFault(line.substr(2, line.find(' ', 2) - 2))) << line;
            ++kinds;
        }
    }
    EXPECT_EQ(cardsim::kNumFaultKinds, kinds);
}

}  // namespace
