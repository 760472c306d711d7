package com.zivolt.hardware.dsp.recorder;

import com.fasterxml.jackson.core.JsonFactory;
import com.fasterxml.jackson.core.JsonGenerator;
import com.fasterxml.jackson.core.json.JsonWriteFeature;
import java.io.Closeable;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.io.Writer;
import java.time.Instant;
import java.util.Locale;

/** Writes rows of the log for people or programs; used by one thread. */
interface CallWriter extends Closeable {
    void write(CallRow row) throws IOException;

    /** Ends what is written; the stream stays open. */
    @Override
    void close() throws IOException;

    /** Columns for the eye. */
    record Table(Writer out) implements CallWriter {
        private static final String FORMAT = "%-24s  %4s  %-7s  %-16s  %-10s  %9s  %-11s  %6s  %s%n";

        public Table {
            print(out, FORMAT, "start (UTC)", "line", "from/to", "caller", "digits", "seconds",
                    "outcome", "missed", "file");
        }

        @Override
        public void write(CallRow row) throws IOException {
            print(out, FORMAT, Utc.text(row.start()), row.line(), row.direction().code(),
                    Printable.escaped(row.caller()), Printable.escaped(row.digits()),
                    seconds(row.duration().toMillis()), row.outcome().code(), row.missed(),
                    row.removed() != null ? "removed " + Utc.seconds(row.removed())
                            : row.file() == null ? "-" : Printable.escaped(row.file()));
        }

        @Override
        public void close() throws IOException {
            out.flush();
        }

        private static void print(Writer out, String format, Object... fields) {
            try {
                out.write(String.format(Locale.ROOT, format, fields));
            } catch (IOException failure) {
                throw new UncheckedIOException(failure);
            }
        }
    }

    /** Comma-separated fields, with a heading; control characters as in the table. */
    record Csv(Writer out) implements CallWriter {
        @Override
        public void write(CallRow row) throws IOException {
            StringBuilder line = new StringBuilder();
            each(row, (name, value) -> line.append(line.isEmpty() ? "" : ",")
                    .append(quoted(value == null ? "" : value.toString())));
            out.write(line.append('\n').toString());
        }

        /** The names of the columns. */
        void heading() throws IOException {
            out.write("id,line,card,direction,caller,digits,start,end,seconds,outcome,missed,"
                    + "missed_seconds,bytes,unwritten,file,sha256,removed\n");
        }

        @Override
        public void close() throws IOException {
            out.flush();
        }

        private static String quoted(String field) {
            String safe = Printable.escaped(field);
            boolean plain = safe.chars().noneMatch(c -> c == ',' || c == '"');
            return plain ? safe : '"' + safe.replace("\"", "\"\"") + '"';
        }
    }

    /** Objects of JSON: in an array, or one a line. */
    final class Json implements CallWriter {
        private final JsonGenerator out;
        private final Writer lines;

        /** @param asLines one a line, each complete as soon as it is written */
        Json(Writer out, boolean asLines) throws IOException {
            this.out = generator(out);
            this.lines = asLines ? out : null;
            if (!asLines) {
                this.out.writeStartArray();
            }
        }

        static JsonGenerator generator(Writer out) throws IOException {
            JsonGenerator generator = JsonFactory.builder()
                    .enable(JsonWriteFeature.ESCAPE_NON_ASCII).build().createGenerator(out);
            generator.disable(JsonGenerator.Feature.AUTO_CLOSE_TARGET);
            generator.setRootValueSeparator(null);
            return generator;
        }

        /** Writes the row as an object where one may stand. */
        static void write(JsonGenerator out, CallRow row) throws IOException {
            out.writeStartObject();
            each(row, (name, value) -> {
                if (value instanceof Long || value instanceof Integer) {
                    out.writeNumberField(name, ((Number) value).longValue());
                } else if (name.endsWith("seconds")) {
                    out.writeFieldName(name);
                    out.writeNumber(value.toString());
                } else {
                    out.writeStringField(name, value == null ? null : value.toString());
                }
            });
            out.writeEndObject();
        }

        @Override
        public void write(CallRow row) throws IOException {
            write(out, row);
            if (lines != null) {
                out.flush();
                lines.write("\n");
                lines.flush();
            }
        }

        @Override
        public void close() throws IOException {
            if (lines == null) {
                out.writeEndArray();
                out.writeRaw('\n');
            }
            out.flush();
        }
    }

    /** Takes the facts of a row one by one. */
    interface FactTaker {
        void take(String name, Object value) throws IOException;
    }

    /** All facts of a row, under the names that every output has for them. */
    static void each(CallRow row, FactTaker taker) throws IOException {
        taker.take("id", row.id());
        taker.take("line", row.line());
        taker.take("card", row.card());
        taker.take("direction", row.direction().code());
        taker.take("caller", row.caller());
        taker.take("digits", row.digits());
        taker.take("start", time(row.start()));
        taker.take("end", time(row.end()));
        taker.take("seconds", seconds(row.duration().toMillis()));
        taker.take("outcome", row.outcome().code());
        taker.take("missed", row.missed());
        taker.take("missed_seconds", seconds(row.missedTime().toMillis()));
        taker.take("bytes", row.bytes());
        taker.take("unwritten", row.unwritten());
        taker.take("file", row.file());
        taker.take("sha256", row.sha256());
        taker.take("removed", time(row.removed()));
    }

    private static String time(Instant time) {
        return time == null ? null : Utc.text(time);
    }

    private static String seconds(long milliseconds) {
        return String.format(Locale.ROOT, "%d.%03d", milliseconds / 1000, milliseconds % 1000);
    }
}
