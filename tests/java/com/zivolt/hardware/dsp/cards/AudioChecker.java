package com.zivolt.hardware.dsp.cards;

import com.zivolt.hardware.dsp.client.CardEvent.AudioRecorded;
import java.util.HashMap;
import java.util.Map;

/**
 * Checks recorded audio against the pattern, byte by byte, and that the transfers of each card
 * follow each other without a gap. Used by one thread.
 */
final class AudioChecker {
    private final Map<Integer, Integer> lastCounter = new HashMap<>();
    private long transfers;
    private long bytes;
    private long badBytes;
    private long outOfSequence;

    /** A card is known by its first line; card 0 begins at line 0. */
    static int cardOf(AudioRecorded audio) {
        return audio.firstChannel() == 0 ? 0 : 1;
    }

    void check(AudioRecorded audio) {
        int card = cardOf(audio);
        int counter = AudioPattern.counterOf(audio.blocks().get(0));
        Integer last = lastCounter.put(card, counter);
        if (last != null && counter != last + 1) {
            ++outOfSequence;
        }
        for (int port = 0; port < audio.blocks().size(); ++port) {
            bytes += audio.blocks().get(port).length();
            badBytes += AudioPattern.badBytes(audio.blocks().get(port), card, port, counter);
        }
        ++transfers;
    }

    long transfers() {
        return transfers;
    }

    int cards() {
        return lastCounter.size();
    }

    /** Whether every byte was in its place and no transfer lost, doubled or out of order. */
    boolean allWell() {
        return badBytes == 0 && outOfSequence == 0;
    }

    @Override
    public String toString() {
        return "%d transfers of %d cards, %d bytes: %d bytes wrong, %d transfers out of sequence"
                .formatted(transfers, cards(), bytes, badBytes, outOfSequence);
    }
}
