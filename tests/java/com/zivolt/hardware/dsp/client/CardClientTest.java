package com.zivolt.hardware.dsp.client;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.time.Duration;
import java.time.Instant;
import java.util.Arrays;
import java.util.List;
import java.util.Optional;
import org.junit.jupiter.api.Test;

class CardClientTest {
    private final ScriptedBridge bridge = new ScriptedBridge();
    private final CardClient client = new CardClient(bridge);

    @Test
    void lineSettingsBecomeTheTableOfTheCards() {
        LineSettings settings = LineSettings.builder()
                .allLines(new LineSetting(Trigger.NEVER, Beep.OFF, 0))
                .line(0, new LineSetting(Trigger.OFF_HOOK, Beep.LOW, 65))
                .line(15, new LineSetting(Trigger.VOX_6, Beep.HIGH, 1))
                .build();
        byte[] expected = new byte[48];
        expected[0] = 1;
        expected[1] = 1;
        expected[2] = 65;
        expected[45] = 3;
        expected[46] = 7;
        expected[47] = 1;
        assertArrayEquals(expected, settings.toBytes());
        assertArrayEquals(new byte[] {0, 5, 3},
                Arrays.copyOf(LineSettings.builder().build().toBytes(), 3));

        client.apply(settings);
        assertEquals(6, bridge.commands.get(0).type());
        assertEquals(48, bridge.commands.get(0).data().size());
    }

    @Test
    void settingsCannotBeBuiltWrong() {
        LineSetting good = LineSetting.DEFAULT;
        LineSettings.Builder builder = LineSettings.builder();
        for (int delay : new int[] {-1, 66, 256}) {
            assertThrows(IllegalArgumentException.class,
                    () -> new LineSetting(Trigger.VOX_1, Beep.OFF, delay));
        }
        for (int channel : new int[] {-1, 16}) {
            assertThrows(IllegalArgumentException.class, () -> builder.line(channel, good));
            assertThrows(IllegalArgumentException.class, () -> client.monitor(channel));
        }
        assertThrows(NullPointerException.class, () -> builder.line(0, null));
        assertThrows(NullPointerException.class, () -> new LineSetting(null, Beep.OFF, 3));

        LineSettings built = builder.build();
        builder.line(0, new LineSetting(Trigger.NEVER, Beep.OFF, 0));
        assertEquals(good, built.line(0), "the builder must not reach into what it has built");
    }

    @Test
    void playbackGoesInPiecesThatTheCardTakesWhole() {
        byte[] audio = new byte[1201];
        for (int i = 0; i < audio.length; ++i) {
            audio[i] = (byte) (i * 11);
        }
        client.play(audio);
        client.play(new byte[0]);
        assertEquals(List.of(600, 600, 1),
                bridge.commands.stream().map(command -> command.data().size()).toList());
        List<Byte> sent = bridge.commands.stream().flatMap(command -> command.data().stream())
                .toList();
        for (int i = 0; i < audio.length; ++i) {
            assertEquals(audio[i], sent.get(i), "byte " + i);
        }
    }

    @Test
    void pollWaitsNoLongerThanAskedAndGoesOnAfterNonsense() throws InterruptedException {
        assertEquals(Optional.empty(), client.poll());
        assertEquals(Optional.empty(), client.poll(Duration.ofSeconds(-1)));
        long start = System.nanoTime();
        assertEquals(Optional.empty(), client.poll(Duration.ofMillis(50)));
        long waited = System.nanoTime() - start;
        assertTrue(waited >= 50_000_000 && waited < 5_000_000_000L, "waited ns " + waited);

        bridge.frames.add(new byte[3]);
        bridge.frames.add(Frames.frame(1, 0, 1, 5));
        assertThrows(BadFrameException.class, client::poll);
        assertEquals(Optional.of(new CardEvent.CallStarted(Instant.EPOCH, 5)),
                client.poll(Duration.ofDays(1)));
    }
}
