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
using testing::HasSubstr;
using testing::StartsWith;

// What an action throws that refuses something, with what the reason begins and what is in it.
auto complains(const std::string& start, const std::string& reason = "") {
    return testing::ThrowsMessage<std::invalid_argument>(
        AllOf(StartsWith(start), HasSubstr(reason)));
}

std::string contentOf(const std::string& document) {
    std::stringstream content;
    content << std::ifstream(PROJECT_FOLDER "/" + document).rdbuf();
    return content.str();
}

// What happens on each line, step by step: idle (.), ringing (R), speech on hook (!), off hook (T),
// speech (S), each followed by the caller and the digits that came.
std::vector<std::string> watch(Host& host, int steps, int step_ms) {
    std::vector<std::string> stories(static_cast<std::size_t>(host.cards.lines()));
    for (int step = 0; step < steps; ++step) {
        host.wait(step_ms);
        for (std::size_t number = 0; number < stories.size(); ++number) {
            Line& line = host.cards.line(static_cast<int>(number));
            const char onHook = line.isRinging() ? 'R' : line.isSpeaking() ? '!' : '.';
            stories[number] += line.isOffHook() ? line.isSpeaking() ? 'S' : 'T' : onHook;
            stories[number] += line.takeCaller(49) + line.takeDigits(29);
        }
    }
    return stories;
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
    const auto stories = watch(host, 16, 500);
    EXPECT_EQ(".Sx456SSS...........", stories[0]);
    EXPECT_EQ(".RRRRRR.........", stories[1]);
    EXPECT_EQ(".TTTTTT.........", stories[2]);
    EXPECT_EQ(".!!!!!!.7........", stories[3]);
    EXPECT_EQ("....RR0191 498RRS5#SSSSSS.", stories[5]);
    EXPECT_EQ(0x7FFF, host.cards.line(11).level());
    host.boot(0x300);
    host.boot(0x310);
    host.wait(450);
    EXPECT_EQ(1, host.in(0x302) & 1);
    EXPECT_EQ(0, host.in(0x312) & 1);
}

TEST_F(ScenarioFile, SaysWhereAndWhyItCannotBeUnderstood) {
    const std::string begin = "[[event]]\nat = ", end = "\nline = 0\ndo = \"ring\"\n";
    const std::string start = begin + "1\nline = 0\ndo = ";
    const auto refuses = [this](const std::string& text, int line, const std::string& reason) {
        EXPECT_THAT([&] { read(text); },
                    complains(path + ":" + std::to_string(line) + ": ", reason));
    };
    refuses(begin + "1\nline = \n", 3, "value");
    refuses("\n[event]\nat = 1\n", 2, "only [[event]] tables");
    refuses(begin + "1" + end + "[[evnet]]\n", 5, "\"evnet\"");
    refuses("\n[[event]]" + end, 2, "at is missing");
    refuses(begin + "-0.1" + end, 2, "at must be a time");
    refuses(begin + "nan" + end, 2, "at must be a time");
    refuses(begin + "\"1\"" + end, 2, "at must be a time");
    refuses(begin + "1\nline = -1\n", 3, "line must be a whole number");
    refuses(begin + "1\nline = 0.5\n", 3, "line must be a whole number");
    refuses(start + "\"sing\"\n", 4, "ring-end, caller");
    refuses(start + "\"ring\"\ncaller = \"1\"\n", 5, "\"caller\" does not belong");
    refuses(start + "\"digits\"\ndigits = \"12x\"\n", 5, "digits must be made of");
    refuses(start + "\"digits\"\ndigits = 12\n", 5, "digits must be a text");
    refuses(start + "\"caller\"\ncaller = \"" + std::string(50, '1') + "\"\n", 5, "to 49");
    refuses(start + "\"caller\"\ncaller = \"\\u00e4\"\n", 5, "1 to 49 plain");
    refuses(start + "\"level\"\nlevel = 0x8000\n", 5, "from 0 to 32767");
    refuses(start + "\"call\"\ntalk = 1\ncaller = \"1\"\n", 6, "ring is missing");
    refuses(begin + "1\nline = 0\nfault = \"absent\"\n", 3, "\"line\" does not belong");
    refuses(begin + "1\nfault = \"absnt\"\n", 3, "no kind of fault \"absnt\"");
    EXPECT_THAT([] { readScenario("/no/file"); }, complains("/no/file: No such file"));
    EXPECT_THAT([] { readScenario("/"); }, complains("/: Is a directory"));
    // It may also not fit the cards.
    const auto events = read(begin + "1\nline = 8\ndo = \"ring\"\n");
    const auto check = [&](int channels1) { checkScenario(events, {4, channels1}); };
    EXPECT_NO_THROW(check(8));
    EXPECT_THAT([&] { check(4); }, complains(path + ":1: there is no line 8, only lines 0 to 7"));
}

TEST(FaultSyntax, ReadsKindFieldTimeAndCardOrSaysWhatIsWrong) {
    const std::tuple<const char*, FaultKind, int, std::uint64_t, std::uint64_t> kRows[] = {
        {"absent", FaultKind::kAbsent, -1, 1, Fault::kForEver},
        {"byte-refused@57/1", FaultKind::kByteRefused, 1, 57, 57},
        {"dead-after-boot@2+/0", FaultKind::kDeadAfterBoot, 0, 2, Fault::kForEver},
        {"counter-stuck@10-16", FaultKind::kCounterStuck, -1, 10, 16},
    };
    for (const auto& row : kRows) {
        const Fault fault = parseFault(std::get<0>(row));
        EXPECT_EQ(row,
                  std::tuple(std::get<0>(row), fault.kind, fault.card, fault.first, fault.last));
    }
    EXPECT_EQ(0.005, parseFault("taken-back@0.5%").probability);
    EXPECT_EQ(FaultField::kOffHook, parseFault("nonsense:off-hook@1").field);
    const auto refuses = [](const std::string& text, const std::string& reason) {
        EXPECT_THAT([&] { parseFault(text); }, complains("fault \"" + text + "\": " + reason));
    };
    refuses("", "there is no kind of fault \"\", only absent, wrong-echo");
    refuses("nonsense:mood", "there is no field \"mood\", only any, level");
    refuses("absent:level", "only nonsense goes to a field");
    for (const char* when : {"", "0", "0+", "-1", "+", "3-2", "1-", "3x", "%", "0%", "101%", "nan%",
                             "99999999999999999999"}) {
        refuses(std::string("absent@") + when, "after @ must");
    }
    for (const char* card : {"", "2", "-1", "1 "}) {
        refuses(std::string("absent/") + card, "after / must");
    }
}

TEST_F(ScenarioFile, IsDocumentedWithExamplesForTwoCardsAndFaultsAsTheCodeDescribesThem) {
    const std::string text = contentOf("docs/scenarios.md");
    const std::regex example("```toml\n([^`]*)```");
    const std::sregex_iterator first(text.begin(), text.end(), example), end;
    EXPECT_EQ(3, std::distance(first, end));
    for (auto found = first; found != end; ++found) {
        const auto events = read((*found)[1]);
        EXPECT_GE(events.size(), 2u);
        EXPECT_NO_THROW(checkScenario(events, {4, 8}));
    }
    std::ostringstream table, list;
    for (const auto& [kind, name, opportunity, effect] : kFaultDescriptions) {
        table << "| `" << name << "` | " << opportunity << " | " << effect << " |\n";
        list << ".TP 18\n.B " << std::regex_replace(name, std::regex("-"), "\\-") << "\n"
             << opportunity << ":\n"
             << effect << "\n";
        EXPECT_EQ(kind, parseFault(name).kind);
        EXPECT_THAT(faultHelp(), AllOf(HasSubstr(name), HasSubstr(opportunity), HasSubstr(effect)));
    }
    EXPECT_THAT(text, HasSubstr("|---|---|---|\n" + table.str() + "\n"));
    EXPECT_THAT(contentOf("man/cardsim.1"), HasSubstr("when it strikes:\n" + list.str() + ".PP\n"));
}

TEST(Traffic, IsSuchAsPeopleMakeAndFollowsFromTheSeedAloneOnEachLine) {
    const auto storiesOf = [](int channels0, int channels1, std::uint64_t seed) {
        Host host(channels0, channels1);
        planTraffic(host.cards, seed);
        return watch(host, 36'000, 100);
    };
    const auto stories = storiesOf(4, 8, 5);
    for (const std::string& story : stories) {
        // What stands between idling, ringing and talking: nothing, but for what the end cuts off.
        const std::regex phase(
            "[.][0-9]*[.]{18,200}|R{4,6}01914980[0-9]{3}R{4,36}|[ST][ST0-9]{28,400}");
        const std::string rest = std::regex_replace(story, phase, "");
        EXPECT_EQ(rest, story.substr(story.size() - rest.size()));
        const auto count = [&](const char* what) {
            const std::regex sought(what);
            return std::distance(std::sregex_iterator(story.begin(), story.end(), sought), {});
        };
        // Most calls that come are answered; the others go out and begin with a number.
        EXPECT_LT(count("RT"), count("[.]R"));
        EXPECT_GT(count("RT"), count("[.]R") * 3 / 4);
        EXPECT_GT(count("[.]T"), 15);
        EXPECT_EQ(count("[.]T"), count("[.]T{1,20}0T{1,2}1T{1,2}9"));
    }
    EXPECT_EQ(stories, storiesOf(8, 4, 5));
    EXPECT_NE(stories[0], stories[2]);
    EXPECT_NE(stories[0], storiesOf(4, 8, 6)[0]);
}

}  // namespace
