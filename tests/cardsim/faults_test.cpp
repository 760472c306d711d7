// Every fault as a host meets it, and when faults strike.
#include "model/Faults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Host.h"

namespace {

using cardsim::Fault;
using cardsim::FaultKind;
using testing::ElementsAre;

constexpr int kEvery = Fault::kEveryCard;

class Faults : public testing::TestWithParam<int> {
  protected:
    Host hostWith(const Fault& fault, std::uint64_t seed = 1) const {
        return Host(GetParam(), 0, {fault}, seed);
    }
    // The counters of buffers that are exchanged in time.
    std::vector<int> counters(Host host, int count) const {
        std::vector<int> found;
        host.boot();
        for (int i = 0; i < count; ++i) {
            host.wait(layout.period_ms);
            found.push_back(host.counter(i % 2));
            host.release(i % 2);
        }
        return found;
    }
    const HostLayout layout = hostLayout(GetParam());
};

INSTANTIATE_TEST_SUITE_P(Kinds, Faults, testing::Values(4, 8));

TEST_P(Faults, CardsAreAbsentOrEchoSomethingElse) {
    Host absent = hostWith({FaultKind::kAbsent});
    absent.holdInReset();
    EXPECT_EQ(0xFFFF, absent.in(0x300) & absent.in(0x302) & absent.in(0x304) & absent.in(0x306));
    Host host = hostWith({FaultKind::kWrongEcho, kEvery, 2, 3});
    host.holdInReset();
    host.out(0x300, 0x55);
    EXPECT_THAT((std::vector{host.in(0x300), host.in(0x300), host.in(0x300), host.in(0x300)}),
                ElementsAre(0x55, 0xAA, 0xAA, 0x55));
}

TEST_P(Faults, BootBytesAreNeverAskedForOrNeverTaken) {
    const int kind = GetParam() == 8 ? 4 : 0;
    for (const int byte : {1, 2, 22}) {
        for (const bool refused : {true, false}) {
            const auto number = static_cast<std::uint64_t>(byte);
            Host host = hostWith({refused ? FaultKind::kByteRefused : FaultKind::kByteStuck, kEvery,
                                  number, number});
            EXPECT_EQ(byte - 1, host.boot());
            host.wait(1000);
            host.out(0x302, 0x1A);
            EXPECT_EQ(kind | (refused ? 0 : 1), host.in(0x302));
            host.restart();
            EXPECT_EQ(kind | 0x20, host.in(0x302));
            EXPECT_EQ(22, host.boot());
            EXPECT_EQ(1u, host.report.cards[0].faults);
        }
    }
}

TEST_P(Faults, BuffersAreTakenBackOrComeBothAtOnce) {
    Host host = hostWith({FaultKind::kTakenBack, kEvery, 1, 1});
    host.boot();
    host.wait(layout.period_ms);
    EXPECT_EQ(1, host.handedOver());
    EXPECT_EQ(0, host.handedOver());
    host.release(0);
    EXPECT_EQ(0u, host.report.cards[0].served);
    host.wait(2 * layout.period_ms);
    EXPECT_EQ(3, host.handedOver());
    EXPECT_EQ(3, host.handedOver());

    Host both = hostWith({FaultKind::kBothBuffers, kEvery, 2, 2});
    both.boot();
    // When the second buffer comes, the first is not free yet: no opportunity.
    both.wait(2 * layout.period_ms);
    EXPECT_EQ(1, both.counter(0));
    for (const int expected : {3, 1}) {
        both.release(0);
        both.release(1);
        both.wait(layout.period_ms);
        EXPECT_EQ(expected, both.handedOver());
    }
    EXPECT_EQ(5, both.counter(0));
    EXPECT_EQ(4, both.counter(1));
}

TEST_P(Faults, StrikeAtRandomAsTheSeedHasIt) {
    const Fault fault = {FaultKind::kCounterStuck, kEvery, 1, Fault::kForEver, 0.2};
    const std::vector<int> first = counters(hostWith(fault, 7), 500);
    EXPECT_EQ(first, counters(hostWith(fault, 7), 500));
    EXPECT_NE(first, counters(hostWith(fault, 8), 500));
    EXPECT_NEAR(400, first.back(), 40);
}

}  // namespace
