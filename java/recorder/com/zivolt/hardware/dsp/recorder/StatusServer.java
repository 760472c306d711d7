package com.zivolt.hardware.dsp.recorder;

import static java.nio.charset.StandardCharsets.UTF_8;

import com.fasterxml.jackson.core.JsonGenerator;
import com.sun.net.httpserver.HttpExchange;
import com.sun.net.httpserver.HttpServer;
import java.io.ByteArrayOutputStream;
import java.io.Closeable;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStreamWriter;
import java.io.Writer;
import java.net.InetSocketAddress;
import java.net.URLDecoder;
import java.nio.file.Path;
import java.sql.Connection;
import java.sql.SQLException;
import java.time.Duration;
import java.time.Instant;
import java.time.temporal.ChronoUnit;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.BitSet;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.ThreadPoolExecutor;
import java.util.concurrent.TimeUnit;
import java.util.stream.Collectors;

/**
 * Shows how the recorder does, over HTTP, to whoever asks; changes nothing. Two threads of its own
 * serve, and read the log through connections of their own, so that nobody who asks holds up the
 * recording.
 */
final class StatusServer implements Closeable {
    private static final int THREADS = 2;
    private static final int MOST_WAITING = 50;
    private static final int MOST_CALLS = 200;
    private static final int MINUTES = 24 * 60;
    /** How far back is searched when nothing is said: a year of busy lines takes too long. */
    private static final Duration SEARCHED = Duration.ofDays(31);
    private static final Duration LONGEST_CALL = Duration.ofHours(12);

    private final HttpServer server;
    private final Status status;
    private final Path log;
    private final byte[] page;
    private final ThreadPoolExecutor pool = new ThreadPoolExecutor(THREADS, THREADS, 1,
            TimeUnit.MINUTES, new ArrayBlockingQueue<>(MOST_WAITING), job -> {
                Thread thread = new Thread(job, "status");
                thread.setDaemon(true);
                return thread;
            }, new ThreadPoolExecutor.DiscardOldestPolicy());

    static {
        // A client that says or takes nothing must not keep a thread.
        System.setProperty("sun.net.httpserver.maxReqTime", "10");
        System.setProperty("sun.net.httpserver.maxRspTime", "30");
    }

    private StatusServer(HttpServer server, Status status, Path folder) throws IOException {
        this.server = server;
        this.status = status;
        this.log = folder.resolve(CallTable.FILE);
        try (InputStream in = StatusServer.class.getResourceAsStream("status.html")) {
            page = in.readAllBytes();
        }
    }

    static StatusServer start(InetSocketAddress address, Status status, Path folder)
            throws IOException {
        HttpServer server;
        try {
            server = HttpServer.create(address, 0);
        } catch (IOException taken) {
            throw new IOException("cannot show the status at %s: %s".formatted(address,
                    taken.getMessage()), taken);
        }
        StatusServer shown = new StatusServer(server, status, folder);
        server.setExecutor(shown.pool);
        server.createContext("/", shown::answer);
        server.start();
        return shown;
    }

    /** Where it is shown; with port 0 the machine has chosen one. */
    String address() {
        InetSocketAddress address = server.getAddress();
        return address.getAddress().getHostAddress() + ":" + address.getPort();
    }

    @Override
    public void close() {
        server.stop(0);
        pool.shutdownNow();
    }

    private interface JsonBody {
        void write(JsonGenerator out) throws IOException, SQLException;
    }

    private void answer(HttpExchange exchange) throws IOException {
        try (exchange) {
            if (!List.of("GET", "HEAD").contains(exchange.getRequestMethod())) {
                send(exchange, 405, "text/plain", "read only\n".getBytes(UTF_8));
            } else if (!isForUs(exchange)) {
                send(exchange, 403, "text/plain", "ask by address\n".getBytes(UTF_8));
            } else {
                answerWhatIsAsked(exchange);
            }
        }
    }

    private void answerWhatIsAsked(HttpExchange exchange) throws IOException {
        try {
            switch (exchange.getRequestURI().getPath()) {
                case "/" -> send(exchange, 200, "text/html; charset=utf-8", page);
                case "/metrics" -> send(exchange, 200, "text/plain; version=0.0.4; charset=utf-8",
                        status.metrics().getBytes(UTF_8));
                case "/health" -> sendJson(exchange, status.problems().isEmpty() ? 200 : 503,
                        status::writeHealth);
                case "/state" -> sendJson(exchange, 200, status::writeState);
                case "/calls" -> sendJson(exchange, 200,
                        out -> writeCalls(out, parameters(exchange)));
                case "/day" -> sendJson(exchange, 200, out -> writeDay(out, parameters(exchange)));
                default -> send(exchange, 404, "text/plain",
                        "there are /, /metrics and /health\n".getBytes(UTF_8));
            }
        } catch (IllegalArgumentException wrong) {
            send(exchange, 400, "text/plain", (Printable.escaped(wrong.getMessage()) + "\n")
                    .getBytes(UTF_8));
        }
    }

    /** A page from elsewhere may have its host's name point here; only ours may read the log. */
    private static boolean isForUs(HttpExchange exchange) {
        String host = String.valueOf(exchange.getRequestHeaders().getFirst("Host"))
                .replaceFirst(":\\d+$", "");
        return !exchange.getLocalAddress().getAddress().isLoopbackAddress()
                || host.equals("localhost") || host.equals("[::1]")
                || host.matches("127(\\.\\d+){3}");
    }

    private void writeCalls(JsonGenerator out, Map<String, String> asked)
            throws IOException, SQLException {
        String from = asked.getOrDefault("from", "");
        CallFilter filter = new CallFilter().from(from.isEmpty()
                ? Instant.now().minus(SEARCHED) : Utc.parse(from));
        if (!asked.getOrDefault("to", "").isEmpty()) {
            filter.before(Utc.parse(asked.get("to")));
        }
        if (!asked.getOrDefault("search", "").isEmpty()) {
            filter.mentions(asked.get("search"));
        }
        List<CallRow> rows = new ArrayList<>();
        try (Connection reader = CallTable.openForReading(log)) {
            filter.search(reader, MOST_CALLS, rows::add);
        }
        out.writeStartArray();
        for (CallRow row : rows) {
            CallWriter.Json.write(out, row);
        }
        out.writeEndArray();
    }

    /** For each line the minutes of the day that had a call, as beginnings and ends. */
    private void writeDay(JsonGenerator out, Map<String, String> asked)
            throws IOException, SQLException {
        String date = asked.getOrDefault("date", "");
        Instant day = date.isEmpty() ? Instant.now().truncatedTo(ChronoUnit.DAYS)
                : Utc.parse(date).truncatedTo(ChronoUnit.DAYS);
        Map<Integer, BitSet> lines = new TreeMap<>();
        try (Connection reader = CallTable.openForReading(log)) {
            new CallFilter().from(day.minus(LONGEST_CALL)).before(day.plus(Duration.ofDays(1)))
                    .all(reader, row -> {
                        long first = Math.max(0, minute(day, row.start()));
                        long last = Math.min(MINUTES - 1, minute(day, row.end()));
                        if (last >= first && row.outcome() != Outcome.MISSED) {
                            lines.computeIfAbsent(row.line(), line -> new BitSet(MINUTES))
                                    .set((int) first, (int) last + 1);
                        }
                    });
        }
        out.writeStartObject();
        out.writeStringField("date", Utc.text(day).substring(0, 10));
        out.writeObjectFieldStart("lines");
        for (Map.Entry<Integer, BitSet> line : lines.entrySet()) {
            out.writeArrayFieldStart(line.getKey().toString());
            BitSet minutes = line.getValue();
            for (int from = minutes.nextSetBit(0); from >= 0;
                    from = minutes.nextSetBit(minutes.nextClearBit(from))) {
                out.writeArray(new int[] {from, minutes.nextClearBit(from)}, 0, 2);
            }
            out.writeEndArray();
        }
        out.writeEndObject();
        out.writeEndObject();
    }

    private static long minute(Instant day, Instant time) {
        return Math.floorDiv(Duration.between(day, time).toSeconds(), 60);
    }

    private static Map<String, String> parameters(HttpExchange exchange) {
        String query = exchange.getRequestURI().getRawQuery();
        return query == null ? Map.of() : Arrays.stream(query.split("&"))
                .map(part -> part.split("=", 2)).filter(part -> part.length == 2)
                .collect(Collectors.toMap(part -> part[0],
                        part -> URLDecoder.decode(part[1], UTF_8), (first, second) -> second));
    }

    private static void sendJson(HttpExchange exchange, int code, JsonBody body)
            throws IOException {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        try (Writer writer = new OutputStreamWriter(bytes, UTF_8);
                JsonGenerator out = CallWriter.Json.generator(writer)) {
            body.write(out);
            out.writeRaw('\n');
        } catch (SQLException unreadable) {
            send(exchange, 503, "text/plain", ("the call log cannot be read: "
                    + Recorder.reason(unreadable) + "\n").getBytes(UTF_8));
            return;
        }
        send(exchange, code, "application/json", bytes.toByteArray());
    }

    private static void send(HttpExchange exchange, int code, String type, byte[] body)
            throws IOException {
        boolean head = exchange.getRequestMethod().equals("HEAD");
        exchange.getResponseHeaders().set("Content-Type", type);
        exchange.getResponseHeaders().set("Cache-Control", "no-store");
        exchange.getResponseHeaders().set("X-Content-Type-Options", "nosniff");
        exchange.getResponseHeaders().set("Content-Security-Policy", "default-src 'none';"
                + " connect-src 'self'; style-src 'unsafe-inline'; script-src 'unsafe-inline';"
                + " img-src data:; frame-ancestors 'none'");
        exchange.sendResponseHeaders(code, head ? -1 : body.length);
        if (!head) {
            exchange.getResponseBody().write(body);
        }
    }
}
