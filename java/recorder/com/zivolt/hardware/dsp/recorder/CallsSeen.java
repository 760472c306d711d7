package com.zivolt.hardware.dsp.recorder;

import java.time.Instant;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;

/**
 * How the lines stand, for whoever shows it: written by the recording thread, read by any. A line
 * shows its last call until something new happens on it.
 */
final class CallsSeen {
    private final Map<Integer, Line> lines = new TreeMap<>();

    /**
     * A line.
     *
     * @param state idle, ringing or RECORDING
     * @param since when that began; null before anything has happened
     * @param calls that are over, since the start
     * @param transfers whose audio belongs to a call, since the start
     * @param missed transfers within calls, since the start
     */
    record Line(int number, int card, String state, Instant since, String caller, String digits,
            long bytes, long calls, long transfers, long missed) {
        private Line countedAs(LineCalls line) {
            return new Line(number, card, state, since, caller, digits, bytes, calls,
                    line.transfers(), line.missed());
        }
    }

    synchronized void update(CallKeeper keeper) {
        for (LineCalls line : keeper.lines()) {
            Line before = lines.get(line.number());
            long calls = before == null ? 0 : before.calls();
            int card = keeper.cardNumberOf(line.number());
            Call call = line.call() != null ? line.call() : line.ring();
            if (call != null) {
                lines.put(line.number(), new Line(line.number(), card,
                        line.call() != null ? "RECORDING" : "ringing", call.start(), call.caller(),
                        call.digits(), call.bytes(), calls, line.transfers(), line.missed()));
            } else if (before == null || !before.state().equals("idle")) {
                lines.put(line.number(), new Line(line.number(), card, "idle", null, "", "", 0,
                        calls, line.transfers(), line.missed()));
            } else {
                lines.put(line.number(), before.countedAs(line));
            }
        }
    }

    /** A call is over, and logged. */
    synchronized void over(CallRow row) {
        Line before = lines.get(row.line());
        lines.put(row.line(), new Line(row.line(), row.card(), "idle", row.end(), row.caller(),
                row.digits(), row.bytes(), before == null ? 1 : before.calls() + 1,
                before == null ? 0 : before.transfers(), before == null ? 0 : before.missed()));
    }

    /** All lines that the cards have told of, in order. */
    synchronized List<Line> lines() {
        return new ArrayList<>(lines.values());
    }
}
