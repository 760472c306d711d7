package com.zivolt.hardware.dsp.recorder;

import com.zivolt.hardware.dsp.client.CardStatus;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Deque;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.function.Supplier;

/**
 * The table of lines at the top of a terminal, with the recorder's last lines under it. The rest of
 * the screen is made a region that scrolls by itself, where the driver's own lines go, each where the
 * cursor stands; what stood on the screen before scrolls away as if lines had been printed. A
 * painting is one write and leaves the cursor where it was, so that a line of the driver's cannot
 * fall into the middle. Used by one thread.
 */
final class TerminalTable {
    private static final long MEASURE_NANOS = 2_000_000_000;
    private static final int LEAST_DRIVER_LINES = 4;
    private static final int LEAST_NEWS = 3;
    private static final int MOST_NEWS = 8;
    private static final String SAVE = "\0337";
    private static final String RESTORE = "\0338";

    private final Supplier<List<CardStatus>> cards;
    private final CallsSeen calls;
    private final Deque<String> news = new ArrayDeque<>();
    private int rows;
    private int columns;
    private int height;
    private long measured = System.nanoTime() - MEASURE_NANOS;

    TerminalTable(Supplier<List<CardStatus>> cards, CallsSeen calls) {
        this.cards = cards;
        this.calls = calls;
    }

    /** What says the lines and paints the table as it is now, once the cards are known. */
    String paint(List<String> lines) {
        List<String> table = table();
        int rowsBefore = rows;
        measure();
        boolean fits = rows >= LEAST_DRIVER_LINES + LEAST_NEWS + 4;
        if (table.isEmpty() || !fits) {
            return end() + String.join("", lines);
        }
        lines.forEach(this::remember);
        int newsRows = Math.min(MOST_NEWS,
                Math.max(LEAST_NEWS, rows - LEAST_DRIVER_LINES - table.size()));
        int tableRows = Math.min(table.size(), rows - LEAST_DRIVER_LINES - newsRows);
        StringBuilder text = new StringBuilder();
        if (tableRows + newsRows != height || rows != rowsBefore) {
            height = tableRows + newsRows;
            text.append("\033[r\033[").append(rows).append(";1H").append("\n".repeat(rows))
                    .append("\033[").append(height + 1).append(';').append(rows).append("r\033[")
                    .append(height + 1).append(";1H");
        }
        text.append(SAVE);
        for (int row = 0; row < tableRows; ++row) {
            paint(text, row, table.get(row));
        }
        List<String> last = List.copyOf(news);
        for (int row = 0; row < newsRows; ++row) {
            int index = last.size() - newsRows + row;
            paint(text, tableRows + row, index < 0 ? "" : last.get(index).stripTrailing());
        }
        return text.append(RESTORE).toString();
    }

    /** What gives the whole screen back to the lines, and says the last ones once more. */
    String end() {
        String text = height == 0 ? "" : "\033[r\033[" + rows + ";1H\n" + String.join("", news);
        height = 0;
        news.clear();
        return text;
    }

    private void remember(String line) {
        news.addLast(line);
        if (news.size() > MOST_NEWS) {
            news.removeFirst();
        }
    }

    private void paint(StringBuilder text, int row, String line) {
        text.append("\033[").append(row + 1).append(";1H")
                .append(line, 0, Math.min(line.length(), columns)).append("\033[K");
    }

    private List<String> table() {
        List<String> table = new ArrayList<>();
        StringBuilder states = new StringBuilder();
        for (CardStatus card : cards.get()) {
            states.append("card %d: %s, %d transfers, %d missed   ".formatted(card.card(),
                    CardNews.words(card.state()), card.transfers(), card.missed()));
        }
        List<CallsSeen.Line> lines = calls.lines();
        if (lines.isEmpty()) {
            return table;
        }
        table.add(states.toString());
        table.add("line  state      caller                digits                     bytes  calls");
        for (CallsSeen.Line line : lines) {
            table.add("%4d  %-9s  %-20.20s  %-20.20s  %9d  %5d".formatted(line.number(),
                    line.state(), Printable.escaped(line.caller()),
                    Printable.escaped(line.digits()), line.bytes(), line.calls()));
        }
        return table;
    }

    /** Only the terminal itself knows its size, and it may change. */
    private void measure() {
        if (System.nanoTime() - measured < MEASURE_NANOS) {
            return;
        }
        measured = System.nanoTime();
        try {
            Process stty = new ProcessBuilder("stty", "-F", "/dev/tty", "size").start();
            if (stty.waitFor(1, TimeUnit.SECONDS)) {
                String[] size = new String(stty.getInputStream().readAllBytes(),
                        StandardCharsets.US_ASCII).strip().split(" ");
                rows = Integer.parseInt(size[0]);
                columns = Integer.parseInt(size[1]);
            }
        } catch (IOException | NumberFormatException | ArrayIndexOutOfBoundsException unknown) {
            rows = 0;  // then there are lines only
        } catch (InterruptedException hurried) {
            Thread.currentThread().interrupt();
        }
    }
}
