package com.zivolt.hardware.dsp.examples;

import static org.junit.jupiter.api.Assertions.*;

import com.zivolt.hardware.dsp.client.*;
import com.zivolt.hardware.dsp.cppint.CPPBridge;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.nio.*;
import java.nio.file.*;
import java.time.*;
import java.util.*;
import java.util.stream.*;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The typed client and what the recorder keeps, over a bridge without a driver behind it. */
class WithoutCardsTest {
    private static final Instant TIME = Instant.ofEpochMilli(0x17012345678L);
    private static final String LONGEST = "0123456789".repeat(5);

    @TempDir
    Path folder;

    private final List<String> news = new ArrayList<>();
    private final List<byte[]> frames = new ArrayList<>();
    private final List<String> commands = new ArrayList<>();
    private final ByteArrayOutputStream sent = new ByteArrayOutputStream();
    private final CardClient client = new CardClient(new CPPBridge() {
        @Override
        public byte[] getPacket() {
            return frames.isEmpty() ? null : frames.remove(0);
        }

        @Override
        public void putPacket(byte packetType, int length, byte[] data) {
            commands.add("%d: %d".formatted(packetType, length));
            sent.write(data, 0, length);
        }
    });

    @Test
    void decodesEvents() {
        Map.of(new CardEvent.CallStarted(TIME, 3),
                new byte[] {1, 2, 0, 0x78, 0x56, 0x34, 0x12, 0x70, 0x01, 0, 0, 1, 3},
                new CardEvent.CallEnded(TIME, 15), frame(1, 0, 15),
                new CardEvent.CallerIdentified(TIME, 2, "Müll"), text(2, 2, "Müll"),
                new CardEvent.DigitsHeard(TIME, 9, LONGEST), text(3, 9, LONGEST),
                new CardEvent.DigitsHeard(TIME, 0, ""), text(3, 0, ""),
                new CardEvent.CardError(TIME, 200, "Locked"), text(7, 200, "Locked"))
                .forEach((event, frame) -> assertEquals(event, FrameDecoder.decode(frame)));

        byte[] frame = audio(8, 4);
        byte[] line7 = Arrays.copyOfRange(frame, 13 + 7 * 300, 13 + 8 * 300);
        var event = (CardEvent.AudioRecorded) FrameDecoder.decode(frame);
        Arrays.fill(frame, (byte) 0);  // the event keeps its own copy
        AudioBlock block = event.blocks().get(7);
        assertArrayEquals(line7, block.toByteArray());
        assertThrows(IndexOutOfBoundsException.class, () -> block.byteAt(300));
    }

    @Test
    void saysWhatIsWrongWithNonsense() {
        assertRefused("10 bytes is shorter", new byte[10]);
        assertRefused("says 2 payload bytes and has 1", Arrays.copyOf(frame(1, 1, 3), 12));
        assertRefused("says 2 payload bytes and has 3", Arrays.copyOf(frame(1, 1, 3), 14));
        assertRefused("no event of type 255", frame(255));
        assertRefused("needs 2 payload bytes and has 3", frame(1, 1, 3, 0));
        assertRefused("0 or 1, not 255", frame(1, 255, 3));
        assertRefused("names line 16", frame(1, 1, 16));
        assertRefused("only 1 payload bytes", frame(3, 1));
        assertRefused("needs 3 payload bytes and has 4", frame(7, 1, 1, 'a', 'b'));
        assertRefused("51 characters", text(2, 1, LONGEST + "x"));
        assertRefused("4 or 8 lines, not 5", audio(5, 0));
        assertRefused("cannot begin at line 9", audio(8, 9));
        assertRefused("names line 255", audio(4, 255));
        assertRefused("needs 2402 payload bytes", frame(4, 4, 0));
    }

    @Test
    void commandsAreWhatTheCardsTake() {
        byte[] audio = Arrays.copyOf(audio(8, 4), 1201);
        client.apply(LineSettings.builder()
                .allLines(new LineSetting(Trigger.NEVER, Beep.OFF, 0))
                .line(0, new LineSetting(Trigger.OFF_HOOK, Beep.LOW, 65))
                .line(15, new LineSetting(Trigger.VOX_6, Beep.HIGH, 1)).build());
        client.play(audio);
        client.play(new byte[0]);
        ByteBuffer expected = ByteBuffer.allocate(48 + audio.length).put(new byte[] {1, 1, 65})
                .put(45, new byte[] {3, 7, 1}).put(48, audio);
        assertArrayEquals(expected.array(), sent.toByteArray());
        assertEquals("[6: 48, 5: 600, 5: 600, 5: 1]", commands.toString());
    }

    @Test
    void settingsCannotBeBuiltWrong() {
        LineSettings.Builder builder = LineSettings.builder();
        LineSettings built = builder.build();
        List.of(-1, 66, 256).forEach(wrong -> assertThrows(IllegalArgumentException.class,
                () -> new LineSetting(Trigger.VOX_1, Beep.OFF, wrong)));
        for (int wrong : new int[] {-1, 16}) {
            assertThrows(IllegalArgumentException.class, () -> client.monitor(wrong));
            assertThrows(IllegalArgumentException.class, () -> builder.line(wrong, built.line(0)));
        }
        assertThrows(NullPointerException.class, () -> builder.line(0, null));
        assertThrows(NullPointerException.class, () -> new LineSetting(null, Beep.OFF, 3));
        builder.line(0, new LineSetting(Trigger.NEVER, Beep.OFF, 0));
        assertEquals(new LineSetting(Trigger.VOX_4, Beep.OFF, 3), built.line(0));
    }

    @Test
    void pollWaitsNoLongerThanAskedAndGoesOnAfterNonsense() throws InterruptedException {
        assertEquals(Optional.empty(), client.poll(Duration.ofSeconds(-1)));
        long start = System.nanoTime();
        assertEquals(Optional.empty(), client.poll(Duration.ofMillis(50)));
        long waited = System.nanoTime() - start;
        assertTrue(waited >= 50_000_000 && waited < 5_000_000_000L, "waited ns " + waited);

        frames.addAll(List.of(new byte[3], frame(1, 1, 5)));
        assertThrows(BadFrameException.class, client::poll);
        assertEquals(new CardEvent.CallStarted(TIME, 5), client.poll(Duration.ofDays(1)).get());
    }

    @Test
    void recordsEachCallToItsFileAndRowOfTheLog() throws IOException {
        var audio = (CardEvent.AudioRecorded) FrameDecoder.decode(audio(8, 4));
        try (CallRecorder recorder = new CallRecorder(folder, news::add)) {
            Stream.of(audio,  // before the call
                    new CardEvent.CallerIdentified(at(0), 6, "Smith, \"Al\""),
                    new CardEvent.CallStarted(at(1), 6), new CardEvent.DigitsHeard(at(1), 6, "12"),
                    audio, new CardEvent.CallStarted(at(2), 6),  // told again: the same call
                    new CardEvent.DigitsHeard(at(2), 6, "#"), audio,
                    new CardEvent.CallEnded(at(3), 6), audio,  // after the call
                    new CardEvent.CallerIdentified(at(4), 6, "555"),  // hangs up
                    new CardEvent.CallStarted(at(100), 6), audio,
                    new CardEvent.DigitsHeard(at(101), 6, "*"))  // still talking
                    .forEach(recorder::handle);
        }
        assertEquals("""
                line,start,end,caller,digits,bytes,file
                6,2020-02-04T21:56:25.824Z,2020-02-04T21:56:27.824Z,"Smith, ""Al""\",12#,600,\
                line06-20200204-215625-824.raw
                6,2020-02-04T21:58:04.824Z,2020-02-04T21:58:05.824Z,,*,300,\
                line06-20200204-215804-824.raw
                """, Files.readString(folder.resolve("calls.csv")));
        assertArrayEquals(audio.blocks().get(2).toByteArray(),
                Files.readAllBytes(folder.resolve("line06-20200204-215804-824.raw")));
    }

    @Test
    void tellsOfTroubleAndGoesOn() throws IOException {
        try (CallRecorder recorder = new CallRecorder(folder.resolve("gone"), news::add)) {
            recorder.handle(new CardEvent.CardError(at(0), 1, "Missed Xfer "));
            Files.move(folder.resolve("gone"), folder.resolve("moved"));
            recorder.handle(new CardEvent.CallStarted(at(1), 6));
            assertEquals(List.of(1, 1), List.of(recorder.cardErrors(), recorder.failures()));
        }
        assertEquals("CARD ERROR 1: Missed Xfer", news.get(0));
        assertTrue(news.get(1).startsWith("CANNOT record line 6"), news.get(1));
    }

    private static void assertRefused(String reason, byte[] frame) {
        var refusal = assertThrows(BadFrameException.class, () -> FrameDecoder.decode(frame));
        assertTrue(refusal.getMessage().contains(reason), refusal.getMessage());
    }

    private static Instant at(long seconds) {
        return TIME.plusSeconds(seconds);
    }

    private static byte[] frame(int type, int... payload) {
        ByteBuffer frame = ByteBuffer.allocate(11 + payload.length).order(ByteOrder.LITTLE_ENDIAN);
        frame.put((byte) type).putShort((short) payload.length).putLong(TIME.toEpochMilli());
        IntStream.of(payload).forEach(value -> frame.put((byte) value));
        return frame.array();
    }

    private static byte[] text(int type, int leading, String text) {
        return frame(type, IntStream.concat(
                IntStream.of(leading, text.length()), text.chars()).toArray());
    }

    private static byte[] audio(int channels, int firstChannel) {
        return frame(4, IntStream.concat(IntStream.of(channels, firstChannel),
                IntStream.range(0, 2400).map(i -> i * 7)).toArray());
    }
}
