package com.zivolt.hardware.dsp.recorder;

import java.util.Locale;

/** Who called whom, as far as it could be heard. */
enum Direction {
    /** A caller was identified just before. */
    IN,
    /** It began with digits, and no caller had been identified. */
    OUT,
    UNKNOWN;

    String code() {
        return name().toLowerCase(Locale.ROOT);
    }

    static Direction ofCode(String code) {
        return valueOf(code.toUpperCase(Locale.ROOT));
    }
}
