// What happens on the lines: scenario files and the text form of faults, and traffic.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <tuple>

#include "Host.h"
#include "model/Traffic.h"
#include "scenario/FaultSyntax.h"
#include "scenario/ScenarioFile.h"

namespace {

using namespace cardsim;
using testing::AllOf;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

// What an action throws that refuses something for that reason.
template <class Matcher>
auto complains(Matcher reason) {
    return testing::ThrowsMessage<std::exception>(reason);
}

std::string pageOf(const std::string& document) {
    std::stringstream page;
    page << std::ifstream(PROJECT_FOLDER "/" + document).rdbuf();
    return page.str();
}

class ScenarioFile : public testing::Test {
  protected:
    ~ScenarioFile() override { std::filesystem::remove(path); }

    std::vector<ScenarioEvent> read(const std::string& text) {
        std::ofstream(path) << text;
        return readScenario(path);
    }

    const std::string path = testing::TempDir() + "scenario-" + std::to_string(getpid()) + ".toml";
};

TEST_F(ScenarioFile, HappensToTheLinesInDueTime) {
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
    host.boot(0x310);  // so early that the fault does not count it
    planScenario(host.cards, events);
    std::vector<std::string> seen;
    for (int second = 0; second < 8; ++second) {
        host.wait(second == 0 ? 999 : 1000);
        seen.emplace_back();
        for (const int number : {0, 1, 2, 3, 5}) {
            Line& line = host.cards.line(number);
            seen.back() += line.isRinging() ? "R" : "";
            seen.back() += line.isOffHook() ? "O" : "";
            seen.back() += line.isSpeaking() ? "S" : "";
            seen.back() += line.takeCaller(49) + line.takeDigits(29) + ",";
        }
    }
    EXPECT_THAT(seen, ElementsAre(",,,,,", "OSx456,R,O,S,,", "OS,R,O,S,R,", ",R,O,S,R0191 498,",
                                  ",,,7,OS5#,", ",,,,OS,", ",,,,OS,", ",,,,,"));
    EXPECT_EQ(0x7FFF, host.cards.line(11).level());
    host.boot(0x300);
    host.boot(0x310);
    host.wait(450);
    EXPECT_EQ(1, host.in(0x302) & 1);
    EXPECT_EQ(0, host.in(0x312) & 1);
}

TEST_F(ScenarioFile, SaysWhereAndWhyItCannotBeUnderstood) {
    const std::string begin = "[[event]]\nat = ";
    const std::string end = "\nline = 0\ndo = \"ring\"\n";
    const std::string start = begin + "1\nline = 0\ndo = ";
    const std::tuple<std::string, int, const char*> kRows[] = {
        {begin + "1\nline = \n", 3, "value"},
        {"\n[event]\nat = 1\n", 2, "only [[event]] tables"},
        {begin + "1" + end + "[[evnet]]\n", 5, "\"evnet\""},
        {"\n[[event]]" + end, 2, "at is missing"},
        {begin + "-0.1" + end, 2, "at must be a time"},
        {begin + "nan" + end, 2, "at must be a time"},
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
        SCOPED_TRACE(text);
        const std::string place = path + ":" + std::to_string(line) + ": ";
        EXPECT_THAT(([this, &wrong = text] { read(wrong); }),
                    complains(AllOf(StartsWith(place), HasSubstr(reason))));
    }
    EXPECT_THAT([] { readScenario("/no/file"); }, complains("/no/file: No such file or directory"));
    EXPECT_THAT([] { readScenario("/"); }, complains("/: Is a directory"));
    // It may also not fit the cards.
    const auto events = read(begin + "1\nline = 8\ndo = \"ring\"\n");
    EXPECT_NO_THROW(checkScenario(events, {8, 4}));
    EXPECT_THAT(
        [&] {
            checkScenario(events, {4, 4});
        },
        complains(path + ":1: there is no line 8, only lines 0 to 7"));
}

TEST_F(ScenarioFile, IsDocumentedWithExamplesThatFitTwoCards) {
    const std::string text = pageOf("docs/scenarios.md");
    const std::regex example("```toml\n([^`]*)```");
    int examples = 0;
    for (std::sregex_iterator it(text.begin(), text.end(), example), end; it != end; ++it) {
        const auto events = read((*it)[1]);
        EXPECT_GE(events.size(), 2u);
        EXPECT_NO_THROW(checkScenario(events, {4, 8}));
        ++examples;
    }
    EXPECT_EQ(3, examples);
}

TEST(FaultSyntax, ReadsKindFieldTimeAndCardOrSaysWhatIsWrong) {
    const auto parts = [](const Fault& fault) {
        const auto& [kind, card, first, last, probability, field] = fault;
        return std::tuple(kind, card, first, last, probability, field);
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
        EXPECT_EQ(parts(fault), parts(parseFault(text))) << text;
    }
    const std::pair<std::string, const char*> kWrong[] = {
        {"", "there is no kind of fault \"\", only absent, wrong-echo"},
        {"nonsense:mood", "there is no field \"mood\", only any, level"},
        {"absent:level", "fault \"absent:level\": only nonsense goes to a field"},
    };
    for (const auto& [text, reason] : kWrong) {
        EXPECT_THAT([&wrong = text] { parseFault(wrong); }, complains(HasSubstr(reason)));
    }
    for (const std::string when : {"@", "@0", "@0+", "@-1", "@+", "@3-2", "@1-", "@3x", "@%", "@0%",
                                   "@101%", "@nan%", "@99999999999999999999"}) {
        EXPECT_THAT([&] { parseFault("absent" + when); }, complains(HasSubstr("after @ must")));
    }
    for (const std::string card : {"/", "/2", "/-1", "/1 "}) {
        EXPECT_THAT([&] { parseFault("absent" + card); }, complains(HasSubstr("after / must")));
    }
}

TEST(FaultSyntax, IsDocumentedAsTheCodeDescribesIt) {
    std::string table = "|---|---|---|\n";
    std::string list = "when it strikes:\n";
    for (const FaultDescription& fault : kFaultDescriptions) {
        const std::string name = fault.name, opportunity = fault.opportunity, effect = fault.effect;
        table += "| `" + name + "` | " + opportunity + " | " + effect + " |\n";
        list += ".TP 18\n.B " + std::regex_replace(name, std::regex("-"), "\\-") + "\n" +
                opportunity + ":\n" + effect + "\n";
        EXPECT_EQ(fault.kind, parseFault(name).kind);
        EXPECT_THAT(faultHelp(),
                    AllOf(HasSubstr("\n  " + name + " "), HasSubstr(opportunity + ":\n"),
                          HasSubstr(" " + effect + "\n")));
    }
    EXPECT_THAT(pageOf("docs/scenarios.md"), HasSubstr(table + "\n"));
    EXPECT_THAT(pageOf("man/cardsim.1"), HasSubstr(list + ".PP\n"));
}

// What happens on each line, by tenths of a second: idle (.), ringing (R), off hook (T), speaking
// (S), each followed by the caller and the digits that came; digits may be the last of a call.
std::vector<std::string> watchTraffic(Host host, std::uint64_t seed, int seconds) {
    planTraffic(host.cards, seed);
    std::vector<std::string> stories(static_cast<std::size_t>(host.cards.lines()));
    for (int passed = 0; passed < 10 * seconds; ++passed) {
        host.wait(100);
        for (std::size_t number = 0; number < stories.size(); ++number) {
            Line& line = host.cards.line(static_cast<int>(number));
            const char onHook = line.isRinging() ? 'R' : line.isSpeaking() ? '!' : '.';
            stories[number] += line.isOffHook() ? line.isSpeaking() ? 'S' : 'T' : onHook;
            stories[number] += line.takeCaller(49) + line.takeDigits(29);
        }
    }
    return stories;
}

TEST(Traffic, IsSuchAsPeopleMake) {
    for (const std::string& story : watchTraffic(Host(4, 8), 5, 3600)) {
        const std::regex kPhase(
            "[.][0-9]*[.]{18,200}|R{4,6}01914980[0-9]{3}R{4,36}|[ST][ST0-9]{28,400}");
        // What stands between the phases: nothing, but for what the end cuts off.
        std::string rest;
        std::regex_replace(std::back_inserter(rest), story.begin(), story.end(), kPhase, "");
        EXPECT_THAT(rest, AnyOf("", story.substr(story.size() - rest.size())));
        const auto count = [&](const char* what) {
            const std::regex sought(what);
            return std::distance(std::sregex_iterator(story.begin(), story.end(), sought), {});
        };
        EXPECT_GE(count("[.][RT]"), 70);
        // Most calls that come are answered; the others go out and begin with a number.
        EXPECT_LT(count("RT"), count("[.]R"));
        EXPECT_GT(count("RT"), count("[.]R") * 3 / 4);
        EXPECT_GT(count("[.]T"), count("RT") / 4);
        EXPECT_EQ(count("[.]T"), count("[.]T{1,20}0T{1,2}1T{1,2}9"));
    }
}

TEST(Traffic, FollowsFromTheSeedAloneOnEachLine) {
    const auto first = watchTraffic(Host(4, 8), 9, 600);
    EXPECT_EQ(first, watchTraffic(Host(8, 4), 9, 600));
    EXPECT_NE(first[0], first[2]);
    EXPECT_NE(first[0], watchTraffic(Host(4, 8), 10, 600)[0]);
}

}  // namespace
