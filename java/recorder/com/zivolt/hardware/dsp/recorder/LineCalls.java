package com.zivolt.hardware.dsp.recorder;

import com.zivolt.hardware.dsp.client.AudioBlock;
import java.time.Duration;
import java.time.Instant;
import java.util.function.BiConsumer;

/**
 * One line: the call on it, and the rule for whose call a caller and digits belong to. A caller
 * belongs to the call that goes on, if that has none yet, and is one on hold otherwise: missed. With no
 * call going on he is kept for a call that begins within 60 s; after that, or when another caller
 * comes first, he was missed. So was he when he has not been identified for 10 s and the call begins
 * with digits: it goes out. Digits belong to the call that goes on, to its last transfer included, or
 * to one that begins within 10 s. Whatever a call ends with is gone with it. Without threads, files
 * or clock.
 */
final class LineCalls {
    static final long CALLER_WAITS_MS = 60_000;
    /** Who has not been identified for so long does not ring when somebody dials. */
    static final long CALLER_RINGS_MS = 10_000;
    static final long DIGITS_WAIT_MS = 10_000;
    /** So soon after its beginning a call that goes out is dialled. */
    static final long BEGINNING_MS = 5_000;

    /** Makes the record of a new call on this line. */
    interface Maker {
        Call make(Outcome outcome, Instant time, long smooth_ms);
    }

    private final int number;
    private final Maker maker;
    private final BiConsumer<Integer, String> news;
    private boolean triggered;
    private Call call;
    private boolean ending;
    private Instant endTime;
    private long end_ms;
    private Call ring;
    private Instant ringStart;
    private long ringStart_ms;
    private long rang_ms;
    private boolean mayHaveGivenUp;
    private long transfers;
    private long missed;
    private String dialled = "";
    private long dialled_ms;

    LineCalls(int number, Maker maker, BiConsumer<Integer, String> news) {
        this.number = number;
        this.maker = maker;
        this.news = news;
    }

    int number() {
        return number;
    }

    /** The call that goes on; null when there is none. */
    Call call() {
        return call;
    }

    /** The caller who rings; null when nobody does. */
    Call ring() {
        return ring;
    }

    /** Transfers whose audio belongs to a call, since the start. */
    long transfers() {
        return transfers;
    }

    /** Transfers that were missed within calls, since the start. */
    long missed() {
        return missed;
    }

    void triggerRose(Instant time, long smooth_ms, boolean running) {
        triggered = true;
        if (ending) {
            finish();
        }
        if (running) {
            begin(time, smooth_ms);
        }
    }

    /** The call ends with the transfer that tells it. */
    void triggerDropped(Instant time, long smooth_ms) {
        triggered = false;
        if (call != null) {
            ending = true;
            endTime = time;
            end_ms = smooth_ms;
        }
    }

    /** The card delivers from now on: a call that is under way is one from now on. */
    void cardRuns(Instant time, long smooth_ms) {
        if (triggered) {
            begin(time, smooth_ms);
        }
    }

    /** The card will not deliver any more, as far as one can tell. */
    void cardIsGone() {
        endAll(Outcome.CARD);
    }

    void heardCaller(String text, Instant time, long smooth_ms) {
        news.accept(number, "caller " + Printable.escaped(text));
        if (call != null && !ending) {
            if (call.caller().isEmpty()) {
                call.calledBy(text);
            } else if (!call.caller().equals(text)) {
                missed(ring(text, time, smooth_ms));
            } else {
                mayHaveGivenUp = false;
            }
            return;
        }
        if (ring != null && !ring.caller().equals(text)) {
            missed(ring);
            ring = null;
        }
        if (ring == null) {
            ring = ring(text, time, smooth_ms);
            ringStart = time;
            ringStart_ms = smooth_ms;
        }
        rang_ms = smooth_ms;
    }

    void heardDigits(String digits, long smooth_ms) {
        news.accept(number, "digits " + Printable.escaped(digits));
        if (call != null) {
            boolean atBeginning = call.age_ms(smooth_ms) <= BEGINNING_MS;
            if (atBeginning && mayHaveGivenUp) {
                Call caller = maker.make(Outcome.RINGING, ringStart, ringStart_ms);
                caller.calledBy(call.takeCaller());
                missed(caller);
            }
            mayHaveGivenUp = false;
            call.dialled(digits, atBeginning);
            return;
        }
        dialled = digitsWait(smooth_ms) ? dialled + digits : digits;
        dialled_ms = smooth_ms;
    }

    /** Audio of a transfer of a card that runs. */
    void hear(AudioBlock block, Instant time, long smooth_ms) {
        if (ending) {
            finish();
        } else if (call != null) {
            ++transfers;
            call.hear(block, time, smooth_ms);
        }
        timePasses(smooth_ms);
    }

    /** Of a call that began before they were missed. */
    void miss(long count, Duration about, long smooth_ms) {
        if (call != null && call.age_ms(smooth_ms) >= about.toMillis()) {
            missed += count;
            call.miss(count, about);
        }
    }

    void timePasses(long smooth_ms) {
        if (ring != null && smooth_ms - rang_ms > CALLER_WAITS_MS) {
            missed(ring);
            ring = null;
        }
    }

    /** Nothing goes on or rings any more. */
    void endAll(Outcome how) {
        if (ending) {
            finish();
        } else if (call != null) {
            call.endAsHeard(how);
            call = null;
        }
        if (ring != null) {
            missed(ring);
            ring = null;
        }
        dialled = "";
    }

    private void begin(Instant time, long smooth_ms) {
        if (call != null) {
            return;  // reported once more because recording was started again
        }
        timePasses(smooth_ms);
        boolean dialling = digitsWait(smooth_ms);
        mayHaveGivenUp = ring != null && smooth_ms - rang_ms > CALLER_RINGS_MS;
        if (mayHaveGivenUp && dialling) {
            missed(ring);
            ring = null;
            mayHaveGivenUp = false;
        }
        if (ring != null) {
            call = ring;
            ring = null;
            call.answered(time, smooth_ms);
        } else {
            call = maker.make(Outcome.OPEN, time, smooth_ms);
        }
        if (dialling) {
            call.dialled(dialled, true);
        }
        dialled = "";
        news.accept(number, "call started");
    }

    private void finish() {
        call.end(endTime, end_ms, Outcome.COMPLETE);
        call = null;
        ending = false;
    }

    private Call ring(String text, Instant time, long smooth_ms) {
        Call caller = maker.make(Outcome.RINGING, time, smooth_ms);
        caller.calledBy(text);
        return caller;
    }

    private void missed(Call caller) {
        caller.endAsHeard(Outcome.MISSED);
        news.accept(number, "missed caller " + Printable.escaped(caller.caller()));
    }

    private boolean digitsWait(long smooth_ms) {
        return !dialled.isEmpty() && smooth_ms - dialled_ms <= DIGITS_WAIT_MS;
    }
}
