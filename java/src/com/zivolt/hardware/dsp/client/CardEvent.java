package com.zivolt.hardware.dsp.client;

import java.time.Instant;
import java.util.List;

/**
 * What the cards report. Lines are numbered over all cards, 0 to 15: the lines of the second card
 * follow those of the first.
 *
 * <p>The events of one transfer of one card come in this order: starts and ends of calls, then line
 * by line digits and caller identification, then the audio of all lines of the card.
 */
public sealed interface CardEvent {
    /**
     * When the driver heard of it, by the system clock.
     *
     * @return the time, exact to the millisecond
     */
    Instant time();

    /**
     * A line's trigger rose: a call starts. The audio that starts it is in the transfer's
     * {@link AudioRecorded}, which follows.
     *
     * @param time see {@link CardEvent#time}
     * @param line 0 to 15
     */
    record CallStarted(Instant time, int line) implements CardEvent {
    }

    /**
     * A line's trigger dropped: the call ended.
     *
     * @param time see {@link CardEvent#time}
     * @param line 0 to 15
     */
    record CallEnded(Instant time, int line) implements CardEvent {
    }

    /**
     * The caller was identified, as a rule while the line rings, so before the call starts.
     *
     * @param time see {@link CardEvent#time}
     * @param line 0 to 15
     * @param caller the text as it came over the line, one char a byte; up to 50
     */
    record CallerIdentified(Instant time, int line, String caller) implements CardEvent {
    }

    /**
     * Telephone keys were heard.
     *
     * @param time see {@link CardEvent#time}
     * @param line 0 to 15
     * @param digits the keys in order, one char each; up to 50
     */
    record DigitsHeard(Instant time, int line, String digits) implements CardEvent {
    }

    /**
     * The audio of all lines of a card from one transfer, whether or not there is a call.
     *
     * @param time see {@link CardEvent#time}
     * @param firstLine the line of the first block, 0 to 12
     * @param blocks 4 blocks of 600 bytes or 8 blocks of 300 bytes, one a line, in line order
     */
    record AudioRecorded(Instant time, int firstLine, List<AudioBlock> blocks)
            implements CardEvent {
        /**
         * Keeps an unmodifiable copy of the list.
         *
         * @param time see {@link CardEvent#time}
         * @param firstLine the line of the first block
         * @param blocks the blocks in line order
         */
        public AudioRecorded {
            blocks = List.copyOf(blocks);
        }
    }

    /**
     * Trouble with a card.
     *
     * @param time see {@link CardEvent#time}
     * @param code what kind of trouble, 0 to 255; see {@link #kind}
     * @param message what the card's driver says about it; up to 50 characters
     */
    record CardError(Instant time, int code, String message) implements CardEvent {
        /**
         * The code, named.
         *
         * @return {@link ErrorKind#OTHER} when this client does not know the code
         */
        public ErrorKind kind() {
            return ErrorKind.ofCode(code);
        }
    }

    /** The kinds of trouble with a card. */
    enum ErrorKind {
        /** A transfer was lost: a piece of audio of every line of the card is missing. */
        MISSED_TRANSFER,
        /** The host was slower than the card: the audio of a transfer may be damaged. */
        TOO_SLOW,
        /** The card has stopped working; after several of these the driver restarts the cards. */
        LOCKED_UP,
        /** The cards' memory cannot be reached: nothing will be recorded. */
        MEMORY_NOT_MAPPED,
        /** A code that this client does not know. */
        OTHER;

        static ErrorKind ofCode(int code) {
            return switch (code) {
                case 1 -> MISSED_TRANSFER;
                case 2 -> TOO_SLOW;
                case 3 -> LOCKED_UP;
                case 4 -> MEMORY_NOT_MAPPED;
                default -> OTHER;
            };
        }
    }
}
