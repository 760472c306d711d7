package com.zivolt.hardware.dsp.recorder;

import java.io.Closeable;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.time.Instant;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;

/**
 * What the recorder says. A thread of its own writes it, so that a terminal that was stopped or a
 * pipe that nobody reads holds up nothing; lines that find no room are dropped, counted and told.
 * Each write holds whole lines, for the driver's own lines go to the same console. May be called
 * from any thread.
 */
final class Console implements Closeable {
    private static final int MOST_WAITING = 1000;
    private static final long REPAINT_MS = 500;
    private static final long LAST_LINES_MS = 2000;

    private final PrintStream out;
    private final TerminalTable table;
    private final boolean toJournal = Journal.takes(1);
    private final BlockingQueue<String> lines = new ArrayBlockingQueue<>(MOST_WAITING);
    private final AtomicLong dropped = new AtomicLong();
    private final Thread thread = new Thread(this::run, "console");
    private volatile boolean ending;
    private long told;

    /** @param table what is shown above the lines; null for lines only */
    Console(PrintStream out, TerminalTable table) {
        this.out = out;
        this.table = table;
        thread.setDaemon(true);
        thread.start();
    }

    /** Says a line; never waits. */
    void news(String text) {
        String level = toJournal ? Journal.level(text) : "";
        if (!lines.offer(level + "recorder: " + Utc.seconds(Instant.now()) + " " + plain(text)
                + "\n")) {
            dropped.incrementAndGet();
        }
    }

    /** Lines that were dropped. */
    long dropped() {
        return dropped.get();
    }

    /** Says what waits, unless nobody takes it, and leaves a terminal as it was. */
    @Override
    public void close() {
        ending = true;
        try {
            thread.join(LAST_LINES_MS);
        } catch (InterruptedException hurried) {
            Thread.currentThread().interrupt();
        }
    }

    private void run() {
        try {
            while (!ending) {
                write(lines.poll(REPAINT_MS, TimeUnit.MILLISECONDS));
            }
            write(lines.poll());
        } catch (InterruptedException unexpected) {
            Thread.currentThread().interrupt();
        } finally {
            if (table != null) {
                print(table.end());
            }
        }
    }

    private void write(String first) {
        List<String> waiting = new ArrayList<>();
        if (first != null) {
            waiting.add(first);
            lines.drainTo(waiting);
        }
        long lost = dropped.get() - told;
        if (lost > 0) {
            told += lost;
            waiting.add("recorder: %d lines were dropped here, since the console took none%n"
                    .formatted(lost));
        }
        print(table == null ? String.join("", waiting) : table.paint(waiting));
    }

    private void print(String text) {
        byte[] bytes = text.getBytes(StandardCharsets.UTF_8);
        if (bytes.length > 0) {
            out.write(bytes, 0, bytes.length);
            out.flush();
        }
    }

    /** The parts from the lines are escaped already; this is for what nobody thought of. */
    private static String plain(String text) {
        return text.replaceAll("\\p{Cntrl}|[\\x80-\\x9f]", "?");
    }
}
