package com.zivolt.hardware.dsp.recorder;

import java.util.Arrays;

/** How a call stands, or how it ended. The code is what the log and the programs' output say. */
enum Outcome {
    /** A caller was identified; nobody has answered yet. */
    RINGING("ringing"),
    OPEN("open"),
    COMPLETE("complete"),
    /** The recorder ended, or was killed, before the call did. */
    PROCESS_END("process-end"),
    /** The card stopped delivering before the call ended, and stayed away. */
    CARD("card"),
    /** There was no room for all of its audio. */
    DISK_FULL("disk-full"),
    /** Audio could not be written or was not taken in time; the recorder's lines say why. */
    NOT_WRITTEN("not-written"),
    /** A caller whom nobody answered; there is no recording. */
    MISSED("missed"),
    /** The row was made again from the file; what else was known of the call is lost. */
    RECOVERED("recovered");

    private final String code;

    Outcome(String code) {
        this.code = code;
    }

    String code() {
        return code;
    }

    boolean isOver() {
        return this != RINGING && this != OPEN;
    }

    static Outcome ofCode(String code) {
        return Arrays.stream(values()).filter(outcome -> outcome.code.equals(code)).findFirst()
                .orElseThrow(() -> new IllegalArgumentException("'" + code + "' is none of "
                        + Arrays.stream(values()).map(Outcome::code).toList()));
    }
}
