package com.zivolt.hardware.dsp.client;

/** That a listener listens; see {@link CardClient#listen}. */
public interface Registration extends AutoCloseable {
    /**
     * Ends the listening; further calls do nothing. When it returns the listener is not running and
     * will not run again. So a call from another thread than the delivering one waits until a
     * running callback has ended, and must not be made while holding what the callback waits for.
     * A call from within a callback does not wait.
     */
    @Override
    void close();
}
