package com.zivolt.hardware.dsp.recorder;

import java.io.IOException;
import java.time.Duration;
import java.time.Instant;
import java.time.InstantSource;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.TreeSet;
import java.util.function.Consumer;

/**
 * Removes the oldest recordings: those that are older than they are kept, and as many as it takes
 * to have so much of the disk free, but for the last day's. The row of each stays and says so, and
 * says so before the file is gone. Used by one thread, but for {@link #warnings}.
 */
final class Retention {
    private static final int AT_ONCE = 50;
    private static final int MOST_STUCK = 1000;
    private static final Duration NEVER_FOR_ROOM = Duration.ofDays(1);
    private static final Duration CLOCK_JUMP = Duration.ofMinutes(1);
    private static final long HOUR_NANOS = 3_600_000_000_000L;

    private final RecordingFolder folder;
    private final Duration keep;
    private final long keepFree;
    private final InstantSource clock;
    private final Consumer<String> news;
    private final Set<Long> stuck = new TreeSet<>();
    private long stuckSince;
    private Instant lookedAt;
    private long looked;
    private boolean doubting;
    private long doubted;
    private long removedForRoom;
    private volatile String removals;
    private volatile String shortage;
    private volatile String failing;

    /**
     * Nothing is removed for what is null or 0.
     *
     * @param keep how long recordings are kept
     * @param keepFree bytes
     */
    Retention(RecordingFolder folder, Duration keep, long keepFree, InstantSource clock,
            Consumer<String> news) {
        this.folder = folder;
        this.keep = keep;
        this.keepFree = keepFree;
        this.clock = clock;
        this.news = news;
    }

    /** What somebody should know, also of removals since the start. For any thread. */
    List<String> warnings() {
        List<String> warnings = new ArrayList<>();
        for (String warning : new String[] {removals, shortage, failing}) {
            if (warning != null) {
                warnings.add(warning);
            }
        }
        return warnings;
    }

    /** Finishes what was begun when an earlier process ended. */
    void takeUp(CallLog log) throws IOException {
        if (!log.isFailing()) {
            remove(log.removedLast(AT_ONCE), log);
        }
    }

    /** To be called every second or so. */
    void look(CallLog log, DiskRoom room) throws IOException {
        Instant now = clock.instant();
        long missing = keepFree - room.free();
        boolean byAge = keep != null && !log.isFailing() && isClockRight(log, now);
        if (missing <= 0) {
            shortage = null;
        }
        if (!stuck.isEmpty() && System.nanoTime() - stuckSince > HOUR_NANOS) {
            stuck.clear();
            failing = null;
        }
        if (missing <= 0 && !byAge || stuck.size() > MOST_STUCK || log.isFailing()) {
            return;
        }
        List<CallRow> going = new ArrayList<>();
        long forRoom = 0;
        for (CallRow row : log.oldestKept(AT_ONCE + stuck.size())) {
            boolean old = byAge && row.end().isBefore(now.minus(keep));
            boolean makesRoom = missing > 0 && row.end().isBefore(now.minus(NEVER_FOR_ROOM));
            if (!stuck.contains(row.id()) && (old || makesRoom)) {
                going.add(row);
                missing -= row.bytes();
                forRoom += old ? 0 : 1;
            }
        }
        if (!going.isEmpty()) {
            remove(log, now, going);
            tellForRoom(forRoom, now);
        } else if (missing > 0) {
            tellShortage();
        }
    }

    private void remove(CallLog log, Instant now, List<CallRow> going) throws IOException {
        going.forEach(row -> log.put(row.removedAt(now)));
        if (!log.commit()) {
            going.forEach(log::put);  // they are there until the log says otherwise
            return;
        }
        int removed = remove(going, log);
        folder.force();
        if (removed > 0) {
            news.accept("removed %d recordings that ended until %s".formatted(removed,
                    Utc.seconds(going.get(going.size() - 1).end())));
        }
    }

    /** The rows of those that cannot go say again that they are there; they are left for an hour. */
    private int remove(List<CallRow> going, CallLog log) {
        int removed = 0;
        String trouble = null;
        for (CallRow row : going) {
            try {
                folder.remove(row.file());
                ++removed;
            } catch (IOException | RuntimeException failure) {
                trouble = Recorder.reason(failure);
                stuckSince = stuck.isEmpty() ? System.nanoTime() : stuckSince;
                stuck.add(row.id());
                log.put(row.removedAt(null));
            }
        }
        if (trouble != null) {
            log.commit();
            failing = "%d recordings cannot be removed, one of them: %s".formatted(stuck.size(),
                    trouble);
            news.accept("WARNING: %s; tried again in an hour".formatted(failing));
        }
        return removed;
    }

    private void tellForRoom(long forRoom, Instant now) {
        removedForRoom += forRoom;
        if (forRoom > 0) {
            removals = "for want of room %d recordings were removed, the last at %s".formatted(
                    removedForRoom, Utc.seconds(now));
        }
    }

    private void tellShortage() {
        if (shortage == null) {
            shortage = "%s cannot be kept free: only recordings of the last day are left"
                    .formatted(DiskRoom.size(keepFree));
            news.accept("WARNING: " + shortage);
        }
    }

    /**
     * Not when the latest recording is older than any is kept, and not for an hour after that or
     * after the clock was set; else a wrong date would cost all recordings.
     */
    private boolean isClockRight(CallLog log, Instant now) throws IOException {
        long nanos = System.nanoTime();
        Duration set = lookedAt == null ? Duration.ZERO
                : Duration.between(lookedAt, now).minusNanos(nanos - looked).abs();
        lookedAt = now;
        looked = nanos;
        if (set.compareTo(CLOCK_JUMP) > 0 || log.newestKept().stream()
                .anyMatch(row -> row.end().isBefore(now.minus(keep)))) {
            if (!doubting) {
                news.accept("the clock may be wrong: nothing is removed by its age for an hour");
            }
            doubting = true;
            doubted = nanos;
        } else if (nanos - doubted > HOUR_NANOS) {
            doubting = false;
        }
        return !doubting;
    }
}
