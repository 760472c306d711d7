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

    TakeUp(RecordingFolder folder, CallLog log, Consumer<String> news) {
        this.folder = folder;
        this.log = log;
        this.news = news;
    }

    /** How many calls and callers were taken up. */
    int run() throws IOException {
        int taken = 0;
        for (CallRow row : log.unfinished()) {
            log.put(row.outcome() == Outcome.RINGING
                    ? row.finished(Outcome.MISSED, null, 0, null) : closed(row));
            ++taken;
        }
        List<Path> days = RecordingFolder.days(folder.path());
        for (Path day : days.subList(0, Math.min(DAYS, days.size()))) {
            for (String name : RecordingFolder.recordings(day)) {
                if (name.endsWith(RecordingFolder.PART)) {
                    log.put(closed(rowOf(plain(name)), plain(name)));
                    ++taken;
                }
            }
        }
        folder.force();
        log.commit();
        if (taken > 0) {
            news.accept("taken up what an earlier recorder left: %d calls were cut off or missed"
                    .formatted(taken));
        }
        return taken;
    }

    private CallRow closed(CallRow row) throws IOException {
        boolean kept = row.file() != null && (isThere(row.file())
                || isThere(row.file() + RecordingFolder.PART));
        return kept ? closed(row, row.file()) : row.finished(Outcome.PROCESS_END, null, 0, null);
    }

    /** Gives the file its name, unless it has it already. */
    private CallRow closed(CallRow row, String name) throws IOException {
        String free = name;
        if (isThere(name + RecordingFolder.PART)) {
            if (isThere(name)) {
                free = folder.freeName(row.line(), row.start());
                Files.move(folder.path().resolve(name + RecordingFolder.PART),
                        folder.path().resolve(free + RecordingFolder.PART));
            }
            folder.closed(free);
        }
        Path file = folder.path().resolve(free);
        Outcome how = row.outcome().isOver() ? row.outcome() : Outcome.PROCESS_END;
        return row.finished(how, free, Files.size(file), SpoolFile.checksum(file));
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
