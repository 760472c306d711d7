// The native methods of the Java class com.zivolt.hardware.dsp.cppint.CPPBridge, found by the Java
// VM through their names; nothing else is visible from the shared library.
//
// They run on whichever of the client's threads calls them, several at once as they please, and
// keep no state: packets go through the dispatcher's queues, everything else to the board manager
// and the runner thread. No method throws or lets an exception pass: what is refused or goes wrong
// is told in one line on standard error.
#include <jni.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <string>

#include "../BoardMgr.h"
#include "../ConsoleLine.h"
#include "../MonitorBuffer.h"
#include "DSPRunner.h"
#include "MessageDispatcher.h"
#include "Packet.h"

namespace {

constexpr jsize kFrameHeaderLength = 11;

void tellFailure(const char* method, const char* reason) noexcept {
    std::fprintf(stderr, "%s failed: %s\n", method, reason);  // must work without memory
}

// The one door through which every native method works: no C++ exception may reach the VM.
template <typename Result, typename Work>
Result guarded(const char* method, Result whenFailed, const Work& work) noexcept {
    try {
        return work();
    } catch (const std::exception& failure) {
        tellFailure(method, failure.what());
    } catch (...) {
        tellFailure(method, "unknown exception");
    }
    return whenFailed;
}

template <typename Work>
void guarded(const char* method, const Work& work) noexcept {
    guarded(method, true, [&] {
        work();
        return true;
    });
}

jbyte byteOf(pt::large value, int index) {
    return static_cast<jbyte>((value >> (8 * index)) & 0xFF);
}

void storeFrame(JNIEnv* env, jbyteArray frame, const Packet& packet) {
    const pt::large timestamp = packet.getTimeStamp();
    const jbyte packetType = byteOf(packet.getType(), 0);
    const jbyte lengthLO = byteOf(packet.getLength(), 0);
    const jbyte lengthHO = byteOf(packet.getLength(), 1);
    const jbyte time0 = byteOf(timestamp, 0);
    const jbyte time1 = byteOf(timestamp, 1);
    const jbyte time2 = byteOf(timestamp, 2);
    const jbyte time3 = byteOf(timestamp, 3);
    const jbyte time4 = byteOf(timestamp, 4);
    const jbyte time5 = byteOf(timestamp, 5);
    const jbyte time6 = byteOf(timestamp, 6);
    const jbyte time7 = byteOf(timestamp, 7);
    const jbyte header[kFrameHeaderLength] = {packetType, lengthLO, lengthHO, time0, time1, time2,
                                              time3,      time4,    time5,    time6, time7};
    // A call for each byte, in this order, is part of what a VM sees of the driver.
    for (jsize index = 0; index < kFrameHeaderLength; ++index) {
        env->SetByteArrayRegion(frame, index, 1, &header[index]);
    }
    env->SetByteArrayRegion(frame, kFrameHeaderLength, packet.getLength(),
                            reinterpret_cast<const jbyte*>(packet.getData()));
}

// The oldest event, framed; null when there is none or the VM has no room for it. In the second
// case it becomes the oldest again, so a client that polls from one thread loses nothing and sees
// everything in order. (A thread that polls at that very moment may already hold the next event.)
jbyteArray fetchFrame(JNIEnv* env) {
    MessageDispatcher& dispatcher = MessageDispatcher::getInstance();
    std::unique_ptr<Packet> packet(dispatcher.getPacketFromSendQueue());
    if (packet == nullptr) {
        return nullptr;
    }
    const jbyteArray frame = env->NewByteArray(kFrameHeaderLength + packet->getLength());
    if (frame == nullptr) {
        env->ExceptionClear();
        dispatcher.returnPacketToSendQueue(packet.release());
        ConsoleLine(std::cerr) << "getPacket: the Java VM has no memory for a packet; it waits";
        return nullptr;
    }
    storeFrame(env, frame, *packet);
    return frame;
}

// The elements of a Java array, held for the life of this object; null when the VM has no memory.
class ArrayElements {
  public:
    ArrayElements(JNIEnv* environment, jbyteArray javaArray)
        : env(environment), array(javaArray), elements(env->GetByteArrayElements(array, nullptr)) {}
    ~ArrayElements() {
        if (elements != nullptr) {
            env->ReleaseByteArrayElements(array, elements, 0);
        }
    }
    ArrayElements(const ArrayElements&) = delete;
    ArrayElements& operator=(const ArrayElements&) = delete;

    unsigned char* get() const { return reinterpret_cast<unsigned char*>(elements); }

  private:
    JNIEnv* const env;
    const jbyteArray array;
    jbyte* const elements;
};

// What is wrong with an array that is to give length bytes; empty when nothing is.
std::string problemWith(JNIEnv* env, jbyteArray data, jint length) {
    if (data == nullptr) {
        return "the data array is null";
    }
    const jsize available = env->GetArrayLength(data);
    if (length < 0 || length > available) {
        return "length " + std::to_string(length) + ", the data array has " +
               std::to_string(available) + " bytes";
    }
    return {};
}

void queueCommand(JNIEnv* env, jbyte packetType, jint length, jbyteArray data) {
    MessageDispatcher& dispatcher = MessageDispatcher::getInstance();
    const auto type = static_cast<unsigned char>(packetType);
    if (!MessageDispatcher::isCommand(type)) {
        dispatcher.addPacketToReceiveQueue(type, 0, nullptr);  // says so, whatever the array
        return;
    }
    const std::string problem = problemWith(env, data, length);
    if (!problem.empty()) {
        ConsoleLine(std::cerr) << "putPacket refused: " << problem;
        return;
    }
    const ArrayElements elements(env, data);
    if (elements.get() == nullptr) {
        env->ExceptionClear();
        if (length > 0) {  // a VM may have no address for no elements
            ConsoleLine(std::cerr) << "putPacket refused: the Java VM has no memory for the data";
            return;
        }
    }
    dispatcher.addPacketToReceiveQueue(type, length, elements.get());
}

void switchPlayback(bool playback) {
    BoardMgr::getInstance().setEnablePlayback(playback);
    if (!playback) {
        MessageDispatcher::getInstance().removePacketsFromReceiveQueue(PACKET_PLAYBACK_DATA);
        // An exchange that began meanwhile may have taken one of them.
        MonitorBuffer::getInstance().clear();
    }
}

jint numberOfChannels(jint boardNumber) {
    const DSPBoard* const board = BoardMgr::getInstance().getBoard(boardNumber);
    return board != nullptr ? board->getNumChannels() : 0;
}

}  // namespace

extern "C" {

JNIEXPORT jbyteArray JNICALL Java_com_zivolt_hardware_dsp_cppint_CPPBridge_getPacket(JNIEnv* env,
                                                                                     jobject) {
    return guarded("getPacket", jbyteArray{nullptr}, [&] { return fetchFrame(env); });
}

JNIEXPORT void JNICALL Java_com_zivolt_hardware_dsp_cppint_CPPBridge_putPacket(JNIEnv* env, jobject,
                                                                               jbyte packetType,
                                                                               jint length,
                                                                               jbyteArray data) {
    guarded("putPacket", [&] { queueCommand(env, packetType, length, data); });
}

JNIEXPORT void JNICALL Java_com_zivolt_hardware_dsp_cppint_CPPBridge_initialize(JNIEnv*, jobject) {
    guarded("initialize", [] { DSPRunner::getInstance().startDSPs(); });
}

JNIEXPORT void JNICALL Java_com_zivolt_hardware_dsp_cppint_CPPBridge_startRecording(JNIEnv*,
                                                                                    jobject) {
    guarded("startRecording", [] { BoardMgr::getInstance().startRecording(); });
}

JNIEXPORT void JNICALL Java_com_zivolt_hardware_dsp_cppint_CPPBridge_stopRecording(JNIEnv*,
                                                                                   jobject) {
    guarded("stopRecording", [] { BoardMgr::getInstance().stopRecording(); });
}

JNIEXPORT void JNICALL
Java_com_zivolt_hardware_dsp_cppint_CPPBridge_setMonitoring(JNIEnv*, jobject, jint monitorChannel) {
    guarded("setMonitoring", [&] { BoardMgr::getInstance().setMonitorChannel(monitorChannel); });
}

JNIEXPORT jint JNICALL Java_com_zivolt_hardware_dsp_cppint_CPPBridge_getNumberOfChannels(
    JNIEnv*, jobject, jint boardNumber) {
    return guarded("getNumberOfChannels", jint{0}, [&] { return numberOfChannels(boardNumber); });
}

JNIEXPORT void JNICALL
Java_com_zivolt_hardware_dsp_cppint_CPPBridge_setPlayback(JNIEnv*, jobject, jboolean playback) {
    guarded("setPlayback", [&] { switchPlayback(playback != JNI_FALSE); });
}

}  // extern "C"
