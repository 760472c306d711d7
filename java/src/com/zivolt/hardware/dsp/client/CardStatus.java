package com.zivolt.hardware.dsp.client;

import java.time.Instant;
import java.util.Objects;
import java.util.Optional;

/**
 * A card as it stands; see {@link CardClient#cards}.
 *
 * @param card 0 or 1
 * @param firstLine the card's first line, numbered over all cards
 * @param lines how many lines it has, 4 or 8
 * @param state how it is
 * @param lastAudio when its audio came last; empty when none has come
 * @param transfers how many transfers of audio have come
 * @param missed how often the driver told that transfers were missed; after a new boot it does so
 *     one to eight times for no reason, since the cards then count from the start again
 * @param lockUps how many transfers came while the card was locked up
 * @param restarts how often the driver has booted it again
 */
public record CardStatus(int card, int firstLine, int lines, CardState state,
        Optional<Instant> lastAudio, long transfers, long missed, long lockUps, long restarts) {
    /**
     * Checks the values.
     *
     * @param card 0 or 1
     * @param firstLine 0 to 12
     * @param lines 4 or 8
     * @param state not null
     * @param lastAudio not null
     * @param transfers from 0
     * @param missed from 0
     * @param lockUps from 0
     * @param restarts from 0
     */
    public CardStatus {
        Objects.requireNonNull(state, "state");
        Objects.requireNonNull(lastAudio, "lastAudio");
        if (card < 0 || card > 1 || lines != 4 && lines != 8 || LineSettings.checkedLine(firstLine)
                + lines > LineSettings.LINES || Math.min(Math.min(transfers, missed),
                Math.min(lockUps, restarts)) < 0) {
            throw new IllegalArgumentException("No card stands so: card %d, %d lines from %d on,"
                    .formatted(card, lines, firstLine) + " %d transfers, %d missed, %d lock-ups,"
                    .formatted(transfers, missed, lockUps) + " " + restarts + " restarts");
        }
    }
}
