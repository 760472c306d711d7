package com.zivolt.hardware.dsp.cppint;

/**
 * The driver of the line cards, as Java reaches it. The driver is one per process; every
 * {@code CPPBridge} object reaches the same one.
 *
 * <p>The first object loads {@code libdspcard.so}: the file that the system property
 * {@value #LIBRARY_PROPERTY} names, if it is set; else the one that lies beside the jar of this
 * class; else the one in a folder of {@code java.library.path}. A library of another version than
 * the jar is not loaded.
 *
 * <p>Applications that would rather not take bytes apart use
 * {@link com.zivolt.hardware.dsp.client.CardClient}.
 */
public class CPPBridge implements CardBridge {
    /** The system property that names the file of the driver's library. */
    public static final String LIBRARY_PROPERTY = "dspcard.library";

    /**
     * Makes a further access to the one driver; starts nothing.
     *
     * @throws UnsatisfiedLinkError when the driver's library cannot be loaded; the message tells
     *     every attempt, and how each failed
     */
    public CPPBridge() {
        NativeLibrary.load();
    }

    @Override
    public native void initialize();

    @Override
    public native void startRecording();

    @Override
    public native void stopRecording();

    @Override
    public native void setMonitoring(int monitorChannel);

    @Override
    public native int getNumberOfChannels(int boardNumber);

    @Override
    public native void setPlayback(boolean playback);

    @Override
    public native byte[] getPacket();

    @Override
    public native void putPacket(byte packetType, int length, byte[] data);
}
