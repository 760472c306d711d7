// The simulated cards as a host meets them: one of each kind, with and without faults, and both
// slots of the PC.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Host.h"

namespace {

using cardsim::Fault;
using cardsim::FaultKind;
using testing::ElementsAre;

class Card : public testing::TestWithParam<int> {
  protected:
    // A host of a card whose fault strikes at those opportunities.
    Host hostWith(FaultKind kind, std::uint64_t from, std::uint64_t to) const {
        return Host(GetParam(), 0, {Fault{kind, 0, from, to}});
    }
    int field(int buffer, int port, int byteOffset) {
        return host.word(buffer, layout.firstPort + port * layout.portLength + byteOffset);
    }
    // A text with its count in front.
    std::string text(int buffer, int port, int byteOffset) {
        std::string found;
        for (int i = 0; i <= found[0]; ++i) {
            found += static_cast<char>(field(buffer, port, byteOffset + i) >> (i % 2 * 8) & 0xFF);
        }
        return found.substr(1);
    }
    // Settings for a line, taken at the card's next two turns.
    void set(int port, int trigger, int delay_ms) {
        for (int buffer = 0; buffer < 2; ++buffer) {
            host.word(buffer, 4) = 2;
            host.word(buffer, 10 + 6 * port) = static_cast<std::uint16_t>(trigger);
            host.word(buffer, 12 + 6 * port) = static_cast<std::uint16_t>(delay_ms);
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
    EXPECT_EQ(0xFFFF, host.in(0x2FC));
    host.holdInReset();
    EXPECT_EQ(0x55, host.in(0x300));
    EXPECT_EQ(kindBit, host.in(0x302));
    host.out(0x302, 0x1A);
    EXPECT_EQ(0xFF, host.in(0x300));
    EXPECT_EQ(0x20 | kindBit, host.in(0x302));
}

TEST_P(Card, IsDeafAfterABrokenTableUntilReset) {
    const std::pair<int, std::vector<int>> kTables[] = {
        {2, {0x10AA, 0x7FFF}},                           // keyword of another mode
        {8, {0x08AA, 0, 0, 0x80, 0x80}},                 // entry page beyond the last
        {14, {0x08AA, 0, 0, 0, 0x80, 1, 0x80, 0x80}},    // block page beyond the last
        {16, {0x08AA, 0, 0, 0, 0x80, 2, 0, 0xFFFF, 1}},  // block past its page
    };
    for (const auto& [taken, words] : kTables) {
        EXPECT_EQ(taken, host.boot(0x300, words));
        host.wait(1000);
        host.out(0x302, 0x1A);
        EXPECT_EQ(kindBit, host.in(0x302));
    }
    // A byte that it did not ask for.
    EXPECT_EQ(0, host.boot(0x300, {}));
    for (const auto& [port, value] :
         {std::pair(0x300, 0x08), {0x302, 0x0A}, {0x300, 0xAA}, {0x302, 0x0A}, {0x302, 0x1A}}) {
        host.out(port, value);
    }
    EXPECT_EQ(kindBit, host.in(0x302));
    EXPECT_EQ(0u, report.boots);
    EXPECT_EQ(22, host.boot());
}

TEST_P(Card, HandsItsBuffersOverInTurnAndCountsWhatTheHostMisses) {
    host.boot();
    host.wait(layout.period_ms - 1);
    EXPECT_EQ("0", host.follow("?"));
    host.wait(1);
    // Buffer 0 comes back after its turn has passed.
    EXPECT_EQ("130", host.follow("?ww?01?"));
    host.follow("ww");
    EXPECT_EQ(4, host.counter(1));
    EXPECT_EQ(5, host.counter(0));
    EXPECT_THAT((std::vector{report.handOvers, report.served, report.missed}),
                ElementsAre(4, 2, 1));
    host.holdInReset();
    EXPECT_EQ("0", host.follow("?"));
}

TEST_P(Card, FillsABufferWhereTheHostLooksForIt) {
    const auto textFor = [](int port) {
        return std::to_string(port) + "0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456789";
    };
    host.boot();
    for (int port = 0; port <= last; ++port) {
        line(port).setLevel(static_cast<std::uint16_t>(0x1000 * port + 7));
        line(port).setOffHook(port == last);
        line(port).setRinging(port == 1);
        line(port).dial(textFor(port));
        line(port).callFrom(textFor(port));
    }
    const int first = host.exchange();
    const int second = host.exchange();
    // What is too long: the digits go on in the next buffer, the caller is cut.
    const auto room = static_cast<std::size_t>(layout.digitsLength - 1);
    for (int port = 0; port <= last; ++port) {
        EXPECT_EQ(0x1000 * port + 7, field(first, port, 0) & 0x7FFF);
        EXPECT_EQ(port == last ? 1 : 0, field(first, port, 2));
        EXPECT_EQ(port == 1 ? 1 : 0, field(first, port, 6));
        EXPECT_EQ(textFor(port).substr(0, room), text(first, port, layout.digits));
        EXPECT_EQ(textFor(port).substr(room, room), text(second, port, layout.digits));
        EXPECT_EQ(textFor(port).substr(0, 49), text(first, port, layout.caller));
        EXPECT_EQ("", text(second, port, layout.caller));
    }
}

TEST_P(Card, ShowsOneLineAWordOrTwo) {
    line(0).setOffHook(true);
    line(1).setSpeaking(true);
    line(last).setOffHook(true);
    line(last).setSpeaking(true);
    const std::vector<int> seen = {host.in(0x306), host.in(0x308), host.in(0x30A), host.in(0x30C)};
    EXPECT_EQ(GetParam() == 4 ? std::vector({0, 4, 4, 0}) : std::vector({0x84, 0, 0, 0xC0}), seen);
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
    set(last, 0x7777, 65'001);
    set(0, 0x2000, 3 * layout.period_ms);
    EXPECT_THAT((std::vector{voice(), voice(), voice(), voice()}), ElementsAre(1, 1, 1, 0));
    EXPECT_EQ(0x7777, line(last).settings().trigger);
    line(0).setSpeaking(true);
    EXPECT_EQ(1, voice());
    // Never means at once, whatever the delay; off hook means the hook.
    set(0, 0xFF01, 60'000);
    set(1, 0xFF02, 0);
    host.exchange();
    EXPECT_EQ(0, voice());
    line(1).setSpeaking(true);
    EXPECT_EQ(0, field(host.exchange(), 1, 4));
    line(1).setOffHook(true);
    EXPECT_EQ(1, field(host.exchange(), 1, 4));
}

TEST_P(Card, MayBeAbsentEchoSomethingElseOrNotTakeABootByte) {
    Host absent = hostWith(FaultKind::kAbsent, 1, 9);
    absent.holdInReset();
    EXPECT_EQ(0xFFFF, absent.in(0x300) & absent.in(0x302) & absent.in(0x304) & absent.in(0x306));
    Host wrong = hostWith(FaultKind::kWrongEcho, 2, 3);
    wrong.holdInReset();
    wrong.out(0x300, 0x55);
    EXPECT_THAT((std::vector{wrong.in(0x300), wrong.in(0x300), wrong.in(0x300), wrong.in(0x300)}),
                ElementsAre(0x55, 0xAA, 0xAA, 0x55));
    for (const std::uint64_t byte : {1, 2, 22}) {
        for (const FaultKind kind : {FaultKind::kByteRefused, FaultKind::kByteStuck}) {
            Host faulty = hostWith(kind, byte, byte);
            EXPECT_EQ(byte - 1, static_cast<std::uint64_t>(faulty.boot()));
            faulty.wait(1000);
            faulty.out(0x302, 0x1A);
            EXPECT_EQ(kindBit | (kind == FaultKind::kByteStuck ? 1 : 0), faulty.in(0x302));
            EXPECT_EQ(22, faulty.boot());
            EXPECT_EQ(1u, faulty.report.cards[0].faults);
        }
    }
}

TEST_P(Card, MayTakeBuffersBackOrHandBothOverAtOnce) {
    Host fickle = hostWith(FaultKind::kTakenBack, 1, 1);
    fickle.boot();
    EXPECT_EQ("10", fickle.follow("w??0"));
    EXPECT_EQ(0u, fickle.report.cards[0].served);
    EXPECT_EQ("33", fickle.follow("ww??"));

    // When the second buffer comes, the first is not free yet: no opportunity.
    Host both = hostWith(FaultKind::kBothBuffers, 2, 2);
    both.boot();
    EXPECT_EQ("31", both.follow("ww01w?01w?"));
    EXPECT_EQ(5, both.counter(0));
    EXPECT_EQ(4, both.counter(1));
}

TEST(Faults, StrikeAtRandomAsTheSeedHasIt) {
    const auto strikes = [](std::uint64_t seed) {
        const Fault fault = {FaultKind::kNonsense, 1, 1, Fault::kForEver, 0.2};
        cardsim::Faults faults({fault}, 1, seed);
        std::vector<int> found;
        for (int i = 0; i < 500; ++i) {
            if (faults.strikes(fault.kind) != nullptr) {
                found.push_back(i);
            }
        }
        return found;
    };
    EXPECT_EQ(strikes(7), strikes(7));
    EXPECT_NE(strikes(7), strikes(8));
    EXPECT_NEAR(100, static_cast<int>(strikes(7).size()), 40);
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
    const auto plan = [&](std::uint64_t time, char name) {
        host.cards.at(
            time, [&, name] { order += name + std::to_string(host.report.cards[0].handOvers); });
    };
    plan(turn, 'a');
    host.cards.at(turn, [&] { plan(turn, 'c'); });
    plan(turn, 'b');
    host.cards.advance(turn - 1);
    EXPECT_EQ("", order);
    host.cards.advance(turn + 1);
    plan(5, 'e');
    host.cards.advance(turn + 1);
    EXPECT_EQ("a0b0c0e1", order);
}

}  // namespace
