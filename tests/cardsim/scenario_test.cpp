// Scenario files and the text form of faults, from the text to what happens on the lines.
#include "model/Scenario.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

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
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

template <class Action>
std::string complaint(Action action) {
    try {
        action();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "none";
}

class Scenario : public testing::Test {
  protected:
    ~Scenario() override { std::filesystem::remove(path); }

    std::vector<ScenarioEvent> read(const std::string& text) {
        std::ofstream(path) << text;
        return cardsim::readScenario(path);
    }

    const std::string path = testing::TempDir() + "scenario-" + std::to_string(getpid()) + ".toml";
};

TEST_F(Scenario, HappensToTheLinesInDueTime) {
    const auto events = read(R"(
event = [ { at = 2.5, line = 5, do = "call", caller = "0191 498", ring = 2, digits = "5#", talk = 3.25 },
          { at = 1, line = 0, do = "call", digits = "456", talk = 2 },
          { at = 0.0015, line = 11, do = "level", level = 0x7FFF },
          { at = 1, line = 0, do = "caller", caller = "x" },
          { at = 1, line = 1, do = "ring" }, { at = 4, line = 1, do = "ring-end" },
          { at = 1, line = 2, do = "off-hook" }, { at = 4, line = 2, do = "on-hook" },
          { at = 1, line = 3, do = "speak" }, { at = 4, line = 3, do = "quiet" },
          { at = 4, line = 3, do = "digits", digits = "7" },
          { at = 2, fault = "dead-after-boot@1/1" } ]
)");
    EXPECT_EQ(1500u, events[0].time_us);
    EXPECT_EQ(path + ":4", events[0].origin);
    Host host(4, 8);
    cardsim::planScenario(host.cards, events);
    std::vector<std::string> seen;
    for (int second = 0; second < 8; ++second) {
        host.wait(second == 0 ? 999 : 1000);
        std::string states;
        for (const int number : {0, 1, 2, 3, 5}) {
            cardsim::Line& line = host.cards.line(number);
            states += line.isRinging() ? "R" : "";
            states += line.isOffHook() ? "O" : "";
            states += line.isSpeaking() ? "S" : "";
            states += line.takeCaller(49) + line.takeDigits(29) + ",";
        }
        seen.push_back(states);
    }
    EXPECT_THAT(seen, ElementsAre(",,,,,", "OSx456,R,O,S,,", "OS,R,O,S,R,", ",R,O,S,R0191 498,",
                                  ",,,7,OS5#,", ",,,,OS,", ",,,,OS,", ",,,,,"));
    EXPECT_EQ(0x7FFF, host.cards.line(11).level());
    host.boot(0x300);
    host.boot(0x310);
    host.wait(450);
    EXPECT_EQ(1u, host.report.cards[0].handOvers);
    EXPECT_EQ(0u, host.report.cards[1].handOvers);
}

TEST_F(Scenario, SaysWhereAndWhyItCannotBeUnderstood) {
    const std::string begin = "[[event]]\nat = ";
    const std::string end = "\nline = 0\ndo = \"ring\"\n";
    const std::string start = begin + "1\nline = 0\ndo = ";
    const std::tuple<std::string, int, const char*> kRows[] = {
        {begin + "1\nline = \n", 3, "value"},
        {"at = 1\n", 1, "only [[event]] tables"},
        {"\n[event]\nat = 1\n", 2, "only [[event]] tables"},
        {begin + "1" + end + "[[evnet]]\n", 5, "\"evnet\""},
        {"\n[[event]]" + end, 2, "at is missing"},
        {begin + "-0.1" + end, 2, "at must be a time"},
        {begin + "nan" + end, 2, "at must be a time"},
        {begin + "inf" + end, 2, "at must be a time"},
        {begin + "\"1\"" + end, 2, "at must be a time"},
        {begin + "1\nline = -1\n", 3, "line must be a whole number"},
        {begin + "1\nline = 0.5\n", 3, "line must be a whole number"},
        {begin + "1\nline = 0\n", 1, "do is missing"},
        {start + "\"sing\"\n", 4, "ring-end, caller"},
        {start + "\"ring\"\ncaller = \"1\"\n", 5, "\"caller\" does not belong"},
        {start + "\"digits\"\ndigits = \"12x\"\n", 5, "digits must be made of"},
        {start + "\"digits\"\ndigits = 12\n", 5, "digits must be a text"},
        {start + "\"caller\"\ncaller = \"" + std::string(50, '1') + "\"\n", 5, "to 49"},
        {start + "\"caller\"\ncaller = \"\\u00e4\"\n", 5, "1 to 49 plain"},
        {start + "\"level\"\nlevel = 0x8000\n", 5, "from 0 to 32767"},
        {start + "\"call\"\nring = 1\n", 1, "talk is missing"},
        {start + "\"call\"\ntalk = 1\ncaller = \"1\"\n", 6, "ring is missing"},
        {begin + "1\nline = 0\nfault = \"absent\"\n", 3, "\"line\" does not belong"},
        {begin + "1\nfault = \"absnt\"\n", 3, "no kind of fault \"absnt\""},
    };
    for (const auto& [text, line, reason] : kRows) {
        EXPECT_THAT(complaint([&text = text, this] { read(text); }),
                    AllOf(StartsWith(path + ":" + std::to_string(line) + ": "), HasSubstr(reason)))
            << text;
    }
    EXPECT_EQ("/no/file: No such file or directory",
              complaint([] { cardsim::readScenario("/no/file"); }));
    EXPECT_EQ("/: Is a directory", complaint([] { cardsim::readScenario("/"); }));
}

TEST_F(Scenario, IsCheckedAgainstTheCardsThatAreThere) {
    const std::string line = "[[event]]\nat = 1\nline = 8\ndo = \"ring\"\n";
    const std::string fault = "[[event]]\nat = 1\nfault = \"absent/1\"\n";
    const std::tuple<std::string, int, int, std::string> kRows[] = {
        {line, 8, 4, "none"},
        {line, 4, 4, path + ":1: there is no line 8, only lines 0 to 7"},
        {line, 0, 0, path + ":1: there is no line 8, because there is no card"},
        {fault, 0, 4, "none"},
        {fault, 8, 0, path + ":1: there is no card 1"},
    };
    for (const auto& [text, first, second, reason] : kRows) {
        const int channels[] = {first, second};
        const auto events = read(text);
        EXPECT_EQ(reason, complaint([&] { cardsim::checkScenario(events, channels); }));
    }
}

TEST_F(Scenario, IsDocumentedWithExamplesThatFitTwoCards) {
    std::stringstream page;
    page << std::ifstream(SCENARIO_PAGE).rdbuf();
    const std::string text = page.str();
    int examples = 0;
    for (std::size_t at = 0; (at = text.find("```toml\n", at)) != std::string::npos; ++examples) {
        at += 8;
        const auto events = read(text.substr(at, text.find("```", at) - at));
        EXPECT_GE(events.size(), 2u);
        EXPECT_NO_THROW(cardsim::checkScenario(events, {4, 8}));
    }
    EXPECT_EQ(3, examples);
}

TEST(FaultSyntax, ReadsKindFieldTimeAndCard) {
    const auto partsOf = [](const Fault& fault) {
        return std::tuple(fault.kind, fault.card, fault.first, fault.last, fault.probability,
                          fault.field);
    };
    const std::pair<const char*, Fault> kRows[] = {
        {"absent", {FaultKind::kAbsent}},
        {"byte-refused@57/1", {FaultKind::kByteRefused, 1, 57, 57}},
        {"dead-after-boot@2+/0", {FaultKind::kDeadAfterBoot, 0, 2}},
        {"counter-stuck@10-16", {FaultKind::kCounterStuck, -1, 10, 16}},
        {"taken-back@0.5%", {FaultKind::kTakenBack, -1, 1, Fault::kForEver, 0.005}},
        {"nonsense:off-hook@1", {FaultKind::kNonsense, -1, 1, 1, 1, FaultField::kOffHook}},
    };
    for (const auto& [text, fault] : kRows) {
        EXPECT_EQ(partsOf(fault), partsOf(parseFault(text))) << text;
    }
}

TEST(FaultSyntax, SaysWhatIsWrong) {
    const auto wrong = [](const std::string& text) {
        return complaint([&text] { parseFault(text); });
    };
    for (const std::string when : {"", "0", "0+", "-1", "+", "3-2", "1-", "3x", "%", "0%", "101%",
                                   "nan%", "99999999999999999999"}) {
        EXPECT_THAT(wrong("absent@" + when), HasSubstr("after @ must stand"));
    }
    for (const std::string card : {"", "2", "-1", "1 "}) {
        EXPECT_THAT(wrong("absent/" + card), HasSubstr("after / must stand"));
    }
    EXPECT_THAT(wrong(""), HasSubstr("there is no kind of fault \"\", only absent, wrong-echo"));
    EXPECT_THAT(wrong("nonsense:mood"), HasSubstr("there is no field \"mood\", only any, level"));
    EXPECT_EQ("fault \"absent:level\": only nonsense goes to a field", wrong("absent:level"));
}

}  // namespace
