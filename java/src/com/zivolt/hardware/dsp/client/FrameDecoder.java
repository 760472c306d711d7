package com.zivolt.hardware.dsp.client;

import static java.nio.charset.StandardCharsets.ISO_8859_1;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.time.Instant;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/**
 * Turns the frames that {@link com.zivolt.hardware.dsp.cppint.CPPBridge#getPacket} delivers into
 * events. Keeps no state; may be used by several threads.
 */
public final class FrameDecoder {
    private static final int HEADER_LENGTH = 11;
    private static final int TEXT_HEADER_LENGTH = 2;
    private static final int MAX_CHARACTERS = 50;
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
        if (frame.length < HEADER_LENGTH) {
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
        return switch (type) {
            case 1 -> trigger(time, payload);
            case 2 -> new CardEvent.CallerIdentified(time, line(payload, 0, "caller"),
                    text(payload, "caller"));
            case 3 -> new CardEvent.DigitsHeard(time, line(payload, 0, "digits"),
                    text(payload, "digits"));
            case 4 -> audio(time, payload);
            case 7 -> new CardEvent.CardError(time, unsigned(payload, 0, "error"),
                    text(payload, "error"));
            default -> throw new BadFrameException("There is no event of type " + type);
        };
    }

    private static CardEvent trigger(Instant time, byte[] payload) {
        requireLength(payload, 2, "trigger");
        int line = line(payload, 1, "trigger");
        return switch (payload[0]) {
            case 0 -> new CardEvent.CallEnded(time, line);
            case 1 -> new CardEvent.CallStarted(time, line);
            default -> throw new BadFrameException("A trigger is 0 or 1, not "
                    + Byte.toUnsignedInt(payload[0]));
        };
    }

    private static CardEvent audio(Instant time, byte[] payload) {
        requireLength(payload, AUDIO_HEADER_LENGTH + AUDIO_LENGTH, "audio");
        int lines = unsigned(payload, 0, "audio");
        if (lines != 4 && lines != 8) {
            throw new BadFrameException("A card has 4 or 8 lines, not " + lines);
        }
        int firstLine = line(payload, 1, "audio");
        if (firstLine + lines > LineSettings.LINES) {
            throw new BadFrameException("A card of %d lines cannot begin at line %d"
                    .formatted(lines, firstLine));
        }
        int blockLength = AUDIO_LENGTH / lines;
        List<AudioBlock> blocks = new ArrayList<>(lines);
        for (int i = 0; i < lines; ++i) {
            blocks.add(new AudioBlock(payload, AUDIO_HEADER_LENGTH + i * blockLength, blockLength));
        }
        return new CardEvent.AudioRecorded(time, firstLine, blocks);
    }

    private static String text(byte[] payload, String what) {
        int count = unsigned(payload, 1, what);
        if (count > MAX_CHARACTERS) {
            throw new BadFrameException("The %s frame says %d characters; at most %d fit"
                    .formatted(what, count, MAX_CHARACTERS));
        }
        requireLength(payload, TEXT_HEADER_LENGTH + count, what);
        return new String(payload, TEXT_HEADER_LENGTH, count, ISO_8859_1);
    }

    private static int line(byte[] payload, int index, String what) {
        int line = unsigned(payload, index, what);
        if (line >= LineSettings.LINES) {
            throw new BadFrameException("The %s frame names line %d; lines are 0 to %d"
                    .formatted(what, line, LineSettings.LINES - 1));
        }
        return line;
    }

    private static int unsigned(byte[] payload, int index, String what) {
        if (index >= payload.length) {
            throw new BadFrameException("The %s frame has only %d payload bytes"
                    .formatted(what, payload.length));
        }
        return Byte.toUnsignedInt(payload[index]);
    }

    private static void requireLength(byte[] payload, int expected, String what) {
        if (payload.length != expected) {
            throw new BadFrameException("The %s frame needs %d payload bytes and has %d"
                    .formatted(what, expected, payload.length));
        }
    }
}
