package com.zivolt.hardware.dsp.client;

import java.time.Instant;
import java.util.Arrays;
import java.util.List;
import java.util.Objects;

/**
 * What the cards report, and what the client has seen of them. Lines are numbered over all cards, 0
 * to 15: the lines of the second card follow those of the first. An event with a value that no card
 * reports cannot be made: that throws an {@link IllegalArgumentException}, or a
 * {@link NullPointerException} for null.
 *
 * <p>The events of one transfer of one card come in this order: starts and ends of calls, then line
 * by line digits and caller identification, then the audio of all lines of the card, then
 * errors, then what changes of the card's state.
 */
public sealed interface CardEvent {
    /** The longest text of an event. */
    int MAX_CHARACTERS = 50;

    /**
     * When the driver heard of it, by the system clock; of what the client has seen, when it did.
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
        /**
         * Checks the values.
         *
         * @param time see {@link CardEvent#time}
         * @param line 0 to 15
         */
        public CallStarted {
            Objects.requireNonNull(time, "time");
            LineSettings.checkedLine(line);
        }
    }

    /**
     * A line's trigger dropped: the call ended.
     *
     * @param time see {@link CardEvent#time}
     * @param line 0 to 15
     */
    record CallEnded(Instant time, int line) implements CardEvent {
        /**
         * Checks the values.
         *
         * @param time see {@link CardEvent#time}
         * @param line 0 to 15
         */
        public CallEnded {
            Objects.requireNonNull(time, "time");
            LineSettings.checkedLine(line);
        }
    }

    /**
     * The caller was identified, as a rule while the line rings, so before the call starts.
     *
     * @param time see {@link CardEvent#time}
     * @param line 0 to 15
     * @param caller the text as it came over the line, one char a byte; up to 50
     */
    record CallerIdentified(Instant time, int line, String caller) implements CardEvent {
        /**
         * Checks the values.
         *
         * @param time see {@link CardEvent#time}
         * @param line 0 to 15
         * @param caller up to 50 characters, one byte each
         */
        public CallerIdentified {
            Objects.requireNonNull(time, "time");
            LineSettings.checkedLine(line);
            requireText(caller, "caller");
        }
    }

    /**
     * Telephone keys were heard.
     *
     * @param time see {@link CardEvent#time}
     * @param line 0 to 15
     * @param digits the keys in order, one char each; up to 50
     */
    record DigitsHeard(Instant time, int line, String digits) implements CardEvent {
        /**
         * Checks the values.
         *
         * @param time see {@link CardEvent#time}
         * @param line 0 to 15
         * @param digits up to 50 characters, one byte each
         */
        public DigitsHeard {
            Objects.requireNonNull(time, "time");
            LineSettings.checkedLine(line);
            requireText(digits, "digits");
        }
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
        private static final int BYTES = 2400;

        /**
         * Keeps an unmodifiable copy of the list.
         *
         * @param time see {@link CardEvent#time}
         * @param firstLine the line of the first block
         * @param blocks the blocks in line order
         */
        public AudioRecorded {
            Objects.requireNonNull(time, "time");
            Objects.requireNonNull(blocks, "blocks").forEach(
                    block -> Objects.requireNonNull(block, "block"));
            blocks = List.copyOf(blocks);
            int lines = blocks.size();
            require(lines == 4 || lines == 8, "A card has 4 or 8 lines, not %d", lines);
            require(firstLine >= 0 && firstLine + lines <= LineSettings.LINES,
                    "A card of %d lines cannot begin at line %d", lines, firstLine);
            for (AudioBlock block : blocks) {
                require(block.length() == BYTES / lines, "A block of a card of %d lines has %d"
                        + " bytes, not %d", lines, BYTES / lines, block.length());
            }
        }

        /**
         * The card that the audio comes from.
         *
         * @return 0 or 1
         */
        public int card() {
            return firstLine == 0 ? 0 : 1;
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
         * Checks the values.
         *
         * @param time see {@link CardEvent#time}
         * @param code 0 to 255
         * @param message up to 50 characters, one byte each
         */
        public CardError {
            Objects.requireNonNull(time, "time");
            require(code >= 0 && code <= 255, "Codes are 0 to 255, not %d", code);
            requireText(message, "message");
        }

        /**
         * The code, named.
         *
         * @return {@link ErrorKind#OTHER} when this client does not know the code
         */
        public ErrorKind kind() {
            return ErrorKind.ofCode(code);
        }
    }

    /**
     * A card is no longer as it was. Seen by the client, not told by the driver.
     *
     * @param time see {@link CardEvent#time}
     * @param card 0 or 1
     * @param before how it was
     * @param state how it is now
     * @param reason what shows it, in words
     */
    record CardStateChanged(Instant time, int card, CardState before, CardState state,
            String reason) implements CardEvent {
        /**
         * Checks the values.
         *
         * @param time see {@link CardEvent#time}
         * @param card 0 or 1
         * @param before how it was
         * @param state how it is now, which is something else
         * @param reason what shows it, in words
         */
        public CardStateChanged {
            Objects.requireNonNull(time, "time");
            Objects.requireNonNull(before, "before");
            Objects.requireNonNull(state, "state");
            Objects.requireNonNull(reason, "reason");
            require(card == 0 || card == 1, "Cards are 0 and 1, not %d", card);
            require(before != state, "A card that was %s before has not changed", before);
        }
    }

    /**
     * The driver delivered what makes no sense as an event. Library and jar are then most likely of
     * different builds.
     *
     * @param time see {@link CardEvent#time}
     * @param frame what it delivered
     * @param reason what is wrong with it, in words
     */
    record UnreadableFrame(Instant time, byte[] frame, String reason) implements CardEvent {
        /**
         * Keeps a copy of the frame.
         *
         * @param time see {@link CardEvent#time}
         * @param frame what the driver delivered
         * @param reason what is wrong with it, in words
         */
        public UnreadableFrame {
            Objects.requireNonNull(time, "time");
            frame = Objects.requireNonNull(frame, "frame").clone();
            Objects.requireNonNull(reason, "reason");
        }

        /**
         * What the driver delivered.
         *
         * @return a new array
         */
        @Override
        public byte[] frame() {
            return frame.clone();
        }

        @Override
        public boolean equals(Object other) {
            return other instanceof UnreadableFrame that && time.equals(that.time)
                    && Arrays.equals(frame, that.frame) && reason.equals(that.reason);
        }

        @Override
        public int hashCode() {
            return Objects.hash(time, Arrays.hashCode(frame), reason);
        }

        @Override
        public String toString() {
            return "UnreadableFrame[time=%s, %d bytes, reason=%s]"
                    .formatted(time, frame.length, reason);
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

    private static void requireText(String text, String what) {
        Objects.requireNonNull(text, what);
        require(text.length() <= MAX_CHARACTERS, "The %s has %d characters; at most %d fit", what,
                text.length(), MAX_CHARACTERS);
        require(text.chars().allMatch(character -> character <= 0xFF),
                "The %s has characters of more than one byte: %s", what, text);
    }

    private static void require(boolean so, String otherwise, Object... values) {
        if (!so) {
            throw new IllegalArgumentException(otherwise.formatted(values));
        }
    }
}
