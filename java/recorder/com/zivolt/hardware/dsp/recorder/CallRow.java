package com.zivolt.hardware.dsp.recorder;

import java.time.Duration;
import java.time.Instant;

/**
 * A row of the call log. Texts are as they came over the line.
 *
 * @param id grows with every call
 * @param card -1 when it is not known
 * @param start when the call began; when the caller was identified as long as nobody has answered
 * @param end as known so far while the call goes on
 * @param duration as if the clock had never been set, so not always end minus start
 * @param missed transfers of the card that were lost within the call
 * @param missedTime what they stand for, about
 * @param bytes in the file
 * @param unwritten bytes that came and could not be written
 * @param file relative to the recording folder; null when there never was one
 * @param sha256 of the file; null while it is being written
 * @param removed when the recording was removed to make room; null when it is there
 */
record CallRow(long id, int line, int card, Direction direction, String caller, String digits,
        Instant start, Instant end, Duration duration, Outcome outcome, long missed,
        Duration missedTime, long bytes, long unwritten, String file, String sha256,
        Instant removed) {

    /** The row of a call that is over, with what its file holds. */
    CallRow finished(Outcome how, String name, long length, String checksum) {
        return new CallRow(id, line, card, direction, caller, digits, start, end, duration, how,
                missed, missedTime, length, unwritten, name, checksum, removed);
    }

    /** The same, its recording removed to make room. */
    CallRow removedAt(Instant time) {
        return new CallRow(id, line, card, direction, caller, digits, start, end, duration, outcome,
                missed, missedTime, bytes, unwritten, file, sha256, time);
    }

    /** What can be said of a call of which there is nothing but the file. */
    static CallRow ofFile(long id, RecordingFolder.NameFacts facts, Instant end, Outcome outcome) {
        Instant last = end.isBefore(facts.start()) ? facts.start() : end;
        return new CallRow(id, facts.line(), -1, Direction.UNKNOWN, "", "", facts.start(), last,
                Duration.between(facts.start(), last), outcome, 0, Duration.ZERO, 0, 0, null, null,
                null);
    }
}
