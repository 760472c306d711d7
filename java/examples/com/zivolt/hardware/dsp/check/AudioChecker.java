package com.zivolt.hardware.dsp.check;

import com.zivolt.hardware.dsp.client.CardEvent.AudioRecorded;
import java.util.HashMap;
import java.util.Map;

/**
 * Checks recorded audio against the pattern, byte by byte, and that the transfers of each card
 * follow each other without a gap. Used by one thread.
 */
public final class AudioChecker {
    private final Map<Integer, Integer> lastCounter = new HashMap<>();
    private long transfers;
    private long bytes;
    private long badBytes;
    private long outOfSequence;

    /** Begins with the first transfer that comes, whatever its counter. */
    public AudioChecker() {
    }

    /**
     * The card that a transfer came from; card 0 begins at line 0.
     *
     * @param audio any transfer
     * @return 0 or 1
     */
    public static int cardOf(AudioRecorded audio) {
        return audio.firstChannel() == 0 ? 0 : 1;
    }

    /**
     * The card's count of its transfers, as the audio tells it.
     *
     * @param audio a transfer with verifiable audio
     * @return one more than in the card's transfer before
     */
    public static int counterOf(AudioRecorded audio) {
        return AudioPattern.counterOf(audio.blocks().get(0));
    }

    /**
     * Checks the next transfer.
     *
     * @param audio what was recorded
     */
    public void check(AudioRecorded audio) {
        int card = cardOf(audio);
        int counter = counterOf(audio);
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

    /**
     * How many were checked.
     *
     * @return number of transfers of all cards
     */
    public long transfers() {
        return transfers;
    }

    /**
     * How many cards have been heard.
     *
     * @return number of cards
     */
    public int cards() {
        return lastCounter.size();
    }

    /**
     * Whether every byte was in its place and no transfer lost, doubled or out of order.
     *
     * @return true when nothing was found
     */
    public boolean allWell() {
        return badBytes == 0 && outOfSequence == 0;
    }

    @Override
    public String toString() {
        return "%d transfers of %d cards, %d bytes: %d bytes wrong, %d transfers out of sequence"
                .formatted(transfers, cards(), bytes, badBytes, outOfSequence);
    }
}
