package com.zivolt.hardware.dsp.client;

/** The beep that a card sounds on a recorded line, in the order of the codes in packets. */
public enum Beep {
    /** No beep. */
    OFF,
    /** A low beep. */
    LOW,
    /** A middle beep. */
    MID,
    /** A high beep. */
    HIGH;

    byte code() {
        return (byte) ordinal();
    }
}
