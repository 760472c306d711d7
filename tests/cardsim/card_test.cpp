// One simulated card as a host meets it, of both kinds.
#include "model/Card.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

#include "Host.h"

namespace {

using cardsim::patternWord;
using testing::ElementsAre;

class Card : public testing::TestWithParam<int> {
  protected:
    Card() : layout(hostLayout(GetParam())), host(GetParam()) {}

    int field(int buffer, int port, int byteOffset) {
        return host.word(buffer, layout.firstPort + port * layout.portLength + byteOffset);
    }
    std::string text(int buffer, int port, int byteOffset) {
        return host.text(buffer, layout.firstPort + port * layout.portLength + byteOffset);
    }
    // The next buffer is handed over and released; its number.
    int exchange() {
        host.wait(period());
        const int buffer = host.handedOver() == 1 ? 0 : 1;
        host.release(buffer);
        return buffer;
    }
    std::uint64_t period() const { return static_cast<std::uint64_t>(layout.period_ms); }
    int kindBit() const { return GetParam() == 8 ? 4 : 0; }
    cardsim::Line& line(int port) { return host.cards.line(port); }

    const HostLayout& layout;
    Host host;
};

INSTANTIATE_TEST_SUITE_P(Kinds, Card, testing::Values(4, 8));

TEST_P(Card, EchoesOnlyInResetWhichTakesBothWrites) {
    ASSERT_EQ(22, host.boot());
    host.out(0x300, 0x55);
    EXPECT_EQ(0xFF, host.in(0x300));
    host.out(0x30E, 9);
    host.out(0x302, 0x12);
    EXPECT_TRUE(host.cards.card(0).isRunning());
    host.out(0x30E, 8);
    EXPECT_TRUE(host.cards.card(0).isRunning());
    host.out(0x302, 0x12);
    EXPECT_FALSE(host.cards.card(0).isRunning());
    for (const int byte : {0x55, 0xAA, 0x00}) {
        host.out(0x300, byte);
        EXPECT_EQ(byte, host.in(0x300));
    }
    EXPECT_EQ(kindBit(), host.in(0x302));
    host.out(0x302, 0x1A);
    EXPECT_EQ(0x20 | kindBit(), host.in(0x302));
    EXPECT_EQ(0xFF, host.in(0x300));
}

TEST_P(Card, BootsWithFiveAccessesAByteAndKeepsTheImage) {
    host.restart();
    const std::uint64_t before = host.report.portAccesses;
    ASSERT_EQ(30, host.send({0x08AA, 0x7FFF, 0xF800, 1, 0x80, 2, 0, 0x80, 0x1234, 0xFFFF, 1, 0x7F,
                             0xFFFF, 0x4321, 0}));
    EXPECT_EQ(before + 5 * 30, host.report.portAccesses);
    EXPECT_TRUE(host.cards.card(0).isRunning());
    const cardsim::BootRom& rom = host.cards.card(0).bootRom();
    EXPECT_EQ(0x80, rom.entryPoint());
    ASSERT_EQ(2u, rom.image().size());
    EXPECT_THAT(rom.image()[0].words, ElementsAre(0x1234, 0xFFFF));
    EXPECT_EQ(0x7F, rom.image()[1].page);
    EXPECT_EQ(0xFFFF, rom.image()[1].address);
    EXPECT_THAT(rom.image()[1].words, ElementsAre(0x4321));
    const cardsim::CardReport& report = host.report.cards[0];
    EXPECT_EQ(1u, report.boots);
    EXPECT_EQ(3u, report.imageWords);
    EXPECT_EQ(0x5554u, report.imageChecksum);
    EXPECT_EQ(0x1233, report.blocks[0].checksum);
    ASSERT_EQ(22, host.boot());
    EXPECT_EQ(2u, report.boots);
    EXPECT_EQ(0x1233u, report.imageChecksum);
}

TEST_P(Card, IsDeafAfterABrokenTableUntilReset) {
    struct Row {
        const char* what;
        std::vector<int> words;
        int taken;
    };
    for (const Row& row : {
             Row{"keyword of the 16-bit mode", {0x10AA, 0x7FFF}, 2},
             Row{"keyword with its bytes swapped", {0xAA08, 0x7FFF}, 2},
             Row{"entry page beyond the last", {0x08AA, 0, 0, 0x80, 0x80}, 8},
             Row{"block page beyond the last", {0x08AA, 0, 0, 0, 0x80, 1, 0x80, 0x80}, 14},
             Row{"block past its page", {0x08AA, 0, 0, 0, 0x80, 2, 0, 0xFFFF, 1}, 16},
         }) {
        host.restart();
        EXPECT_EQ(row.taken, host.send(row.words)) << row.what;
        host.wait(1000);
        host.out(0x302, 0x1A);
        EXPECT_EQ(kindBit(), host.in(0x302)) << row.what;
    }
    EXPECT_EQ(0u, host.report.cards[0].boots);
    EXPECT_EQ(22, host.boot());
}

TEST_P(Card, IsDeafAfterAStrobeThatItDidNotAskFor) {
    host.restart();
    host.out(0x300, 0x08);
    host.out(0x302, 0x0A);
    host.out(0x300, 0xAA);
    host.out(0x302, 0x0A);
    host.out(0x302, 0x1A);
    EXPECT_EQ(kindBit(), host.in(0x302));
    EXPECT_EQ(22, host.boot());
}

TEST_P(Card, IsNotDisturbedByRegisterDefaultsWhileItWaitsForABlock) {
    host.restart();
    ASSERT_EQ(10, host.send({0x08AA, 0x7FFF, 0xF800, 0, 0x80}));
    host.out(0x302, host.in(0x302) & 0xFFFE);
    host.out(0x304, 0);
    for (int port = 0x306; port <= 0x30E; port += 2) {
        host.out(port, 0x11);
        EXPECT_EQ(0x11, host.cards.card(0).written(static_cast<std::uint16_t>(port - 0x300)));
    }
    ASSERT_EQ(2, host.send({0}));
    EXPECT_EQ(1u, host.report.cards[0].boots);
    EXPECT_EQ(0u, host.report.cards[0].imageWords);
    host.wait(period());
    EXPECT_EQ(1, host.handedOver());
}

TEST_P(Card, HandsItsBuffersOverInTurnAndCountsWhatTheHostMisses) {
    host.boot();
    host.wait(period() - 1);
    EXPECT_EQ(0, host.handedOver());
    host.wait(1);
    EXPECT_EQ(1, host.handedOver());
    EXPECT_EQ(1, host.counter(0));
    host.wait(period());
    EXPECT_EQ(3, host.handedOver());
    EXPECT_EQ(2, host.counter(1));
    // Buffer 0 comes back after its next turn has passed; buffer 1 in time.
    host.wait(period());
    host.release(0);
    host.release(1);
    EXPECT_EQ(0, host.handedOver());
    EXPECT_EQ(1, host.counter(0));
    host.wait(period());
    EXPECT_EQ(2, host.handedOver());
    EXPECT_EQ(4, host.counter(1));
    host.wait(period());
    EXPECT_EQ(3, host.handedOver());
    EXPECT_EQ(5, host.counter(0));
    const cardsim::CardReport& report = host.report.cards[0];
    EXPECT_EQ(4u, report.handOvers);
    EXPECT_EQ(2u, report.served);
    EXPECT_EQ(1u, report.missed);
    host.holdInReset();
    EXPECT_EQ(0, host.handedOver());
    host.boot();
    host.wait(period());
    EXPECT_EQ(1, host.handedOver());
    EXPECT_EQ(1, host.counter(0));
}

TEST_P(Card, ForgetsNothingInADayWithoutAHost) {
    host.boot();
    host.wait(24 * 3600 * 1000);
    const std::uint64_t turns = 24 * 3600 * 1000 / period();
    EXPECT_EQ(2u, host.report.cards[0].handOvers);
    EXPECT_EQ(turns - 2, host.report.cards[0].missed);
    EXPECT_EQ(turns, host.cards.card(0).counter());
}

TEST_P(Card, FillsABufferWhereTheHostLooksForIt) {
    host.boot();
    const std::string digits = "0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456789";
    for (int port = 0; port < layout.ports; ++port) {
        line(port).setLevel(static_cast<std::uint16_t>(0x1000 * port + 7));
        line(port).dial(std::to_string(port));
        line(port).callFrom("caller " + std::to_string(port));
    }
    const int last = layout.ports - 1;
    line(last).setOffHook(true);
    line(last).setRinging(true);
    line(1).dial(digits);
    line(1).callFrom(std::string(60, 'c'));
    const int buffer = exchange();
    for (int port = 0; port < layout.ports; ++port) {
        EXPECT_EQ(0x1000 * port + 7, field(buffer, port, 0) & 0x7FFF);
        EXPECT_EQ(port == last ? 1 : 0, field(buffer, port, 2));
        EXPECT_EQ(port == last ? 1 : 0, field(buffer, port, 6));
        for (int word = 0; word < layout.audioLength / 2; ++word) {
            ASSERT_EQ(patternWord(0, static_cast<unsigned>(port), 1, static_cast<unsigned>(word)),
                      field(buffer, port, 8 + 2 * word));
        }
        if (port != 1) {
            EXPECT_EQ(std::to_string(port), text(buffer, port, layout.digits));
            EXPECT_EQ("caller " + std::to_string(port), text(buffer, port, layout.caller));
        }
    }
    // What is too long: the digits go on in the next buffer, the caller is cut.
    const auto room = static_cast<std::size_t>(layout.digitsLength - 1);
    EXPECT_EQ(("1" + digits).substr(0, room), text(buffer, 1, layout.digits));
    EXPECT_EQ(std::string(49, 'c'), text(buffer, 1, layout.caller));
    const int next = exchange();
    EXPECT_EQ(("1" + digits).substr(room, room), text(next, 1, layout.digits));
    EXPECT_EQ("", text(next, 1, layout.caller));
    EXPECT_EQ("", text(next, 0, layout.digits));
    // Nothing is written behind the layout.
    for (int offset = layout.length + 1; offset < 0x1000; offset += 2) {
        ASSERT_EQ(0, host.word(buffer, offset));
    }
}

TEST_P(Card, AppliesSettingsOfEachLineOnceAndClearsThem) {
    host.boot();
    const int last = layout.ports - 1;
    for (int port = 0; port < layout.ports; ++port) {
        host.orderSettings(1, port, port, 100 * port, 1000 + port);
    }
    exchange();
    EXPECT_EQ(0u, host.report.cards[0].commands[0]);
    exchange();
    EXPECT_EQ(0, host.word(1, 4));
    EXPECT_EQ(last, line(last).settings().beep);
    EXPECT_EQ(100 * last, line(last).settings().trigger);
    EXPECT_EQ(1000 + last, line(last).settings().delay_ms);
    exchange();
    exchange();
    for (int port = 0; port < layout.ports; ++port) {
        EXPECT_EQ(1u, host.report.cards[0].commands[port]);
    }
}

TEST_P(Card, FlagsVoiceByTheLinesOwnThresholdAndDelay) {
    host.boot();
    const auto flag = [this] { return field(exchange(), 0, 0) >> 15; };
    // Before any settings: step 4 of the kind of card.
    const int standard = GetParam() == 4 ? 0x115F : 0x0A1F;
    line(0).setLevel(static_cast<std::uint16_t>(standard - 1));
    EXPECT_EQ(0, flag());
    line(0).setLevel(static_cast<std::uint16_t>(standard));
    EXPECT_EQ(1, flag());
    // A lower level than the new threshold asks for, held for the new delay.
    host.orderSettings(0, 0, 0, 0x2000, 2 * layout.period_ms + 1);
    while (line(0).settings().trigger != 0x2000) {
        exchange();
    }
    EXPECT_EQ(1, flag());
    EXPECT_EQ(1, flag());
    EXPECT_EQ(0, flag());
    line(0).setSpeaking(true);
    EXPECT_EQ(1, flag());
    // Never means at once, whatever the delay.
    host.orderSettings(0, 0, 0, 0xFF01, 60'000);
    host.orderSettings(1, 0, 0, 0xFF01, 60'000);
    exchange();
    EXPECT_EQ(0, flag());
    line(0).setLevel(0xFFFF);
    EXPECT_EQ(0, flag());
    EXPECT_EQ(0x7FFF, line(0).level());
}

TEST_P(Card, TriggersByVoiceOrByTheHookAsTheLineIsSet) {
    host.boot();
    host.orderSettings(0, 0, 0, 0xFF02, 0);
    host.orderSettings(0, 1, 0, 0x100, 0);
    exchange();
    const auto triggered = [this](int port) { return field(exchange(), port, 4); };
    line(0).setSpeaking(true);
    line(1).setOffHook(true);
    EXPECT_EQ(0, triggered(0));
    EXPECT_EQ(0, triggered(1));
    line(0).setOffHook(true);
    line(1).setSpeaking(true);
    EXPECT_EQ(1, triggered(0));
    EXPECT_EQ(1, triggered(1));
}

TEST_P(Card, PlaysWhatTheHostLeavesUnlessItIsACommand) {
    host.boot();
    std::vector<std::string> played;
    host.cards.card(0).connectSpeaker(
        [&played](const char* bytes, std::size_t count) { played.emplace_back(bytes, count); });
    for (int i = 0; i < layout.audioLength / 2; ++i) {
        host.word(0, layout.playbackAudio + 2 * i) = static_cast<std::uint16_t>(0x6100 + i % 26);
    }
    host.orderSettings(1, 0, 0, 0, 0);
    exchange();
    exchange();
    ASSERT_EQ(1u, played.size());
    ASSERT_EQ(static_cast<std::size_t>(layout.audioLength), played[0].size());
    EXPECT_EQ(std::string("\x00\x61\x01\x61", 4), played[0].substr(0, 4));
    EXPECT_EQ('\x61', played[0].back());
    EXPECT_EQ(static_cast<std::uint64_t>(layout.audioLength), host.report.cards[0].bytesPlayed);
}

TEST(LineStatus, OfFourChannelsClearsABitWhenOffHook) {
    Host host(4);
    host.cards.line(2).setOffHook(true);
    EXPECT_THAT((std::vector{host.in(0x306), host.in(0x308), host.in(0x30A), host.in(0x30C)}),
                ElementsAre(4, 4, 0, 4));
}

TEST(LineStatus, OfEightChannelsSetsBitsOfTwoLinesAWord) {
    Host host(8);
    host.cards.line(0).setOffHook(true);
    host.cards.line(3).setOffHook(true);
    host.cards.line(4).setSpeaking(true);
    host.cards.line(7).setOffHook(true);
    host.cards.line(7).setSpeaking(true);
    EXPECT_THAT((std::vector{host.in(0x306), host.in(0x308), host.in(0x30A), host.in(0x30C)}),
                ElementsAre(0x04, 0x40, 0x08, 0xC0));
}

TEST(PleasantAudio, HumsWhenIdleAndSwingsWhileSomeoneSpeaks) {
    const auto swing = [](bool speaking) {
        int lowest = 255;
        int highest = 0;
        for (std::uint64_t sample = 0; sample < 1333; sample += 2) {
            const std::uint16_t word = cardsim::pleasantWord(1, speaking, sample);
            EXPECT_EQ(word >> 8, cardsim::pleasantWord(1, speaking, sample + 1) & 0xFF);
            lowest = std::min(lowest, word & 0xFF);
            highest = std::max(highest, word & 0xFF);
        }
        return std::pair(lowest, highest);
    };
    EXPECT_EQ(std::pair(125, 131), swing(false));
    const auto [lowest, highest] = swing(true);
    EXPECT_GT(lowest, 0);
    EXPECT_LT(lowest, 90);
    EXPECT_GT(highest, 166);
    EXPECT_LT(highest, 255);
}

}  // namespace
