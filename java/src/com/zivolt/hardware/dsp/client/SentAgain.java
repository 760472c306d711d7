package com.zivolt.hardware.dsp.client;

import com.zivolt.hardware.dsp.client.CardEvent.AudioRecorded;
import com.zivolt.hardware.dsp.cppint.CardBridge;
import java.util.Arrays;

/**
 * What the application wants of the cards for as long as they run: settings, monitored line and
 * playback. Sends it on, keeps it, and sends it again when the driver has booted the cards anew,
 * since they may have forgotten it and the driver does not keep it. May be used by any thread.
 */
final class SentAgain {
    private static final byte PLAYBACK_TYPE = 5;
    private static final byte LINE_SETTINGS_TYPE = 6;
    private static final int MOST_PLAYED_AT_ONCE = 600;
    private static final int NO_LINE = -1;
    /** The exchange that is under way when settings are sent may be too late to take them. */
    private static final int EXCHANGES_TO_TAKE_SETTINGS = 2;

    private final CardBridge bridge;
    private LineSettings settings;
    private int monitored = NO_LINE;
    private boolean playback;
    private long bootsSeen;
    private int exchangesUntilMonitoring;
    private boolean upToDate;

    SentAgain(CardBridge bridge) {
        this.bridge = bridge;
    }

    synchronized void apply(LineSettings wanted) {
        settings = wanted;
        send(wanted);
    }

    private void send(LineSettings wanted) {
        byte[] table = wanted.toBytes();
        bridge.putPacket(LINE_SETTINGS_TYPE, table.length, table);
    }

    /** While settings that were sent again are under way the line has to wait for them. */
    synchronized void monitor(int line) {
        monitored = line;
        if (exchangesUntilMonitoring == 0) {
            bridge.setMonitoring(line);
        }
    }

    synchronized void stopMonitoring() {
        monitored = NO_LINE;
        bridge.setMonitoring(NO_LINE);
    }

    synchronized void enablePlayback(boolean on) {
        playback = on;
        bridge.setPlayback(on);
    }

    synchronized void play(byte[] audio) {
        if (!playback) {
            throw new IllegalStateException("Playback is off: the audio would not be played, and"
                    + " would hold back all later settings; enablePlayback(true) comes first");
        }
        for (int start = 0; start < audio.length; start += MOST_PLAYED_AT_ONCE) {
            byte[] piece = Arrays.copyOfRange(audio, start,
                    Math.min(start + MOST_PLAYED_AT_ONCE, audio.length));
            bridge.putPacket(PLAYBACK_TYPE, piece.length, piece);
        }
    }

    /** An event of the driver's, and how often the cards have been booted again before it. */
    synchronized void observe(CardEvent event, long boots) {
        if (!(event instanceof AudioRecorded audio) || audio.card() != 0) {
            return;  // card 0 takes the commands for both
        }
        if (boots != bootsSeen) {
            bootsSeen = boots;
            sendAgain();
        } else if (exchangesUntilMonitoring > 0 && upToDate && --exchangesUntilMonitoring == 0
                && monitored != NO_LINE) {
            bridge.setMonitoring(monitored);
        }
    }

    /** No event waits: those that come now happen after what was sent. */
    synchronized void observeNone() {
        upToDate = true;
    }

    /** A monitored line of card 1 would keep card 0 from taking the settings. */
    private void sendAgain() {
        if (playback) {
            bridge.setPlayback(true);
        }
        if (monitored != NO_LINE) {
            bridge.setMonitoring(NO_LINE);
        }
        if (settings != null) {
            send(settings);
        }
        exchangesUntilMonitoring = EXCHANGES_TO_TAKE_SETTINGS;
        upToDate = false;
    }
}
