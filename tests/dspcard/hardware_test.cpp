// The driver's way to the hardware: port permission, card memory, detection. All of it over the
// system calls and port instructions that it uses on real cards.
#include <fcntl.h>
#include <poll.h>

#include <thread>

#include "BoardMgr.h"
#include "DSPDetect.h"
#include "MemIO.h"
#include "MonitorBuffer.h"
#include "ScriptedCards.h"
#include "Surroundings.h"
#include "javaint/DSPRunner.h"

// Called at each operator new of this program, for a test that needs that moment.
std::function<void()> whenAllocating;
void* realNew(std::size_t bytes) asm("__real_" OPERATOR_NEW);
void* watchedNew(std::size_t bytes) asm("__wrap_" OPERATOR_NEW);
void* watchedNew(std::size_t bytes) {
    if (whenAllocating) {
        whenAllocating();
    }
    return realNew(bytes);
}

namespace {

using namespace testing;

class Hardware : public TestWithParam<std::pair<int, int>> {
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
    const auto before = openFiles();
    for (const int refusal : {EPERM, 0}) {
        cards.portsErrno = cards.devMemErrno = refusal;
        directIO.allowPortAccess();
        EXPECT_EQ(refusal == 0, directIO.arePortsEnabled());
        EXPECT_EQ(nullptr, directIO.mapMemory(0xD0001, 0x4000));
    }
    directIO.disallowPortAccess();
    EXPECT_FALSE(directIO.arePortsEnabled());
    EXPECT_EQ(before, openFiles());
    void* const memory = directIO.mapMemory(0xD0000, 0x4000);
    ASSERT_NE(nullptr, memory);
    EXPECT_EQ(memory, directIO.getPreviouslyMappedMemory());
    MemWriteW(memory, 0x3FFC, 0x1234);
    MemWriteW(memory, 0x3FFE, 0xABCD);
    EXPECT_EQ(0xABCD1234u, MemReadL(memory, 0x3FFC));
    MemReadBlockW(nullptr, 0, nullptr, 0);
    MemWriteBlockW(nullptr, 0, nullptr, -1);
    directIO.unmapMemory();
    directIO.unmapMemory();
    EXPECT_EQ(nullptr, directIO.getPreviouslyMappedMemory());
    EXPECT_EQ(-1, msync(memory, 0x4000, MS_ASYNC)) << "still mapped";
    EXPECT_EQ(
        "failed to allow port access, errno=1\nCouldn't access /dev/mem\n"
        "Ports enabled OK\nmmap failed errno=22\nPorts disabled OK\n",
        console.take().err);
    EXPECT_EQ("Opening /dev/mem\nOpening /dev/mem\nOpening /dev/mem\n", console.out);
}

TEST_F(Hardware, ProbesTwoCardsInTheOrderThatLeavesBothInReset) {
    plugIn(0x300, 0xFB);
    plugIn(0x310, 0x84);
    const auto before = openFiles();
    std::set<std::ptrdiff_t> open;
    cards.onWrite = [&open](int, std::uint32_t) { open.insert(openFiles()); };
    DirectIO().allowPortAccess();
    EXPECT_EQ(2, detect());
    EXPECT_THAT(channels, ElementsAre(4, 8));
    EXPECT_THAT(open, ElementsAre(before + 1)) << "one /dev/port at a time";
    EXPECT_EQ(before, openFiles());
    std::vector<PortAccess> accesses;
    std::ostringstream lines;
    lines << "DSPDetect: Opening /dev/port\n";
    for (const auto& [base, counted] : {std::pair(0x300, 0x302), {0x310, 0}, {0x300, 0x312}}) {
        accesses.insert(accesses.end(),
                        {writes(base + 14, 8), writes(base + 2, 0x12), writes(base, 0x55),
                         reads(base, 0x55), writes(base, 0xAA), reads(base, 0xAA)});
        if (counted != 0) {
            accesses.push_back(reads(counted, cards.registers[counted]));
        }
        const std::string echo =
            "Attempt to write to baseIOPort\nAttempt to read from baseIOPort \n";
        lines << "Doing port test for board " << (base >> 4 & 1) << "\nPlacing DSP in RESET\n"
              << echo << echo << "port: " << base << " ok!\n";
    }
    EXPECT_EQ(accesses, cards.accesses);
    EXPECT_THAT(cards.slept_us, ElementsAre(100, 100, 100));
    EXPECT_EQ(
        "Ports enabled OK\nboard0 present\nnumChannels opening /dev/port\n"
        "Found 4 chan board\nchannelsBoard0=4\nboard1 present\n"
        "numChannels opening /dev/port\nFound 8 channel board\n",
        console.take().err);
    EXPECT_EQ(lines.str(), console.out);
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
                StartsWith("read 17 not 0x55\nread 17 not 0x55\nboard0 present\n"));
}

TEST_F(Hardware, NamesDevicesThatCannotBeUsed) {
    DSPDetect detector;
    EXPECT_EQ(-1, detector.readPort(0x300));
    detector.writePort(1, 0x300);
    cards.devPortErrno = EACCES;
    EXPECT_FALSE(detector.portTest(0));
    EXPECT_EQ(0, detector.numChannels(0));
    cards.devPortErrno = 0;
    const int next = dup(0);  // /dev/port gets one of the next descriptors
    close(next);
    EXPECT_FALSE(detector.portTest(2));
    EXPECT_EQ(0, detector.numChannels(2));
    cards.registers[0x305] = 0xAB;
    EXPECT_EQ(-85, detector.readPort(0x305));
    std::vector<std::uint16_t> memory(0x2000);
    EXPECT_TRUE(detector.simpleMemTest(memory.data(), 1));
    EXPECT_TRUE(memory[0x1002] == 3 && memory[0x1003] == 4);
    cardsim::attachHardware(nullptr);
    for (const int way : {O_WRONLY, O_RDONLY}) {  // a device that fails one way only
        for (int descriptor = next; descriptor < next + 4; ++descriptor) {
            dup2(open("/dev/null", way), descriptor);
        }
        EXPECT_EQ(way == O_WRONLY ? -1 : 0, detector.readPort(0x300));
        detector.writePort(1, 0x300);
    }
    EXPECT_EQ(
        "lseek failed errno=9\nwritePort: lseek failed errno=9\n"
        "Couldn't access /dev/port errno=13\nnumChannels opening /dev/port\n"
        "Couldn't access /dev/port errno=13\nno Dev port so returning 0 channels\n"
        "numChannels opening /dev/port\nCannot determine no of channels for board 2\n"
        "read failed errno=9\nwritePort:write failed errno=9\n",
        console.take().err);
    EXPECT_THAT(console.out, EndsWith("Doing port test for board 2\nMemTest: board= 1\n"
                                      "board 1 passed simple mem test\n"));
}

TEST_F(Hardware, MakesNoBoardWithoutItsMemory) {
    plugIn(0x300, 0);
    cards.devMemErrno = EPERM;
    const BoardMgr& manager = BoardMgr::getInstance();
    EXPECT_TRUE(manager.getBoard(0) == nullptr && manager.getDSPMemory() == nullptr);
    EXPECT_EQ(0, manager.getNumberOfBoards());
    EXPECT_THAT(reportsIn(takePackets()), ElementsAre(errorReport(4, "Card memory not mapped")));
    EXPECT_THAT(console.take().err, AllOf(HasSubstr("Detected 1 boards\nBoard0 has 4 channels\n"),
                                          EndsWith("ERROR! Card memory not mapped\n")));
}

using UncountedLines = Hardware;

TEST_P(UncountedLines, AreThoseOfTheBoardThatIsMadeForThem) {
    plugIn(0x300, 0);
    plugIn(0x310, 0);
    cards.lostOpening = GetParam().first;
    const BoardMgr& manager = BoardMgr::getInstance();
    EXPECT_THAT(console.take().err,
                HasSubstr("Detected 2 boards\nBoard0 has " + std::to_string(GetParam().second) +
                          " channels\nBoard1 has 4 channels\n"));
    EXPECT_EQ(8, manager.getBoard(0)->getNumChannels());
    EXPECT_TRUE(manager.getBoard(1)->channelOnThisBoard(8));
    EXPECT_FALSE(manager.getBoard(1)->channelOnThisBoard(7));
}

// /dev/port is lost for card 0's first test, or when its lines are to be counted.
INSTANTIATE_TEST_SUITE_P(Cards, UncountedLines, Values(std::pair(1, -2), std::pair(2, 0)));

TEST(Singletons, AreMadeOnceHoweverManyThreadsAskFirst) {
    const ScriptedCards cards;
    std::vector<std::vector<void*>> seen(8);
    std::atomic<std::size_t> missing{seen.size()};
    std::vector<std::thread> threads;
    whenAllocating = [] { poll(nullptr, 0, 1); };  // time for the others to come in
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
    whenAllocating = nullptr;
    EXPECT_THAT(seen, Each(seen[0]));
}

}  // namespace
