package com.zivolt.hardware.dsp.recorder;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Instant;
import java.util.List;
import java.util.function.Consumer;

/**
 * Takes up what a killed process or a power cut left: closes the files, says in the rows how the
 * calls ended, and makes rows for files that have none. Overwrites nothing. Used by one thread,
 * before anything is recorded.
 */
final class TakeUp {
    /** Files without a row are left only by a log that could not be written; so not long ago. */
    private static final int DAYS = 3;

    private final RecordingFolder folder;
    private final CallLog log;
    private final Consumer<String> news;
    private int taken;

    TakeUp(RecordingFolder folder, CallLog log, Consumer<String> news) {
        this.folder = folder;
        this.log = log;
        this.news = news;
    }

    /** How many calls and callers were taken up. */
    int run() {
        return run(DAYS);
    }

    /** The same, however long ago files without a row were left. */
    int runForAllDays() {
        return run(Integer.MAX_VALUE);
    }

    /** What cannot be taken up is told, and left as it is. */
    private int run(int latestDays) {
        if (log.isFailing()) {
            return 0;  // whoever has a log again takes them up
        }
        taken = 0;
        guarded("the calls that the log says go on", () -> {
            for (CallRow row : log.unfinished()) {
                takeUp("call " + row.id(), () -> row.outcome() == Outcome.RINGING
                        ? row.finished(Outcome.MISSED, null, 0, null) : closed(row));
            }
        });
        guarded("files without a row", () -> {
            for (Path day : RecordingFolder.days(folder.path()).stream().limit(latestDays).toList()) {
                guarded("the files of " + day, () -> takeUp(day));
            }
        });
        guarded("the folder", folder::force);
        log.commit();
        if (taken > 0) {
            news.accept("taken up what an earlier recorder left: %d calls were cut off or missed"
                    .formatted(taken));
        }
        return taken;
    }

    private void takeUp(Path day) throws IOException {
        for (String name : RecordingFolder.recordings(day)) {
            if (name.endsWith(RecordingFolder.PART)) {
                takeUp(name, () -> closed(rowOf(plain(name)), plain(name)));
            }
        }
    }

    private interface Closer {
        CallRow close() throws IOException;
    }

    private void takeUp(String what, Closer closer) {
        guarded(what, () -> {
            log.put(closer.close());
            ++taken;
        });
    }

    private interface Step {
        void run() throws IOException;
    }

    private void guarded(String what, Step step) {
        try {
            step.run();
        } catch (IOException | RuntimeException failure) {
            news.accept("CANNOT take up %s: %s".formatted(Printable.escaped(what),
                    Recorder.reason(failure)));
        }
    }

    private CallRow closed(CallRow row) throws IOException {
        boolean kept = row.file() != null && (isThere(row.file())
                || isThere(row.file() + RecordingFolder.PART));
        return kept ? closed(row, row.file()) : row.finished(Outcome.PROCESS_END, null, 0, null);
    }

    /** Gives the file its name, unless it has it already. */
    private CallRow closed(CallRow row, String name) throws IOException {
        boolean part = isThere(name + RecordingFolder.PART);
        // First of all, so that a file that cannot be read keeps its name.
        String checksum = SpoolFile.checksum(folder.path().resolve(part
                ? name + RecordingFolder.PART : name));
        String free = name;
        if (part) {
            if (isThere(name)) {
                free = folder.freeName(row.line(), row.start());
                Files.move(folder.path().resolve(name + RecordingFolder.PART),
                        folder.path().resolve(free + RecordingFolder.PART));
            }
            folder.closed(free);
        }
        Path file = folder.path().resolve(free);
        Outcome how = row.outcome().isOver() ? row.outcome() : Outcome.PROCESS_END;
        return row.finished(how, free, Files.size(file), checksum);
    }

    private CallRow rowOf(String name) throws IOException {
        RecordingFolder.NameFacts facts = RecordingFolder.factsOf(name);
        for (CallRow row : log.startedAt(facts.line(), facts.start())) {
            if (row.file() == null || row.file().equals(name)) {
                return row;
            }
        }
        Instant end = Files.getLastModifiedTime(folder.path().resolve(name + RecordingFolder.PART))
                .toInstant();
        return CallRow.ofFile(log.nextId(), facts, end, Outcome.OPEN);
    }

    private boolean isThere(String name) {
        return RecordingFolder.isRecording(folder.path(), name);
    }

    private static String plain(String name) {
        return name.substring(0, name.length() - RecordingFolder.PART.length());
    }
}
