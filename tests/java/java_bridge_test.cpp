// The native methods under a Java VM of our own, which fails when a test wants it to and counts
// what it is asked for. Packets come and go through the dispatcher; no card is needed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <jni.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "javaint/MessageDispatcher.h"
#include "javaint/Packet.h"

extern "C" {
jbyteArray Java_com_zivolt_hardware_dsp_cppint_CPPBridge_getPacket(JNIEnv*, jobject);
void Java_com_zivolt_hardware_dsp_cppint_CPPBridge_putPacket(JNIEnv*, jobject, jbyte, jint,
                                                             jbyteArray);
}

namespace {

using testing::ElementsAre;
using Bytes = std::vector<unsigned char>;

struct JavaArray : _jbyteArray {
    explicit JavaArray(int size) : bytes(static_cast<std::size_t>(size), 1) {}
    std::vector<jbyte> bytes;
};

std::vector<jbyte>& bytesOf(jarray array) {
    return static_cast<JavaArray*>(array)->bytes;
}

// The functions that a VM offers carry no state, so what they work on is one for the process.
class JavaBridge : public testing::Test {
  protected:
    JavaBridge() {
        functions.NewByteArray = [](JNIEnv*, jsize length) -> jbyteArray {
            if (broken) {
                throw std::runtime_error("broken");
            }
            newest = std::make_unique<JavaArray>(length);
            return ifThereIsMemory(newest.get());
        };
        functions.SetByteArrayRegion = [](JNIEnv*, jbyteArray array, jsize start, jsize length,
                                          const jbyte* from) {
            ASSERT_LE(static_cast<std::size_t>(start + length), bytesOf(array).size());
            std::copy_n(from, length, bytesOf(array).begin() + start);
        };
        functions.GetByteArrayElements = [](JNIEnv*, jbyteArray array, jboolean*) {
            elementsHeld += outOfMemory ? 0 : 1;
            return ifThereIsMemory(bytesOf(array).data());
        };
        functions.ReleaseByteArrayElements = [](JNIEnv*, jbyteArray array, jbyte* data, jint mode) {
            elementsHeld -= data == bytesOf(array).data() && mode == 0 ? 1 : 0;
        };
        functions.GetArrayLength = [](JNIEnv*, jarray array) {
            return static_cast<jsize>(bytesOf(array).size());
        };
        functions.ExceptionClear = [](JNIEnv*) { exceptionPending = false; };
        env.functions = &functions;
    }
    template <class Result>
    static Result* ifThereIsMemory(Result* result) {
        exceptionPending = outOfMemory;
        return outOfMemory ? nullptr : result;
    }

    Bytes getPacket() {
        auto* const frame = Java_com_zivolt_hardware_dsp_cppint_CPPBridge_getPacket(&env, nullptr);
        EXPECT_FALSE(exceptionPending);
        return frame == nullptr ? Bytes() : Bytes(bytesOf(frame).begin(), bytesOf(frame).end());
    }
    // What it says on standard error.
    std::string putPacket(int type, jint length, JavaArray* data) {
        testing::internal::CaptureStderr();
        Java_com_zivolt_hardware_dsp_cppint_CPPBridge_putPacket(
            &env, nullptr, static_cast<jbyte>(type), length, data);
        EXPECT_FALSE(exceptionPending);
        EXPECT_EQ(elementsHeld, 0) << "elements were not released";
        return testing::internal::GetCapturedStderr();
    }

    static inline std::unique_ptr<JavaArray> newest;
    static inline bool outOfMemory = false, broken = false, exceptionPending = false;
    static inline int elementsHeld = 0;
    JNINativeInterface_ functions{};
    JNIEnv_ env{};
    MessageDispatcher& dispatcher = MessageDispatcher::getInstance();
};

TEST_F(JavaBridge, FramesAnEvent) {
    auto* const audio = new RecordedDataPacket(true, 4);
    const auto timestamp = static_cast<unsigned long long>(audio->getTimeStamp());
    Bytes line(600);
    std::iota(line.begin(), line.end(), static_cast<unsigned char>(7));
    audio->addAudioData(3, line.data());
    dispatcher.addPacketToSendQueue(audio);
    const Bytes frame = getPacket();
    ASSERT_EQ(frame.size(), 2413u);
    const auto timeByte = [&](int i) { return static_cast<unsigned char>(timestamp >> (8 * i)); };
    EXPECT_THAT(Bytes(frame.begin(), frame.begin() + 13),
                ElementsAre(4, 0x62, 0x09, timeByte(0), timeByte(1), timeByte(2), timeByte(3),
                            timeByte(4), timeByte(5), 0, 0, 4, 4));
    EXPECT_EQ(Bytes(frame.end() - 600, frame.end()), line);
    EXPECT_THAT(getPacket(), ElementsAre());
}

TEST_F(JavaBridge, SurvivesAVmThatFailsAndKeepsTheEvents) {
    for (int channel = 0; channel < 3; ++channel) {
        dispatcher.addPacketToSendQueue(new TriggerPacket(true, channel));
    }
    testing::internal::CaptureStderr();
    outOfMemory = true;
    EXPECT_THAT(getPacket(), ElementsAre());
    EXPECT_THAT(getPacket(), ElementsAre());
    outOfMemory = false;
    EXPECT_EQ(getPacket().back(), 0);
    EXPECT_EQ(getPacket().back(), 1);
    broken = true;
    EXPECT_THAT(getPacket(), ElementsAre());
    broken = false;
    const std::string waits = "getPacket: the Java VM has no memory for a packet; it waits\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), waits + waits + "getPacket failed: broken\n");
}

TEST_F(JavaBridge, RefusesCommandsThatCannotBeRead) {
    JavaArray table(48);
    const std::string refused = "putPacket refused: ";
    EXPECT_EQ(putPacket(6, 48, nullptr), refused + "the data array is null\n");
    for (const jint length : {49, INT32_MAX, -1, INT32_MIN}) {
        EXPECT_EQ(putPacket(6, length, &table),
                  refused + "length " + std::to_string(length) + ", the data array has 48 bytes\n");
    }
    for (const int type : {0, 4, 7, 200, 255}) {
        EXPECT_EQ(putPacket(type, 48, &table),
                  "Unexpected packet type " + std::to_string(type) + "\n");
    }
    outOfMemory = true;
    EXPECT_EQ(putPacket(6, 48, &table), refused + "the Java VM has no memory for the data\n");
    outOfMemory = false;

    EXPECT_EQ(putPacket(6, 48, &table), "");
    const std::unique_ptr<Packet> command(dispatcher.getPacketFromReceiveQueue());
    ASSERT_NE(command, nullptr);
    EXPECT_EQ(command->getType(), PACKET_LINE_SETTINGS);
    EXPECT_EQ(std::count(command->getData(), command->getData() + 48, 1), 48);
    EXPECT_EQ(dispatcher.getPacketFromReceiveQueue(), nullptr) << "one was not refused";
}

}  // namespace
