package com.zivolt.hardware.dsp.bench;

import com.zivolt.hardware.dsp.client.CardClient;
import com.zivolt.hardware.dsp.client.CardEvent;
import java.io.IOException;
import java.time.Duration;
import java.util.Optional;

/**
 * How many transfers a second the whole chain sustains, from the cards to a Java client, when
 * nothing waits for the clock. Usage, on simulated cards in virtual time:
 * {@code Headroom RESULTS TRANSFERS}.
 */
public final class Headroom {
    private static final int SAMPLES = 10;
    private static final double CYCLE_PER_SECOND = 10;
    private static final Duration LONGEST_SILENCE = Duration.ofSeconds(30);

    private Headroom() {
    }

    /**
     * Measures.
     *
     * @param args file for the results, number of transfers to take
     * @throws IOException when the results cannot be written
     * @throws InterruptedException never, as nobody interrupts
     */
    public static void main(String[] args) throws IOException, InterruptedException {
        int transfersOfSample = Integer.parseInt(args[1]) / SAMPLES;
        Results results = new Results();
        CardClient client = new CardClient();
        client.start();
        take(client, transfersOfSample);
        for (int sample = 0; sample < SAMPLES; ++sample) {
            long start = System.nanoTime();
            take(client, transfersOfSample);
            double seconds = (System.nanoTime() - start) / 1e9;
            results.add("headroom", "cycle", CYCLE_PER_SECOND);
            results.add("headroom", "chain", transfersOfSample / seconds);
        }
        results.write(args[0]);
        System.exit(0);
    }

    private static void take(CardClient client, int transfers) throws InterruptedException {
        for (int taken = 0; taken < transfers; ) {
            Optional<CardEvent> event = client.poll(LONGEST_SILENCE);
            if (event.isEmpty()) {
                throw new IllegalStateException("the cards have fallen silent");
            }
            if (event.get() instanceof CardEvent.CardError error) {
                throw new IllegalStateException(error.toString());
            }
            taken += event.get() instanceof CardEvent.AudioRecorded ? 1 : 0;
        }
    }
}
