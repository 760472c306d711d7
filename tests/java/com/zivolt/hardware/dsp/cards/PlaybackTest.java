package com.zivolt.hardware.dsp.cards;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.zivolt.hardware.dsp.client.Beep;
import com.zivolt.hardware.dsp.client.CardClient;
import com.zivolt.hardware.dsp.client.CardEvent;
import com.zivolt.hardware.dsp.client.LineSetting;
import com.zivolt.hardware.dsp.client.LineSettings;
import com.zivolt.hardware.dsp.client.Trigger;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.Random;
import org.junit.jupiter.api.Test;

/**
 * Audio to the speaker of a four-channel card 0, whose file the property speaker names. Needs
 * traffic and verifiable audio.
 */
class PlaybackTest {
    private static final int PIECE = 600;

    private final CardClient client = new CardClient();
    private final Path speaker = Path.of(System.getProperty("speaker"));

    @Test
    void playsInOrderWhatHasNotBeenDiscarded() throws IOException, InterruptedException {
        byte[] discarded = audio(1, 20 * PIECE);
        byte[] played = audio(2, 50 * PIECE + 200);
        client.apply(settings(Trigger.NEVER));
        client.play(discarded);
        client.apply(settings(Trigger.OFF_HOOK));
        client.play(discarded);
        client.enablePlayback(false);

        client.enablePlayback(true);
        client.play(played);
        client.start();
        client.startRecording();
        // The settings that were sent last are in force: lines trigger.
        Await.event(client, CardEvent.CallStarted.class::isInstance);

        int heardAt = awaitHeard(played);
        byte[] heard = Files.readAllBytes(speaker);
        assertEquals(-1, find(heard, Arrays.copyOf(discarded, PIECE), 0), "discarded audio played");
        assertEquals(-1, find(heard, played, heardAt + 1), "played twice");

        client.enablePlayback(false);
        client.enablePlayback(true);
        byte[] next = audio(3, 3 * PIECE);
        client.play(next);
        assertTrue(awaitHeard(next) > heardAt);
    }

    private int awaitHeard(byte[] audio) throws IOException, InterruptedException {
        for (int i = 0; i < 3000; ++i) {
            int at = find(Files.readAllBytes(speaker), audio, 0);
            if (at >= 0) {
                return at;
            }
            Await.event(client, CardEvent.AudioRecorded.class::isInstance);
            Thread.sleep(10);
        }
        throw new AssertionError("the speaker did not play " + audio.length + " bytes in order");
    }

    private static int find(byte[] in, byte[] wanted, int from) {
        for (int at = from; at + wanted.length <= in.length; ++at) {
            if (Arrays.equals(in, at, at + wanted.length, wanted, 0, wanted.length)) {
                return at;
            }
        }
        return -1;
    }

    private static byte[] audio(long seed, int length) {
        byte[] bytes = new byte[length];
        new Random(seed).nextBytes(bytes);
        return bytes;
    }

    private static LineSettings settings(Trigger trigger) {
        return LineSettings.builder().allLines(new LineSetting(trigger, Beep.OFF, 3)).build();
    }
}
