// One card's exchange of transfer buffers, for both kinds of card on either board: card memory is
// a plain array here, laid out by this test's own offsets, and the registers read as set.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "BoardMgr.h"
#include "Console.h"
#include "DSPBoardEightChannel.h"
#include "DSPBoardFourChannel.h"
#include "ScriptedCards.h"
#include "javaint/MessageDispatcher.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

// What the hardware fixes, in bytes from the start of a transfer buffer.
struct Layout {
    int ports, length, firstPort, portLength, audioLength, digits, digitsLength, caller;
    int commandLength, playbackAudio;
};
constexpr Layout kFour = {4, 4078, 38, 708, 600, 608, 50, 658, 34, 2878};
constexpr Layout kEight = {8, 3554, 62, 388, 300, 308, 30, 338, 58, 3174};

struct Variant {
    const Layout& layout;
    int board;
    bool eight() const { return layout.ports == 8; }
    int firstChannel() const { return board == 0 ? 0 : 4; }
    int base() const { return board == 0 ? 0x300 : 0x310; }
    bool sendsPlayback() const { return board == 0 || !eight(); }
};

std::vector<int> payload(const Packet& packet) {
    return {packet.getData(), packet.getData() + packet.getLength()};
}

class Board : public testing::TestWithParam<Variant> {
  protected:
    Board() : variant(GetParam()), layout(variant.layout) {
        cards.registers = {{0x300, 0xFF}, {0x310, 0xFF}};
        BoardMgr::getInstance();
        std::unique_ptr<Packet>(MessageDispatcher::getInstance().getPacketFromSendQueue());
        if (variant.eight()) {
            board = std::make_unique<DSPBoardEightChannel>(variant.board, memory(),
                                                           variant.firstChannel());
        } else {
            board = std::make_unique<DSPBoardFourChannel>(variant.board, memory(),
                                                          variant.firstChannel());
        }
        console.take();
    }

    char* memory() { return reinterpret_cast<char*>(words.data()); }
    unsigned char* at(int buffer, int offset) {
        return reinterpret_cast<unsigned char*>(memory()) + buffer * 0x1000 + offset;
    }
    unsigned char* port(int buffer, int portNumber, int offset) {
        return at(buffer, layout.firstPort + portNumber * layout.portLength + offset);
    }
    void setText(int buffer, int portNumber, int offset, int count, const std::string& text) {
        *port(buffer, portNumber, offset) = static_cast<unsigned char>(count);
        std::copy(text.begin(), text.end(), port(buffer, portNumber, offset + 1));
    }
    void setVOX(int portNumber, bool on) { *port(0, portNumber, 1) = on ? 0x80 : 0x7F; }

    // The DSP hands over a buffer, counted as told; the board exchanges it.
    void exchange(int buffer, std::uint32_t counter, Packet* command = nullptr) {
        for (int i = 0; i < 4; ++i) {
            *at(buffer, i) = static_cast<unsigned char>(counter >> (8 * i));
        }
        cards.registers[variant.base() + 2] = buffer == 0 ? 0x21 : 0x20;
        cards.registers[variant.base() + 4] = buffer == 1 ? 1 : 0;
        cards.accesses.clear();
        board->doReadWrite(2 * variant.board + buffer, command);
    }
    void exchange(Packet* command = nullptr) { exchange(0, ++counted, command); }

    void applySettings(int trigger, int delay = 3, int beep = 0) {
        LineSettingsPacket settings;
        std::vector<unsigned char> table;
        for (int channel = 0; channel < 16; ++channel) {
            table.push_back(static_cast<unsigned char>(beep));
            table.push_back(static_cast<unsigned char>(trigger));
            table.push_back(static_cast<unsigned char>(delay));
        }
        settings.read(table.data(), 48);
        exchange(&settings);
    }

    std::vector<std::unique_ptr<Packet>> takePackets() {
        std::vector<std::unique_ptr<Packet>> packets;
        while (Packet* const packet = MessageDispatcher::getInstance().getPacketFromSendQueue()) {
            packets.emplace_back(packet);
        }
        return packets;
    }
    // Type and payload of all packets but the audio.
    std::vector<std::vector<int>> takeReports() {
        std::vector<std::vector<int>> reports;
        for (const auto& packet : takePackets()) {
            if (packet->getType() != PACKET_RECORDED_DATA) {
                reports.push_back(payload(*packet));
                reports.back().insert(reports.back().begin(), packet->getType());
            }
        }
        return reports;
    }
    std::vector<std::uint16_t> silence() const {
        static constexpr std::uint16_t kPattern[] = {0xBB55, 0x76DB, 0x40A0, 0x00FA, 0xC200,
                                                     0x07D6, 0x0280, 0x03EB, 0x0800, 0x1F58};
        std::vector<std::uint16_t> audio;
        for (int i = 0; i < layout.audioLength / 2; ++i) {
            audio.push_back(kPattern[i % 10]);
        }
        return audio;
    }
    std::string playbackBytes(int buffer) {
        return {reinterpret_cast<char*>(at(buffer, layout.playbackAudio)),
                static_cast<std::size_t>(layout.audioLength)};
    }
    std::string silentBytes() const {
        const auto audio = silence();
        return {reinterpret_cast<const char*>(audio.data()), audio.size() * 2};
    }

    const Variant variant;
    const Layout& layout;
    std::vector<std::uint16_t> words = std::vector<std::uint16_t>(0x1000, 0xEEEE);
    ScriptedCards cards;
    std::unique_ptr<DSPBoard> board;
    std::uint32_t counted = 0;
    Console console;
};

TEST_P(Board, DeliversTheAudioOfEveryPortOfBothBuffers) {
    std::mt19937 random(1);
    for (std::uint32_t counter = 1; counter < 40; ++counter) {
        const int buffer = static_cast<int>(counter % 2);
        std::vector<int> expected = {layout.ports, variant.firstChannel()};
        for (int portNumber = 0; portNumber < layout.ports; ++portNumber) {
            for (int i = 0; i < layout.audioLength; ++i) {
                *port(buffer, portNumber, 8 + i) = static_cast<unsigned char>(random());
                expected.push_back(*port(buffer, portNumber, 8 + i));
            }
        }
        exchange(buffer, counter);
        const auto packets = takePackets();
        ASSERT_EQ(1u, packets.size());
        EXPECT_EQ(4, packets[0]->getType());
        ASSERT_EQ(expected, payload(*packets[0]));
    }
}

TEST_P(Board, ReportsInOrderWhileRecording) {
    const int first = variant.firstChannel();
    for (int portNumber = 0; portNumber < layout.ports; ++portNumber) {
        setVOX(portNumber, false);
        setText(0, portNumber, layout.digits, 0, "");
        setText(0, portNumber, layout.caller, -1, "");
    }
    setText(0, 2, layout.digits, 3, "123");
    setText(0, 2, layout.caller, 4, "0815");
    setText(0, 3, layout.digits, 2, "#*");
    setVOX(1, true);
    exchange();
    EXPECT_THAT(takeReports(), ElementsAre()) << "nothing but audio before recording";

    BoardMgr::getInstance().startRecording();
    applySettings(TS_VOX_1);
    EXPECT_THAT(takeReports(), ElementsAre(ElementsAre(3, first + 2, 3, '1', '2', '3'),
                                           ElementsAre(2, first + 2, 4, '0', '8', '1', '5'),
                                           ElementsAre(3, first + 3, 2, '#', '*')))
        << "triggers wait for the transfer after the settings";
    console.take();
    exchange();
    auto packets = takePackets();
    ASSERT_EQ(5u, packets.size());
    EXPECT_THAT(payload(*packets[0]), ElementsAre(1, first + 1));
    EXPECT_EQ(4, packets[4]->getType());
    console.take();
    const std::string digitsLine = "Sending Packet to Java: channel=2 length=3\n";
    const std::string callerLine = "Sending CLI Packet to Java: channel=2 length=4\n";
    EXPECT_EQ(variant.eight()
                  ? callerLine
                  : digitsLine + callerLine + "Sending Packet to Java: channel=3 length=2\n",
              console.out);

    setText(0, 2, layout.digits, 0x80, "");
    setText(0, 2, layout.caller, 0, "");
    setText(0, 3, layout.digits, 0, "");
    exchange();
    EXPECT_THAT(takeReports(), ElementsAre()) << "an unchanged trigger is not reported again";
    setVOX(1, false);
    exchange();
    EXPECT_THAT(takeReports(), ElementsAre(ElementsAre(1, 0, first + 1)));
    setVOX(1, true);
    exchange();
    takeReports();
    board->clearTriggers();
    exchange();
    EXPECT_THAT(takeReports(), ElementsAre(ElementsAre(1, 1, first + 1)))
        << "a new recording reports the calls that are already there";
}

TEST_P(Board, FollowsTheHookWhereToldTo) {
    BoardMgr::getInstance().startRecording();
    const int offHook = variant.eight() ? 0x44 : 0x00;
    const int onHook = variant.eight() ? 0x00 : 0x04;
    for (int portNumber = 0; portNumber < layout.ports; ++portNumber) {
        setText(0, portNumber, layout.digits, 0, "");
        setText(0, portNumber, layout.caller, 0, "");
    }
    for (const int k : {6, 8, 10, 12}) {
        cards.registers[variant.base() + k] = static_cast<std::uint32_t>(onHook);
    }
    applySettings(TS_OFF_HOOK);
    exchange();
    EXPECT_THAT(takeReports(), ElementsAre());
    cards.registers[variant.base() + 10] = static_cast<std::uint32_t>(offHook);
    exchange();
    const auto reports = takeReports();
    const int first = variant.firstChannel();
    if (variant.eight()) {
        EXPECT_THAT(reports,
                    ElementsAre(ElementsAre(1, 1, first + 4), ElementsAre(1, 1, first + 5)));
        cards.registers[variant.base() + 6] = 0x40;
        EXPECT_FALSE(board->readOffHook(0));
        EXPECT_TRUE(board->readOffHook(1));
    } else {
        EXPECT_THAT(reports, ElementsAre(ElementsAre(1, 1, first + 2)));
    }
}

TEST_P(Board, NeverReadsTextBeyondItsField) {
    BoardMgr::getInstance().startRecording();
    for (int portNumber = 0; portNumber < layout.ports; ++portNumber) {
        setText(0, portNumber, layout.digits, 127,
                std::string(static_cast<std::size_t>(layout.digitsLength - 1), 'd'));
        setText(0, portNumber, layout.caller, 127, std::string(49, 'c'));
    }
    exchange();
    for (const auto& report : takeReports()) {
        EXPECT_EQ(report[0] == 3 ? layout.digitsLength - 1 : 49, report[2]);
        EXPECT_THAT(std::vector<int>(report.begin() + 3, report.end()),
                    testing::Each(report[0] == 3 ? 'd' : 'c'));
    }
}

TEST_P(Board, WritesTheCommandBlockInsteadOfPlayback) {
    const std::vector<std::uint16_t> levels =
        variant.eight() ? std::vector<std::uint16_t>{0xFF01, 0xFF02, 0x02AF, 0x047F, 0x067F,
                                                     0x0A1F, 0x0E1F, 0x115F, 0}
                        : std::vector<std::uint16_t>{0xFF01, 0xFF02, 0x04FF, 0x089F, 0x0C9F,
                                                     0x115F, 0x155E, 0x1C20, 0};
    int alternate = 0;
    for (int round = 0; round < 10; ++round) {
        LineSettingsPacket settings;
        std::vector<unsigned char> table;
        for (int channel = 0; channel < 16; ++channel) {
            table.push_back(static_cast<unsigned char>(channel + round));
            table.push_back(static_cast<unsigned char>((channel + round) % 9));
            table.push_back(static_cast<unsigned char>(round == 9 ? 255 : 50 + channel));
        }
        settings.read(table.data(), 48);
        std::vector<std::uint16_t> block = {2, 0};
        for (int channel = variant.firstChannel(); channel < variant.firstChannel() + layout.ports;
             ++channel) {
            block.push_back(static_cast<std::uint16_t>(channel + round));
            block.push_back(levels[static_cast<std::size_t>((channel + round) % 9)]);
            const int seconds = round == 9 ? 65 : std::min(65, 50 + channel);
            block.push_back(static_cast<std::uint16_t>(seconds * 1000 + alternate));
        }
        block.resize(static_cast<std::size_t>(layout.commandLength / 2), 0);
        std::vector<std::uint16_t> expected(0x1000, 0xEEEE);
        std::copy(block.begin(), block.end(), expected.begin() + 0x800 + 2);
        std::fill(words.begin(), words.end(), 0xEEEE);
        exchange(0, static_cast<std::uint32_t>(round + 1), &settings);
        expected[0] = static_cast<std::uint16_t>(round + 1);
        expected[1] = 0;
        ASSERT_EQ(expected, words) << "round " << round;
        alternate ^= 1;
    }
    std::fill(words.begin(), words.end(), 0xEEEE);
    exchange(1, 11);
    EXPECT_EQ(0xEE, *at(0, 4)) << "the command is sent once";
    EXPECT_EQ(variant.sendsPlayback(),
              playbackBytes(0) != std::string(playbackBytes(0).size(), '\xEE'));
    console.take();
    EXPECT_THAT(console.err,
                HasSubstr("Updateing Line Settings!!!\nLineSettingsPacket:\nChan=0 Beep=0, "));
}

TEST_P(Board, PlaysMonitorDataOnBoardZeroAndSilenceOtherwise) {
    auto& ring = MonitorBuffer::getInstance();
    const std::string audio(600, 'm');
    const auto size = static_cast<std::size_t>(layout.audioLength);
    // Before the first boot the second card has no silence to send yet.
    const std::string untouched =
        variant.eight() ? std::string(size, '\xEE') : std::string(size, '\0');

    exchange(0, 1);
    EXPECT_EQ(variant.board == 0 ? silentBytes() : untouched, playbackBytes(1));

    ring.addData(audio.data(), 600);
    exchange(0, 2);
    EXPECT_EQ(variant.board == 0 ? silentBytes() : untouched, playbackBytes(1))
        << "nothing is played while neither monitoring nor playback is on";

    board->setEnablePlayback(true);
    PlaybackDataPacket packet;
    std::string more(200, 'p');
    packet.read(reinterpret_cast<unsigned char*>(more.data()), 200);
    ring.clear();
    ring.addData(audio.data(), layout.audioLength);
    exchange(0, 3);
    exchange(0, 4, &packet);
    EXPECT_EQ(variant.board == 0 ? more + std::string(size - 200, 'm') : untouched,
              playbackBytes(1))
        << "what the ring lacks is left from the transfer before";
    EXPECT_EQ(variant.board != 0, ring.isFull() || !ring.isEmpty());

    ring.clear();
    board->setEnablePlayback(false);
    board->setMonitoringChannel(variant.firstChannel() + 3);
    std::fill_n(port(0, 3, 8), layout.audioLength, static_cast<unsigned char>('L'));
    console.take();
    exchange(0, 5);
    EXPECT_EQ(variant.board == 0 ? std::string(size, 'L') : untouched, playbackBytes(1));
    console.take();
    EXPECT_EQ(variant.eight() ? 0u : std::string::npos,
              variant.eight() ? 0u : console.out.find("Copying monitor data to buffer\nERROR"));
    EXPECT_EQ(!variant.eight(),
              console.out.find("Copying monitor data to buffer\n") != std::string::npos);

    // A line of the other card is monitored, and nothing of it has arrived.
    ring.clear();
    board->setMonitoringChannel(15);
    exchange(0, 6);
    console.take();
    EXPECT_EQ(
        variant.eight() && variant.board == 0 ? "ERROR: Monitoring but buffer is empty\n" : "",
        console.out);
    EXPECT_EQ(variant.board == 0 ? silentBytes() : untouched, playbackBytes(1));
}

TEST_P(Board, JudgesTheTransferCounter) {
    const std::vector<int> missed = {7,   1,   12,  'M', 'i', 's', 's', 'e',
                                     'd', ' ', 'X', 'f', 'e', 'r', ' '};
    struct Row {
        std::uint32_t last, next;
        int error;  // 0: none
    };
    for (const Row& row : {Row{0, 900, 0}, Row{5, 6, 0}, Row{6, 8, 1}, Row{9, 9, 3}, Row{9, 8, 1},
                           Row{0xFFFF, 0x10000, 0}, Row{0x10002, 0x20003, 1}, Row{0xFFFFFFFF, 0, 0},
                           Row{0xFFFFFFFF, 1, 1}}) {
        exchange(0, 0);
        takeReports();
        exchange(0, row.last);
        takeReports();
        board->setLockedUp(false);
        exchange(1, row.next);
        const auto reports = takeReports();
        ASSERT_EQ(row.error == 0 ? 0u : 1u, reports.size()) << row.last << ' ' << row.next;
        EXPECT_EQ(row.error == 3, board->isLockedUp());
        if (row.error == 1) {
            EXPECT_EQ(missed, reports[0]);
        } else if (row.error == 3) {
            EXPECT_EQ(3, reports[0][1]);
        }
    }
    console.take();
    EXPECT_THAT(console.err, HasSubstr("ERROR! Missed Xfer \n"));
    EXPECT_THAT(console.err, HasSubstr("ERROR! DSP Board Locked Up\n"));
}

TEST_P(Board, SaysWhenTheDSPDidNotWait) {
    exchange(0, 1);
    takePackets();
    cards.registers[variant.base() + 2] = 0x20;
    cards.registers[variant.base() + 4] = 1;
    *at(0, 0) = 2;
    board->doReadWrite(2 * variant.board, nullptr);
    const auto reports = takeReports();
    ASSERT_EQ(1u, reports.size());
    EXPECT_EQ(2, reports[0][1]);
    console.take();
    EXPECT_THAT(console.err,
                HasSubstr(variant.eight() ? "ERROR! ReadWrite Too Slow, Buffer already changed\n"
                                          : "ERROR! Too Slow! Buffer already change\n"));
}

TEST_P(Board, TouchesOnlyThePortsThatAnExchangeNeeds) {
    exchange(0, 1);
    EXPECT_EQ(1u, cards.accesses.size()) << "one look whether the buffer is still handed over";
    exchange(1, 2);
    EXPECT_EQ(2u, cards.accesses.size());
}

TEST_P(Board, FindsAndReleasesBuffersThroughItsStatusPorts) {
    const int base = variant.base();
    const int lower = 2 * variant.board;
    for (const auto& [first, second, found] :
         {std::tuple(0, 0, -1), {1, 0, lower}, {0, 1, lower + 1}, {0x21, 0xFFFF, lower}}) {
        cards.registers[base + 2] = static_cast<std::uint32_t>(first);
        cards.registers[base + 4] = static_cast<std::uint32_t>(second);
        EXPECT_EQ(found, board->getLockedBuffer());
    }
    cards.registers[base + 4] = 0;
    cards.accesses.clear();
    DSPBoard::unlockBuffer(lower + 1);
    const std::vector<PortAccess> release = {{false, base + 4, 0}, {true, base + 4, 0x1A}};
    EXPECT_EQ(release, cards.accesses);
    console.take();
    EXPECT_EQ("PROBLEM! Unlocking a buffer which is not locked\n", console.out);
    EXPECT_EQ(lower + 1, DSPBoard::getOtherBufferNumber(lower));
    EXPECT_EQ(lower, DSPBoard::getOtherBufferNumber(lower + 1));
    for (int buffer = -1; buffer < 5; ++buffer) {
        EXPECT_EQ(buffer == lower || buffer == lower + 1, board->bufferOnThisBoard(buffer));
    }
    for (int channel = -1; channel < 17; ++channel) {
        const int port = channel - variant.firstChannel();
        EXPECT_EQ(port >= 0 && port < layout.ports, board->channelOnThisBoard(channel));
    }
}

TEST_P(Board, TracesEveryTransferAndTheLinesOfEveryTenth) {
    board->enableDebug(true);
    std::fill(words.begin(), words.end(), 0);
    *port(0, 0, 1) = 0x80;  // voice level 0x8000, the VOX trigger
    *port(0, 1, 4) = 1;     // general trigger
    cards.registers[variant.base() + 6] = variant.eight() ? 0x88 : 0x04;
    exchange(0, 12);
    exchange(0, 21);
    std::string lines =
        variant.eight() ? "0 VOX 32768 VOX Trigger  FPGA Triggered\n\n1 VOX 0 Gen Trigger  FPGA "
                          "Triggered\n\n"
                        : "0 VOX 32768VOX Trigger \n1 VOX 0Gen Trigger \n";
    for (int portNumber = 2; portNumber < layout.ports; ++portNumber) {
        lines += std::to_string(portNumber) + " VOX 0\n";
    }
    console.take();
    EXPECT_EQ("Transfer Count = 12\nTransfer Count = 21\n" + lines, console.out);

    counted = 30;
    applySettings(TS_OFF_HOOK);
    console.take();
    cards.registers[variant.base() + 6] = variant.eight() ? 0x04 : 0x00;
    cards.registers[variant.base() + 8] = variant.eight() ? 0x00 : 0x04;
    counted = 40;
    exchange();
    console.take();
    EXPECT_THAT(console.out, HasSubstr("Transfer Count = 41\n0 OH Triggered\n1 OH \n"));
}

TEST_P(Board, SurvivesAnyContentOfItsBuffers) {
    BoardMgr::getInstance().startRecording();
    board->enableDebug(true);
    applySettings(TS_VOX_1);
    std::mt19937 random(7);
    for (int round = 0; round < 300; ++round) {
        for (std::uint16_t& word : words) {
            word = static_cast<std::uint16_t>(random());
        }
        std::vector<int> expected;
        for (int portNumber = 0; portNumber < layout.ports; ++portNumber) {
            expected.insert(expected.end(), port(0, portNumber, 8),
                            port(0, portNumber, 8 + layout.audioLength));
        }
        cards.registers[variant.base() + 2] = 1;
        board->doReadWrite(2 * variant.board, nullptr);
        takeReports();
        board->doReadWrite(2 * variant.board, nullptr);
        auto packets = takePackets();
        const auto audio = std::find_if(packets.begin(), packets.end(), [](const auto& packet) {
            return packet->getType() == PACKET_RECORDED_DATA;
        });
        ASSERT_NE(packets.end(), audio);
        const auto bytes = payload(**audio);
        ASSERT_TRUE(std::equal(expected.begin(), expected.end(), bytes.begin() + 2, bytes.end()));
    }
}

TEST(FourChannelBoard, PrintsNoMoreDebugWordsThanThereAre) {
    Console console;
    ScriptedCards cards;
    cards.registers = {{0x300, 0xFF}, {0x310, 0xFF}};
    std::vector<std::uint16_t> words(0x1000, 7);
    DSPBoardFourChannel board(0, reinterpret_cast<char*>(words.data()), 0);
    const auto debugLines = [&] {
        console.take();
        board.printDebugBuffer();
        console.take();
        return console.out;
    };
    EXPECT_EQ("Debug Buffer: \n\n", debugLines()) << "the area starts as zero";
    words[3578 / 2] = 3;
    board.doReadWrite(0, nullptr);
    EXPECT_EQ("Debug Buffer: \n7 7 7 \n", debugLines());
    words[3578 / 2] = 0xFFFF;
    board.doReadWrite(0, nullptr);
    EXPECT_EQ(15u + 249 * 2 + 1, debugLines().size());
}

TEST(BaseBoardDeathTest, KnowsFourBuffers) {
    for (const int buffer : {-1, 4}) {
        EXPECT_EXIT(DSPBoard::getOtherBufferNumber(buffer), testing::ExitedWithCode(255),
                    "Buffer should be 0,1,2,3");
    }
}

TEST(BaseBoard, DoesNothingOfItsOwn) {
    ScriptedCards cards;
    DSPBoard board(1, 4, nullptr, 4);
    Console console;
    board.doReadWrite(0, nullptr);
    console.take();
    EXPECT_EQ("doReadWrite should be overwritten \n", console.out);
    EXPECT_FALSE(board.bootload());
    EXPECT_FALSE(board.readVOXTrigger(0));
}

INSTANTIATE_TEST_SUITE_P(Cards, Board,
                         testing::Values(Variant{kFour, 0}, Variant{kFour, 1}, Variant{kEight, 0},
                                         Variant{kEight, 1}),
                         [](const auto& variant) {
                             return std::string(variant.param.eight() ? "Eight" : "Four") +
                                    "ChannelBoard" + std::to_string(variant.param.board);
                         });

}  // namespace
