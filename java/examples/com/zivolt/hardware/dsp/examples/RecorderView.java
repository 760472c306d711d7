package com.zivolt.hardware.dsp.examples;

import java.io.PrintStream;
import java.util.ArrayDeque;
import java.util.Collection;
import java.util.Deque;

/** What the recorder shows while it runs. Used by one thread. */
sealed interface RecorderView {
    /** Shows a line of news. */
    void news(String text);

    /** Called often; shows how the lines stand now. */
    void refresh(Collection<RecordedLine> lines);

    /**
     * News as plain lines, marked so that they can be told from the driver's own, which go to the
     * same console; each is written whole, so that these do not come between.
     */
    record Plain(PrintStream out) implements RecorderView {
        @Override
        public void news(String text) {
            out.print("recorder: " + printable(text) + "\n");
            out.flush();
        }

        @Override
        public void refresh(Collection<RecordedLine> lines) {
        }
    }

    /**
     * A table, one row a line, and the latest news below it. Paints the whole screen every time,
     * because the driver's own lines go to the same terminal.
     */
    final class Screen implements RecorderView {
        private static final int NEWS_LINES = 8;
        private static final long REPAINT_NANOS = 500_000_000;
        private static final String CLEAR = "\033[H\033[2J";

        private final PrintStream out;
        private final Deque<String> latest = new ArrayDeque<>();
        private long painted = System.nanoTime() - REPAINT_NANOS;

        Screen(PrintStream out) {
            this.out = out;
        }

        @Override
        public void news(String text) {
            latest.addLast(printable(text));
            if (latest.size() > NEWS_LINES) {
                latest.removeFirst();
            }
        }

        @Override
        public void refresh(Collection<RecordedLine> lines) {
            long now = System.nanoTime();
            if (now - painted < REPAINT_NANOS) {
                return;
            }
            painted = now;
            StringBuilder screen = new StringBuilder(CLEAR);
            screen.append(
                    "line  state      caller                digits                     bytes\n");
            for (RecordedLine line : lines) {
                screen.append("%4d  %-9s  %-20.20s  %-20.20s  %9d%n".formatted(line.number(),
                        line.callFile() != null ? "RECORDING" : "idle", printable(line.caller()),
                        printable(line.digits()), line.bytes()));
            }
            screen.append("\n");
            latest.forEach(text -> screen.append(text).append('\n'));
            out.print(screen);
            out.flush();
        }
    }

    /** What comes over a telephone line must not steer the terminal. */
    private static String printable(String text) {
        return text.replaceAll("\\p{Cntrl}|[\\x80-\\x9f]", "?");
    }
}
