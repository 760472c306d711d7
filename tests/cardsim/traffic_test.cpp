// Calls by themselves: the same from the same seed, and such as people make.
#include "model/Traffic.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Host.h"

namespace {

using testing::AllOf;
using testing::Each;
using testing::Ge;
using testing::Le;
using testing::MatchesRegex;

constexpr int kStep_ms = 50;

// What is seen and heard on a line over some time; what has not ended does not count.
struct LineWatcher {
    explicit LineWatcher(cardsim::Line& watched) : line(watched) {}
    void look() {
        const char now = line.isOffHook() ? 'T' : line.isRinging() ? 'R' : 'i';
        if (now != state) {
            finish();
            before = state;
            state = now;
            lasted_ms = 0;
            callers.clear();
            digits.clear();
        }
        lasted_ms += kStep_ms;
        callers += line.takeCaller(49);
        digits += line.takeDigits(29);
        spokeOnHook = spokeOnHook || (line.isSpeaking() && state != 'T');
        story += std::string(1, state) + (line.isSpeaking() ? "s" : "-") + callers + digits;
    }
    void finish() {
        (state == 'T' ? talking : state == 'R' ? ringing : idle).push_back(lasted_ms);
        answered += before == 'R' && state == 'T' ? 1 : 0;
        if (state == 'R') {
            allCallers.push_back(callers);
        }
        wholeNumbers += digits.size() >= 11 ? 1 : 0;
        fewDigits += !digits.empty() && digits.size() < 11 ? 1 : 0;
    }

    cardsim::Line& line;
    char before = 'i', state = 'i';
    int lasted_ms = 0;
    std::string callers, digits, story;
    std::vector<int> ringing, talking, idle;
    std::vector<std::string> allCallers;
    std::size_t answered = 0, wholeNumbers = 0, fewDigits = 0;
    bool spokeOnHook = false;
};

std::vector<LineWatcher> watch(Host& host, std::uint64_t seed, int seconds) {
    cardsim::planTraffic(host.cards, seed);
    std::vector<LineWatcher> watchers;
    for (int number = 0; number < host.cards.lines(); ++number) {
        watchers.emplace_back(host.cards.line(number));
    }
    for (int passed = 0; passed < 1000 * seconds; passed += kStep_ms) {
        host.wait(kStep_ms);
        for (LineWatcher& watcher : watchers) {
            watcher.look();
        }
    }
    return watchers;
}

TEST(Traffic, IsSuchAsPeopleMake) {
    Host host(4, 8);
    for (const LineWatcher& line : watch(host, 5, 3600)) {
        EXPECT_THAT(line.ringing, Each(AllOf(Ge(900), Le(4'100))));
        EXPECT_THAT(line.talking, Each(AllOf(Ge(2'900), Le(33'100))));
        EXPECT_THAT(line.idle, Each(AllOf(Ge(1'900), Le(20'100))));
        EXPECT_GE(line.talking.size(), 70u);
        EXPECT_THAT(line.allCallers, Each(MatchesRegex("01914980[0-9]{3}")));
        // Most calls that come are answered; the others go out and begin with a number.
        EXPECT_LT(line.answered, line.ringing.size());
        EXPECT_GT(line.answered, line.ringing.size() * 3 / 4);
        EXPECT_LT(line.answered, line.talking.size() * 4 / 5);
        EXPECT_EQ(line.wholeNumbers, line.talking.size() - line.answered);
        EXPECT_GT(line.fewDigits, 0u);
        EXPECT_FALSE(line.spokeOnHook);
    }
}

TEST(Traffic, FollowsFromTheSeedAloneOnEachLine) {
    const auto stories = [](Host host, std::uint64_t seed) {
        std::vector<std::string> found;
        for (const LineWatcher& line : watch(host, seed, 600)) {
            found.push_back(line.story);
        }
        return found;
    };
    const std::vector<std::string> first = stories(Host(4, 8), 9);
    EXPECT_EQ(first, stories(Host(8, 4), 9));
    EXPECT_NE(first[0], first[2]);
    EXPECT_NE(first[0], stories(Host(4, 8), 10)[0]);
}

}  // namespace
