// A Java VM of our own under the native methods: one array is a frame, one environment serves all
// threads' calls in turn, and it fails when a test wants it to. The functions that a VM offers
// carry no state, so what they work on is one for the process.
#pragma once

#include <jni.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

// The native methods but initialize, which starts a thread.
#define NATIVE(method) Java_com_zivolt_hardware_dsp_cppint_CPPBridge_##method
extern "C" {
jbyteArray NATIVE(getPacket)(JNIEnv*, jobject);
void NATIVE(putPacket)(JNIEnv*, jobject, jbyte, jint, jbyteArray);
void NATIVE(startRecording)(JNIEnv*, jobject);
void NATIVE(stopRecording)(JNIEnv*, jobject);
void NATIVE(setMonitoring)(JNIEnv*, jobject, jint);
jint NATIVE(getNumberOfChannels)(JNIEnv*, jobject, jint);
void NATIVE(setPlayback)(JNIEnv*, jobject, jboolean);
}

class JavaVm {
  public:
    using Bytes = std::vector<unsigned char>;
    struct Array : _jbyteArray {
        explicit Array(Bytes content) : bytes(std::move(content)) {
            bytes.reserve(1);  // an empty array has an address too
        }
        jbyte* data() { return reinterpret_cast<jbyte*>(bytes.data()); }
        Bytes bytes;
    };

    JavaVm() {
        functions.NewByteArray = [](JNIEnv*, jsize length) -> jbyteArray {
            if (broken) {
                throw std::runtime_error("broken");
            }
            newest = std::make_unique<Array>(Bytes(static_cast<std::size_t>(length)));
            return ifThereIsMemory(newest.get());
        };
        functions.SetByteArrayRegion = [](JNIEnv*, jbyteArray array, jsize start, jsize length,
                                          const jbyte* from) {
            require(start >= 0 && length >= 0 && length <= sizeOf(array) - start, "out of bounds");
            std::copy_n(from, length, of(array).data() + start);
        };
        functions.GetByteArrayElements = [](JNIEnv*, jbyteArray array, jboolean*) {
            elementsHeld += outOfMemory ? 0 : 1;
            return ifThereIsMemory(of(array).data());
        };
        functions.ReleaseByteArrayElements = [](JNIEnv*, jbyteArray array, jbyte* data, jint mode) {
            elementsHeld -= data == of(array).data() && mode == 0 ? 1 : 0;
        };
        functions.GetArrayLength = [](JNIEnv*, jarray array) { return sizeOf(array); };
        functions.ExceptionClear = [](JNIEnv*) { exceptionPending = false; };
        env.functions = &functions;
    }
    // The frame; empty when there is none.
    Bytes getPacket() {
        auto* const frame = NATIVE(getPacket)(&env, nullptr);
        requireNothingHeld();
        return frame == nullptr ? Bytes() : of(frame).bytes;
    }
    // The array may be null.
    void putPacket(int type, jint length, Array* array) {
        NATIVE(putPacket)(&env, nullptr, static_cast<jbyte>(type), length, array);
        requireNothingHeld();
    }

    void send(int type, Bytes bytes) {
        const auto length = static_cast<jint>(bytes.size());
        Array array(std::move(bytes));
        putPacket(type, length, &array);
    }
    void setRecording(bool on) {
        (on ? NATIVE(startRecording) : NATIVE(stopRecording))(&env, nullptr);
    }
    void setMonitoring(int channel) { NATIVE(setMonitoring)(&env, nullptr, channel); }
    void setPlayback(bool on) { NATIVE(setPlayback)(&env, nullptr, on ? 1 : 0); }
    int channelsOf(int board) { return NATIVE(getNumberOfChannels)(&env, nullptr, board); }

    static inline bool outOfMemory = false;  // no array is made or given out
    static inline bool broken = false;       // a C++ exception instead of an array
    JNIEnv env{};

  private:
    static Array& of(jarray array) { return *static_cast<Array*>(array); }
    static jsize sizeOf(jarray array) { return static_cast<jsize>(of(array).bytes.size()); }
    template <class Result>
    static Result* ifThereIsMemory(Result* result) {
        exceptionPending = outOfMemory;
        return outOfMemory ? nullptr : result;
    }
    static void requireNothingHeld() {
        require(!exceptionPending && elementsHeld == 0, "an exception or an array is left behind");
    }
    // A driver that misuses the VM ends here, as it would there.
    static void require(bool holds, const char* otherwise) {
        if (!holds) {
            std::fprintf(stderr, "Java VM: %s\n", otherwise);
            std::abort();
        }
    }

    static inline std::unique_ptr<Array> newest;
    static inline bool exceptionPending = false;
    static inline int elementsHeld = 0;
    JNINativeInterface_ functions{};
};
