package com.zivolt.hardware.dsp.recorder;

import com.zivolt.hardware.dsp.client.CardClient;
import com.zivolt.hardware.dsp.client.CardEvent;
import com.zivolt.hardware.dsp.client.CardState;
import com.zivolt.hardware.dsp.client.Registration;
import java.io.Closeable;
import java.io.IOException;
import java.nio.file.Files;
import java.time.InstantSource;
import java.util.ArrayDeque;
import java.util.Deque;
import java.util.List;
import java.util.Locale;
import java.util.concurrent.Callable;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import picocli.CommandLine;
import picocli.CommandLine.Command;
import picocli.CommandLine.Mixin;

/**
 * Records every call of every line to a file of its own, with a call log. The main thread starts
 * everything, looks after the cards, and ends everything in the other order.
 */
@Command(name = "dspcard-record", sortOptions = false, usageHelpWidth = 100,
        versionProvider = ProgramVersion.class,
        description = {
            "Records every call of every line to a file of its own, in the card's own encoding,",
            "and keeps a call log, calls.db, in the same folder; dspcard-calls reads it. Watches the",
            "cards and tells what is wrong with them. Ends after the time given or when interrupted;",
            "calls that still run are then closed and marked."},
        exitCodeListHeading = "%nExit status:%n",
        exitCodeList = {
            "0:recorded; also after Ctrl-C and SIGTERM",
            "1:a card that must be there did not deliver at the end, or something could not be written",
            "2:wrong usage, or nothing may be written in the folder",
            "3:card 0 or an expected card did not deliver for as long as --exit-when-silent says"})
public final class LineRecorder implements Callable<Integer> {
    private static final int SILENT = 3;
    private static final long LOOK_MS = 100;
    private static final long CARDS_FOUND_WITHIN_NANOS = 5_000_000_000L;
    private static final long END_WITHIN_S = 40;

    @Mixin
    private final RecorderOptions options = new RecorderOptions();

    private final CountDownLatch finished = new CountDownLatch(1);
    private final Deque<Closeable> started = new ArrayDeque<>();
    private volatile boolean stopping;
    private volatile boolean fatal;
    private CardClient client;
    private Console console;
    private Recorder recorder;
    private CardNews cardNews;
    private boolean monitoring;

    private LineRecorder() {
    }

    /**
     * Runs the recorder and ends the process with its exit status.
     *
     * @param args see {@code --help}
     */
    public static void main(String[] args) {
        Locale.setDefault(Locale.ROOT);
        LineRecorder recorder = new LineRecorder();
        System.exit(recorder.options.commandLine(recorder, args)
                .setExecutionExceptionHandler(LineRecorder::explain)
                .execute(args));
    }

    @Override
    public Integer call() throws IOException, InterruptedException {
        options.check();
        byte[] playback = options.played() == null ? new byte[0]
                : Files.readAllBytes(options.played());
        client = loadDriver();
        Runtime.getRuntime().addShutdownHook(new Thread(this::stopAndWait, "end"));
        int status = 1;
        try {
            startRecording();
            startCards(playback);
            status = watch();
            status = endRecording(status);
        } finally {
            endRest();
            finished.countDown();
        }
        return status;
    }

    private static CardClient loadDriver() throws IOException {
        try {
            return new CardClient();
        } catch (UnsatisfiedLinkError missing) {
            throw new IOException(missing.getMessage(), missing);
        }
    }

    /** Everything that must be there before the first call comes. */
    private void startRecording() throws IOException {
        RecordingFolder folder = RecordingFolder.open(options.folder());
        started.push(folder);
        CallsSeen seen = new CallsSeen();
        console = new Console(System.out,
                options.onTerminal() ? new TerminalTable(client::cards, seen) : null);
        started.push(console);
        console.news("recording into " + folder.path());
        DiskRoom room = new DiskRoom(folder, options.reserve(), console::news);
        CallLog log = new CallLog(folder, room, console::news);
        new TakeUp(folder, log, console::news).run();
        Retention retention = new Retention(folder, options.keep(), options.keepFree(),
                InstantSource.system(), console::news);
        CallEndCommand command = options.onCallEnd() == null ? null
                : new CallEndCommand(options.onCallEnd(), folder.path(), console::news);
        recorder = new Recorder(folder, room, log, retention, seen,
                command == null ? row -> { } : command::callEnded, console::news);
        recorder.start(() -> fatal = true);
        if (command != null) {
            started.push(command);
        }
        cardNews = new CardNews(options.expected(), console::news);
        if (options.status() != null) {
            Status status = new Status(client::cards, cardNews, recorder, console, command);
            StatusServer server = StatusServer.start(options.status(), status, folder.path());
            started.push(server);
            console.news("status at http://%s/".formatted(server.address()));
        }
    }

    private void startCards(byte[] playback) {
        Registration registration = client.listen(this::onEvent);
        started.push(registration::close);
        client.apply(options.settings());
        client.start();
        client.startRecording();
        if (playback.length > 0) {
            client.enablePlayback(true);
            client.play(playback);
        }
    }

    /** On the client's thread: hands on, and never waits for long. */
    private void onEvent(CardEvent event) {
        recorder.handle(event);
        if (event instanceof CardEvent.CardStateChanged changed) {
            cardNews.handle(changed);
            if (changed.card() == 0 && changed.state() == CardState.RUNNING && !monitoring
                    && options.monitored() != null) {
                monitoring = true;
                monitor();  // card 0 has taken the settings, which monitoring could hold back
            }
        } else if (event instanceof CardEvent.CardError error) {
            console.news("CARD ERROR %d: %s".formatted(error.code(),
                    Printable.escaped(error.message().strip())));
        } else if (event instanceof CardEvent.UnreadableFrame frame) {
            console.news("CARD ERROR: " + Printable.escaped(frame.reason()));
        }
    }

    private void monitor() {
        try {
            client.monitor(options.monitored());
        } catch (IllegalArgumentException noSuchLine) {
            console.news("CANNOT monitor: " + noSuchLine.getMessage());
        }
    }

    /** The exit status when it is time to end. */
    private int watch() throws InterruptedException {
        long start = System.nanoTime();
        long delivered = start;
        boolean found = false;
        while (!stopping && !fatal
                && (options.seconds() == null || secondsSince(start) < options.seconds())) {
            Thread.sleep(LOOK_MS);
            recorder.progress().tell(console::news);
            var cards = client.cards();
            if (!found && (!cards.isEmpty()
                    || System.nanoTime() - start > CARDS_FOUND_WITHIN_NANOS)) {
                found = true;
                cardNews.found(cards);
            }
            if (cardNews.notDelivering(cards).isEmpty()) {
                delivered = System.nanoTime();
            }
            if (options.silentSeconds() != null
                    && secondsSince(delivered) >= options.silentSeconds()) {
                console.news("%s: ending, so that a supervisor can start all anew".formatted(
                        cards.stream().noneMatch(card -> card.state() == CardState.RUNNING)
                                ? "NO CARD DELIVERS" : "CARD %d DOES NOT DELIVER".formatted(
                                        cardNews.notDelivering(cards).get(0))));
                return SILENT;
            }
        }
        if (fatal) {
            console.news("THE RECORDING HAS FAILED, see above");
        }
        return fatal ? 1 : 0;
    }

    /** Ends calls and log, and says what came of it. */
    private int endRecording(int status) throws IOException {
        started.pop().close();
        List<String> problems = cardNews.problems(client.cards());
        recorder.close();
        long calls = 0;
        for (Outcome outcome : Outcome.values()) {
            calls += outcome == Outcome.MISSED ? 0 : recorder.count(outcome);
        }
        console.news("%d calls recorded into %s".formatted(calls, options.folder()));
        problems.forEach(problem -> console.news("at the end " + problem));
        if (recorder.failures() > 0) {
            console.news("%d times something could not be written".formatted(recorder.failures()));
        }
        return status == 0 && !stopping && (!problems.isEmpty() || recorder.failures() > 0)
                ? 1 : status;
    }

    private void endRest() throws IOException {
        if (recorder != null) {
            recorder.close();
        }
        while (!started.isEmpty()) {
            started.pop().close();
        }
    }

    /**
     * On Ctrl-C or SIGTERM, which are the normal end: the process ends when all is closed and told,
     * with status 0.
     */
    private void stopAndWait() {
        if (finished.getCount() == 0) {
            return;
        }
        stopping = true;  // no interrupt: it would close the file that is being written
        try {
            if (finished.await(END_WITHIN_S, TimeUnit.SECONDS)) {
                Runtime.getRuntime().halt(0);
            }
            System.err.println("dspcard-record: recordings could not be closed in time");
        } catch (InterruptedException hurried) {
            Thread.currentThread().interrupt();
        }
    }

    private static int explain(Exception failure, CommandLine command,
            CommandLine.ParseResult arguments) throws Exception {
        if (failure instanceof IOException) {
            System.err.println((Journal.takes(2) ? Journal.level("CANNOT start") : "")
                    + "dspcard-record: " + Recorder.reason(failure));
            return failure instanceof RecordingFolder.ForbiddenException ? 2 : 1;
        }
        throw failure;
    }

    private static double secondsSince(long startNanos) {
        return (System.nanoTime() - startNanos) / 1e9;
    }
}
