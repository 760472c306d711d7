package com.zivolt.hardware.dsp.recorder;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.BasicFileAttributes;
import java.util.Set;
import java.util.function.Consumer;

/**
 * How much room the disk has. Warns below the reserve. When the disk is full, audio is not written
 * until there is room again, and the log lives on what a file of nothing has kept for it. Used by
 * one thread.
 */
final class DiskRoom {
    /** Enough for the rows of a day of busy lines. */
    static final int LOG_ROOM = 4 << 20;

    private static final String LOG_ROOM_FILE = "room-for-the-log";
    private static final int GIVEN_AT_ONCE = 1 << 18;
    private static final int PIECE = 1 << 16;
    private static final String TRIED_FILE = "room-for-a-file";

    private final RecordingFolder folder;
    private final long reserve;
    private final Consumer<String> news;
    private volatile long free;
    private volatile boolean full;
    private volatile boolean low;
    private volatile long timesFull;

    DiskRoom(RecordingFolder folder, long reserve, Consumer<String> news) {
        this.folder = folder;
        this.reserve = reserve;
        this.news = news;
    }

    /** Bytes, as of the last {@link #look}. */
    long free() {
        return free;
    }

    boolean isFull() {
        return full;
    }

    /** Whether there is less room than the reserve. */
    boolean isLow() {
        return low;
    }

    /** How often it became full. */
    long timesFull() {
        return timesFull;
    }

    /** To be called every second or so. */
    void look() throws IOException {
        free = measure();
        if (full && free > 2L * LOG_ROOM && takesAFile()) {
            full = false;
            news.accept("the disk has room again, %s: audio is recorded again"
                    .formatted(size(free)));
        }
        if (low != free < reserve && (free < reserve || free > reserve + reserve / 20)) {
            low = !low;
            news.accept(low ? "WARNING: the disk has only %s left".formatted(size(free))
                    : "the disk has %s again".formatted(size(free)));
        }
        if (!full && free > 2L * LOG_ROOM) {
            keepRoomForLog();
        }
    }

    /** Whether the failure means that there is no room; then it is told and remembered. */
    boolean wasFull(IOException failure) throws IOException {
        String reason = String.valueOf(failure.getMessage());
        boolean noRoom = reason.contains("No space left") || reason.contains("quota exceeded")
                || isUsedUp();
        if (noRoom) {
            wasFull();
        }
        return noRoom;
    }

    boolean isUsedUp() throws IOException {
        return measure() < PIECE;
    }

    void wasFull() {
        if (!full) {
            full = true;
            timesFull = timesFull + 1;  // this thread alone writes it
            news.accept("THE DISK IS FULL: calls are logged, their audio is not recorded");
        }
    }

    /**
     * Frees a part of what was kept for the log, no more, for others take what is free as well; false
     * when nothing is left of it.
     */
    boolean giveToLog() throws IOException {
        Path file = folder.path().resolve(LOG_ROOM_FILE);
        long left = sizeOf(file);
        if (left <= 0) {
            return false;
        }
        try (FileChannel channel = FileChannel.open(file, Set.of(StandardOpenOption.WRITE,
                LinkOption.NOFOLLOW_LINKS))) {
            channel.truncate(Math.max(0, left - GIVEN_AT_ONCE));
        }
        return true;
    }

    private long measure() throws IOException {
        long usable = folder.path().toFile().getUsableSpace();  // needs no list of mounts
        if (usable == 0 && !Files.isDirectory(folder.path())) {
            throw new NoSuchFileException(folder.path().toString());
        }
        return usable;
    }

    /** A quota, or a file system that takes no more files, does not show in what is free. */
    private boolean takesAFile() throws IOException {
        try {
            try (FileChannel channel = FileChannel.open(folder.ownFile(TRIED_FILE),
                    Set.of(StandardOpenOption.WRITE, LinkOption.NOFOLLOW_LINKS))) {
                fill(channel, 2 * LOG_ROOM);
                channel.force(false);
            }
            return true;
        } catch (IOException stillFull) {
            return false;
        } finally {
            Files.deleteIfExists(folder.path().resolve(TRIED_FILE));
        }
    }

    private static void fill(FileChannel channel, int bytes) throws IOException {
        for (int written = 0; written < bytes; written += PIECE) {
            channel.write(ByteBuffer.allocate(PIECE));
        }
    }

    private void keepRoomForLog() throws IOException {
        Path file = folder.path().resolve(LOG_ROOM_FILE);
        if (sizeOf(file) == LOG_ROOM) {
            return;
        }
        folder.ownFile(LOG_ROOM_FILE);
        try (FileChannel channel = FileChannel.open(file, Set.of(StandardOpenOption.WRITE,
                StandardOpenOption.TRUNCATE_EXISTING, LinkOption.NOFOLLOW_LINKS))) {
            fill(channel, LOG_ROOM);
        }
    }

    private static long sizeOf(Path file) throws IOException {
        try {
            return Files.readAttributes(file, BasicFileAttributes.class,
                    LinkOption.NOFOLLOW_LINKS).size();
        } catch (NoSuchFileException missing) {
            return -1;
        }
    }

    static String size(long bytes) {
        return bytes < 10L << 20 ? bytes / 1024 + " KiB" : bytes < 10L << 30
                ? (bytes >> 20) + " MiB" : (bytes >> 30) + " GiB";
    }
}
