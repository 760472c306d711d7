package com.zivolt.hardware.dsp.examples;

import com.zivolt.hardware.dsp.client.Beep;
import com.zivolt.hardware.dsp.client.CardClient;
import com.zivolt.hardware.dsp.client.LineSetting;
import com.zivolt.hardware.dsp.client.LineSettings;
import com.zivolt.hardware.dsp.client.Trigger;
import java.io.IOException;
import java.nio.file.FileSystemException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.time.LocalDateTime;
import java.time.format.DateTimeFormatter;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.Locale;
import java.util.Map;
import java.util.concurrent.Callable;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import picocli.CommandLine;
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.TypeConversionException;

/** Records every call of every line to a file of its own, with a call log. */
@Command(name = "LineRecorder", sortOptions = false,
        usageHelpWidth = 100,
        description = {
            "Records every call of every line to a file of its own, in the card's own encoding,",
            "and keeps a call log, calls.csv, in the same folder. Ends after the time given or",
            "when interrupted; calls that still run are then closed and logged."},
        exitCodeListHeading = "%nExit status:%n",
        exitCodeList = {
            "0:recorded",
            "1:nothing came from the cards, or a file could not be written",
            "2:wrong usage"})
public final class LineRecorder implements Callable<Integer> {
    private static final Duration POLL_WAIT = Duration.ofMillis(100);
    private static final Duration AUDIO_EXPECTED_WITHIN = Duration.ofSeconds(15);

    @Option(names = "--folder", paramLabel = "DIR",
            description = "Where recordings go; made when missing. recordings-TIME if not given.")
    private Path folder = Path.of("recordings-"
            + DateTimeFormatter.ofPattern("yyyyMMdd-HHmmss").format(LocalDateTime.now()));

    @Option(names = "--seconds", paramLabel = "N",
            description = "How long to record; until interrupted if not given.")
    private Long seconds;

    @Option(names = "--trigger", paramLabel = "TRIGGER", defaultValue = "off-hook",
            description = "What starts and ends a call: never, off-hook (the default), or vox-1 to"
                    + " vox-6, sound above a threshold, vox-6 being the highest.")
    private Trigger trigger;

    @Option(names = "--beep", paramLabel = "BEEP", defaultValue = "off",
            description = "Beep on the lines: off (the default), low, mid, high.")
    private Beep beep;

    @Option(names = "--delay", paramLabel = "SECONDS", defaultValue = "3",
            description = "Trigger delay in seconds, 0 to 65; 3 if not given.")
    private int delay;

    @Option(names = "--line", paramLabel = "LINE=TRIGGER[,BEEP[,SECONDS]]",
            description = "Other settings for one line, 0 to 15; may be repeated."
                    + " Example: --line 3=vox-2,low,5")
    private Map<Integer, String> lines = new LinkedHashMap<>();

    @Option(names = "--monitor", paramLabel = "LINE",
            description = "Play this line through card 0.")
    private Integer monitored;

    @Option(names = "--play", paramLabel = "FILE",
            description = "Play this file, in the card's own encoding, through card 0.")
    private Path played;

    @Option(names = "--plain",
            description = "Plain lines even on a terminal, instead of a table.")
    private boolean plain;

    @Option(names = "--help", usageHelp = true, description = "Show this text.")
    private boolean help;

    private final CommandLine command = new CommandLine(this);
    private final CountDownLatch finished = new CountDownLatch(1);
    private volatile boolean stopping;

    private LineRecorder() {
    }

    /**
     * Runs the recorder and ends the process with its exit status.
     *
     * @param args see {@code --help}
     */
    public static void main(String[] args) {
        System.exit(new LineRecorder().command
                .registerConverter(Trigger.class, text -> constant(Trigger.class, text))
                .registerConverter(Beep.class, text -> constant(Beep.class, text))
                .setExecutionExceptionHandler(LineRecorder::explain)
                .execute(args));
    }

    @Override
    public Integer call() throws IOException, InterruptedException {
        LineSettings settings = settings();
        requireRange("--seconds", seconds, 1, Integer.MAX_VALUE);
        requireRange("--monitor", monitored, 0, CardClient.LINES - 1);
        byte[] playback = played != null ? Files.readAllBytes(played) : new byte[0];
        CardClient client = loadDriver();
        RecorderView view = view();

        CallRecorder recorder = new CallRecorder(folder, view::news);
        Runtime.getRuntime().addShutdownHook(new Thread(this::stopAndWait));
        try {
            try (recorder) {
                view.news("recording into " + folder.toAbsolutePath().normalize());
                startCards(client, settings, playback);
                record(client, recorder, view);
            }
            return summary(recorder);
        } finally {
            finished.countDown();
        }
    }

    private static CardClient loadDriver() throws IOException {
        try {
            return new CardClient();
        } catch (UnsatisfiedLinkError missing) {
            throw new IOException(missing.getMessage(), missing);
        }
    }

    private void startCards(CardClient client, LineSettings settings, byte[] playback) {
        client.apply(settings);
        client.start();
        client.startRecording();
        if (playback.length > 0) {
            client.enablePlayback(true);
            client.play(playback);
        }
    }

    private void record(CardClient client, CallRecorder recorder, RecorderView view)
            throws InterruptedException {
        long start = System.nanoTime();
        boolean warned = false;
        boolean monitoring = monitored == null;
        while (!stopping && (seconds == null || elapsed(start).toSeconds() < seconds)) {
            handleNext(client, recorder);
            if (!monitoring && recorder.hasHeard(0)) {  // so card 0 has taken the settings
                monitoring = true;
                client.monitor(monitored);
            }
            view.refresh(recorder.lines());
            if (!warned && !recorder.audioHeard()
                    && elapsed(start).compareTo(AUDIO_EXPECTED_WITHIN) > 0) {
                warned = true;
                view.news("no audio from the cards yet; what they said stands above");
            }
        }
    }

    private static void handleNext(CardClient client, CallRecorder recorder)
            throws InterruptedException {
        client.poll(POLL_WAIT).ifPresent(recorder::handle);
    }

    private int summary(CallRecorder recorder) {
        RecorderView view = new RecorderView.Plain(System.out);
        view.news("%d calls recorded into %s".formatted(recorder.calls(),
                folder.toAbsolutePath().normalize()));
        if (recorder.cardErrors() > 0) {
            view.news("the cards reported %d errors; recordings may have gaps"
                    .formatted(recorder.cardErrors()));
        }
        if (recorder.failures() > 0) {
            view.news("%d times a file could not be written".formatted(recorder.failures()));
        }
        if (!recorder.audioHeard()) {
            view.news("no audio came from the cards");
        }
        return recorder.audioHeard() && recorder.failures() == 0 ? 0 : 1;
    }

    /** On Ctrl-C or SIGTERM the process ends only when files are closed and the end is told, or
     * after a while. */
    private void stopAndWait() {
        stopping = true;  // no interrupt: it would close the file that is being written
        try {
            if (!finished.await(5, TimeUnit.SECONDS)) {
                System.err.println("LineRecorder: recordings could not be closed in time");
            }
        } catch (InterruptedException hurried) {
            Thread.currentThread().interrupt();
        }
    }

    private RecorderView view() {
        return plain || System.console() == null
                ? new RecorderView.Plain(System.out) : new RecorderView.Screen(System.out);
    }

    private LineSettings settings() {
        LineSettings.Builder builder = LineSettings.builder();
        try {
            builder.allLines(new LineSetting(trigger, beep, delay));
            lines.forEach((line, text) -> builder.line(line, lineSetting(text)));
        } catch (IllegalArgumentException | TypeConversionException wrong) {
            throw new ParameterException(command, wrong.getMessage());
        }
        return builder.build();
    }

    private LineSetting lineSetting(String text) {
        String[] parts = text.split(",", -1);
        if (parts.length > 3) {
            throw new IllegalArgumentException(
                    "--line takes LINE=TRIGGER[,BEEP[,SECONDS]], not '" + text + "'");
        }
        return new LineSetting(constant(Trigger.class, parts[0]),
                parts.length > 1 ? constant(Beep.class, parts[1]) : beep,
                parts.length > 2 ? number(parts[2]) : delay);
    }

    private void requireRange(String option, Number value, long lowest, long highest) {
        if (value != null && (value.longValue() < lowest || value.longValue() > highest)) {
            throw new ParameterException(command, "%s takes %d to %d, not %d"
                    .formatted(option, lowest, highest, value.longValue()));
        }
    }

    private static int number(String text) {
        try {
            return Integer.parseInt(text);
        } catch (NumberFormatException wrong) {
            throw new IllegalArgumentException("'" + text + "' is no number of seconds");
        }
    }

    private static <E extends Enum<E>> E constant(Class<E> type, String text) {
        return Arrays.stream(type.getEnumConstants())
                .filter(constant -> optionText(constant).equalsIgnoreCase(text))
                .findFirst()
                .orElseThrow(() -> new TypeConversionException("'" + text + "' is none of "
                        + Arrays.stream(type.getEnumConstants()).map(LineRecorder::optionText)
                                .toList()));
    }

    private static String optionText(Enum<?> constant) {
        return constant.name().toLowerCase(Locale.ROOT).replace('_', '-');
    }

    private static int explain(Exception failure, CommandLine command,
            CommandLine.ParseResult arguments) throws Exception {
        if (failure instanceof IOException) {
            System.err.println("LineRecorder: " + reason(failure));
            return 1;
        }
        throw failure;
    }

    /** The message of a file system exception is often the file's name alone. */
    private static String reason(Exception failure) {
        return failure instanceof FileSystemException ? failure.toString() : failure.getMessage();
    }

    private static Duration elapsed(long startNanos) {
        return Duration.ofNanos(System.nanoTime() - startNanos);
    }
}
