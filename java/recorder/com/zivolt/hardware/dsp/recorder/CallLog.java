package com.zivolt.hardware.dsp.recorder;

import java.io.Closeable;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.sql.Connection;
import java.sql.PreparedStatement;
import java.sql.ResultSet;
import java.sql.SQLException;
import java.sql.Statement;
import java.time.Instant;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.function.Consumer;
import org.sqlite.SQLiteErrorCode;

/**
 * The call log, written by the recorder. Rows are put and then committed together; those that
 * cannot be committed wait for the next time. A file that is no log of this version, or turns out to
 * be damaged, is moved aside and a new one begun. Used by one thread.
 */
final class CallLog implements Closeable {
    /** About 10 MB; a row is lost only when the disk takes nothing for so many changes. */
    private static final int MOST_WAITING = 20_000;

    private static final long AGAIN_NANOS = 1_000_000_000;

    private final RecordingFolder folder;
    private final DiskRoom room;
    private final Consumer<String> news;
    private final Map<Long, CallRow> waiting = new LinkedHashMap<>();
    private final Map<Long, CallRow> unfinished = new LinkedHashMap<>();
    private Connection log;
    private long nextId = 1;
    private volatile boolean failing;
    private long tried;
    private boolean movedAside;
    private long lost;

    CallLog(RecordingFolder folder, DiskRoom room, Consumer<String> news) throws IOException {
        this.folder = folder;
        this.room = room;
        this.news = news;
        try {
            open();
        } catch (SQLException unusable) {
            moveAsideAndOpen(unusable);
        }
    }

    /** The number of the next call. */
    long nextId() {
        return nextId++;
    }

    /** Whether a file was moved aside, so that there may be recordings without a row. */
    boolean wasMovedAside() {
        return movedAside;
    }

    /** Whether the last commit failed. */
    boolean isFailing() {
        return failing;
    }

    int waiting() {
        return waiting.size();
    }

    /** The row of a call as it is now; in the log once {@link #commit} has returned true. */
    void put(CallRow row) {
        waiting.put(row.id(), row);
        if (row.outcome().isOver()) {
            unfinished.remove(row.id());
        } else {
            unfinished.put(row.id(), row);
        }
        if (waiting.size() > MOST_WAITING) {
            waiting.remove(waiting.keySet().iterator().next());
            ++lost;
        }
    }

    /** Forces all rows that were put to the disk; false when they must wait. */
    boolean commit() {
        if (waiting.isEmpty()) {
            return true;
        }
        if (failing && System.nanoTime() - tried < AGAIN_NANOS) {
            return false;
        }
        try {
            try {
                write();
            } catch (SQLException failure) {
                mend(failure);
                write();
            }
            waiting.clear();
            if (failing) {
                news.accept("the call log is written again"
                        + (lost > 0 ? "; %d rows are lost".formatted(lost) : ""));
            }
            failing = false;
            lost = 0;
        } catch (SQLException | IOException failure) {
            if (!failing) {
                news.accept("CANNOT write the call log, its rows wait: " + reason(failure));
            }
            failing = true;
        }
        tried = System.nanoTime();
        return !failing;
    }

    /** Rows of calls that are not over. */
    List<CallRow> unfinished() throws IOException {
        List<CallRow> rows = new ArrayList<>();
        ask(() -> CallFilter.goingOn(log, rows::add));
        return rows;
    }

    /** Recordings that are there, the oldest first. */
    List<CallRow> oldestKept(int most) throws IOException {
        return rows("SELECT * FROM call WHERE sha256 IS NOT NULL AND removed_ms IS NULL"
                + " ORDER BY start_ms LIMIT " + most);
    }

    /** Recordings that were removed last, as far as the oldest ones are removed first. */
    List<CallRow> removedLast(int most) throws IOException {
        return rows("SELECT * FROM call WHERE removed_ms IS NOT NULL AND start_ms <= coalesce("
                + "(SELECT min(start_ms) FROM call WHERE sha256 IS NOT NULL AND removed_ms IS NULL),"
                + " 9e18) ORDER BY start_ms DESC LIMIT " + most);
    }

    /** Calls of the line that began at that moment, whatever their file is called. */
    List<CallRow> startedAt(int line, Instant start) throws IOException {
        return rows("SELECT * FROM call WHERE start_ms = " + start.toEpochMilli()
                + " AND line = " + line);
    }

    @Override
    public void close() {
        tried -= AGAIN_NANOS;
        commit();
        closeQuietly();
    }

    private void open() throws SQLException, IOException {
        Path file = folder.ownFile(CallTable.FILE);
        for (String companion : new String[] {"-wal", "-shm"}) {
            Path path = file.resolveSibling(CallTable.FILE + companion);
            if (Files.exists(path, LinkOption.NOFOLLOW_LINKS)
                    && !RecordingFolder.isFile(path)) {
                throw new IOException(path + " is no file");
            }
        }
        log = CallTable.openForWriting(file);
        if (CallTable.isNew(log)) {
            CallTable.make(log);
            folder.force();
        }
        CallTable.requireReadable(log);
        nextId = Math.max(nextId, CallTable.number(log, "SELECT max(id) FROM call") + 1);
    }

    private void write() throws SQLException {
        execute("BEGIN IMMEDIATE");
        try (PreparedStatement put = log.prepareStatement(CallTable.PUT)) {
            for (CallRow row : waiting.values()) {
                CallTable.bind(put, row);
                put.executeUpdate();
            }
            execute("COMMIT");
        } catch (SQLException failure) {
            rollBack();
            throw failure;
        }
    }

    private void execute(String command) throws SQLException {
        try (Statement statement = log.createStatement()) {
            statement.execute(command);
        }
    }

    /** Does what may let the next try succeed. */
    private void mend(SQLException failure) throws SQLException, IOException {
        if (isKind(failure, SQLiteErrorCode.SQLITE_BUSY)) {
            throw failure;  // somebody else writes to it, and has been waited for
        } else if (isDamaged(failure)) {
            closeQuietly();
            moveAsideAndOpen(failure);
            unfinished.forEach(waiting::putIfAbsent);
        } else if (isKind(failure, SQLiteErrorCode.SQLITE_FULL) || room.isUsedUp()) {
            room.wasFull();
            if (!room.giveToLog()) {
                throw failure;
            }
        } else {
            closeQuietly();
            open();
        }
    }

    private void moveAsideAndOpen(SQLException unusable) throws IOException {
        closeQuietly();
        if (!isDamaged(unusable)) {
            throw new IOException("the call log cannot be opened: " + reason(unusable), unusable);
        }
        String aside = CallTable.FILE + ".aside-" + Utc.stamp(Instant.now());
        for (String part : new String[] {"", "-wal", "-shm"}) {
            Path path = folder.path().resolve(CallTable.FILE + part);
            if (Files.exists(path)) {
                Files.move(path, folder.path().resolve(aside + part));
            }
        }
        movedAside = true;
        news.accept("CANNOT use calls.db: %s; moved aside as %s, a new one is begun; dspcard-calls"
                .formatted(reason(unusable), aside) + " recover makes rows of the recordings");
        try {
            open();
        } catch (SQLException failure) {
            throw new IOException("no call log can be made: " + reason(failure), failure);
        }
    }

    private interface Question {
        void ask() throws IOException, SQLException;
    }

    private void ask(Question question) throws IOException {
        try {
            question.ask();
        } catch (SQLException failure) {
            throw new IOException("the call log cannot be read: " + reason(failure), failure);
        }
    }

    private List<CallRow> rows(String query) throws IOException {
        List<CallRow> rows = new ArrayList<>();
        ask(() -> {
            try (Statement statement = log.createStatement();
                    ResultSet result = statement.executeQuery(query)) {
                while (result.next()) {
                    rows.add(CallTable.row(result));
                }
            }
        });
        return rows;
    }

    private void rollBack() {
        try {
            execute("ROLLBACK");
        } catch (SQLException over) {
            // a full disk has ended the transaction already
        }
    }

    private void closeQuietly() {
        try {
            if (log != null) {
                log.close();
            }
        } catch (SQLException useless) {
            // it is opened anew, or the process ends
        }
    }

    private static boolean isDamaged(SQLException failure) {
        return failure instanceof CallTable.NoLogException
                || isKind(failure, SQLiteErrorCode.SQLITE_CORRUPT)
                || isKind(failure, SQLiteErrorCode.SQLITE_NOTADB);
    }

    /** The last byte of an error code tells the kind, the one before it the details. */
    private static boolean isKind(SQLException failure, SQLiteErrorCode kind) {
        return (failure.getErrorCode() & 0xFF) == kind.code;
    }

    private static String reason(Exception failure) {
        return Printable.escaped(String.valueOf(failure.getMessage()));
    }
}
