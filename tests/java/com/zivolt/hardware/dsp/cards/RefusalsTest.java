package com.zivolt.hardware.dsp.cards;

import static org.junit.jupiter.api.Assertions.assertDoesNotThrow;

import com.zivolt.hardware.dsp.client.Beep;
import com.zivolt.hardware.dsp.client.CardClient;
import com.zivolt.hardware.dsp.client.CardEvent;
import com.zivolt.hardware.dsp.client.LineSetting;
import com.zivolt.hardware.dsp.client.LineSettings;
import com.zivolt.hardware.dsp.client.Trigger;
import com.zivolt.hardware.dsp.cppint.CPPBridge;
import java.util.Random;
import org.junit.jupiter.api.Test;

/** Commands that no client should send, then a good one. Needs cards with traffic. */
class RefusalsTest {
    private static final int COMMANDS = 10_000;

    private final CPPBridge bridge = new CPPBridge();
    private final CardClient client = new CardClient(bridge);

    @Test
    void badCommandsHurtNothing() throws InterruptedException {
        long seed = Long.getLong("seed", System.nanoTime());
        System.out.println("random commands from -Dseed=" + seed);
        sendRandomCommands(new Random(seed));
        bridge.setPlayback(false);

        client.apply(LineSettings.builder()
                .allLines(new LineSetting(Trigger.OFF_HOOK, Beep.OFF, 3)).build());
        sendSettingsThatMustBeRefused();
        client.start();
        client.startRecording();
        for (int i = 0; i < COMMANDS; ++i) {  // by then every command has been taken
            Await.event(client, CardEvent.AudioRecorded.class::isInstance);
        }
        Await.event(client, CardEvent.CallStarted.class::isInstance);
        Await.event(client, CardEvent.CallEnded.class::isInstance);
    }

    /** Would keep every line from triggering. */
    private void sendSettingsThatMustBeRefused() {
        byte[] never = new byte[48];
        bridge.putPacket((byte) 6, 48, null);
        bridge.putPacket((byte) 6, -1, never);
        bridge.putPacket((byte) 6, Integer.MIN_VALUE, never);
        bridge.putPacket((byte) 6, 49, never);
        bridge.putPacket((byte) 6, Integer.MAX_VALUE, never);
        for (int type = 0; type < 256; ++type) {
            if (type != 5 && type != 6) {
                bridge.putPacket((byte) type, 48, never);
            }
        }
    }

    /** One in 64 has the type of line settings; these make calls impossible on every line. */
    private void sendRandomCommands(Random random) {
        for (int i = 0; i < COMMANDS; ++i) {
            byte[] data = random.nextInt(8) == 0 ? null : new byte[random.nextInt(700)];
            int type = switch (random.nextInt(4)) {
                case 0 -> random.nextInt(256);
                case 1 -> random.nextInt(16) == 0 ? 6 : 7;
                default -> 5;
            };
            int length = random.nextInt(4) == 0 ? random.nextInt() : random.nextInt(800) - 20;
            assertDoesNotThrow(() -> bridge.putPacket((byte) type, length, data));
        }
    }
}
