package com.zivolt.hardware.dsp.client;

/** How a card is, as far as its host can tell. */
public enum CardState {
    /** It is being started, and nothing that shows it running has come from it yet. */
    STARTING,
    /** It delivers the audio of its lines. */
    RUNNING,
    /** It ran, and has delivered nothing for three seconds. The driver does nothing about it. */
    SILENT,
    /**
     * It delivers, but its count of transfers stands still, so the audio means nothing. At the
     * seventh such transfer over all cards the driver boots all of them again.
     */
    LOCKED_UP,
    /** The driver boots all cards again; nothing that shows it running has come from this one. */
    RESTARTING,
    /**
     * It has delivered nothing since it was booted, or the same transfer whenever it was asked, so
     * that what seems to be recorded means nothing: its boot failed.
     */
    NOT_RUNNING,
    /** There is no card. Told of card 0 only: a computer need not have a second one. */
    ABSENT
}
