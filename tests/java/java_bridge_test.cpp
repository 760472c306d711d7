// The native methods under a Java VM of our own, which fails when a test wants it to. Packets come
// and go through the dispatcher; no card is needed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "JavaVm.h"
#include "javaint/MessageDispatcher.h"
#include "javaint/Packet.h"

namespace {

using testing::ElementsAre;
using Bytes = std::vector<unsigned char>;

class JavaBridge : public testing::Test {
  protected:
    // What it says on standard error.
    std::string putPacket(int type, jint length, JavaVm::Array* data) {
        testing::internal::CaptureStderr();
        vm.putPacket(type, length, data);
        return testing::internal::GetCapturedStderr();
    }

    JavaVm vm;
    MessageDispatcher& dispatcher = MessageDispatcher::getInstance();
};

TEST_F(JavaBridge, FramesAnEvent) {
    auto* const audio = new RecordedDataPacket(true, 4);
    const auto timestamp = static_cast<unsigned long long>(audio->getTimeStamp());
    Bytes line(600);
    std::iota(line.begin(), line.end(), static_cast<unsigned char>(7));
    audio->addAudioData(3, line.data());
    dispatcher.addPacketToSendQueue(audio);
    const Bytes frame = vm.getPacket();
    ASSERT_EQ(frame.size(), 2413u);
    const auto timeByte = [&](int i) { return static_cast<unsigned char>(timestamp >> (8 * i)); };
    EXPECT_THAT(Bytes(frame.begin(), frame.begin() + 13),
                ElementsAre(4, 0x62, 0x09, timeByte(0), timeByte(1), timeByte(2), timeByte(3),
                            timeByte(4), timeByte(5), 0, 0, 4, 4));
    EXPECT_EQ(Bytes(frame.end() - 600, frame.end()), line);
    EXPECT_THAT(vm.getPacket(), ElementsAre());
}

TEST_F(JavaBridge, SurvivesAVmThatFailsAndKeepsTheEvents) {
    for (int channel = 0; channel < 3; ++channel) {
        dispatcher.addPacketToSendQueue(new TriggerPacket(true, channel));
    }
    testing::internal::CaptureStderr();
    vm.outOfMemory = true;
    EXPECT_THAT(vm.getPacket(), ElementsAre());
    EXPECT_THAT(vm.getPacket(), ElementsAre());
    vm.outOfMemory = false;
    EXPECT_EQ(vm.getPacket().back(), 0);
    EXPECT_EQ(vm.getPacket().back(), 1);
    vm.broken = true;
    EXPECT_THAT(vm.getPacket(), ElementsAre());
    vm.broken = false;
    const std::string waits = "getPacket: the Java VM has no memory for a packet; it waits\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), waits + waits + "getPacket failed: broken\n");
}

TEST_F(JavaBridge, RefusesCommandsThatCannotBeRead) {
    JavaVm::Array table(Bytes(48, 1));
    const std::string refused = "putPacket refused: ";
    EXPECT_EQ(putPacket(6, 48, nullptr), refused + "the data array is null\n");
    for (const jint length : {49, INT32_MAX, -1, INT32_MIN}) {
        EXPECT_EQ(putPacket(6, length, &table),
                  refused + "length " + std::to_string(length) + ", the data array has 48 bytes\n");
    }
    for (const int type : {0, 4, 7, 200, 255}) {  // whatever their array
        const std::string line = "Unexpected packet type " + std::to_string(type) + "\n";
        EXPECT_EQ(putPacket(type, 48, &table), line);
        EXPECT_EQ(putPacket(type, 49, &table), line);
        EXPECT_EQ(putPacket(type, 0, nullptr), line);
    }
    vm.outOfMemory = true;
    EXPECT_EQ(putPacket(6, 48, &table), refused + "the Java VM has no memory for the data\n");
    // No elements need no address.
    EXPECT_EQ(putPacket(5, 0, &table), "");
    vm.outOfMemory = false;
    const std::unique_ptr<Packet> silence(dispatcher.getPacketFromReceiveQueue());
    ASSERT_NE(silence, nullptr);
    EXPECT_EQ(silence->getLength(), 0);

    EXPECT_EQ(putPacket(6, 48, &table), "");
    const std::unique_ptr<Packet> command(dispatcher.getPacketFromReceiveQueue());
    ASSERT_NE(command, nullptr);
    EXPECT_EQ(command->getType(), PACKET_LINE_SETTINGS);
    EXPECT_EQ(std::count(command->getData(), command->getData() + 48, 1), 48);
    EXPECT_EQ(dispatcher.getPacketFromReceiveQueue(), nullptr) << "one was not refused";
}

}  // namespace
