package com.zivolt.hardware.dsp.client;

import java.time.Instant;
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
}
