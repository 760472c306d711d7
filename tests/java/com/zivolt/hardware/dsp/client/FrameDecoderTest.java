package com.zivolt.hardware.dsp.client;

import static com.zivolt.hardware.dsp.client.Frames.audio;
import static com.zivolt.hardware.dsp.client.Frames.frame;
import static com.zivolt.hardware.dsp.client.Frames.text;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.time.Instant;
import java.util.Arrays;
import java.util.Random;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

class FrameDecoderTest {
    private static final long MILLIS = 0x17012345678L;
    private static final Instant TIME = Instant.ofEpochMilli(MILLIS);

    @Test
    void decodesTheBytesOfATriggerAsTheyComeFromTheDriver() {
        byte[] frame = {1, 2, 0, 0x78, 0x56, 0x34, 0x12, 0x70, 0x01, 0, 0, 1, 3};
        assertEquals(new CardEvent.CallStarted(TIME, 3), FrameDecoder.decode(frame));
    }

    static Stream<Arguments> events() {
        String longest = "0123456789".repeat(5);
        return Stream.of(
                Arguments.of(new CardEvent.CallEnded(TIME, 15), frame(1, MILLIS, 0, 15)),
                Arguments.of(new CardEvent.CallerIdentified(TIME, 2, "M\u00fcller"),
                        text(2, MILLIS, 2, "M\u00fcller")),
                Arguments.of(new CardEvent.DigitsHeard(TIME, 9, longest),
                        text(3, MILLIS, 9, longest)),
                Arguments.of(new CardEvent.DigitsHeard(TIME, 0, ""), text(3, MILLIS, 0, "")),
                Arguments.of(new CardEvent.CardError(TIME, 200, "DSP Board Locked Up"),
                        text(7, MILLIS, 200, "DSP Board Locked Up")));
    }

    @ParameterizedTest
    @MethodSource("events")
    void decodesEvents(CardEvent expected, byte[] frame) {
        assertEquals(expected, FrameDecoder.decode(frame));
    }

    @Test
    void splitsAudioByLineAndKeepsItsOwnCopy() {
        byte[] frame = audio(MILLIS, 8, 4);
        byte[] line7 = Arrays.copyOfRange(frame, 13 + 7 * 300, 13 + 8 * 300);
        var event = (CardEvent.AudioRecorded) FrameDecoder.decode(frame);
        Arrays.fill(frame, (byte) 0);

        assertEquals(4, event.firstChannel());
        assertEquals(8, event.blocks().size());
        AudioBlock block = event.blocks().get(7);
        assertArrayEquals(line7, block.toByteArray());
        assertEquals(line7[299], block.byteAt(299));
        assertThrows(IndexOutOfBoundsException.class, () -> block.byteAt(300));
        assertEquals(event, FrameDecoder.decode(audio(MILLIS, 8, 4)));
        assertEquals(600, ((CardEvent.AudioRecorded) FrameDecoder.decode(audio(0, 4, 12)))
                .blocks().get(3).length());
    }

    static Stream<Arguments> nonsense() {
        return Stream.of(
                Arguments.of("0 bytes is shorter", new byte[0]),
                Arguments.of("10 bytes is shorter", new byte[10]),
                Arguments.of("says 2 payload bytes and has 1",
                        Arrays.copyOf(frame(1, 0, 1, 3), 12)),
                Arguments.of("says 2 payload bytes and has 3",
                        Arrays.copyOf(frame(1, 0, 1, 3), 14)),
                Arguments.of("no event of type 0", frame(0, 0)),
                Arguments.of("no event of type 5", frame(5, 0, 1)),
                Arguments.of("no event of type 255", frame(255, 0)),
                Arguments.of("needs 2 payload bytes and has 3", frame(1, 0, 1, 3, 0)),
                Arguments.of("0 or 1, not 255", frame(1, 0, 255, 3)),
                Arguments.of("names line 16", frame(1, 0, 1, 16)),
                Arguments.of("only 0 payload bytes", frame(2, 0)),
                Arguments.of("only 1 payload bytes", frame(3, 0, 1)),
                Arguments.of("needs 5 payload bytes and has 4", frame(3, 0, 1, 3, '1', '2')),
                Arguments.of("needs 3 payload bytes and has 4", frame(7, 0, 1, 1, 'a', 'b')),
                Arguments.of("51 characters", text(2, 0, 1, "x".repeat(51))),
                Arguments.of("names line 200", text(3, 0, 200, "1")),
                Arguments.of("4 or 8 lines, not 5", audio(0, 5, 0)),
                Arguments.of("cannot begin at line 9", audio(0, 8, 9)),
                Arguments.of("names line 255", audio(0, 4, 255)),
                Arguments.of("needs 2402 payload bytes", frame(4, 0, 4, 0)));
    }

    @ParameterizedTest
    @MethodSource("nonsense")
    void saysWhatIsWrongWithNonsense(String reason, byte[] frame) {
        String message = assertThrows(BadFrameException.class, () -> FrameDecoder.decode(frame))
                .getMessage();
        assertTrue(message.contains(reason), message);
    }

    @Test
    void givesAnEventOrSaysWhatIsWrongWhateverComes() {
        Random random = new Random(1);
        int events = 0;
        for (int i = 0; i < 200_000; ++i) {
            byte[] frame = new byte[11 + random.nextInt(20)];
            random.nextBytes(frame);
            frame[0] = (byte) random.nextInt(9);
            frame[1] = (byte) (frame.length - 11 - random.nextInt(2));
            frame[2] = 0;
            try {
                FrameDecoder.decode(frame);
                ++events;
            } catch (BadFrameException refused) {
                continue;
            }
        }
        assertTrue(events > 0);
    }
}
