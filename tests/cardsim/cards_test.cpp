// The simulated cards as a host meets them, with and without faults, and what happens on their
// lines: scenario files, the text form of faults, and traffic.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "model/Cards.h"
#include "model/Traffic.h"
#include "scenario/FaultSyntax.h"
#include "scenario/ScenarioFile.h"

namespace {

using namespace cardsim;
using namespace testing;

// Knows the cards by their registers alone; each access takes a microsecond. A fault is card 0's.
class Host {
  public:
    explicit Host(int channels0, int channels1 = 0, const std::string& fault = "")
        : cards({slot(channels0, fault), slot(channels1, "")}, memory.data(), report) {}

    int in(int port) { return int(cards.in(std::uint16_t(port), 2, ++now_us)); }
    void out(int port, int value) {
        cards.out(std::uint16_t(port), 2, std::uint32_t(value), ++now_us);
    }
    void wait(int milliseconds) { cards.advance(now_us += 1000ull * unsigned(milliseconds)); }

    // Does what a script says and answers what it has read: "302=1A 302" writes to a port and reads
    // it, w waits for a period of card 0; boot is what boot() answers. Of a status only what tells
    // the state of the card is kept.
    std::string follow(const std::string& script) {
        std::istringstream steps(script);
        std::ostringstream answer;
        for (std::string step; steps >> step;) {
            if (step == "boot") {
                answer << std::dec << boot() << ' ';
            } else if (step == "w") {
                wait(report.cards[0].channels == 4 ? 450 : 225);
            } else if (const int port = std::stoi(step, nullptr, 16); step.size() > 3) {
                out(port, std::stoi(step.substr(4), nullptr, 16));
            } else {
                const int read = in(port);
                const bool isStatus = port != 0x300 && read != 0xFFFF;
                const int value = isStatus ? read & 0x23 : read;
                answer << std::hex << std::uppercase << value << ' ';
            }
        }
        return answer.str();
    }
    // Resets a card and sends it a boot table: the number of bytes that it asked for and took. The
    // table as it is, of 22 bytes, has a block that fills the last page to its end.
    int boot(int base = 0x300, const std::vector<int>& words = {0x08AA, 0x7FFF, 0xF800, 0x7F, 0x80,
                                                                2, 0x7F, 0xFFFE, 0x12, 0xFF, 0}) {
        std::size_t sent = 0;
        out(base + 14, 8);
        for (out(base + 2, 0x12), out(base + 2, 0x1A); sent < 2 * words.size(); ++sent) {
            const bool isWanted = (in(base + 2) & 0x20) != 0;
            out(base, words[sent / 2] >> (sent % 2 == 0 ? 8 : 0) & 0xFF);
            out(base + 2, isWanted ? 0x0A : 0);
            if (!isWanted || (in(base + 2) & 1) != 0) {
                break;
            }
            out(base + 2, 0x1A);
        }
        return int(sent);
    }

    std::vector<std::uint16_t> memory = std::vector<std::uint16_t>(0x2000);
    MachineReport report{};
    std::uint64_t now_us = 0;
    Cards cards;

    static std::optional<CardOptions> slot(int channels, const std::string& fault) {
        CardOptions card;
        card.channels = channels;
        card.faults.resize(fault.empty() ? 0 : 1, fault.empty() ? Fault() : parseFault(fault));
        return channels == 0 ? std::nullopt : std::optional(card);
    }
};

class Card : public TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Kinds, Card, Values(4, 8));

TEST_P(Card, AnswersAsItsStateAndItsFaultsSay) {
    const std::tuple<const char*, const char*, const char*, unsigned> kRows[] = {
        // Only in reset, which takes both writes, does it echo.
        {"", "boot 300=155 30E=9 302=12 300 2FC 30E=8 302=12 300 302", "22 FF FFFF 55 0 ", 0},
        // Buffer 0 comes back after its turn has passed; a reset takes back both.
        {"", "boot w w w 302=1A 304=1A w 302 304 w 302 30E=8 302=12 302 304", "22 0 1 1 0 0 ", 0},
        {"absent@1-3", "300=55 300 304 300=66 300", "FFFF FFFF 66 ", 3},
        {"absent@2+/0", "300=55 300 300", "FFFF FFFF ", 2},
        {"absent/1", "300=55 300", "55 ", 0},
        {"wrong-echo@2-3", "300=55 300 300 300 300", "55 AA AA 55 ", 2},
        {"byte-refused@1", "boot 302=1A 302 boot", "0 0 22 ", 1},
        {"byte-stuck@22", "boot 302=1A 302 boot", "21 1 22 ", 1},
        {"taken-back@1", "boot w 302 302 302=1A w w 302 304", "22 1 0 1 1 ", 1},
        {"silent@2-3", "boot w 302 302=1A w w 304 w 304", "22 1 0 1 ", 2},
        // When the second buffer comes, the first is not free yet: no opportunity.
        {"both-buffers@2", "boot w w 302=1A 304=1A w 302 304 302=1A 304=1A w 302 304",
         "22 1 1 1 0 ", 1},
    };
    for (const auto& [fault, script, answer, struck] : kRows) {
        Host host(GetParam(), 0, fault);
        EXPECT_EQ(answer, host.follow(script)) << fault;
        EXPECT_EQ(struck, host.report.cards[0].faults) << fault;
    }
}

TEST_P(Card, TellsHowEachLineIsAndCountsTheTransfersThatItMisses) {
    Host host(GetParam());
    host.boot();
    Line& line = host.cards.card(0).line(GetParam() - 1);
    line.apply({0, 0x0200, 60'000});
    line.setSpeaking(true);
    line.setOffHook(true);
    line.setRinging(true);
    host.follow("w w w w w");  // two buffers handed over, three missed
    EXPECT_EQ(3u, host.report.cards[0].missed);
    host.follow("302=1A 304=1A w w");
    const TransferLayout& transfer = layoutOf(GetParam());
    const int last = transfer.firstPort + (GetParam() - 1) * transfer.portWords;
    for (const int buffer : {0, layout::kSecondBuffer}) {
        const auto word = [&](int place) { return host.memory[std::size_t(buffer + place)]; };
        EXPECT_EQ(buffer == 0 ? 7 : 6, word(layout::kCounter));
        EXPECT_EQ(0xB000, word(last + layout::kLevel));
        EXPECT_EQ(0x0080, word(last - transfer.portWords + layout::kLevel));
        for (const int place : {layout::kOffHook, layout::kTriggered, layout::kRinging}) {
            EXPECT_EQ(1, word(last + place));
            EXPECT_EQ(0, word(last - transfer.portWords + place));
        }
    }
    EXPECT_EQ(GetParam() == 4 ? 0 : 0xC0, host.in(0x30C) & (GetParam() == 4 ? 4 : 0xC0));
    EXPECT_EQ(GetParam() == 4 ? 4 : 0, host.in(0x306) & (GetParam() == 4 ? 4 : 0xCC));
}

TEST_P(Card, ForgetsItsSettingsAtABootAndLeavesUndefinedBitsToChance) {
    Host host(GetParam());
    host.boot();
    Line& line = host.cards.card(0).line(1);
    line.setSpeaking(true);
    EXPECT_FALSE(line.isTriggered());
    line.apply({1, 0x0200, 60'000});
    EXPECT_TRUE(line.isTriggered());
    host.boot();
    EXPECT_FALSE(line.isTriggered());

    for (const auto& [port, undefined] :
         {std::pair(0x302, 0xFFC0), {0x304, 0xFFC0}, {0x306, GetParam() == 4 ? 0xFFFB : 0xFF33}}) {
        int ever = 0, always = 0xFFFF;
        for (int i = 0; i < 64; ++i) {
            const int value = host.in(port);
            ever |= value;
            always &= value;
        }
        EXPECT_EQ(undefined, ever & ~always) << port;
    }
}

TEST_P(Card, IsDeafAfterABrokenTableUntilReset) {
    const std::pair<int, std::vector<int>> kTables[] = {
        {2, {0x10AA, 0x7FFF}},                           // keyword of another mode
        {8, {0x08AA, 0, 0, 0x80, 0x80}},                 // entry page beyond the last
        {16, {0x08AA, 0, 0, 0, 0x80, 2, 0, 0xFFFF, 1}},  // block past its page
        {0, {}},                                         // below, a byte that it did not ask for
    };
    Host host(GetParam());
    for (const auto& [taken, words] : kTables) {
        EXPECT_EQ(taken, host.boot(0x300, words));
        EXPECT_EQ("0 ", host.follow("300=8 302=A 300=AA 302=A 302=1A w w 302"));
    }
    EXPECT_EQ(22, host.boot());
}

TEST(Lines, AreTriggeredByLoudnessForADelayOrByTheHook) {
    std::uint64_t now = 0;
    Line line(now);
    const auto isTriggered = [&](int level, int trigger, int delay_ms, unsigned passed_us = 0) {
        line.setLevel(std::uint16_t(level));
        line.apply({0, std::uint16_t(trigger), std::uint16_t(delay_ms)});
        now += passed_us;
        return line.isTriggered();
    };
    EXPECT_FALSE(isTriggered(0x115E, 0x115F, 3000));
    EXPECT_TRUE(isTriggered(0x115F, 0x115F, 3000));
    // A higher threshold: held for the new delay, then quiet.
    EXPECT_TRUE(isTriggered(0x115F, 0x2000, 65'001, 65'000'999));
    EXPECT_FALSE(isTriggered(0x115F, 0x2000, 65'001, 1));
    // Never means at once, whatever the delay; off hook means the hook.
    EXPECT_FALSE(isTriggered(0x2000, 0xFF01, 60'000));
    EXPECT_FALSE(isTriggered(0x2000, 0xFF02, 0));
    line.setOffHook(true);
    EXPECT_TRUE(line.isTriggered());
}

auto complains(const std::string& start, const std::string& reason = "") {
    return ThrowsMessage<std::invalid_argument>(AllOf(StartsWith(start), HasSubstr(reason)));
}

// Each line's steps: idle (.), ringing (R), speech on hook (!), off hook (T), speech (S), each
// followed by the caller and the digits that came.
std::vector<std::string> watch(Host& host, int steps, int step_ms) {
    std::vector<std::string> stories(12);
    for (int step = 0; step < steps; ++step) {
        host.wait(step_ms);
        for (std::size_t number = 0; number < stories.size(); ++number) {
            Line& line = host.cards.line(int(number));
            const char onHook = line.isRinging() ? 'R' : line.isSpeaking() ? '!' : '.';
            stories[number] += line.isOffHook() ? line.isSpeaking() ? 'S' : 'T' : onHook;
            stories[number] += line.takeCaller(49) + line.takeDigits(29);
        }
    }
    return stories;
}

class ScenarioFile : public Test {
  protected:
    ~ScenarioFile() override { std::filesystem::remove(path); }

    std::vector<ScenarioEvent> read(const std::string& text) {
        std::ofstream(path) << text;
        return readScenario(path);
    }

    const std::string path = TempDir() + "scenario-" + std::to_string(getpid()) + ".toml";
};

TEST_F(ScenarioFile, HappensToTheLinesInDueTime) {
    const auto events = read(R"(event = [
        { at = 2.5, line = 5, do = "call", caller = "0191 498", ring = 2, digits = "5#", talk = 3.25 },
        { at = 1, line = 0, do = "call", digits = "456", talk = 2 },
        { at = 0.0015, line = 11, do = "level", level = 0x7FFF },
        { at = 1, line = 0, do = "caller", caller = "x" },
        { at = 1, line = 1, do = "ring" }, { at = 4, line = 1, do = "ring-end" },
        { at = 1, line = 2, do = "off-hook" }, { at = 4, line = 2, do = "on-hook" },
        { at = 1, line = 3, do = "speak" }, { at = 4, line = 3, do = "quiet" },
        { at = 4, line = 3, do = "digits", digits = "7" }, { at = 2, fault = "dead-after-boot@1/1" } ]
)");
    EXPECT_EQ(1500u, events[0].time_us);
    EXPECT_EQ(path + ":4", events[0].origin);
    Host host(4, 8);
    host.boot(0x310);  // so early that the fault does not count it
    planScenario(host.cards, events);
    const auto stories = watch(host, 16, 500);
    EXPECT_THAT(std::vector(stories.begin(), stories.begin() + 6),
                ElementsAre(".Sx456SSS...........", ".RRRRRR.........", ".TTTTTT.........",
                            ".!!!!!!.7........", "................", "....RR0191 498RRS5#SSSSSS."));
    EXPECT_EQ(0x7FFF, host.cards.line(11).level());
    host.boot(0x300);
    host.boot(0x310);
    host.wait(450);
    EXPECT_EQ(std::pair(1, 0), std::pair(host.in(0x302) & 1, host.in(0x312) & 1));
}

TEST_F(ScenarioFile, SaysWhereAndWhyItCannotBeUnderstood) {
    const std::string begin = "[[event]]\nat = ", end = "\nline = 0\ndo = \"ring\"\n";
    const std::string start = begin + "1\nline = 0\ndo = ", tooLong(50, '1');
    const std::tuple<std::string, int, const char*> kRows[] = {
        {begin + "1\nline = \n", 3, "value"},
        {"\n[event]\nat = 1\n", 2, "only [[event]] tables"},
        {begin + "1" + end + "[[evnet]]\n", 5, "\"evnet\""},
        {"\n[[event]]" + end, 2, "at is missing"},
        {begin + "-0.1" + end, 2, "at must be a time"},
        {begin + "nan" + end, 2, "at must be a time"},
        {begin + "1\nline = 0.5\n", 3, "line must be a whole number"},
        {start + "\"sing\"\n", 4, "ring-end, caller"},
        {start + "\"ring\"\ncaller = \"1\"\n", 5, "\"caller\" does not belong"},
        {start + "\"digits\"\ndigits = \"12x\"\n", 5, "digits must be made of"},
        {start + "\"digits\"\ndigits = 12\n", 5, "digits must be a text"},
        {start + "\"caller\"\ncaller = \"" + tooLong + "\"\n", 5, "to 49"},
        {start + "\"caller\"\ncaller = \"\\u00e4\"\n", 5, "1 to 49 plain"},
        {start + "\"level\"\nlevel = 0x8000\n", 5, "from 0 to 32767"},
        {start + "\"call\"\ntalk = 1\ncaller = \"1\"\n", 6, "ring is missing"},
        {begin + "1\nline = 0\nfault = \"absent\"\n", 3, "\"line\" does not belong"},
        {begin + "1\nfault = \"absnt\"\n", 3, "no kind of fault \"absnt\""},
    };
    for (const auto& [text, line, reason] : kRows) {
        const auto readIt = [this, &text = text] { read(text); };
        EXPECT_THAT(readIt, complains(path + ":" + std::to_string(line) + ": ", reason));
    }
    EXPECT_THAT([] { readScenario("/no/file"); }, complains("/no/file: No such file"));
    EXPECT_THAT([] { readScenario("/"); }, complains("/: Is a directory"));
    // It may also not fit the cards.
    const auto events = read(begin + "1\nline = 8\ndo = \"ring\"\n");
    EXPECT_NO_THROW(checkScenario(events, {4, 8}));
    const auto check = [&] { checkScenario(events, {4, 4}); };
    EXPECT_THAT(check, complains(path + ":1: there is no line 8, only lines 0 to 7"));
}

TEST(FaultSyntax, ReadsKindFieldTimeAndCardOrSaysWhatIsWrong) {
    EXPECT_EQ(0.005, parseFault("taken-back@0.5%").probability);
    EXPECT_EQ(FaultField::kOffHook, parseFault("nonsense:off-hook@1").field);
    const auto refuses = [](const std::string& text, const std::string& reason) {
        EXPECT_THAT([&] { parseFault(text); }, complains("fault \"" + text + "\": " + reason));
    };
    refuses("", "there is no kind of fault \"\", only absent, wrong-echo");
    refuses("nonsense:mood", "there is no field \"mood\", only any, level");
    refuses("absent:level", "only nonsense goes to a field");
    for (const std::string end :
         {"@", "@0", "@0+", "@-1", "@+", "@3-2", "@1-", "@3x", "@%", "@0%", "@101%", "@nan%",
          "@99999999999999999999", "/", "/2", "/-1", "/1 "}) {
        refuses("absent" + end, "after " + end.substr(0, 1) + " must");
    }
}

TEST_F(ScenarioFile, IsDocumentedWithExamplesAndFaultsAsTheCodeDescribesThem) {
    std::stringstream document;
    document << std::ifstream(PROJECT_FOLDER "/docs/scenarios.md").rdbuf();
    const std::string text = document.str();
    const std::regex example("```toml\n([^`]*)```");
    const std::sregex_iterator first(text.begin(), text.end(), example), end;
    EXPECT_EQ(3, std::distance(first, end));
    for (auto found = first; found != end; ++found) {
        EXPECT_NO_THROW(checkScenario(read((*found)[1]), {4, 8}));
    }
    for (const auto& [kind, name, when, what] : kFaultDescriptions) {
        EXPECT_EQ(kind, parseFault(name).kind);
        EXPECT_THAT(faultHelp(), AllOf(HasSubstr(name), HasSubstr(when), HasSubstr(what)));
        EXPECT_THAT(text,
                    HasSubstr(std::string("| `") + name + "` | " + when + " | " + what + " |\n"));
    }
}

TEST(Traffic, IsSuchAsPeopleMakeAndFollowsFromTheSeedAloneOnEachLine) {
    const auto storiesOf = [](int channels0, int channels1, std::uint64_t seed) {
        Host host(channels0, channels1);
        planTraffic(host.cards, seed);
        return watch(host, 36'000, 100);
    };
    // Idling, a call that comes, whether answered or not, and one that goes out.
    const std::regex phase(
        "[.][0-9]*[.]{18,200}|R{4,6}01914980[0-9]{3}R{4,36}([ST][ST0-9]{28,400})?|"
        "T{1,20}0T{1,2}1T{1,2}9[ST0-9]{20,400}");
    const auto stories = storiesOf(4, 8, 5);
    for (const std::string& story : stories) {
        const std::string rest = std::regex_replace(story, phase, "");  // what the end cuts off
        EXPECT_EQ(rest, story.substr(story.size() - rest.size()));
        EXPECT_THAT(story, AllOf(HasSubstr("RT"), HasSubstr("R."), HasSubstr(".T")));
    }
    EXPECT_EQ(stories, storiesOf(8, 4, 5));
    EXPECT_NE(stories[0], stories[2]);
    EXPECT_NE(stories[0], storiesOf(4, 8, 6)[0]);
}

}  // namespace
