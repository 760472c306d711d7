package com.zivolt.hardware.dsp.recorder;

import com.zivolt.hardware.dsp.client.AudioBlock;
import java.time.Duration;
import java.time.Instant;
import java.util.ArrayList;
import java.util.List;

/**
 * A call that goes on or has just ended, or the caller of one that may come. What has changed of it
 * waits here until the recorder has written it. Used by one thread.
 */
final class Call {
    /** A line in a hurry dials a few dozen; what goes beyond is noise. */
    private static final int MOST_DIGITS = 1000;

    private final long id;
    private final int line;
    private final int card;
    private Direction direction = Direction.UNKNOWN;
    private String caller = "";
    private String digits = "";
    private Instant start;
    private long start_ms;
    private Instant end;
    private Duration duration = Duration.ZERO;
    private Outcome outcome;
    private long missed;
    private Duration missedTime = Duration.ZERO;
    private boolean changed = true;

    private final List<AudioBlock> audio = new ArrayList<>();
    private String file;
    private SpoolFile spool;
    private long unwritten;
    private boolean hadNoRoom;
    private boolean mayBeLost;
    private String checksum;
    private boolean named;
    private boolean failureTold;

    /** @param smooth_ms the same moment in time that knows no jumps */
    Call(long id, int line, int card, Outcome outcome, Instant time, long smooth_ms) {
        this.id = id;
        this.line = line;
        this.card = card;
        this.outcome = outcome;
        this.start = time;
        this.start_ms = smooth_ms;
        this.end = time;
    }

    int line() {
        return line;
    }

    int card() {
        return card;
    }

    Instant start() {
        return start;
    }

    String caller() {
        return caller;
    }

    String digits() {
        return digits;
    }

    Outcome outcome() {
        return outcome;
    }

    long age_ms(long smooth_ms) {
        return smooth_ms - start_ms;
    }

    /** The line was picked up for the caller that had been identified. */
    void answered(Instant time, long smooth_ms) {
        outcome = Outcome.OPEN;
        start = time;
        end = time;
        start_ms = smooth_ms;
        changed = true;
    }

    void calledBy(String text) {
        caller = text;
        if (direction == Direction.UNKNOWN) {
            direction = Direction.IN;
        }
        changed = true;
    }

    /** It was not his call; who it was. */
    String takeCaller() {
        String taken = caller;
        caller = "";
        direction = Direction.UNKNOWN;
        changed = true;
        return taken;
    }

    void dialled(String more, boolean atBeginning) {
        digits = (digits + more).substring(0, Math.min(digits.length() + more.length(),
                MOST_DIGITS));
        if (atBeginning && direction == Direction.UNKNOWN) {
            direction = Direction.OUT;
        }
        changed = true;
    }

    void hear(AudioBlock block, Instant time, long smooth_ms) {
        audio.add(block);
        heardUntil(time, smooth_ms);
    }

    void miss(long transfers, Duration about) {
        missed += transfers;
        missedTime = missedTime.plus(about);
        changed = true;
    }

    /** Audio that came and was not taken. */
    void lose(long bytes) {
        unwritten += bytes;
        changed = true;
    }

    void end(Instant time, long smooth_ms, Outcome how) {
        heardUntil(time, smooth_ms);
        endAsHeard(how);
    }

    /** Ends it at the last moment that anything was heard of it. */
    void endAsHeard(Outcome how) {
        boolean tellsTheEnd =
                how == Outcome.COMPLETE || how == Outcome.PROCESS_END || how == Outcome.CARD;
        boolean audioIsMissing = unwritten > 0 || mayBeLost;
        outcome = how;
        if (tellsTheEnd && audioIsMissing) {  // which matters more
            outcome = hadNoRoom ? Outcome.DISK_FULL : Outcome.NOT_WRITTEN;
        }
        changed = true;
    }

    /** With its clock set back a call would end before it began. */
    private void heardUntil(Instant time, long smooth_ms) {
        duration = Duration.ofMillis(smooth_ms - start_ms);
        end = time.isBefore(start) ? start.plus(duration) : time;
    }

    // What the recorder writes of it.

    /** Whether there is something new to log. */
    boolean isChanged() {
        return changed;
    }

    /** Audio that waits to be written; the caller takes it out. */
    List<AudioBlock> audio() {
        return audio;
    }

    String file() {
        return file;
    }

    void useFile(String name) {
        file = name;
        changed = true;
    }

    SpoolFile spool() {
        return spool;
    }

    void useSpool(SpoolFile opened) {
        spool = opened;
    }

    long bytes() {
        return spool == null ? 0 : spool.bytes();
    }

    /** Of the file, once it is closed. */
    String checksum() {
        return checksum;
    }

    void closedWith(String fileChecksum) {
        checksum = fileChecksum;
    }

    /** Whether its file is closed and has its name. */
    void named(boolean isSo) {
        named = isSo;
        if (!isSo && bytes() > 0) {
            outcome = Outcome.NOT_WRITTEN;
        }
    }

    /** Whether it is the first failure of this call, which is to be told. */
    boolean failsFirst() {
        boolean first = !failureTold;
        failureTold = true;
        return first;
    }

    /** What waits cannot be written. */
    void loseWaiting(boolean noRoom) {
        lose(audio.stream().mapToLong(AudioBlock::length).sum());
        audio.clear();
        lost(noRoom);
    }

    /** What was written could not be forced to the disk; a later try that succeeds proves nothing. */
    void mayBeLost(boolean noRoom) {
        mayBeLost = true;
        lost(noRoom);
    }

    private void lost(boolean noRoom) {
        hadNoRoom |= noRoom;
        if (outcome.isOver()) {
            endAsHeard(outcome);
        }
    }

    /** The row as of now; a call is open as long as its file is. */
    CallRow rowSoFar() {
        return row(outcome.isOver() && file != null ? Outcome.OPEN : outcome, file, null);
    }

    /** The row of a call that is over. */
    CallRow lastRow() {
        return row(outcome, named ? file : null, named ? checksum : null);
    }

    private CallRow row(Outcome how, String name, String sha256) {
        changed = false;
        return new CallRow(id, line, card, direction, caller, digits, start, end, duration, how,
                missed, missedTime, bytes(), unwritten, name, sha256, null);
    }
}
