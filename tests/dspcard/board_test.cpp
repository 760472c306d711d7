// One card's exchange of transfer buffers, for both kinds of card on either board: card memory is
// a plain array here, laid out by this test's own offsets, and the registers read as set.
#include <gmock/gmock.h>

#include <cstring>
#include <random>

#include "BoardMgr.h"
#include "DSPBoardEightChannel.h"
#include "DSPBoardFourChannel.h"
#include "MonitorBuffer.h"
#include "ScriptedCards.h"
#include "Surroundings.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// What the hardware fixes, in bytes from the start of a transfer buffer or of a port in it.
struct Layout {
    int ports, firstPort, portLength, audioLength, digits, maxDigits, caller, command, playback;
};
constexpr Layout kFour = {4, 38, 708, 600, 608, 49, 658, 34, 2878};
constexpr Layout kEight = {8, 62, 388, 300, 308, 29, 338, 58, 3174};

template <class Words>
std::string bytesOf(const Words& words) {
    return {reinterpret_cast<const char*>(std::data(words)), 2 * std::size(words)};
}

class Board : public testing::TestWithParam<std::tuple<Layout, int>> {
  protected:
    Board() {
        BoardMgr::getInstance();
        if (eight) {
            board = std::make_unique<DSPBoardEightChannel>(number, memory.data(), first);
        } else {
            board = std::make_unique<DSPBoardFourChannel>(number, memory.data(), first);
        }
        console.take();
    }

    int portAt(int port, int offset) const {
        return layout.firstPort + port * layout.portLength + offset;
    }
    void setText(int port, int offset, int count, const std::string& text = "") {
        memory[portAt(port, offset)] = static_cast<char>(count);
        memory.replace(portAt(port, offset + 1), text.size(), text);
    }
    // Lets a line speak, or takes its receiver off the hook; the bits beside are noise.
    void activate(int port, TriggerType trigger, bool on) {
        memory[portAt(port, 1)] = on && trigger != TS_OFF_HOOK ? '\x80' : '\x7F';
        const int word = eight ? port / 2 : port;
        const std::uint32_t bit = eight && port % 2 != 0 ? 0x40 : 0x04;
        const bool bitIsSet = (on && trigger == TS_OFF_HOOK) == eight;
        cards.registers[base + 6 + 2 * word] = 0xFFBB | (bitIsSet ? bit : 0);
    }

    // The DSP hands over a buffer, counted as told; the board exchanges it.
    void exchange(int buffer, std::uint32_t counter, Packet* command = nullptr) {
        std::memcpy(&memory[buffer * 0x1000], &counter, sizeof(counter));
        cards.registers[base + 2] = buffer == 0 ? 0x21 : 0x20;
        cards.registers[base + 4] = buffer == 1 ? 1 : 0;
        cards.accesses.clear();
        board->doReadWrite(2 * number + buffer, command);
    }
    void applySettings(std::vector<unsigned char> table) {
        LineSettingsPacket settings;
        settings.read(table.data(), 48);
        exchange(0, ++counted, &settings);
    }
    std::vector<Bytes> reportsOfExchange() {
        exchange(0, ++counted);
        return reportsIn(takePackets());
    }
    std::string playback(int buffer) const {
        return memory.substr(buffer * 0x1000 + layout.playback, layout.audioLength);
    }
    std::string silence() const {
        static constexpr std::uint16_t kPattern[] = {0xBB55, 0x76DB, 0x40A0, 0x00FA, 0xC200,
                                                     0x07D6, 0x0280, 0x03EB, 0x0800, 0x1F58};
        std::string bytes;
        for (int i = 0; i < layout.audioLength / 20; ++i) {
            bytes += bytesOf(kPattern);
        }
        return bytes;
    }

    const Layout layout = std::get<0>(GetParam());
    const int number = std::get<1>(GetParam());
    const bool eight = layout.ports == 8;
    const int first = number == 0 ? 0 : 4;
    const int base = number == 0 ? 0x300 : 0x310;
    const std::string untouched = std::string(layout.audioLength, '\xEE');
    std::string memory = std::string(0x2000, '\0');
    ScriptedCards cards;
    Console console;
    std::unique_ptr<DSPBoard> board;
    std::uint32_t counted = 0;
};

TEST_P(Board, ReportsTextsInOrderWhileRecording) {
    setText(2, layout.digits, 3, "123");
    setText(2, layout.caller, 4, "0815");
    setText(3, layout.digits, 2, "#*");
    EXPECT_THAT(reportsOfExchange(), ElementsAre()) << "nothing but audio before recording";
    BoardMgr::getInstance().startRecording();
    applySettings(settingsTable(TS_VOX_1, 3));
    activate(3, TS_VOX_1, true);
    takePackets();
    console.take();
    exchange(0, ++counted);
    const Packets packets = takePackets();
    EXPECT_THAT(reportsIn(packets), ElementsAre(ElementsAre(1, 1, first + 3),
                                                ElementsAre(3, first + 2, 3, '1', '2', '3'),
                                                ElementsAre(2, first + 2, 4, '0', '8', '1', '5'),
                                                ElementsAre(3, first + 3, 2, '#', '*')));
    EXPECT_EQ(PACKET_RECORDED_DATA, packets.back()->getType());
    EXPECT_EQ(eight ? "Sending CLI Packet to Java: channel=2 length=4\n"
                    : "Sending Packet to Java: channel=2 length=3\n"
                      "Sending CLI Packet to Java: channel=2 length=4\n"
                      "Sending Packet to Java: channel=3 length=2\n",
              console.take().out);

    // Counts that are no counts, and counts beyond the field: the neighbour is never read.
    setText(2, layout.digits, 0x80);
    setText(2, layout.caller, 0xFF);
    setText(3, layout.digits, 127, std::string(layout.maxDigits, 'd'));
    setText(3, layout.caller, 127, std::string(49, 'c'));
    Bytes digits(layout.maxDigits + 3, 'd'), caller(52, 'c');
    std::copy_n(std::begin({3, first + 3, layout.maxDigits}), 3, digits.begin());
    std::copy_n(std::begin({2, first + 3, 49}), 3, caller.begin());
    EXPECT_THAT(reportsOfExchange(), ElementsAre(digits, caller));
}

TEST_P(Board, ReportsEachChangeOfATriggerOnce) {
    BoardMgr::getInstance().startRecording();
    for (int port = 0; port < layout.ports; ++port) {
        activate(port, TS_VOX_6, port == 0);
    }
    EXPECT_THAT(reportsOfExchange(), ElementsAre()) << "none before the first settings";
    for (const TriggerType trigger : {TS_VOX_6, TS_OFF_HOOK}) {
        activate(0, trigger, false);
        applySettings(settingsTable(trigger, 3));
        takePackets();
        for (int port = 0; port < layout.ports; ++port) {
            const Bytes starts = {1, 1, first + port};
            activate(port, trigger, true);
            EXPECT_THAT(reportsOfExchange(), ElementsAre(starts));
            EXPECT_THAT(reportsOfExchange(), ElementsAre());
            board->clearTriggers();
            EXPECT_THAT(reportsOfExchange(), ElementsAre(starts)) << "a new recording hears of it";
            activate(port, trigger, false);
            EXPECT_THAT(reportsOfExchange(), ElementsAre(Bytes{1, 0, first + port}));
        }
    }
}

TEST_P(Board, WritesTheCommandBlockInsteadOfPlayback) {
    using Words = std::vector<std::uint16_t>;
    const Words levels =
        eight ? Words{0xFF01, 0xFF02, 0x02AF, 0x047F, 0x067F, 0x0A1F, 0x0E1F, 0x115F, 0}
              : Words{0xFF01, 0xFF02, 0x04FF, 0x089F, 0x0C9F, 0x115F, 0x155E, 0x1C20, 0};
    for (int round = 0; round < 10; ++round) {
        Words block = {2, 0};
        std::vector<unsigned char> table;
        for (int channel = 0; channel < 16; ++channel) {
            const auto beep = static_cast<unsigned char>(channel + round);
            const auto kind = static_cast<unsigned char>(beep % 9);
            const auto seconds = static_cast<unsigned char>(round == 9 ? 255 : 50 + channel);
            table.insert(table.end(), {beep, kind, seconds});
            if (channel >= first && channel < first + layout.ports) {
                const int delay_ms = std::min<int>(65, seconds) * 1000 + round % 2;
                block.insert(block.end(),
                             {beep, levels[kind], static_cast<std::uint16_t>(delay_ms)});
            }
        }
        block.resize(layout.command / 2);
        memory.assign(0x2000, '\xEE');
        std::string expected = memory;
        expected.replace(0x1004, layout.command, bytesOf(block));
        applySettings(table);
        ASSERT_EQ(expected.substr(4), memory.substr(4)) << "round " << round;
    }
    EXPECT_THAT(console.take().err,
                HasSubstr("Updateing Line Settings!!!\nLineSettingsPacket:\nChan=0 Beep=0, "));
    memory.assign(0x2000, '\xEE');
    exchange(1, 11);
    EXPECT_EQ('\xEE', memory[4]) << "the command is sent once";
    EXPECT_EQ(eight && number != 0, playback(0) == untouched);
}

TEST_P(Board, PlaysTheRingOnBoardZeroAndSilenceOtherwise) {
    auto& ring = MonitorBuffer::getInstance();
    const std::string stored(layout.audioLength, 'm');
    std::string sent(200, 'p');
    PlaybackDataPacket packet;
    packet.read(reinterpret_cast<unsigned char*>(sent.data()), 200);
    const auto expectPlayed = [&](const std::string& onBoardZero, Packet* command = nullptr) {
        memory.assign(0x2000, '\xEE');
        memory.replace(portAt(3, 8), layout.audioLength, layout.audioLength, 'L');
        console.take();
        exchange(0, ++counted, command);
        // The second card has no silence of its own before its first boot, or is sent nothing.
        const std::string onBoardOne = eight ? untouched : std::string(layout.audioLength, '\0');
        EXPECT_EQ(number == 0 ? onBoardZero : onBoardOne, playback(1)) << counted;
    };
    ring.addData(stored.data(), layout.audioLength);
    expectPlayed(silence());  // neither monitoring nor playback is on
    board->setEnablePlayback(true);
    expectPlayed(stored);
    EXPECT_EQ(number == 0, ring.isEmpty());
    ring.clear();
    expectPlayed(sent + stored.substr(200), &packet);  // the rest is left as it was
    board->setEnablePlayback(false);
    ring.clear();
    board->setMonitoringChannel(first + 3);
    expectPlayed(std::string(layout.audioLength, 'L'));
    EXPECT_EQ(eight ? "" : "Copying monitor data to buffer\n", console.take().out);
    ring.clear();
    board->setMonitoringChannel(15);  // a line of the other card, of which nothing has come
    expectPlayed(silence());
    EXPECT_EQ(eight && number == 0 ? "ERROR: Monitoring but buffer is empty\n" : "",
              console.take().out);
}

TEST_P(Board, JudgesTheTransferCounterAndItsOwnPace) {
    using Row = std::tuple<std::uint32_t, std::uint32_t, int>;
    for (const auto& [last, next, error] :
         {Row(0, 900, 0), Row(5, 6, 0), Row(6, 8, 1), Row(9, 9, 3), Row(9, 8, 1),
          Row(0xFFFF, 0x10000, 0), Row(0x10002, 0x20003, 1), Row(~0u, 0, 0), Row(~0u, 1, 1)}) {
        exchange(0, 0);
        exchange(0, last);
        takePackets();
        board->setLockedUp(false);
        console.take();
        exchange(1, next);
        const std::string text = error == 3 ? "DSP Board Locked Up" : "Missed Xfer ";
        const std::vector<Bytes> expected(error == 0 ? 0 : 1, errorReport(error, text));
        EXPECT_EQ(expected, reportsIn(takePackets())) << last << ' ' << next;
        EXPECT_EQ(error == 3, board->isLockedUp());
        EXPECT_EQ(error == 0 ? "" : "ERROR! " + text + "\n", console.take().err);
    }
    cards.registers[base + 4] = 0;  // the DSP has taken its buffer back meanwhile
    board->doReadWrite(2 * number + 1, nullptr);
    EXPECT_THAT(
        reportsIn(takePackets()),
        testing::Contains(errorReport(2, eight ? "ReadWrite Too Slow, Buffer already changed"
                                               : "Too Slow! Buffer already change")));
}

TEST_P(Board, FindsAndReleasesBuffersThroughItsStatusPorts) {
    const int lower = 2 * number;
    for (const auto& [firstStatus, secondStatus, found] :
         {std::tuple(0u, 0u, -1), {1u, 0u, lower}, {0u, 1u, lower + 1}, {0x21u, 0xFFFFu, lower}}) {
        cards.registers[base + 2] = firstStatus;
        cards.registers[base + 4] = secondStatus;
        EXPECT_EQ(found, board->getLockedBuffer());
    }
    cards.registers[base + 4] = 0xFFFE;
    cards.accesses.clear();
    DSPBoard::unlockBuffer(lower + 1);
    EXPECT_THAT(cards.accesses, ElementsAre(reads(base + 4, 0xFFFE), writes(base + 4, 0x1A)));
    EXPECT_EQ("PROBLEM! Unlocking a buffer which is not locked\n", console.take().out);
    for (int i = -1; i < 17; ++i) {
        EXPECT_EQ(i == lower || i == lower + 1, board->bufferOnThisBoard(i));
        EXPECT_EQ(i >= first && i < first + layout.ports, board->channelOnThisBoard(i));
    }
    exchange(1, 2);
    EXPECT_EQ(2u, cards.accesses.size()) << "only whether the buffer is still handed over";
}

TEST_P(Board, BootsItsFirmwareAndStartsWithSilence) {
    const WorkingFolder folder;
    EXPECT_FALSE(board->bootload());
    folder.write(eight ? "LOAD_8CH.TXT" : "LOAD_4CH.TXT", "no\nsections\n");
    cards.onRead = [](int) { return 0x20u; };  // asks for each byte and takes it
    memory.assign(0x2000, '\xEE');
    board->setLockedUp(true);
    console.take();
    EXPECT_TRUE(board->bootload());
    EXPECT_FALSE(board->isLockedUp());
    EXPECT_THAT(console.take().err,
                StartsWith(eight ? "DSPBoardEightChannel::bootload()\nBootload:LOAD_8CH.TXT\n"
                                 : "DSPBoardFourChannel::bootload()\nBootload:LOAD_4CH.TXT\n"));
    EXPECT_THAT(console.err, EndsWith(eight ? "\nSize of Transfer=3554\nSize of counter=4\n"
                                              "Size of Command=58\nSize of PortData=3492\n"
                                            : "\nSize of Transfer=4078\nSize of counter=4\n"
                                              "Size of Command=34\nSize of PortData=3540\n"));
    for (const int buffer : {0, 1}) {
        EXPECT_EQ(eight && number != 0 ? untouched : silence(), playback(buffer));
        EXPECT_EQ('\xEE', memory[buffer * 0x1000 + 4]) << "no command";
    }
    EXPECT_EQ(writes(base + 2, 0x1A), cards.accesses.back()) << "not started";
}

TEST_P(Board, TracesEveryTransferAndTheLinesOfEveryTenth) {
    board->enableDebug(true);
    memory[portAt(0, 1)] = '\x80';  // voice level 0x8000, the VOX trigger
    memory[portAt(1, 4)] = 1;       // general trigger
    cards.registers[base + 6] = eight ? 0x88 : 0x04;
    exchange(0, 12);
    exchange(0, 21);
    EXPECT_THAT(console.take().out,
                StartsWith(eight ? "Transfer Count = 12\nTransfer Count = 21\n"
                                   "0 VOX 32768 VOX Trigger  FPGA Triggered\n\n"
                                   "1 VOX 0 Gen Trigger  FPGA Triggered\n\n2 VOX 0\n"
                                 : "Transfer Count = 12\nTransfer Count = 21\n"
                                   "0 VOX 32768VOX Trigger \n1 VOX 0Gen Trigger \n2 VOX 0\n"));
    EXPECT_THAT(console.out, EndsWith(eight ? "\n7 VOX 0\n" : "\n3 VOX 0\n"));
    applySettings(settingsTable(TS_OFF_HOOK, 3));
    for (int port = 3; port >= 0; --port) {
        activate(port, TS_OFF_HOOK, port == 0);
    }
    console.take();
    exchange(0, 31);
    EXPECT_THAT(console.take().out,
                StartsWith("Transfer Count = 31\n0 OH Triggered\n1 OH \n2 OH \n"));
}

TEST_P(Board, SurvivesAnyContentOfItsBuffers) {
    BoardMgr::getInstance().startRecording();
    board->enableDebug(true);
    applySettings(settingsTable(TS_VOX_1, 3));
    std::mt19937 random(7);
    for (int round = 0; round < 300; ++round) {
        std::generate(memory.begin(), memory.end(), [&] { return static_cast<char>(random()); });
        std::string expected = {static_cast<char>(layout.ports), static_cast<char>(first)};
        for (int port = 0; port < layout.ports; ++port) {
            expected += memory.substr(portAt(port, 8), layout.audioLength);
        }
        takePackets();
        board->doReadWrite(2 * number, nullptr);
        const Packets packets = takePackets();
        EXPECT_EQ(1, std::count_if(packets.begin(), packets.end(), [&](const auto& packet) {
                      const auto* const data = reinterpret_cast<const char*>(packet->getData());
                      return std::string(data, packet->getLength()) == expected;
                  }));
    }
}

INSTANTIATE_TEST_SUITE_P(Cards, Board,
                         testing::Combine(testing::Values(kFour, kEight), testing::Values(0, 1)));

TEST(FourChannelBoard, PrintsNoMoreDebugWordsThanThereAre) {
    Console console;
    ScriptedCards cards;
    BoardMgr::getInstance();
    std::vector<std::uint16_t> words(0x1000, 7);
    DSPBoardFourChannel board(0, reinterpret_cast<char*>(words.data()), 0);
    for (const auto& [length, shown] : {std::pair(0, 0), {3, 3}, {0xFFFF, 249}}) {
        words[3578 / 2] = static_cast<std::uint16_t>(length);
        board.doReadWrite(0, nullptr);
        console.take();
        board.printDebugBuffer();
        EXPECT_THAT(console.take().out, StartsWith("Debug Buffer: \n"));
        EXPECT_EQ(shown, std::count(console.out.begin(), console.out.end(), '7'));
    }
}

TEST(BaseBoardDeathTest, DoesNothingOfItsOwnAndKnowsFourBuffers) {
    DSPBoard board(1, 4, nullptr, 4);
    for (const int buffer : {-1, 4}) {
        EXPECT_EXIT(DSPBoard::getOtherBufferNumber(buffer), testing::ExitedWithCode(255),
                    "Buffer should be 0,1,2,3");
    }
    EXPECT_FALSE(board.bootload());
    Console console;
    board.doReadWrite(0, nullptr);
    EXPECT_EQ("doReadWrite should be overwritten \n", console.take().out);
}

}  // namespace
