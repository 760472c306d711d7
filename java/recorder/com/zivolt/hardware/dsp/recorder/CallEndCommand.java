package com.zivolt.hardware.dsp.recorder;

import java.io.Closeable;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.RejectedExecutionException;
import java.util.concurrent.ThreadPoolExecutor;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.Consumer;
import java.util.stream.Stream;

/**
 * Runs the operator's command for each call that is over, with what is known of the call in its
 * environment: two at a time, a minute each at most, and never so many waiting that the recorder
 * could run out of anything. A command has none of the capabilities that the recorder may have been
 * given to drive the cards: what decodes a caller's audio must not reach the machine's memory. May be
 * called from any thread.
 */
final class CallEndCommand implements Closeable {
    private static final int AT_ONCE = 2;
    private static final int MOST_WAITING = 1000;
    private static final long LIMIT_S = 60;
    private static final long LAST_ONES_S = 20;

    private static final Path OWN_STATUS = Path.of("/proc/self/status");
    private static final Path SETPRIV = Path.of("/usr/bin/setpriv");

    private final List<String> command;
    private final Path folder;
    private final Consumer<String> news;
    private final AtomicLong failures = new AtomicLong();
    private final ThreadPoolExecutor pool = new ThreadPoolExecutor(AT_ONCE, AT_ONCE, 1,
            TimeUnit.MINUTES, new ArrayBlockingQueue<>(MOST_WAITING), job -> {
                Thread thread = new Thread(job, "on-call-end");
                thread.setDaemon(true);
                return thread;
            });

    CallEndCommand(String command, Path folder, Consumer<String> news) {
        this.folder = folder;
        this.news = news;
        this.command = new ArrayList<>(List.of("/bin/sh", "-c", command));
        if (hasCapabilitiesToGive()) {
            if (Files.isExecutable(SETPRIV)) {
                this.command.addAll(0, List.of(SETPRIV.toString(), "--ambient-caps=-all",
                        "--inh-caps=-all", "--"));
            } else {
                news.accept("WARNING: without %s the commands have the recorder's capabilities"
                        .formatted(SETPRIV));
            }
        }
    }

    /** Those that a program started from here gets, whoever runs it; root has its own. */
    private static boolean hasCapabilitiesToGive() {
        try (Stream<String> facts = Files.lines(OWN_STATUS)) {
            return facts.anyMatch(fact -> fact.matches("CapAmb:\\s*0*[1-9a-f].*"));
        } catch (IOException | UncheckedIOException unknown) {
            return false;
        }
    }

    long failures() {
        return failures.get();
    }

    int waiting() {
        return pool.getQueue().size();
    }

    void callEnded(CallRow row) {
        try {
            pool.execute(() -> run(row));
        } catch (RejectedExecutionException tooMany) {
            fail(row, "too many commands wait");
        }
    }

    /** Waits a while for those that still run or wait. */
    @Override
    public void close() {
        pool.shutdown();
        try {
            if (!pool.awaitTermination(LAST_ONES_S, TimeUnit.SECONDS)) {
                news.accept("COMMAND: %d calls had none, the recorder ends"
                        .formatted(pool.shutdownNow().size() + pool.getActiveCount()));
            }
        } catch (InterruptedException hurried) {
            pool.shutdownNow();
            Thread.currentThread().interrupt();
        }
    }

    private void run(CallRow row) {
        Process process = null;
        try {
            process = start(row);
            if (!process.waitFor(LIMIT_S, TimeUnit.SECONDS)) {
                fail(row, "took longer than %d s and was ended".formatted(LIMIT_S));
            } else if (process.exitValue() != 0) {
                fail(row, "ended with status " + process.exitValue());
            }
        } catch (IOException | InterruptedException failure) {
            fail(row, Recorder.reason(failure));
        } finally {
            if (process != null) {
                process.descendants().forEach(ProcessHandle::destroyForcibly);
                process.destroyForcibly();
            }
        }
    }

    private Process start(CallRow row) throws IOException {
        ProcessBuilder builder = new ProcessBuilder(command)
                .directory(folder.toFile()).redirectErrorStream(true)
                .redirectOutput(ProcessBuilder.Redirect.DISCARD)
                .redirectInput(Path.of("/dev/null").toFile());
        CallWriter.each(row, (name, value) -> builder.environment().put(
                "CALL_" + name.toUpperCase(Locale.ROOT),
                value == null ? "" : Printable.escaped(value.toString())));
        if (row.file() != null) {
            builder.environment().put("CALL_FILE", folder.resolve(row.file()).toString());
        }
        return builder.start();
    }

    private void fail(CallRow row, String why) {
        failures.incrementAndGet();
        news.accept("COMMAND for the call of line %d at %s: %s".formatted(row.line(),
                Utc.seconds(row.start()), why));
    }
}
