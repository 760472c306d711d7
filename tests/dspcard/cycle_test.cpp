// The whole driver on simulated cards, in virtual time: detection, boot, the read/write cycle, and
// the road of audio, reports and commands in both directions.
#include <thread>

#include "BoardMgr.h"
#include "JavaVm.h"
#include "MonitorBuffer.h"
#include "Surroundings.h"
#include "javaint/DSPRunner.h"
#include "pc/SimulatedPc.h"

int benchProgram(int count, char** arguments);

namespace {

using namespace testing;
using cardsim::Fault;
using cardsim::FaultKind;
using cardsim::SimulatedPc;

constexpr auto* startRecording = Java_com_zivolt_hardware_dsp_cppint_CPPBridge_startRecording;
constexpr auto* stopRecording = Java_com_zivolt_hardware_dsp_cppint_CPPBridge_stopRecording;
constexpr auto* setPlayback = Java_com_zivolt_hardware_dsp_cppint_CPPBridge_setPlayback;

class Pc : public SimulatedPc {
  public:
    using SimulatedPc::SimulatedPc;
    bool sleep(std::uint64_t microseconds) override {
        if (microseconds != 100'000) {
            pauses_us.push_back(microseconds);
        }
        return SimulatedPc::sleep(microseconds);
    }
    std::vector<std::uint64_t> pauses_us;  // all sleeps but those between two polls
    bool isStanding = false;               // lets the driver wait for ever when its time is over
    std::atomic<bool> isOver{false};

  protected:
    void switchOff() override {
        for (isOver = true; isStanding;) {
            pause();
        }
        SimulatedPc::switchOff();
    }
};

class Cycle : public TestWithParam<std::tuple<int, int, int>> {
  protected:
    void powerUp(int channels0, int channels1, std::uint64_t end_ms,
                 const std::vector<Fault>& faults = {}) {
        std::filesystem::current_path(FIRMWARE_FOLDER);
        auto options = SimulatedPc::Options::with(channels0, channels1);
        options.faults = faults;
        pc = new Pc(options);
        pc->endAt(end_ms);
    }
    static void bootAndRun() {
        EXPECT_TRUE(BoardMgr::getInstance().bootload());
        EXPECT_THROW(BoardMgr::getInstance().readWriteDSPs(), cardsim::PowerOff);
    }
    // The same on the runner's thread, which then waits for ever.
    void runInBackground() {
        pc->isStanding = true;
        DSPRunner::getInstance().startDSPs();
        DSPRunner::getInstance().startDSPs();
        while (!pc->isOver) {
            std::this_thread::yield();
        }
        EXPECT_TRUE(DSPRunner::getInstance().get_running());
    }
    const cardsim::CardReport& report(int slot) const { return pc->report().cards[slot]; }

    Console console;
    Pc* pc = nullptr;  // stays, as a runner does
};

using EachPairing = Cycle;

TEST_P(EachPairing, IsFoundBootedAndServedWithACallOnTheLastCard) {
    const auto [channels0, channels1, boards] = GetParam();
    powerUp(channels0, channels1, 100'000);
    // Made on a thread whose number the runner may get, but not its permission.
    std::thread([] { BoardMgr::getInstance(); }).join();
    EXPECT_THAT(console.take().err,
                HasSubstr("Detected " + std::to_string(boards) + " boards\nBoard0 has " +
                          std::to_string(boards > 0 ? channels0 : -2) + " channels\nBoard1 has " +
                          std::to_string(boards > 1 ? channels1 : -2) + " channels\n"));
    for (const int board : {-1, 0, 1, 2}) {
        EXPECT_EQ(board >= 0 && board < boards, BoardMgr::getInstance().getBoard(board) != nullptr);
    }
    pc->at(20'000, [table = settingsTable(TS_OFF_HOOK, 65)]() mutable {
        dispatcher().addPacketToReceiveQueue(PACKET_LINE_SETTINGS, 48, table.data());
    });
    const int last = std::max(boards - 1, 0), number = last * channels0 + 1;
    cardsim::Line* const line = boards > 0 ? &pc->line(last, 1) : nullptr;
    const std::function<void()> events[] = {
        [] { startRecording(nullptr, nullptr); }, [line] { line->callFrom("040"); },
        [line] { line->setOffHook(true); },       [line] { line->dial("1#"); },
        [] { startRecording(nullptr, nullptr); }, [line] { line->setOffHook(false); },
        [] { stopRecording(nullptr, nullptr); },  [line] { line->dial("2"); }};
    for (std::size_t i = 0; line != nullptr && i < std::size(events); ++i) {
        pc->at(60'000 + 2000 * i, events[i]);
    }
    runInBackground();
    const Packets packets = takePackets();
    for (int board = 0; board < boards; ++board) {
        EXPECT_EQ(1u, report(board).boots);
        EXPECT_EQ(0u, report(board).missed);
        EXPECT_THAT(
            reportsIn(packets),
            ElementsAre(Bytes{2, number, 3, '0', '4', '0'}, Bytes{1, 1, number},
                        Bytes{3, number, 2, '1', '#'}, Bytes{1, 1, number}, Bytes{1, 0, number}));
    }
}

INSTANTIATE_TEST_SUITE_P(Cards, EachPairing,
                         Values(std::tuple(4, 0, 1), std::tuple(8, 0, 1), std::tuple(4, 4, 2),
                                std::tuple(4, 8, 2), std::tuple(8, 4, 2), std::tuple(8, 8, 2),
                                std::tuple(0, 0, 0), std::tuple(0, 4, 0)));

// Tells, when it is deleted, whether the ring is empty by then.
struct WatchingPacket : PlaybackDataPacket {
    explicit WatchingPacket(std::string& told) : deletions(told) {}
    ~WatchingPacket() override { deletions += MonitorBuffer::getInstance().isEmpty() ? 'e' : 'f'; }
    std::string& deletions;
};

TEST_F(Cycle, PlaysPacketsInTurnUntilItIsSwitchedOff) {
    powerUp(8, 4, 12'000);  // plays a packet in two transfers: the next one has to wait
    std::string deletions;
    setPlayback(nullptr, nullptr, 2);
    for (int number = 0; number < 20; ++number) {
        auto packet = std::make_unique<WatchingPacket>(deletions);
        packet->read(packet->getData(), 600);
        dispatcher().addPacketToReceiveQueue(packet.release());
    }
    pc->at(7100, [] {
        EXPECT_FALSE(MonitorBuffer::getInstance().isEmpty());
        setPlayback(nullptr, nullptr, JNI_FALSE);
    });
    bootAndRun();
    EXPECT_THAT(deletions, AllOf(SizeIs(20), StartsWith("ffff"), EndsWith("eeeee")))
        << "the ring is emptied first";
}

TEST_F(Cycle, RebootsAllCardsAtTheSeventhLockUpOfAny) {
    powerUp(4, 4, 90'000,
            {{FaultKind::kCounterStuck, 0, 20, 22},
             {FaultKind::kCounterStuck, 1, 20, 22},
             {FaultKind::kCounterStuck, 1, 100, 100}});
    pc->at(40'000, [this] { EXPECT_EQ(1u, report(0).boots) << "at the sixth"; });
    bootAndRun();
    EXPECT_THAT(reportsIn(takePackets()), Contains(errorReport(3, "DSP Board Locked Up")).Times(7));
    std::vector<std::uint64_t> pauses_us(7, 100);  // three tests and two boots
    pauses_us.insert(pauses_us.end(), {3'000'000, 100, 100, 100, 100, 1'000'000});
    EXPECT_EQ(pauses_us, pc->pauses_us);
    EXPECT_THAT(console.take().err, HasSubstr("\nDSP Card locked so bootloading!\n"));
    EXPECT_EQ(std::pair(2u, 2u), std::pair(report(0).boots, report(1).boots));
}

TEST_F(Cycle, IsRunByTheBenchProgramWithAllSwitchedOn) {
    powerUp(4, 8, 20'000);
    pc->at(10'000, [this] { pc->line(1, 5).callFrom("040"); });
    std::uint16_t heard = 0;  // the word that names card and line
    pc->card(0).connectSpeaker(
        [&](const char* bytes, std::size_t) { std::memcpy(&heard, bytes, sizeof(heard)); });
    EXPECT_THROW(benchProgram(1, nullptr), cardsim::PowerOff);
    EXPECT_EQ(cardsim::patternWord(0, 0, 0, 0), heard);
    EXPECT_THAT(console.take().err,
                HasSubstr("\nBootload succeeded\nNo Trying to read write dsps\nBoardMgr::readWr"));
    EXPECT_THAT(console.out,
                AllOf(StartsWith("Trasfer size 4078\n"), HasSubstr("\n3 VOX "),
                      HasSubstr("\n7 VOX "), HasSubstr("\nCopying monitor data to buffer\n"),
                      HasSubstr("\nSending CLI Packet to Java: channel=5 length=3\n")));
}

TEST_F(Cycle, IsRunByTheBenchProgramWithoutCardsWhenOneDoesNotBoot) {
    powerUp(4, 4, 5000, {Fault{FaultKind::kByteRefused, 0, 100}});
    EXPECT_THROW(benchProgram(1, nullptr), cardsim::PowerOff);
    EXPECT_THAT(console.take().err,
                AllOf(HasSubstr("Boot Section failed addr=0x"),
                      EndsWith("BoardMgr calling bootload on board 1\nBootload failed\n"
                               "No Trying to read write dsps\nBoardMgr::readWriteDSPs\n")));
    EXPECT_EQ(0u, report(1).boots + takePackets().size());
}

}  // namespace
