package com.zivolt.hardware.dsp.cards;

import static org.junit.jupiter.api.Assertions.fail;

import com.zivolt.hardware.dsp.client.CardClient;
import com.zivolt.hardware.dsp.client.CardEvent;
import java.time.Duration;
import java.util.function.Predicate;

/** Waiting for what the cards do, in real time and with an end. */
final class Await {
    private static final Duration PATIENCE = Duration.ofSeconds(60);

    private Await() {
    }

    /** Takes events up to and including the first that is wanted; a card's error is a failure. */
    static CardEvent event(CardClient client, Predicate<CardEvent> wanted)
            throws InterruptedException {
        long start = System.nanoTime();
        while (System.nanoTime() - start < PATIENCE.toNanos()) {
            CardEvent event = client.poll(PATIENCE).orElseGet(() -> fail("the cards are silent"));
            if (event instanceof CardEvent.CardError error) {
                fail("card error: " + error);
            }
            if (wanted.test(event)) {
                return event;
            }
        }
        return fail("the event did not come");
    }
}
