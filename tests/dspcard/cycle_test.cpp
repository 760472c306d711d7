// The whole driver on simulated cards, in virtual time: detection, boot, the read/write cycle, and
// the road of audio, reports and commands in both directions.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "BoardMgr.h"
#include "Console.h"
#include "DSPBoardEightChannel.h"
#include "DSPBoardFourChannel.h"
#include "MonitorBuffer.h"
#include "javaint/DSPRunner.h"
#include "javaint/MessageDispatcher.h"
#include "pc/SimulatedPc.h"

namespace {

using cardsim::Fault;
using cardsim::FaultKind;
using cardsim::patternWord;
using cardsim::SimulatedPc;
using testing::ElementsAre;
using testing::HasSubstr;

using Packets = std::vector<std::unique_ptr<Packet>>;

Packets takePackets() {
    Packets packets;
    while (Packet* const packet = MessageDispatcher::getInstance().getPacketFromSendQueue()) {
        packets.emplace_back(packet);
    }
    return packets;
}

std::vector<std::vector<int>> reportsIn(const Packets& packets) {
    std::vector<std::vector<int>> reports;
    for (const auto& packet : packets) {
        if (packet->getType() != PACKET_RECORDED_DATA) {
            reports.push_back({packet->getType()});
            reports.back().insert(reports.back().end(), packet->getData(),
                                  packet->getData() + packet->getLength());
        }
    }
    return reports;
}

std::uint32_t countErrors(const Packets& packets, int code) {
    return static_cast<int>(
        std::count_if(packets.begin(), packets.end(), [code](const auto& packet) {
            return packet->getType() == PACKET_ERROR && packet->getData()[0] == code;
        }));
}

void sendSettings(int trigger, int delay, int beep = 0) {
    std::vector<unsigned char> table;
    for (int channel = 0; channel < 16; ++channel) {
        for (const int value : {beep, trigger, delay}) {
            table.push_back(static_cast<unsigned char>(value));
        }
    }
    MessageDispatcher::getInstance().addPacketToReceiveQueue(6, 48, table.data());
}

// Finds any lost, doubled, shifted or altered byte of the verifiable audio of one card.
class AudioCheck {
  public:
    AudioCheck(unsigned slot, unsigned firstChannel) : card(slot), first(firstChannel) {}

    bool isMine(const Packet& packet) const {
        return packet.getType() == PACKET_RECORDED_DATA && packet.getData()[1] == first;
    }
    void check(const Packet& packet) {
        const unsigned char* bytes = packet.getData();
        const unsigned ports = bytes[0];
        const unsigned words = 1200 / ports;
        const auto wordAt = [bytes](unsigned index) {
            return static_cast<unsigned>(bytes[2 + 2 * index] | bytes[3 + 2 * index] << 8);
        };
        const std::uint32_t counter = wordAt(1) | wordAt(2) << 16;
        if (transfers > 0) {
            ASSERT_EQ(lastCounter + 1, counter);
        }
        lastCounter = counter;
        ++transfers;
        for (unsigned port = 0; port < ports; ++port) {
            for (unsigned position = 0; position < words; ++position) {
                ASSERT_EQ(patternWord(card, port, counter, position),
                          wordAt(port * words + position))
                    << "transfer " << counter << " port " << port << " word " << position;
            }
        }
    }

    std::uint64_t transfers = 0;
    std::uint32_t lastCounter = 0;

  private:
    unsigned card, first;
};

class Cycle : public testing::Test {
  protected:
    Cycle() { std::filesystem::current_path(FIRMWARE_FOLDER); }

    void powerUp(int channels0, int channels1 = 0, std::vector<Fault> faults = {}) {
        SimulatedPc::Options options;
        options.channels[0] = channels0;
        options.channels[1] = channels1;
        options.faults = std::move(faults);
        pc = std::make_unique<SimulatedPc>(options);
    }
    BoardMgr& manager() { return BoardMgr::getInstance(); }

    // Boots, and runs the cycle until so many milliseconds have passed in all.
    void bootAndRun(std::uint64_t until_ms) {
        EXPECT_TRUE(manager().bootload());
        run(until_ms);
    }
    void run(std::uint64_t until_ms) {
        pc->endAt(until_ms);
        EXPECT_THROW(manager().readWriteDSPs(), cardsim::PowerOff);
    }
    void at(std::uint64_t ms, std::function<void()> action) { pc->at(ms, std::move(action)); }
    cardsim::CardReport report(int slot) const { return pc->report().cards[slot]; }

    Console console;
    std::unique_ptr<SimulatedPc> pc;
};

// What a load file in the working directory describes, read independently of the driver.
std::vector<cardsim::BootRom::Block> imageOf(const std::string& loadFile) {
    std::vector<cardsim::BootRom::Block> image;
    std::ifstream file(loadFile);
    std::string line;
    std::getline(file, line);
    std::getline(file, line);
    while (std::getline(file, line)) {
        std::istringstream tokens(line);
        std::string address, size, name;
        tokens >> address >> size >> name;
        cardsim::BootRom::Block block{
            0, static_cast<std::uint16_t>(std::stoul(address.substr(1), nullptr, 16)), {}};
        std::ifstream section(name, std::ios::binary);
        for (unsigned long i = std::stoul(size.substr(1), nullptr, 16); i > 0; --i) {
            const int low = section.get();
            block.words.push_back(static_cast<std::uint16_t>(low | section.get() << 8));
        }
        image.push_back(block);
    }
    return image;
}

struct Pairing {
    int channels0, channels1, boards;
};

class EachPairing : public Cycle, public testing::WithParamInterface<Pairing> {};

TEST_P(EachPairing, IsFoundBootedAndServed) {
    const Pairing pairing = GetParam();
    powerUp(pairing.channels0, pairing.channels1);
    EXPECT_EQ(pairing.boards, manager().getNumberOfBoards());
    console.take();
    const auto count = [](int channels) { return std::to_string(channels == 0 ? -2 : channels); };
    EXPECT_THAT(console.err,
                HasSubstr("Detected " + std::to_string(pairing.boards) + " boards\nBoard0 has " +
                          count(pairing.channels0) + " channels\nBoard1 has " +
                          count(pairing.boards == 2 ? pairing.channels1 : 0) + " channels\n"));
    for (const int board : {-1, 0, 1, 2}) {
        EXPECT_EQ(board >= 0 && board < pairing.boards, manager().getBoard(board) != nullptr);
    }
    bootAndRun(60'000);
    console.take();
    const auto packets = takePackets();
    int first = 0;
    for (int board = 0; board < pairing.boards; ++board) {
        const int channels = board == 0 ? pairing.channels0 : pairing.channels1;
        const std::string kind = channels == 4 ? "Four" : "Eight";
        EXPECT_THAT(console.err,
                    HasSubstr("BoardMgr calling bootload on board " + std::to_string(board) +
                              "\nDSPBoard" + kind + "Channel::bootload()\n"));
        EXPECT_EQ(channels, manager().getBoard(board)->getNumChannels());
        EXPECT_EQ(manager().getDSPMemory() + 0x2000 * board,
                  manager().getBoard(board)->getBaseAddr());

        const auto image = imageOf(channels == 4 ? "LOAD_4CH.TXT" : "LOAD_8CH.TXT");
        const auto& received = pc->card(board).bootRom().image();
        ASSERT_EQ(image.size(), received.size());
        for (std::size_t i = 0; i < image.size(); ++i) {
            EXPECT_EQ(image[i].address, received[i].address);
            EXPECT_EQ(image[i].words, received[i].words);
        }
        EXPECT_EQ(1u, report(board).boots);
        EXPECT_EQ(0u, report(board).missed);
        EXPECT_GE(report(board).served + 1, report(board).handOvers);

        AudioCheck audio(static_cast<unsigned>(board), static_cast<unsigned>(first));
        for (const auto& packet : packets) {
            if (audio.isMine(*packet)) {
                audio.check(*packet);
            }
        }
        EXPECT_GE(audio.transfers + 6, report(board).served);
        EXPECT_GT(audio.transfers, 100u);
        first += channels;
    }
    EXPECT_EQ(pairing.boards == 0, packets.empty());
}

INSTANTIATE_TEST_SUITE_P(Cards, EachPairing,
                         testing::Values(Pairing{4, 0, 1}, Pairing{8, 0, 1}, Pairing{4, 4, 2},
                                         Pairing{4, 8, 2}, Pairing{8, 4, 2}, Pairing{8, 8, 2},
                                         Pairing{0, 0, 0}));

TEST_F(Cycle, CountsASecondCardOnlyBesideTheFirst) {
    powerUp(0, 4);
    EXPECT_EQ(0, manager().getNumberOfBoards());
    EXPECT_TRUE(manager().bootload());
    run(10'000);
    EXPECT_EQ(0u, report(1).boots);
    EXPECT_TRUE(takePackets().empty());
}

TEST_F(Cycle, DeliversThousandsOfTransfersInARow) {
    powerUp(8, 4);
    AudioCheck audio[] = {{0, 0}, {1, 8}};
    std::uint64_t others = 0;
    for (std::uint64_t second = 10; second < 2400; second += 10) {
        at(second * 1000, [&] {
            for (const auto& packet : takePackets()) {
                const bool second_card = audio[1].isMine(*packet);
                if (second_card || audio[0].isMine(*packet)) {
                    audio[second_card ? 1 : 0].check(*packet);
                } else {
                    ++others;
                }
            }
        });
    }
    bootAndRun(2'400'000);
    EXPECT_GT(audio[0].transfers, 10'000u);
    EXPECT_GT(audio[1].transfers, 5'000u);
    EXPECT_EQ(0u, others);
    EXPECT_EQ(0u, report(0).missed + report(1).missed);
}

TEST_F(Cycle, ReleasesSixBuffersUntouchedFirst) {
    powerUp(4);
    sendSettings(TS_VOX_1, 7);
    at(6 * 450 + 200, [this] {
        EXPECT_EQ(6u, report(0).served);
        EXPECT_TRUE(takePackets().empty());
        EXPECT_EQ(0u, report(0).commands[0]);
    });
    bootAndRun(8000);
    EXPECT_EQ(1u, report(0).commands[3]);
    EXPECT_EQ(7000u, pc->line(0, 3).settings().delay_ms);
    const auto packets = takePackets();
    ASSERT_FALSE(packets.empty());
    EXPECT_EQ(patternWord(0, 0, 7, 1), packets[0]->getData()[4] | packets[0]->getData()[5] << 8);
}

TEST_F(Cycle, ReportsACallFromRingToHangUp) {
    powerUp(4, 8);
    manager().startRecording();
    sendSettings(TS_OFF_HOOK, 3);
    cardsim::Line& line = pc->line(1, 5);  // global channel 9
    at(10'000, [&line] {
        line.setRinging(true);
        line.callFrom("040123456");
    });
    at(12'000, [&line] { line.setOffHook(true); });
    at(14'000, [&line] { line.dial("12#"); });
    at(16'000, [&line] { line.setOffHook(false); });
    bootAndRun(20'000);
    EXPECT_THAT(reportsIn(takePackets()),
                ElementsAre(ElementsAre(2, 9, 9, '0', '4', '0', '1', '2', '3', '4', '5', '6'),
                            ElementsAre(1, 1, 9), ElementsAre(3, 9, 3, '1', '2', '#'),
                            ElementsAre(1, 0, 9)));
}

TEST_F(Cycle, SendsSettingsToEachCardWithItsOwnLevelsAndDelays) {
    powerUp(4, 8);
    const auto settingsOf = [this](int slot, int port) {
        const auto& settings = pc->line(slot, port).settings();
        return std::vector<int>{settings.beep, settings.trigger, settings.delay_ms};
    };
    at(10'000, [] { sendSettings(TS_VOX_3, 2, BEEP_HIGH); });
    at(14'000, [&] {
        EXPECT_THAT(settingsOf(0, 3), ElementsAre(3, 0x0C9F, 2000));
        EXPECT_THAT(settingsOf(1, 7), ElementsAre(3, 0x067F, 2000));
        sendSettings(TS_VOX_6, 65);
    });
    bootAndRun(18'000);
    EXPECT_THAT(settingsOf(0, 0), ElementsAre(0, 0x1C20, 65001));
    EXPECT_THAT(settingsOf(1, 0), ElementsAre(0, 0x115F, 65001));
    EXPECT_EQ(2u, report(0).commands[0]);
    EXPECT_EQ(2u, report(1).commands[7]);
}

TEST_F(Cycle, AlternatesTheDelayBetweenTwoCardsOfOneKind) {
    powerUp(4, 4);
    at(5000, [] { sendSettings(TS_VOX_1, 3); });
    at(10'000, [] { sendSettings(TS_VOX_1, 4); });
    bootAndRun(15'000);
    EXPECT_EQ(4000, pc->line(0, 0).settings().delay_ms);
    EXPECT_EQ(4001, pc->line(1, 0).settings().delay_ms);
}

TEST_F(Cycle, KeepsOnlyTheNewestSettingsForACardThatIsSlow) {
    powerUp(4, 4, {Fault{FaultKind::kDeadAfterBoot, 1}});
    for (int round = 1; round < 6; ++round) {
        at(static_cast<std::uint64_t>(5000 * round), [round] { sendSettings(TS_VOX_1, round); });
    }
    bootAndRun(40'000);
    EXPECT_EQ(5u, report(0).commands[0]);
    EXPECT_EQ(0u, report(1).commands[0]);
    EXPECT_EQ(0u, report(1).handOvers);
}

class Monitoring : public Cycle, public testing::WithParamInterface<Pairing> {};

TEST_P(Monitoring, IsHeardFromTheFirstCardsSpeaker) {
    const Pairing pairing = GetParam();
    powerUp(pairing.channels0, pairing.channels1);
    std::string heard;
    pc->card(0).connectSpeaker(
        [&heard](const char* bytes, std::size_t count) { heard.append(bytes, count); });
    const int port = 2;
    manager().setMonitorChannel(pairing.channels0 + port);
    bootAndRun(60'000);
    std::string sent;
    for (const auto& packet : takePackets()) {
        if (packet->getType() == PACKET_RECORDED_DATA &&
            packet->getData()[1] == pairing.channels0) {
            const int length = 2400 / pairing.channels1;
            const auto* const audio = packet->getData() + 2 + port * length;
            sent.append(reinterpret_cast<const char*>(audio), static_cast<std::size_t>(length));
        }
    }
    // A slow player loses the oldest bytes of the ring; what it plays is found in order.
    std::size_t played = 0;
    std::size_t from = 0;
    const auto block = static_cast<std::size_t>(2400 / pairing.channels0);
    for (std::size_t i = 0; i + block <= heard.size(); i += block) {
        const std::string piece = heard.substr(i, block);
        const std::size_t found = sent.find(piece, from);
        if (found != std::string::npos) {
            from = found + block;
            played += block;
        }
    }
    EXPECT_GT(played, sent.size() * 9 / 10);
    EXPECT_GT(sent.size(), 60'000u);
}

INSTANTIATE_TEST_SUITE_P(Cards, Monitoring,
                         testing::Values(Pairing{4, 4, 2}, Pairing{8, 4, 2}, Pairing{4, 8, 2},
                                         Pairing{8, 8, 2}));

TEST_F(Cycle, PlaysWhatTheClientSendsInOrderAndNothingAfterItIsSwitchedOff) {
    powerUp(4);
    std::string heard, sent;
    pc->card(0).connectSpeaker(
        [&heard](const char* bytes, std::size_t count) { heard.append(bytes, count); });
    manager().setEnablePlayback(true);
    for (int packet = 0; packet < 20; ++packet) {
        std::string audio(600, '\0');
        for (std::size_t i = 0; i < audio.size(); ++i) {
            audio[i] = static_cast<char>(packet * 7 + static_cast<int>(i));
        }
        sent += audio;
        MessageDispatcher::getInstance().addPacketToReceiveQueue(
            5, 600, reinterpret_cast<unsigned char*>(audio.data()));
    }
    at(7000, [] {
        BoardMgr::getInstance().setEnablePlayback(false);
        MessageDispatcher::getInstance().removePacketsFromReceiveQueue(5);
        EXPECT_TRUE(MonitorBuffer::getInstance().isEmpty());
    });
    bootAndRun(20'000);
    const std::size_t start = heard.find(sent.substr(0, 600));
    ASSERT_NE(std::string::npos, start);
    std::size_t same = 0;
    while (same < sent.size() && heard[start + same] == sent[same]) {
        ++same;
    }
    EXPECT_GE(same, 4u * 600);
    EXPECT_LT(same, 12u * 600);
    EXPECT_EQ('\x55', heard[heard.size() - 600]) << "silence again";
}

struct LockUps {
    int onCard0, onCard1;
    std::uint32_t boots;
};

class LockUp : public Cycle, public testing::WithParamInterface<LockUps> {};

TEST_P(LockUp, RebootsAllCardsAtTheSeventh) {
    std::vector<Fault> faults;
    const auto plan = [&faults](int card, int count) {
        for (int i = 0; i < count; ++i) {
            const auto handOver = static_cast<std::uint64_t>((i < 7 ? 20 : 60) + 2 * i);
            faults.push_back({FaultKind::kCounterStuck, card, handOver, handOver});
        }
    };
    plan(0, GetParam().onCard0);
    plan(1, GetParam().onCard1);
    powerUp(4, 4, faults);
    bootAndRun(90'000);
    const auto packets = takePackets();
    EXPECT_EQ(static_cast<std::uint32_t>(GetParam().onCard0 + GetParam().onCard1),
              countErrors(packets, ERROR_LOCKED_UP));
    EXPECT_EQ(GetParam().boots, report(0).boots);
    EXPECT_EQ(GetParam().boots, report(1).boots);
    EXPECT_EQ(GetParam().boots > 1, countErrors(packets, ERROR_MISSED_TRANSFER) > 0)
        << "the counter starts over with the firmware";
    AudioCheck audio(0, 0);
    const auto last = std::find_if(packets.rbegin(), packets.rend(),
                                   [&audio](const auto& packet) { return audio.isMine(*packet); });
    audio.check(**last);
    EXPECT_GT(audio.lastCounter, 60u) << "service goes on";
}

INSTANTIATE_TEST_SUITE_P(Cards, LockUp,
                         testing::Values(LockUps{6, 0, 1}, LockUps{7, 0, 2}, LockUps{3, 3, 1},
                                         LockUps{3, 4, 2}, LockUps{0, 13, 2}, LockUps{0, 14, 3}));

TEST_F(Cycle, ReportsWhatTheCardDoesWrong) {
    powerUp(4, 0,
            {Fault{FaultKind::kCounterJump, 0, 20, 20}, Fault{FaultKind::kTakenBack, 0, 30, 30}});
    bootAndRun(30'000);
    console.take();
    const auto packets = takePackets();
    EXPECT_EQ(1u, countErrors(packets, ERROR_MISSED_TRANSFER));
    EXPECT_EQ(1u, countErrors(packets, ERROR_TOO_SLOW));
    EXPECT_EQ(0u, countErrors(packets, ERROR_LOCKED_UP));
    EXPECT_THAT(console.out, HasSubstr("PROBLEM! Unlocking a buffer which is not locked\n"));
}

TEST_F(Cycle, StopsBootingAtTheFirstCardThatFails) {
    powerUp(4, 4, {Fault{FaultKind::kByteRefused, 0, 100}});
    EXPECT_FALSE(manager().bootload());
    console.take();
    EXPECT_THAT(console.err, HasSubstr("Boot Section failed addr=0x"));
    EXPECT_THAT(console.err, HasSubstr("BoardMgr calling bootload on board 0\n"));
    EXPECT_THAT(console.err, testing::EndsWith("BoardMgr calling bootload on board 1\n"));
    EXPECT_EQ(0u, report(1).boots);
    run(5000);
    EXPECT_TRUE(takePackets().empty());
}

// A PC that, once its time is over, lets the thread that drives the cards wait for ever.
class StandingPc : public SimulatedPc {
  public:
    using SimulatedPc::SimulatedPc;
    std::atomic<bool> isOver{false};

  protected:
    void switchOff() override {
        isOver = true;
        while (true) {
            pause();
        }
    }
};

TEST(Runner, GetsPortsOfItsOwnWhoeverMadeTheManager) {
    std::filesystem::current_path(FIRMWARE_FOLDER);
    SimulatedPc::Options options;
    options.channels[1] = 8;
    auto& pc = *new StandingPc(options);  // the runner never ends
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
    const auto packets = takePackets();
    EXPECT_GT(packets.size(), 50u);
    EXPECT_TRUE(reportsIn(packets).empty());
    EXPECT_TRUE(DSPRunner::getInstance().get_running());
}

}  // namespace
