package com.zivolt.hardware.dsp;

import static java.nio.charset.StandardCharsets.ISO_8859_1;
import static org.junit.jupiter.api.Assertions.*;

import com.zivolt.hardware.dsp.client.*;
import com.zivolt.hardware.dsp.client.CardEvent.AudioRecorded;
import com.zivolt.hardware.dsp.cppint.CPPBridge;
import com.zivolt.hardware.dsp.trials.AudioChecker;
import java.io.IOException;
import java.nio.file.*;
import java.time.*;
import java.util.*;
import java.util.function.Predicate;
import java.util.stream.*;
import org.junit.jupiter.api.Test;

/**
 * The driver through a real Java VM, on a four- and an eight-channel simulated card with traffic
 * and verifiable audio. A process has one driver, so each run needs a VM of its own.
 */
class DriverTest {
    private final CPPBridge bridge = new CPPBridge();
    private final CardClient client = new CardClient(bridge);

    /**
     * The property firstUse names the method that a thread of Java's calls before initialize,
     * speaker the file of what card 0 plays.
     */
    @Test
    void recordsPlaysAndStopsWhateverIsCalledFirst() throws IOException {
        Map.<String, Runnable>of("getPacket", bridge::getPacket,
                "startRecording", bridge::startRecording, "stopRecording", bridge::stopRecording,
                "setMonitoring", () -> bridge.setMonitoring(-1),
                "getNumberOfChannels", () -> bridge.getNumberOfChannels(0),
                "setPlayback", () -> bridge.setPlayback(false))
                .get(System.getProperty("firstUse")).run();
        for (byte[] data : new byte[][] {null, {}, {1, 2, 3}}) {
            IntStream.range(-400, 400).forEach(i -> bridge.putPacket((byte) i, i / 50, data));
        }
        byte[] played = new byte[50 * 600 + 200];
        new Random(1).nextBytes(played);
        client.apply(LineSettings.builder()
                .allLines(new LineSetting(Trigger.OFF_HOOK, Beep.OFF, 3)).build());
        bridge.putPacket((byte) 5, 600, played);  // discarded
        client.enablePlayback(false);
        client.enablePlayback(true);
        client.play(played);
        client.start();
        client.start();
        client.startRecording();

        AudioChecker checker = new AudioChecker();
        await(event -> {
            if (event instanceof AudioRecorded audio) {
                checker.check(audio);
            }
            return event instanceof CardEvent.CallEnded && checker.transfers() > 1000;
        });
        assertTrue(checker.allWell(2), checker.toString());  // two runner threads would upset it
        assertEquals(List.of(4, 8, 0, 0, 0), Stream.of(0, 1, 2, -1, Integer.MIN_VALUE)
                .map(bridge::getNumberOfChannels).toList());
        String heard = Files.readString(Path.of(System.getProperty("speaker")), ISO_8859_1);
        String wanted = new String(played, ISO_8859_1);  // a char a byte, which String can find
        assertTrue(heard.contains(wanted), "not played as it is");
        assertEquals(heard.indexOf(wanted), heard.lastIndexOf(wanted.substring(0, 600)), "twice");

        client.stopRecording();
        Instant stopped = Instant.now();  // what comes after this exchange is audio
        await(event -> event instanceof AudioRecorded && event.time().isAfter(stopped));
        AudioChecker together = new AudioChecker();  // a transfer that comes twice is noticed, too
        IntStream.range(0, 10_000).parallel()
                .mapToObj(i -> assertInstanceOf(AudioRecorded.class, next()))
                .sorted(Comparator.comparing(AudioChecker::counterOf))
                .forEachOrdered(together::check);
        assertTrue(together.allWell(2), together.toString());
        assertFalse(next().time().isAfter(Instant.now()), "a wrong time stamp");
    }

    /** Takes events up to and including the first that is wanted. */
    private void await(Predicate<CardEvent> wanted) {
        CardEvent event;
        do {
            event = next();
            assertFalse(event instanceof CardEvent.CardError, event.toString());
        } while (!wanted.test(event));
    }

    private CardEvent next() {
        return assertDoesNotThrow(() -> client.poll(Duration.ofSeconds(60)))
                .orElseGet(() -> fail("the cards are silent"));
    }
}
