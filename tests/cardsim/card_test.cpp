// The simulated cards as a host meets them: one of each kind, with and without faults, and both
// slots of the PC.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Host.h"

namespace {

class Card : public testing::TestWithParam<int> {
  protected:
    // Settings for a line, taken at the card's next two turns.
    void set(int port, int trigger, int delay_ms) {
        for (const bool isSecond : {false, true}) {
            host.withBuffer(isSecond, [=](auto& transfer) {
                transfer.command.instruction = 2;
                transfer.command.settings[port] = {0, std::uint16_t(trigger),
                                                   std::uint16_t(delay_ms)};
            });
        }
    }
    bool triggered(int port) {
        return host.exchange([port](auto& transfer) {
            const auto& data = transfer.recordingPortData[port];
            EXPECT_TRUE(port == 1 || data.triggered == data.voiceLevel >> 15);
            return data.triggered != 0;
        });
    }
    // A text behind its length.
    static std::string textIn(const char* field) { return {field + 1, std::size_t(field[0])}; }
    cardsim::Line& line(int port) { return host.cards.line(port); }

    const int last = GetParam() - 1;
    Host host{GetParam()};
    const cardsim::CardReport& report = host.report.cards[0];
};

INSTANTIATE_TEST_SUITE_P(Kinds, Card, testing::Values(4, 8));

TEST_P(Card, EchoesOnlyInResetWhichTakesBothWrites) {
    ASSERT_EQ(22, host.boot());
    EXPECT_EQ("FF FFFF ", host.follow("300=155 30E=9 302=12 300 2FC"));
    EXPECT_EQ("55 0 FF 20 ", host.follow("30E=8 302=12 300 302 302=1A 300 302"));
    EXPECT_EQ(GetParam() == 8 ? 4 : 0, host.in(0x302) & 4);
}

TEST_P(Card, IsDeafAfterABrokenTableUntilReset) {
    const std::pair<int, std::vector<int>> kTables[] = {
        {2, {0x10AA, 0x7FFF}},                           // keyword of another mode
        {8, {0x08AA, 0, 0, 0x80, 0x80}},                 // entry page beyond the last
        {14, {0x08AA, 0, 0, 0, 0x80, 1, 0x80, 0x80}},    // block page beyond the last
        {16, {0x08AA, 0, 0, 0, 0x80, 2, 0, 0xFFFF, 1}},  // block past its page
        {0, {}},                                         // below, a byte that it did not ask for
    };
    for (const auto& [taken, words] : kTables) {
        EXPECT_EQ(taken, host.boot(0x300, words));
        EXPECT_EQ("0 ", host.follow("300=8 302=A 300=AA 302=A 302=1A w1000 302"));
    }
    EXPECT_EQ(0u, report.boots);
    EXPECT_EQ(22, host.boot());
}

TEST_P(Card, HandsItsBuffersOverInTurnAndCountsWhatTheHostMisses) {
    const auto counter = [](auto& transfer) { return int(transfer.bufferCounter); };
    host.boot();
    host.wait(host.period_ms - 1);
    EXPECT_EQ("0 1 ", host.follow("302 w1 302"));
    // Buffer 0 comes back after its turn has passed.
    EXPECT_EQ("1 1 0 0 ", host.follow("w w 302 304 302=1A 304=1A 304=1A 302 304"));
    EXPECT_EQ("1 1 ", host.follow("w w 302 304"));
    EXPECT_EQ(5, host.withBuffer(false, counter));
    EXPECT_EQ(4, host.withBuffer(true, counter));
    EXPECT_EQ((std::vector<std::uint64_t>{4, 2, 1}),
              (std::vector{report.handOvers, report.served, report.missed}));
    EXPECT_EQ("0 0 ", host.follow("30E=8 302=12 302 304"));
    host.boot();
    EXPECT_EQ(1, host.exchange(counter));
}

TEST_P(Card, FillsABufferWhereTheHostLooksForIt) {
    // What is too long: the digits go on in the next buffer, the caller is cut.
    const std::string text = "0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456789";
    host.boot();
    for (int port = 0; port <= last; ++port) {
        line(port).setLevel(std::uint16_t(0x1000 * port + 7));
        line(port).setOffHook(port == last);
        line(port).setRinging(port == 1);
        line(port).dial(text.substr(std::size_t(port)));
        line(port).callFrom(text.substr(std::size_t(port)));
    }
    const auto check = [&](std::size_t turn, auto& transfer) {
        for (int port = 0; port <= last; ++port) {
            const auto& data = transfer.recordingPortData[port];
            const std::size_t room = sizeof data.DTMFBuffer - 1;
            EXPECT_EQ(0x1000 * port + 7, data.voiceLevel & 0x7FFF);
            EXPECT_EQ(port == last, data.offHook != 0);
            EXPECT_EQ(port == 1, data.ringing != 0);
            EXPECT_EQ(text.substr(std::size_t(port) + turn * room, room), textIn(data.DTMFBuffer));
            EXPECT_EQ(text.substr(std::size_t(port), turn == 0 ? 49 : 0), textIn(data.CLIBuffer));
        }
    };
    host.exchange([&](auto& transfer) { check(0, transfer); });
    host.exchange([&](auto& transfer) { check(1, transfer); });
}

TEST_P(Card, ShowsOneLineAWordOrTwo) {
    line(0).setOffHook(true);
    line(1).setSpeaking(true);
    line(last).setOffHook(true);
    line(last).setSpeaking(true);
    EXPECT_EQ(GetParam() == 4 ? "0 4 4 0 " : "84 0 0 C0 ", host.follow("306 308 30A 30C"));
}

TEST_P(Card, FollowsEachLinesOwnSettings) {
    host.boot();
    // Before any settings: step 4 of the kind of card.
    const int standard = GetParam() == 4 ? 0x115F : 0x0A1F;
    for (const int level : {standard - 1, standard}) {
        line(0).setLevel(std::uint16_t(level));
        EXPECT_EQ(level == standard, triggered(0));
    }
    // A higher threshold: held for the new delay, then quiet.
    set(last, 0x7777, 65'001);
    set(0, 0x2000, 3 * host.period_ms);
    for (const bool isHeld : {true, true, true, false}) {
        EXPECT_EQ(isHeld, triggered(0));
    }
    EXPECT_EQ(0x7777, line(last).settings().trigger);
    line(0).setSpeaking(true);
    EXPECT_TRUE(triggered(0));
    // Never means at once, whatever the delay; off hook means the hook.
    set(0, 0xFF01, 60'000);
    set(1, 0xFF02, 0);
    triggered(1);
    EXPECT_FALSE(triggered(0));
    line(1).setSpeaking(true);
    EXPECT_FALSE(triggered(1));
    line(1).setOffHook(true);
    EXPECT_TRUE(triggered(1));
}

TEST_P(Card, FailsAsItsFaultsSay) {
    const struct {
        const char *fault, *script, *answer;
        std::uint64_t struck = 1;
    } kRows[] = {
        {"absent@1-3", "300=55 300 304 300=66 300", "FFFF FFFF 66 ", 3},
        {"absent/1", "300=55 300", "55 ", 0},
        {"wrong-echo@2-3", "300=55 300 300 300 300", "55 AA AA 55 ", 2},
        {"byte-refused@1", "boot 302=1A 302 boot", "0 0 22 "},
        {"byte-refused@2", "boot 302=1A 302 boot", "1 0 22 "},
        {"byte-refused@22", "boot 302=1A 302 boot", "21 0 22 "},
        {"byte-stuck@1", "boot 302=1A 302 boot", "0 1 22 "},
        {"byte-stuck@22", "boot 302=1A 302 boot", "21 1 22 "},
        {"nonsense:digits@1", "boot w", "22 "},
        {"taken-back@1", "boot w 302 302 302=1A w w 302 304", "22 1 0 1 1 "},
        // When the second buffer comes, the first is not free yet: no opportunity.
        {"both-buffers@2", "boot w w 302=1A 304=1A w 302 304 302=1A 304=1A w 302 304",
         "22 1 1 1 0 "},
    };
    for (const auto& [fault, script, answer, struck] : kRows) {
        Host faulty(GetParam(), 0, {fault});
        EXPECT_EQ(answer, faulty.follow(script)) << fault;
        EXPECT_EQ(struck, faulty.report.cards[0].faults) << fault;
    }
}

// An access over the last register of a card reaches the next card or nobody.
TEST(Cards, AnswerAtTheirOwnPortsInEveryWidth) {
    Host host(0, 8);
    EXPECT_EQ(0xFF, host.in(0x300, 1));
    EXPECT_EQ(-1, host.in(0x300, 4));
    for (const auto& [port, byte] :
         {std::pair(0x31E, 8), {0x312, 0x12}, {0x310, 0x55}, {0x311, 3}}) {
        host.out(port, byte, 1);
    }
    EXPECT_EQ(0x0055FFFF, host.in(0x30E, 4));
    EXPECT_EQ(-1, host.in(0x31E, 4));
    EXPECT_EQ(4 << 8, host.in(0x311, 2));
    // Data and control in one; the echo of 0x77 shows that it is still held in reset.
    host.out(0x310, 0x00120077, 4);
    EXPECT_EQ(0x00040077, host.in(0x310, 4));
}

TEST(Cards, DoWhatIsPlannedInOrderAndGoOnWithTheReport) {
    Host host(4);
    host.boot();
    const std::uint64_t turn = host.now_us + 450'000;
    std::string order;
    const auto note = [&](const char* name) {
        return [&, name] { order += name + std::to_string(host.report.cards[0].handOvers); };
    };
    host.cards.at(turn, note("a"));
    host.cards.at(turn, [&] { host.cards.at(turn, note("c")); });
    host.cards.at(turn, note("b"));
    host.cards.advance(turn - 1);
    order += '|';
    host.cards.advance(turn + 1);
    host.cards.at(5, note("e"));
    host.cards.advance(turn + 1);
    EXPECT_EQ("|a0b0c0e1", order);
    // The report goes on when somebody else gets the cards anew.
    cardsim::Cards({std::nullopt, std::nullopt}, host.memory.data(), host.report).advance(5);
    EXPECT_EQ(turn + 6, host.report.elapsed_us);
    EXPECT_EQ(1u, host.report.cards[0].handOvers);
}

}  // namespace
