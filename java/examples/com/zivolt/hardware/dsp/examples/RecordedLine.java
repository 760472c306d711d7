package com.zivolt.hardware.dsp.examples;

import java.time.Duration;
import java.time.Instant;

/** One line as the recorder sees it: the running call, if there is one, and what was heard last. */
final class RecordedLine {
    /** A caller is identified while the line rings; so long may it ring before the call starts. */
    private static final Duration BELONGS_TO_NEXT_CALL = Duration.ofSeconds(60);

    private final int number;
    private CallFile callFile;
    private Instant heardAt = Instant.MIN;
    private String caller = "";
    private String digits = "";
    private long bytes;

    RecordedLine(int number) {
        this.number = number;
    }

    int number() {
        return number;
    }

    /** The file of the running call; null when there is none. */
    CallFile callFile() {
        return callFile;
    }

    /** Of the running call, else of the last one or of the next one. */
    String caller() {
        return caller;
    }

    /** Of the running call, else of the last one or of the next one. */
    String digits() {
        return digits;
    }

    /** Recorded from the running call, else from the last one. */
    long bytes() {
        return bytes;
    }

    void begin(CallFile file) {
        if (heardAt.isBefore(file.start().minus(BELONGS_TO_NEXT_CALL))) {
            caller = "";
            digits = "";
        }
        callFile = file;
        bytes = 0;
    }

    void end() {
        callFile = null;
        heardAt = Instant.MIN;
    }

    void heardCaller(Instant time, String text) {
        forgetLastCall();
        heardAt = time;
        caller = text;
    }

    void heardDigits(Instant time, String more) {
        forgetLastCall();
        heardAt = time;
        digits += more;
    }

    void recorded(int count) {
        bytes += count;
    }

    private void forgetLastCall() {
        if (callFile == null && heardAt.equals(Instant.MIN)) {
            caller = "";
            digits = "";
            bytes = 0;
        }
    }
}
