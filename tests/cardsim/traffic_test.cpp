// Calls by themselves: the same from the same seed, and such as people make.
#include "model/Traffic.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "Host.h"

namespace {

using testing::AllOf;
using testing::Each;
using testing::Ge;
using testing::Le;
using testing::MatchesRegex;

constexpr std::uint64_t kStep_ms = 50;

// What can be seen and heard on a line over some time; what has not ended does not count.
struct Watched {
    std::vector<double> ringing, talking, idle;  // seconds that each of them lasted
    std::vector<std::string> callers, dialled;
    int answered = 0;
    int spoken = 0;  // times that someone began to speak
    bool spokeOnHook = false;
    std::string story;
};

class LineWatcher {
  public:
    explicit LineWatcher(cardsim::Line& watchedLine) : line(watchedLine) {}

    void look() {
        const char state = line.isOffHook() ? 'T' : line.isRinging() ? 'R' : 'i';
        if (state != last) {
            finish();
            seen.answered += before == 'R' && last == 'T' ? 1 : 0;
            before = last;
            last = state;
            lasted_ms = 0;
            callers.clear();
            digits.clear();
        }
        lasted_ms += kStep_ms;
        listen(line.takeCaller(49), line.takeDigits(29));
    }
    const Watched& result() const { return seen; }

  private:
    void finish() {
        const double seconds = static_cast<double>(lasted_ms) / 1000;
        (last == 'T' ? seen.talking : last == 'R' ? seen.ringing : seen.idle).push_back(seconds);
        seen.story += last;
        if (!callers.empty()) {
            seen.callers.push_back(callers);
        }
        if (!digits.empty()) {
            seen.dialled.push_back(digits);
        }
    }
    void listen(const std::string& caller, const std::string& newDigits) {
        callers += caller;
        digits += newDigits;
        seen.story += caller + newDigits;
        seen.spoken += line.isSpeaking() && !spoke ? 1 : 0;
        spoke = line.isSpeaking();
        seen.spokeOnHook = seen.spokeOnHook || (spoke && last != 'T');
        seen.story += spoke ? 's' : '-';
    }

    cardsim::Line& line;
    Watched seen;
    char before = 'i';
    char last = 'i';
    std::uint64_t lasted_ms = 0;
    bool spoke = false;
    std::string callers, digits;
};

std::vector<Watched> watch(Host& host, std::uint64_t milliseconds) {
    std::vector<LineWatcher> watchers;
    for (int number = 0; number < host.cards.lines(); ++number) {
        watchers.emplace_back(host.cards.line(number));
    }
    for (std::uint64_t passed = 0; passed < milliseconds; passed += kStep_ms) {
        host.wait(kStep_ms);
        std::for_each(watchers.begin(), watchers.end(), [](auto& watcher) { watcher.look(); });
    }
    std::vector<Watched> results;
    for (const LineWatcher& watcher : watchers) {
        results.push_back(watcher.result());
    }
    return results;
}

TEST(Traffic, IsSuchAsPeopleMake) {
    Host host(4, 8);
    cardsim::planTraffic(host.cards, 5);
    for (const Watched& line : watch(host, 3600 * 1000)) {
        EXPECT_THAT(line.ringing, Each(AllOf(Ge(0.9), Le(4.1))));
        EXPECT_THAT(line.talking, Each(AllOf(Ge(2.9), Le(33.1))));
        EXPECT_THAT(line.idle, Each(AllOf(Ge(0.5), Le(20.1))));
        EXPECT_GE(line.talking.size(), 70u);
        EXPECT_LE(line.talking.size(), 200u);
        EXPECT_THAT(line.callers, Each(MatchesRegex("01914980[0-9]{3}")));
        // One caller for each ringing, most of them answered; the rest of the calls go out.
        EXPECT_EQ(line.callers.size(), line.ringing.size());
        const auto answered = static_cast<std::size_t>(line.answered);
        EXPECT_LT(answered, line.ringing.size());
        EXPECT_GT(answered, line.ringing.size() * 3 / 4);
        EXPECT_LT(answered, line.talking.size() * 4 / 5);
        const auto wholeNumbers = static_cast<std::size_t>(
            std::count_if(line.dialled.begin(), line.dialled.end(),
                          [](const std::string& digits) { return digits.size() >= 11; }));
        EXPECT_EQ(wholeNumbers, line.talking.size() - answered);
        EXPECT_GT(line.dialled.size(), wholeNumbers);
        EXPECT_GT(line.spoken, static_cast<int>(2 * line.talking.size()));
        EXPECT_FALSE(line.spokeOnHook);
    }
}

TEST(Traffic, FollowsFromTheSeedAloneOnEachLine) {
    const auto storiesOf = [](Host host, std::uint64_t seed) {
        cardsim::planTraffic(host.cards, seed);
        std::vector<std::string> stories;
        for (const Watched& line : watch(host, 600 * 1000)) {
            stories.push_back(line.story);
        }
        return stories;
    };
    const std::vector<std::string> first = storiesOf(Host(4, 8), 9);
    EXPECT_EQ(first, storiesOf(Host(4, 8), 9));
    std::vector<std::string> inOtherSlots = storiesOf(Host(8, 4), 9);
    EXPECT_EQ(first, inOtherSlots);
    std::vector<std::string> sorted = first;
    const std::vector<std::string> other = storiesOf(Host(4, 8), 10);
    sorted.insert(sorted.end(), other.begin(), other.end());
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(sorted.end(), std::adjacent_find(sorted.begin(), sorted.end()));
}

TEST(Traffic, ShowsWholeCallsWithinTwentySeconds) {
    for (std::uint64_t seed = 1; seed <= 200; ++seed) {
        Host host(4);
        cardsim::planTraffic(host.cards, seed);
        std::size_t callers = 0;
        std::size_t dialled = 0;
        for (const Watched& line : watch(host, 20'000)) {
            EXPECT_GE(line.idle.front(), 3.0);
            EXPECT_GE(line.talking.size(), 1u) << "seed " << seed;
            callers += line.callers.size();
            dialled += line.dialled.size();
        }
        EXPECT_GE(callers, 2u) << "seed " << seed;
        EXPECT_GE(dialled, 2u) << "seed " << seed;
    }
}

TEST(Traffic, OfADayOnSixteenLinesIsNoBurden) {
    Host host(8, 8);
    cardsim::planTraffic(host.cards, 1);
    const auto begin = std::chrono::steady_clock::now();
    host.wait(24 * 3600 * 1000);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    EXPECT_LT(took.count(), 20);
    std::uint64_t calls = 0;
    for (int number = 0; number < host.cards.lines(); ++number) {
        calls += host.cards.line(number).callsSoFar();
    }
    EXPECT_GT(calls, 16 * 24 * 70u);
}

}  // namespace
