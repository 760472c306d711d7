package com.zivolt.hardware.dsp.client;

import com.zivolt.hardware.dsp.client.CardEvent.AudioRecorded;
import com.zivolt.hardware.dsp.client.CardEvent.CardStateChanged;
import com.zivolt.hardware.dsp.cppint.CardBridge;
import java.time.Instant;
import java.time.InstantSource;
import java.util.ArrayDeque;
import java.util.Deque;
import java.util.List;
import java.util.stream.IntStream;

/**
 * Takes the driver's frames, makes events of them, and puts among these what the client itself has
 * seen. May be used by any thread; events are in order as long as one thread takes them.
 */
final class EventReader {
    private final CardBridge bridge;
    private final InstantSource clock;
    private final SentAgain sentAgain;
    private final CardWatch watch = new CardWatch();
    private final Deque<CardEvent> ready = new ArrayDeque<>();

    EventReader(CardBridge bridge, InstantSource clock, SentAgain sentAgain) {
        this.bridge = bridge;
        this.clock = clock;
        this.sentAgain = sentAgain;
    }

    synchronized void start() {
        watch.start(clock.instant());
    }

    /** The next event; null when none waits. */
    synchronized CardEvent next() {
        if (ready.isEmpty()) {
            readFrame();
        }
        return ready.poll();
    }

    /** An event that was taken and is to be the next one again. */
    synchronized void giveBack(CardEvent event) {
        ready.addFirst(event);
    }

    synchronized List<CardStatus> cards() {
        return watch.status();
    }

    synchronized int lines() {
        return watch.lines();
    }

    private void readFrame() {
        Instant before = clock.instant();  // nothing that comes later happened before it
        byte[] frame = bridge.getPacket();
        if (frame == null) {
            watch.look(before);
            sentAgain.observeNone();
            askForCards(before, false);
        } else {
            CardEvent event = decoded(frame, before);
            ready.add(event);
            askForCards(before, event instanceof AudioRecorded);
            watch.observe(event);
            sentAgain.observe(event, watch.restarts());
        }
        CardStateChanged change = watch.takeChange();
        for (; change != null; change = watch.takeChange()) {
            ready.add(change);
        }
    }

    private static CardEvent decoded(byte[] frame, Instant now) {
        try {
            return FrameDecoder.decode(frame);
        } catch (BadFrameException nonsense) {
            return new CardEvent.UnreadableFrame(now, frame, nonsense.getMessage());
        }
    }

    private void askForCards(Instant now, boolean atOnce) {
        if (watch.wantsCards(atOnce)) {
            watch.found(now, IntStream.range(0, CardWatch.CARDS)
                    .map(bridge::getNumberOfChannels).toArray());
        }
    }
}
