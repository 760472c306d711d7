package com.zivolt.hardware.dsp.client;

import java.io.ByteArrayOutputStream;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;

/** Frames as the driver makes them. */
public final class Frames {
    private Frames() {
    }

    public static byte[] frame(int type, long time, int... payload) {
        ByteBuffer frame = ByteBuffer.allocate(11 + payload.length).order(ByteOrder.LITTLE_ENDIAN);
        frame.put((byte) type).putShort((short) payload.length).putLong(time);
        for (int value : payload) {
            frame.put((byte) value);
        }
        return frame.array();
    }

    public static byte[] text(int type, long time, int leading, String text) {
        ByteArrayOutputStream payload = new ByteArrayOutputStream();
        payload.write(leading);
        payload.write(text.length());
        text.chars().forEach(payload::write);
        return frame(type, time, ints(payload.toByteArray()));
    }

    /** Byte i of the audio is i x 7. */
    public static byte[] audio(long time, int channels, int firstChannel) {
        int[] payload = new int[2402];
        payload[0] = channels;
        payload[1] = firstChannel;
        for (int i = 0; i < 2400; ++i) {
            payload[2 + i] = i * 7;
        }
        return frame(4, time, payload);
    }

    private static int[] ints(byte[] bytes) {
        int[] values = new int[bytes.length];
        for (int i = 0; i < bytes.length; ++i) {
            values[i] = bytes[i];
        }
        return values;
    }
}
