package com.zivolt.hardware.dsp.client;

import java.util.Objects;

/**
 * The settings of one line.
 *
 * @param trigger what starts and ends a call
 * @param beep the beep on the line
 * @param delaySeconds trigger delay in seconds, 0 to {@value #MAX_DELAY_SECONDS}
 */
public record LineSetting(Trigger trigger, Beep beep, int delaySeconds) {
    /** The longest trigger delay in seconds. */
    public static final int MAX_DELAY_SECONDS = 65;

    /** Fourth voice threshold, no beep, 3 seconds. */
    public static final LineSetting DEFAULT = new LineSetting(Trigger.VOX_4, Beep.OFF, 3);

    /**
     * Checks the values.
     *
     * @param trigger what starts and ends a call; not null
     * @param beep the beep on the line; not null
     * @param delaySeconds trigger delay in seconds, 0 to {@value #MAX_DELAY_SECONDS}
     * @throws NullPointerException when trigger or beep is null
     * @throws IllegalArgumentException when the delay is out of range
     */
    public LineSetting {
        Objects.requireNonNull(trigger, "trigger");
        Objects.requireNonNull(beep, "beep");
        if (delaySeconds < 0 || delaySeconds > MAX_DELAY_SECONDS) {
            throw new IllegalArgumentException("A trigger delay is 0 to " + MAX_DELAY_SECONDS
                    + " seconds, not " + delaySeconds);
        }
    }
}
