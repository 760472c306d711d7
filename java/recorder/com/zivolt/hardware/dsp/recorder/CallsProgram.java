package com.zivolt.hardware.dsp.recorder;

import java.io.BufferedWriter;
import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.OutputStreamWriter;
import java.io.UncheckedIOException;
import java.io.Writer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.sql.Connection;
import java.sql.SQLException;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Locale;
import java.util.Set;
import java.util.TreeSet;
import java.util.concurrent.Callable;
import picocli.CommandLine;
import picocli.CommandLine.Command;
import picocli.CommandLine.Model.OptionSpec;
import picocli.CommandLine.Option;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.ScopeType;

/** Reads what was recorded: finds calls, checks the recordings, makes lost rows again. */
@Command(name = "dspcard-calls", sortOptions = false, usageHelpWidth = 100,
        versionProvider = ProgramVersion.class,
        description = {
            "Lists the calls that dspcard-record has logged in a folder, the earliest first; also",
            "while it records. Times are UTC."},
        exitCodeListHeading = "%nExit status:%n",
        exitCodeList = {"0:done", "1:something is wrong, or could not be read", "2:wrong usage"})
public final class CallsProgram implements Callable<Integer> {
    private static final Duration FOLLOW_EVERY = Duration.ofSeconds(1);
    /** So fails what is written to a pipe whose reader has had enough, "head" for instance. */
    private static final String NOBODY_READS = "Broken pipe";

    enum Format { TABLE, CSV, JSON }

    private final CommandLine line = new CommandLine(this);

    @Option(names = "--folder", paramLabel = "DIR", defaultValue = ".", scope = ScopeType.INHERIT,
            description = "Where the recordings are; the working directory if not given.")
    private Path folder;

    @Option(names = "--from", paramLabel = "TIME",
            description = "Only calls from this day or time on, as 2026-11-23 or"
                    + " 2026-11-23T14:30:00Z.")
    private String from;

    @Option(names = "--to", paramLabel = "TIME", description = "Only calls before this day or time.")
    private String before;

    @Option(names = "--line", paramLabel = "LINE", description = "Only calls of this line.")
    private Integer lineNumber;

    @Option(names = "--caller", paramLabel = "TEXT",
            description = "Only calls of this caller; * stands for anything.")
    private String caller;

    @Option(names = "--digits", paramLabel = "TEXT",
            description = "Only calls with these digits; * stands for anything.")
    private String digits;

    @Option(names = "--outcome", paramLabel = "OUTCOME", split = ",",
            description = "Only calls that ended so: complete, process-end, card, disk-full,"
                    + " not-written, missed, recovered; or go on: open, ringing.")
    private List<String> outcomes = List.of();

    @Option(names = "--limit", paramLabel = "N", defaultValue = "100",
            description = "Only the latest N of them; 100 if not given, 0 for all.")
    private int limit;

    @Option(names = "--format", paramLabel = "FORMAT", defaultValue = "table",
            description = "table (the default), csv or json.")
    private String format;

    @Option(names = "--follow", description = "Go on with each call when it has ended; with json one"
            + " object a line.")
    private boolean follow;

    @Option(names = "--help", usageHelp = true, scope = ScopeType.INHERIT,
            description = "Show this text.")
    private boolean help;

    @Option(names = "--version", versionHelp = true, description = "Show the version.")
    private boolean version;

    private CallsProgram() {
    }

    /**
     * Runs the program and ends the process with its exit status.
     *
     * @param args see {@code --help}
     */
    public static void main(String[] args) {
        Locale.setDefault(Locale.ROOT);
        System.exit(new CallsProgram().line
                .setCaseInsensitiveEnumValuesAllowed(true)
                .setExecutionExceptionHandler(CallsProgram::explain)
                .execute(args));
    }

    @Override
    public Integer call() throws IOException, SQLException, InterruptedException {
        Format wanted = checked(this::wantedFormat);
        checked(this::filter);
        if (limit < 0) {
            throw new ParameterException(line, "--limit takes 0 or more, not " + limit);
        }
        open().close();  // so that no heading stands above a refusal
        // Not System.out, which says nothing when a pipe or disk takes no more.
        Writer out = new BufferedWriter(new OutputStreamWriter(
                new FileOutputStream(FileDescriptor.out), StandardCharsets.UTF_8));
        try {
            CallWriter writer = writer(wanted, out);
            list(writer, out);
            writer.close();
        } catch (UncheckedIOException failure) {
            requireReader(failure.getCause());
        } catch (IOException failure) {
            requireReader(failure);
        }
        return 0;
    }

    private static void requireReader(IOException failure) throws IOException {
        if (!NOBODY_READS.equals(failure.getMessage())) {
            throw failure;
        }
    }

    private Format wantedFormat() {
        return Arrays.stream(Format.values()).filter(one -> one.name().equalsIgnoreCase(format))
                .findFirst().orElseThrow(() -> new IllegalArgumentException(
                        "--format takes table, csv or json, not '" + format + "'"));
    }

    /** What narrows down a list means nothing to the other commands. */
    private void requireNoListOption() {
        line.getParseResult().matchedOptions().stream().map(OptionSpec::longestName)
                .filter(name -> !name.equals("--folder")).findFirst().ifPresent(name -> {
                    throw new ParameterException(line, name + " is for the list of calls only");
                });
    }

    @Command(name = "check", description = "Compares each row of the log with its file - that it is"
            + " there, its length, its checksum - and each file with its row.")
    int check(@Option(names = "--quick", description = "Without the checksums.") boolean quick)
            throws IOException, SQLException {
        requireNoListOption();
        try (Connection log = open()) {
            FolderCheck check = new FolderCheck(folder, log, !quick, System.out::println);
            check.run();
            System.out.printf("%d recordings in the log, %d things wrong%n", check.recordings(),
                    check.wrong());
            return check.wrong() == 0 ? 0 : 1;
        }
    }

    @Command(name = "recover", description = "Makes a row for each recording that has none, as after"
            + " a damaged log was moved aside, which it does itself. As the folder's owner, and not"
            + " while a recorder runs.")
    int recover() throws IOException, SQLException {
        requireNoListOption();
        requireFolder();
        requireOwner();
        if (!RecordingFolder.isFile(folder.resolve(CallTable.FILE))
                && RecordingFolder.days(folder).isEmpty()) {
            throw new IOException("no calls were recorded here: " + folder
                    + " has neither a log nor recordings");
        }
        try (RecordingFolder recordings = RecordingFolder.open(folder)) {
            DiskRoom room = new DiskRoom(recordings, 0, System.out::println);
            CallLog log = new CallLog(recordings, room, System.out::println);
            log.readAll();
            new TakeUp(recordings, log, System.out::println).runForAllDays();
            int made = 0;
            boolean done = true;
            for (Path day : RecordingFolder.days(recordings.path())) {
                for (String name : RecordingFolder.recordings(day)) {
                    try {
                        made += recover(log, name) ? 1 : 0;
                    } catch (IOException unreadable) {
                        System.out.printf("CANNOT make a row of %s: %s%n", name,
                                Recorder.reason(unreadable));
                        done = false;
                    }
                }
                log.commit();
            }
            done &= log.commit();
            log.close();
            System.out.printf("%d rows made%n", made);
            return done ? 0 : 1;
        }
    }

    private boolean recover(CallLog log, String name) throws IOException {
        RecordingFolder.NameFacts facts = RecordingFolder.factsOf(name);
        if (name.endsWith(RecordingFolder.PART) || log.startedAt(facts.line(), facts.start())
                .stream().anyMatch(row -> name.equals(row.file()))) {
            return false;
        }
        Path file = folder.resolve(name);
        log.put(CallRow.ofFile(log.nextId(), facts, Files.getLastModifiedTime(file).toInstant(),
                Outcome.RECOVERED).finished(Outcome.RECOVERED, name, Files.size(file),
                SpoolFile.checksum(file)));
        return true;
    }

    private void list(CallWriter writer, Writer out)
            throws IOException, SQLException, InterruptedException {
        long last;
        Set<Long> goingOn = new TreeSet<>();
        try (Connection log = open()) {
            last = CallTable.number(log, "SELECT max(id) FROM call");
            CallFilter.goingOn(log, row -> goingOn.add(row.id()));
            CallFilter filter = follow ? filter().over() : filter();
            if (limit > 0) {
                int[] found = {0};
                filter.search(log, limit, row -> {
                    writer.write(row);
                    ++found[0];
                });
                if (found[0] == limit) {
                    System.err.printf("dspcard-calls: the latest %d; --limit 0 lists all%n", limit);
                }
            } else {
                filter.all(log, writer::write);
            }
        }
        while (follow) {
            out.flush();
            Thread.sleep(FOLLOW_EVERY.toMillis());
            last = listNew(writer, last, goingOn);
        }
    }

    /** The log may have been moved aside meanwhile, so it is opened anew. */
    private long listNew(CallWriter writer, long last, Set<Long> goingOn)
            throws IOException, SQLException {
        try (Connection log = open()) {
            List<CallRow> changed = new ArrayList<>();
            new CallFilter().ids(goingOn).byNumber(log, changed::add);
            new CallFilter().idAbove(last).byNumber(log, changed::add);
            List<Long> ended = new ArrayList<>();
            long highest = last;
            for (CallRow row : changed) {
                highest = Math.max(highest, row.id());
                goingOn.add(row.id());
                if (row.outcome().isOver()) {
                    ended.add(row.id());
                }
            }
            goingOn.removeAll(ended);
            filter().ids(ended).byNumber(log, writer::write);
            return highest;
        }
    }

    private CallFilter filter() {
        CallFilter filter = new CallFilter();
        if (from != null) {
            filter.from(Utc.parse(from));
        }
        if (before != null) {
            filter.before(Utc.parse(before));
        }
        if (lineNumber != null) {
            filter.line(lineNumber);
        }
        if (caller != null) {
            filter.caller(caller);
        }
        if (digits != null) {
            filter.digits(digits);
        }
        return outcomes.isEmpty() ? filter
                : filter.outcomes(outcomes.stream().map(Outcome::ofCode).toList());
    }

    private CallWriter writer(Format wanted, Writer out) throws IOException {
        if (wanted == Format.JSON) {
            return new CallWriter.Json(out, follow);
        }
        if (wanted == Format.TABLE) {
            return new CallWriter.Table(out);
        }
        CallWriter.Csv csv = new CallWriter.Csv(out);
        csv.heading();
        return csv;
    }

    private <T> T checked(Callable<T> value) {
        try {
            return value.call();
        } catch (Exception wrong) {
            throw new ParameterException(line, wrong.getMessage(), wrong);
        }
    }

    private Connection open() throws IOException, SQLException {
        requireFolder();
        Path file = folder.resolve(CallTable.FILE);
        if (!RecordingFolder.isFile(file)) {
            throw new IOException("no calls were recorded here: there is no " + file);
        }
        Connection log = CallTable.openForReading(file);
        try {
            CallTable.requireReadable(log);
            return log;
        } catch (SQLException unreadable) {
            log.close();
            throw unreadable;
        }
    }

    private void requireFolder() throws IOException {
        if (!Files.isDirectory(folder)) {
            throw new IOException("there is no folder " + folder);
        }
    }

    /** The recorder could not write what is made here by another. */
    private void requireOwner() throws IOException {
        int own = (Integer) Files.getAttribute(Path.of("/proc/self"), "unix:uid");
        if (own == 0 && (Integer) Files.getAttribute(folder, "unix:uid") != own) {
            String owner = Files.getOwner(folder).getName();
            throw new IOException("%s belongs to %s: sudo -u %s dspcard-calls recover --folder %s"
                    .formatted(folder, owner, owner, folder));
        }
    }

    private static int explain(Exception failure, CommandLine command,
            CommandLine.ParseResult arguments) throws Exception {
        if (failure instanceof IOException || failure instanceof SQLException) {
            System.err.println("dspcard-calls: " + (failure instanceof SQLException
                    ? "calls.db cannot be read: " : "") + Recorder.reason(failure));
            return 1;
        }
        throw failure;
    }
}
