// Every fault as a host meets it, and when faults strike.
#include "model/Faults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "Host.h"

namespace {

using cardsim::Fault;
using cardsim::FaultField;
using cardsim::FaultKind;
using testing::ElementsAre;

constexpr int kEvery = Fault::kEveryCard;

class Faults : public testing::TestWithParam<int> {
  protected:
    Host hostWith(const Fault& fault, std::uint64_t seed = 1) const {
        return Host(GetParam(), 0, {fault}, seed);
    }
    std::uint64_t period() const {
        return static_cast<std::uint64_t>(hostLayout(GetParam()).period_ms);
    }
    // The counters of buffers that are exchanged in time.
    std::vector<int> counters(Host& host, int count) const {
        std::vector<int> found;
        host.boot();
        for (int i = 0; i < count; ++i) {
            host.wait(period());
            found.push_back(host.counter(i % 2));
            host.release(i % 2);
        }
        return found;
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, Faults, testing::Values(4, 8));

TEST_P(Faults, AbsentCardsAnswerNothing) {
    Host host = hostWith({FaultKind::kAbsent});
    host.holdInReset();
    host.out(0x300, 0x55);
    for (int port = 0x300; port < 0x310; port += 2) {
        EXPECT_EQ(0xFFFF, host.in(port));
    }
    EXPECT_EQ(0u, host.boot());
}

TEST_P(Faults, WrongEchoComesAtItsAttempts) {
    Host host = hostWith({FaultKind::kWrongEcho, kEvery, 2, 3});
    host.holdInReset();
    std::vector<bool> right;
    for (const int byte : {0x55, 0x55, 0xAA, 0xAA}) {
        host.out(0x300, byte);
        right.push_back(host.in(0x300) == byte);
    }
    EXPECT_THAT(right, ElementsAre(true, false, false, true));
}

TEST_P(Faults, BootBytesAreNeverAskedForOrNeverTaken) {
    const int kind = GetParam() == 8 ? 4 : 0;
    for (const int byte : {1, 2, 22}) {
        const auto number = static_cast<std::uint64_t>(byte);
        Host refusing = hostWith({FaultKind::kByteRefused, kEvery, number, number});
        EXPECT_EQ(byte - 1, refusing.boot());
        refusing.wait(1000);
        refusing.out(0x302, 0x1A);
        EXPECT_EQ(kind, refusing.in(0x302));
        EXPECT_EQ(22, refusing.boot());
        Host stuck = hostWith({FaultKind::kByteStuck, kEvery, number, number});
        EXPECT_EQ(byte - 1, stuck.boot());
        stuck.wait(1000);
        EXPECT_EQ(kind | 1, stuck.in(0x302));
        stuck.out(0x302, 0x1A);
        EXPECT_EQ(kind | 1, stuck.in(0x302));
        stuck.restart();
        EXPECT_EQ(kind | 0x20, stuck.in(0x302));
        EXPECT_EQ(22, stuck.boot());
        EXPECT_EQ(1u, stuck.report.cards[0].boots);
        EXPECT_EQ(1u, stuck.report.cards[0].faults);
    }
}

TEST_P(Faults, FirmwareThatIsDeadHandsNothingOverUntilItBootsAgain) {
    Host host = hostWith({FaultKind::kDeadAfterBoot, kEvery, 1, 1});
    EXPECT_EQ(22, host.boot());
    host.wait(10'000);
    EXPECT_EQ(0, host.handedOver());
    EXPECT_EQ(22, host.boot());
    host.wait(period());
    EXPECT_EQ(1, host.handedOver());
}

TEST_P(Faults, CountersStandStillOrJump) {
    Host stuck = hostWith({FaultKind::kCounterStuck, kEvery, 3, 5});
    EXPECT_THAT(counters(stuck, 7), ElementsAre(1, 2, 2, 2, 2, 3, 4));
    Host jumping = hostWith({FaultKind::kCounterJump, kEvery, 3, 3});
    const std::vector<int> found = counters(jumping, 4);
    EXPECT_EQ(2, found[1]);
    EXPECT_GT(found[2], 3);
    EXPECT_LE(found[2], 1003);
    EXPECT_EQ(found[2] + 1, found[3]);
}

TEST_P(Faults, BuffersAreTakenBackOnceSeen) {
    Host host = hostWith({FaultKind::kTakenBack, kEvery, 1, 1});
    host.boot();
    host.wait(period());
    EXPECT_EQ(1, host.handedOver());
    EXPECT_EQ(0, host.handedOver());
    host.release(0);
    EXPECT_EQ(0u, host.report.cards[0].served);
    host.wait(2 * period());
    EXPECT_EQ(3, host.handedOver());
    EXPECT_EQ(3, host.handedOver());
    EXPECT_EQ(3, host.counter(0));
}

TEST_P(Faults, BothBuffersComeAtOnce) {
    Host host = hostWith({FaultKind::kBothBuffers, kEvery, 2, 2});
    host.boot();
    host.wait(period());
    // The other buffer is not free yet: no opportunity.
    host.wait(period());
    EXPECT_EQ(3, host.handedOver());
    EXPECT_EQ(1, host.counter(0));
    host.releaseAll();
    host.wait(period());
    EXPECT_EQ(3, host.handedOver());
    EXPECT_EQ(3, host.counter(0));
    EXPECT_EQ(4, host.counter(1));
    host.releaseAll();
    host.wait(period());
    EXPECT_EQ(1, host.handedOver());
    EXPECT_EQ(5, host.counter(0));
    EXPECT_EQ(1u, host.report.cards[0].faults);
}

// Compares a buffer without a fault and one with: only bytes of the field differ.
TEST_P(Faults, NonsenseGoesToItsFieldAndNowhereElse) {
    const HostLayout& layout = hostLayout(GetParam());
    struct Row {
        FaultField field;
        int start, length;
        bool inPort;
    };
    for (const Row& row :
         {Row{FaultField::kLevel, 0, 2, true}, Row{FaultField::kOffHook, 2, 2, true},
          Row{FaultField::kTriggered, 4, 2, true}, Row{FaultField::kRinging, 6, 2, true},
          Row{FaultField::kAudio, 8, layout.audioLength, true},
          Row{FaultField::kDigits, layout.digits, layout.digitsLength, true},
          Row{FaultField::kCaller, layout.caller, 50, true}, Row{FaultField::kCounter, 0, 4, false},
          Row{FaultField::kDebug, 3578, layout.ports == 4 ? 2 : 0, false}}) {
        std::set<int> ports;
        std::set<int> changed;
        for (std::uint64_t seed = 1; seed <= 40; ++seed) {
            Host good(GetParam());
            Host bad = hostWith({FaultKind::kNonsense, kEvery, 1, 1, 1, row.field}, seed);
            for (Host* const host : {&good, &bad}) {
                host->boot();
                host->wait(period());
            }
            EXPECT_EQ(row.length == 0 ? 0u : 1u, bad.report.cards[0].faults);
            for (int offset = 0; offset < 0x1000; offset += 2) {
                if (good.word(0, offset) != bad.word(0, offset)) {
                    const int inPort = offset - layout.firstPort;
                    ports.insert(row.inPort ? inPort / layout.portLength : 0);
                    changed.insert(row.inPort ? inPort % layout.portLength : offset);
                }
            }
        }
        EXPECT_EQ(row.length / 2, static_cast<int>(changed.size()));
        EXPECT_EQ(row.length == 0 ? 0
                  : row.inPort    ? layout.ports
                                  : 1,
                  static_cast<int>(ports.size()));
        if (!changed.empty()) {
            EXPECT_EQ(row.start, *changed.begin());
            EXPECT_EQ(row.start + row.length - 2, *changed.rbegin());
        }
    }
}

TEST_P(Faults, NonsenseAnywhereLeavesCounterAndAudioAlone) {
    Host host = hostWith({FaultKind::kNonsense});
    const std::vector<int> found = counters(host, 500);
    EXPECT_EQ(500, found.back());
    EXPECT_EQ(500u, host.report.cards[0].faults);
    EXPECT_EQ(0xA000, host.word(0, hostLayout(GetParam()).firstPort + 8));
}

TEST_P(Faults, StrikeAtRandomAsTheSeedHasIt) {
    const Fault fault = {FaultKind::kCounterStuck, kEvery, 1, Fault::kForEver, 0.2};
    const auto run = [&](std::uint64_t seed) {
        Host host = hostWith(fault, seed);
        return counters(host, 500);
    };
    const std::vector<int> first = run(7);
    EXPECT_EQ(first, run(7));
    EXPECT_NE(first, run(8));
    EXPECT_NEAR(400, first.back(), 40);
}

TEST(FaultsOfTwoCards, StrikeTheCardTheyAreMeantFor) {
    Host host(4, 8, {Fault{FaultKind::kDeadAfterBoot, 1}});
    host.boot(0x300);
    host.boot(0x310);
    host.wait(450);
    EXPECT_EQ(1, host.handedOver(0x300));
    EXPECT_EQ(0, host.handedOver(0x310));
    EXPECT_EQ(0u, host.report.cards[0].faults);
    EXPECT_EQ(1u, host.report.cards[1].faults);
}

TEST(FaultsPlannedLater, CountTheirOpportunitiesFromThen) {
    cardsim::Faults faults({}, 0, 1);
    const auto strikes = [&faults] { return faults.strikes(FaultKind::kTakenBack) != nullptr; };
    EXPECT_FALSE(strikes());
    faults.add({FaultKind::kTakenBack, kEvery, 2, 2});
    EXPECT_FALSE(strikes());
    EXPECT_TRUE(strikes());
    EXPECT_FALSE(strikes());
    EXPECT_EQ(4u, faults.opportunities(FaultKind::kTakenBack));
    EXPECT_EQ(0u, faults.opportunities(FaultKind::kAbsent));
}

}  // namespace
