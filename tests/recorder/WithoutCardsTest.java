package com.zivolt.hardware.dsp.examples;

import static java.nio.charset.StandardCharsets.US_ASCII;
import static org.junit.jupiter.api.Assertions.*;

import com.zivolt.hardware.dsp.client.*;
import java.io.IOException;
import java.nio.file.*;
import java.time.*;
import java.util.*;
import java.util.stream.*;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** What the recorder keeps, without cards. */
class WithoutCardsTest {
    private static final Instant TIME = Instant.ofEpochMilli(0x17012345678L);

    @TempDir
    Path folder;
    private final List<String> told = new ArrayList<>();

    @Test
    void recordsEachCallToItsFileAndRowOfTheLogAndTellsOfTrouble() throws IOException {
        var audio = new CardEvent.AudioRecorded(TIME, 4, IntStream.range(0, 8).mapToObj(line ->
                AudioBlock.of((line + " is heard. ").repeat(25).getBytes(US_ASCII))).toList());
        try (CallRecorder recorder = new CallRecorder(folder.resolve("calls"), told::add)) {
            Stream.of(audio,  // before the call
                    new CardEvent.CallerIdentified(at(0), 6, "Smith, \"Al\""),
                    new CardEvent.CallStarted(at(1), 6), new CardEvent.DigitsHeard(at(1), 6, "12"),
                    audio, new CardEvent.CallStarted(at(2), 6),  // told again: the same call
                    new CardEvent.DigitsHeard(at(2), 6, "#"), audio,
                    new CardEvent.CallEnded(at(3), 6), audio,  // after the call
                    new CardEvent.CallerIdentified(at(4), 6, "555"),  // hangs up
                    new CardEvent.CallStarted(at(100), 6), audio,
                    new CardEvent.DigitsHeard(at(101), 6, "*"))  // still talking
                    .forEach(recorder::handle);
            Files.move(folder.resolve("calls"), folder.resolve("moved"));
            told.clear();
            recorder.handle(new CardEvent.CardError(at(102), 1, "Missed Xfer "));
            recorder.handle(new CardEvent.CallStarted(at(102), 7));
            assertEquals(List.of(1, 1), List.of(recorder.cardErrors(), recorder.failures()));
        }
        assertLinesMatch(
                List.of("CARD ERROR 1: Missed Xfer", "CANNOT record line 7.*", ">> end >>"), told);
        assertEquals("""
                line,start,end,caller,digits,bytes,file
                6,2020-02-04T21:56:25.824Z,2020-02-04T21:56:27.824Z,"Smith, ""Al""\",12#,600,\
                line06-20200204-215625-824.raw
                6,2020-02-04T21:58:04.824Z,2020-02-04T21:58:06.824Z,,*,300,\
                line06-20200204-215804-824.raw
                """, Files.readString(folder.resolve("moved/calls.csv")));
        assertArrayEquals(audio.blocks().get(2).toByteArray(),
                Files.readAllBytes(folder.resolve("moved/line06-20200204-215804-824.raw")));
    }

    private static Instant at(long seconds) {
        return TIME.plusSeconds(seconds);
    }
}
