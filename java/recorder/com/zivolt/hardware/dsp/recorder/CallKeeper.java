package com.zivolt.hardware.dsp.recorder;

import com.zivolt.hardware.dsp.client.AudioBlock;
import com.zivolt.hardware.dsp.client.CardEvent;
import com.zivolt.hardware.dsp.client.CardState;
import java.time.Duration;
import java.time.Instant;
import java.util.ArrayList;
import java.util.Collection;
import java.util.Collections;
import java.util.List;
import java.util.SortedMap;
import java.util.TreeMap;
import java.util.function.Consumer;
import java.util.function.LongSupplier;

/**
 * Turns the events of all cards into calls. Audio of a card that does not run is never part of one.
 * A call goes on over a pause of its card, a new boot included, of up to 30 s; what is missing is
 * counted. Writes nothing: what has changed waits in the calls. Without threads, files or clock.
 */
final class CallKeeper {
    private static final long CARD_MAY_PAUSE_MS = 30_000;

    private final LongSupplier ids;
    private final Consumer<String> news;
    private final SmoothTime clock;
    private final SortedMap<Integer, LineCalls> lines = new TreeMap<>();
    private final CardAudio[] cards = {new CardAudio(), new CardAudio()};
    private final List<Call> unwritten = new ArrayList<>();
    private int linesOfFirstCard;
    private CardEvent.AudioRecorded held;
    private long held_ms;
    private int lastCard;

    CallKeeper(LongSupplier ids, Consumer<String> news) {
        this.ids = ids;
        this.news = news;
        this.clock = new SmoothTime(news);
    }

    /** All lines that the cards have told of, in order. */
    Collection<LineCalls> lines() {
        return Collections.unmodifiableCollection(lines.values());
    }

    /** Calls that are not over or not written yet, in the order they began; the taker removes. */
    List<Call> calls() {
        return unwritten;
    }

    void handle(CardEvent event) {
        Instant time = event.time();
        long now_ms = clock.at(time);
        if (event instanceof CardEvent.CardError error) {
            handleError(error);
        } else if (event instanceof CardEvent.CardStateChanged changed) {
            become(changed, now_ms);
        } else {
            releaseHeld();
            if (event instanceof CardEvent.AudioRecorded audio) {
                held = audio;  // the error that says it is no new one would follow at once
                held_ms = now_ms;
            } else if (event instanceof CardEvent.CallStarted started) {
                line(started.line()).triggerRose(time, now_ms, cardOf(started.line()).isRunning());
            } else if (event instanceof CardEvent.CallEnded ended) {
                line(ended.line()).triggerDropped(time, now_ms);
            } else if (event instanceof CardEvent.CallerIdentified identified) {
                line(identified.line()).heardCaller(identified.caller(), time, now_ms);
            } else if (event instanceof CardEvent.DigitsHeard heard) {
                line(heard.line()).heardDigits(heard.digits(), now_ms);
            }
        }
    }

    /** To be called when nothing has come for a while. */
    void timePasses(Instant time) {
        releaseHeld();
        clock.at(time);
        look();
    }

    /** To be called often: what has waited or been away for too long. */
    void look() {
        long now_ms = clock.passed_ms();
        for (LineCalls line : lines.values()) {
            line.timePasses(now_ms);
            CardAudio card = cardOf(line.number());
            if (!card.isRunning() && card.stateAge_ms(now_ms) > CARD_MAY_PAUSE_MS) {
                line.cardIsGone();
            }
        }
    }

    /** So many bytes of each line of a card were dropped: they came faster than they were taken. */
    void lose(int card, long bytes) {
        for (LineCalls line : lines.values()) {
            if (cardNumberOf(line.number()) == card && line.call() != null) {
                line.call().lose(bytes);
            }
        }
    }

    /** Ends what goes on. */
    void end() {
        releaseHeld();
        lines.values().forEach(line -> line.endAll(Outcome.PROCESS_END));
    }

    int cardNumberOf(int line) {
        return linesOfFirstCard > 0 && line >= linesOfFirstCard ? 1 : 0;
    }

    private CardAudio cardOf(int line) {
        return cards[cardNumberOf(line)];
    }

    private LineCalls line(int number) {
        return lines.computeIfAbsent(number, key -> new LineCalls(key,
                (outcome, time, smooth_ms) -> newCall(key, outcome, time, smooth_ms),
                (line, what) -> news.accept("line %d: %s".formatted(line, what))));
    }

    private Call newCall(int line, Outcome outcome, Instant time, long smooth_ms) {
        Call call = new Call(ids.getAsLong(), line, cardNumberOf(line), outcome, time, smooth_ms);
        unwritten.add(call);
        return call;
    }

    private void handleError(CardEvent.CardError error) {
        boolean locked = error.kind() == CardEvent.ErrorKind.LOCKED_UP;
        if (locked) {
            held = null;  // the same transfer once more
        }
        releaseHeld();
        CardAudio card = cards[lastCard];
        if (error.kind() == CardEvent.ErrorKind.MISSED_TRANSFER && card.isRunning()) {
            long missed = card.missedOneMore();
            if (missed > 0) {
                miss(lastCard, missed, card.missingTime());
            }
        }
    }

    private void releaseHeld() {
        CardEvent.AudioRecorded audio = held;
        held = null;
        if (audio == null) {
            return;
        }
        lastCard = audio.firstLine() == 0 ? 0 : 1;
        linesOfFirstCard = lastCard == 0 ? audio.blocks().size() : audio.firstLine();
        CardAudio card = cards[lastCard];
        long missing = card.isRunning() ? card.transferCame(held_ms) : 0;
        if (missing > 0) {
            miss(lastCard, missing, card.missingTime());
        }
        int number = audio.firstLine();
        for (AudioBlock block : audio.blocks()) {
            LineCalls line = line(number++);
            if (card.isRunning()) {
                line.hear(block, audio.time(), held_ms);
            }
        }
    }

    private void become(CardEvent.CardStateChanged changed, long now_ms) {
        CardAudio card = cards[changed.card()];
        if (changed.state() != CardState.RUNNING) {
            releaseHeld();
        }
        card.become(changed.state(), now_ms);
        for (LineCalls line : lines.values()) {
            if (cardOf(line.number()) != card) {
                continue;
            }
            if (card.isRunning()) {
                line.cardRuns(changed.time(), now_ms);
            } else if (changed.state() == CardState.NOT_RUNNING
                    || changed.state() == CardState.ABSENT) {
                line.cardIsGone();
            }
        }
        releaseHeld();  // what shows that the card runs is heard
    }

    private void miss(int card, long transfers, Duration time) {
        for (LineCalls line : lines.values()) {
            if (cardNumberOf(line.number()) == card) {
                line.miss(transfers, time, held_ms);
            }
        }
    }
}
