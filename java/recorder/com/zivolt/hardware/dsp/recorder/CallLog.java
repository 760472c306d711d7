package com.zivolt.hardware.dsp.recorder;

import java.io.Closeable;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.nio.file.attribute.BasicFileAttributes;
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
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.Consumer;
import org.sqlite.SQLiteErrorCode;

/**
 * The call log, written by the recorder. Rows are put and then committed together; those that
 * cannot be committed wait for the next time, also as long as there is no log at all. A file that is no
 * log of this version, or turns out to be damaged, is moved aside and a new one begun. Used by one
 * thread.
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
    private final AtomicLong failures = new AtomicLong();
    private Connection log;
    private Object openFile;
    private long nextId = 1;
    private volatile boolean failing;
    private long tried;
    private long lost;

    /** When it cannot be opened that is told, and tried again every second. */
    CallLog(RecordingFolder folder, DiskRoom room, Consumer<String> news) {
        this.folder = folder;
        this.room = room;
        this.news = news;
        try {
            try {
                openOrBegin();
            } catch (SQLException failure) {
                mend(failure);
            }
        } catch (SQLException | IOException failure) {
            fails("CANNOT open the call log, calls are recorded without it as long", failure);
            nextId = System.currentTimeMillis();  // above all that can be in it
        }
    }

    /** The number of the next call. */
    long nextId() {
        return nextId++;
    }

    /** Whether the last commit failed; for any thread. */
    boolean isFailing() {
        return failing;
    }

    /** How often it could not be written, was damaged or was gone; for any thread. */
    long failures() {
        return failures.get();
    }

    /** To be called every second or so: begins it anew when its file is gone. */
    void look() {
        if (log != null && isGone()) {
            failures.incrementAndGet();
            news.accept("calls.db IS GONE, removed or moved while it was written: it is begun anew;"
                    + " dspcard-calls recover makes rows of the recordings");
            closeQuietly();
            unfinished.forEach(waiting::putIfAbsent);
        }
        if (log == null) {
            commit();
        }
    }

    /** Reads all of it; when it is damaged anywhere it is moved aside and a new one begun. */
    void readAll() throws IOException {
        rows(() -> {
            CallTable.requireSound(log);
            return List.of();
        });
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
        if (waiting.isEmpty() && log != null && !failing) {
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
            fails("CANNOT write the call log, its rows wait", failure);
        }
        return !failing;
    }

    /** Rows of calls that are not over. */
    List<CallRow> unfinished() throws IOException {
        return rows(() -> {
            List<CallRow> found = new ArrayList<>();
            CallFilter.goingOn(log, found::add);
            return found;
        });
    }

    /** Recordings that are there, the oldest first. */
    List<CallRow> oldestKept(int most) throws IOException {
        return rows("SELECT * FROM call WHERE sha256 IS NOT NULL AND removed_ms IS NULL"
                + " ORDER BY start_ms LIMIT " + most);
    }

    /** The latest recording that is there; none in a new log. */
    List<CallRow> newestKept() throws IOException {
        return rows("SELECT * FROM call WHERE sha256 IS NOT NULL AND removed_ms IS NULL"
                + " ORDER BY start_ms DESC LIMIT 1");
    }

    /** Recordings that were removed last: before all but the oldest ones that are there. */
    List<CallRow> removedLast(int most) throws IOException {
        return rows("SELECT * FROM call WHERE removed_ms IS NOT NULL AND start_ms <= coalesce("
                + "(SELECT start_ms FROM call WHERE sha256 IS NOT NULL AND removed_ms IS NULL"
                + " ORDER BY start_ms LIMIT 1 OFFSET " + most + "), 9e18)"
                + " ORDER BY start_ms DESC LIMIT " + most);
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

    private void openOrBegin() throws SQLException, IOException {
        try {
            open();
        } catch (SQLException failure) {
            if (!isDamaged(failure)) {
                throw failure;
            }
            moveAside(failure);
            open();
        }
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
        boolean usable = false;
        try {
            if (CallTable.isNew(log)) {
                CallTable.make(log);
                folder.force();
            }
            CallTable.requireReadable(log);
            openFile = keyOf(file);
            nextId = Math.max(nextId, CallTable.number(log, "SELECT max(id) FROM call") + 1);
            usable = true;
        } finally {
            if (!usable) {
                closeQuietly();
            }
        }
    }

    private boolean isGone() {
        try {
            return !keyOf(folder.path().resolve(CallTable.FILE)).equals(openFile);
        } catch (NoSuchFileException gone) {
            return true;
        } catch (IOException unknown) {
            return false;
        }
    }

    private static Object keyOf(Path file) throws IOException {
        return Files.readAttributes(file, BasicFileAttributes.class, LinkOption.NOFOLLOW_LINKS)
                .fileKey();
    }

    private void fails(String what, Exception failure) {
        if (!failing) {
            failures.incrementAndGet();
            news.accept(what + ": " + reason(failure));
        }
        failing = true;
        tried = System.nanoTime();
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
        requireOpen();
        try (Statement statement = log.createStatement()) {
            statement.execute(command);
        }
    }

    /** Does what may let the next try succeed. */
    private void mend(SQLException failure) throws SQLException, IOException {
        if (isKind(failure, SQLiteErrorCode.SQLITE_BUSY)) {
            throw failure;  // somebody else writes to it, and has been waited for
        } else if (isDamaged(failure)) {
            moveAside(failure);
        } else if (isKind(failure, SQLiteErrorCode.SQLITE_FULL) || room.isUsedUp()) {
            room.wasFull();
            if (!room.giveToLog()) {
                throw failure;
            }
        } else {
            closeQuietly();
        }
        if (log == null) {
            openOrBegin();
        }
    }

    private void moveAside(SQLException unusable) throws IOException {
        closeQuietly();
        String aside = CallTable.FILE + ".aside-" + Utc.stamp(Instant.now());
        for (String part : new String[] {"", "-wal", "-shm"}) {
            Path path = folder.path().resolve(CallTable.FILE + part);
            if (Files.exists(path)) {
                Files.move(path, folder.path().resolve(aside + part));
            }
        }
        failures.incrementAndGet();
        unfinished.forEach(waiting::putIfAbsent);
        news.accept("CANNOT use calls.db: %s; moved aside as %s, a new one is begun; dspcard-calls"
                .formatted(reason(unusable), aside) + " recover makes rows of the recordings");
    }

    private interface Question {
        List<CallRow> ask() throws IOException, SQLException;
    }

    private List<CallRow> rows(Question question) throws IOException {
        try {
            try {
                requireOpen();
                return question.ask();
            } catch (SQLException failure) {
                mend(failure);
                return question.ask();
            }
        } catch (SQLException failure) {
            throw new IOException("the call log cannot be read: " + reason(failure), failure);
        }
    }

    private List<CallRow> rows(String query) throws IOException {
        return rows(() -> {
            List<CallRow> rows = new ArrayList<>();
            try (Statement statement = log.createStatement();
                    ResultSet result = statement.executeQuery(query)) {
                while (result.next()) {
                    rows.add(CallTable.row(result));
                }
            }
            return rows;
        });
    }

    private void requireOpen() throws SQLException {
        if (log == null) {
            throw new SQLException("it is not open");
        }
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
        log = null;
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
