package com.zivolt.hardware.dsp;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import com.zivolt.hardware.dsp.check.AudioChecker;
import com.zivolt.hardware.dsp.client.Beep;
import com.zivolt.hardware.dsp.client.CardClient;
import com.zivolt.hardware.dsp.client.CardEvent;
import com.zivolt.hardware.dsp.client.CardEvent.AudioRecorded;
import com.zivolt.hardware.dsp.client.LineSetting;
import com.zivolt.hardware.dsp.client.LineSettings;
import com.zivolt.hardware.dsp.client.Trigger;
import com.zivolt.hardware.dsp.cppint.CPPBridge;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.TreeSet;
import java.util.concurrent.Callable;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.function.Consumer;
import java.util.function.Predicate;
import org.junit.jupiter.api.Test;

/**
 * The driver through a real Java VM, on a four- and an eight-channel simulated card with traffic
 * and verifiable audio. A process has one driver: each test needs a VM of its own.
 */
class DriverTest {
    private static final Duration PATIENCE = Duration.ofSeconds(60);
    private static final int PIECE = 600;

    private final CPPBridge bridge = new CPPBridge();
    private final CardClient client = new CardClient(bridge);

    /** The property firstUse names the method that a thread of Java's calls before initialize. */
    @Test
    void recordingWorksWhateverIsCalledFirst() throws InterruptedException {
        Consumer<CPPBridge> first = Map.<String, Consumer<CPPBridge>>of(
                "startRecording", CPPBridge::startRecording,
                "stopRecording", CPPBridge::stopRecording,
                "setMonitoring", b -> b.setMonitoring(-1),
                "getNumberOfChannels", b -> b.getNumberOfChannels(0),
                "setPlayback", b -> b.setPlayback(false),
                "getPacket", CPPBridge::getPacket).get(System.getProperty("firstUse"));
        assertNotNull(first, "the property firstUse names no method");
        first.accept(bridge);
        client.apply(settings(Trigger.OFF_HOOK));
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
        assertTrue(checker.allWell(), checker.toString());  // two runner threads would upset it
        assertEquals(List.of(4, 8, 0, 0, 0), List.of(0, 1, 2, -1, Integer.MIN_VALUE).stream()
                .map(bridge::getNumberOfChannels).toList());
    }

    @Test
    void eachTransferReachesExactlyOneOfSeveralThreads() throws Exception {
        final int transfers = 20_000;
        final int threads = 4;
        AtomicInteger claimed = new AtomicInteger();
        Callable<List<AudioRecorded>> poller = () -> {
            List<AudioRecorded> taken = new ArrayList<>();
            while (claimed.getAndIncrement() < transfers) {
                taken.add((AudioRecorded) client.poll(PATIENCE).orElseThrow());
            }
            return taken;
        };
        client.start();
        ExecutorService pollers = Executors.newFixedThreadPool(threads);
        List<AudioRecorded> all = new ArrayList<>();
        for (Future<List<AudioRecorded>> share
                : pollers.invokeAll(Collections.nCopies(threads, poller))) {
            System.out.println("one thread took " + share.get().size());
            all.addAll(share.get());
        }
        pollers.shutdown();

        assertEquals(transfers, all.size());
        for (int card = 0; card < 2; ++card) {
            final int wanted = card;
            List<Integer> counters = all.stream()
                    .filter(audio -> AudioChecker.cardOf(audio) == wanted)
                    .map(AudioChecker::counterOf).toList();
            TreeSet<Integer> distinct = new TreeSet<>(counters);
            assertEquals(counters.size(), distinct.size(), "some came twice");
            assertEquals(distinct.last() - distinct.first() + 1, distinct.size(), "some are lost");
        }
    }

    @Test
    void badCommandsHurtNothing() throws InterruptedException {
        final int commands = 10_000;
        long seed = Long.getLong("seed", System.nanoTime());
        System.out.println("random commands from -Dseed=" + seed);
        Random random = new Random(seed);
        for (int i = 0; i < commands; ++i) {
            byte[] data = random.nextInt(8) == 0 ? null : new byte[random.nextInt(700)];
            int length = random.nextInt(4) == 0 ? random.nextInt() : random.nextInt(800) - 20;
            bridge.putPacket((byte) (random.nextBoolean() ? 5 : random.nextInt(256)), length, data);
        }
        bridge.setPlayback(false);

        client.apply(settings(Trigger.OFF_HOOK));
        byte[] never = settings(Trigger.NEVER).toBytes();  // no line triggers if one is accepted
        bridge.putPacket((byte) 6, 48, null);
        for (int length : new int[] {-1, Integer.MIN_VALUE, 49, Integer.MAX_VALUE}) {
            bridge.putPacket((byte) 6, length, never);
        }
        client.start();
        client.startRecording();
        for (int i = 0; i < commands; ++i) {  // by then every command has been taken
            await(AudioRecorded.class::isInstance);
        }
        await(CardEvent.CallStarted.class::isInstance);
    }

    /** The property speaker names the file of what card 0 plays. */
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
        await(CardEvent.CallStarted.class::isInstance);  // the settings that were sent last hold

        Path speaker = Path.of(System.getProperty("speaker"));
        for (int i = 0; find(played, Files.readAllBytes(speaker), 0) < 0; ++i) {
            assertTrue(i < 3000, "the speaker did not play it all in order");
            await(AudioRecorded.class::isInstance);
            Thread.sleep(10);
        }
        byte[] heard = Files.readAllBytes(speaker);
        assertEquals(-1, find(Arrays.copyOf(discarded, PIECE), heard, 0), "discarded, yet played");
        assertEquals(-1, find(played, heard, find(played, heard, 0) + 1), "played twice");
    }

    /** Takes events up to and including the first that is wanted. */
    private void await(Predicate<CardEvent> wanted) throws InterruptedException {
        long start = System.nanoTime();
        CardEvent event;
        do {
            assertTrue(System.nanoTime() - start < PATIENCE.toNanos(), "the event did not come");
            event = client.poll(PATIENCE).orElseGet(() -> fail("the cards are silent"));
            assertTrue(!(event instanceof CardEvent.CardError), event.toString());
        } while (!wanted.test(event));
    }

    private static int find(byte[] wanted, byte[] in, int from) {
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
