package com.zivolt.hardware.dsp.recorder;

import java.nio.file.Files;
import java.nio.file.Path;
import java.sql.Connection;
import java.sql.PreparedStatement;
import java.sql.ResultSet;
import java.sql.SQLException;
import java.sql.Statement;
import java.time.Duration;
import java.time.Instant;
import java.util.List;
import java.util.Properties;
import java.util.stream.Collectors;
import org.sqlite.SQLiteConfig;
import org.sqlite.SQLiteErrorCode;
import org.sqlite.SQLiteOpenMode;

/**
 * How the log lies in its SQLite file: the schema with its version, and a row as the statements
 * take and give it. The view "calls" shows the same with times in words, for whoever opens the file
 * by other means.
 */
final class CallTable {
    static final String FILE = "calls.db";

    /** "dspc": by this a file is known as a log of calls. */
    static final int APPLICATION = 0x64737063;

    static final int VERSION = 1;

    private static final List<String> COLUMNS = List.of("id", "line", "card", "direction", "caller",
            "digits", "start_ms", "end_ms", "duration_ms", "outcome", "missed", "missed_ms",
            "bytes", "unwritten", "file", "sha256", "removed_ms");

    /** A new row, or the new values of one that is there. */
    static final String PUT = COLUMNS.stream().map(column -> column + " = excluded." + column)
            .collect(Collectors.joining(", ", "INSERT INTO call (" + String.join(", ", COLUMNS)
                    + ") VALUES (?" + ", ?".repeat(COLUMNS.size() - 1)
                    + ") ON CONFLICT (id) DO UPDATE SET ", ""));

    private static final String[] SCHEMA = {
        """
        CREATE TABLE call (
            id INTEGER PRIMARY KEY,
            line INTEGER NOT NULL, card INTEGER NOT NULL, direction TEXT NOT NULL,
            caller TEXT NOT NULL, digits TEXT NOT NULL,
            start_ms INTEGER NOT NULL, end_ms INTEGER NOT NULL, duration_ms INTEGER NOT NULL,
            outcome TEXT NOT NULL, missed INTEGER NOT NULL, missed_ms INTEGER NOT NULL,
            bytes INTEGER NOT NULL, unwritten INTEGER NOT NULL,
            file TEXT, sha256 TEXT, removed_ms INTEGER) STRICT""",
        "CREATE INDEX call_by_start ON call (start_ms)",
        "CREATE INDEX call_by_caller ON call (caller, start_ms) WHERE caller <> ''",
        "CREATE INDEX call_unfinished ON call (id) WHERE outcome IN ('open', 'ringing')",
        """
        CREATE INDEX call_kept ON call (start_ms)
            WHERE sha256 IS NOT NULL AND removed_ms IS NULL""",
        """
        CREATE VIEW calls AS SELECT id, line, card, direction, caller, digits,
            strftime('%Y-%m-%dT%H:%M:%fZ', start_ms / 1000.0, 'unixepoch') AS start,
            strftime('%Y-%m-%dT%H:%M:%fZ', end_ms / 1000.0, 'unixepoch') AS "end",
            duration_ms / 1000.0 AS seconds, outcome, missed, missed_ms / 1000.0 AS missed_seconds,
            bytes, unwritten, file, sha256,
            strftime('%Y-%m-%dT%H:%M:%fZ', removed_ms / 1000.0, 'unixepoch') AS removed
            FROM call""",
        "PRAGMA application_id = " + APPLICATION,
        "PRAGMA user_version = " + VERSION};

    /** The file is fine for SQLite, and no log of calls of this version. */
    static final class NoLogException extends SQLException {
        private static final long serialVersionUID = 1;

        NoLogException(String reason) {
            super(reason);
        }
    }

    private CallTable() {
    }

    /** For the recorder: what is committed survives a power cut. */
    static Connection openForWriting(Path file) throws SQLException {
        SQLiteConfig config = new SQLiteConfig();
        config.setJournalMode(SQLiteConfig.JournalMode.WAL);
        config.setSynchronous(SQLiteConfig.SynchronousMode.FULL);
        config.setBusyTimeout(1_000);  // no more, for the audio of all lines waits as well
        Connection writer = connect(config, "jdbc:sqlite:" + file);
        try (Statement statement = writer.createStatement()) {
            // Less than what is kept for it on a full disk.
            statement.execute("PRAGMA wal_autocheckpoint = 400");
            return writer;
        } catch (SQLException unusable) {
            writer.close();
            throw unusable;
        }
    }

    /** For whoever reads, also one who may not write. */
    static Connection openForReading(Path file) throws SQLException {
        SQLiteConfig config = new SQLiteConfig();
        config.setReadOnly(true);
        config.setBusyTimeout(10_000);
        Connection reader = connect(config, "jdbc:sqlite:" + file);
        try {
            requireReadable(reader);
            return reader;
        } catch (SQLException unreadable) {
            reader.close();
            if (Files.exists(file.resolveSibling(file.getFileName() + "-wal"))) {
                throw unreadable;
            }
            // Nobody has it open, and beside it nothing may be made: read it as it lies there.
            config.setOpenMode(SQLiteOpenMode.OPEN_URI);
            return connect(config, "jdbc:sqlite:" + file.toUri().toString()
                    .replace("file:///", "file:/") + "?immutable=1");
        }
    }

    /** Whether there is nothing in the file yet. */
    static boolean isNew(Connection log) throws SQLException {
        return number(log, "PRAGMA user_version") == 0
                && number(log, "SELECT count(*) FROM sqlite_master") == 0;
    }

    static void make(Connection log) throws SQLException {
        log.setAutoCommit(false);
        try (Statement statement = log.createStatement()) {
            for (String step : SCHEMA) {
                statement.execute(step);
            }
        }
        log.commit();
        log.setAutoCommit(true);
    }

    /** @throws NoLogException when it is no log, or one of another version */
    static void requireReadable(Connection log) throws SQLException {
        long application = number(log, "PRAGMA application_id");
        long version = number(log, "PRAGMA user_version");
        if (application != APPLICATION) {
            throw new NoLogException("it is no log of calls");
        }
        if (version != VERSION) {
            throw new NoLogException("it is of version " + version + ", not " + VERSION);
        }
        if (number(log, "SELECT count(*) FROM sqlite_master WHERE name IN ('call', 'calls')") != 2) {
            throw new NoLogException("its tables are missing");
        }
    }

    /** @throws NoLogException when any page of it is damaged; reads them all */
    static void requireSound(Connection log) throws SQLException {
        try (Statement statement = log.createStatement();
                ResultSet result = statement.executeQuery("PRAGMA integrity_check(1)")) {
            if (!result.next() || !"ok".equals(result.getString(1))) {
                throw new NoLogException("it is damaged");
            }
        }
    }

    static long number(Connection log, String question) throws SQLException {
        try (Statement statement = log.createStatement();
                ResultSet result = statement.executeQuery(question)) {
            return result.next() ? result.getLong(1) : 0;
        }
    }

    static void bind(PreparedStatement put, CallRow row) throws SQLException {
        Object[] values = {row.id(), row.line(), row.card(), row.direction().code(), row.caller(),
            row.digits(), row.start().toEpochMilli(), row.end().toEpochMilli(),
            row.duration().toMillis(), row.outcome().code(), row.missed(),
            row.missedTime().toMillis(), row.bytes(), row.unwritten(), row.file(), row.sha256(),
            row.removed() == null ? null : row.removed().toEpochMilli()};
        for (int i = 0; i < values.length; ++i) {
            put.setObject(i + 1, values[i]);
        }
    }

    static CallRow row(ResultSet result) throws SQLException {
        try {
            return wholeRow(result);
        } catch (IllegalArgumentException | NullPointerException never) {
            throw new SQLException("a row holds what nobody wrote: " + never.getMessage(), null,
                    SQLiteErrorCode.SQLITE_CORRUPT.code);
        }
    }

    private static CallRow wholeRow(ResultSet result) throws SQLException {
        long removed = result.getLong("removed_ms");
        return new CallRow(result.getLong("id"), result.getInt("line"), result.getInt("card"),
                Direction.ofCode(result.getString("direction")), result.getString("caller"),
                result.getString("digits"), Instant.ofEpochMilli(result.getLong("start_ms")),
                Instant.ofEpochMilli(result.getLong("end_ms")),
                Duration.ofMillis(result.getLong("duration_ms")),
                Outcome.ofCode(result.getString("outcome")), result.getLong("missed"),
                Duration.ofMillis(result.getLong("missed_ms")), result.getLong("bytes"),
                result.getLong("unwritten"), result.getString("file"), result.getString("sha256"),
                removed == 0 ? null : Instant.ofEpochMilli(removed));
    }

    private static Connection connect(SQLiteConfig config, String url) throws SQLException {
        findNativeLibrary();
        Properties properties = config.toProperties();
        return org.sqlite.JDBC.createConnection(url, properties);
    }

    /** Debian's folder is not searched once java.library.path has been set. */
    private static void findNativeLibrary() {
        String library = System.mapLibraryName("sqlitejdbc");
        if (System.getProperty("org.sqlite.lib.path") == null) {
            for (String folder : new String[] {"/usr/lib/x86_64-linux-gnu/jni",
                "/usr/lib/i386-linux-gnu/jni", "/usr/lib/jni"}) {
                if (Files.exists(Path.of(folder, library))) {
                    System.setProperty("org.sqlite.lib.path", folder);
                    return;
                }
            }
        }
    }
}
