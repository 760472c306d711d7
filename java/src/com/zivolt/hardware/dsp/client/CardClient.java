package com.zivolt.hardware.dsp.client;

import com.zivolt.hardware.dsp.cppint.CPPBridge;
import java.time.Duration;
import java.util.Arrays;
import java.util.Objects;
import java.util.Optional;

/**
 * The line cards, for applications that want events and settings rather than bytes.
 *
 * <p>A card has lines; where the driver says board and channel, this client says card and line.
 *
 * <p>The driver behind it is one per process and runs until the process ends; so there is nothing
 * to close, and a second client reaches the same cards. All methods may be called from any thread.
 * Events are delivered once: of several threads that poll each gets some of them, and only a client
 * that polls from one thread sees them in order. The driver keeps events for as long as nobody
 * polls, about 2.5 kilobytes a transfer, so a started client must go on polling.
 */
public final class CardClient {
    /** The number of lines that {@link #monitor} and {@link LineSettings} know. */
    public static final int LINES = LineSettings.LINES;

    /** Most bytes of one playback command. */
    static final int PLAYBACK_PIECE = 600;

    private static final byte PLAYBACK_TYPE = 5;
    private static final byte LINE_SETTINGS_TYPE = 6;
    private static final Duration POLL_INTERVAL = Duration.ofMillis(10);

    private final CPPBridge bridge;

    /**
     * Loads the driver; starts nothing.
     *
     * @throws UnsatisfiedLinkError when the driver's library is not found; the message tells where
     *     it was looked for and what to set
     */
    public CardClient() {
        this(new CPPBridge());
    }

    /**
     * A client over a bridge of the caller's, such as one that a test has scripted.
     *
     * @param bridge the way to the driver
     */
    public CardClient(CPPBridge bridge) {
        this.bridge = Objects.requireNonNull(bridge, "bridge");
    }

    /**
     * Starts the cards in the background: finds them, loads their firmware from the working
     * directory and exchanges audio until the process ends. Further calls do nothing. Trouble is
     * told by {@link CardEvent.CardError} and by the absence of audio only.
     */
    public void start() {
        bridge.initialize();
    }

    /**
     * The next event, if one waits.
     *
     * @return empty when none waits
     * @throws BadFrameException when the driver delivered nonsense; that frame is gone, the next
     *     call goes on with the one after it
     */
    public Optional<CardEvent> poll() {
        byte[] frame = bridge.getPacket();
        return frame == null ? Optional.empty() : Optional.of(FrameDecoder.decode(frame));
    }

    /**
     * The next event, waited for.
     *
     * @param longest how long to wait at most; zero or less looks once
     * @return empty when none came in that time
     * @throws InterruptedException when the thread is interrupted while it waits
     * @throws BadFrameException as of {@link #poll()}
     */
    public Optional<CardEvent> poll(Duration longest) throws InterruptedException {
        long start = System.nanoTime();
        Optional<CardEvent> event = poll();
        while (event.isEmpty()) {
            Duration left = longest.minusNanos(System.nanoTime() - start);
            if (left.isNegative() || left.isZero()) {
                return event;
            }
            Duration pause = left.compareTo(POLL_INTERVAL) < 0 ? left : POLL_INTERVAL;
            Thread.sleep(pause.toMillis(), pause.toNanosPart() % 1_000_000);
            event = poll();
        }
        return event;
    }

    /**
     * Sends settings for all lines. They reach the cards in the next transfers, after audio that
     * waits to be played.
     *
     * @param settings what the lines get
     */
    public void apply(LineSettings settings) {
        byte[] table = settings.toBytes();
        bridge.putPacket(LINE_SETTINGS_TYPE, table.length, table);
    }

    /**
     * From now on calls, digits and callers are reported. Calls are reported only once settings
     * have been applied; a call that is under way is reported as starting now.
     */
    public void startRecording() {
        bridge.startRecording();
    }

    /** Ends the reports of calls, digits and callers; audio goes on being delivered. */
    public void stopRecording() {
        bridge.stopRecording();
    }

    /**
     * Plays a line through card 0 while it goes on. A line of the second card keeps card 0 so busy
     * that settings and audio to be played wait until the monitoring ends: apply settings first,
     * and monitor once card 0's audio has come.
     *
     * @param line 0 to 15
     * @throws IllegalArgumentException when there is no such line
     */
    public void monitor(int line) {
        bridge.setMonitoring(LineSettings.checkedLine(line));
    }

    /** Ends {@link #monitor}. */
    public void stopMonitoring() {
        bridge.setMonitoring(-1);
    }

    /**
     * Switches the playing of audio through card 0.
     *
     * @param on false also discards the audio that waits to be played
     */
    public void enablePlayback(boolean on) {
        bridge.setPlayback(on);
    }

    /**
     * Queues audio to be played through card 0 in order, once playback is enabled. Card 0 takes
     * its next command, settings included, only when what it took before has been played.
     *
     * @param audio any number of bytes in the card's own encoding; copied
     */
    public void play(byte[] audio) {
        for (int start = 0; start < audio.length; start += PLAYBACK_PIECE) {
            byte[] piece = Arrays.copyOfRange(audio, start,
                    Math.min(start + PLAYBACK_PIECE, audio.length));
            bridge.putPacket(PLAYBACK_TYPE, piece.length, piece);
        }
    }

    /**
     * The number of lines of a card. Meaningful once the cards have been found, so as a rule when
     * the first audio has come.
     *
     * @param card 0 or 1
     * @return 4 or 8; 0 when there is no such card
     */
    public int linesOfCard(int card) {
        return bridge.getNumberOfChannels(card);
    }
}
