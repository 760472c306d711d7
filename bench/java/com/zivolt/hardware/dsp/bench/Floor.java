package com.zivolt.hardware.dsp.bench;

/** The bare native methods that the driver's own are measured against, and a feed of packets. */
final class Floor {
    private Floor() {
    }

    /** Does nothing. */
    static native byte[] nothing();

    /** Makes an array of that length and fills it. */
    static native byte[] filledArray(int length);

    /** The same with the stores of a frame: its header byte by byte, the rest at once. */
    static native byte[] framedArray(int length);

    /** Puts that many packets of recorded audio where the driver's getPacket finds them. */
    static native void queueAudio(int packets);
}
