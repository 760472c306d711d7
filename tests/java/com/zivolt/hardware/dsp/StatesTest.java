package com.zivolt.hardware.dsp;

import static org.junit.jupiter.api.Assertions.*;

import com.zivolt.hardware.dsp.client.*;
import com.zivolt.hardware.dsp.client.CardEvent.*;
import java.time.*;
import java.util.*;
import java.util.concurrent.*;
import org.junit.jupiter.api.Test;

/**
 * What an application hears of simulated cards that fail. The properties card0 and card1 have what
 * it must hear of each, and nothing else: states, and "call" for a call on any of its lines.
 */
class StatesTest {
    private static final Duration TOLD_WITHIN = Duration.ofSeconds(10);
    private static final Duration SILENCE_TOLD_WITHIN = Duration.ofSeconds(5);

    private final BlockingQueue<CardEvent> events = new LinkedBlockingQueue<>();
    private final List<String> expected = List.of(System.getProperty("card0"),
            System.getProperty("card1"));
    private final List<StringJoiner> told = List.of(new StringJoiner(" "), new StringJoiner(" "));

    @Test
    void tellsWhatBecomesOfEachCardAndKeepsItsSettings() throws InterruptedException {
        CardClient client = new CardClient();
        client.apply(LineSettings.builder()
                .allLines(new LineSetting(Trigger.VOX_1, Beep.OFF, 1)).build());
        client.listen(events::add);
        Instant start = Instant.now();
        client.start();
        client.startRecording();
        while (!expected.equals(told.stream().map(StringJoiner::toString).toList())) {
            CardEvent event = events.poll(60, TimeUnit.SECONDS);
            assertNotNull(event, "nothing follows " + told);
            if (event instanceof CallStarted call) {
                tell(call.line() / 4 > 0 ? 1 : 0, "call");
            } else if (event instanceof CardStateChanged change) {
                tell(change.card(), change.state().name());
                assertTrue(change.state() != CardState.NOT_RUNNING
                        || event.time().isBefore(start.plus(TOLD_WITHIN)), event.toString());
                if (change.state() == CardState.SILENT) {
                    Instant last = client.cards().get(change.card()).lastAudio().orElseThrow();
                    assertTrue(event.time().isBefore(last.plus(SILENCE_TOLD_WITHIN)), event + " " + last);
                }
                if (change.card() == 0 && change.before() == CardState.STARTING) {
                    client.monitor(5);  // which keeps card 0 from taking settings
                }
            }
        }
        client.cards().forEach(card -> assertTrue((" " + expected.get(card.card()))
                .replace(" call", "").endsWith(" " + card.state()), card.toString()));
    }

    private void tell(int card, String what) {
        told.get(card).add(what);
        assertTrue(expected.get(card).startsWith(told.get(card).toString()), told.toString());
    }
}
