package com.zivolt.hardware.dsp.client;

/** What starts and ends a call on a line. */
public enum Trigger {
    /** Nothing: the line reports no calls. */
    NEVER,
    /** A call lasts while the line is off hook. */
    OFF_HOOK,
    /** A call lasts while there is sound above the lowest of six thresholds. */
    VOX_1,
    /** As {@link #VOX_1}, second threshold. */
    VOX_2,
    /** As {@link #VOX_1}, third threshold. */
    VOX_3,
    /** As {@link #VOX_1}, fourth threshold; what a line has before any settings are sent. */
    VOX_4,
    /** As {@link #VOX_1}, fifth threshold. */
    VOX_5,
    /** As {@link #VOX_1}, highest threshold. */
    VOX_6;

    /** As in packets: the order of the constants is that of the codes. */
    byte code() {
        return (byte) ordinal();
    }
}
