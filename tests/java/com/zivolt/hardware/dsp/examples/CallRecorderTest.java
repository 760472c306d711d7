package com.zivolt.hardware.dsp.examples;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.zivolt.hardware.dsp.client.CardEvent;
import com.zivolt.hardware.dsp.client.FrameDecoder;
import com.zivolt.hardware.dsp.client.Frames;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Instant;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

class CallRecorderTest {
    private static final Instant START = Instant.parse("2024-05-06T07:08:09.123Z");

    @TempDir
    Path folder;

    private final List<String> news = new ArrayList<>();

    @Test
    void recordsEachCallToItsFileAndRowOfTheLog() throws IOException {
        try (CallRecorder recorder = new CallRecorder(folder, news::add)) {
            recorder.handle(audio(0));  // before the call
            recorder.handle(new CardEvent.CallerIdentified(at(0), 6, "Smith, \"Al\""));
            recorder.handle(new CardEvent.CallStarted(at(1), 6));
            recorder.handle(new CardEvent.DigitsHeard(at(1), 6, "12"));
            recorder.handle(audio(1));
            recorder.handle(new CardEvent.CallStarted(at(2), 6));  // told again: the same call
            recorder.handle(new CardEvent.DigitsHeard(at(2), 6, "#"));
            recorder.handle(audio(2));
            recorder.handle(new CardEvent.CallEnded(at(3), 6));
            recorder.handle(audio(3));  // after the call
            recorder.handle(new CardEvent.CallerIdentified(at(4), 6, "555"));  // hangs up
            recorder.handle(new CardEvent.CallStarted(at(100), 6));
            recorder.handle(new CardEvent.CallStarted(at(100), 0));  // no line of that card
            recorder.handle(audio(101));
        }

        assertEquals(List.of(
                "line,start,end,caller,digits,bytes,file",
                "6,2024-05-06T07:08:10.123Z,2024-05-06T07:08:12.123Z,\"Smith, \"\"Al\"\"\",12#,600,"
                        + "line06-20240506-070810-123.raw",
                "0,2024-05-06T07:09:49.123Z,2024-05-06T07:09:50.123Z,,,0,"
                        + "line00-20240506-070949-123.raw",
                "6,2024-05-06T07:09:49.123Z,2024-05-06T07:09:50.123Z,,,300,"
                        + "line06-20240506-070949-123.raw"),
                Files.readAllLines(folder.resolve("calls.csv")));
        byte[] line6 = audio(0).blocks().get(2).toByteArray();
        byte[] recorded = Files.readAllBytes(folder.resolve("line06-20240506-070810-123.raw"));
        assertEquals(600, recorded.length);
        assertArrayEquals(line6, Arrays.copyOf(recorded, 300));
    }

    @Test
    void tellsOfTroubleAndGoesOn() throws IOException {
        Path gone = folder.resolve("gone");
        try (CallRecorder recorder = new CallRecorder(gone, news::add)) {
            recorder.handle(new CardEvent.CardError(at(0), 1, "Missed Xfer "));
            Files.delete(gone.resolve("calls.csv"));
            Files.delete(gone);
            recorder.handle(new CardEvent.CallStarted(at(1), 0));
            recorder.handle(audio(1));
            assertEquals(1, recorder.cardErrors());
            assertEquals(1, recorder.failures());
        }
        assertEquals("CARD ERROR 1: Missed Xfer", news.get(0));
        assertTrue(news.get(1).startsWith("CANNOT record line 0"), news.get(1));
    }

    private static Instant at(long seconds) {
        return START.plusSeconds(seconds);
    }

    /** From an eight-channel card whose first line is 4. */
    private static CardEvent.AudioRecorded audio(long seconds) {
        return (CardEvent.AudioRecorded) FrameDecoder.decode(
                Frames.audio(at(seconds).toEpochMilli(), 8, 4));
    }
}
