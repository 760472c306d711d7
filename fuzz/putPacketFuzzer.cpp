// What a Java client may hand to putPacket. Input: the packet type, the length as it is claimed
// (four bytes), and the array.
#include <jni.h>

#include <cstring>
#include <memory>
#include <vector>

#include "FuzzedCards.h"
#include "javaint/MessageDispatcher.h"
#include "javaint/Packet.h"

extern "C" void Java_com_zivolt_hardware_dsp_cppint_CPPBridge_putPacket(JNIEnv*, jobject, jbyte,
                                                                        jint, jbyteArray);

namespace {

struct JavaArray : _jbyteArray {
    std::vector<jbyte> bytes;
};

std::vector<jbyte>& bytesOf(jarray array) {
    return static_cast<JavaArray*>(array)->bytes;
}

int elementsHeld = 0;

JNINativeInterface_ virtualMachine() {
    JNINativeInterface_ functions{};
    functions.GetArrayLength = [](JNIEnv*, jarray array) {
        return static_cast<jsize>(bytesOf(array).size());
    };
    functions.GetByteArrayElements = [](JNIEnv*, jbyteArray array, jboolean*) {
        ++elementsHeld;
        return bytesOf(array).data();
    };
    functions.ReleaseByteArrayElements = [](JNIEnv*, jbyteArray, jbyte*, jint) { --elementsHeld; };
    return functions;
}

void check(const Packet& command, const JavaArray& array, jint length) {
    const bool plays = command.getType() == PACKET_PLAYBACK_DATA;
    require(plays || command.getType() == PACKET_LINE_SETTINGS, "only commands are queued");
    const int most = plays ? 600 : 48;
    const int kept = std::min<int>(length, most);
    require(command.getLength() == (plays ? kept : most), "a command has its length");
    require(std::memcmp(command.getData(), array.bytes.data(), static_cast<std::size_t>(kept)) == 0,
            "a command carries the client's bytes");
    require(pt::length(command.toString()) > 0, "a command has a text");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    silenceConsole();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const JNINativeInterface_ functions = virtualMachine();
    constexpr std::size_t kHead = 1 + sizeof(jint);
    if (size < kHead) {
        return 0;
    }
    jint length = 0;
    std::memcpy(&length, bytes + 1, sizeof length);
    JavaArray array;
    array.bytes.reserve(size);  // an empty array has an address too
    array.bytes.assign(bytes + kHead, bytes + size);
    JNIEnv env{&functions};
    Java_com_zivolt_hardware_dsp_cppint_CPPBridge_putPacket(
        &env, nullptr, static_cast<jbyte>(bytes[0]), length, &array);

    require(elementsHeld == 0, "the array's elements are given back");
    const std::unique_ptr<Packet> command(
        MessageDispatcher::getInstance().getPacketFromReceiveQueue());
    const bool fits = length >= 0 && static_cast<std::size_t>(length) <= array.bytes.size();
    const bool isCommand = bytes[0] == PACKET_PLAYBACK_DATA || bytes[0] == PACKET_LINE_SETTINGS;
    require((command != nullptr) == (fits && isCommand),
            "what makes sense is queued, else nothing");
    if (command != nullptr) {
        check(*command, array, length);
    }
    return 0;
}
