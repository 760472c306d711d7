package com.zivolt.hardware.dsp.client;

import static org.junit.jupiter.api.Assertions.*;

import com.zivolt.hardware.dsp.client.CardEvent.*;
import com.zivolt.hardware.dsp.testing.FakeBridge;
import com.zivolt.hardware.dsp.testing.FakeBridge.*;
import java.nio.*;
import java.time.*;
import java.util.*;
import java.util.stream.*;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;

/** The typed client over a fake bridge: no card, no driver, no library. */
class ClientTest {
    private static final Instant TIME = Instant.ofEpochMilli(0x17012345678L);
    private static final HexFormat HEX = HexFormat.of();

    private final FakeBridge bridge = new FakeBridge(4, 8);
    private final CardClient client = new CardClient(bridge);

    @Test
    void takesWhatTheDriverSendsAndTellsOfNonsenseOnce() throws InterruptedException {
        Map<CardEvent, byte[]> frames = Map.of(
                new CallStarted(TIME, 3), HEX.parseHex("01020078563412700100000103"),
                new CallEnded(TIME, 15), frame(1, "000f"),
                new CallerIdentified(TIME, 2, "Müll"), frame(2, "02044dfc6c6c"),
                new DigitsHeard(TIME, 9, "5".repeat(50)), frame(3, "0932" + "35".repeat(50)),
                new CardError(TIME, 200, ""), frame(7, "c800"));
        frames.forEach((event, frame) -> assertEquals(event, FrameDecoder.decode(frame)));
        frames.keySet().forEach(event -> {  // the fake bridge speaks as the driver does
            bridge.report(event);
            assertEquals(event, client.poll().orElseThrow());
        });
        byte[] frame = audio("0808");
        AudioBlock block = ((AudioRecorded) FrameDecoder.decode(frame)).blocks().get(7);
        Arrays.fill(frame, (byte) 0);  // the event keeps its own copy
        assertEquals(0x07, block.byteAt(299));
        assertThrows(IndexOutOfBoundsException.class, () -> block.byteAt(300));

        for (byte[] wrong : List.of(new byte[10], frame(255, ""), frame(3, "01"), frame(1, "ff03"),
                frame(1, "0110"), frame(1, "010300"), frame(7, "01016162"), frame(4, "0400"),
                Arrays.copyOf(frame(1, "0103"), 12), Arrays.copyOf(frame(1, "0103"), 14),
                frame(2, "0133" + "35".repeat(51)), audio("0500"), audio("0809"), audio("04ff"),
                audio("0000"))) {
            bridge.report(new UnreadableFrame(TIME, wrong, ""));
            assertArrayEquals(wrong, assertInstanceOf(UnreadableFrame.class,
                    client.poll(Duration.ofDays(1)).orElseThrow()).frame());
        }
        assertEquals(Optional.empty(), client.poll(Duration.ofSeconds(-1)));
        Instant start = Instant.now();
        assertEquals(Optional.empty(), client.poll(Duration.ofMillis(50)));
        long waited_ms = Duration.between(start, Instant.now()).toMillis();
        assertTrue(waited_ms >= 50 && waited_ms < 5_000, "waited ms " + waited_ms);
    }

    @Test
    void commandsAreWhatTheCardsTakeAndMisuseIsToldAtOnce() {
        LineSettings.Builder builder = LineSettings.builder();
        LineSettings built = builder.build();
        LineSettings mixed = builder.allLines(new LineSetting(Trigger.NEVER, Beep.OFF, 0))
                .line(0, new LineSetting(Trigger.OFF_HOOK, Beep.LOW, 65))
                .line(15, new LineSetting(Trigger.VOX_6, Beep.HIGH, 1)).build();
        assertArrayEquals(HEX.parseHex("010141" + "000000".repeat(14) + "030701"), mixed.toBytes());
        assertArrayEquals(HEX.parseHex("000503".repeat(16)), built.toBytes());
        byte[] audio = new byte[1201];
        audio[600] = 7;
        client.apply(mixed);
        client.enablePlayback(true);
        client.play(audio);
        client.play(new byte[0]);
        assertEquals(List.of(new SettingsApplied(mixed), new PlaybackSwitched(true),
                new AudioPlayed(AudioBlock.of(new byte[600])),
                new AudioPlayed(AudioBlock.of(Arrays.copyOfRange(audio, 600, 1200))),
                new AudioPlayed(AudioBlock.of(new byte[1]))), bridge.commands());

        client.enablePlayback(false);
        assertThrows(IllegalStateException.class, () -> client.play(audio));
        bridge.report(FrameDecoder.decode(audio("0400")));
        client.poll();  // so the cards are known
        List<AudioBlock> blocks = Collections.nCopies(4, AudioBlock.of(new byte[600]));
        Stream.<Executable>of(() -> new LineSetting(Trigger.VOX_1, Beep.OFF, -1),
                () -> new LineSetting(Trigger.VOX_1, Beep.OFF, 66), () -> client.monitor(16),
                () -> client.monitor(-1), () -> client.monitor(12), () -> client.linesOfCard(2),
                () -> builder.line(16, LineSetting.DEFAULT), () -> new CallStarted(TIME, 16),
                () -> new CallerIdentified(TIME, 0, "5".repeat(51)),
                () -> new DigitsHeard(TIME, 0, "\u20ac"), () -> new CardError(TIME, 256, ""),
                () -> new AudioRecorded(TIME, 13, blocks),
                () -> new AudioRecorded(TIME, 0, blocks.subList(0, 3)),
                () -> new AudioRecorded(TIME, 0, Collections.nCopies(8, blocks.get(0))))
                .forEach(wrong -> assertThrows(IllegalArgumentException.class, wrong));
        Stream.<Executable>of(() -> builder.line(0, null), () -> client.play(null),
                () -> new LineSetting(null, Beep.OFF, 3), () -> client.apply(null),
                () -> client.poll(null), () -> client.listen(null), () -> new CallEnded(null, 1),
                () -> new DigitsHeard(TIME, 1, null), () -> new AudioRecorded(TIME, 0, null))
                .forEach(wrong -> assertThrows(NullPointerException.class, wrong));
        assertEquals(6, bridge.commands().size(), "something wrong was sent");
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
