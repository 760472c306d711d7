// The simulated cards as a host meets them: one of each kind, with and without faults, and both
// slots of the PC.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Host.h"

namespace {

using cardsim::Fault;
using cardsim::FaultKind;
using testing::ElementsAre;

constexpr int kEvery = Fault::kEveryCard;

class Card : public testing::TestWithParam<int> {
  protected:
    Host hostWith(const Fault& fault, std::uint64_t seed = 1) const {
        return Host(GetParam(), 0, {fault}, seed);
    }
    int field(int buffer, int port, int byteOffset) {
        return host.word(buffer, layout.firstPort + port * layout.portLength + byteOffset);
    }
    // A text with its count in front.
    std::string text(int buffer, int port, int byteOffset) {
        const auto byteAt = [&](int i) {
            return static_cast<char>(field(buffer, port, byteOffset + i) >> (i % 2 * 8) & 0xFF);
        };
        std::string found;
        for (int i = 1; i <= byteAt(0); ++i) {
            found += byteAt(i);
        }
        return found;
    }
    // Settings for a line, taken at the card's next two turns.
    void set(int port, int beep, int trigger, int delay_ms) {
        for (int buffer = 0; buffer < 2; ++buffer) {
            host.word(buffer, 4) = 2;
            const int values[] = {beep, trigger, delay_ms};
            for (int i = 0; i < 3; ++i) {
                host.word(buffer, 8 + 6 * port + 2 * i) = static_cast<std::uint16_t>(values[i]);
            }
        }
    }
    cardsim::Line& line(int port) { return host.cards.line(port); }

    const HostLayout layout = hostLayout(GetParam());
    const int last = layout.ports - 1;
    const int kindBit = GetParam() == 8 ? 4 : 0;
    Host host{GetParam()};
    const cardsim::CardReport& report = host.report.cards[0];
};

INSTANTIATE_TEST_SUITE_P(Kinds, Card, testing::Values(4, 8));

TEST_P(Card, EchoesOnlyInResetWhichTakesBothWrites) {
    ASSERT_EQ(22, host.boot());
    host.out(0x300, 0x55);
    host.out(0x30E, 9);
    host.out(0x302, 0x12);
    EXPECT_EQ(0xFF, host.in(0x300));
    host.holdInReset();
    EXPECT_EQ(0x55, host.in(0x300));
    EXPECT_EQ(kindBit, host.in(0x302));
    host.out(0x302, 0x1A);
    EXPECT_EQ(0xFF, host.in(0x300));
    EXPECT_EQ(0x20 | kindBit, host.in(0x302));
}

TEST_P(Card, KeepsTheImageThatItBootsUndisturbedByRegisterDefaults) {
    host.restart();
    ASSERT_EQ(28, host.send({0x08AA, 0x7FFF, 0xF800, 1, 0x80, 2, 0, 0x80, 0x1234, 0xFFFF, 1, 0x7F,
                             0xFFFF, 0x4321}));
    host.out(0x302, host.in(0x302) & 0xFFFE);
    for (int port = 0x304; port <= 0x30E; port += 2) {
        host.out(port, 0x11);
    }
    ASSERT_EQ(2, host.send({0}));
    const cardsim::BootRom& rom = host.cards.card(0).bootRom();
    EXPECT_EQ(0x80, rom.entryPoint());
    ASSERT_EQ(2u, rom.image().size());
    EXPECT_THAT(rom.image()[0].words, ElementsAre(0x1234, 0xFFFF));
    EXPECT_EQ(0x7F, rom.image()[1].page);
    EXPECT_EQ(0xFFFF, rom.image()[1].address);
    EXPECT_EQ(3u, report.imageWords);
    EXPECT_EQ(0x5554u, report.imageChecksum);
    ASSERT_EQ(22, host.boot());
    EXPECT_EQ(2u, report.boots);
    EXPECT_EQ(0x1233u, report.imageChecksum);
}

TEST_P(Card, IsDeafAfterABrokenTableUntilReset) {
    const std::pair<std::vector<int>, int> kTables[] = {
        {{0x10AA, 0x7FFF}, 2},                           // keyword of another mode
        {{0x08AA, 0, 0, 0x80, 0x80}, 8},                 // entry page beyond the last
        {{0x08AA, 0, 0, 0, 0x80, 1, 0x80, 0x80}, 14},    // block page beyond the last
        {{0x08AA, 0, 0, 0, 0x80, 2, 0, 0xFFFF, 1}, 16},  // block past its page
    };
    for (const auto& [words, taken] : kTables) {
        host.restart();
        EXPECT_EQ(taken, host.send(words));
        host.wait(1000);
        host.out(0x302, 0x1A);
        EXPECT_EQ(kindBit, host.in(0x302));
    }
    // A byte that it did not ask for.
    host.restart();
    for (const int byte : {0x08, 0xAA}) {
        host.out(0x300, byte);
        host.out(0x302, 0x0A);
    }
    host.out(0x302, 0x1A);
    EXPECT_EQ(kindBit, host.in(0x302));
    EXPECT_EQ(0u, report.boots);
    EXPECT_EQ(22, host.boot());
}

TEST_P(Card, HandsItsBuffersOverInTurnAndCountsWhatTheHostMisses) {
    host.boot();
    host.wait(layout.period_ms - 1);
    EXPECT_EQ(0, host.handedOver());
    host.wait(1);
    EXPECT_EQ(1, host.handedOver());
    host.wait(2 * layout.period_ms);
    EXPECT_EQ(3, host.handedOver());
    EXPECT_EQ(2, host.counter(1));
    // Buffer 0 comes back after its turn has passed.
    host.release(0);
    host.release(1);
    EXPECT_EQ(0, host.handedOver());
    host.wait(2 * layout.period_ms);
    EXPECT_EQ(4, host.counter(1));
    EXPECT_EQ(5, host.counter(0));
    EXPECT_EQ(4u, report.handOvers);
    EXPECT_EQ(2u, report.served);
    EXPECT_EQ(1u, report.missed);
    host.holdInReset();
    EXPECT_EQ(0, host.handedOver());
    host.boot();
    EXPECT_EQ(1, host.counter(host.exchange()));
}

TEST_P(Card, FillsABufferWhereTheHostLooksForIt) {
    host.boot();
    const std::string digits = "0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456789";
    for (int port = 0; port <= last; ++port) {
        line(port).setLevel(static_cast<std::uint16_t>(0x1000 * port + 7));
        line(port).dial(std::to_string(port));
        line(port).callFrom(port == 1 ? std::string(60, 'c') : "caller " + std::to_string(port));
    }
    line(1).dial(digits);
    line(last).setOffHook(true);
    line(last).setRinging(true);
    const int buffer = host.exchange();
    for (int port = 0; port <= last; ++port) {
        EXPECT_EQ(0x1000 * port + 7, field(buffer, port, 0) & 0x7FFF);
        EXPECT_EQ(port == last, field(buffer, port, 2) == 1);
        EXPECT_EQ(port == last, field(buffer, port, 6) == 1);
    }
    EXPECT_EQ(std::to_string(last), text(buffer, last, layout.digits));
    EXPECT_EQ("caller " + std::to_string(last), text(buffer, last, layout.caller));
    // What is too long: the digits go on in the next buffer, the caller is cut.
    const auto room = static_cast<std::size_t>(layout.digitsLength - 1);
    EXPECT_EQ(("1" + digits).substr(0, room), text(buffer, 1, layout.digits));
    EXPECT_EQ(std::string(49, 'c'), text(buffer, 1, layout.caller));
    const int next = host.exchange();
    EXPECT_EQ(("1" + digits).substr(room, room), text(next, 1, layout.digits));
    EXPECT_EQ("", text(next, 1, layout.caller) + text(next, 0, layout.digits));
}

TEST_P(Card, FollowsEachLinesOwnSettings) {
    host.boot();
    const auto voice = [this] { return field(host.exchange(), 0, 0) >> 15; };
    // Before any settings: step 4 of the kind of card.
    const int standard = GetParam() == 4 ? 0x115F : 0x0A1F;
    line(0).setLevel(static_cast<std::uint16_t>(standard - 1));
    EXPECT_EQ(0, voice());
    line(0).setLevel(static_cast<std::uint16_t>(standard));
    EXPECT_EQ(1, voice());
    // A higher threshold: held for the new delay, then quiet.
    set(last, 3, 0x7777, 65'001);
    set(0, 0, 0x2000, 2 * layout.period_ms + 1);
    EXPECT_THAT((std::vector{voice(), voice(), voice(), voice()}), ElementsAre(1, 1, 1, 0));
    const cardsim::Line::Settings& settings = line(last).settings();
    EXPECT_THAT((std::vector{settings.beep, settings.trigger, settings.delay_ms}),
                ElementsAre(3, 0x7777, 65'001));
    EXPECT_EQ(2u, report.commands[last]);
    EXPECT_EQ(0, host.word(0, 4) | host.word(1, 4));
    line(0).setSpeaking(true);
    EXPECT_EQ(1, voice());
    // Never means at once, whatever the delay; off hook means the hook.
    set(0, 0, 0xFF01, 60'000);
    set(1, 0, 0xFF02, 0);
    host.exchange();
    EXPECT_EQ(0, voice());
    line(1).setSpeaking(true);
    EXPECT_EQ(0, field(host.exchange(), 1, 4));
    line(1).setOffHook(true);
    EXPECT_EQ(1, field(host.exchange(), 1, 4));
}

TEST_P(Card, IsAbsentOrEchoesSomethingElse) {
    Host absent = hostWith({FaultKind::kAbsent});
    absent.holdInReset();
    EXPECT_EQ(0xFFFF, absent.in(0x300) & absent.in(0x302) & absent.in(0x304) & absent.in(0x306));
    Host wrong = hostWith({FaultKind::kWrongEcho, kEvery, 2, 3});
    wrong.holdInReset();
    wrong.out(0x300, 0x55);
    EXPECT_THAT((std::vector{wrong.in(0x300), wrong.in(0x300), wrong.in(0x300), wrong.in(0x300)}),
                ElementsAre(0x55, 0xAA, 0xAA, 0x55));
}

TEST_P(Card, NeverAsksForABootByteOrNeverTakesIt) {
    for (const int byte : {1, 2, 22}) {
        for (const bool refused : {true, false}) {
            const auto number = static_cast<std::uint64_t>(byte);
            Host faulty = hostWith({refused ? FaultKind::kByteRefused : FaultKind::kByteStuck,
                                    kEvery, number, number});
            EXPECT_EQ(byte - 1, faulty.boot());
            faulty.wait(1000);
            faulty.out(0x302, 0x1A);
            EXPECT_EQ(kindBit | (refused ? 0 : 1), faulty.in(0x302));
            faulty.restart();
            EXPECT_EQ(kindBit | 0x20, faulty.in(0x302));
            EXPECT_EQ(22, faulty.boot());
            EXPECT_EQ(1u, faulty.report.cards[0].faults);
        }
    }
}

TEST_P(Card, TakesBuffersBackOrHandsBothOverAtOnce) {
    Host fickle = hostWith({FaultKind::kTakenBack, kEvery, 1, 1});
    fickle.boot();
    fickle.wait(layout.period_ms);
    EXPECT_EQ(1, fickle.handedOver());
    EXPECT_EQ(0, fickle.handedOver());
    fickle.release(0);
    EXPECT_EQ(0u, fickle.report.cards[0].served);
    fickle.wait(2 * layout.period_ms);
    EXPECT_EQ(3, fickle.handedOver());
    EXPECT_EQ(3, fickle.handedOver());

    Host both = hostWith({FaultKind::kBothBuffers, kEvery, 2, 2});
    both.boot();
    // When the second buffer comes, the first is not free yet: no opportunity.
    both.wait(2 * layout.period_ms);
    for (const int expected : {3, 1}) {
        both.release(0);
        both.release(1);
        both.wait(layout.period_ms);
        EXPECT_EQ(expected, both.handedOver());
    }
    EXPECT_EQ(5, both.counter(0));
    EXPECT_EQ(4, both.counter(1));
}

TEST_P(Card, HasBadLuckAsTheSeedHasIt) {
    const auto counters = [this](std::uint64_t seed) {
        Host unlucky = hostWith({FaultKind::kCounterStuck, kEvery, 1, Fault::kForEver, 0.2}, seed);
        unlucky.boot();
        std::vector<int> found;
        for (int i = 0; i < 500; ++i) {
            found.push_back(unlucky.counter(unlucky.exchange()));
        }
        return found;
    };
    const std::vector<int> first = counters(7);
    EXPECT_EQ(first, counters(7));
    EXPECT_NE(first, counters(8));
    EXPECT_NEAR(400, first.back(), 40);
}

TEST(LineStatus, IsOneLineAWordOrTwo) {
    Host four(4);
    four.cards.line(2).setOffHook(true);
    Host eight(8);
    for (const int port : {0, 3, 7}) {
        eight.cards.line(port).setOffHook(true);
    }
    eight.cards.line(4).setSpeaking(true);
    eight.cards.line(7).setSpeaking(true);
    const auto words = [](Host& host) {
        return std::vector{host.in(0x306), host.in(0x308), host.in(0x30A), host.in(0x30C)};
    };
    EXPECT_THAT(words(four), ElementsAre(4, 4, 0, 4));
    EXPECT_THAT(words(eight), ElementsAre(0x04, 0x40, 0x08, 0xC0));
}

// An access over the last register of a card reaches the next card or nobody.
TEST(Cards, AnswerAtTheirOwnPortsInEveryWidth) {
    Host host(0, 8);
    EXPECT_EQ(0xFF, host.in(0x300, 1));
    EXPECT_EQ(-1, host.in(0x300, 4));
    host.out(0x31E, 8, 1);
    host.out(0x312, 0x12, 1);
    host.out(0x310, 0x55, 1);
    host.out(0x311, 0x33, 1);
    EXPECT_EQ(0x0055FFFF, host.in(0x30E, 4));
    EXPECT_EQ(-1, host.in(0x31E, 4));
    EXPECT_EQ(4 << 8, host.in(0x311, 2));
    // Data and control in one; the echo of 0x77 shows that it is still held in reset.
    host.out(0x310, 0x00120077, 4);
    EXPECT_EQ(0x00040077, host.in(0x310, 4));
}

TEST(Cards, DoWhatIsPlannedBeforeTheTurnOfThatTimeInTheOrderGiven) {
    Host host(4);
    host.boot();
    const std::uint64_t turn = host.now_us + 450'000;
    std::string order;
    const auto note = [&](char name) {
        order += name + std::to_string(host.report.cards[0].handOvers);
    };
    host.cards.at(turn, [&] {
        note('a');
        host.cards.at(turn, [&] { note('c'); });
    });
    host.cards.at(turn + 1, [&] { note('d'); });
    host.cards.at(turn, [&] { note('b'); });
    host.cards.advance(turn - 1);
    EXPECT_EQ("", order);
    host.cards.advance(turn + 1);
    host.cards.at(5, [&] { note('e'); });
    host.cards.advance(turn + 1);
    EXPECT_EQ("a0b0c0d1e1", order);
}

}  // namespace
