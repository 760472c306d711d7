package com.zivolt.hardware.dsp.client;

import com.zivolt.hardware.dsp.cppint.CPPBridge;
import com.zivolt.hardware.dsp.cppint.CardBridge;
import java.time.Duration;
import java.time.InstantSource;
import java.util.List;
import java.util.Objects;
import java.util.Optional;
import java.util.function.BiConsumer;

/**
 * The line cards, for applications that want events and settings rather than bytes.
 *
 * <p>A card has lines; where the driver says board and channel, this client says card and line.
 *
 * <p>The driver behind it is one per process and runs until the process ends; so there is nothing
 * to close. Every event is delivered once, to one client: an application makes one and keeps it.
 * All methods may be called from any thread.
 *
 * <p>Events come to listeners ({@link #listen}), or to whoever polls ({@link #poll()}). The driver
 * keeps them for as long as nobody takes them, about 2.5 kilobytes a transfer, so a started client
 * must go on listening or polling.
 *
 * <p>The client watches the cards: {@link #cards} tells how they are, and a
 * {@link CardEvent.CardStateChanged} every change. When the driver had to boot the cards again, the
 * client sends them the settings, the monitored line and the playback switch once more.
 */
public final class CardClient {
    /** The number of lines that {@link #monitor} and {@link LineSettings} know. */
    public static final int LINES = LineSettings.LINES;

    private static final Duration POLL_INTERVAL = Duration.ofMillis(10);

    private final CardBridge bridge;
    private final SentAgain sentAgain;
    private final EventReader reader;
    private final EventDelivery delivery;

    /**
     * Loads the driver; starts nothing.
     *
     * @throws UnsatisfiedLinkError when the driver's library cannot be loaded; the message tells
     *     every attempt, and how each failed
     */
    public CardClient() {
        this(new CPPBridge());
    }

    /**
     * A client over a bridge of the caller's, such as a
     * {@link com.zivolt.hardware.dsp.testing.FakeBridge}.
     *
     * @param bridge the way to the driver
     */
    public CardClient(CardBridge bridge) {
        this(bridge, InstantSource.system());
    }

    /**
     * The same with a clock of the caller's, by which the client tells that nothing comes.
     *
     * @param bridge the way to the driver
     * @param clock what the events' times come from
     */
    public CardClient(CardBridge bridge, InstantSource clock) {
        this.bridge = Objects.requireNonNull(bridge, "bridge");
        sentAgain = new SentAgain(bridge);
        reader = new EventReader(bridge, Objects.requireNonNull(clock, "clock"), sentAgain);
        delivery = new EventDelivery(reader);
    }

    /**
     * Starts the cards in the background: finds them, loads their firmware from the working
     * directory and exchanges audio until the process ends. Further calls do nothing. Trouble is
     * told by {@link CardEvent.CardError} and {@link CardEvent.CardStateChanged}.
     */
    public void start() {
        bridge.initialize();
        reader.start();
        delivery.start();
    }

    /**
     * From now on the listener is called for each event, in order, on one thread of the client's,
     * which calls all listeners and keeps the process alive. The thread begins once there is a
     * listener and {@link #start} has been called, and ends with the last listener; the driver goes
     * on, and keeps what happens for the next listener or for {@link #poll()}.
     *
     * <p>A listener that throws is told of ({@link #onListenerFailure}); it goes on being called,
     * and so do the others. Listeners may call any method of the client but those that poll.
     *
     * <p>While there are listeners nobody can poll, not even whoever waits in
     * {@link #poll(Duration)} already.
     *
     * @param listener may be registered several times, and is then called as often
     * @return what ends the listening
     */
    public Registration listen(CardListener listener) {
        return delivery.add(listener);
    }

    /**
     * Who hears of listeners that throw, instead of a line on standard error for each time. Called
     * on the delivering thread.
     *
     * @param handler gets the listener, null when already the taking of an event failed, and what
     *     was thrown
     */
    public void onListenerFailure(BiConsumer<CardListener, Throwable> handler) {
        delivery.setFailureHandler(handler);
    }

    /**
     * The next event, if one waits. Of several threads that poll each gets some of the events;
     * whoever wants them in order polls from one. What the client tells of the cards by itself
     * needs to be polled for at least once a second.
     *
     * @return empty when none waits
     * @throws IllegalStateException while there are listeners
     */
    public Optional<CardEvent> poll() {
        delivery.requireNoListeners();
        return Optional.ofNullable(reader.next());
    }

    /**
     * The next event, waited for; see {@link #poll()}.
     *
     * @param longest how long to wait at most; zero or less looks once
     * @return empty when none came in that time
     * @throws InterruptedException when the thread is interrupted while it waits
     * @throws IllegalStateException while there are listeners
     */
    public Optional<CardEvent> poll(Duration longest) throws InterruptedException {
        Objects.requireNonNull(longest, "longest");
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
     * How the cards are, as far as the events that have been taken show it. A card that is not
     * there is left out.
     *
     * @return a snapshot, card 0 first; empty until the cards have been found, as a rule a second
     *     after {@link #start}
     */
    public List<CardStatus> cards() {
        return reader.cards();
    }

    /**
     * Sends settings for all lines, now and again after each new boot of the cards. They reach the
     * cards in the next transfers, after audio that waits to be played.
     *
     * @param settings what the lines get
     */
    public void apply(LineSettings settings) {
        sentAgain.apply(Objects.requireNonNull(settings, "settings"));
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
     * and monitor once card 0's audio has come. After a new boot of the cards the client does so by
     * itself.
     *
     * @param line 0 to 15
     * @throws IllegalArgumentException when there is no such line, or the cards have been found and
     *     none of them has it
     */
    public void monitor(int line) {
        LineSettings.checkedLine(line);
        int lines = reader.lines();
        if (lines > 0 && line >= lines) {
            throw new IllegalArgumentException(
                    "The cards have the lines 0 to " + (lines - 1) + ", not " + line);
        }
        sentAgain.monitor(line);
    }

    /** Ends {@link #monitor}. */
    public void stopMonitoring() {
        sentAgain.stopMonitoring();
    }

    /**
     * Switches the playing of audio through card 0.
     *
     * @param on false also discards the audio that waits to be played
     */
    public void enablePlayback(boolean on) {
        sentAgain.enablePlayback(on);
    }

    /**
     * Queues audio to be played through card 0 in order. Card 0 takes its next command, settings
     * included, only when what it took before has been played.
     *
     * @param audio any number of bytes in the card's own encoding; copied
     * @throws IllegalStateException when this client has not enabled playback: the audio would
     *     wait, and everything that is sent later behind it
     */
    public void play(byte[] audio) {
        sentAgain.play(Objects.requireNonNull(audio, "audio"));
    }

    /**
     * The number of lines of a card. Meaningful once the cards have been found, so as a rule when
     * the first audio has come.
     *
     * @param card 0 or 1
     * @return 4 or 8; 0 when there is no such card
     * @throws IllegalArgumentException when there can be no such card
     */
    public int linesOfCard(int card) {
        if (card < 0 || card >= CardWatch.CARDS) {
            throw new IllegalArgumentException("Cards are 0 and 1, not " + card);
        }
        return bridge.getNumberOfChannels(card);
    }
}
