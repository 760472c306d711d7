package com.zivolt.hardware.dsp.client;

/** Hears what the cards report; see {@link CardClient#listen}. */
@FunctionalInterface
public interface CardListener {
    /**
     * Called for each event, one after the other, on the client's delivering thread. While it runs
     * no further event is delivered to anybody, and the driver keeps what comes.
     *
     * @param event what has happened
     */
    void onEvent(CardEvent event);
}
