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

extern "C" {
jbyteArray Java_com_zivolt_hardware_dsp_cppint_CPPBridge_getPacket(JNIEnv*, jobject);
void Java_com_zivolt_hardware_dsp_cppint_CPPBridge_putPacket(JNIEnv*, jobject, jbyte, jint,
                                                             jbyteArray);
void Java_com_zivolt_hardware_dsp_cppint_CPPBridge_startRecording(JNIEnv*, jobject);
void Java_com_zivolt_hardware_dsp_cppint_CPPBridge_stopRecording(JNIEnv*, jobject);
void Java_com_zivolt_hardware_dsp_cppint_CPPBridge_setMonitoring(JNIEnv*, jobject, jint);
jint Java_com_zivolt_hardware_dsp_cppint_CPPBridge_getNumberOfChannels(JNIEnv*, jobject, jint);
void Java_com_zivolt_hardware_dsp_cppint_CPPBridge_setPlayback(JNIEnv*, jobject, jboolean);
}

class JavaVm {
  public:
    struct Array : _jbyteArray {
        explicit Array(std::vector<unsigned char> content) : bytes(std::move(content)) {
            bytes.reserve(1);  // an empty array has an address too
        }
        jbyte* data() { return reinterpret_cast<jbyte*>(bytes.data()); }
        std::vector<unsigned char> bytes;
    };

    JavaVm() {
        functions.NewByteArray = [](JNIEnv*, jsize length) -> jbyteArray {
            if (broken) {
                throw std::runtime_error("broken");
            }
            newest = std::make_unique<Array>(
                std::vector<unsigned char>(static_cast<std::size_t>(length)));
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
    JavaVm(const JavaVm&) = delete;

    // The frame; empty when there is none.
    std::vector<unsigned char> getPacket() {
        auto* const frame = Java_com_zivolt_hardware_dsp_cppint_CPPBridge_getPacket(&env, nullptr);
        requireNothingHeld();
        return frame == nullptr ? std::vector<unsigned char>() : of(frame).bytes;
    }
    // The array may be null.
    void putPacket(int type, jint length, Array* array) {
        Java_com_zivolt_hardware_dsp_cppint_CPPBridge_putPacket(
            &env, nullptr, static_cast<jbyte>(type), length, array);
        requireNothingHeld();
    }

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
        require(!exceptionPending, "an exception is left pending");
        require(elementsHeld == 0, "the elements of an array were not given back");
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
