package com.zivolt.hardware.dsp.recorder;

import static java.nio.charset.StandardCharsets.ISO_8859_1;
import static org.junit.jupiter.api.Assertions.*;

import com.zivolt.hardware.dsp.client.*;
import com.zivolt.hardware.dsp.client.CardEvent.*;
import java.io.IOException;
import java.io.StringWriter;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.*;
import java.nio.file.attribute.PosixFilePermissions;
import java.sql.*;
import java.time.*;
import java.util.*;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.locks.ReentrantLock;
import java.util.stream.*;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** What the recorder keeps of calls: files and rows, whatever happens to folder and log. */
class RecorderTest {
    private static final Instant START = Instant.parse("2026-03-01T23:59:58Z");

    @TempDir
    Path temporary;
    private final Queue<String> told = new ConcurrentLinkedQueue<>();
    private final Queue<CallRow> ended = new ConcurrentLinkedQueue<>();
    private final ReentrantLock disk = new ReentrantLock();
    private Path path;
    private RecordingFolder folder;
    private DiskRoom room;
    private CallLog log;
    private Retention retention;
    private Recorder recorder;
    private Instant now = START;
    private int second;

    @AfterEach
    void end() throws IOException {
        if (disk.isHeldByCurrentThread()) {
            disk.unlock();
        }
        close();
    }

    @Test
    void eachCallHasItsFileAndItsRowAndTroubleWithOneCostsNoOther() throws Exception {
        begin("calls");
        play(new CallStarted(at(), 1), new CallerIdentified(at(), 2, "\033[2J\"Al\",\\"), audio(),
                new CallStarted(at(), 2), audio(), new CallEnded(at(), 1), audio(), audio());
        awaitThat(() -> ended.size() == 1);
        Files.move(path.resolve("20260301Z"), temporary.resolve("gone"));
        Files.createSymbolicLink(path.resolve("20260301Z"), temporary.resolve("gone"));
        Files.createSymbolicLink(path.resolve("20260302Z"), temporary.resolve("gone"));
        play(new CallStarted(at(), 3), audio(), new CallEnded(at(), 3), audio());
        awaitThat(() -> told.toString().contains("20260302Z is no folder"));
        Files.delete(path.resolve("20260302Z"));
        play(new CallStarted(at(), 0), audio(), new CallEnded(at(), 0), audio());
        awaitThat(() -> Files.isDirectory(path.resolve("20260302Z")));
        Files.delete(path.resolve("20260301Z"));
        Files.move(temporary.resolve("gone"), path.resolve("20260301Z"));
        close();

        assertEquals(List.of("1 complete 1200 0", "2 process-end 4200 0", "3 not-written 0 600",
                "0 complete 600 0"), rows(new CallFilter()).stream().map(row -> "%d %s %d %d"
                .formatted(row.line(), row.outcome().code(), row.bytes(), row.unwritten())).toList());
        CallRow first = rows(new CallFilter().line(1)).get(0);
        assertArrayEquals((block(1, 1) + block(1, 2)).getBytes(ISO_8859_1),
                Files.readAllBytes(path.resolve(first.file())));
        assertEquals("20260301Z/line01-20260301T235958.000Z.raw", first.file());
        assertEquals("rw-r-----", rightsOf(first.file()));
        assertEquals("rwxr-x---", rightsOf("20260302Z"));
        assertEquals("rw-r-----", rightsOf("calls.db"));
        assertEquals(List.of(), problems(true));

        assertEquals("\\x1b[2J\"Al\",\\\\", column(CallWriter.Table::new));
        assertEquals("\"\\x1b[2J\"\"Al\"\",\\\\\"", column(CallWriter.Csv::new));
        assertEquals("\\u001B[2J\\\"Al\\\",\\\\", column(out -> new CallWriter.Json(out, true)));
        assertTrue(told.stream().noneMatch(line -> line.chars().anyMatch(Character::isISOControl)));

        Files.writeString(path.resolve(first.file()), "x", StandardOpenOption.WRITE);
        assertEquals(1, problems(true).size());
        Files.writeString(path.resolve(first.file()), "x", StandardOpenOption.APPEND);
        Files.delete(path.resolve(rows(new CallFilter().line(0)).get(0).file()));
        Files.createFile(path.resolve("20260301Z/line05-20260301T235958.000Z.raw"));
        assertEquals(3, problems(false).size());
    }

    @Test
    void whatAKilledRecorderLeftIsTakenUp() throws Exception {
        begin("killed");
        play(new CallStarted(at(), 1), new CallStarted(at(), 2), new DigitsHeard(at(), 2, "42"),
                new CallerIdentified(at(), 3, "A"), audio(), new CallEnded(at(), 1), audio(), audio(),
                audio());
        awaitThat(() -> ended.size() == 1 && recorder.seen().lines().get(2).bytes() == 2400);
        Path image = temporary.resolve("image");
        copy(path, image);  // as it lies on the disk when the power fails
        String open = rows(new CallFilter().line(2)).get(0).file();
        Files.move(image.resolve(open + ".part"), image.resolve(open));  // named, but no row yet
        Files.writeString(image.resolve("20260301Z/line00-20260301T235959.500Z.raw.part"), "seven..");
        Files.createFile(image.resolve("20260301Z/line00-20261332T000000.000Z.raw.part"));
        close();
        path = image;
        begin("image");
        close();
        assertEquals(List.of("0 process-end 7 -", "1 complete 600 -", "2 process-end 2400 42",
                "3 missed 0 -"), rows(new CallFilter()).stream().map(row -> "%d %s %d %s".formatted(
                row.line(), row.outcome().code(), row.bytes(), row.digits().isEmpty() ? "-"
                : row.digits())).sorted().toList());
        assertEquals(List.of(), problems(true));
        assertTrue(told.toString().contains("3 calls were cut off or missed"), told.toString());
    }

    @Test
    void aLogThatIsNoneIsMovedAsideAndItsRowsAreMadeOfTheFiles() throws Exception {
        begin("log");
        play(new CallStarted(at(), 1), audio(), new CallEnded(at(), 1), audio());
        close();
        for (String damage : List.of("garbage", "version", "application", "table")) {
            Path db = path.resolve("calls.db");
            if (damage.equals("garbage")) {
                Files.writeString(db, "no database. ".repeat(1000));
            } else {
                try (Connection writer = CallTable.openForWriting(db);
                        Statement statement = writer.createStatement()) {
                    statement.execute(Map.of("version", "PRAGMA user_version = 77", "application",
                            "PRAGMA application_id = 7", "table", "DROP VIEW calls").get(damage));
                }
                assertThrows(SQLException.class, () -> CallTable.requireReadable(
                        CallTable.openForReading(db)), damage);
            }
            told.clear();
            begin("log");
            play(new CallStarted(at(), 2), audio(), new CallEnded(at(), 2), audio());
            close();
            assertTrue(told.stream().anyMatch(line -> line.startsWith("CANNOT use calls.db")
                    && line.contains("dspcard-calls recover")), damage + told);
            assertEquals(1, rows(new CallFilter()).size(), damage);
        }
        Files.delete(path.resolve("calls.db"));
        Files.createSymbolicLink(path.resolve("calls.db"), temporary.resolve("elsewhere"));
        begin("log");
        play(new CallStarted(at(), 3), audio(), audio());
        awaitThat(() -> told.toString().contains("CANNOT open the call log"));
        assertFalse(Files.exists(temporary.resolve("elsewhere")), "a link was followed");
        Files.delete(path.resolve("calls.db"));
        awaitThat(() -> told.contains("the call log is written again"));
        Files.delete(path.resolve("calls.db"));
        awaitThat(() -> told.toString().contains("calls.db IS GONE"));
        play(new CallEnded(at(), 3), audio());
        awaitThat(() -> ended.size() == 5);
        assertEquals(2, recorder.failures());
        close();
        assertEquals(1200, rows(new CallFilter().line(3)).get(0).bytes());
        folder = RecordingFolder.open(path);
        assertTrue(assertThrows(IOException.class, () -> RecordingFolder.open(path))
                .getMessage().contains("process " + ProcessHandle.current().pid()));
    }

    @Test
    void aLogWithAnyPageDamagedCostsNoCall() throws Exception {
        begin("sound");
        play(new CallStarted(at(), 1), audio(), new CallEnded(at(), 1), audio(),
                new CallStarted(at(), 2), new CallerIdentified(at(), 2, "A"), audio());
        awaitThat(() -> ended.size() == 1 && rows(new CallFilter()).size() == 2);
        long pages;
        try (Connection other = CallTable.openForWriting(path.resolve("calls.db"))) {
            CallTable.number(other, "PRAGMA wal_checkpoint(TRUNCATE)");
            pages = CallTable.number(other, "PRAGMA page_count");
        }
        Path sound = path;
        Path image = temporary.resolve("image");
        copy(sound, image);
        close();
        // Whatever was written since then would heal the page that it is of.
        Files.deleteIfExists(image.resolve("calls.db-wal"));
        Files.deleteIfExists(image.resolve("calls.db-shm"));
        assertTrue(pages > 5, "each index has one");
        for (int page = 0; page < pages; ++page) {
            path = temporary.resolve("page " + page);
            copy(image, path);
            ByteBuffer zeros = ByteBuffer.allocate(4096);
            try (FileChannel db = FileChannel.open(path.resolve("calls.db"),
                    StandardOpenOption.WRITE)) {
                db.write(zeros, page * 4096L);
            }
            begin("page " + page);
            play(new CallStarted(at(), 3), audio(), new CallEnded(at(), 3), audio());
            close();
            assertEquals(List.of(Outcome.COMPLETE), rows(new CallFilter().line(3)).stream()
                    .map(CallRow::outcome).toList(), page + ": " + told);
            assertTrue(told.removeIf(line -> line.startsWith("CANNOT use calls.db")), "" + page);
            assertEquals(List.of(), told.stream().filter(line -> line.startsWith("CANNOT")).toList());
        }
    }

    @Test
    void whileTheLogCannotBeWrittenItsRowsWaitAndNoFileHasANameWithoutOne() throws Exception {
        begin("locked");
        try (Connection other = CallTable.openForWriting(path.resolve("calls.db"));
                Statement statement = other.createStatement()) {
            statement.execute("BEGIN IMMEDIATE");
            play(new CallStarted(at(), 1), audio(), new CallEnded(at(), 1), audio());
            Path part = path.resolve("20260301Z/line01-20260301T235958.000Z.raw.part");
            awaitThat(() -> told.toString().contains("CANNOT write the call log")
                    && Files.exists(part) && Files.size(part) == 600);
            Thread.sleep(1500);
            assertTrue(Files.exists(part) && ended.isEmpty() && rows(new CallFilter()).isEmpty());
            statement.execute("ROLLBACK");
            awaitThat(() -> ended.size() == 1);
        }
        assertEquals(1, recorder.failures());
        close();
        assertTrue(told.contains("the call log is written again"));
        assertEquals(Outcome.COMPLETE, rows(new CallFilter()).get(0).outcome());
        assertEquals(List.of(), problems(true));
    }

    @Test
    void othersLearnThatTheRecordingStandsStillOrLosesAudio() throws Exception {
        begin("still");
        disk.lock();
        play(new CallStarted(at(), 1), audio(), new CallEnded(at(), 1), audio());
        awaitThat(() -> trouble(8).equals("[the recording has stood still for 10 s]"));
        disk.unlock();
        awaitThat(() -> trouble(8).equals("[]"));
        Files.move(path, temporary.resolve("gone"));
        play(new CallStarted(at(), 1), audio(), new CallEnded(at(), 1), audio());
        awaitThat(() -> trouble(0).matches(".*not be written.*, .*not go on.*still.*"));
        assertTrue(trouble(50).contains("audio could not be written in the last minute"));
        Files.move(temporary.resolve("gone"), path);
    }

    @Test
    void theOldestRecordingsAreRemovedFirstAndTheirRowsSaySo() throws Exception {
        begin("kept");
        for (int call = 0; call < 5; ++call) {
            second += call == 4 ? 7200 : 0;
            play(new CallStarted(at(), call % 4), audio(), new CallEnded(at(), call % 4), audio());
        }
        close();
        open(null, 0);
        now = START.plus(Duration.ofHours(23));
        look(null, room.free() + 1);
        assertEquals(Collections.nCopies(5, false), removed());
        assertTrue(told.toString().contains("only recordings of the last day are left"));
        now = START.plus(Duration.ofDays(2));
        look(null, room.free() + 1);
        assertEquals(List.of(true, false, false, false, false), removed());
        assertTrue(retention.warnings().get(0).startsWith("for want of room 1 recordings"));
        look(Duration.ofHours(1), 0);
        assertEquals(List.of(true, false, false, false, false), removed(), "by a wrong clock");
        Path second = path.resolve(rows(new CallFilter()).get(1).file());
        Files.delete(second);
        Files.createDirectories(second.resolve("not to be removed"));
        look(Duration.ofDays(2).minusSeconds(6), 0);
        assertEquals(List.of(true, false, true, false, false), removed());
        assertTrue(retention.warnings().get(0).startsWith("1 recordings cannot be removed"));
        now = now.plus(Duration.ofHours(1));
        retention.look(log, room);
        assertEquals(List.of(true, false, true, false, false), removed(), "the clock was set");
        Files.delete(second.resolve("not to be removed"));
        Path made = path.resolve(rows(new CallFilter()).get(3).file() + ".wav");
        Files.createFile(made);
        look(null, Long.MAX_VALUE);
        close();
        assertEquals(Collections.nCopies(5, true), removed());
        assertFalse(Files.exists(made));
        assertFalse(Files.exists(path.resolve("20260301Z")));
        assertEquals(List.of(), problems(true));
    }

    @Test
    void callsAreFoundByWhatIsKnownOfThem() throws Exception {
        begin("found");
        String[] callers = {"0191 498", "0192 498", "*[?", "0191 499"};
        for (int line = 0; line < 4; ++line) {
            play(new CallerIdentified(at(), line, callers[line]), new CallStarted(at(), line),
                    new DigitsHeard(at(), line, "12" + line), audio(), new CallEnded(at(), line),
                    audio());
        }
        close();
        Map<CallFilter, String> asked = new LinkedHashMap<>();
        asked.put(new CallFilter(), "0123");
        asked.put(new CallFilter().caller("0191*"), "03");
        asked.put(new CallFilter().caller("*[?"), "2");
        asked.put(new CallFilter().caller("[*"), "");
        asked.put(new CallFilter().digits("12*").line(3), "3");
        asked.put(new CallFilter().mentions("498"), "01");
        asked.put(new CallFilter().from(START.plusSeconds(2)).before(START.plusSeconds(6)), "12");
        asked.put(new CallFilter().outcomes(List.of(Outcome.COMPLETE, Outcome.CARD)).line(1), "1");
        asked.put(new CallFilter().outcomes(List.of(Outcome.MISSED)), "");
        for (Map.Entry<CallFilter, String> question : asked.entrySet()) {
            assertEquals(question.getValue(), rows(question.getKey()).stream()
                    .map(row -> "" + row.line()).collect(Collectors.joining()));
        }
        List<Integer> lines = new ArrayList<>();
        try (Connection reader = CallTable.openForReading(path.resolve("calls.db"));
                Connection writer = CallTable.openForWriting(path.resolve("calls.db"))) {
            new CallFilter().from(START).all(reader, 2, row -> {
                lines.add(row.line());
                CallTable.number(writer, "UPDATE call SET missed = missed RETURNING missed");
                assertEquals(0, CallTable.number(writer, "PRAGMA wal_checkpoint(RESTART)"),
                        "a taker that pauses holds up the journal");
            });
        }
        assertEquals(List.of(0, 1, 2, 3), lines);
    }

    @Test
    void twoThousandCallsAMinuteAreKept() throws Exception {
        begin("many");
        for (int call = 0; call < 500; ++call) {  // for a quarter of one is waited
            play(new CallStarted(at(), call % 4), audio(), new CallEnded(at(), call % 4));
        }
        play(audio());
        awaitThat(() -> recorder.count(Outcome.COMPLETE) == 500);
        assertEquals(0, recorder.failures() + recorder.dropped());
        close();
        assertTrue(rows(new CallFilter()).stream().allMatch(row -> row.bytes() == 600));
        assertEquals(List.of(), problems(true));
    }

    @Test
    void audioThatCannotBeTakenIsDroppedAndToldAndNothingElseIs() throws Exception {
        EventQueue queue = new EventQueue();
        for (int i = 0; i < EventQueue.MOST_AUDIO + 3; ++i) {
            queue.put(audio());
            queue.put(new CallStarted(START, 1));
        }
        assertEquals(3 * 600, queue.takeLostBytes(0));
        assertEquals(2 * EventQueue.MOST_AUDIO + 3, queue.take(0).size());
        queue.put(audio());
        assertEquals(0, queue.takeLostBytes(0));
        assertEquals(1, queue.take(1000).size());
    }

    private void begin(String name) throws IOException {
        path = temporary.resolve(name);
        open(null, 0);
        new TakeUp(folder, log, told::add).run();
        recorder = new Recorder(folder, room, log, retention, new CallsSeen(), row -> {
            disk.lock();  // hangs while the test has it
            disk.unlock();
            ended.add(row);
        }, told::add);
        recorder.start(() -> told.add("failed"));
        recorder.handle(new CardStateChanged(START, 0, CardState.STARTING, CardState.RUNNING, ""));
    }

    private void open(Duration keep, long keepFree) throws IOException {
        folder = RecordingFolder.open(path);
        room = new DiskRoom(folder, 0, told::add);
        room.look();
        log = new CallLog(folder, room, told::add);
        retention = new Retention(folder, keep, keepFree, () -> now, told::add);
    }

    private void look(Duration keep, long keepFree) throws IOException {
        retention = new Retention(folder, keep, keepFree, () -> now, told::add);
        retention.look(log, room);
    }

    private void close() throws IOException {
        if (recorder != null) {
            recorder.close();
        } else if (log != null) {
            log.close();
        }
        if (folder != null) {
            folder.close();
        }
        recorder = null;
        log = null;
    }

    private void play(CardEvent... events) {
        Stream.of(events).forEach(recorder::handle);
    }

    /** Times are those of the transfer that follows. */
    private Instant at() {
        return START.plusSeconds(second);
    }

    private AudioRecorded audio() {
        ++second;
        return new AudioRecorded(START.plusSeconds(second - 1), 0, IntStream.range(0, 4).mapToObj(
                line -> AudioBlock.of(block(line, second).getBytes(ISO_8859_1))).toList());
    }

    private static String block(int line, int transfer) {
        return "line %d %3d.".formatted(line, transfer).repeat(60).substring(0, 600);
    }

    private List<CallRow> rows(CallFilter filter) throws Exception {
        List<CallRow> rows = new ArrayList<>();
        try (Connection reader = CallTable.openForReading(path.resolve("calls.db"))) {
            filter.all(reader, rows::add);
        }
        return rows;
    }

    private List<Boolean> removed() throws Exception {
        return rows(new CallFilter()).stream().map(row -> row.removed() != null).toList();
    }

    private List<String> problems(boolean checksums) throws Exception {
        List<String> problems = new ArrayList<>();
        try (Connection reader = CallTable.openForReading(path.resolve("calls.db"))) {
            new FolderCheck(path, reader, checksums, problems::add).run();
        }
        return problems;
    }

    /** What is wrong when nothing happens for so long. */
    private String trouble(long later_s) {
        return recorder.progress().problems(System.nanoTime() + later_s * 1_000_000_000L).toString();
    }

    private interface WriterMaker {
        CallWriter make(java.io.Writer out) throws IOException;
    }

    /** What is written of the caller of line 2. */
    private String column(WriterMaker maker) throws Exception {
        StringWriter text = new StringWriter();
        try (CallWriter writer = maker.make(text)) {
            writer.write(rows(new CallFilter().line(2)).get(0));
        }
        String known = text.toString();
        assertEquals(0, known.replace("\n", "").chars().filter(Character::isISOControl).count());
        return Stream.of("\\x1b[2J\"Al\",\\\\", "\"\\x1b[2J\"\"Al\"\",\\\\\"",
                "\\u001B[2J\\\"Al\\\",\\\\").filter(known::contains).findFirst().orElse(known);
    }

    private String rightsOf(String name) throws IOException {
        return PosixFilePermissions.toString(Files.getPosixFilePermissions(path.resolve(name)));
    }

    private static void copy(Path from, Path to) throws IOException {
        try (Stream<Path> files = Files.walk(from)) {
            for (Path file : files.toList()) {
                Files.copy(file, to.resolve(from.relativize(file).toString()));
            }
        }
    }

    private interface Condition {
        boolean holds() throws Exception;
    }

    private void awaitThat(Condition condition) throws Exception {
        for (int tenth = 0; tenth < 150; ++tenth) {
            if (condition.holds()) {
                return;
            }
            Thread.sleep(100);
        }
        fail("never so; told: " + told);
    }
}
