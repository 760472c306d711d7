package com.zivolt.hardware.dsp.recorder;

import java.time.Duration;
import java.time.Instant;
import java.util.function.Consumer;

/**
 * Time that knows no jumps: the sum of the steps between the moments that it is told of, but for
 * those that only a clock that was set, or a process that stood still, can have made. Used by one
 * thread.
 */
final class SmoothTime {
    private static final Duration LONGEST_STEP = Duration.ofSeconds(5);

    private final Consumer<String> news;
    private Instant last;
    private long passed_ms;

    SmoothTime(Consumer<String> news) {
        this.news = news;
    }

    long passed_ms() {
        return passed_ms;
    }

    /** Milliseconds since the first moment. */
    long at(Instant time) {
        Duration step = last == null ? Duration.ZERO : Duration.between(last, time);
        if (step.abs().compareTo(LONGEST_STEP) > 0) {
            news.accept("the clock went %s by %d s, or stood still, at %s".formatted(
                    step.isNegative() ? "back" : "forward", step.abs().toSeconds(),
                    Utc.seconds(last)));
        } else if (step.isNegative()) {
            return passed_ms;  // two threads' stamps, in the other order
        } else {
            passed_ms += step.toMillis();
        }
        last = time;
        return passed_ms;
    }
}
