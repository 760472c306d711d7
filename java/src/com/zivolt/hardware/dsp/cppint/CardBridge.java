package com.zivolt.hardware.dsp.cppint;

/**
 * The eight operations by which Java and the driver of the line cards meet: packets as bytes, and
 * the switches. {@link CPPBridge} is the driver itself,
 * {@link com.zivolt.hardware.dsp.testing.FakeBridge} stands in for it in tests. In the driver's
 * names a card is a board and a line is a channel.
 *
 * <p>All methods may be called from any thread, several at once, and throw nothing: what the driver
 * refuses it tells in a line on the standard error stream of the process.
 *
 * <p>{@link #initialize}, {@link #getPacket} and {@link #putPacket} return at once, and so do the
 * others once the cards have been looked for. While nobody has begun to look, because
 * {@link #initialize} has not been called or its thread is not there yet, the first of these others
 * looks itself; while somebody looks, they wait until that is done.
 */
public interface CardBridge {
    /**
     * Starts the driver's own thread, which finds the cards, loads their firmware and then
     * exchanges audio with them until the process ends. The firmware is read from the working
     * directory. Further calls do nothing. Trouble is told by error packets and by the absence of
     * audio packets only.
     */
    void initialize();

    /**
     * From now on trigger changes, digits and caller identification are reported too; a line that
     * is triggered already is reported again. Triggers are reported only once line settings have
     * been sent.
     */
    void startRecording();

    /** Ends the reports that {@link #startRecording} began; audio goes on being delivered. */
    void stopRecording();

    /**
     * Chooses the line that is heard on card 0's output.
     *
     * @param monitorChannel line, numbered over all cards from 0; -1 for none
     */
    void setMonitoring(int monitorChannel);

    /**
     * The number of lines of a card.
     *
     * @param boardNumber 0 or 1
     * @return 4 or 8; 0 when there is no such card
     */
    int getNumberOfChannels(int boardNumber);

    /**
     * Switches the playing of audio packets through card 0.
     *
     * @param playback false also discards the audio that waits; line settings are kept
     */
    void setPlayback(boolean playback);

    /**
     * Takes the oldest event.
     *
     * @return null when none waits; else byte 0: packet type (1 trigger, 2 caller identification,
     *     3 digits, 4 audio, 7 error), bytes 1 and 2: number of payload bytes, bytes 3 to 10: time
     *     in milliseconds since 1970-01-01 UTC, both with the lowest byte first, then the payload
     */
    byte[] getPacket();

    /**
     * Queues a command for the cards.
     *
     * @param packetType 5 for audio to play, 6 for line settings; every other type is refused
     * @param length number of bytes of {@code data} that count, from 0; more than there are is
     *     refused
     * @param data type 5: up to 600 bytes, the rest is cut off; type 6: 16 times beep (0 to 3),
     *     trigger (0 to 7) and trigger delay in seconds; null is refused
     */
    void putPacket(byte packetType, int length, byte[] data);
}
