package com.zivolt.hardware.dsp.recorder;

import com.zivolt.hardware.dsp.client.AudioBlock;
import com.zivolt.hardware.dsp.client.CardEvent;
import java.io.Closeable;
import java.io.IOException;
import java.nio.file.FileSystemException;
import java.time.Instant;
import java.util.ArrayList;
import java.util.EnumMap;
import java.util.HashMap;
import java.util.Iterator;
import java.util.List;
import java.util.Map;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.Consumer;

/**
 * Records: takes events from the queue, lets the keeper make calls of them, and writes files and
 * log on a thread of its own, the only one that touches them. The row of a call is in the log
 * before its file is made, and its file has its name before the row says how it ended; so whatever
 * ends the process, each can be found from the other. A file that cannot be written costs its own
 * call's audio only.
 */
final class Recorder implements Closeable {
    private static final int MOST_WAITING = 1_000;
    private static final long WAIT_MS = 100;
    private static final long FORCE_NANOS = 5_000_000_000L;
    private static final long LOOK_NANOS = 1_000_000_000L;
    private static final long TOLD_AGAIN_NANOS = 10_000_000_000L;

    private final RecordingFolder folder;
    private final DiskRoom room;
    private final CallLog log;
    private final Retention retention;
    private final Consumer<CallRow> callEnded;
    private final Consumer<String> news;
    private final EventQueue queue = new EventQueue();
    private final Progress progress = new Progress();
    private final CallKeeper keeper;
    private final Thread thread = new Thread(this::run, "recorder");
    private final Map<Outcome, AtomicLong> outcomes = new EnumMap<>(Outcome.class);
    private final AtomicLong failures = new AtomicLong();
    private final CallsSeen seen;
    private final List<CallRow> logged = new ArrayList<>();
    private final Map<String, Long> troubles = new HashMap<>();
    private volatile boolean ending;
    private boolean losing;
    private long forced;
    private long looked;

    /**
     * @param seen is shown how the lines stand
     * @param callEnded hears the row of each call that is over, on the recording thread
     */
    Recorder(RecordingFolder folder, DiskRoom room, CallLog log, Retention retention,
            CallsSeen seen, Consumer<CallRow> callEnded, Consumer<String> news) {
        this.folder = folder;
        this.room = room;
        this.log = log;
        this.retention = retention;
        this.seen = seen;
        this.callEnded = callEnded;
        this.news = news;
        this.keeper = new CallKeeper(log::nextId, news);
        for (Outcome outcome : Outcome.values()) {
            outcomes.put(outcome, new AtomicLong());
        }
    }

    /** @param failed is run when the recording ends by an error of the machine: no memory, say */
    void start(Runnable failed) {
        thread.setUncaughtExceptionHandler((dead, error) -> {
            news.accept("THE RECORDING ENDS: " + error);
            failed.run();
        });
        thread.start();
    }

    /** To be called for each event, from any thread; waits a second at most. */
    void handle(CardEvent event) {
        queue.put(event);
    }

    /** Ends all calls, writes what waits, and closes the log; waits for that. */
    @Override
    public void close() {
        ending = true;
        boolean interrupted = false;
        while (thread.isAlive()) {
            try {
                thread.join();
            } catch (InterruptedException hurried) {
                interrupted = true;  // an interrupt would close the files, so it waits
            }
        }
        if (interrupted) {
            Thread.currentThread().interrupt();
        }
    }

    // What others may ask at any time.

    CallsSeen seen() {
        return seen;
    }

    int queueLength() {
        return queue.length();
    }

    long dropped() {
        return queue.dropped();
    }

    /** Calls that have been logged with this outcome since the start. */
    long count(Outcome outcome) {
        return outcomes.get(outcome).get();
    }

    /** Things that could not be written; the log and a full disk are one each time. */
    long failures() {
        return failures.get() + log.failures() + room.timesFull();
    }

    boolean isAlive() {
        return thread.isAlive();
    }

    Progress progress() {
        return progress;
    }

    boolean isLogFailing() {
        return log.isFailing();
    }

    DiskRoom room() {
        return room;
    }

    Retention retention() {
        return retention;
    }

    private void run() {
        forced = System.nanoTime();
        looked = forced;
        guarded(room::look);
        guarded(() -> retention.takeUp(log));
        while (!ending) {
            guarded(this::turn);
        }
        guarded(this::turn);
        guarded(() -> {
            keeper.end();
            write(true);
        });
        guarded(log::close);
    }

    private interface Step {
        void run() throws IOException, InterruptedException;
    }

    /** Nothing that goes wrong ends the recording of what comes next; told once as long as it stays. */
    private void guarded(Step step) {
        try {
            step.run();
        } catch (IOException | InterruptedException | RuntimeException failure) {
            progress.troubled(reason(failure));
            long now = System.nanoTime();
            troubles.values().removeIf(last -> now - last > TOLD_AGAIN_NANOS);
            if (troubles.put(reason(failure), now) == null) {
                fail("go on as usual", failure);
            }
        }
    }

    private void turn() throws IOException, InterruptedException {
        List<CardEvent> events = queue.take(ending ? 0 : WAIT_MS);
        long now = System.nanoTime();
        tellLost();
        for (CardEvent event : events) {
            guarded(() -> keeper.handle(event));
        }
        if (events.isEmpty()) {
            keeper.timePasses(Instant.now());
        }
        keeper.look();
        boolean force = now - forced > FORCE_NANOS;
        write(force);
        if (force) {
            forced = now;
        }
        if (now - looked > LOOK_NANOS) {
            looked = now;
            guarded(room::look);
            guarded(log::look);
            guarded(() -> retention.look(log, room));
        }
        seen.update(keeper);
        progress.turned();
    }

    private void tellLost() {
        boolean lost = false;
        for (int card = 0; card < 2; ++card) {
            long bytes = queue.takeLostBytes(card);
            lost |= bytes > 0;
            keeper.lose(card, bytes);
        }
        if (lost) {
            progress.lostAudio();
        }
        if (lost && !losing) {
            failures.incrementAndGet();
            news.accept("CANNOT write as fast as the cards deliver: audio is dropped");
        } else if (losing && !lost) {
            news.accept("audio is taken in time again");
        }
        losing = lost;
    }

    private void write(boolean force) throws IOException {
        for (Call call : keeper.calls()) {
            if (call.file() == null && !call.audio().isEmpty()) {
                call.useFile(folder.freeName(call.line(), call.start()));
            }
            boolean over = call.outcome().isOver();
            if (call.isChanged() && !(over && call.file() == null)
                    || force && !over && call.spool() != null) {
                log.put(call.rowSoFar());
            }
        }
        boolean inLog = log.commit();
        for (Call call : keeper.calls()) {
            writeAudio(call);
            if (call.spool() != null && call.checksum() == null) {
                boolean over = call.outcome().isOver();
                if (over && !attempt(call, "close", call.spool()::finish)
                        || !over && force && !attempt(call, "force", call.spool()::force)) {
                    call.mayBeLost(room.isFull());
                }
                if (over) {
                    call.closedWith(call.spool().checksum());
                }
            }
        }
        if (inLog) {
            finishCalls();
        }
    }

    private void writeAudio(Call call) {
        if (call.audio().isEmpty()) {
            return;
        }
        boolean noRoom = room.isFull();
        if (!noRoom) {
            Iterator<AudioBlock> blocks = call.audio().iterator();
            noRoom = !attempt(call, "write", () -> {
                if (call.spool() == null) {
                    call.useSpool(folder.create(call.file()));
                }
                while (blocks.hasNext()) {
                    call.spool().write(blocks.next().toByteArray());
                    blocks.remove();
                }
            }) && room.isFull();
        }
        if (!call.audio().isEmpty()) {
            call.loseWaiting(noRoom);
        }
    }

    /** Those that are over get their names, their last rows, and are gone from here. */
    private void finishCalls() throws IOException {
        List<Call> over = keeper.calls().stream().filter(call -> call.outcome().isOver()).toList();
        for (Call call : over) {
            call.named(call.spool() != null
                    && attempt(call, "name", () -> folder.closed(call.file())));
            CallRow row = call.lastRow();
            keeper.calls().remove(call);
            log.put(row);
            if (logged.size() < MOST_WAITING) {
                logged.add(row);
            }
            outcomes.get(row.outcome()).incrementAndGet();
            seen.over(row);
            if (row.outcome() != Outcome.MISSED) {
                news.accept("line %d: call ended, %s".formatted(row.line(), row.file() == null
                        ? "no recording" : "%d bytes in %s".formatted(row.bytes(), row.file())));
            }
        }
        folder.force();
        if (log.commit()) {
            logged.forEach(callEnded);
            logged.clear();
        }
    }

    private interface FileStep {
        void run() throws IOException;
    }

    /** A full disk is told once for all calls, other failures once a call. */
    private boolean attempt(Call call, String what, FileStep step) {
        try {
            step.run();
            return true;
        } catch (IOException | RuntimeException failure) {
            progress.lostAudio();
            if (!isForLackOfRoom(failure) && call.failsFirst()) {
                fail(what + " " + call.file(), failure);
            }
            return false;
        }
    }

    private boolean isForLackOfRoom(Exception failure) {
        try {
            return failure instanceof IOException writing && room.wasFull(writing);
        } catch (IOException unknown) {
            return false;  // the folder itself is gone; the failure says so
        }
    }

    private void fail(String what, Exception failure) {
        failures.incrementAndGet();
        news.accept("CANNOT %s: %s".formatted(what, reason(failure)));
    }

    /** The message of a file system exception is often the file's name alone. */
    static String reason(Exception failure) {
        return Printable.escaped(failure instanceof FileSystemException
                || failure instanceof RuntimeException ? failure.toString()
                : String.valueOf(failure.getMessage()));
    }
}
