package com.zivolt.hardware.dsp.recorder;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.sql.Connection;
import java.sql.SQLException;
import java.util.ArrayList;
import java.util.List;
import java.util.function.Consumer;

/**
 * Compares each row of the log with its file and each file with its row, also while a recorder
 * writes them. Changes nothing. Used by one thread.
 */
final class FolderCheck {
    private final Path folder;
    private final Connection log;
    private final boolean checksums;
    private final Consumer<String> found;
    private long recordings;
    private long wrong;

    /**
     * @param checksums whether the files are read as well
     * @param found hears of each thing that is wrong
     */
    FolderCheck(Path folder, Connection log, boolean checksums, Consumer<String> found) {
        this.folder = folder;
        this.log = log;
        this.checksums = checksums;
        this.found = found;
    }

    long recordings() {
        return recordings;
    }

    long wrong() {
        return wrong;
    }

    void run() throws IOException, SQLException {
        new CallFilter().all(log, this::checkRow);
        for (Path day : RecordingFolder.days(folder)) {
            for (String name : RecordingFolder.recordings(day)) {
                checkFile(name);
            }
        }
    }

    /** Finds all rows whose recording began at that moment on that line. */
    static List<CallRow> rowsOf(Connection log, RecordingFolder.NameFacts facts)
            throws IOException, SQLException {
        List<CallRow> rows = new ArrayList<>();
        new CallFilter().from(facts.start()).before(facts.start().plusMillis(1)).line(facts.line())
                .all(log, rows::add);
        return rows;
    }

    private void checkRow(CallRow row) throws IOException, SQLException {
        if (row.file() == null || !row.outcome().isOver()) {
            return;
        }
        ++recordings;
        String fault = faultOf(row);
        if (fault != null && isStillSo(row)) {
            tell(Printable.escaped(row.file()) + ": " + fault);
        }
    }

    private String faultOf(CallRow row) {
        try {
            return differenceOf(row);
        } catch (IOException unreadable) {
            return "cannot be read: " + Recorder.reason(unreadable);
        }
    }

    private String differenceOf(CallRow row) throws IOException {
        boolean there = RecordingFolder.isRecording(folder, row.file());
        if (row.removed() != null) {
            return there ? "is there, though the log says it was removed" : null;
        }
        if (!there) {
            return "is not there";
        }
        Path file = folder.resolve(row.file());
        if (Files.size(file) != row.bytes()) {
            return "has %d bytes, not %d".formatted(Files.size(file), row.bytes());
        }
        return checksums && !SpoolFile.checksum(file).equals(row.sha256())
                ? "holds something else than was recorded" : null;
    }

    private boolean isStillSo(CallRow row) throws IOException, SQLException {
        List<CallRow> now = new ArrayList<>();
        new CallFilter().ids(List.of(row.id())).byNumber(log, now::add);
        return now.contains(row);
    }

    private void checkFile(String name) throws IOException, SQLException {
        boolean part = name.endsWith(RecordingFolder.PART);
        String plain = part ? name.substring(0, name.length() - RecordingFolder.PART.length())
                : name;
        boolean known = rowsOf(log, RecordingFolder.factsOf(name)).stream()
                .anyMatch(row -> plain.equals(row.file()));
        if (!known && RecordingFolder.isFile(folder.resolve(name))) {
            tell(name + ": the log has no such call");
        }
    }

    private void tell(String what) {
        ++wrong;
        found.accept(what);
    }
}
