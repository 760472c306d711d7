package com.zivolt.hardware.dsp.check;

import com.zivolt.hardware.dsp.client.AudioBlock;

/**
 * The verifiable audio of the simulated cards: words, low byte first, of which the first three name
 * the card and port and the transfer's counter, and the rest hash these and the word's place.
 */
final class AudioPattern {
    private static final int NAME_WORDS = 3;

    private AudioPattern() {
    }

    /** The counter that a block says it belongs to. */
    static int counterOf(AudioBlock block) {
        return wordOf(block, 1) | wordOf(block, 2) << 16;
    }

    /** The number of bytes of a block that are not what they should be. */
    static int badBytes(AudioBlock block, int card, int port, int counter) {
        int bad = 0;
        for (int position = 0; position < block.length() / 2; ++position) {
            int difference = wordOf(block, position) ^ word(card, port, counter, position);
            bad += ((difference & 0xFF) != 0 ? 1 : 0) + (difference >> 8 != 0 ? 1 : 0);
        }
        return bad;
    }

    private static int wordOf(AudioBlock block, int position) {
        return Byte.toUnsignedInt(block.byteAt(2 * position))
                | Byte.toUnsignedInt(block.byteAt(2 * position + 1)) << 8;
    }

    private static int word(int card, int port, int counter, int position) {
        if (position < NAME_WORDS) {
            return switch (position) {
                case 0 -> 0xA000 | card << 8 | port;
                case 1 -> counter & 0xFFFF;
                default -> counter >>> 16;
            };
        }
        int hash = counter * 0x9E3779B1 + (card << 24 | port << 16 | position);
        hash = (hash ^ hash >>> 16) * 0x85EBCA6B;
        hash = (hash ^ hash >>> 13) * 0xC2B2AE35;
        return (hash ^ hash >>> 16) & 0xFFFF;
    }
}
