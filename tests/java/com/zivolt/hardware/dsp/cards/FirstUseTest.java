package com.zivolt.hardware.dsp.cards;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.zivolt.hardware.dsp.client.Beep;
import com.zivolt.hardware.dsp.client.CardClient;
import com.zivolt.hardware.dsp.client.CardEvent;
import com.zivolt.hardware.dsp.client.LineSetting;
import com.zivolt.hardware.dsp.client.LineSettings;
import com.zivolt.hardware.dsp.client.Trigger;
import com.zivolt.hardware.dsp.cppint.CPPBridge;
import java.util.Map;
import java.util.function.Consumer;
import org.junit.jupiter.api.Test;

/**
 * The method of CPPBridge that is called first, named by the property firstUse, on a thread of
 * Java's and before initialize; then two initializes. Needs a four- and an eight-channel card with
 * traffic and verifiable audio.
 */
class FirstUseTest {
    private static final Map<String, Consumer<CPPBridge>> METHODS = Map.of(
            "initialize", CPPBridge::initialize,
            "startRecording", CPPBridge::startRecording,
            "stopRecording", CPPBridge::stopRecording,
            "setMonitoring", bridge -> bridge.setMonitoring(-1),
            "getNumberOfChannels", bridge -> bridge.getNumberOfChannels(0),
            "setPlayback", bridge -> bridge.setPlayback(false),
            "getPacket", bridge -> assertNull(bridge.getPacket()));

    @Test
    void recordingWorksWhateverIsCalledFirst() throws InterruptedException {
        CPPBridge bridge = new CPPBridge();
        CardClient client = new CardClient(bridge);
        Consumer<CPPBridge> first = METHODS.get(System.getProperty("firstUse"));
        assertNotNull(first, "the property firstUse names no method");

        first.accept(bridge);
        client.apply(LineSettings.builder()
                .allLines(new LineSetting(Trigger.OFF_HOOK, Beep.OFF, 3)).build());
        client.start();
        client.start();
        client.startRecording();

        AudioChecker checker = new AudioChecker();
        Await.event(client, event -> {
            if (event instanceof CardEvent.AudioRecorded audio) {
                checker.check(audio);
            }
            return event instanceof CardEvent.CallEnded && checker.transfers() > 1000;
        });
        assertTrue(checker.allWell(), checker.toString());  // two runner threads would upset it
        assertEquals(2, checker.cards());
        assertEquals(4, bridge.getNumberOfChannels(0));
        assertEquals(8, bridge.getNumberOfChannels(1));
        for (int none : new int[] {-1, 2, Integer.MAX_VALUE, Integer.MIN_VALUE}) {
            assertEquals(0, bridge.getNumberOfChannels(none));
        }
    }
}
