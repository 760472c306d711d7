// The driver's way to the hardware: port permission, card memory, detection. All of it over the
// system calls and port instructions that it uses on real cards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include "BoardMgr.h"
#include "Console.h"
#include "DSPDetect.h"
#include "DirectIO.h"
#include "MemIO.h"
#include "ScriptedCards.h"
#include "javaint/MessageDispatcher.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;

class Hardware : public testing::Test {
  protected:
    std::string printed() {
        console.take();
        return console.err;
    }

    // A card at base whose data port echoes what is written to it, from attempt on, XORed with
    // wrong once the second pattern comes.
    void plugIn(int base, std::uint32_t status, int fromAttempt = 1, std::uint32_t wrong = 0) {
        const auto attempts = std::make_shared<int>(0);
        const auto next = cards.onWrite;
        cards.registers[base + 2] = status;
        cards.onWrite = [=](int port, std::uint32_t value) {
            if (port == base) {
                cards.registers[base] = ++*attempts < fromAttempt ? 0x11
                                        : value == 0xAA           ? value ^ wrong
                                                                  : value;
            } else if (next) {
                next(port, value);
            }
        };
    }
    int detect() { return DSPDetect().detectBoards(channels[0], channels[1], nullptr); }

    ScriptedCards cards;
    int channels[2] = {};
    Console console;
};

TEST_F(Hardware, ReportsPermissionAsTheKernelGivesIt) {
    DirectIO directIO;
    cards.portsErrno = EPERM;
    directIO.allowPortAccess();
    EXPECT_FALSE(directIO.arePortsEnabled());
    cards.portsErrno = 0;
    directIO.allowPortAccess();
    EXPECT_TRUE(directIO.arePortsEnabled());
    directIO.disallowPortAccess();
    EXPECT_FALSE(directIO.arePortsEnabled());
    EXPECT_EQ("failed to allow port access, errno=1\nPorts enabled OK\nPorts disabled OK\n",
              printed());
    EXPECT_EQ(&DirectIO::getInstance(), &DirectIO::getInstance());
}

TEST_F(Hardware, MapsCardMemoryOrSaysWhyNot) {
    DirectIO directIO;
    directIO.unmapMemory();
    cards.devMemErrno = EPERM;
    EXPECT_EQ(nullptr, directIO.mapMemory(0xD0000, 0x4000));
    cards.devMemErrno = 0;
    EXPECT_EQ(nullptr, directIO.mapMemory(0xD0001, 0x4000));
    EXPECT_EQ(nullptr, directIO.getPreviouslyMappedMemory());
    void* const memory = directIO.mapMemory(0xD0000, 0x4000);
    ASSERT_NE(nullptr, memory);
    EXPECT_EQ(memory, directIO.getPreviouslyMappedMemory());
    MemWriteW(memory, 0x3FFE, 0xABCD);
    EXPECT_EQ(0xABCD, MemReadW(memory, 0x3FFE));
    directIO.unmapMemory();
    EXPECT_EQ(nullptr, directIO.getPreviouslyMappedMemory());
    directIO.unmapMemory();
    EXPECT_EQ("Couldn't access /dev/mem\nmmap failed errno=22\n", printed());
    EXPECT_EQ("Opening /dev/mem\nOpening /dev/mem\nOpening /dev/mem\n", console.out);
}

TEST_F(Hardware, MovesWordsInOrderAndNothingElse) {
    std::uint16_t card[6] = {1, 2, 3, 4, 5, 6};
    std::uint16_t host[6] = {};
    MemReadBlockW(card, 2, host, 3);
    EXPECT_THAT(host, testing::ElementsAre(2, 3, 4, 0, 0, 0));
    MemReadBlockW(nullptr, 0, host, 0);
    MemWriteBlockW(nullptr, 0, host, -1);
    MemWriteBlockW(card, 6, host, 2);
    EXPECT_THAT(card, testing::ElementsAre(1, 2, 3, 2, 3, 6));
    card[1] = 0x1234;
    card[2] = 0xABCD;
    EXPECT_EQ(0xABCD1234u, MemReadL(card, 2));
}

TEST_F(Hardware, DetectsEachPairingOfCards) {
    struct Row {
        int status0, status1;  // -1: no card
        int boards, channels0, channels1;
    };
    for (const Row& row :
         {Row{-1, -1, 0, -2, -2}, Row{0, -1, 1, 4, -2}, Row{4, -1, 1, 8, -2}, Row{-1, 0, 0, -2, -2},
          Row{0, 0, 2, 4, 4}, Row{0, 4, 2, 4, 8}, Row{0xFB, 4, 2, 4, 8}, Row{0x84, 0, 2, 8, 4}}) {
        cards.onWrite = nullptr;
        cards.registers = {{0x300, 0xFF}, {0x310, 0xFF}};
        if (row.status0 >= 0) {
            plugIn(0x300, static_cast<std::uint32_t>(row.status0));
        }
        if (row.status1 >= 0) {
            plugIn(0x310, static_cast<std::uint32_t>(row.status1));
        }
        EXPECT_EQ(row.boards, detect());
        EXPECT_EQ(row.channels0, channels[0]);
        EXPECT_EQ(row.channels1, channels[1]);
    }
}

TEST_F(Hardware, ProbesTwoCardsInTheOrderThatLeavesBothInReset) {
    plugIn(0x300, 0);
    plugIn(0x310, 4);
    DirectIO().allowPortAccess();
    EXPECT_EQ(2, detect());
    const auto portTest = [](int base) {
        return std::vector<PortAccess>{{true, base + 14, 8}, {true, base + 2, 0x12},
                                       {true, base, 0x55},   {false, base, 0x55},
                                       {true, base, 0xAA},   {false, base, 0xAA}};
    };
    std::vector<PortAccess> expected;
    const auto append = [&expected](const std::vector<PortAccess>& accesses) {
        expected.insert(expected.end(), accesses.begin(), accesses.end());
    };
    append(portTest(0x300));
    append({{false, 0x302, 0}});
    append(portTest(0x310));
    append(portTest(0x300));
    append({{false, 0x312, 4}});
    EXPECT_EQ(expected, cards.accesses);
    EXPECT_THAT(cards.slept_us, testing::ElementsAre(100, 100, 100));
    EXPECT_EQ(
        "Ports enabled OK\nboard0 present\nnumChannels opening /dev/port\nFound 4 chan "
        "board\nchannelsBoard0=4\n"
        "board1 present\nnumChannels opening /dev/port\nFound 8 channel board\n",
        printed());
    const std::string echo = "Attempt to write to baseIOPort\nAttempt to read from baseIOPort \n";
    const auto test = [&echo](const char* board, const char* port) {
        return "Doing port test for board " + std::string(board) + "\nPlacing DSP in RESET\n" +
               echo + echo + "port: " + port + " ok!\n";
    };
    EXPECT_EQ(
        "DSPDetect: Opening /dev/port\n" + test("0", "768") + test("1", "784") + test("0", "768"),
        console.out);
}

TEST_F(Hardware, AllowsTheFirstPatternThreeAttemptsAndTheSecondOne) {
    plugIn(0x300, 0, 3);
    EXPECT_EQ(1, detect());
    plugIn(0x300, 0, 4);
    EXPECT_EQ(0, detect());
    plugIn(0x300, 0, 1, 1);
    EXPECT_EQ(0, detect());
    const std::string err = printed();
    EXPECT_EQ(0, err.find("read 17 not 0x55\nread 17 not 0x55\nboard0 present\n"));
    EXPECT_EQ(std::string::npos, err.find("0xAA"));
}

TEST_F(Hardware, NamesDevicesThatCannotBeUsed) {
    DSPDetect detector;
    EXPECT_EQ(-1, detector.readPort(0x300));
    detector.writePort(1, 0x300);
    cards.devPortErrno = EACCES;
    EXPECT_FALSE(detector.portTest(0));
    EXPECT_EQ(0, detector.numChannels(0));
    cards.devPortErrno = 0;
    EXPECT_FALSE(detector.portTest(2));
    EXPECT_EQ(0, detector.numChannels(2));
    cards.registers[0x305] = 0xAB;
    EXPECT_EQ(-85, detector.readPort(0x305));
    EXPECT_EQ(
        "lseek failed errno=9\nwritePort: lseek failed errno=9\n"
        "Couldn't access /dev/port errno=13\nnumChannels opening /dev/port\n"
        "Couldn't access /dev/port errno=13\nno Dev port so returning 0 channels\n"
        "numChannels opening /dev/port\nCannot determine no of channels for board 2\n",
        printed());
    EXPECT_THAT(console.out, EndsWith("Doing port test for board 2\n"));
}

TEST_F(Hardware, ChecksMemoryWithTwoWordsBehindEachOther) {
    std::vector<std::uint16_t> memory(0x2000, 0);
    DSPDetect detector;
    EXPECT_TRUE(detector.simpleMemTest(memory.data(), 1));
    EXPECT_EQ(3, memory[0x1000 + 2]);
    EXPECT_EQ(4, memory[0x1000 + 3]);
    EXPECT_TRUE(detector.memTest(nullptr, 0));
    printed();
    EXPECT_EQ("DSPDetect: Opening /dev/port\nMemTest: board= 1\nboard 1 passed simple mem test\n",
              console.out);
}

TEST_F(Hardware, MakesNoBoardWithoutItsMemory) {
    plugIn(0x300, 0);
    cards.devMemErrno = EPERM;
    EXPECT_EQ(0, BoardMgr::getInstance().getNumberOfBoards());
    EXPECT_EQ(nullptr, BoardMgr::getInstance().getBoard(0));
    EXPECT_EQ(nullptr, BoardMgr::getInstance().getDSPMemory());
    EXPECT_TRUE(BoardMgr::getInstance().bootload());
    const std::unique_ptr<Packet> report(MessageDispatcher::getInstance().getPacketFromSendQueue());
    ASSERT_NE(nullptr, report);
    EXPECT_EQ(7, report->getType());
    EXPECT_EQ(4, report->getData()[0]);
    EXPECT_THAT(printed(), HasSubstr("Detected 1 boards\nBoard0 has 4 channels\nBoard1 has -2 "
                                     "channels\nERROR! Card memory not mapped\n"));
}

}  // namespace
