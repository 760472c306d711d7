package com.zivolt.hardware.dsp.recorder;

import com.fasterxml.jackson.core.JsonGenerator;
import com.zivolt.hardware.dsp.client.CardState;
import com.zivolt.hardware.dsp.client.CardStatus;
import java.io.IOException;
import java.time.Duration;
import java.time.Instant;
import java.util.ArrayList;
import java.util.List;
import java.util.function.Supplier;

/** How the recorder does, gathered from its parts whenever somebody asks. For any thread. */
final class Status {
    private final Supplier<List<CardStatus>> cards;
    private final CardNews cardNews;
    private final Recorder recorder;
    private final Console console;
    private final CallEndCommand command;
    private final Instant started = Instant.now();

    /** @param command null when there is none */
    Status(Supplier<List<CardStatus>> cards, CardNews cardNews, Recorder recorder, Console console,
            CallEndCommand command) {
        this.cards = cards;
        this.cardNews = cardNews;
        this.recorder = recorder;
        this.console = console;
        this.command = command;
    }

    /** Why somebody must come; empty when calls are recorded as they should be. */
    List<String> problems() {
        List<String> problems = new ArrayList<>(cardNews.problems(cards.get()));
        if (recorder.room().isFull()) {
            problems.add("the disk is full");
        }
        if (recorder.isLogFailing()) {
            problems.add("the call log cannot be written");
        }
        if (recorder.isAlive()) {
            problems.addAll(recorder.progress().problems(System.nanoTime()));
        } else {
            problems.add("the recording has ended");
        }
        return problems;
    }

    /** What will be a problem if nobody looks after it. */
    List<String> warnings() {
        List<String> warnings = new ArrayList<>();
        if (recorder.room().isLow()) {
            warnings.add("the disk has only %s left".formatted(
                    DiskRoom.size(recorder.room().free())));
        }
        if (recorder.failures() > 0) {
            warnings.add("%d times something could not be written".formatted(recorder.failures()));
        }
        warnings.addAll(recorder.retention().warnings());
        if (recorder.dropped() > 0) {
            warnings.add("%d events were dropped, they came too fast".formatted(
                    recorder.dropped()));
        }
        return warnings;
    }

    void writeHealth(JsonGenerator out) throws IOException {
        List<String> problems = problems();
        out.writeStartObject();
        out.writeBooleanField("healthy", problems.isEmpty());
        writeTexts(out, "problems", problems);
        writeTexts(out, "warnings", warnings());
        out.writeEndObject();
    }

    /** Everything that the page shows live. */
    void writeState(JsonGenerator out) throws IOException {
        out.writeStartObject();
        out.writeStringField("now", Utc.seconds(Instant.now()));
        out.writeStringField("started", Utc.seconds(started));
        writeTexts(out, "problems", problems());
        writeTexts(out, "warnings", warnings());
        out.writeNumberField("free", recorder.room().free());
        out.writeNumberField("queue", recorder.queueLength());
        out.writeArrayFieldStart("cards");
        for (CardStatus card : cards.get()) {
            out.writeStartObject();
            out.writeNumberField("card", card.card());
            out.writeStringField("state", CardNews.words(card.state()));
            out.writeNumberField("lines", card.lines());
            out.writeNumberField("transfers", card.transfers());
            out.writeNumberField("missed", card.missed());
            out.writeNumberField("lockUps", card.lockUps());
            out.writeNumberField("boots", card.restarts() + 1);
            out.writeEndObject();
        }
        out.writeEndArray();
        out.writeArrayFieldStart("lines");
        for (CallsSeen.Line line : recorder.seen().lines()) {
            out.writeStartObject();
            out.writeNumberField("line", line.number());
            out.writeNumberField("card", line.card());
            out.writeStringField("state", line.state());
            out.writeStringField("since", line.since() == null ? "" : Utc.seconds(line.since()));
            out.writeStringField("caller", line.caller());
            out.writeStringField("digits", line.digits());
            out.writeNumberField("bytes", line.bytes());
            out.writeNumberField("calls", line.calls());
            out.writeEndObject();
        }
        out.writeEndArray();
        out.writeEndObject();
    }

    /** In the text format of Prometheus. */
    String metrics() {
        Metrics out = new Metrics();
        List<CardStatus> all = cards.get();
        Instant now = Instant.now();
        out.family("card_running", "gauge", "Whether the card delivers the audio of its lines.");
        all.forEach(card -> out.value(card, card.state() == CardState.RUNNING ? 1 : 0));
        out.family("card_transfers_total", "counter", "Transfers of audio that have come.");
        all.forEach(card -> out.value(card, card.transfers()));
        out.family("card_missed_transfers_total", "counter",
                "How often transfers were missed.");
        all.forEach(card -> out.value(card, card.missed()));
        out.family("card_lock_ups_total", "counter", "Transfers that came while it was locked up.");
        all.forEach(card -> out.value(card, card.lockUps()));
        out.family("card_boots_total", "counter", "How often the card was booted.");
        all.forEach(card -> out.value(card, card.restarts() + 1));
        out.family("card_last_audio_age_seconds", "gauge", "Time since its audio came last.");
        all.forEach(card -> card.lastAudio().ifPresent(last -> out.value(card,
                Math.max(0, Duration.between(last, now).toMillis()) / 1000.0)));
        List<CallsSeen.Line> lines = recorder.seen().lines();
        out.family("line_recording", "gauge", "Whether a call goes on on the line.");
        lines.forEach(line -> out.value(line, line.state().equals("RECORDING") ? 1 : 0));
        out.family("line_calls_total", "counter", "Calls and missed callers of the line.");
        lines.forEach(line -> out.value(line, line.calls()));
        out.family("line_transfers_total", "counter", "Transfers whose audio belongs to a call.");
        lines.forEach(line -> out.value(line, line.transfers()));
        out.family("line_missed_transfers_total", "counter",
                "Transfers that were missed within calls.");
        lines.forEach(line -> out.value(line, line.missed()));
        out.family("calls_total", "counter", "Calls and missed callers, by how they ended.");
        for (Outcome outcome : Outcome.values()) {
            if (outcome.isOver() && outcome != Outcome.RECOVERED) {
                out.value("outcome=\"%s\"".formatted(outcome.code()), recorder.count(outcome));
            }
        }
        out.single("queue_length", "gauge", "Events that wait to be recorded.",
                recorder.queueLength());
        out.single("queue_dropped_events_total", "counter", "Events that came too fast.",
                recorder.dropped());
        out.single("write_failures_total", "counter", "What could not be written.",
                recorder.failures());
        out.single("disk_free_bytes", "gauge", "Room for recordings.", recorder.room().free());
        out.single("disk_full", "gauge", "Whether audio is not recorded for lack of room.",
                recorder.room().isFull() ? 1 : 0);
        out.single("console_dropped_lines_total", "counter", "Lines that nobody took.",
                console.dropped());
        if (command != null) {
            out.single("commands_waiting", "gauge", "Commands for calls that are over.",
                    command.waiting());
            out.single("command_failures_total", "counter", "Commands that failed.",
                    command.failures());
        }
        out.single("healthy", "gauge", "Whether all is as it should be, as /health says.",
                problems().isEmpty() ? 1 : 0);
        return out.text();
    }

    private static void writeTexts(JsonGenerator out, String name, List<String> texts)
            throws IOException {
        out.writeArrayFieldStart(name);
        for (String text : texts) {
            out.writeString(text);
        }
        out.writeEndArray();
    }

    /** Builds the text of the metrics. */
    private static final class Metrics {
        private final StringBuilder text = new StringBuilder();
        private String name;

        void family(String shortName, String type, String help) {
            name = "dspcard_recorder_" + shortName;
            text.append("# HELP %s %s\n# TYPE %s %s\n".formatted(name, help, name, type));
        }

        void single(String shortName, String type, String help, Number value) {
            family(shortName, type, help);
            text.append(name).append(' ').append(value).append('\n');
        }

        void value(CardStatus card, Number value) {
            value("card=\"%d\"".formatted(card.card()), value);
        }

        void value(CallsSeen.Line line, Number value) {
            value("card=\"%d\",line=\"%d\"".formatted(line.card(), line.number()), value);
        }

        void value(String labels, Number value) {
            text.append(name).append('{').append(labels).append("} ").append(value).append('\n');
        }

        String text() {
            return text.toString();
        }
    }
}
