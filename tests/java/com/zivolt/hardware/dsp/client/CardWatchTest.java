package com.zivolt.hardware.dsp.client;

import static org.junit.jupiter.api.Assertions.*;

import com.zivolt.hardware.dsp.client.CardEvent.*;
import java.time.*;
import java.util.*;
import java.util.regex.*;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/**
 * What the watch makes of sequences of events. A story is told in steps: A0 another transfer of
 * card 0, a0 the same one again, L a lock-up, M a missed transfer, X no memory, +N milliseconds with a
 * look every 100, !N milliseconds with one look at their end, N[...] that so often. What it tells
 * begins with the seconds since the start. There is a second card if the story tells of it.
 */
class CardWatchTest {
    private static final Instant START = Instant.parse("2026-01-01T00:00:00Z");
    private static final Pattern LOOP = Pattern.compile("(\\d+)\\[([^\\[\\]]*)]");

    private final CardWatch watch = new CardWatch();
    private final List<String> told = new ArrayList<>();
    private Instant now = START;
    private final byte[] content = new byte[2];

    @ParameterizedTest
    @CsvSource(delimiter = '|', value = {
        // Runs, falls silent, comes back.
        "A0 +400 A0 +2900 A0 +9000 A0 +400 A0   | 0.4 0:RUNNING 6.3 0:SILENT 12.7 0:RUNNING",
        "9[A0 +200 A1 +200] 9[A0 +400]          | 0.4 0:RUNNING 0.6 1:RUNNING 6.4 1:SILENT",
        // Boots that failed: the same transfer at every poll that the other card leaves.
        "30[a0 +100] +9000 M A0                 | 2.0 0:NOT_RUNNING 12.0 0:RUNNING",
        "A0 30[+100 a1 +200 a1 +100 A0]         | 0.4 0:RUNNING 4.1 1:NOT_RUNNING",
        "30[a0 L +100] 3[+4000 7[a0 L +100]] 2[A0] | 0.1 0:NOT_RUNNING 17.1 0:RUNNING",
        "+20000                                 | 7.0 0:NOT_RUNNING",
        "+5000 a0 +2900 a0 +8000                | 10.9 0:NOT_RUNNING",
        // Quiet lines sound the same all the time.
        "A0 30[+225 a1 +225 A0]                 | 0.5 0:RUNNING 5.6 1:RUNNING",
        "30[+225 a0]                            | 4.7 0:RUNNING",
        // Seven lock-ups over both cards, and what the new boot brings.
        "A0 A1 A0 A1 3[A0 L A1 L] A0 L +4000 A0 M +400 A0 +4000 | 0.0 0:RUNNING 0.0 1:RUNNING"
            + " 0.0 0:LOCKED_UP 0.0 1:LOCKED_UP 0.0 0:RESTARTING 0.0 1:RESTARTING 4.4 0:RUNNING"
            + " 7.4 0:SILENT 8.0 1:NOT_RUNNING",
        "A0 A0 7[A0 L] +4000 7[a0 L +100] +4000 A0 +200 A0 L | 0.0 0:RUNNING 0.0 0:LOCKED_UP"
            + " 0.0 0:RESTARTING 4.1 0:NOT_RUNNING 8.9 0:RUNNING 8.9 0:LOCKED_UP",
        "A0 A0 7[A0 L] +4000 A0 L +200 A0 L     | 0.0 0:RUNNING 0.0 0:LOCKED_UP 0.0 0:RESTARTING"
            + " 4.2 0:LOCKED_UP",
        // A lock-up that ends by itself does so with the transfer after which none is told.
        "A0 A0 A0 L +100 A0 +100 A0 +3000       | 0.0 0:RUNNING 0.0 0:LOCKED_UP 0.2 0:RUNNING"
            + " 3.2 0:SILENT",
        // A clock that is set, or a process that is stopped, is no silence.
        "A0 A0 !3600000 !-7200000 +2800 !2001   | 0.0 0:RUNNING",
        "A0 A0 !2000 !-5000 !1000               | 0.0 0:RUNNING -2.0 0:SILENT",
    })
    void tellsHowTheCardsAre(String story, String expected) {
        watch.start(now);
        watch.found(now, story.matches(".*[Aa]1.*") ? new int[] {4, 8} : new int[] {4, 0});
        tell(story);
        assertEquals(expected, String.join(" ", told));
    }

    @Test
    void countsAndKnowsWhichCardsThereAre() {
        watch.look(now);
        assertFalse(watch.wantsCards(false));  // not started yet
        watch.start(now);
        tell("+900");
        assertFalse(watch.wantsCards(false));
        assertTrue(watch.wantsCards(true));
        tell("+100");
        assertTrue(watch.wantsCards(false));
        watch.found(now, new int[] {8, 4});
        assertFalse(watch.wantsCards(true));
        tell("A0 A1 M A0 M A1 M 7[A1 L] +100 A0 M");
        assertEquals(List.of(
                new CardStatus(0, 0, 8, CardState.RESTARTING, Optional.of(now), 3, 2, 0, 1),
                new CardStatus(1, 8, 4, CardState.RESTARTING, Optional.of(now.minusMillis(100)),
                        9, 2, 7, 1)), watch.status());

        CardWatch empty = new CardWatch();
        empty.observe(new CardError(now, 4, "Card memory not mapped"));
        empty.found(now, new int[] {0, 0});
        assertEquals(new CardStateChanged(now, 0, CardState.STARTING, CardState.ABSENT,
                "Card memory not mapped"), empty.takeChange());
        assertEquals(List.of(), empty.status());
    }

    private void tell(String story) {
        Matcher loop = LOOP.matcher(story);
        while (loop.find()) {
            int times = Integer.parseInt(loop.group(1));
            story = loop.replaceFirst((loop.group(2) + " ").repeat(times));
            loop = LOOP.matcher(story);
        }
        for (String step : story.trim().split(" +")) {
            take(step);
            for (CardStateChanged change; (change = watch.takeChange()) != null;) {
                told.add("%.1f %d:%s".formatted(Duration.between(START, change.time()).toMillis()
                        / 1000.0, change.card(), change.state()));
            }
        }
    }

    private void take(String step) {
        int number = Integer.parseInt("0" + step.replaceAll("[^0-9]", ""));
        switch (step.charAt(0)) {
            case 'A' -> {
                ++content[number];
                take("a" + number);
            }
            case 'a' -> watch.observe(new AudioRecorded(now, 4 * number, Collections.nCopies(
                    number == 0 ? 4 : 8, AudioBlock.of(filled(number == 0 ? 600 : 300, number)))));
            case 'L' -> watch.observe(new CardError(now, 3, "DSP Board Locked Up"));
            case 'M' -> watch.observe(new CardError(now, 1, "Missed Xfer "));
            case '!' -> look(step.charAt(1) == '-' ? -number : number);
            default -> {
                for (int left = number; left > 0; left -= 100) {
                    look(Math.min(left, 100));
                }
            }
        }
    }

    private void look(int after_ms) {
        now = now.plusMillis(after_ms);
        watch.look(now);
    }

    private byte[] filled(int length, int card) {
        byte[] audio = new byte[length];
        Arrays.fill(audio, content[card]);
        return audio;
    }
}
