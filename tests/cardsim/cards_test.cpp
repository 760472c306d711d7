// Both slots of the PC: who answers at which port, in which width, and what is planned when.
#include "model/Cards.h"

#include <gtest/gtest.h>

#include "Host.h"

namespace {

TEST(Cards, AnswerAtTheirOwnPortsInEveryWidth) {
    Host host(0, 8);
    EXPECT_EQ(8, host.cards.lines());
    EXPECT_EQ(0xFF, host.in(0x300, 1));
    EXPECT_EQ(-1, host.in(0x300, 4));
    host.out(0x31E, 8, 1);
    host.out(0x312, 0x12, 1);
    host.out(0x310, 0x55, 1);
    host.out(0x311, 0x33, 1);
    EXPECT_EQ(0x55, host.in(0x310, 2));
    EXPECT_EQ(4 << 8, host.in(0x311, 2));
    // Data and control in one; the echo of 0x77 shows that it is still held in reset.
    host.out(0x310, 0x00120077, 4);
    EXPECT_EQ(0x00040077, host.in(0x310, 4));
}

// An access over the last register of a card reaches the next card or nobody.
TEST(Cards, EndWhereTheNextBegins) {
    Host host(4, 4);
    host.holdInReset(0x310);
    host.out(0x310, 0x5A);
    EXPECT_EQ(0x005AFFFF, host.in(0x30E, 4));
    EXPECT_EQ(-1, host.in(0x31E, 4));
    EXPECT_EQ(0xFFFF, host.in(0x2FE));
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
