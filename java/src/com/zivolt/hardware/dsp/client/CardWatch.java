package com.zivolt.hardware.dsp.client;

import com.zivolt.hardware.dsp.client.CardEvent.AudioRecorded;
import com.zivolt.hardware.dsp.client.CardEvent.CardError;
import com.zivolt.hardware.dsp.client.CardEvent.CardStateChanged;
import java.time.Instant;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.List;
import java.util.Queue;

/**
 * Tells from the events how the cards are. Has no thread and no clock: whoever takes the events
 * shows it each of them, in order, and the time whenever none waits. Used by one thread at a time.
 *
 * <p>An error does not name its card. But the driver exchanges one buffer at a time, and queues the
 * audio first and its errors after it, so that an error is of the card whose audio came last.
 */
final class CardWatch {
    /** As many cards as there can be. */
    static final int CARDS = 2;

    private static final long CARDS_FOUND_AFTER_MS = 1_000;
    private static final int LOCK_UPS_TO_BOOT = 7;

    private final SmoothTime smoothTime = new SmoothTime();
    private final List<WatchedCard> cards = new ArrayList<>();
    private final Queue<CardStateChanged> changes = new ArrayDeque<>();
    private boolean started;
    private boolean found;
    private long started_ms;
    private long now_ms;
    private WatchedCard latest;
    private String trouble = "no card answers";
    private int lockUps;
    private long restarts;

    /** The cards are being started. Further calls do nothing. */
    void start(Instant now) {
        now_ms = smoothTime.at(now);
        if (!started) {
            started = true;
            started_ms = now_ms;
        }
    }

    /** Whether to ask the driver which cards there are, and to tell {@link #found}. */
    boolean wantsCards(boolean atOnce) {
        return !found && (atOnce || started && now_ms - started_ms >= CARDS_FOUND_AFTER_MS);
    }

    /** How many lines each card has; 0 for a card that is not there. */
    void found(Instant now, int[] linesOfCards) {
        found = true;
        int firstLine = 0;
        for (int card = 0; card < linesOfCards.length && linesOfCards[card] > 0; ++card) {
            cards.add(new WatchedCard(card, firstLine, linesOfCards[card], started_ms));
            firstLine += linesOfCards[card];
        }
        if (cards.isEmpty()) {
            changes.add(new CardStateChanged(now, 0, CardState.STARTING, CardState.ABSENT,
                    trouble));
        }
    }

    /** The time, when no event waits. */
    void look(Instant now) {
        now_ms = smoothTime.at(now);
        for (WatchedCard card : cards) {
            card.look(now_ms);
            noteChange(card, now);
        }
    }

    /** An event of the driver's. */
    void observe(CardEvent event) {
        start(event.time());
        if (event instanceof AudioRecorded audio && audio.card() < cards.size()) {
            latest = cards.get(audio.card());
            latest.delivers(audio, now_ms);
        } else if (event instanceof CardError error) {
            observe(error);
        }
        look(event.time());
    }

    private void observe(CardError error) {
        switch (error.kind()) {
            case MEMORY_NOT_MAPPED -> trouble = error.message();
            case MISSED_TRANSFER -> {
                if (latest != null) {
                    latest.missed();
                }
            }
            case LOCKED_UP -> {
                if (latest != null) {
                    latest.lockedUp(error.message());
                    noteChange(latest, error.time());
                }
                if (++lockUps == LOCK_UPS_TO_BOOT) {
                    restart();
                }
            }
            default -> { }
        }
    }

    /** What comes from now on comes after the new boot: the driver's one thread is busy with it. */
    private void restart() {
        lockUps = 0;
        ++restarts;
        cards.forEach(card -> card.restarts(now_ms));
    }

    private void noteChange(WatchedCard card, Instant now) {
        CardStateChanged change = card.takeChange(now);
        if (change != null) {
            changes.add(change);
        }
    }

    /** The oldest change that has not been taken yet; null when there is none. */
    CardStateChanged takeChange() {
        return changes.poll();
    }

    /** How often the driver has booted the cards again. */
    long restarts() {
        return restarts;
    }

    /** The number of lines of all cards; 0 while it is not known. */
    int lines() {
        return cards.stream().mapToInt(WatchedCard::lines).sum();
    }

    /** The cards that there are, as they stand; none until they have been found. */
    List<CardStatus> status() {
        return cards.stream().map(card -> card.status(restarts)).toList();
    }
}
