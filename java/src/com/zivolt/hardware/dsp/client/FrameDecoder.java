package com.zivolt.hardware.dsp.client;

import static java.nio.charset.StandardCharsets.ISO_8859_1;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.time.Instant;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Objects;

/**
 * Turns the frames that {@link com.zivolt.hardware.dsp.cppint.CardBridge#getPacket} delivers into
 * events. Keeps no state; may be used by several threads.
 */
public final class FrameDecoder {
    private static final int HEADER_LENGTH = 11;
    private static final int TEXT_HEADER_LENGTH = 2;
    private static final int AUDIO_HEADER_LENGTH = 2;
    private static final int AUDIO_LENGTH = 2400;

    private FrameDecoder() {
    }

    /**
     * Decodes one frame.
     *
     * @param frame is copied where needed and stays the caller's
     * @return the event
     * @throws BadFrameException when the frame is no event: too short, of another length than it
     *     says, of an unknown type, or with values that no card reports
     */
    public static CardEvent decode(byte[] frame) {
        if (Objects.requireNonNull(frame, "frame").length < HEADER_LENGTH) {
            throw new BadFrameException("A frame of %d bytes is shorter than its header of %d"
                    .formatted(frame.length, HEADER_LENGTH));
        }
        ByteBuffer header = ByteBuffer.wrap(frame).order(ByteOrder.LITTLE_ENDIAN);
        int type = Byte.toUnsignedInt(header.get());
        int length = Short.toUnsignedInt(header.getShort());
        Instant time = Instant.ofEpochMilli(header.getLong());
        if (length != frame.length - HEADER_LENGTH) {
            throw new BadFrameException("A frame of type %d says %d payload bytes and has %d"
                    .formatted(type, length, frame.length - HEADER_LENGTH));
        }
        byte[] payload = Arrays.copyOfRange(frame, HEADER_LENGTH, frame.length);
        try {
            return event(type, time, payload);
        } catch (IllegalArgumentException impossible) {
            throw new BadFrameException("A frame of type %d: %s"
                    .formatted(type, impossible.getMessage()));
        }
    }

    private static CardEvent event(int type, Instant time, byte[] payload) {
        return switch (type) {
            case 1 -> trigger(time, payload);
            case 2 -> new CardEvent.CallerIdentified(time, unsigned(payload, 0), text(payload));
            case 3 -> new CardEvent.DigitsHeard(time, unsigned(payload, 0), text(payload));
            case 4 -> audio(time, payload);
            case 7 -> new CardEvent.CardError(time, unsigned(payload, 0), text(payload));
            default -> throw new IllegalArgumentException("there is no event of this type");
        };
    }

    private static CardEvent trigger(Instant time, byte[] payload) {
        requireLength(payload, 2);
        int line = unsigned(payload, 1);
        return switch (payload[0]) {
            case 0 -> new CardEvent.CallEnded(time, line);
            case 1 -> new CardEvent.CallStarted(time, line);
            default -> throw new IllegalArgumentException("a trigger is 0 or 1, not "
                    + unsigned(payload, 0));
        };
    }

    private static CardEvent audio(Instant time, byte[] payload) {
        requireLength(payload, AUDIO_HEADER_LENGTH + AUDIO_LENGTH);
        int lines = unsigned(payload, 0);  // the event refuses wrong ones
        int length = AUDIO_LENGTH / Math.max(lines, 1);
        List<AudioBlock> blocks = new ArrayList<>(lines);
        for (int i = 0; i < lines; ++i) {
            blocks.add(new AudioBlock(payload, AUDIO_HEADER_LENGTH + i * length, length));
        }
        return new CardEvent.AudioRecorded(time, unsigned(payload, 1), blocks);
    }

    private static String text(byte[] payload) {
        int count = unsigned(payload, 1);
        requireLength(payload, TEXT_HEADER_LENGTH + count);
        return new String(payload, TEXT_HEADER_LENGTH, count, ISO_8859_1);
    }

    private static int unsigned(byte[] payload, int index) {
        if (index >= payload.length) {
            throw new IllegalArgumentException("only %d payload bytes".formatted(payload.length));
        }
        return Byte.toUnsignedInt(payload[index]);
    }

    private static void requireLength(byte[] payload, int expected) {
        if (payload.length != expected) {
            throw new IllegalArgumentException("needs %d payload bytes and has %d"
                    .formatted(expected, payload.length));
        }
    }
}
