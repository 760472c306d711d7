// Calls by themselves: the same from the same seed, and such as people make.
#include "model/Traffic.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <tuple>

#include "Host.h"

namespace {

using testing::MatchesRegex;

// A time in which a line was idle (i), ringing (R) or off hook (T), and what it brought.
struct Phase {
    bool operator==(const Phase& other) const { return all() == other.all(); }
    std::tuple<char, int, std::string, std::string, bool> all() const {
        return {state, lasted_ms, callers, digits, spoke};
    }
    char state;
    int lasted_ms = 0;
    std::string callers{}, digits{};
    bool spoke = false;
};
using Story = std::vector<Phase>;

// The stories of all lines.
std::vector<Story> watch(Host host, std::uint64_t seed, int seconds) {
    constexpr int kStep_ms = 50;
    cardsim::planTraffic(host.cards, seed);
    std::vector<Story> stories(static_cast<std::size_t>(host.cards.lines()));
    for (int passed = 0; passed < 1000 * seconds; passed += kStep_ms) {
        host.wait(kStep_ms);
        for (std::size_t number = 0; number < stories.size(); ++number) {
            cardsim::Line& line = host.cards.line(static_cast<int>(number));
            Story& story = stories[number];
            const char state = line.isOffHook() ? 'T' : line.isRinging() ? 'R' : 'i';
            if (story.empty() || story.back().state != state) {
                story.push_back({state});
            }
            story.back().lasted_ms += kStep_ms;
            story.back().callers += line.takeCaller(49);
            story.back().digits += line.takeDigits(29);
            story.back().spoke = story.back().spoke || line.isSpeaking();
        }
    }
    return stories;
}

TEST(Traffic, IsSuchAsPeopleMake) {
    const std::map<char, std::pair<int, int>> kLimits_ms = {
        {'i', {1'900, 20'100}}, {'R', {900, 4'100}}, {'T', {2'900, 33'100}}};
    for (const Story& story : watch(Host(4, 8), 5, 3600)) {
        std::map<char, int> count;
        int answered = 0, wholeNumbers = 0, fewDigits = 0;
        for (std::size_t i = 1; i + 1 < story.size(); ++i) {
            const Phase& phase = story[i];
            ++count[phase.state];
            EXPECT_GE(phase.lasted_ms, kLimits_ms.at(phase.state).first);
            EXPECT_LE(phase.lasted_ms, kLimits_ms.at(phase.state).second);
            EXPECT_THAT(phase.callers, MatchesRegex(phase.state == 'R' ? "01914980[0-9]{3}" : ""));
            EXPECT_EQ(phase.state == 'T', phase.spoke);
            answered += phase.state == 'T' && story[i - 1].state == 'R' ? 1 : 0;
            wholeNumbers += phase.digits.size() >= 11 ? 1 : 0;
            fewDigits += !phase.digits.empty() && phase.digits.size() < 11 ? 1 : 0;
        }
        EXPECT_GE(count['T'], 70);
        // Most calls that come are answered; the others go out and begin with a number.
        EXPECT_LT(answered, count['R']);
        EXPECT_GT(answered, count['R'] * 3 / 4);
        EXPECT_LT(answered, count['T'] * 4 / 5);
        EXPECT_EQ(wholeNumbers, count['T'] - answered);
        EXPECT_GT(fewDigits, 0);
    }
}

TEST(Traffic, FollowsFromTheSeedAloneOnEachLine) {
    const std::vector<Story> first = watch(Host(4, 8), 9, 600);
    EXPECT_TRUE(first == watch(Host(8, 4), 9, 600));
    EXPECT_FALSE(first[0] == first[2]);
    EXPECT_FALSE(first[0] == watch(Host(4, 8), 10, 600)[0]);
}

}  // namespace
