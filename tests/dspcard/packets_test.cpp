// The packets and the queues they travel in.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <numeric>
#include <set>
#include <thread>

#include "javaint/MessageDispatcher.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;

std::vector<int> payload(const Packet& packet) {
    return {packet.getData(), packet.getData() + packet.getLength()};
}

std::string text(const Packet& packet) {
    const pt::string line = packet.toString();
    return {line, static_cast<std::size_t>(pt::length(line))};
}

MessageDispatcher& dispatcher() {
    return MessageDispatcher::getInstance();
}

template <class Taken = Packet>
std::unique_ptr<Taken> takeCommand() {
    return std::unique_ptr<Taken>(static_cast<Taken*>(dispatcher().getPacketFromReceiveQueue()));
}

TEST(EventPacket, CarriesWhatTheCardReported) {
    const TriggerPacket start(true, 9);
    const DTMFPacket digits("123", 3, 5);
    const CLIPacket caller("0815", 2, 260);
    const ErrorPacket error(3, "DSP Board Locked Up");
    EXPECT_THAT(payload(start), ElementsAre(1, 9));
    EXPECT_THAT(payload(TriggerPacket(false, 9)), ElementsAre(0, 9));
    EXPECT_THAT(payload(digits), ElementsAre(5, 3, '1', '2', '3'));
    EXPECT_THAT(payload(caller), ElementsAre(4, 2, '0', '8'));
    EXPECT_EQ(21, error.getLength());
    EXPECT_EQ(3, error.getCode());
    EXPECT_EQ("ERROR:DSP Board Locked Up", text(error));
    EXPECT_EQ("DTMF:123", text(digits));
    EXPECT_EQ("CLI:08", text(caller));
    EXPECT_EQ("TriggerPacket:", text(start));
    EXPECT_EQ(1, start.getType());
    EXPECT_EQ(2, caller.getType());
    EXPECT_EQ(3, digits.getType());
    EXPECT_EQ(7, error.getType());
}

TEST(EventPacket, CutsLongTextsAtFiftyCharacters) {
    const std::string sixty(60, 'x');
    for (const std::unique_ptr<Packet>& packet : {
             std::unique_ptr<Packet>(new DTMFPacket(sixty.c_str(), 60, 1)),
             std::unique_ptr<Packet>(new CLIPacket(sixty.c_str(), 60, 1)),
             std::unique_ptr<Packet>(new ErrorPacket(1, sixty.c_str())),
         }) {
        EXPECT_EQ(52, packet->getLength());
        EXPECT_EQ(50, payload(*packet)[1]);
    }
}

TEST(EventPacket, ReadsTextBackWithinItsBuffer) {
    CLIPacket caller;
    unsigned char bytes[400];
    std::iota(std::begin(bytes), std::end(bytes), static_cast<unsigned char>(0));
    bytes[1] = 255;
    caller.read(bytes, sizeof(bytes));
    EXPECT_EQ(128, caller.getLength());
    EXPECT_EQ(127, payload(caller)[127]);
    caller.read(bytes, 1);
    EXPECT_THAT(payload(caller), ElementsAre(0, 0));
    ErrorPacket error;
    error.read(bytes, sizeof(bytes));
    EXPECT_EQ(257, error.getLength());
}

TEST(RecordedDataPacket, PlacesEachPortsAudio) {
    struct Row {
        bool fourChannel;
        int ports, length;
    };
    for (const Row& row : {Row{true, 4, 600}, Row{false, 8, 300}}) {
        RecordedDataPacket packet(row.fourChannel, 4);
        EXPECT_EQ(2402, packet.getLength());
        EXPECT_THAT(payload(packet), testing::Contains(0).Times(2400));
        std::vector<unsigned char> expected{static_cast<unsigned char>(row.ports), 4};
        for (int port = 0; port < row.ports; ++port) {
            std::vector<unsigned char> audio(static_cast<std::size_t>(row.length));
            std::iota(audio.begin(), audio.end(), static_cast<unsigned char>(100 + port));
            packet.addAudioData(port, audio.data());
            packet.addAudioData(port, nullptr);
            expected.insert(expected.end(), audio.begin(), audio.end());
        }
        EXPECT_THAT(payload(packet), ElementsAreArray(expected));
    }
}

TEST(RecordedDataPacketDeathTest, RefusesForeignChannels) {
    unsigned char audio[600] = {1};
    RecordedDataPacket packet(true, 0);
    testing::internal::CaptureStderr();
    packet.addAudioData(4, audio);
    packet.addAudioData(15, audio);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("no channel 15"));
    EXPECT_THAT(payload(packet), testing::Contains(0).Times(2401));
    EXPECT_EXIT(packet.addAudioData(16, audio), testing::ExitedWithCode(255),
                "RecordedDataPacket::addAudioData channel out of range");
    EXPECT_EXIT(packet.read(audio, 2), testing::ExitedWithCode(255), "Not Implemented");
    EXPECT_EXIT(TriggerPacket(true, 0).read(audio, 2), testing::ExitedWithCode(0),
                "NOT IMPLEMENTED");
}

TEST(LineSettingsPacket, HoldsSixteenEntriesAndDefaultsForTheRest) {
    unsigned char table[60] = {};
    table[3 * 4] = 3;
    table[3 * 4 + 1] = 2;
    table[3 * 4 + 2] = 10;
    LineSettingsPacket whole;
    whole.read(table, sizeof(table));
    EXPECT_EQ(48, whole.getLength());
    EXPECT_EQ(3, whole.getBeepType(4));
    EXPECT_EQ(2, whole.getTrigType(4));
    EXPECT_EQ(10, whole.getTrigDelaySecs(4));
    EXPECT_EQ(0, text(whole).find("LineSettingsPacket:\nChan=0 Beep=0, Trigger=0, VOXTimeout=0\n"));
    EXPECT_THAT(text(whole), HasSubstr("\nChan=4 Beep=3, Trigger=2, VOXTimeout=10\n"));
    const LineSettingsPacket copy(&whole);
    EXPECT_EQ(payload(whole), payload(copy));
    EXPECT_GE(copy.getTimeStamp(), whole.getTimeStamp());

    for (const int length : {-5, 0, 14}) {
        LineSettingsPacket part;
        part.read(table, length);
        EXPECT_EQ(length == 14 ? 2 : 5, part.getTrigType(4)) << length;
        EXPECT_EQ(3, part.getTrigDelaySecs(4));
        EXPECT_EQ(5, part.getTrigType(15));
        EXPECT_EQ(0, part.getBeepType(15));
    }
}

TEST(PlaybackDataPacket, KeepsAtMostSixHundredBytes) {
    std::vector<unsigned char> bytes(601, 7);
    PlaybackDataPacket packet;
    for (const auto& [given, kept] : {std::pair(600, 600), {601, 600}, {0, 0}, {-1, 0}, {5, 5}}) {
        packet.read(bytes.data(), given);
        EXPECT_EQ(kept, packet.getLength());
    }
    EXPECT_EQ("PlaybackDataPacket", text(packet));
}

TEST(Packet, IsStampedWithUnixTime) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto before = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    const TriggerPacket packet(true, 0);
    EXPECT_GE(packet.getTimeStamp(), before);
    EXPECT_LT(packet.getTimeStamp(), before + 10'000);
}

TEST(MessageDispatcher, KeepsOrderInTwoSeparateQueues) {
    EXPECT_EQ(nullptr, dispatcher().getPacketFromSendQueue());
    EXPECT_EQ(nullptr, dispatcher().getPacketFromReceiveQueue());
    TriggerPacket first(true, 1), second(true, 2), third(true, 3);
    dispatcher().addPacketToSendQueue(&first);
    dispatcher().addPacketToReceiveQueue(&second);
    dispatcher().addPacketToSendQueue(&third);
    EXPECT_EQ(&first, dispatcher().getPacketFromSendQueue());
    dispatcher().returnPacketToSendQueue(&first);
    EXPECT_EQ(&first, dispatcher().getPacketFromSendQueue());
    EXPECT_EQ(&third, dispatcher().getPacketFromSendQueue());
    EXPECT_EQ(nullptr, dispatcher().getPacketFromSendQueue());
    EXPECT_EQ(&second, dispatcher().getPacketFromReceiveQueue());
}

TEST(MessageDispatcher, BuildsOnlyCommands) {
    std::vector<unsigned char> bytes(1000, 9);
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    std::string refusals;
    for (int type = 0; type < 256; ++type) {
        dispatcher().addPacketToReceiveQueue(static_cast<unsigned char>(type), 1000, bytes.data());
        if (type != 5 && type != 6) {
            refusals += "Unexpected packet type " + std::to_string(type) + "\n";
        }
    }
    EXPECT_EQ(refusals, testing::internal::GetCapturedStderr());
    const auto playback = takeCommand<PlaybackDataPacket>();
    const auto settings = takeCommand<LineSettingsPacket>();
    EXPECT_EQ(nullptr, takeCommand());
    EXPECT_EQ(600, playback->getLength());
    EXPECT_EQ(9, settings->getTrigDelaySecs(15));
    EXPECT_EQ("PacketReceived PlaybackDataPacket\nPacketReceived " + text(*settings) + "\n",
              testing::internal::GetCapturedStdout());
}

TEST(MessageDispatcher, RemovesOneTypeAndKeepsTheOrderOfTheRest) {
    dispatcher().removePacketsFromReceiveQueue(5);
    std::vector<Packet*> kept;
    for (const int type : {6, 5, 5, 6, 5, 6}) {
        Packet* const packet =
            type == 6 ? static_cast<Packet*>(new LineSettingsPacket) : new PlaybackDataPacket;
        dispatcher().addPacketToReceiveQueue(packet);
        if (type == 6) {
            kept.push_back(packet);
        }
    }
    dispatcher().removePacketsFromReceiveQueue(5);
    for (Packet* const packet : kept) {
        EXPECT_EQ(packet, takeCommand().get());
    }
    EXPECT_EQ(nullptr, takeCommand());
}

TEST(MessageDispatcher, GivesEachPacketToOneOfManyThreads) {
    constexpr int kPackets = 20'000;
    std::vector<std::unique_ptr<Packet>> packets;
    std::generate_n(std::back_inserter(packets), kPackets,
                    [] { return std::make_unique<TriggerPacket>(true, 0); });
    std::vector<std::vector<Packet*>> taken(3);
    std::vector<std::thread> takers;
    std::atomic<int> left{kPackets};
    for (auto& mine : taken) {
        takers.emplace_back([&mine, &left] {
            while (left > 0) {
                if (Packet* const packet = dispatcher().getPacketFromSendQueue()) {
                    mine.push_back(packet);
                    --left;
                }
            }
        });
    }
    for (const auto& packet : packets) {
        dispatcher().addPacketToSendQueue(packet.get());
    }
    std::set<Packet*> all;
    for (std::size_t i = 0; i < takers.size(); ++i) {
        takers[i].join();
        all.insert(taken[i].begin(), taken[i].end());
    }
    EXPECT_EQ(kPackets, static_cast<int>(taken[0].size() + taken[1].size() + taken[2].size()));
    EXPECT_EQ(kPackets, static_cast<int>(all.size()));
}

TEST(MessageDispatcher, IsMadeOnceByManyThreads) {
    std::vector<MessageDispatcher*> seen(8);
    std::vector<std::thread> threads;
    for (auto& mine : seen) {
        threads.emplace_back([&mine] { mine = &MessageDispatcher::getInstance(); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(seen, testing::Each(&MessageDispatcher::getInstance()));
}

}  // namespace
