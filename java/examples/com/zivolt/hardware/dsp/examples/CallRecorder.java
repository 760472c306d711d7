package com.zivolt.hardware.dsp.examples;

import com.zivolt.hardware.dsp.client.AudioBlock;
import com.zivolt.hardware.dsp.client.CardEvent;
import java.io.Closeable;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Instant;
import java.util.Collection;
import java.util.Collections;
import java.util.SortedMap;
import java.util.TreeMap;
import java.util.function.Consumer;

/**
 * Turns events into recordings: a file for each call and a row of the log when it ends. Tells every
 * step as a line of news. A file that cannot be written ends its own recording only. Used by one
 * thread.
 */
final class CallRecorder implements Closeable {
    private final Path folder;
    private final CallLog log;
    private final Consumer<String> news;
    private final SortedMap<Integer, RecordedLine> lines = new TreeMap<>();
    private Instant latest = Instant.now();
    private boolean audioHeard;
    private int calls;
    private int cardErrors;
    private int failures;

    /** Makes the folder when it is not there. */
    CallRecorder(Path folder, Consumer<String> news) throws IOException {
        this.folder = Files.createDirectories(folder);
        this.log = new CallLog(folder.resolve("calls.csv"));
        this.news = news;
    }

    /** All lines that the cards have told of, in order. */
    Collection<RecordedLine> lines() {
        return Collections.unmodifiableCollection(lines.values());
    }

    /** Whether anything has come from the line. */
    boolean hasHeard(int number) {
        return lines.containsKey(number);
    }

    boolean audioHeard() {
        return audioHeard;
    }

    /** Calls that have been logged. */
    int calls() {
        return calls;
    }

    /** Reports of the cards that a recording may be incomplete. */
    int cardErrors() {
        return cardErrors;
    }

    /** Recordings and rows of the log that could not be written. */
    int failures() {
        return failures;
    }

    void handle(CardEvent event) {
        latest = event.time();
        if (event instanceof CardEvent.AudioRecorded audio) {
            record(audio);
        } else if (event instanceof CardEvent.CallStarted started) {
            begin(line(started.line()), started.time());
        } else if (event instanceof CardEvent.CallEnded ended) {
            end(line(ended.line()), ended.time());
        } else if (event instanceof CardEvent.CallerIdentified identified) {
            line(identified.line()).heardCaller(identified.time(), identified.caller());
            tell(identified.line(), "caller " + identified.caller());
        } else if (event instanceof CardEvent.DigitsHeard heard) {
            line(heard.line()).heardDigits(heard.time(), heard.digits());
            tell(heard.line(), "digits " + heard.digits());
        } else if (event instanceof CardEvent.CardError error) {
            ++cardErrors;
            news.accept("CARD ERROR %d: %s".formatted(error.code(), error.message().strip()));
        } else if (event instanceof CardEvent.UnreadableFrame frame) {
            ++cardErrors;
            news.accept("CARD ERROR: " + frame.reason());
        }
    }

    /** Ends the calls that still run, as of the latest event, and closes the log. */
    @Override
    public void close() {
        for (RecordedLine line : lines.values()) {
            end(line, latest);
        }
        attempt("close the call log", log::close);
    }

    private RecordedLine line(int number) {
        return lines.computeIfAbsent(number, RecordedLine::new);
    }

    private void begin(RecordedLine line, Instant time) {
        if (line.callFile() != null) {
            return;  // reported once more because recording was started again
        }
        attempt("record line " + line.number(), () -> {
            line.begin(CallFile.create(folder, line.number(), time));
            tell(line.number(), "call started");
        });
    }

    private void record(CardEvent.AudioRecorded audio) {
        audioHeard = true;
        int number = audio.firstLine();
        for (AudioBlock block : audio.blocks()) {
            record(line(number), block);
            ++number;
        }
    }

    private void record(RecordedLine line, AudioBlock block) {
        CallFile file = line.callFile();
        if (file == null) {
            return;
        }
        boolean written = attempt("write " + file.path(), () -> {
            file.write(block);
            line.recorded(block.length());
        });
        if (!written) {
            end(line, latest);
        }
    }

    private void end(RecordedLine line, Instant time) {
        CallFile file = line.callFile();
        if (file == null) {
            return;
        }
        attempt("close " + file.path(), file::close);
        boolean logged = attempt("log the call of line " + line.number(),
                () -> log.add(line.number(), file.start(), time, line.caller(), line.digits(),
                        line.bytes(), file.path()));
        if (logged) {
            ++calls;
        }
        line.end();
        tell(line.number(), "call ended, %d bytes in %s".formatted(line.bytes(),
                file.path().getFileName()));
    }

    private void tell(int number, String what) {
        news.accept("line %d: %s".formatted(number, what));
    }

    private interface Step {
        void run() throws IOException;
    }

    private boolean attempt(String what, Step step) {
        try {
            step.run();
            return true;
        } catch (IOException failure) {
            ++failures;
            news.accept("CANNOT " + what + ": " + failure);
            return false;
        }
    }
}
