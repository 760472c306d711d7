// The native methods of the class GetPacketBench: what getPacket is measured against, and the feed.
// Built into one library with the driver's own native methods, so that both reach the same queue.
#include <jni.h>

#include "javaint/MessageDispatcher.h"

namespace {

constexpr jsize kHeaderLength = 11;
const jbyte bytes[4096] = {};

}  // namespace

extern "C" {

// The calls into the VM that a frame takes, and nothing else.
JNIEXPORT jbyteArray JNICALL Java_com_zivolt_hardware_dsp_bench_GetPacketBench_floor(JNIEnv* env,
                                                                                     jclass,
                                                                                     jint length) {
    const jbyteArray array = env->NewByteArray(length);
    for (jsize i = 0; i < kHeaderLength; ++i) {
        env->SetByteArrayRegion(array, i, 1, &bytes[i]);
    }
    env->SetByteArrayRegion(array, kHeaderLength, length - kHeaderLength, &bytes[kHeaderLength]);
    return array;
}

JNIEXPORT void JNICALL Java_com_zivolt_hardware_dsp_bench_GetPacketBench_queueAudio(JNIEnv*, jclass,
                                                                                    jint packets) {
    for (jint i = 0; i < packets; ++i) {
        MessageDispatcher::getInstance().addPacketToSendQueue(new RecordedDataPacket(true, 0));
    }
}

}  // extern "C"
