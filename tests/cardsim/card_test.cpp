// One simulated card as a host meets it, of both kinds.
#include "model/Card.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Host.h"

namespace {

using testing::ElementsAre;

class Card : public testing::TestWithParam<int> {
  protected:
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
    // The next buffer is handed over and released; its number.
    int exchange() {
        host.wait(layout.period_ms);
        const int buffer = host.handedOver() == 1 ? 0 : 1;
        host.release(buffer);
        return buffer;
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
    const int kindBit = GetParam() == 8 ? 4 : 0;
    Host host{GetParam()};
    const cardsim::CardReport& report = host.report.cards[0];
};

INSTANTIATE_TEST_SUITE_P(Kinds, Card, testing::Values(4, 8));

TEST_P(Card, EchoesOnlyInResetWhichTakesBothWrites) {
    ASSERT_EQ(22, host.boot());
    host.out(0x300, 0x55);
    EXPECT_EQ(0xFF, host.in(0x300));
    host.out(0x30E, 9);
    host.out(0x302, 0x12);
    EXPECT_TRUE(host.cards.card(0).isRunning());
    host.holdInReset();
    EXPECT_FALSE(host.cards.card(0).isRunning());
    host.out(0x300, 0xAA);
    EXPECT_EQ(0xAA, host.in(0x300));
    EXPECT_EQ(kindBit, host.in(0x302));
    host.out(0x302, 0x1A);
    EXPECT_EQ(0x20 | kindBit, host.in(0x302));
    EXPECT_EQ(0xFF, host.in(0x300));
}

TEST_P(Card, BootsWithFiveAccessesAByteUndisturbedByRegisterDefaults) {
    host.restart();
    const std::uint64_t before = host.report.portAccesses;
    ASSERT_EQ(28, host.send({0x08AA, 0x7FFF, 0xF800, 1, 0x80, 2, 0, 0x80, 0x1234, 0xFFFF, 1, 0x7F,
                             0xFFFF, 0x4321}));
    EXPECT_EQ(before + 5 * 28, host.report.portAccesses);
    host.out(0x302, host.in(0x302) & 0xFFFE);
    host.out(0x304, 0);
    for (int port = 0x306; port <= 0x30E; port += 2) {
        host.out(port, 0x11);
    }
    EXPECT_EQ(0x11, host.cards.card(0).written(0xC));
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
    EXPECT_EQ(1, host.counter(0));
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
    host.wait(layout.period_ms);
    EXPECT_EQ(1, host.handedOver());
    EXPECT_EQ(1, host.counter(0));
}

TEST_P(Card, FillsABufferWhereTheHostLooksForIt) {
    host.boot();
    const std::string digits = "0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456789";
    const int last = layout.ports - 1;
    for (int port = 0; port <= last; ++port) {
        line(port).setLevel(static_cast<std::uint16_t>(0x1000 * port + 7));
        line(port).dial(std::to_string(port));
        line(port).callFrom(port == 1 ? std::string(60, 'c') : "caller " + std::to_string(port));
    }
    line(1).dial(digits);
    line(last).setOffHook(true);
    line(last).setRinging(true);
    const int buffer = exchange();
    for (int port = 0; port <= last; ++port) {
        EXPECT_EQ(0x1000 * port + 7, field(buffer, port, 0) & 0x7FFF);
        EXPECT_EQ(port == last, field(buffer, port, 2) == 1);
        EXPECT_EQ(port == last, field(buffer, port, 6) == 1);
        for (int word = 0; word < layout.audioLength / 2; ++word) {
            ASSERT_EQ(cardsim::patternWord(0, unsigned(port), 1, unsigned(word)),
                      field(buffer, port, 8 + 2 * word));
        }
    }
    EXPECT_EQ(std::to_string(last), text(buffer, last, layout.digits));
    EXPECT_EQ("caller " + std::to_string(last), text(buffer, last, layout.caller));
    // What is too long: the digits go on in the next buffer, the caller is cut.
    const auto room = static_cast<std::size_t>(layout.digitsLength - 1);
    EXPECT_EQ(("1" + digits).substr(0, room), text(buffer, 1, layout.digits));
    EXPECT_EQ(std::string(49, 'c'), text(buffer, 1, layout.caller));
    const int next = exchange();
    EXPECT_EQ(("1" + digits).substr(room, room), text(next, 1, layout.digits));
    EXPECT_EQ("", text(next, 1, layout.caller) + text(next, 0, layout.digits));
    for (int offset = layout.length + 1; offset < 0x1000; offset += 2) {
        ASSERT_EQ(0, host.word(buffer, offset));
    }
}

TEST_P(Card, FollowsEachLinesOwnSettings) {
    host.boot();
    const auto voice = [this] { return field(exchange(), 0, 0) >> 15; };
    // Before any settings: step 4 of the kind of card.
    const int standard = GetParam() == 4 ? 0x115F : 0x0A1F;
    line(0).setLevel(static_cast<std::uint16_t>(standard - 1));
    EXPECT_EQ(0, voice());
    line(0).setLevel(static_cast<std::uint16_t>(standard));
    EXPECT_EQ(1, voice());
    // A higher threshold: held for the new delay, then quiet.
    const int last = layout.ports - 1;
    set(last, 3, 0x7777, 65'001);
    set(0, 0, 0x2000, 2 * layout.period_ms + 1);
    EXPECT_THAT((std::vector{voice(), voice(), voice(), voice()}), ElementsAre(1, 1, 1, 0));
    EXPECT_EQ(3, line(last).settings().beep);
    EXPECT_EQ(0x7777, line(last).settings().trigger);
    EXPECT_EQ(65'001, line(last).settings().delay_ms);
    EXPECT_EQ(2u, report.commands[last]);
    EXPECT_EQ(0, host.word(0, 4) | host.word(1, 4));
    line(0).setSpeaking(true);
    EXPECT_EQ(1, voice());
    // Never means at once, whatever the delay; off hook means the hook.
    set(0, 0, 0xFF01, 60'000);
    set(1, 0, 0xFF02, 0);
    exchange();
    EXPECT_EQ(0, voice());
    line(1).setSpeaking(true);
    EXPECT_EQ(0, field(exchange(), 1, 4));
    line(1).setOffHook(true);
    EXPECT_EQ(1, field(exchange(), 1, 4));
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

}  // namespace
