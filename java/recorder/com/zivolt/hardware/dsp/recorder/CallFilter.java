package com.zivolt.hardware.dsp.recorder;

import java.io.IOException;
import java.sql.Connection;
import java.sql.PreparedStatement;
import java.sql.ResultSet;
import java.sql.SQLException;
import java.time.Instant;
import java.util.ArrayList;
import java.util.Collection;
import java.util.List;

/** Which calls somebody asks for; what is not narrowed down takes all. */
final class CallFilter {
    /** A few megabytes. */
    private static final int PAGE = 5_000;

    private final List<String> conditions = new ArrayList<>();
    private final List<Object> values = new ArrayList<>();

    /** What a call is handed to; throws to end the search. */
    interface Taker {
        void take(CallRow row) throws IOException, SQLException;
    }

    CallFilter from(Instant first) {
        return where("start_ms >= ?", first.toEpochMilli());
    }

    CallFilter before(Instant end) {
        return where("start_ms < ?", end.toEpochMilli());
    }

    CallFilter line(int line) {
        return where("line = ?", line);
    }

    /** The whole text, or a pattern with * for anything. */
    CallFilter caller(String pattern) {
        // The first condition lets the index of callers be used.
        return pattern.contains("*") ? where("caller <> '' AND caller GLOB ?", glob(pattern))
                : where("caller <> '' AND caller = ?", pattern);
    }

    CallFilter digits(String pattern) {
        return pattern.contains("*") ? where("digits GLOB ?", glob(pattern))
                : where("digits = ?", pattern);
    }

    /** Caller or digits hold the text. */
    CallFilter mentions(String text) {
        return where("(instr(caller, ?) OR instr(digits, ?))", text, text);
    }

    CallFilter outcomes(Collection<Outcome> outcomes) {
        return where("outcome IN (SELECT value FROM json_each(?))", outcomes.stream()
                .map(outcome -> '"' + outcome.code() + '"').toList().toString());
    }

    CallFilter over() {
        return where("outcome NOT IN ('open', 'ringing')");
    }

    CallFilter idAbove(long id) {
        return where("id > ?", id);
    }

    CallFilter ids(Collection<Long> ids) {
        return where("id IN (SELECT value FROM json_each(?))", ids.toString());
    }

    /** Hands over the latest ones, at most so many, the earliest first. */
    void search(Connection log, int most, Taker taker)
            throws IOException, SQLException {
        if (most <= PAGE) {
            hand(find(log, "SELECT * FROM (SELECT * FROM call" + where()
                    + " ORDER BY start_ms DESC, id DESC LIMIT ?) ORDER BY start_ms, id", most), taker);
            return;
        }
        List<CallRow> first = find(log, "SELECT * FROM call" + where()
                + " ORDER BY start_ms DESC, id DESC LIMIT 1 OFFSET ?", most - 1);
        (first.isEmpty() ? this : from(">=", first.get(0))).all(log, PAGE, taker);
    }

    /** Hands over all, the earliest first, however many there are. */
    void all(Connection log, Taker taker) throws IOException, SQLException {
        all(log, PAGE, taker);
    }

    /**
     * @param page so many are found at a time; a taker may pause, and as long as a query goes on, the
     *        journal of the log only grows
     */
    void all(Connection log, int page, Taker taker) throws IOException, SQLException {
        CallFilter left = this;
        List<CallRow> rows;
        do {
            rows = left.find(log, "SELECT * FROM call" + left.where()
                    + " ORDER BY start_ms, id LIMIT ?", page);
            hand(rows, taker);
            left = rows.isEmpty() ? left : from(">", rows.get(rows.size() - 1));
        } while (rows.size() == page);
    }

    /** Hands over all, the first that was logged first; for few that are asked for by number. */
    void byNumber(Connection log, Taker taker) throws IOException, SQLException {
        hand(find(log, "SELECT * FROM call" + where() + " ORDER BY id LIMIT ?",
                Integer.MAX_VALUE), taker);
    }

    /** Hands over all calls that go on; without the index a year's rows would be read for that. */
    static void goingOn(Connection log, Taker taker) throws IOException, SQLException {
        hand(new CallFilter().find(log, "SELECT * FROM call INDEXED BY call_unfinished WHERE outcome"
                + " IN ('open', 'ringing') ORDER BY id LIMIT ?", Integer.MAX_VALUE), taker);
    }

    private List<CallRow> find(Connection log, String query, int number) throws SQLException {
        List<CallRow> rows = new ArrayList<>();
        try (PreparedStatement prepared = log.prepareStatement(query)) {
            for (int i = 0; i < values.size(); ++i) {
                prepared.setObject(i + 1, values.get(i));
            }
            prepared.setInt(values.size() + 1, number);
            try (ResultSet result = prepared.executeQuery()) {
                while (result.next()) {
                    rows.add(CallTable.row(result));
                }
            }
        }
        return rows;
    }

    private static void hand(List<CallRow> rows, Taker taker) throws IOException, SQLException {
        for (CallRow row : rows) {
            taker.take(row);
        }
    }

    private String where() {
        return conditions.isEmpty() ? "" : " WHERE " + String.join(" AND ", conditions);
    }

    /** The same, but only what comes after the row, or also the row. */
    private CallFilter from(String after, CallRow row) {
        CallFilter narrower = new CallFilter();
        narrower.conditions.addAll(conditions);
        narrower.values.addAll(values);
        return narrower.where("(start_ms, id) " + after + " (?, ?)", row.start().toEpochMilli(),
                row.id());
    }

    private CallFilter where(String condition, Object... operands) {
        conditions.add(condition);
        values.addAll(List.of(operands));
        return this;
    }

    /** Only * means anything in a pattern. */
    private static String glob(String pattern) {
        return pattern.replace("[", "[[]").replace("?", "[?]");
    }
}
