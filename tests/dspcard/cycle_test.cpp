// The whole driver on simulated cards, in virtual time: detection, boot, the read/write cycle, and
// the road of audio, reports and commands in both directions.
#include <gmock/gmock.h>
#include <unistd.h>

#include <numeric>
#include <thread>

#include "BoardMgr.h"
#include "MonitorBuffer.h"
#include "Surroundings.h"
#include "javaint/DSPRunner.h"
#include "pc/SimulatedPc.h"

namespace {

using cardsim::Fault;
using cardsim::FaultKind;
using cardsim::SimulatedPc;
using testing::ElementsAre;
using testing::HasSubstr;

void send(PacketType type, std::vector<unsigned char> bytes) {
    dispatcher().addPacketToReceiveQueue(type, static_cast<int>(bytes.size()), bytes.data());
}

// Finds any lost, doubled, shifted or altered byte of the verifiable audio of one card.
struct AudioCheck {
    bool isMine(const Packet& packet) const {
        return packet.getType() == PACKET_RECORDED_DATA && packet.getData()[1] == firstChannel;
    }
    void check(const Packet& packet) {
        const unsigned char* bytes = packet.getData();
        const unsigned words = 1200u / bytes[0];
        const auto wordAt = [bytes](unsigned index) {
            return static_cast<unsigned>(bytes[2 + 2 * index] | bytes[3 + 2 * index] << 8);
        };
        const std::uint32_t counter = wordAt(1) | wordAt(2) << 16;
        if (transfers++ > 0) {
            ASSERT_EQ(lastCounter + 1, counter);
        }
        lastCounter = counter;
        line2.append(bytes + 2 + 4 * words, bytes + 2 + 6 * words);
        for (unsigned i = 0; i < 1200; ++i) {
            ASSERT_EQ(cardsim::patternWord(card, i / words, counter, i % words), wordAt(i))
                << "transfer " << counter << " port " << i / words << " word " << i % words;
        }
    }

    unsigned card, firstChannel;
    std::uint64_t transfers = 0;
    std::uint32_t lastCounter = 0;
    std::string line2{};
};

class Cycle : public testing::Test {
  protected:
    BoardMgr& powerUp(int channels0, int channels1 = 0, std::vector<Fault> faults = {}) {
        std::filesystem::current_path(FIRMWARE_FOLDER);
        auto options = SimulatedPc::Options::with(channels0, channels1);
        options.faults = std::move(faults);
        pc = std::make_unique<SimulatedPc>(options);
        return BoardMgr::getInstance();
    }
    void listenToSpeaker() {
        pc->card(0).connectSpeaker(
            [this](const char* bytes, std::size_t count) { heard.append(bytes, count); });
    }
    // The bytes of the speaker's blocks that are found in what was sent, one behind the other: a
    // slow player loses some.
    std::size_t heardInOrder(const std::string& sent, std::size_t block) const {
        std::size_t played = 0;
        std::size_t from = 0;
        for (std::size_t i = 0; i + block <= heard.size(); i += block) {
            const std::size_t found = sent.find(heard.substr(i, block), from);
            if (found != std::string::npos) {
                from = found + block;
                played += block;
            }
        }
        return played;
    }
    // Runs the cycle until so many milliseconds have passed in all.
    void run(std::uint64_t until_ms) {
        pc->endAt(until_ms);
        EXPECT_THROW(BoardMgr::getInstance().readWriteDSPs(), cardsim::PowerOff);
    }
    void bootAndRun(std::uint64_t until_ms) {
        EXPECT_TRUE(BoardMgr::getInstance().bootload());
        run(until_ms);
    }
    const cardsim::CardReport& report(int slot) const { return pc->report().cards[slot]; }

    Console console;
    std::unique_ptr<SimulatedPc> pc;
    std::string heard;
};

#ifdef __SANITIZE_THREAD__
constexpr std::uint64_t kLongRun_ms = 400'000;  // one thread drives the cards: little to see
#else
constexpr std::uint64_t kLongRun_ms = 2'000'000;
#endif

class EachPairing : public Cycle, public testing::WithParamInterface<std::tuple<int, int, int>> {};
using LockUp = EachPairing;

TEST_P(EachPairing, IsFoundBootedServedThousandsOfTransfersAndHeard) {
    const int boards = std::get<2>(GetParam());
    const int channels[] = {std::get<0>(GetParam()), std::get<1>(GetParam())};
    BoardMgr& manager = powerUp(channels[0], channels[1]);
    EXPECT_THAT(console.take().err,
                HasSubstr("Detected " + std::to_string(boards) + " boards\nBoard0 has " +
                          std::to_string(boards > 0 ? channels[0] : -2) + " channels\nBoard1 has " +
                          std::to_string(boards > 1 ? channels[1] : -2) + " channels\n"));
    for (const int board : {-1, 0, 1, 2}) {
        EXPECT_EQ(board >= 0 && board < boards, manager.getBoard(board) != nullptr);
    }
    pc->at(10'000, [] { send(PACKET_LINE_SETTINGS, settingsTable(TS_NEVER, 2)); });
    pc->at(20'000, [] { send(PACKET_LINE_SETTINGS, settingsTable(TS_OFF_HOOK, 65, BEEP_HIGH)); });
    // The last card's line 2 is monitored for a minute.
    pc->at(30'000, [&] {
        if (boards > 0) {
            listenToSpeaker();
        }
        manager.setMonitorChannel((boards == 2 ? channels[0] : 0) + 2);
    });
    pc->at(90'000, [&] {
        manager.setMonitorChannel(-1);
        EXPECT_TRUE(MonitorBuffer::getInstance().isEmpty());
    });
    bootAndRun(kLongRun_ms);
    const Packets packets = takePackets();
    AudioCheck audio[] = {{0, 0}, {1, static_cast<unsigned>(channels[0])}};
    for (const auto& packet : packets) {
        const int board = audio[0].isMine(*packet) ? 0 : 1;
        ASSERT_TRUE(audio[board].isMine(*packet)) << "type " << packet->getType();
        audio[board].check(*packet);
    }
    for (int board = 0; board < boards; ++board) {
        EXPECT_EQ(1u, report(board).boots);
        EXPECT_EQ(0u, report(board).missed);
        EXPECT_GT(audio[board].transfers, audio[board].lastCounter - 7);
        EXPECT_GT(audio[board].transfers, kLongRun_ms / (channels[board] == 4 ? 500 : 250));
        const auto& settings = pc->line(board, 3).settings();
        EXPECT_EQ(3, settings.beep);
        EXPECT_EQ(0xFF02, settings.trigger);
        // The delays of one kind of card are exact in turn, wherever they go.
        EXPECT_EQ(board == 0 && channels[0] == channels[1] ? 65000 : 65001, settings.delay_ms);
        EXPECT_EQ(2u, report(board).commands[3]);
    }
    // Six buffers are released untouched first.
    EXPECT_EQ(packets.size() + (boards > 0 ? 6 : 0), report(0).served + report(1).served);
    if (boards > 0) {
        const std::size_t played = heardInOrder(audio[boards - 1].line2, 2400 / channels[0]);
        EXPECT_GT(played, 9 * 60'000 / 450 * 2400 / channels[boards - 1] / 10);
        EXPECT_EQ('\x55', heard[heard.size() - 300]) << "silence again";
    }
}

INSTANTIATE_TEST_SUITE_P(Cards, EachPairing,
                         testing::Values(std::tuple(4, 0, 1), std::tuple(8, 0, 1),
                                         std::tuple(4, 4, 2), std::tuple(4, 8, 2),
                                         std::tuple(8, 4, 2), std::tuple(8, 8, 2),
                                         std::tuple(0, 0, 0), std::tuple(0, 4, 0)));

TEST_F(Cycle, ReportsACallFromRingToHangUpWhileRecording) {
    BoardMgr& manager = powerUp(4, 8);
    manager.startRecording();
    send(PACKET_LINE_SETTINGS, settingsTable(TS_OFF_HOOK, 3));
    cardsim::Line& line = pc->line(1, 5);  // global channel 9
    pc->at(10'000, [&line] { line.callFrom("040123456"); });
    pc->at(12'000, [&line] { line.setOffHook(true); });
    pc->at(14'000, [&line] { line.dial("12#"); });
    pc->at(16'000, [&manager] { manager.startRecording(); });
    pc->at(18'000, [&line] { line.setOffHook(false); });
    pc->at(20'000, [&manager] { manager.stopRecording(); });
    pc->at(20'000, [&line] { line.dial("0"); });
    bootAndRun(24'000);
    EXPECT_THAT(reportsIn(takePackets()),
                ElementsAre(ElementsAre(2, 9, 9, '0', '4', '0', '1', '2', '3', '4', '5', '6'),
                            ElementsAre(1, 1, 9), ElementsAre(3, 9, 3, '1', '2', '#'),
                            ElementsAre(1, 1, 9), ElementsAre(1, 0, 9)));
}

TEST_F(Cycle, PlaysWhatTheClientSendsInOrderAndNothingAfterItIsSwitchedOff) {
    BoardMgr& manager = powerUp(8);  // plays a packet in two transfers: the next one has to wait
    listenToSpeaker();
    std::string sent;
    manager.setEnablePlayback(true);
    for (int packet = 0; packet < 20; ++packet) {
        std::vector<unsigned char> audio(600);
        std::iota(audio.begin(), audio.end(), static_cast<unsigned char>(packet * 7));
        sent.append(audio.begin(), audio.end());
        send(PACKET_PLAYBACK_DATA, audio);
    }
    pc->at(7000, [&manager] {
        manager.setEnablePlayback(false);
        dispatcher().removePacketsFromReceiveQueue(5);
        EXPECT_TRUE(MonitorBuffer::getInstance().isEmpty());
    });
    bootAndRun(20'000);
    const std::size_t start = heard.find(sent.substr(0, 300));
    ASSERT_NE(std::string::npos, start);
    const auto differs = std::mismatch(sent.begin(), sent.end(), &heard[start]).first;
    EXPECT_GE(differs - sent.begin(), 4 * 600);
    EXPECT_LT(differs - sent.begin(), 14 * 600);
    EXPECT_EQ('\x55', heard[heard.size() - 300]) << "silence again";
}

TEST_P(LockUp, RebootsAllCardsAtTheSeventh) {
    const auto [onCard0, onCard1, boots] = GetParam();
    std::vector<Fault> faults;
    for (int i = 0; i < onCard0 + onCard1; ++i) {
        const int nth = i < onCard0 ? i : i - onCard0;  // of its card
        const auto handOver = static_cast<std::uint64_t>((nth < 7 ? 20 : 60) + 2 * nth);
        faults.push_back({FaultKind::kCounterStuck, i < onCard0 ? 0 : 1, handOver, handOver});
    }
    powerUp(4, 4, faults);
    bootAndRun(90'000);
    const auto reports = reportsIn(takePackets());
    EXPECT_EQ(onCard0 + onCard1,
              std::count(reports.begin(), reports.end(), errorReport(3, "DSP Board Locked Up")));
    EXPECT_EQ(static_cast<std::uint32_t>(boots), report(0).boots);
    EXPECT_EQ(report(0).boots, report(1).boots);
    EXPECT_EQ(boots > 1,
              std::count(reports.begin(), reports.end(), errorReport(1, "Missed Xfer ")) > 0)
        << "the counter starts over with the firmware";
    EXPECT_GT(report(0).served, 150u) << "service goes on";
}

INSTANTIATE_TEST_SUITE_P(Cards, LockUp,
                         testing::Values(std::tuple(6, 0, 1), std::tuple(7, 0, 2),
                                         std::tuple(3, 3, 1), std::tuple(3, 4, 2),
                                         std::tuple(0, 14, 3)));

TEST_F(Cycle, StopsBootingAtTheFirstCardThatFails) {
    EXPECT_FALSE(powerUp(4, 4, {Fault{FaultKind::kByteRefused, 0, 100}}).bootload());
    EXPECT_THAT(console.take().err, HasSubstr("Boot Section failed addr=0x"));
    EXPECT_THAT(console.err, testing::EndsWith("BoardMgr calling bootload on board 1\n"));
    EXPECT_EQ(0u, report(1).boots);
    run(5000);
    EXPECT_TRUE(takePackets().empty());
}

TEST_F(Cycle, NumbersLinesBehindACardThatAnswersInItsSecondTestOnly) {
    const BoardMgr& manager = powerUp(4, 4, {Fault{FaultKind::kWrongEcho, 0, 1, 3}});
    EXPECT_THAT(console.take().err, HasSubstr("Detected 2 boards\nBoard0 has -2 channels\n"));
    EXPECT_EQ(8, manager.getBoard(0)->getNumChannels());
    EXPECT_TRUE(manager.getBoard(1)->channelOnThisBoard(8));
    EXPECT_FALSE(manager.getBoard(1)->channelOnThisBoard(7));
}

// A PC that, once its time is over, lets the thread that drives the cards wait for ever.
class StandingPc : public SimulatedPc {
  public:
    using SimulatedPc::SimulatedPc;
    std::atomic<bool> isOver{false};

  protected:
    void switchOff() override {
        for (isOver = true;;) {
            pause();
        }
    }
};

TEST(Runner, GetsPortsOfItsOwnWhoeverMadeTheManager) {
    std::filesystem::current_path(FIRMWARE_FOLDER);
    auto& pc = *new StandingPc(SimulatedPc::Options::with(4, 8));  // the runner never ends
    pc.endAt(20'000);
    const Console console;
    // The runner may get the number of a thread that has ended, but not its permission.
    std::thread([] { BoardMgr::getInstance().startRecording(); }).join();
    DSPRunner::getInstance().startDSPs();
    DSPRunner::getInstance().startDSPs();
    while (!pc.isOver) {
        std::this_thread::yield();
    }
    EXPECT_EQ(1u, pc.report().cards[0].boots);
    EXPECT_EQ(1u, pc.report().cards[1].boots);
    EXPECT_GT(takePackets().size(), 50u);
    EXPECT_TRUE(DSPRunner::getInstance().get_running());
}

}  // namespace
