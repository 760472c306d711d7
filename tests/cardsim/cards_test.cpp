// Both slots of the PC: who answers at which port, in which width, and what is planned when.
#include "model/Cards.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Host.h"

namespace {

using testing::ElementsAre;

class Pairing : public testing::TestWithParam<std::pair<int, int>> {
  protected:
    Pairing() : channels{GetParam().first, GetParam().second}, host(channels[0], channels[1]) {}

    std::uint32_t read(int port, int bytes) {
        return host.cards.in(static_cast<std::uint16_t>(port), bytes, ++host.now_us);
    }
    void write(int port, int bytes, std::uint32_t value) {
        host.cards.out(static_cast<std::uint16_t>(port), bytes, value, ++host.now_us);
    }

    const int channels[2];
    Host host;
};

INSTANTIATE_TEST_SUITE_P(All, Pairing,
                         testing::Values(std::pair(0, 0), std::pair(4, 0), std::pair(8, 0),
                                         std::pair(0, 4), std::pair(0, 8), std::pair(4, 4),
                                         std::pair(4, 8), std::pair(8, 4), std::pair(8, 8)));

TEST_P(Pairing, AnswersAtItsOwnPortsInEveryWidth) {
    for (int slot = 0; slot < 2; ++slot) {
        const int base = 0x300 + 0x10 * slot;
        const std::uint32_t status = channels[slot] == 8 ? 4 : 0;
        write(base + 14, 1, 8);
        write(base + 2, 1, 0x12);
        if (channels[slot] == 0) {
            write(base, 1, 0x55);
            EXPECT_EQ(0xFFu, read(base, 1));
            EXPECT_EQ(0xFFFFu, read(base, 2));
            EXPECT_EQ(0xFFFFFFFFu, read(base, 4) | read(base + 2, 4));
            continue;
        }
        write(base, 1, 0x55);
        EXPECT_EQ(0x55u, read(base, 1));
        write(base, 2, 0x12AA);
        EXPECT_EQ(0xAAu, read(base, 2));
        write(base + 1, 1, 0x33);
        EXPECT_EQ(0xAAu, read(base, 1));
        EXPECT_EQ(0x00u, read(base + 1, 1));
        EXPECT_EQ(status << 8, read(base + 1, 2));
        EXPECT_EQ(status << 16 | 0xAA, read(base, 4));
        // Data and control in one: the echo of 0x77 shows that it is still held in reset.
        write(base, 4, 0x00120077);
        EXPECT_EQ(0x77u, read(base, 2));
        write(base, 4, 0x001A0000);
        EXPECT_EQ(status | 0x20, read(base + 2, 2));
        EXPECT_EQ(0xFFFFu, read(base + 14, 2));
    }
}

TEST_P(Pairing, BootsEachCardAloneAndNumbersLinesOverBoth) {
    EXPECT_EQ(channels[0] + channels[1], host.cards.lines());
    for (int slot = 0; slot < 2; ++slot) {
        EXPECT_EQ(static_cast<std::uint32_t>(channels[slot]), host.report.cards[slot].channels);
        EXPECT_EQ(channels[slot] == 0 ? 0 : 22, host.boot(0x300 + 0x10 * slot));
        for (int port = 0; port < channels[slot]; ++port) {
            const int number = slot == 0 ? port : channels[0] + port;
            EXPECT_EQ(&host.cards.card(slot).line(port), &host.cards.line(number));
        }
    }
    host.wait(450);
    for (int slot = 0; slot < 2; ++slot) {
        if (channels[slot] != 0) {
            EXPECT_EQ(0xA000 | slot << 8 | 1, host.word(0, channels[slot] == 4 ? 754 : 458, slot));
        }
    }
}

// A 32-bit access over the last register of a card reaches the next card or nobody.
TEST(Cards, EndWhereTheNextBegins) {
    Host host(4, 4);
    host.holdInReset(0x310);
    host.out(0x310, 0x5A);
    EXPECT_EQ(0x005AFFFFu, host.cards.in(0x30E, 4, 10));
    EXPECT_EQ(0xFFFFFFFFu, host.cards.in(0x31E, 4, 11));
    EXPECT_EQ(0xFFFFu, host.cards.in(0x2FE, 2, 12));
    EXPECT_EQ(0xFFFFu, host.cards.in(0x320, 2, 12));
}

TEST(Cards, DoWhatIsPlannedBeforeTheTurnOfThatTimeInTheOrderGiven) {
    Host host(4);
    host.boot();
    const std::uint64_t turn = host.now_us + 450'000;
    std::string order;
    host.cards.at(turn, [&] {
        order += 'a';
        EXPECT_EQ(0u, host.report.cards[0].handOvers);
        host.cards.at(turn, [&] { order += 'c'; });
    });
    host.cards.at(turn, [&order] { order += 'b'; });
    host.cards.at(turn + 1, [&] {
        order += 'd';
        EXPECT_EQ(1u, host.report.cards[0].handOvers);
    });
    host.cards.advance(turn - 1);
    EXPECT_EQ("", order);
    host.cards.advance(turn + 1);
    EXPECT_EQ("abcd", order);
    host.cards.at(5, [&order] { order += 'e'; });
    host.cards.advance(turn + 1);
    EXPECT_EQ("abcde", order);
}

}  // namespace
