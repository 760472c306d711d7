package com.zivolt.hardware.dsp.recorder;

import com.zivolt.hardware.dsp.client.Beep;
import com.zivolt.hardware.dsp.client.CardClient;
import com.zivolt.hardware.dsp.client.LineSetting;
import com.zivolt.hardware.dsp.client.LineSettings;
import com.zivolt.hardware.dsp.client.Trigger;
import java.io.IOException;
import java.io.Reader;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.UnknownHostException;
import java.nio.charset.CharacterCodingException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.time.Instant;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Properties;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import picocli.CommandLine;
import picocli.CommandLine.IDefaultValueProvider;
import picocli.CommandLine.Model.ArgSpec;
import picocli.CommandLine.Option;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.PropertiesDefaultProvider;
import picocli.CommandLine.TypeConversionException;

/** The recorder's options, from the command line and, where that has none, a file. */
final class RecorderOptions {
    private static final Pattern SIZE = Pattern.compile("(\\d{1,9})([KMGT]?)");

    private CommandLine line;

    @Option(names = "--folder", paramLabel = "DIR",
            description = "Where recordings go; made when missing. recordings-TIME if not given.")
    private Path folder = Path.of("recordings-"
            + Utc.stamp(Instant.now()).replaceFirst("\\.\\d+", ""));

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

    @Option(names = "--line", paramLabel = "LINE=TRIGGER[,BEEP[,SECONDS]]", split = " ",
            splitSynopsisLabel = " ",
            description = "Other settings for one line, 0 to 15; may be repeated."
                    + " Example: --line 3=vox-2,low,5")
    private Map<Integer, String> lines = new LinkedHashMap<>();

    @Option(names = "--monitor", paramLabel = "LINE",
            description = "Play this line through card 0.")
    private Integer monitored;

    @Option(names = "--play", paramLabel = "FILE",
            description = "Play this file, in the card's own encoding, through card 0.")
    private Path played;

    @Option(names = "--expect", paramLabel = "LINES[,LINES]",
            description = "How many lines each card must have, 4, 8 or none: 4,8 for instance. What"
                    + " is found at the start if not given.")
    private String expected;

    @Option(names = "--exit-when-silent", paramLabel = "MINUTES",
            description = "End with status 3 when card 0, without which no line has calls, or a card of"
                    + " --expect has not delivered for so long.")
    private Double silentMinutes;

    @Option(names = "--reserve", paramLabel = "SIZE", defaultValue = "1G",
            description = "Warn when the disk has less room; bytes, or with K, M, G or T."
                    + " 1G if not given.")
    private String reserve;

    @Option(names = "--keep", paramLabel = "DAYS",
            description = "Remove recordings that are older.")
    private Integer keepDays;

    @Option(names = "--keep-free", paramLabel = "SIZE",
            description = "Remove the oldest recordings when the disk has less room, but"
                    + " none of the last 24 hours.")
    private String keepFree;

    @Option(names = "--on-call-end", paramLabel = "COMMAND",
            description = "Run this by the shell for each call that is over; CALL_FILE and more in its"
                    + " environment say which.")
    private String onCallEnd;

    @Option(names = "--status", paramLabel = "ADDRESS:PORT",
            description = "Show how it goes at this address: a page at /, /metrics for Prometheus,"
                    + " /health. 127.0.0.1:9273, say; off if not given.")
    private String status;

    @Option(names = "--plain",
            description = "Plain lines even on a terminal, instead of a table.")
    private boolean plain;

    @Option(names = "--config", paramLabel = "FILE",
            description = "Take options from this file: lines of NAME=VALUE, without the dashes."
                    + " Those given here count more.")
    private Path config;

    @Option(names = "--help", usageHelp = true, description = "Show this text.")
    private boolean help;

    @Option(names = "--version", versionHelp = true, description = "Show the version.")
    private boolean version;

    /** Of the program that has these options mixed in, and of the file that the arguments may name. */
    CommandLine commandLine(Object command, String[] args) {
        line = new CommandLine(command)
                .registerConverter(Trigger.class, text -> constant(Trigger.class, text))
                .registerConverter(Beep.class, text -> constant(Beep.class, text));
        for (int i = 0; i < args.length; ++i) {
            if (args[i].startsWith("--config=")) {
                line.setDefaultValueProvider(new ConfigFile(line, args[i].substring(9)));
            } else if (args[i].equals("--config") && i + 1 < args.length) {
                line.setDefaultValueProvider(new ConfigFile(line, args[i + 1]));
            }
        }
        return line;
    }

    /** Gives the values of a properties file; refuses names that are no options. */
    private static final class ConfigFile implements IDefaultValueProvider {
        private final CommandLine line;
        private final String file;
        private IDefaultValueProvider values;

        ConfigFile(CommandLine line, String file) {
            this.line = line;
            this.file = file;
        }

        @Override
        public String defaultValue(ArgSpec argument) throws Exception {
            if (values == null) {
                values = new PropertiesDefaultProvider(read());
            }
            return values.defaultValue(argument);
        }

        private Properties read() {
            Properties properties = new Properties();
            try (Reader reader = Files.newBufferedReader(Path.of(file))) {
                properties.load(reader);
            } catch (CharacterCodingException other) {
                throw new ParameterException(line, "--config: %s is not in UTF-8".formatted(file));
            } catch (IOException | IllegalArgumentException unreadable) {
                throw new ParameterException(line, "--config: " + Recorder.reason(unreadable));
            }
            for (String name : properties.stringPropertyNames()) {
                if (line.getCommandSpec().findOption("--" + name) == null) {
                    throw new ParameterException(line, "%s: there is no option %s"
                            .formatted(file, name));
                }
                properties.setProperty(name, properties.getProperty(name).strip());
            }
            return properties;
        }
    }

    /** What parsing alone does not notice. */
    void check() {
        requireRange("--seconds", seconds, 1, Integer.MAX_VALUE);
        requireRange("--monitor", monitored, 0, CardClient.LINES - 1);
        requireRange("--keep", keepDays, 1, 36_500);
        if (silentMinutes != null && !(silentMinutes > 0)) {
            throw wrong("--exit-when-silent takes a number of minutes, not " + silentMinutes);
        }
        settings();
        expected();
        reserve();
        keepFree();
        status();
    }

    Path folder() {
        return folder;
    }

    Long seconds() {
        return seconds;
    }

    Integer monitored() {
        return monitored;
    }

    Path played() {
        return played;
    }

    Double silentSeconds() {
        return silentMinutes == null ? null : silentMinutes * 60;
    }

    String onCallEnd() {
        return onCallEnd;
    }

    boolean onTerminal() {
        return !plain && System.console() != null;
    }

    LineSettings settings() {
        LineSettings.Builder builder = LineSettings.builder();
        try {
            builder.allLines(new LineSetting(trigger, beep, delay));
            lines.forEach((number, text) -> builder.line(number, lineSetting(text)));
        } catch (IllegalArgumentException | TypeConversionException wrong) {
            throw wrong(wrong.getMessage());
        }
        return builder.build();
    }

    /** Null: whatever is found. */
    List<Integer> expected() {
        if (expected == null) {
            return null;
        }
        List<String> each = List.of(expected.split(",", -1));
        if (each.size() > 2 || !List.of("4", "8", "none").containsAll(each)) {
            throw wrong("--expect takes 4, 8 or none for each of two cards, not " + expected);
        }
        return each.stream().map(text -> text.equals("none") ? 0 : Integer.parseInt(text))
                .toList();
    }

    long reserve() {
        return bytes("--reserve", reserve);
    }

    /** Null: for ever. */
    Duration keep() {
        return keepDays == null ? null : Duration.ofDays(keepDays);
    }

    /** 0: nothing is removed for lack of room. */
    long keepFree() {
        return keepFree == null ? 0 : bytes("--keep-free", keepFree);
    }

    /** Null: none. */
    InetSocketAddress status() {
        if (status == null) {
            return null;
        }
        int colon = status.lastIndexOf(':');
        try {
            if (colon > 0) {
                return new InetSocketAddress(InetAddress.getByName(status.substring(0, colon)),
                        Integer.parseInt(status.substring(colon + 1)));
            }
        } catch (UnknownHostException | IllegalArgumentException unknown) {
            // told below
        }
        throw wrong("--status takes ADDRESS:PORT, 127.0.0.1:9273 for instance, not " + status);
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

    private long bytes(String option, String text) {
        Matcher parts = SIZE.matcher(text.toUpperCase(Locale.ROOT));
        if (!parts.matches()) {
            throw wrong(option + " takes a size such as 500M or 20G, not " + text);
        }
        return Long.parseLong(parts.group(1)) << 10 * " KMGT".indexOf(
                parts.group(2).isEmpty() ? " " : parts.group(2));
    }

    private void requireRange(String option, Number value, long lowest, long highest) {
        if (value != null && (value.longValue() < lowest || value.longValue() > highest)) {
            throw wrong("%s takes %d to %d, not %d".formatted(option, lowest, highest,
                    value.longValue()));
        }
    }

    private ParameterException wrong(String message) {
        return new ParameterException(line, message);
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
                        + Arrays.stream(type.getEnumConstants()).map(RecorderOptions::optionText)
                                .toList()));
    }

    private static String optionText(Enum<?> constant) {
        return constant.name().toLowerCase(Locale.ROOT).replace('_', '-');
    }
}
