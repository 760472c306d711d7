package com.zivolt.hardware.dsp.client;

/** A frame that makes no sense as an event; the message says why. */
public class BadFrameException extends RuntimeException {
    private static final long serialVersionUID = 1L;

    /**
     * Makes the exception.
     *
     * @param message what is wrong with the frame
     */
    public BadFrameException(String message) {
        super(message);
    }
}
