// The whole driver on simulated cards, in virtual time: detection, boot, the read/write cycle, and
// the road of audio, reports and commands in both directions.
#include <numeric>
#include <thread>

#include "BoardMgr.h"
#include "JavaVm.h"
#include "MonitorBuffer.h"
#include "Surroundings.h"
#include "javaint/DSPRunner.h"
#include "pc/SimulatedPc.h"

#define NATIVE(method) Java_com_zivolt_hardware_dsp_cppint_CPPBridge_##method

int benchProgram(int count, char** arguments);

namespace {

using namespace testing;
using cardsim::Fault;
using cardsim::FaultKind;
using cardsim::SimulatedPc;

void sendSettings(std::vector<unsigned char> table) {
    dispatcher().addPacketToReceiveQueue(PACKET_LINE_SETTINGS, 48, table.data());
}

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
        pc = std::make_unique<Pc>(options);
        pc->endAt(end_ms);
    }
    void listenToSpeaker() {
        pc->card(0).connectSpeaker(
            [this](const char* bytes, std::size_t count) { heard.append(bytes, count); });
    }
    static void bootAndRun() {
        EXPECT_TRUE(BoardMgr::getInstance().bootload());
        EXPECT_THROW(BoardMgr::getInstance().readWriteDSPs(), cardsim::PowerOff);
    }
    const cardsim::CardReport& report(int slot) const { return pc->report().cards[slot]; }

    Console console;
    std::unique_ptr<Pc> pc;
    std::string heard;
};

#ifdef __SANITIZE_THREAD__
constexpr std::uint64_t kLongRun_ms = 400'000;  // one thread drives the cards: little to see
#else
constexpr std::uint64_t kLongRun_ms = 2'000'000;
#endif

using EachPairing = Cycle;
using LockUp = Cycle;

TEST_P(EachPairing, IsFoundBootedServedThousandsOfTransfersAndHeard) {
    const auto [channels0, channels1, boards] = GetParam();
    const int channels[] = {channels0, channels1}, last = std::max(boards - 1, 0);
    powerUp(channels0, channels1, kLongRun_ms);
    BoardMgr& manager = BoardMgr::getInstance();
    EXPECT_THAT(console.take().err,
                HasSubstr("Detected " + std::to_string(boards) + " boards\nBoard0 has " +
                          std::to_string(boards > 0 ? channels0 : -2) + " channels\nBoard1 has " +
                          std::to_string(boards > 1 ? channels1 : -2) + " channels\n"));
    for (const int board : {-1, 0, 1, 2}) {
        EXPECT_EQ(board >= 0 && board < boards, manager.getBoard(board) != nullptr);
    }
    pc->at(20'000, [] {
        sendSettings(settingsTable(TS_NEVER, 2));
        sendSettings(settingsTable(TS_OFF_HOOK, 65, BEEP_HIGH));
    });
    // On the last card line 2 is monitored for a minute, and line 1 makes a call.
    const int line2 = last * channels0 + 2, line1 = line2 - 1;
    pc->at(30'000, [&] { manager.setMonitorChannel(line2); });
    pc->at(90'000, [&] {
        manager.setMonitorChannel(-1);
        EXPECT_TRUE(MonitorBuffer::getInstance().isEmpty());
    });
    const std::vector<Bytes> call = {{2, line1, 3, '0', '4', '0'},
                                     {1, 1, line1},
                                     {3, line1, 2, '1', '#'},
                                     {1, 1, line1},
                                     {1, 0, line1}};
    if (boards > 0) {
        cardsim::Line& line = pc->line(last, 1);
        const std::function<void()> events[] = {
            [this] { listenToSpeaker(); },       [] { NATIVE(startRecording)(nullptr, nullptr); },
            [&line] { line.callFrom("040"); },   [&line] { line.setOffHook(true); },
            [&line] { line.dial("1#"); },        [] { NATIVE(startRecording)(nullptr, nullptr); },
            [&line] { line.setOffHook(false); }, [] { NATIVE(stopRecording)(nullptr, nullptr); },
            [&line] { line.dial("2"); }};
        for (std::size_t i = 0; i < std::size(events); ++i) {
            pc->at(60'000 + 2000 * i, events[i]);
        }
    }
    bootAndRun();

    const Packets packets = takePackets();
    std::uint32_t transfers[2] = {}, counters[2] = {};
    std::string monitored;
    for (const auto& packet : packets) {
        if (packet->getType() == PACKET_RECORDED_DATA) {
            const unsigned char* const bytes = packet->getData();
            const int board = bytes[1] == 0 ? 0 : 1, portBytes = 2400 / channels[board];
            const std::uint32_t counter = bytes[4] | bytes[5] << 8;  // in the pattern of the audio
            counters[board] = transfers[board]++ == 0 ? counter : counters[board] + 1;
            ASSERT_EQ(counters[board], counter);
            monitored.append(bytes + 2 + 2 * portBytes,
                             bytes + 2 + (board == last ? 3 : 2) * portBytes);
        }
    }
    for (int board = 0; board < boards; ++board) {
        EXPECT_EQ(1u, report(board).boots);
        EXPECT_EQ(0u, report(board).missed);
        EXPECT_GT(transfers[board], kLongRun_ms / (channels[board] == 4 ? 500 : 250));
        const auto& settings = pc->line(board, 3).settings();
        EXPECT_EQ(3, settings.beep);
        EXPECT_EQ(0xFF02, settings.trigger);
        // A four-channel card is slower than the other kind: it gets only the newer settings. The
        // delays of one kind of card are exact in turn, wherever they go.
        const bool isSlower = board == 1 && channels1 < channels0;
        EXPECT_EQ(isSlower ? 1u : 2u, report(board).commands[3]);
        EXPECT_EQ(isSlower || (board == 0 && channels0 == channels1) ? 65000 : 65001,
                  settings.delay_ms);
    }
    // Six buffers are released untouched first.
    EXPECT_EQ(transfers[0] + transfers[1] + (boards > 0 ? 6 : 0),
              report(0).served + report(1).served);
    if (boards > 0) {
        EXPECT_EQ(call, reportsIn(packets));
        const std::size_t block = 2400 / channels0;
        EXPECT_THAT(monitored, HasSubstr(heard.substr(10 * block, block)));
        EXPECT_EQ('\x55', heard[heard.size() - block]) << "silence again";
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

TEST_F(Cycle, PlaysWhatTheClientSendsInOrderAndNothingAfterItIsSwitchedOff) {
    powerUp(8, 0, 20'000);  // plays a packet in two transfers: the next one has to wait
    listenToSpeaker();
    std::string sent, deletions;
    NATIVE(setPlayback)(nullptr, nullptr, 2);
    for (int number = 0; number < 20; ++number) {
        auto packet = std::make_unique<WatchingPacket>(deletions);
        std::iota(packet->getData(), packet->getData() + 600,
                  static_cast<unsigned char>(number * 7));
        packet->read(packet->getData(), 600);
        sent.append(packet->getData(), packet->getData() + 600);
        dispatcher().addPacketToReceiveQueue(packet.release());
    }
    for (const bool isOn : {true, false}) {
        pc->at(isOn ? 4100 : 7100, [isOn] {
            EXPECT_FALSE(MonitorBuffer::getInstance().isEmpty());
            NATIVE(setPlayback)(nullptr, nullptr, isOn ? JNI_TRUE : JNI_FALSE);
        });
    }
    bootAndRun();
    const std::size_t start = heard.find(sent.substr(0, 300));
    ASSERT_NE(std::string::npos, start);
    const auto differs = std::mismatch(sent.begin(), sent.end(), &heard[start]).first;
    EXPECT_THAT(differs - sent.begin(), AllOf(Ge(4 * 600), Lt(14 * 600)));
    EXPECT_EQ('\x55', heard[heard.size() - 300]) << "silence again";
    EXPECT_THAT(deletions, AllOf(SizeIs(20), EndsWith("eeeeeee"))) << "the ring first";
}

TEST_P(LockUp, RebootsAllCardsAtTheSeventh) {
    const auto [onCard0, onCard1, boots] = GetParam();
    std::vector<Fault> faults;
    for (int i = 0; i < onCard0 + onCard1; ++i) {
        const std::uint64_t nth = i < onCard0 ? i : i - onCard0;  // of its card
        const std::uint64_t handOver = (nth < 7 ? 20 : 60) + 2 * nth;
        faults.push_back({FaultKind::kCounterStuck, i < onCard0 ? 0 : 1, handOver, handOver});
    }
    powerUp(4, 4, 90'000, faults);
    bootAndRun();
    const auto reports = reportsIn(takePackets());
    EXPECT_THAT(reports, Contains(errorReport(3, "DSP Board Locked Up")).Times(onCard0 + onCard1));
    // The counter starts over with the firmware.
    EXPECT_EQ(boots > 1, Matches(Contains(errorReport(1, "Missed Xfer ")))(reports));
    std::vector<std::uint64_t> pauses_us(7, 100);  // three tests and two boots
    std::string lines;
    for (int boot = 1; boot < boots; ++boot) {
        pauses_us.insert(pauses_us.end(), {3'000'000, 100, 100, 100, 100, 1'000'000});
    }
    EXPECT_EQ(pauses_us, pc->pauses_us);
    EXPECT_EQ(boots > 1,
              Matches(HasSubstr("\nDSP Card locked so bootloading!\n"))(console.take().err));
    for (const int board : {0, 1}) {
        EXPECT_EQ(static_cast<std::uint32_t>(boots), report(board).boots);
        EXPECT_GT(report(board).served, 150u) << "service goes on";
    }
}

INSTANTIATE_TEST_SUITE_P(Cards, LockUp,
                         Values(std::tuple(6, 0, 1), std::tuple(7, 0, 2), std::tuple(3, 3, 1),
                                std::tuple(3, 4, 2), std::tuple(0, 14, 3)));

TEST_F(Cycle, IsRunByTheBenchProgramWithAllSwitchedOn) {
    powerUp(4, 8, 20'000);
    pc->at(10'000, [this] { pc->line(1, 5).callFrom("040"); });
    EXPECT_THROW(benchProgram(1, nullptr), cardsim::PowerOff);
    EXPECT_THAT(console.take().err,
                HasSubstr("\nBootload succeeded\nNo Trying to read write dsps\nBoardMgr::readWr"));
    EXPECT_THAT(console.out,
                AllOf(StartsWith("Trasfer size 4078\n"), HasSubstr("\n3 VOX "),
                      HasSubstr("\n7 VOX "), HasSubstr("\nCopying monitor data to buffer\n"),
                      HasSubstr("\nSending CLI Packet to Java: channel=5 length=3\n")));
}

TEST_F(Cycle, GoesOnWithoutCardsWhenOneDoesNotBoot) {
    powerUp(4, 4, 5000, {Fault{FaultKind::kByteRefused, 0, 100}});
    EXPECT_THROW(benchProgram(1, nullptr), cardsim::PowerOff);
    EXPECT_THAT(console.take().err,
                AllOf(HasSubstr("Boot Section failed addr=0x"),
                      EndsWith("BoardMgr calling bootload on board 1\nBootload failed\n"
                               "No Trying to read write dsps\nBoardMgr::readWriteDSPs\n")));
    EXPECT_EQ(0u, report(1).boots);
    EXPECT_TRUE(takePackets().empty());
}

TEST_F(Cycle, IsRunOnAThreadWithPortsOfItsOwnWhoeverMadeTheManager) {
    powerUp(4, 8, 20'000);
    pc->isStanding = true;
    // The runner may get the number of a thread that has ended, but not its permission.
    std::thread([] { BoardMgr::getInstance().startRecording(); }).join();
    DSPRunner::getInstance().startDSPs();
    DSPRunner::getInstance().startDSPs();
    while (!pc->isOver) {
        std::this_thread::yield();
    }
    EXPECT_EQ(2u, report(0).boots + report(1).boots);
    EXPECT_GT(takePackets().size(), 50u);
    EXPECT_TRUE(DSPRunner::getInstance().get_running());
    static_cast<void>(pc.release());  // the runner never ends
}

}  // namespace
