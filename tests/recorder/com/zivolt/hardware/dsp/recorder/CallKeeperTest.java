package com.zivolt.hardware.dsp.recorder;

import static org.junit.jupiter.api.Assertions.*;

import com.zivolt.hardware.dsp.client.*;
import com.zivolt.hardware.dsp.client.CardEvent.*;
import java.time.*;
import java.util.*;
import java.util.concurrent.atomic.AtomicLong;
import java.util.stream.*;
import org.junit.jupiter.api.Test;

/** Whose calls, callers, digits and audio are: stories of lines 0 to 3 of card 0, second by second. */
class CallKeeperTest {
    private static final Instant START = Instant.parse("2026-03-01T23:59:00Z");

    private final List<String> told = new ArrayList<>();
    private final AtomicLong ids = new AtomicLong();
    private CallKeeper keeper;
    private Duration clockSet;
    private long now_ms;
    private boolean delivering;

    @Test
    void callersAndDigitsBelongToTheirCallAndNeverToALaterOne() {
        assertCalls("an answered caller", "1 caller A, 4 up, 9 digits 5, 10 down", "in A 5 complete 6");
        assertCalls("a call out", "1 up, 1 digits 01, 3 digits 9, 8 down", "out - 019 complete 7");
        assertCalls("keys pressed late", "1 up, 9 digits 5, 10 down", "unknown - 5 complete 9");
        assertCalls("dialled before the sound triggers", "1 digits 01, 3 up, 5 down",
                "out - 01 complete 2");
        assertCalls("dialled, and nothing came of it", "1 digits 01, 12 up, 15 down",
                "unknown - - complete 3");
        assertCalls("a caller who gave up", "1 caller A, 70 up, 72 down, 75 up, 76 down",
                "in A - missed 0", "unknown - - complete 2", "unknown - - complete 1");
        assertCalls("a caller who gave up, and somebody dials",
                "1 caller A, 40 up, 42 digits 01, 43 digits 2, 50 down, 60 up, 62 digits 3, 65 down",
                "out - 012 complete 10", "in A - missed 0", "out - 3 complete 5");
        assertCalls("and dials before the sound triggers", "1 caller A, 39 digits 01, 40 up, 50 down",
                "in A - missed 0", "out - 01 complete 10");
        assertCalls("answered late, and a menu", "1 caller A, 40 up, 46 digits 5, 50 down",
                "in A 5 complete 10");
        assertCalls("another caller first", "1 caller A, 5 caller B, 6 up, 8 down",
                "in A - missed 0", "in B - complete 2");
        assertCalls("told twice while it rings", "1 caller A, 50 caller A, 70 up, 72 down",
                "in A - complete 2");
        assertCalls("told late, told again, and one on hold",
                "1 up, 2 caller A, 3 caller A, 4 caller B, 8 down",
                "in A - complete 7", "in B - missed 0");
        assertCalls("with the transfer that ends it", "1 up, 9 down, 9 digits 7, 9 caller B, 12 up,"
                + " 13 down", "unknown - 7 complete 8", "in B - complete 1");
        assertCalls("ends and begins in one transfer", "1 caller A, 2 up, 9 down, 9 up, 12 down",
                "in A - complete 7", "unknown - - complete 3");
        assertCalls("reported once more", "1 caller A, 2 up, 5 up, 7 down", "in A - complete 5");
        assertCalls("still going on and ringing at the end", "1 up, 2.2 end",
                "unknown - - process-end 1");
        assertCalls("rings at the end", "1 caller A, 2 end", "in A - missed 0");
    }

    @Test
    void onlyARunningCardHasCallsAndAPauseIsCounted() {
        assertCalls("under way before the card runs", "0 state STARTING, 0 up, 4 state RUNNING, 7 down",
                "unknown - - complete 3");
        assertCalls("a card whose boot failed", "0 state STARTING, 0 up, 5 state NOT_RUNNING, 9 down",
                new String[0]);
        assertCalls("boots again", "1 caller A, 2 up, 5 stop, 5 state RESTARTING, 15 state RUNNING,"
                + " 20 down", "in A - complete 18 missed 20");
        assertCalls("stays away", "1 caller A, 2 up, 2 digits 5, 5 stop, 8 state SILENT, 60 look,"
                + " 61 state RUNNING, 65 down", "in A 5 card 3", "unknown - - complete 4");
        assertCalls("cannot boot again", "1 up, 5 stop, 5 state RESTARTING, 9 state NOT_RUNNING",
                "unknown - - card 4");
        assertCalls("one transfer missed", "1 up, 5 stop, 6 missed, 10 down",
                "unknown - - complete 9 missed 2");
        Call locked = calls("1 up, 5 locked, 5.1 locked, 6 state RUNNING, 9 down").get(0);
        assertEquals(600 * 2 * 8, locked.audio().stream().mapToInt(AudioBlock::length).sum()
                + 2 * 600, "what a locked up card repeats is not recorded");
    }

    @Test
    void aClockThatIsSetChangesNoDuration() {
        assertCalls("back", "1 up, 5 clock -3600, 9 down", "unknown - - complete 8");
        assertTrue(told.toString().contains("the clock went back by 3"), told.toString());
        assertCalls("forward while it rings", "1 caller A, 5 clock 7200, 9 up, 12 down",
                "in A - complete 3");
    }

    private void assertCalls(String story, String script, String... expected) {
        assertEquals(List.of(expected), calls(script).stream().map(CallKeeperTest::summary).toList(),
                story);
    }

    private static String summary(Call call) {
        CallRow row = call.rowSoFar();
        assertFalse(row.end().isBefore(row.start()), row.toString());
        return "%s %s %s %s %d%s".formatted(row.direction().code(), orNone(row.caller()),
                orNone(row.digits()), row.outcome().code(),
                Math.round(row.duration().toMillis() / 1000.0),
                row.missed() > 0 ? " missed " + row.missed() : "");
    }

    private static String orNone(String text) {
        return text.isEmpty() ? "-" : text;
    }

    /** Card 0 delivers a transfer every half second but while it has stopped. */
    private List<Call> calls(String script) {
        keeper = new CallKeeper(ids::incrementAndGet, told::add);
        clockSet = Duration.ZERO;
        now_ms = 0;
        delivering = true;
        keeper.handle(state("RUNNING"));
        for (String step : script.split(", ")) {
            String[] words = step.split(" ");
            deliverUntil(Math.round(Double.parseDouble(words[0]) * 1000));
            play(words[1], words.length > 2 ? words[2] : "");
        }
        deliverUntil(now_ms + 1500);
        return keeper.calls();
    }

    private void deliverUntil(long until_ms) {
        for (; now_ms + 500 <= until_ms; now_ms += 500) {
            if (delivering) {
                keeper.handle(transfer());
            } else {
                keeper.timePasses(time());
            }
        }
        now_ms = until_ms;
    }

    private void play(String what, String word) {
        switch (what) {
            case "caller" -> keeper.handle(new CallerIdentified(time(), 2, word));
            case "digits" -> keeper.handle(new DigitsHeard(time(), 2, word));
            case "up" -> keeper.handle(new CallStarted(time(), 2));
            case "down" -> keeper.handle(new CallEnded(time(), 2));
            case "stop" -> delivering = false;
            case "look" -> keeper.timePasses(time());
            case "clock" -> clockSet = Duration.ofSeconds(Long.parseLong(word));
            case "end" -> keeper.end();
            case "state" -> {
                delivering |= word.equals("RUNNING");
                keeper.handle(state(word));
            }
            case "missed" -> {
                delivering = true;
                keeper.handle(transfer());
                keeper.handle(new CardError(time(), 1, "Missed Xfer "));
            }
            case "locked" -> {
                delivering = false;
                keeper.handle(transfer());
                keeper.handle(new CardError(time(), 3, "DSP Board Locked Up"));
                keeper.handle(state("LOCKED_UP"));
            }
            default -> fail(what);
        }
    }

    private Instant time() {
        return START.plusMillis(now_ms).plus(clockSet);
    }

    private CardStateChanged state(String now) {
        CardState state = CardState.valueOf(now);
        return new CardStateChanged(time(), 0, state == CardState.ABSENT ? CardState.RUNNING
                : CardState.ABSENT, state, "because");
    }

    private AudioRecorded transfer() {
        return new AudioRecorded(time(), 0, Collections.nCopies(4, AudioBlock.of(new byte[600])));
    }
}
