package com.zivolt.hardware.dsp.client;

import java.util.Arrays;
import java.util.Objects;

/** The settings of all lines, as they are sent to the cards at once. Never changes once built. */
public final class LineSettings {
    /** Number of lines that there are settings for, whether or not a card carries them. */
    public static final int LINES = 16;

    private final LineSetting[] lines;

    private LineSettings(LineSetting[] lines) {
        this.lines = lines;
    }

    /**
     * Begins with {@link LineSetting#DEFAULT} on every line.
     *
     * @return a new builder
     */
    public static Builder builder() {
        return new Builder();
    }

    /**
     * The settings of a table as the cards take it; the reverse of {@link #toBytes}.
     *
     * @param table 48 bytes: beep, trigger and delay of each line
     * @return the settings
     * @throws IllegalArgumentException when the table has another length or impossible values
     */
    public static LineSettings ofBytes(byte[] table) {
        if (Objects.requireNonNull(table, "table").length != 3 * LINES) {
            throw new IllegalArgumentException("Settings are a table of %d bytes, not %d"
                    .formatted(3 * LINES, table.length));
        }
        Builder builder = builder();
        for (int line = 0; line < LINES; ++line) {
            builder.line(line, new LineSetting(
                    constant(Trigger.values(), table[3 * line + 1], "trigger", line),
                    constant(Beep.values(), table[3 * line], "beep", line),
                    Byte.toUnsignedInt(table[3 * line + 2])));
        }
        return builder.build();
    }

    private static <E> E constant(E[] constants, byte code, String what, int line) {
        if (code < 0 || code >= constants.length) {
            throw new IllegalArgumentException("Line %d: there is no %s of code %d"
                    .formatted(line, what, code));
        }
        return constants[code];
    }

    /**
     * The setting of one line.
     *
     * @param line 0 to 15
     * @return its setting
     * @throws IllegalArgumentException when there is no such line
     */
    public LineSetting line(int line) {
        return lines[checkedLine(line)];
    }

    /**
     * The table as the cards take it.
     *
     * @return a new array of 48 bytes: beep, trigger and delay of each line
     */
    public byte[] toBytes() {
        byte[] table = new byte[3 * LINES];
        for (int line = 0; line < LINES; ++line) {
            table[3 * line] = lines[line].beep().code();
            table[3 * line + 1] = lines[line].trigger().code();
            table[3 * line + 2] = (byte) lines[line].delaySeconds();
        }
        return table;
    }

    @Override
    public boolean equals(Object other) {
        return other instanceof LineSettings settings && Arrays.equals(lines, settings.lines);
    }

    @Override
    public int hashCode() {
        return Arrays.hashCode(lines);
    }

    @Override
    public String toString() {
        return "LineSettings" + Arrays.toString(lines);
    }

    static int checkedLine(int line) {
        if (line < 0 || line >= LINES) {
            throw new IllegalArgumentException(
                    "Lines are 0 to " + (LINES - 1) + ", not " + line);
        }
        return line;
    }

    /** Builds {@link LineSettings}; later calls override earlier ones. */
    public static final class Builder {
        private final LineSetting[] lines = new LineSetting[LINES];

        private Builder() {
            Arrays.fill(lines, LineSetting.DEFAULT);
        }

        /**
         * Sets every line.
         *
         * @param setting what every line gets
         * @return this builder
         */
        public Builder allLines(LineSetting setting) {
            Arrays.fill(lines, Objects.requireNonNull(setting, "setting"));
            return this;
        }

        /**
         * Sets one line.
         *
         * @param line 0 to 15
         * @param setting what it gets
         * @return this builder
         * @throws IllegalArgumentException when there is no such line
         */
        public Builder line(int line, LineSetting setting) {
            lines[checkedLine(line)] = Objects.requireNonNull(setting, "setting");
            return this;
        }

        /**
         * The settings as they stand; the builder may be used on.
         *
         * @return the settings
         */
        public LineSettings build() {
            return new LineSettings(lines.clone());
        }
    }
}
