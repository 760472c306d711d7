// What waits between the threads: packets in their queues, and audio in its ring.
#include <chrono>
#include <numeric>
#include <random>
#include <thread>

#include "MonitorBuffer.h"
#include "Surroundings.h"

namespace {

using namespace testing;

std::string text(const Packet& packet) {
    const pt::string line = packet.toString();
    return {line, static_cast<std::size_t>(pt::length(line))};
}

TEST(Packet, IsStampedWithUnixTimeToTheMillisecond) {
    using namespace std::chrono;
    setenv("TZ", "AHEAD-5:45", 1);
    tzset();
    const auto now_ms = [] { return system_clock::now().time_since_epoch() / 1ms; };
    const auto before = now_ms();
    const TriggerPacket packet(true, 0);
    EXPECT_THAT(packet.getTimeStamp(), AllOf(Ge(before), Le(now_ms())));
    EXPECT_TRUE(packet.Packet::toString() == "not implemented");
}

TEST(TextPacket, CutsLongTextsAndReadsThemBackWithinItsBuffer) {
    EXPECT_THAT(payload(CLIPacket("0815", 2, 260)), ElementsAre(4, 2, '0', '8'));
    const std::string sixty(60, 'x');
    CLIPacket caller(sixty.c_str(), 60, 1);
    DTMFPacket digits(sixty.c_str(), 60, 1);
    ErrorPacket error(1, sixty.c_str());
    unsigned char bytes[400];
    std::iota(std::begin(bytes), std::end(bytes), static_cast<unsigned char>(0));
    bytes[1] = 255;
    using Row = std::tuple<Packet*, std::string, int>;
    for (const auto& [packet, name, longest] :
         {Row(&caller, "CLI:", 128), Row(&digits, "DTMF:", 128), Row(&error, "ERROR:", 257)}) {
        EXPECT_EQ(name + std::string(50, 'x'), text(*packet));
        packet->read(bytes, sizeof(bytes));
        EXPECT_EQ(longest, packet->getLength());
        EXPECT_EQ(127, packet->getData()[127]);
        packet->read(bytes, 1);
        EXPECT_THAT(payload(*packet), ElementsAre(0, 0));
    }
}

TEST(RecordedDataPacketDeathTest, StartsSilentAndRefusesForeignChannels) {
    unsigned char audio[600] = {7};
    RecordedDataPacket packet(true, 3);
    TriggerPacket trigger(true, 0);
    EXPECT_EXIT(packet.addAudioData(16, audio), ExitedWithCode(255),
                "RecordedDataPacket::addAudioData channel out of range");
    EXPECT_EXIT(packet.read(audio, 2), ExitedWithCode(255), "Not Implemented");
    EXPECT_EXIT(trigger.read(audio, 2), ExitedWithCode(0), "NOT IMPLEMENTED");
    EXPECT_EQ("TriggerPacket:RecordedDataPacket:", text(trigger) + text(packet));
    const Console console;
    for (const int channel : {1, 4, 15}) {
        packet.addAudioData(channel, audio);
        packet.addAudioData(channel, nullptr);
    }
    Bytes expected = {4, 3};
    expected.resize(2402);
    expected[2 + 600] = 7;
    EXPECT_EQ(expected, payload(packet));
}

TEST(CommandPacket, KeepsWhatFitsAndDefaultsForTheRest) {
    unsigned char bytes[601] = {};
    std::copy_n(std::begin({3, 2, 10}), 3, &bytes[3 * 4]);
    LineSettingsPacket settings;
    for (const int length : {14, -5}) {
        settings.read(bytes, length);
        EXPECT_THAT(
            text(settings),
            AllOf(StartsWith("LineSettingsPacket:\nChan=0 Beep=0, Trigger=0, VOXTimeout=0\n"),
                  HasSubstr("\nChan=4 Beep=3, Trigger=2, VOXTimeout=3\n"),
                  EndsWith("\nChan=15 Beep=0, Trigger=5, VOXTimeout=3\n")));
    }
    PlaybackDataPacket playback;
    for (const auto& [given, kept] : {std::pair(601, 600), {-1, 0}, {5, 5}}) {
        playback.read(bytes, given);
        EXPECT_EQ(kept, playback.getLength());
    }
}

TEST(MessageDispatcher, KeepsOrderInTwoQueuesAndBuildsOnlyCommands) {
    TriggerPacket first(true, 1), second(true, 2);
    dispatcher().addPacketToSendQueue(&first);
    dispatcher().addPacketToSendQueue(&second);
    Console console;
    unsigned char types[] = {5, 6, 5, 5, 6, 7, 5, 6, 4}, tags[] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    for (int i = 0; i < 9; ++i) {
        dispatcher().addPacketToReceiveQueue(types[i], 1, &tags[i]);
    }
    EXPECT_EQ("Unexpected packet type 7\nUnexpected packet type 4\n", console.take().err);
    EXPECT_THAT(console.out, StartsWith("PacketReceived PlaybackDataPacket\n"
                                        "PacketReceived LineSettingsPacket:\nChan=0 Beep=2, "));
    dispatcher().removePacketsFromReceiveQueue(5);
    for (const int kept : {2, 5, 8}) {
        EXPECT_EQ(kept,
                  std::unique_ptr<Packet>(dispatcher().getPacketFromReceiveQueue())->getData()[0]);
    }
    EXPECT_EQ(nullptr, dispatcher().getPacketFromReceiveQueue());
    EXPECT_EQ(&first, dispatcher().getPacketFromSendQueue());
    dispatcher().returnPacketToSendQueue(&first);
    for (Packet* const packet : {&first, &second, static_cast<TriggerPacket*>(nullptr)}) {
        EXPECT_EQ(packet, dispatcher().getPacketFromSendQueue());
    }
}

using Ring = CCircularBuffer<char, 600, false>;

TEST(CircularBuffer, BehavesAsAQueueThatDropsItsOldest) {
    std::string model = "seven b";
    Ring ring(model.data(), 7);
    std::mt19937 random(20'261'122);
    for (int step = 0; step < 20'000; ++step) {
        // Multiples of 100 meet the end of the storage exactly.
        const auto some = random() % 650;
        const auto count = static_cast<std::uint32_t>(step % 2 == 0 ? some / 80 * 100 : some);
        std::string items(count, static_cast<char>(random()));
        const auto action = random() % 6;
        if (action < 3) {
            ring.Write(items.data(), count);
            model += items;
            model.erase(0, std::max<std::size_t>(model.size(), 600) - 600);
        } else {
            const auto moved = action == 3   ? ring.Discard(count)
                               : action == 4 ? ring.Read(items.data(), count)
                                             : Ring(ring).Peek(items.data(), count);
            ASSERT_EQ(std::min<std::size_t>(count, model.size()), moved) << step;
            ASSERT_TRUE(action == 3 || model.compare(0, moved, items, 0, moved) == 0) << step;
            model.erase(0, action == 5 ? 0 : count);
        }
        ASSERT_EQ(std::tuple(model.size(), 600 - model.size(), model.empty(), model.size() == 600),
                  std::tuple(ring.get_countUsed(), ring.get_countFree(), ring.is_empty(),
                             ring.is_full()));
    }
    ring.Write(nullptr, 3);
    EXPECT_EQ(0u, ring.Read(nullptr, 3));
    EXPECT_EQ(model.size(), ring.get_countUsed());
}

TEST(CircularBufferDeathTest, KeepsItemsThatAreMoreThanBytesAndQuotesABrokenInvariant) {
    CCircularBuffer<std::string, 3, true> names(std::string("Anna"));
    for (const std::string name : {"Bert", "Carl", "Dora"}) {
        names.Write(name);
    }
    const CCircularBuffer<std::string, 3, true> copy(names);
    std::string name, all[3];
    EXPECT_TRUE(names.Read(name) && name == "Bert");
    names.Empty();
    EXPECT_FALSE(names.Peek(name));
    EXPECT_EQ(3u, copy.Peek(all, copy.get_maxItems() + 1));
    EXPECT_EQ("Dora", all[2]);
    struct : Ring {
        void lose() { m_dwFree -= 1; }
    } ring;
    ring.lose();
    EXPECT_DEATH(ring.Discard(1), "\\(m_dwUsed \\+ m_dwFree\\) == MAX_ITEMS");
}

TEST(Threads, ShareTheQueuesAndTheRing) {
    MonitorBuffer& ring = MonitorBuffer::getInstance();
    const Console console;
    std::atomic<std::size_t> left{20'000};
    const auto serve = [&left, &ring] {
        while (left > 0) {
            left -= takePackets().size();
            ring.clear();
        }
    };
    std::thread one(serve), other(serve);
    for (std::size_t i = left; i > 0; --i) {
        dispatcher().addPacketToSendQueue(new TriggerPacket(true, 0));
        i % 10 == 0 ? ring.addData("audio", 5) : void();
    }
    one.join();
    other.join();
    EXPECT_EQ(0u, left);
}

}  // namespace
