package com.zivolt.hardware.dsp.recorder;

import java.util.ArrayList;
import java.util.List;
import java.util.function.Consumer;

/**
 * How the recording gets on, for those who cannot wait for its answer: a disk that hangs holds up
 * the thread that writes. Marked by that thread, {@link #tell told} by the main thread, asked by any.
 */
final class Progress {
    private static final long STILL_NANOS = 10_000_000_000L;
    private static final long SHOWN_NANOS = 60_000_000_000L;

    private volatile long turned = System.nanoTime();
    private volatile long lost = turned - SHOWN_NANOS;
    private volatile long troubled = lost;
    private volatile String trouble = "";
    private long still;

    /** All that had come is written, or known to be lost. */
    void turned() {
        turned = System.nanoTime();
    }

    void lostAudio() {
        lost = System.nanoTime();
    }

    void troubled(String reason) {
        trouble = reason;
        troubled = System.nanoTime();
    }

    /** What is wrong at a moment of {@link System#nanoTime}. */
    List<String> problems(long now) {
        List<String> problems = new ArrayList<>();
        if (now - turned > STILL_NANOS) {
            problems.add("the recording has stood still for %d s".formatted(seconds(now - turned)));
        }
        if (now - lost < SHOWN_NANOS) {
            problems.add("audio could not be written in the last minute");
        }
        if (now - troubled < STILL_NANOS) {
            problems.add("the recorder cannot go on as usual: " + trouble);
        }
        return problems;
    }

    /** To be called often, by one thread: tells when it stands still, and when it goes on. */
    void tell(Consumer<String> news) {
        long stands = System.nanoTime() - turned;
        if (stands <= STILL_NANOS && still > 0) {
            news.accept("the recording goes on, after %d s".formatted(seconds(still)));
            still = 0;
        } else if (stands > STILL_NANOS) {
            if (still == 0) {
                news.accept("CANNOT write: the recording has stood still for %d s; audio waits for"
                        .formatted(seconds(stands)) + " some minutes and is dropped then");
            }
            still = stands;
        }
    }

    private static long seconds(long nanos) {
        return nanos / 1_000_000_000L;
    }
}
