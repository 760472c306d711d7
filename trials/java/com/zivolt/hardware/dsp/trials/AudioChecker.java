package com.zivolt.hardware.dsp.trials;

import com.zivolt.hardware.dsp.client.AudioBlock;
import com.zivolt.hardware.dsp.client.CardEvent.AudioRecorded;
import java.util.HashMap;
import java.util.Map;

/**
 * Checks the verifiable audio of simulated cards byte by byte, and that the transfers of each card
 * follow each other without a gap, from the first that comes. The audio is words, low byte first:
 * three name card and port and the card's count of its transfers, the rest hash these and the
 * word's place. Used by one thread.
 */
public final class AudioChecker {
    private final Map<Integer, Integer> lastCounter = new HashMap<>();
    private long transfers;
    private long bytes;
    private long wrong;
    private long lost;

    /** The card's count of its transfers, as the audio tells it. */
    public static int counterOf(AudioRecorded audio) {
        AudioBlock block = audio.blocks().get(0);
        return wordAt(block, 1) | wordAt(block, 2) << 16;
    }

    /** The count that a block of this port was sent with; -1 when the card never sent it. */
    public static int counterOf(AudioBlock block, int card, int port) {
        int counter = wordAt(block, 1) | wordAt(block, 2) << 16;
        for (int i = 0; i < block.length() / 2; ++i) {
            if (wordAt(block, i) != word(card << 8 | port, counter, i)) {
                return -1;
            }
        }
        return counter;
    }

    /** Checks the next transfer of any card. */
    public void check(AudioRecorded audio) {
        int card = audio.firstLine() == 0 ? 0 : 1;
        int counter = counterOf(audio);
        Integer last = lastCounter.put(card, counter);
        lost += last != null && counter != last + 1 ? 1 : 0;
        for (int port = 0; port < audio.blocks().size(); ++port) {
            AudioBlock block = audio.blocks().get(port);
            for (int i = 0; i < block.length() / 2; ++i, bytes += 2) {
                int difference = wordAt(block, i) ^ word(card << 8 | port, counter, i);
                wrong += ((difference & 0xFF) != 0 ? 1 : 0) + (difference >> 8 != 0 ? 1 : 0);
            }
        }
        ++transfers;
    }

    /** Transfers checked. */
    public long transfers() {
        return transfers;
    }

    /** Whether every byte of so many cards was in its place, no transfer lost, doubled, swapped. */
    public boolean allWell(int cards) {
        return wrong == 0 && lost == 0 && lastCounter.size() == cards;
    }

    @Override
    public String toString() {
        return "%d transfers of %d cards, %d bytes, %d wrong, %d lost"
                .formatted(transfers, lastCounter.size(), bytes, wrong, lost);
    }

    private static int wordAt(AudioBlock block, int i) {
        return block.byteAt(2 * i) & 0xFF | (block.byteAt(2 * i + 1) & 0xFF) << 8;
    }

    private static int word(int name, int counter, int i) {
        if (i < 3) {
            return new int[] {0xA000 | name, counter & 0xFFFF, counter >>> 16}[i];
        }
        int hash = counter * 0x9E3779B1 + (name << 16 | i);
        hash = (hash ^ hash >>> 16) * 0x85EBCA6B;
        hash = (hash ^ hash >>> 13) * 0xC2B2AE35;
        return (hash ^ hash >>> 16) & 0xFFFF;
    }
}
