package com.zivolt.hardware.dsp.cppint;

/**
 * The driver of the line cards, as Java reaches it: packets as bytes, and the switches. In the
 * driver's names a card is a board and a line is a channel.
 *
 * <p>The driver is one per process; every {@code CPPBridge} object reaches the same one. All
 * methods may be called from any thread, several at once, and throw nothing: what the driver
 * refuses it tells in a line on the standard error stream of the process.
 *
 * <p>{@link #initialize}, {@link #getPacket} and {@link #putPacket} return at once, and so do the
 * others once the cards have been looked for. While nobody has begun to look, because
 * {@link #initialize} has not been called or its thread is not there yet, the first of these others
 * looks itself; while somebody looks, they wait until that is done.
 *
 * <p>Loading this class loads {@code libdspcard.so}, which must lie in a folder of
 * {@code java.library.path}. Applications that would rather not take bytes apart use
 * {@link com.zivolt.hardware.dsp.client.CardClient}.
 */
public class CPPBridge {
    private static final String LIBRARY = "dspcard";

    static {
        try {
            System.loadLibrary(LIBRARY);
        } catch (UnsatisfiedLinkError failure) {
            throw explained(failure);
        }
    }

    /** Makes a further access to the one driver; starts nothing. */
    public CPPBridge() {
    }

    /**
     * Starts the driver's own thread, which finds the cards, loads their firmware and then
     * exchanges audio with them until the process ends. The firmware is read from the working
     * directory. Further calls do nothing. Trouble is told by error packets and by the absence of
     * audio packets only.
     */
    public native void initialize();

    /**
     * From now on trigger changes, digits and caller identification are reported too; a line that
     * is triggered already is reported again. Triggers are reported only once line settings have
     * been sent.
     */
    public native void startRecording();

    /** Ends the reports that {@link #startRecording} began; audio goes on being delivered. */
    public native void stopRecording();

    /**
     * Chooses the line that is heard on card 0's output.
     *
     * @param monitorChannel line, numbered over all cards from 0; -1 for none
     */
    public native void setMonitoring(int monitorChannel);

    /**
     * The number of lines of a card.
     *
     * @param boardNumber 0 or 1
     * @return 4 or 8; 0 when there is no such card
     */
    public native int getNumberOfChannels(int boardNumber);

    /**
     * Switches the playing of audio packets through card 0.
     *
     * @param playback false also discards the audio that waits; line settings are kept
     */
    public native void setPlayback(boolean playback);

    /**
     * Takes the oldest event.
     *
     * @return null when none waits; else byte 0: packet type (1 trigger, 2 caller identification,
     *     3 digits, 4 audio, 7 error), bytes 1 and 2: number of payload bytes, bytes 3 to 10: time
     *     in milliseconds since 1970-01-01 UTC, both with the lowest byte first, then the payload
     */
    public native byte[] getPacket();

    /**
     * Queues a command for the cards.
     *
     * @param packetType 5 for audio to play, 6 for line settings; every other type is refused
     * @param length number of bytes of {@code data} that count, from 0; more than there are is
     *     refused
     * @param data type 5: up to 600 bytes, the rest is cut off; type 6: 16 times beep (0 to 3),
     *     trigger (0 to 7) and trigger delay in seconds; null is refused
     */
    public native void putPacket(byte packetType, int length, byte[] data);

    private static UnsatisfiedLinkError explained(UnsatisfiedLinkError failure) {
        UnsatisfiedLinkError explained = new UnsatisfiedLinkError("""
                Cannot load the driver of the line cards, %s.
                Looked in java.library.path: %s
                Start java with -Djava.library.path=FOLDER, the folder that holds the file.
                The Java VM says: %s""".formatted(System.mapLibraryName(LIBRARY),
                System.getProperty("java.library.path"), failure.getMessage()));
        explained.initCause(failure);
        return explained;
    }
}
