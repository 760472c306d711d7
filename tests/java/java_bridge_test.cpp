// The native methods under a Java VM of our own, which fails when a test wants it to. Packets come
// and go through the dispatcher; no card is needed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "JavaVm.h"
#include "javaint/MessageDispatcher.h"
#include "javaint/Packet.h"

namespace {

using Bytes = std::vector<unsigned char>;

class JavaBridge : public testing::Test {
  protected:
    JavaVm vm;
    MessageDispatcher& dispatcher = MessageDispatcher::getInstance();
};

TEST_F(JavaBridge, FramesEventsAndKeepsThemWhileTheVmFails) {
    auto* const audio = new RecordedDataPacket(true, 4);
    audio->addAudioData(3, Bytes(600, 7).data());
    Bytes frame = {4, 0x62, 0x09};
    for (int bit = 0; bit < 64; bit += 8) {
        frame.push_back(static_cast<unsigned char>(audio->getTimeStamp() >> bit));
    }
    frame.insert(frame.end(), audio->getData(), audio->getData() + 2402);
    dispatcher.addPacketToSendQueue(audio);
    dispatcher.addPacketToSendQueue(new TriggerPacket(true, 1));
    dispatcher.addPacketToSendQueue(new TriggerPacket(true, 2));

    testing::internal::CaptureStderr();
    vm.outOfMemory = true;
    EXPECT_EQ(vm.getPacket(), Bytes());
    EXPECT_EQ(vm.getPacket(), Bytes());
    vm.outOfMemory = false;
    EXPECT_EQ(vm.getPacket(), frame);
    EXPECT_EQ(vm.getPacket().back(), 1);
    vm.broken = true;
    EXPECT_EQ(vm.getPacket(), Bytes());
    vm.broken = false;
    EXPECT_EQ(vm.getPacket(), Bytes()) << "there is none";
    const std::string waits = "getPacket: the Java VM has no memory for a packet; it waits\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), waits + waits + "getPacket failed: broken\n");
}

TEST_F(JavaBridge, RefusesCommandsThatCannotBeRead) {
    JavaVm::Array table(Bytes(48, 1));
    const std::string refused = "putPacket refused: ";
    std::vector<std::tuple<int, jint, JavaVm::Array*, std::string>> cases = {
        {6, 48, nullptr, refused + "the data array is null\n"}, {6, 48, &table, ""}};
    for (const jint length : {49, INT32_MAX, -1, INT32_MIN}) {
        const std::string line =
            "length " + std::to_string(length) + ", the data array has 48 bytes\n";
        cases.emplace_back(6, length, &table, refused + line);
    }
    for (const int type : {0, 4, 7, 200, 255}) {  // whatever their array
        const std::string line = "Unexpected packet type " + std::to_string(type) + "\n";
        cases.emplace_back(type, 49, &table, line);
        cases.emplace_back(type, 0, nullptr, line);
    }
    const auto judge = [&] {
        for (const auto& [type, length, array, line] : cases) {
            testing::internal::CaptureStderr();
            vm.putPacket(type, length, array);
            EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
        }
    };
    judge();
    vm.outOfMemory = true;
    cases = {{6, 48, &table, refused + "the Java VM has no memory for the data\n"},
             {5, 0, &table, ""}};  // no elements need no address
    judge();
    vm.outOfMemory = false;

    const std::unique_ptr<Packet> command(dispatcher.getPacketFromReceiveQueue()),
        silence(dispatcher.getPacketFromReceiveQueue());
    ASSERT_TRUE(command != nullptr && silence != nullptr);
    EXPECT_EQ(command->getType(), PACKET_LINE_SETTINGS);
    EXPECT_EQ(Bytes(command->getData(), command->getData() + 48), table.bytes);
    EXPECT_EQ(silence->getLength(), 0);
    EXPECT_EQ(dispatcher.getPacketFromReceiveQueue(), nullptr) << "one was not refused";
}

}  // namespace
