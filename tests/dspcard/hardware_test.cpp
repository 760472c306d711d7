// The driver's way to the hardware: port permission, card memory, detection. All of it over the
// system calls and port instructions that it uses on real cards.
#include <gmock/gmock.h>

#include <thread>

#include "BoardMgr.h"
#include "DSPDetect.h"
#include "MemIO.h"
#include "MonitorBuffer.h"
#include "ScriptedCards.h"
#include "Surroundings.h"
#include "javaint/DSPRunner.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

class Hardware : public testing::Test {
  protected:
    void plugIn(int base, std::uint32_t status) {
        cards.registers[base + 2] = status;
        cards.echoes.insert(base);
    }
    int detect() { return DSPDetect().detectBoards(channels[0], channels[1], nullptr); }

    ScriptedCards cards;
    int channels[2] = {};
    Console console;
};

TEST_F(Hardware, GetsPermissionAndCardMemoryOrSaysWhyNot) {
    DirectIO directIO;
    cards.portsErrno = EPERM;
    directIO.allowPortAccess();
    EXPECT_FALSE(directIO.arePortsEnabled());
    cards.portsErrno = 0;
    directIO.allowPortAccess();
    EXPECT_TRUE(directIO.arePortsEnabled());
    directIO.disallowPortAccess();
    EXPECT_FALSE(directIO.arePortsEnabled());
    cards.devMemErrno = EPERM;
    EXPECT_EQ(nullptr, directIO.mapMemory(0xD0000, 0x4000));
    cards.devMemErrno = 0;
    EXPECT_EQ(nullptr, directIO.mapMemory(0xD0001, 0x4000));
    EXPECT_EQ(nullptr, directIO.getPreviouslyMappedMemory());
    void* const memory = directIO.mapMemory(0xD0000, 0x4000);
    ASSERT_NE(nullptr, memory);
    EXPECT_EQ(memory, directIO.getPreviouslyMappedMemory());
    MemWriteW(memory, 0x3FFC, 0x1234);
    MemWriteW(memory, 0x3FFE, 0xABCD);
    EXPECT_EQ(0xABCD1234u, MemReadL(memory, 0x3FFC));
    MemReadBlockW(nullptr, 0, nullptr, 0);
    MemWriteBlockW(nullptr, 0, nullptr, -1);
    for (int i = 0; i < 2; ++i) {
        directIO.unmapMemory();
        EXPECT_EQ(nullptr, directIO.getPreviouslyMappedMemory());
    }
    EXPECT_EQ(
        "failed to allow port access, errno=1\nPorts enabled OK\nPorts disabled OK\n"
        "Couldn't access /dev/mem\nmmap failed errno=22\n",
        console.take().err);
    EXPECT_EQ("Opening /dev/mem\nOpening /dev/mem\nOpening /dev/mem\n", console.out);
}

TEST_F(Hardware, ProbesTwoCardsInTheOrderThatLeavesBothInReset) {
    plugIn(0x300, 0xFB);
    plugIn(0x310, 0x84);
    DirectIO().allowPortAccess();
    EXPECT_EQ(2, detect());
    EXPECT_THAT(channels, ElementsAre(4, 8));
    std::vector<PortAccess> expected;
    std::string lines = "DSPDetect: Opening /dev/port\n";
    const auto expectTest = [&](const std::string& board, int base) {
        for (const PortAccess& access :
             {writes(base + 14, 8), writes(base + 2, 0x12), writes(base, 0x55), reads(base, 0x55),
              writes(base, 0xAA), reads(base, 0xAA)}) {
            expected.push_back(access);
        }
        lines += "Doing port test for board " + board + "\nPlacing DSP in RESET\n";
        for (int echo = 0; echo < 2; ++echo) {
            lines += "Attempt to write to baseIOPort\nAttempt to read from baseIOPort \n";
        }
        lines += "port: " + std::to_string(base) + " ok!\n";
    };
    expectTest("0", 0x300);
    expected.push_back(reads(0x302, 0xFB));
    expectTest("1", 0x310);
    expectTest("0", 0x300);
    expected.push_back(reads(0x312, 0x84));
    EXPECT_EQ(expected, cards.accesses);
    EXPECT_THAT(cards.slept_us, ElementsAre(100, 100, 100));
    EXPECT_EQ(
        "Ports enabled OK\n"
        "board0 present\nnumChannels opening /dev/port\nFound 4 chan board\nchannelsBoard0=4\n"
        "board1 present\nnumChannels opening /dev/port\nFound 8 channel board\n",
        console.take().err);
    EXPECT_EQ(lines, console.out);
}

TEST_F(Hardware, AllowsTheFirstPatternThreeAttemptsAndTheSecondOne) {
    using Row = std::pair<std::string, int>;
    for (const auto& [echoes, boards] :
         {Row("\x11\x11\x11\x55\xAA", 0), Row("\x55\xAB\xAA", 0), Row("\x11\x11\x55\xAA", 1)}) {
        cards.onRead = [next = echoes.begin()](int port) mutable {
            return static_cast<unsigned char>(port == 0x300 ? *next++ : 0);
        };
        console.take();
        EXPECT_EQ(boards, detect());
    }
    EXPECT_THAT(console.take().err,
                testing::StartsWith("read 17 not 0x55\nread 17 not 0x55\nboard0 present\n"));
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
        console.take().err);
    EXPECT_THAT(console.out, EndsWith("Doing port test for board 2\n"));
    std::vector<std::uint16_t> memory(0x2000);
    EXPECT_TRUE(detector.simpleMemTest(memory.data(), 1));
    EXPECT_EQ(3, memory[0x1002]);
    EXPECT_EQ(4, memory[0x1003]);
    EXPECT_EQ("MemTest: board= 1\nboard 1 passed simple mem test\n", console.take().out);
}

TEST_F(Hardware, MakesNoBoardWithoutItsMemory) {
    plugIn(0x300, 0);
    cards.devMemErrno = EPERM;
    EXPECT_EQ(0, BoardMgr::getInstance().getNumberOfBoards());
    EXPECT_EQ(nullptr, BoardMgr::getInstance().getBoard(0));
    EXPECT_EQ(nullptr, BoardMgr::getInstance().getDSPMemory());
    EXPECT_THAT(reportsIn(takePackets()), ElementsAre(errorReport(4, "Card memory not mapped")));
    EXPECT_THAT(console.take().err, HasSubstr("Detected 1 boards\nBoard0 has 4 channels\n"));
    EXPECT_THAT(console.err, EndsWith("ERROR! Card memory not mapped\n"));
}

TEST(SingletonsDeathTest, AreMadeOnceHoweverManyThreadsAskFirst) {
    ScriptedCards cards;
    std::vector<std::vector<void*>> seen(8);
    std::atomic<std::size_t> missing{seen.size()};
    std::vector<std::thread> threads;
    for (auto& mine : seen) {
        threads.emplace_back([&mine, &missing] {
            for (--missing; missing > 0;) {
            }
            mine = {&MessageDispatcher::getInstance(), &MonitorBuffer::getInstance(),
                    &DirectIO::getInstance(), &DSPRunner::getInstance(), &BoardMgr::getInstance()};
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(seen, testing::Each(seen[0]));
    EXPECT_EXIT(
        {
            delete &BoardMgr::getInstance();
            std::exit(DirectIO::getInstance().getPreviouslyMappedMemory() == nullptr ? 0 : 1);
        },
        testing::ExitedWithCode(0), "BoardMgr - destructor unmapping dsp card memory\n");
}

}  // namespace
