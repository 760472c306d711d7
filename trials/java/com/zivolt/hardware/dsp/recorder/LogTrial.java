package com.zivolt.hardware.dsp.recorder;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.sql.Connection;
import java.sql.SQLException;
import java.time.Duration;
import java.time.Instant;
import java.util.Arrays;
import java.util.concurrent.Callable;
import picocli.CommandLine;
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;

/** Fills a call log with a year of busy lines, and measures how fast calls are logged and found. */
@Command(name = "LogTrial", mixinStandardHelpOptions = true, description = {
    "Fills the log of a folder with rows over a year, unless it has them already, and measures",
    "searches and single rows, with the disk's own time for a forced write beside them."},
        exitCodeListHeading = "%nExit status:%n", exitCodeList = {"0:measured", "2:wrong usage"})
public final class LogTrial implements Callable<Integer> {
    private static final Instant YEAR = Instant.parse("2025-01-01T00:00:00Z");
    private static final int AT_ONCE = 10_000;
    private static final int SEARCHES = 50;
    private static final int SINGLE_ROWS = 2000;

    @Option(names = "--folder", required = true, description = "Where the log is, or is made.")
    private Path folder;

    @Option(names = "--rows", description = "How many rows; ${DEFAULT-VALUE}.")
    private long rows = 12_000_000;

    /** Runs the trial and ends the process with its exit status. */
    public static void main(String[] args) {
        System.exit(new CommandLine(new LogTrial()).execute(args));
    }

    @Override
    public Integer call() throws IOException, SQLException {
        try (RecordingFolder recordings = RecordingFolder.open(folder)) {
            DiskRoom room = new DiskRoom(recordings, 0, System.out::println);
            CallLog log = new CallLog(recordings, room, System.out::println);
            long id = log.nextId();
            for (; id <= rows; id = log.nextId()) {
                log.put(row(id));
                if (id % AT_ONCE == 0) {
                    log.commit();
                }
            }
            log.commit();
            long[] starts = new long[SEARCHES];
            for (int i = 0; i < SEARCHES; ++i) {
                long start = System.nanoTime();
                new TakeUp(recordings, log, System.out::println).run();
                starts[i] = System.nanoTime() - start;
            }
            long[] searches = new long[SEARCHES];
            try (Connection reader = CallTable.openForReading(folder.resolve(CallTable.FILE))) {
                for (int i = 0; i < SEARCHES; ++i) {
                    searches[i] = search(reader, i);
                }
            }
            long[] single = new long[SINGLE_ROWS];
            for (int i = 0; i < SINGLE_ROWS; ++i, id = log.nextId()) {
                long start = System.nanoTime();
                log.put(row(id));
                log.commit();
                single[i] = System.nanoTime() - start;
            }
            log.close();
            tell("taking up at the start", starts);
            tell("a caller's calls of a day", searches);
            tell("one row, forced to the disk", single);
            tell("4 KiB, forced to the disk", forcedWrites(recordings));
        }
        return 0;
    }

    private long search(Connection reader, int number) throws IOException, SQLException {
        Instant day = YEAR.plus(Duration.ofDays(7L * number));
        long[] found = {0};
        long start = System.nanoTime();
        new CallFilter().caller(caller(number * 7919L)).from(day)
                .before(day.plus(Duration.ofDays(1))).all(reader, row -> ++found[0]);
        return System.nanoTime() - start;
    }

    private CallRow row(long id) {
        Instant start = YEAR.plusMillis(id * Duration.ofDays(365).toMillis() / rows);
        int line = (int) (id % 12);
        return new CallRow(id, line, line / 4 > 0 ? 1 : 0, Direction.IN, caller(id * 7919), "" + id,
                start, start.plusSeconds(30), Duration.ofSeconds(30), Outcome.COMPLETE, 0,
                Duration.ZERO, 40_000, 0, "%s/line%02d-%s.raw".formatted(Utc.day(start), line,
                Utc.stamp(start)), "358fa4620297ce68294b529246d9dc0261495fa2a33c7663b06e%012x"
                .formatted(id), null);
    }

    /** Of ten thousand callers. */
    private static String caller(long number) {
        return "0191498%04d".formatted(number % 10_000);
    }

    private static long[] forcedWrites(RecordingFolder folder) throws IOException {
        long[] times = new long[SINGLE_ROWS / 4];
        try (FileChannel file = FileChannel.open(folder.path().resolve("forced"),
                StandardOpenOption.CREATE, StandardOpenOption.WRITE,
                StandardOpenOption.DELETE_ON_CLOSE)) {
            for (int i = 0; i < times.length; ++i) {
                long start = System.nanoTime();
                file.write(ByteBuffer.allocate(4096));
                file.force(false);
                times[i] = System.nanoTime() - start;
            }
        }
        return times;
    }

    private static void tell(String what, long[] nanos) {
        Arrays.sort(nanos);
        System.out.printf("%-28s median %.2f ms, 99th of 100 %.2f ms, longest %.2f ms%n", what,
                nanos[nanos.length / 2] / 1e6, nanos[nanos.length * 99 / 100] / 1e6,
                nanos[nanos.length - 1] / 1e6);
    }
}
