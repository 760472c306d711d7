package com.zivolt.hardware.dsp.examples;

import java.io.Closeable;
import java.io.IOException;
import java.io.Writer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.time.Instant;
import java.util.stream.Collectors;
import java.util.stream.Stream;

/**
 * The call log: a CSV file with a heading and a row for each call that has ended. Continues a log
 * that is there already. Every row is in the file once {@link #add} returns.
 */
final class CallLog implements Closeable {
    private static final String HEADING = "line,start,end,caller,digits,bytes,file";

    private final Writer out;

    CallLog(Path file) throws IOException {
        out = Files.newBufferedWriter(file, StandardOpenOption.CREATE, StandardOpenOption.APPEND);
        if (Files.size(file) == 0) {
            writeLine(HEADING);
        }
    }

    /** Times are written in UTC. */
    void add(int line, Instant start, Instant end, String caller, String digits, long bytes,
            Path file) throws IOException {
        writeLine(Stream.of(line, start, end, caller, digits, bytes, file.getFileName())
                .map(field -> quoted(field.toString()))
                .collect(Collectors.joining(",")));
    }

    @Override
    public void close() throws IOException {
        out.close();
    }

    private void writeLine(String text) throws IOException {
        out.write(text + "\n");
        out.flush();
    }

    private static String quoted(String field) {
        boolean plain = field.chars().noneMatch(c -> ",\"\n\r".indexOf(c) >= 0);
        return plain ? field : '"' + field.replace("\"", "\"\"") + '"';
    }
}
