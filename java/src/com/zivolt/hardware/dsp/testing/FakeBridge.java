package com.zivolt.hardware.dsp.testing;

import static java.nio.charset.StandardCharsets.ISO_8859_1;

import com.zivolt.hardware.dsp.client.AudioBlock;
import com.zivolt.hardware.dsp.client.CardEvent;
import com.zivolt.hardware.dsp.client.LineSettings;
import com.zivolt.hardware.dsp.cppint.CardBridge;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.time.Instant;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Objects;
import java.util.Queue;

/**
 * Stands in for the driver in tests of an application: the test says what the cards report, and
 * sees what the application sent. Needs neither cards nor the driver's library. May be used by any
 * thread.
 *
 * <pre>{@code
 * FakeBridge bridge = new FakeBridge(4, 8);
 * CardClient client = new CardClient(bridge);
 * new MyApplication(client).run();
 * bridge.report(new CardEvent.CallStarted(Instant.now(), 3));
 * assertTrue(bridge.commands().contains(new FakeBridge.RecordingSwitched(true)));
 * }</pre>
 */
public final class FakeBridge implements CardBridge {
    private static final int HEADER_LENGTH = 11;

    private final int[] linesOfCards;
    private final Queue<byte[]> frames = new ArrayDeque<>();
    private final List<Command> commands = new ArrayList<>();

    /**
     * Cards with that many lines.
     *
     * @param linesOfCards of none, one or two cards, card 0 first: 4 or 8
     */
    public FakeBridge(int... linesOfCards) {
        if (Objects.requireNonNull(linesOfCards, "linesOfCards").length > 2
                || Arrays.stream(linesOfCards).anyMatch(lines -> lines != 4 && lines != 8)) {
            throw new IllegalArgumentException("There are up to two cards of 4 or 8 lines, not "
                    + Arrays.toString(linesOfCards));
        }
        this.linesOfCards = linesOfCards.clone();
    }

    /** What an application has called or sent. */
    public sealed interface Command {
    }

    /** The cards were started. */
    public record Started() implements Command {
    }

    /**
     * Recording was switched.
     *
     * @param on or off
     */
    public record RecordingSwitched(boolean on) implements Command {
    }

    /**
     * A line is to be heard.
     *
     * @param line -1 for none
     */
    public record Monitored(int line) implements Command {
    }

    /**
     * Playback was switched.
     *
     * @param on or off
     */
    public record PlaybackSwitched(boolean on) implements Command {
    }

    /**
     * Settings were sent.
     *
     * @param settings of all lines
     */
    public record SettingsApplied(LineSettings settings) implements Command {
        /**
         * Checks the value.
         *
         * @param settings not null
         */
        public SettingsApplied {
            Objects.requireNonNull(settings, "settings");
        }
    }

    /**
     * Audio was sent to be played.
     *
     * @param audio up to 600 bytes
     */
    public record AudioPlayed(AudioBlock audio) implements Command {
        /**
         * Checks the value.
         *
         * @param audio not null
         */
        public AudioPlayed {
            Objects.requireNonNull(audio, "audio");
        }
    }

    /**
     * What was not refused so far, in order.
     *
     * @return a new list
     */
    public synchronized List<Command> commands() {
        return List.copyOf(commands);
    }

    /**
     * The next event that the application gets.
     *
     * @param event one that the driver tells; of {@link CardEvent.UnreadableFrame} the frame counts
     * @throws IllegalArgumentException for {@link CardEvent.CardStateChanged}, which the client
     *     makes by itself
     */
    public synchronized void report(CardEvent event) {
        frames.add(frame(Objects.requireNonNull(event, "event")));
    }

    private static byte[] frame(CardEvent event) {
        if (event instanceof CardEvent.CallStarted started) {
            return frame(1, event.time(), 1, started.line(), new byte[0]);
        } else if (event instanceof CardEvent.CallEnded ended) {
            return frame(1, event.time(), 0, ended.line(), new byte[0]);
        } else if (event instanceof CardEvent.CallerIdentified identified) {
            return frame(2, event.time(), identified.line(), identified.caller());
        } else if (event instanceof CardEvent.DigitsHeard heard) {
            return frame(3, event.time(), heard.line(), heard.digits());
        } else if (event instanceof CardEvent.AudioRecorded audio) {
            return frame(4, event.time(), audio.blocks().size(), audio.firstLine(), bytes(audio));
        } else if (event instanceof CardEvent.CardError error) {
            return frame(7, event.time(), error.code(), error.message());
        } else if (event instanceof CardEvent.UnreadableFrame unreadable) {
            return unreadable.frame();
        }
        throw new IllegalArgumentException("The driver does not tell: " + event);
    }

    private static byte[] frame(int type, Instant time, int first, String text) {
        return frame(type, time, first, text.length(), text.getBytes(ISO_8859_1));
    }

    private static byte[] frame(int type, Instant time, int first, int second, byte[] rest) {
        return ByteBuffer.allocate(HEADER_LENGTH + 2 + rest.length)
                .order(ByteOrder.LITTLE_ENDIAN).put((byte) type).putShort((short) (2 + rest.length))
                .putLong(time.toEpochMilli()).put((byte) first).put((byte) second).put(rest)
                .array();
    }

    private static byte[] bytes(CardEvent.AudioRecorded audio) {
        ByteBuffer bytes = ByteBuffer.allocate(
                audio.blocks().stream().mapToInt(AudioBlock::length).sum());
        audio.blocks().forEach(block -> bytes.put(block.toByteArray()));
        return bytes.array();
    }

    @Override
    public synchronized void initialize() {
        commands.add(new Started());
    }

    @Override
    public synchronized void startRecording() {
        commands.add(new RecordingSwitched(true));
    }

    @Override
    public synchronized void stopRecording() {
        commands.add(new RecordingSwitched(false));
    }

    @Override
    public synchronized void setMonitoring(int monitorChannel) {
        commands.add(new Monitored(monitorChannel));
    }

    @Override
    public int getNumberOfChannels(int boardNumber) {
        return boardNumber >= 0 && boardNumber < linesOfCards.length
                ? linesOfCards[boardNumber] : 0;
    }

    @Override
    public synchronized void setPlayback(boolean playback) {
        commands.add(new PlaybackSwitched(playback));
    }

    @Override
    public synchronized byte[] getPacket() {
        return frames.poll();
    }

    /**
     * Notes the command.
     *
     * @throws IllegalArgumentException for what the driver would refuse, or take for something else
     */
    @Override
    public synchronized void putPacket(byte packetType, int length, byte[] data) {
        if (data == null || length < 0 || length > data.length) {
            throw new IllegalArgumentException("Not the length of the data: " + length);
        }
        byte[] counted = Arrays.copyOf(data, length);
        commands.add(switch (packetType) {
            case 5 -> new AudioPlayed(AudioBlock.of(counted));
            case 6 -> new SettingsApplied(LineSettings.ofBytes(counted));
            default -> throw new IllegalArgumentException("No command has type " + packetType);
        });
    }
}
