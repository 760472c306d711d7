package com.zivolt.hardware.dsp.client;

import java.time.Instant;

/**
 * Time as far as somebody looked on: the sum of the steps from one look at the clock to the next,
 * without those that only a clock that was set or a process that was stopped can have made. Used by
 * one thread at a time.
 */
final class SmoothTime {
    private static final long LONGEST_STEP_MS = 2_000;

    private long last_ms = Long.MIN_VALUE;
    private long elapsed_ms;

    /** Milliseconds of smooth time from the first look on. */
    long at(Instant now) {
        long now_ms = now.toEpochMilli();
        if (now_ms > last_ms && now_ms - LONGEST_STEP_MS <= last_ms) {
            elapsed_ms += now_ms - last_ms;
        }
        last_ms = now_ms;
        return elapsed_ms;
    }
}
