package com.zivolt.hardware.dsp.client;

import com.zivolt.hardware.dsp.client.CardEvent.AudioRecorded;
import com.zivolt.hardware.dsp.client.CardEvent.CardStateChanged;
import java.time.Instant;
import java.util.List;
import java.util.Optional;

/**
 * One card, and what shows how it is; see {@link CardWatch}. Times in milliseconds are of smooth
 * time.
 *
 * <p>A card whose boot failed may seem to deliver: the busy bit of its boot looks like a buffer
 * that is handed over, whenever the driver looks, and the buffer never changes. So a card is only
 * taken for a running one when a transfer differs from the one before, or when the same one comes
 * again and again but more slowly than the driver looks: then the lines are as quiet as that. The
 * driver looks ten times a second, and serves the other card at five of these at most; no card
 * fills a buffer in less than {@link #FASTEST_CARD_MS}.
 */
final class WatchedCard {
    private static final long SILENT_AFTER_MS = 3_000;
    private static final long BOOTED_WITHIN_MS = 7_000;
    private static final long BOOTED_AGAIN_WITHIN_MS = 8_000;
    private static final long FASTEST_CARD_MS = 205;
    private static final int REPEATS_TO_JUDGE = 20;
    private static final long LONGEST_JUDGEMENT_MS = 5_000;

    private enum Comparison { NONE, SAME, OTHER }

    private final int number;
    private final int firstLine;
    private final int lines;
    private CardState told = CardState.STARTING;
    private CardState state = CardState.STARTING;
    private String reason = "";
    private long deadline_ms;  // until then a boot may take
    private boolean ran;  // since its last boot
    private boolean locked;  // since its last transfer
    private long lastAudio_ms;
    private Optional<Instant> lastAudio = Optional.empty();
    private List<AudioBlock> last;  // null when there is nothing to compare the next transfer with
    private Comparison comparison = Comparison.NONE;  // of the last transfer with the one before
    private int repeats;
    private long repeated_ms;
    private long transfers;
    private long missed;
    private long lockUps;

    WatchedCard(int number, int firstLine, int lines, long started_ms) {
        this.number = number;
        this.firstLine = firstLine;
        this.lines = lines;
        lastAudio_ms = started_ms;
        deadline_ms = started_ms + BOOTED_WITHIN_MS;
    }

    int lines() {
        return lines;
    }

    void delivers(AudioRecorded audio, long now_ms) {
        ++transfers;
        if (state != CardState.RUNNING) {
            compare(audio.blocks(), now_ms - lastAudio_ms);
        }
        locked = false;
        lastAudio_ms = now_ms;
        lastAudio = Optional.of(audio.time());
    }

    private void compare(List<AudioBlock> audio, long after_ms) {
        comparison = last == null ? Comparison.NONE
                : audio.equals(last) ? Comparison.SAME : Comparison.OTHER;
        last = audio;
        if (comparison == Comparison.SAME) {
            ++repeats;
            repeated_ms += after_ms;
            judgeRepeats();
        } else {
            forgetRepeats();
        }
        if (comparison == Comparison.OTHER && !locked) {
            become(CardState.RUNNING, "its audio comes");
        }
    }

    private void judgeRepeats() {
        if (repeats < REPEATS_TO_JUDGE && repeated_ms < LONGEST_JUDGEMENT_MS) {
            return;
        }
        if (repeated_ms < repeats * FASTEST_CARD_MS) {
            become(CardState.NOT_RUNNING, "it hands over the same transfer whenever it is asked");
        } else if (!locked) {
            become(CardState.RUNNING, "its audio comes, always the same");
        }
        forgetRepeats();
    }

    private void forgetRepeats() {
        repeats = 0;
        repeated_ms = 0;
    }

    void missed() {
        ++missed;
    }

    void lockedUp(String message) {
        ++lockUps;
        locked = true;
        if (ran || comparison == Comparison.OTHER) {
            become(CardState.LOCKED_UP, message);
        } else if (comparison == Comparison.SAME) {
            become(CardState.NOT_RUNNING, "it hands over the same transfer since it was booted");
        }
    }

    /** A card that is not running stays so until it shows that the new boot has helped. */
    void restarts(long now_ms) {
        ran = false;
        deadline_ms = now_ms + BOOTED_AGAIN_WITHIN_MS;
        if (state != CardState.NOT_RUNNING) {
            forgetTransfers();
            become(CardState.RESTARTING, "the driver boots all cards again");
        }
    }

    void look(long now_ms) {
        boolean booting = state == CardState.STARTING || state == CardState.RESTARTING;
        if (now_ms - lastAudio_ms < SILENT_AFTER_MS || booting && now_ms < deadline_ms) {
            return;
        }
        if (booting) {
            become(CardState.NOT_RUNNING, "nothing comes from it since it was booted");
        } else if (state != CardState.NOT_RUNNING) {
            become(CardState.SILENT, "no audio for three seconds");
        }
    }

    private void become(CardState next, String why) {
        state = next;
        reason = why;
        if (next == CardState.RUNNING) {
            ran = true;
            forgetTransfers();
        }
    }

    private void forgetTransfers() {
        last = null;
        comparison = Comparison.NONE;
        forgetRepeats();
    }

    /** The change since the last call; null when there is none. */
    CardStateChanged takeChange(Instant now) {
        if (state == told) {
            return null;
        }
        CardStateChanged change = new CardStateChanged(now, number, told, state, reason);
        told = state;
        return change;
    }

    CardStatus status(long restarts) {
        return new CardStatus(number, firstLine, lines, state, lastAudio, transfers, missed,
                lockUps, restarts);
    }
}
