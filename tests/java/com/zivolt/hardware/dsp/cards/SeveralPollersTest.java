package com.zivolt.hardware.dsp.cards;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.zivolt.hardware.dsp.client.CardClient;
import com.zivolt.hardware.dsp.client.CardEvent.AudioRecorded;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.TreeSet;
import java.util.concurrent.Callable;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicInteger;
import org.junit.jupiter.api.Test;

/** Several threads poll at once. Needs a four- and an eight-channel card, verifiable audio. */
class SeveralPollersTest {
    private static final int THREADS = 4;
    private static final int TRANSFERS = 20_000;

    private final AtomicInteger claimed = new AtomicInteger();

    @Test
    void eachTransferReachesExactlyOneThread() throws Exception {
        CardClient client = new CardClient();
        client.start();
        ExecutorService pollers = Executors.newFixedThreadPool(THREADS);
        List<AudioRecorded> all = new ArrayList<>();
        List<Integer> shares = new ArrayList<>();
        for (Future<List<AudioRecorded>> share
                : pollers.invokeAll(Collections.nCopies(THREADS, poller(client)))) {
            assertInOrder(share.get());
            shares.add(share.get().size());
            all.addAll(share.get());
        }
        pollers.shutdown();

        System.out.println("transfers taken by each thread: " + shares);
        assertEquals(TRANSFERS, all.size());
        for (int card = 0; card < 2; ++card) {
            List<Integer> counters = counters(all, card);
            TreeSet<Integer> distinct = new TreeSet<>(counters);
            assertTrue(counters.size() > 1000, "card " + card + ": " + counters.size());
            assertEquals(counters.size(), distinct.size(), "some came twice");
            assertEquals(distinct.last() - distinct.first() + 1, distinct.size(), "some are lost");
        }
    }

    /** Claims a transfer before taking it, so that the threads take no more than they should. */
    private Callable<List<AudioRecorded>> poller(CardClient client) {
        return () -> {
            List<AudioRecorded> taken = new ArrayList<>();
            while (claimed.getAndIncrement() < TRANSFERS) {
                taken.add((AudioRecorded) client.poll(Duration.ofSeconds(60)).orElseThrow());
            }
            return taken;
        };
    }

    private static void assertInOrder(List<AudioRecorded> share) {
        for (int card = 0; card < 2; ++card) {
            List<Integer> counters = counters(share, card);
            assertEquals(counters.stream().sorted().toList(), counters, "one thread's order");
        }
    }

    private static List<Integer> counters(List<AudioRecorded> transfers, int card) {
        return transfers.stream().filter(audio -> AudioChecker.cardOf(audio) == card)
                .map(audio -> AudioPattern.counterOf(audio.blocks().get(0))).toList();
    }
}
