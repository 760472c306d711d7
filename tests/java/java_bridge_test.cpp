// The native methods under a Java VM of our own, which fails when a test wants it to and counts
// what it is asked for. Packets come and go through the dispatcher; no card is needed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <jni.h>

#include <algorithm>
#include <memory>
#include <random>
#include <sstream>
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
    std::vector<jbyte> bytes;
};

JavaArray& in(jarray array) {
    return *static_cast<JavaArray*>(array);
}

// The VM's state; one for the process, as the functions that the VM offers carry none.
struct JavaVm {
    std::vector<std::unique_ptr<JavaArray>> arrays;
    int arraysToRefuse = 0;
    bool elementsRefused = false;
    bool throwsOnNewArray = false;
    bool exceptionPending = false;
    int elementsHeld = 0;
} vm;

JavaArray* makeArray(std::vector<jbyte> bytes) {
    vm.arrays.push_back(std::make_unique<JavaArray>());
    vm.arrays.back()->bytes = std::move(bytes);
    return vm.arrays.back().get();
}

jbyteArray JNICALL newByteArray(JNIEnv*, jsize length) {
    if (vm.throwsOnNewArray) {
        throw std::runtime_error("broken");
    }
    if (vm.arraysToRefuse > 0) {
        --vm.arraysToRefuse;
        vm.exceptionPending = true;
        return nullptr;
    }
    return makeArray(std::vector<jbyte>(static_cast<std::size_t>(length)));
}

void JNICALL setByteArrayRegion(JNIEnv*, jbyteArray array, jsize start, jsize length,
                                const jbyte* from) {
    ASSERT_LE(static_cast<std::size_t>(start + length), in(array).bytes.size());
    std::copy_n(from, length, in(array).bytes.begin() + start);
}

// A copy of exactly the array's size, so that the address sanitizer sees a read past it.
jbyte* JNICALL getByteArrayElements(JNIEnv*, jbyteArray array, jboolean*) {
    if (vm.elementsRefused) {
        vm.exceptionPending = true;
        return nullptr;
    }
    ++vm.elementsHeld;
    auto* const copy = new jbyte[in(array).bytes.size()];
    std::copy(in(array).bytes.begin(), in(array).bytes.end(), copy);
    return copy;
}

void JNICALL releaseByteArrayElements(JNIEnv*, jbyteArray, jbyte* elements, jint mode) {
    EXPECT_EQ(mode, 0);
    --vm.elementsHeld;
    delete[] elements;
}

jsize JNICALL getArrayLength(JNIEnv*, jarray array) {
    return static_cast<jsize>(in(array).bytes.size());
}

void JNICALL exceptionClear(JNIEnv*) {
    vm.exceptionPending = false;
}

class JavaBridge : public testing::Test {
  protected:
    JavaBridge() {
        functions.NewByteArray = newByteArray;
        functions.SetByteArrayRegion = setByteArrayRegion;
        functions.GetByteArrayElements = getByteArrayElements;
        functions.ReleaseByteArrayElements = releaseByteArrayElements;
        functions.GetArrayLength = getArrayLength;
        functions.ExceptionClear = exceptionClear;
        env.functions = &functions;
    }

    ~JavaBridge() override {
        EXPECT_EQ(vm.elementsHeld, 0) << "elements were not released";
        EXPECT_FALSE(vm.exceptionPending) << "a Java exception is left pending";
    }

    // Empty when there was no packet.
    Bytes getPacket() {
        const jbyteArray frame =
            Java_com_zivolt_hardware_dsp_cppint_CPPBridge_getPacket(&env, nullptr);
        return frame == nullptr ? Bytes() : Bytes(in(frame).bytes.begin(), in(frame).bytes.end());
    }

    void putPacket(int type, jint length, jbyteArray data) {
        Java_com_zivolt_hardware_dsp_cppint_CPPBridge_putPacket(
            &env, nullptr, static_cast<jbyte>(type), length, data);
    }

    // What the work writes to standard error, as lines.
    template <typename Work>
    static std::vector<std::string> linesOf(const Work& work) {
        testing::internal::CaptureStdout();  // the driver's trace
        testing::internal::CaptureStderr();
        work();
        std::istringstream text(testing::internal::GetCapturedStderr());
        testing::internal::GetCapturedStdout();
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    static std::unique_ptr<Packet> queuedCommand() {
        return std::unique_ptr<Packet>(dispatcher().getPacketFromReceiveQueue());
    }
    static MessageDispatcher& dispatcher() { return MessageDispatcher::getInstance(); }

    JNINativeInterface_ functions{};
    JNIEnv_ env{};
};

TEST_F(JavaBridge, FramesEventsInTheirOrder) {
    auto* const trigger = new TriggerPacket(true, 3);
    const auto timestamp = static_cast<unsigned long long>(trigger->getTimeStamp());
    auto* const audio = new RecordedDataPacket(true, 4);
    Bytes line(600);
    std::generate(line.begin(), line.end(),
                  [n = 0u]() mutable { return static_cast<unsigned char>(++n * 7); });
    audio->addAudioData(3, line.data());
    dispatcher().addPacketToSendQueue(trigger);
    dispatcher().addPacketToSendQueue(audio);

    const auto timeByte = [&](int i) { return static_cast<unsigned char>(timestamp >> (8 * i)); };
    EXPECT_THAT(getPacket(), ElementsAre(1, 2, 0, timeByte(0), timeByte(1), timeByte(2),
                                         timeByte(3), timeByte(4), timeByte(5), 0, 0, 1, 3));
    const Bytes frame = getPacket();
    ASSERT_EQ(frame.size(), 2413u);
    EXPECT_THAT(Bytes(frame.begin(), frame.begin() + 3), ElementsAre(4, 0x62, 0x09));
    EXPECT_THAT(Bytes(frame.begin() + 11, frame.begin() + 13), ElementsAre(4, 4));
    EXPECT_EQ(Bytes(frame.end() - 600, frame.end()), line);
    EXPECT_THAT(getPacket(), ElementsAre());
}

TEST_F(JavaBridge, KeepsAnEventThatTheVmHasNoRoomFor) {
    for (int channel = 0; channel < 3; ++channel) {
        dispatcher().addPacketToSendQueue(new TriggerPacket(true, channel));
    }
    vm.arraysToRefuse = 2;
    const auto lines = linesOf([&] {
        EXPECT_THAT(getPacket(), ElementsAre());
        EXPECT_THAT(getPacket(), ElementsAre());
    });
    EXPECT_EQ(lines.size(), 2u);
    EXPECT_FALSE(vm.exceptionPending);
    for (unsigned char channel = 0; channel < 3; ++channel) {
        EXPECT_EQ(getPacket().back(), channel);
    }
}

TEST_F(JavaBridge, LetsNoExceptionReachTheVm) {
    dispatcher().addPacketToSendQueue(new TriggerPacket(true, 0));
    vm.throwsOnNewArray = true;
    EXPECT_THAT(linesOf([&] { EXPECT_THAT(getPacket(), ElementsAre()); }),
                ElementsAre("getPacket failed: broken"));
    vm.throwsOnNewArray = false;
}

TEST_F(JavaBridge, RefusesCommandsThatCannotBeRead) {
    JavaArray* const table = makeArray(std::vector<jbyte>(48));
    const auto refusal = [&](int type, jint length, JavaArray* data) {
        return linesOf([&] { putPacket(type, length, data); });
    };
    EXPECT_THAT(refusal(6, 48, nullptr), ElementsAre("putPacket refused: the data array is null"));
    EXPECT_THAT(refusal(6, 49, table),
                ElementsAre("putPacket refused: length 49, the data array has 48 bytes"));
    EXPECT_THAT(refusal(5, -1, table),
                ElementsAre("putPacket refused: length -1, the data array has 48 bytes"));
    EXPECT_THAT(refusal(-56, 48, table), ElementsAre("Unexpected packet type 200"));
    vm.elementsRefused = true;
    EXPECT_EQ(refusal(6, 48, table).size(), 1u);
    vm.elementsRefused = false;
    EXPECT_EQ(queuedCommand(), nullptr);

    EXPECT_THAT(refusal(6, 48, table), ElementsAre());
    const auto command = queuedCommand();
    ASSERT_NE(command, nullptr);
    EXPECT_EQ(command->getType(), PACKET_LINE_SETTINGS);
    EXPECT_EQ(std::count(command->getData(), command->getData() + 48, 0), 48);
}

TEST_F(JavaBridge, SurvivesRandomCommands) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto pick = [&](int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(random);
    };
    std::vector<int> expectedTypes;
    std::size_t expectedRefusals = 0;
    const auto lines = linesOf([&] {
        for (int i = 0; i < 10000; ++i) {
            const int size = pick(0, 700);
            JavaArray* const data =
                pick(0, 9) == 0 ? nullptr
                                : makeArray(std::vector<jbyte>(static_cast<std::size_t>(size)));
            const jint length = pick(0, 9) == 0 ? static_cast<jint>(random()) : pick(-10, 750);
            const int type = pick(0, 2) == 0 ? pick(-128, 127) : pick(5, 6);
            const bool fits = data != nullptr && length >= 0 && length <= size;
            if (fits && (type == 5 || type == 6)) {
                expectedTypes.push_back(type);
            } else {
                ++expectedRefusals;
            }
            putPacket(type, length, data);
            vm.arrays.clear();
        }
    });
    EXPECT_EQ(lines.size(), expectedRefusals);
    std::vector<int> types;
    for (auto command = queuedCommand(); command != nullptr; command = queuedCommand()) {
        types.push_back(command->getType());
    }
    EXPECT_EQ(types, expectedTypes);
}

}  // namespace
