package com.zivolt.hardware.dsp.recorder;

import com.zivolt.hardware.dsp.client.CardState;
import java.time.Duration;

/**
 * One card as its calls see it: whether it runs, and how much time transfers that are missing stand
 * for, by how often its transfers come. Used by one thread.
 */
final class CardAudio {
    private CardState state = CardState.STARTING;
    private long changed_ms;
    private long last_ms = -1;
    private double usual_ms;
    private long gap_ms;
    private boolean told;

    CardState state() {
        return state;
    }

    boolean isRunning() {
        return state == CardState.RUNNING;
    }

    void become(CardState now, long smooth_ms) {
        state = now;
        changed_ms = smooth_ms;
    }

    /** How long the card has been as it is. */
    long stateAge_ms(long smooth_ms) {
        return smooth_ms - changed_ms;
    }

    /** A transfer has come; the number of those that are missing before it, by the time alone. */
    long transferCame(long smooth_ms) {
        gap_ms = last_ms < 0 ? 0 : smooth_ms - last_ms;
        last_ms = smooth_ms;
        boolean missing = usual_ms > 0 && gap_ms > 3 * usual_ms + 1000;
        if (!missing && gap_ms > 0) {
            usual_ms = usual_ms == 0 ? gap_ms : usual_ms + (gap_ms - usual_ms) / 16;
        }
        told = missing;
        return missing ? missingInGap() : 0;
    }

    /** The driver tells that transfers are missing before the last one: how many more than known. */
    long missedOneMore() {
        long more = told ? 0 : Math.max(1, missingInGap());
        told = true;
        return more;
    }

    /** What the transfers that are missing before the last one stand for. */
    Duration missingTime() {
        return Duration.ofMillis(Math.max(0, Math.round(gap_ms - usual_ms)));
    }

    private long missingInGap() {
        return usual_ms == 0 ? 0 : Math.round(gap_ms / usual_ms) - 1;
    }
}
