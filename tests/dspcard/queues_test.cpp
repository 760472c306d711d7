// What waits between the threads: packets in their queues, and audio in its ring.
#include <gmock/gmock.h>

#include <ctime>
#include <numeric>
#include <random>
#include <set>
#include <thread>

#include "MonitorBuffer.h"
#include "Surroundings.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::string text(const Packet& packet) {
    const pt::string line = packet.toString();
    return {line, static_cast<std::size_t>(pt::length(line))};
}

template <class Taken = Packet>
std::unique_ptr<Taken> takeCommand() {
    return std::unique_ptr<Taken>(static_cast<Taken*>(dispatcher().getPacketFromReceiveQueue()));
}

TEST(TextPacket, CutsLongTextsAndReadsThemBackWithinItsBuffer) {
    EXPECT_THAT(payload(CLIPacket("0815", 2, 260)), ElementsAre(4, 2, '0', '8'));
    const std::string sixty(60, 'x'), kept(50, 'x');
    CLIPacket caller(sixty.c_str(), 60, 1);
    DTMFPacket digits(sixty.c_str(), 60, 1);
    ErrorPacket error(1, sixty.c_str());
    EXPECT_EQ("CLI:" + kept, text(caller));
    EXPECT_EQ("DTMF:" + kept, text(digits));
    EXPECT_EQ("ERROR:" + kept, text(error));
    for (const auto& [packet, longest] :
         {std::pair<Packet*, int>(&caller, 128), {&digits, 128}, {&error, 257}}) {
        EXPECT_EQ(52, packet->getLength());
        unsigned char bytes[400];
        std::iota(std::begin(bytes), std::end(bytes), static_cast<unsigned char>(0));
        bytes[1] = 255;
        packet->read(bytes, sizeof(bytes));
        EXPECT_EQ(longest, packet->getLength());
        EXPECT_EQ(127, packet->getData()[127]);
        packet->read(bytes, 1);
        EXPECT_THAT(payload(*packet), ElementsAre(0, 0));
    }
}

TEST(RecordedDataPacketDeathTest, StartsSilentAndRefusesForeignChannels) {
    unsigned char audio[600] = {1};
    RecordedDataPacket packet(true, 3);
    TriggerPacket trigger(true, 0);
    EXPECT_EXIT(packet.addAudioData(16, audio), testing::ExitedWithCode(255),
                "RecordedDataPacket::addAudioData channel out of range");
    EXPECT_EXIT(packet.read(audio, 2), testing::ExitedWithCode(255), "Not Implemented");
    EXPECT_EXIT(trigger.read(audio, 2), testing::ExitedWithCode(0), "NOT IMPLEMENTED");
    EXPECT_EQ("TriggerPacket:", text(trigger));
    EXPECT_EQ("RecordedDataPacket:", text(packet));
    Console console;
    packet.addAudioData(0, nullptr);
    packet.addAudioData(4, audio);
    packet.addAudioData(15, audio);
    EXPECT_THAT(console.take().err, HasSubstr("no channel 15"));
    Bytes untouched(2402, 0);
    untouched[0] = 4;
    untouched[1] = 3;
    EXPECT_EQ(untouched, payload(packet));
}

TEST(CommandPacket, KeepsWhatFitsAndDefaultsForTheRest) {
    unsigned char bytes[601] = {};
    std::copy_n(std::begin({3, 2, 10}), 3, &bytes[3 * 4]);
    LineSettingsPacket whole;
    whole.read(bytes, 60);
    EXPECT_EQ(Bytes(bytes, bytes + 48), payload(whole));
    EXPECT_THAT(text(whole), testing::StartsWith("LineSettingsPacket:\n"
                                                 "Chan=0 Beep=0, Trigger=0, VOXTimeout=0\n"));
    EXPECT_THAT(text(whole), HasSubstr("\nChan=4 Beep=3, Trigger=2, VOXTimeout=10\n"));
    for (const int length : {-5, 0, 14}) {
        LineSettingsPacket part;
        part.read(bytes, length);
        EXPECT_EQ(length == 14 ? 2 : 5, part.getTrigType(4)) << length;
        EXPECT_EQ(3, part.getTrigDelaySecs(4));
        EXPECT_EQ(5, part.getTrigType(15));
        EXPECT_EQ(0, part.getBeepType(15));
    }
    PlaybackDataPacket playback;
    for (const auto& [given, kept] : {std::pair(600, 600), {601, 600}, {0, 0}, {-1, 0}, {5, 5}}) {
        playback.read(bytes, given);
        EXPECT_EQ(kept, playback.getLength());
    }
    // Stamped with Unix time, to the millisecond.
    EXPECT_NEAR(static_cast<double>(std::time(nullptr)) * 1000,
                static_cast<double>(playback.getTimeStamp()), 5000);
}

TEST(MessageDispatcher, BuildsOnlyCommands) {
    std::vector<unsigned char> bytes(1000, 9);
    Console console;
    std::string refusals;
    for (int type = 0; type < 256; ++type) {
        dispatcher().addPacketToReceiveQueue(static_cast<unsigned char>(type), 1000, bytes.data());
        if (type != 5 && type != 6) {
            refusals += "Unexpected packet type " + std::to_string(type) + "\n";
        }
    }
    EXPECT_EQ(refusals, console.take().err);
    EXPECT_EQ(Bytes(600, 9), payload(*takeCommand<PlaybackDataPacket>()));
    const auto settings = takeCommand<LineSettingsPacket>();
    EXPECT_EQ(nullptr, takeCommand());
    EXPECT_EQ("PacketReceived PlaybackDataPacket\nPacketReceived " + text(*settings) + "\n",
              console.out);
}

TEST(MessageDispatcher, KeepsOrderInTwoSeparateQueues) {
    TriggerPacket first(true, 1), second(true, 2);
    dispatcher().addPacketToSendQueue(&first);
    dispatcher().addPacketToSendQueue(&second);
    std::vector<Packet*> kept;
    for (const int type : {6, 5, 5, 6, 5, 6}) {
        dispatcher().addPacketToReceiveQueue(type == 5 ? new PlaybackDataPacket
                                                       : kept.emplace_back(new LineSettingsPacket));
    }
    dispatcher().removePacketsFromReceiveQueue(5);
    for (Packet* const packet : kept) {
        EXPECT_EQ(packet, takeCommand().get());
    }
    EXPECT_EQ(nullptr, takeCommand());
    EXPECT_EQ(&first, dispatcher().getPacketFromSendQueue());
    dispatcher().returnPacketToSendQueue(&first);
    for (Packet* const packet : {&first, &second, static_cast<TriggerPacket*>(nullptr)}) {
        EXPECT_EQ(packet, dispatcher().getPacketFromSendQueue());
    }
}

TEST(MessageDispatcher, GivesEachPacketToOneOfManyThreads) {
    constexpr int kPackets = 20'000;
    std::vector<Packets> taken(3);
    std::vector<std::thread> takers;
    std::atomic<int> left{kPackets};
    for (Packets& mine : taken) {
        takers.emplace_back([&mine, &left] {
            while (left > 0) {
                if (Packet* const packet = dispatcher().getPacketFromSendQueue()) {
                    mine.emplace_back(packet);
                    --left;
                }
            }
        });
    }
    for (int i = 0; i < kPackets; ++i) {
        dispatcher().addPacketToSendQueue(new TriggerPacket(true, 0));
    }
    std::set<std::unique_ptr<Packet>> all;
    for (std::size_t i = 0; i < takers.size(); ++i) {
        takers[i].join();
        std::move(taken[i].begin(), taken[i].end(), std::inserter(all, all.end()));
    }
    EXPECT_EQ(kPackets, static_cast<int>(all.size()));
}

using Ring = CCircularBuffer<char, 600, false>;

TEST(CircularBuffer, BehavesAsAQueueThatDropsItsOldest) {
    Ring ring;
    std::string model;
    std::mt19937 random(20'261'122);
    for (int step = 0; step < 20'000; ++step) {
        SCOPED_TRACE(step);
        // Multiples of 100 meet the end of the storage exactly.
        const auto count =
            static_cast<std::uint32_t>(step % 2 == 0 ? 100 * (random() % 8) : random() % 650);
        std::string items(count, '\0');
        std::generate(items.begin(), items.end(), [&] { return static_cast<char>(random()); });
        const std::string oldest = model.substr(0, count);
        const auto action = random() % 6;
        if (action < 3) {
            ring.Write(items.data(), count);
            model += items;
            model.erase(0, model.size() - std::min<std::size_t>(model.size(), 600));
        } else if (action == 3) {
            ASSERT_EQ(oldest.size(), ring.Discard(count));
            model.erase(0, count);
        } else {
            items.resize(action == 4 ? ring.Read(items.data(), count)
                                     : Ring(ring).Peek(items.data(), count));
            ASSERT_EQ(oldest, items);
            model.erase(0, action == 4 ? count : 0);
        }
        ASSERT_EQ(model.size(), ring.get_countUsed());
        ASSERT_EQ(600 - model.size(), ring.get_countFree());
        ASSERT_EQ(model.empty(), ring.is_empty());
        ASSERT_EQ(model.size() == 600, ring.is_full());
    }
    ring.Write(nullptr, 3);
    EXPECT_EQ(0u, ring.Read(nullptr, 3));
    EXPECT_EQ(model.size(), ring.get_countUsed());
}

TEST(CircularBuffer, KeepsItemsThatAreMoreThanBytes) {
    CCircularBuffer<std::string, 3, true> names(std::string("Anna"));
    for (const std::string name : {"Bert", "Carl", "Dora"}) {
        names.Write(name);
    }
    const CCircularBuffer<std::string, 3, true> copy(names);
    std::string name, all[3];
    EXPECT_TRUE(names.Read(name));
    EXPECT_EQ("Bert", name);
    names.Empty();
    EXPECT_FALSE(names.Peek(name));
    EXPECT_EQ(3u, copy.Peek(all, copy.get_maxItems() + 1));
    EXPECT_EQ("Dora", all[2]);
}

TEST(CircularBufferDeathTest, QuotesTheBrokenInvariant) {
    struct : Ring {
        void lose() { m_dwFree -= 1; }
        void stray() { m_pRead = const_cast<char*>(c_pBufferEnd); }
    } counted, pointed;
    counted.lose();
    pointed.stray();
    EXPECT_DEATH(counted.Discard(1), "\\(m_dwUsed \\+ m_dwFree\\) == MAX_ITEMS");
    EXPECT_DEATH(pointed.Empty(),
                 "\\(c_pBufferStart <= m_pRead\\) && \\(m_pRead < c_pBufferEnd\\)");
}

TEST(MonitorBuffer, SaysHowMuchItHasAndIsEmptiedByAnotherThreadMeanwhile) {
    MonitorBuffer& buffer = MonitorBuffer::getInstance();
    Console console;
    const std::string audio(500, 'x');
    buffer.addData(audio.data(), 500);
    buffer.addData(audio.data(), -1);
    buffer.addData(audio.data(), 300);
    EXPECT_TRUE(buffer.isFull());
    std::string out(900, '.');
    buffer.getData(out.data(), 900);
    EXPECT_EQ(std::string(600, 'x') + std::string(300, '.'), out);
    EXPECT_EQ(
        "Adding data to monitor buffer, size now=500\n"
        "Adding data to monitor buffer, size now=500\n"
        "Adding data to monitor buffer, size now=600\n"
        "Getting data from monitor buffer, size now=0\n",
        console.take().err);
    std::thread client([&buffer] {
        for (int i = 0; i < 2000; ++i) {
            buffer.clear();
            static_cast<void>(buffer.isEmpty());
        }
    });
    for (int i = 0; i < 2000; ++i) {
        out.assign(300, '.');
        buffer.addData(audio.data(), 300);
        buffer.getData(out.data(), 300);
        ASSERT_EQ(std::string::npos, out.find_first_not_of("x."));
    }
    client.join();
    buffer.clear();
    EXPECT_TRUE(buffer.isEmpty());
}

}  // namespace
