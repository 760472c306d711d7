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
import java.util.StringJoiner;

/** Which calls somebody asks for; what is not narrowed down takes all. */
final class CallFilter {
    private final StringJoiner conditions = new StringJoiner(" AND ", " WHERE ", "")
            .setEmptyValue("");
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
        try (PreparedStatement query = log.prepareStatement("SELECT * FROM (SELECT * FROM call"
                + conditions + " ORDER BY start_ms DESC, id DESC LIMIT ?)"
                + " ORDER BY start_ms, id")) {
            hand(query, most, taker);
        }
    }

    /** Hands over all, the earliest first, however many there are. */
    void all(Connection log, Taker taker) throws IOException, SQLException {
        try (PreparedStatement query = log.prepareStatement("SELECT * FROM call" + conditions
                + " ORDER BY start_ms, id LIMIT ?")) {
            hand(query, Integer.MAX_VALUE, taker);
        }
    }

    /** Hands over all, the first that was logged first; for few that are asked for by number. */
    void byNumber(Connection log, Taker taker) throws IOException, SQLException {
        try (PreparedStatement query = log.prepareStatement("SELECT * FROM call" + conditions
                + " ORDER BY id LIMIT ?")) {
            hand(query, Integer.MAX_VALUE, taker);
        }
    }

    /** Hands over all calls that go on; without the index a year's rows would be read for that. */
    static void goingOn(Connection log, Taker taker) throws IOException, SQLException {
        try (PreparedStatement query = log.prepareStatement("SELECT * FROM call INDEXED BY"
                + " call_unfinished WHERE outcome IN ('open', 'ringing') ORDER BY id LIMIT ?")) {
            new CallFilter().hand(query, Integer.MAX_VALUE, taker);
        }
    }

    private void hand(PreparedStatement query, int most, Taker taker)
            throws IOException, SQLException {
        for (int i = 0; i < values.size(); ++i) {
            query.setObject(i + 1, values.get(i));
        }
        query.setInt(values.size() + 1, most);
        try (ResultSet result = query.executeQuery()) {
            while (result.next()) {
                taker.take(CallTable.row(result));
            }
        }
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
