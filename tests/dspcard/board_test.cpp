// One card's exchange of transfer buffers, for both kinds of card on either board, as far as the
// random schedules do not see it: what is printed, the counter, the boot, and triggers that are
// cleared meanwhile. Card memory is a plain array here, and the registers read as set.
#include <signal.h>
#include <ucontext.h>

#include "BoardMgr.h"
#include "DSPBoardEightChannel.h"
#include "DSPBoardFourChannel.h"
#include "ScriptedCards.h"
#include "Surroundings.h"
#include "model/TransferLayout.h"

extern std::function<void()> whenAllocating;

namespace {

using namespace testing;
using Words = std::vector<std::uint16_t>;

class Board : public TestWithParam<std::tuple<int, int>> {
  protected:
    Board() {
        BoardMgr::getInstance();
        char* const address = reinterpret_cast<char*>(memory.data());
        if (eight) {
            board = std::make_unique<DSPBoardEightChannel>(number, address, first);
        } else {
            board = std::make_unique<DSPBoardFourChannel>(number, address, first);
        }
        console.take();
    }
    // What the DSP tells of a line.
    std::uint16_t& lineData(int port, int word) {
        return memory[layout.firstPort + port * layout.portWords + word];
    }
    // Buffer 0 is handed over.
    void exchange(std::uint32_t counter, Packet* command = nullptr) {
        memory[0] = static_cast<std::uint16_t>(counter);
        memory[1] = static_cast<std::uint16_t>(counter >> 16);
        cards.registers[base + 2] = 0xFFFF;
        board->doReadWrite(2 * number, command);
        reports = reportsIn(takePackets());
        console.take();
    }

    const int lines = std::get<0>(GetParam());
    const cardsim::TransferLayout& layout = cardsim::layoutOf(lines);
    const int number = std::get<1>(GetParam());
    const bool eight = lines == 8;
    const int first = 4 * number, base = 0x300 + 0x10 * number;
    Words memory = Words(0x1000);
    LineSettingsPacket settings;
    ScriptedCards cards;
    Console console;
    std::unique_ptr<DSPBoard> board;
    std::vector<Bytes> reports;  // of the last exchange, but its audio
};

TEST_P(Board, TellsOfItsLinesTextsAndMonitoring) {
    auto table = settingsTable(TS_NEVER, 2);
    table[3 * (first + 2) + 1] = table[3 * (first + 3) + 1] = TS_OFF_HOOK;
    settings.read(table.data(), 48);
    lineData(0, 0) = 0x7FFF;
    lineData(0, 2) = 1;
    lineData(1, 0) = 0x8000;
    lineData(1, layout.digits) = lineData(1, layout.caller) = 0x4100 + 127;  // more than fits
    lineData(3, layout.digits) = lineData(3, layout.caller) = 0x4200 + 128;  // negative
    cards.registers = {{base + 6, 0x80}, {base + 8, 0x40}, {base + 10, eight ? 0 : 4}};
    board->enableDebug(true);
    BoardMgr::getInstance().stopRecording();
    exchange(10, &settings);
    EXPECT_EQ("Transfer Count = 10\n", console.out);
    EXPECT_EQ("Updateing Line Settings!!!\n" + std::string(settings.toString()) + "\n",
              console.err);
    BoardMgr::getInstance().startRecording();
    board->setMonitoringChannel(first + lines - 1);
    exchange(11);
    EXPECT_EQ(eight ? "Transfer Count = 11\n"
                      "0 VOX 32767 Gen Trigger \n1 VOX 32768 VOX Trigger  FPGA Triggered\n\n"
                      "2 OH \n3 OH Triggered\n4 VOX 0\n5 VOX 0\n6 VOX 0\n7 VOX 0\n"
                      "Sending CLI Packet to Java: channel=1 length=127\n"
                    : "Transfer Count = 11\n"
                      "0 VOX 32767Gen Trigger \n1 VOX 32768VOX Trigger \n"
                      "2 OH \n3 OH Triggered\nSending Packet to Java: channel=1 length=127\n"
                      "Sending CLI Packet to Java: channel=1 length=127\n"
                      "Copying monitor data to buffer\n",
              console.out);
    EXPECT_EQ("Adding data to monitor buffer, size now=" + std::string(eight ? "300\n" : "600\n") +
                  (number == 0 ? "Getting data from monitor buffer, size now=0\n" : ""),
              console.err);

    EXPECT_THAT(reports, ElementsAre(Bytes{1, 1, first + 1}, Bytes{1, 1, first + 3},
                                     SizeIs(2 + layout.digitsBytes),
                                     SizeIs(2 + cardsim::layout::kCallerBytes)));
    if (!eight) {
        std::string words;
        for (int i = 1; i < 250; ++i) {
            memory[layout.debug + i] = static_cast<std::uint16_t>(i);
            words += std::to_string(i) + " ";
        }
        for (const int count : {2, 300}) {
            memory[layout.debug] = static_cast<std::uint16_t>(count);
            exchange(12);
            dynamic_cast<DSPBoardFourChannel&>(*board).printDebugBuffer();
            EXPECT_EQ("Debug Buffer: \n" + (count == 2 ? "1 2 " : words) + "\n",
                      console.take().out);
        }
    }
    board->enableDebug(false);
    BoardMgr::getInstance().stopRecording();
    board->setMonitoringChannel(15);
    exchange(13);
    EXPECT_EQ(eight && number == 0 ? "ERROR: Monitoring but buffer is empty\n" : "", console.out);
}

TEST_P(Board, JudgesTheCounterByAllItsBits) {
    const std::string lockedUp = "ERROR! DSP Board Locked Up\n", missed = "ERROR! Missed Xfer \n";
    using Row = std::pair<std::uint32_t, std::string>;
    for (const auto& [counter, error] :
         {Row(7, ""), Row(8, ""), Row(8, lockedUp), Row(0x10009, missed), Row(~0u, missed),
          Row(0, ""), Row(0, ""), Row(5, "")}) {
        exchange(counter);
        EXPECT_EQ(error, console.err) << counter;
        EXPECT_EQ(error == lockedUp, board->isLockedUp());
        board->setLockedUp(false);
    }
}

std::function<bool()> onStep;  // after each instruction; whether to go on

void step(int, siginfo_t*, void* context) {
    greg_t& flags = static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL];
    flags = onStep() ? flags | 0x100 : flags & ~0x100;
}

TEST_P(Board, ReportsATriggerAgainWhenARecordingStartsAtAnyMomentOfItsReport) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "one thread, and single steps through the sanitizer's own code take for ever";
#endif
    memory.assign(0x1000, 0xFFFF);  // voice on all lines
    exchange(1, &settings);
    const auto all = static_cast<std::size_t>(lines);
    whenAllocating = [this] { board->clearTriggers(); };
    board->handleTriggers();
    whenAllocating = nullptr;
    board->handleTriggers();
    EXPECT_EQ(2 * all, takePackets().size()) << "cleared with the packets on their way";
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = step;
    sigaction(SIGTRAP, &action, nullptr);
    bool isCleared = true;
    for (int steps = 0; isCleared; ++steps) {
        int left = steps;
        onStep = [&] {
            left == 0 ? board->clearTriggers() : void();
            return left-- > 0;
        };
        raise(SIGTRAP);
        board->handleTriggers();
        isCleared = std::exchange(left, 0) < 0;
        board->handleTriggers();
        ASSERT_EQ(all, takePackets().size()) << "cleared after " << steps << " instructions";
    }
}

TEST_P(Board, BootsItsFirmwareAndStartsWithSilence) {
    const WorkingFolder folder;
    EXPECT_FALSE(board->bootload());
    folder.write(eight ? "LOAD_8CH.TXT" : "LOAD_4CH.TXT", "no\nsections\n");
    cards.onRead = [](int) { return 0x20u; };  // asks for each byte and takes it
    Words whenStarted;
    cards.onWrite = [&](int, std::uint32_t) { whenStarted = memory; };
    memory.assign(0x1000, 0xFFFF);
    memory[2] = 2;  // a command that the DSP has not wiped out
    exchange(1, &settings);
    Words due = memory;
    constexpr std::uint16_t kSilence[] = {0xBB55, 0x76DB, 0x40A0, 0x00FA, 0xC200,
                                          0x07D6, 0x0280, 0x03EB, 0x0800, 0x1F58};
    for (int i = 0; i < layout.audioWords && (!eight || number == 0); ++i) {
        due[layout.playbackAudio + i] = due[0x800 + layout.playbackAudio + i] = kSilence[i % 10];
    }
    board->setLockedUp(true);
    console.take();
    EXPECT_TRUE(board->bootload());
    EXPECT_FALSE(board->isLockedUp());
    EXPECT_EQ(writes(base + 2, 0x1A), cards.accesses.back()) << "not started";
    EXPECT_EQ(due, whenStarted);
    EXPECT_THAT(
        console.take().err,
        AllOf(StartsWith(eight ? "DSPBoardEightChannel::bootload()\nBootload:LOAD_8CH.TXT\n"
                               : "DSPBoardFourChannel::bootload()\nBootload:LOAD_4CH.TXT\n"),
              EndsWith(eight ? "\nSize of Transfer=3554\nSize of counter=4\n"
                               "Size of Command=58\nSize of PortData=3492\n"
                             : "\nSize of Transfer=4078\nSize of counter=4\n"
                               "Size of Command=34\nSize of PortData=3540\n")));
    board->handleTriggers();
    EXPECT_EQ(static_cast<std::size_t>(lines), takePackets().size()) << "settings stay";
}

INSTANTIATE_TEST_SUITE_P(Cards, Board, Combine(Values(4, 8), Values(0, 1)));

TEST(BaseBoardDeathTest, DoesNothingOfItsOwnAndKnowsFourBuffers) {
    DSPBoard board(1, 4, nullptr, 4);
    for (const int buffer : {-1, 4}) {
        EXPECT_EXIT(DSPBoard::getOtherBufferNumber(buffer), ExitedWithCode(255),
                    "Buffer should be 0,1,2,3");
        EXPECT_FALSE(board.bufferOnThisBoard(buffer));
    }
    EXPECT_FALSE(board.bootload());
    ScriptedCards cards;
    Console console;
    DirectIO().allowPortAccess();
    board.doReadWrite(0, nullptr);
    DSPBoard::unlockBuffer(3);
    EXPECT_THAT(cards.accesses, ElementsAre(reads(0x314, 0), writes(0x314, 0x1A)));
    EXPECT_EQ(
        "doReadWrite should be overwritten \n"
        "PROBLEM! Unlocking a buffer which is not locked\n",
        console.take().out);
}

}  // namespace
