package com.zivolt.hardware.dsp.recorder;

import java.io.IOException;
import java.time.Duration;
import java.time.Instant;
import java.util.List;
import java.util.function.Consumer;

/**
 * Removes the oldest recordings: those that are older than they are kept, and as many as it takes
 * to have so much of the disk free. The row of each stays and says so, and says so before the file
 * is gone. Used by one thread.
 */
final class Retention {
    private static final int AT_ONCE = 50;

    private final RecordingFolder folder;
    private final Duration keep;
    private final long keepFree;
    private final Consumer<String> news;

    /**
     * Nothing is removed for what is null or 0.
     *
     * @param keep how long recordings are kept
     * @param keepFree bytes
     */
    Retention(RecordingFolder folder, Duration keep, long keepFree, Consumer<String> news) {
        this.folder = folder;
        this.keep = keep;
        this.keepFree = keepFree;
        this.news = news;
    }

    /** Finishes what was begun when an earlier process ended. */
    void takeUp(CallLog log) throws IOException {
        for (CallRow row : log.removedLast(AT_ONCE)) {
            folder.remove(row.file());
        }
    }

    /** To be called every second or so. */
    void look(CallLog log, DiskRoom room) throws IOException {
        boolean noRoom = room.free() < keepFree;
        if (keep == null && !noRoom) {
            return;
        }
        Instant now = Instant.now();
        List<CallRow> oldest = log.oldestKept(AT_ONCE).stream().filter(row -> noRoom
                || row.end().isBefore(now.minus(keep))).toList();
        if (oldest.isEmpty()) {
            return;
        }
        oldest.forEach(row -> log.put(row.removedAt(now)));
        if (log.commit()) {
            for (CallRow row : oldest) {
                folder.remove(row.file());
            }
            folder.force();
            news.accept("removed %d recordings that ended until %s".formatted(oldest.size(),
                    Utc.seconds(oldest.get(oldest.size() - 1).end())));
        }
    }
}
