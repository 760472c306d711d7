// Both slots of the PC: who answers at which port, in which width, and what is planned when.
#include "model/Cards.h"

#include <gtest/gtest.h>

#include "Host.h"

namespace {

class Pairing : public testing::TestWithParam<std::pair<int, int>> {};

INSTANTIATE_TEST_SUITE_P(All, Pairing,
                         testing::Values(std::pair(0, 0), std::pair(4, 0), std::pair(8, 0),
                                         std::pair(0, 4), std::pair(0, 8), std::pair(4, 4),
                                         std::pair(4, 8), std::pair(8, 4), std::pair(8, 8)));

TEST_P(Pairing, AnswersAtItsOwnPortsInEveryWidth) {
    const int channels[2] = {GetParam().first, GetParam().second};
    Host host(channels[0], channels[1]);
    EXPECT_EQ(channels[0] + channels[1], host.cards.lines());
    for (int slot = 0; slot < 2; ++slot) {
        const int base = 0x300 + 0x10 * slot;
        const int status = channels[slot] == 8 ? 4 : 0;
        host.out(base + 14, 8, 1);
        host.out(base + 2, 0x12, 1);
        host.out(base, 0x55, 1);
        if (channels[slot] == 0) {
            EXPECT_EQ(0xFF, host.in(base, 1));
            EXPECT_EQ(-1, host.in(base, 4));
            continue;
        }
        EXPECT_EQ(0x55, host.in(base, 1));
        host.out(base + 1, 0x33, 1);
        EXPECT_EQ(0x55, host.in(base, 2));
        EXPECT_EQ(status << 8, host.in(base + 1, 2));
        // Data and control in one; the echo of 0x77 shows that it is still held in reset.
        host.out(base, 0x00120077, 4);
        EXPECT_EQ(status << 16 | 0x77, host.in(base, 4));
        EXPECT_EQ(22, host.boot(base));
        host.wait(450);
        EXPECT_EQ(0xA000 | slot << 8 | 1, host.word(0, channels[slot] == 4 ? 754 : 458, slot));
        EXPECT_EQ(&host.cards.card(slot).line(3), &host.cards.line(slot * channels[0] + 3));
    }
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
