package com.zivolt.hardware.dsp.examples;

import static org.junit.jupiter.api.Assertions.*;

import com.zivolt.hardware.dsp.client.*;
import com.zivolt.hardware.dsp.cppint.CPPBridge;
import java.io.IOException;
import java.nio.*;
import java.nio.file.*;
import java.time.*;
import java.util.*;
import java.util.stream.*;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;

/** The typed client and what the recorder keeps, over a bridge without a driver behind it. */
class WithoutCardsTest {
    private static final Instant TIME = Instant.ofEpochMilli(0x17012345678L);
    private static final HexFormat HEX = HexFormat.of();

    @TempDir
    Path folder;
    private final Queue<byte[]> frames = new ArrayDeque<>();
    private final List<String> told = new ArrayList<>();  // to the driver, or by the recorder
    private final CardClient client = new CardClient(new CPPBridge() {
        @Override
        public byte[] getPacket() {
            return frames.poll();
        }

        @Override
        public void putPacket(byte packetType, int length, byte[] data) {
            told.add(packetType + ":" + HEX.formatHex(data, 0, length));
        }
    });

    @Test
    void decodesEvents() {
        Map.of(new CardEvent.CallStarted(TIME, 3), HEX.parseHex("01020078563412700100000103"),
                new CardEvent.CallEnded(TIME, 15), frame(1, "000f"),
                new CardEvent.CallerIdentified(TIME, 2, "Müll"), frame(2, "02044dfc6c6c"),
                new CardEvent.DigitsHeard(TIME, 9, "5".repeat(50)),
                frame(3, "0932" + "35".repeat(50)),
                new CardEvent.CardError(TIME, 200, ""), frame(7, "c800"))
                .forEach((event, frame) -> assertEquals(event, FrameDecoder.decode(frame)));
        byte[] frame = audio("0808");
        AudioBlock block = ((CardEvent.AudioRecorded) FrameDecoder.decode(frame)).blocks().get(7);
        Arrays.fill(frame, (byte) 0);  // the event keeps its own copy
        assertEquals(0x07, block.byteAt(299));
        assertThrows(IndexOutOfBoundsException.class, () -> block.byteAt(300));
    }

    @Test
    void refusesNonsenseGoesOnAndWaitsNoLongerThanAsked() throws InterruptedException {
        frames.addAll(List.of(new byte[10], frame(255, ""), frame(3, "01"), frame(1, "ff03"),
                frame(1, "0110"), frame(1, "010300"), frame(7, "01016162"), frame(4, "0400"),
                Arrays.copyOf(frame(1, "0103"), 12), Arrays.copyOf(frame(1, "0103"), 14),
                frame(2, "0133" + "35".repeat(51)), audio("0500"), audio("0809"), audio("04ff"),
                frame(1, "0105")));
        while (frames.size() > 1) {
            assertThrows(BadFrameException.class, client::poll, "before the last " + frames.size());
        }
        assertEquals(new CardEvent.CallStarted(TIME, 5), client.poll(Duration.ofDays(1)).get());
        assertEquals(Optional.empty(), client.poll(Duration.ofSeconds(-1)));
        Instant start = Instant.now();
        assertEquals(Optional.empty(), client.poll(Duration.ofMillis(50)));
        long waited_ms = Duration.between(start, Instant.now()).toMillis();
        assertTrue(waited_ms >= 50 && waited_ms < 5_000, "waited ms " + waited_ms);
    }

    @Test
    void commandsAreWhatTheCardsTakeAndCannotBeBuiltWrong() {
        LineSettings.Builder builder = LineSettings.builder();
        LineSettings built = builder.build();
        client.apply(builder.allLines(new LineSetting(Trigger.NEVER, Beep.OFF, 0))
                .line(0, new LineSetting(Trigger.OFF_HOOK, Beep.LOW, 65))
                .line(15, new LineSetting(Trigger.VOX_6, Beep.HIGH, 1)).build());
        client.apply(built);
        byte[] audio = new byte[1201];
        audio[600] = 7;
        client.play(audio);
        client.play(new byte[0]);
        assertEquals(List.of("6:010141" + "000000".repeat(14) + "030701",
                "6:" + "000503".repeat(16),  // what the builder did later has not changed it
                "5:" + "00".repeat(600), "5:07" + "00".repeat(599), "5:00"), told);

        Stream.<Executable>of(() -> new LineSetting(Trigger.VOX_1, Beep.OFF, -1),
                () -> new LineSetting(Trigger.VOX_1, Beep.OFF, 66), () -> client.monitor(16),
                () -> client.monitor(-1), () -> builder.line(16, LineSetting.DEFAULT))
                .forEach(wrong -> assertThrows(IllegalArgumentException.class, wrong));
        assertThrows(NullPointerException.class, () -> builder.line(0, null));
        assertThrows(NullPointerException.class, () -> new LineSetting(null, Beep.OFF, 3));
    }

    @Test
    void recordsEachCallToItsFileAndRowOfTheLogAndTellsOfTrouble() throws IOException {
        var audio = (CardEvent.AudioRecorded) FrameDecoder.decode(audio("0804"));
        try (CallRecorder recorder = new CallRecorder(folder.resolve("calls"), told::add)) {
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
            Files.move(folder.resolve("calls"), folder.resolve("moved"));
            told.clear();
            recorder.handle(new CardEvent.CardError(at(102), 1, "Missed Xfer "));
            recorder.handle(new CardEvent.CallStarted(at(102), 7));
            assertEquals(List.of(1, 1), List.of(recorder.cardErrors(), recorder.failures()));
        }
        assertLinesMatch(
                List.of("CARD ERROR 1: Missed Xfer", "CANNOT record line 7.*", ">> end >>"), told);
        assertEquals("""
                line,start,end,caller,digits,bytes,file
                6,2020-02-04T21:56:25.824Z,2020-02-04T21:56:27.824Z,"Smith, ""Al""\",12#,600,\
                line06-20200204-215625-824.raw
                6,2020-02-04T21:58:04.824Z,2020-02-04T21:58:06.824Z,,*,300,\
                line06-20200204-215804-824.raw
                """, Files.readString(folder.resolve("moved/calls.csv")));
        assertArrayEquals(audio.blocks().get(2).toByteArray(),
                Files.readAllBytes(folder.resolve("moved/line06-20200204-215804-824.raw")));
    }

    private static Instant at(long seconds) {
        return TIME.plusSeconds(seconds);
    }

    private static byte[] frame(int type, String payload) {
        byte[] bytes = HEX.parseHex(payload);
        return ByteBuffer.allocate(11 + bytes.length).order(ByteOrder.LITTLE_ENDIAN)
                .put((byte) type).putShort((short) bytes.length).putLong(TIME.toEpochMilli())
                .put(bytes).array();
    }

    private static byte[] audio(String linesAndFirst) {
        return frame(4, linesAndFirst + "00010203040506070809101112".repeat(185).substring(0, 4800));
    }
}
