package com.zivolt.hardware.dsp.client;

import static org.junit.jupiter.api.Assertions.*;

import com.zivolt.hardware.dsp.client.CardEvent.*;
import com.zivolt.hardware.dsp.testing.FakeBridge;
import com.zivolt.hardware.dsp.testing.FakeBridge.*;
import java.nio.*;
import java.time.*;
import java.util.*;
import java.util.concurrent.*;
import java.util.concurrent.locks.LockSupport;
import java.util.stream.*;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;

/** The typed client over a fake bridge: no card, no driver, no library. */
class ClientTest {
    private static final Instant TIME = Instant.ofEpochMilli(0x17012345678L);
    private static final HexFormat HEX = HexFormat.of();

    private final FakeBridge bridge = new FakeBridge(4, 8);
    private final CardClient client = new CardClient(bridge, InstantSource.fixed(TIME));

    @Test
    void aMissingLibraryIsExplainedEveryTime() {
        for (int attempt = 0; attempt < 2; ++attempt) {
            String message = assertThrows(UnsatisfiedLinkError.class, CardClient::new).getMessage();
            assertTrue(message.contains("  /none: no such file"), message);
        }
    }

    @Test
    void takesWhatTheDriverSendsAndTellsOfNonsenseOnce() throws InterruptedException {
        Map<CardEvent, byte[]> frames = Map.of(
                new CallStarted(TIME, 3), HEX.parseHex("01020078563412700100000103"),
                new CallEnded(TIME, 15), frame(1, "000f"),
                new CallerIdentified(TIME, 2, "Müll"), frame(2, "02044dfc6c6c"),
                new DigitsHeard(TIME, 9, "5".repeat(50)), frame(3, "0932" + "35".repeat(50)),
                new CardError(TIME, 200, ""), frame(7, "c800"));
        frames.forEach((event, frame) -> assertEquals(event, FrameDecoder.decode(frame)));
        frames.keySet().forEach(event -> {  // the fake bridge speaks as the driver does
            bridge.report(event);
            assertEquals(event, client.poll().orElseThrow());
        });
        byte[] frame = audio("0808");
        AudioBlock block = ((AudioRecorded) FrameDecoder.decode(frame)).blocks().get(7);
        Arrays.fill(frame, (byte) 0);  // the event keeps its own copy
        assertEquals(0x07, block.byteAt(299));
        assertThrows(IndexOutOfBoundsException.class, () -> block.byteAt(300));

        for (byte[] wrong : List.of(new byte[10], frame(255, ""), frame(3, "01"), frame(1, "ff03"),
                frame(1, "0110"), frame(1, "010300"), frame(7, "01016162"), frame(4, "0400"),
                Arrays.copyOf(frame(1, "0103"), 12), Arrays.copyOf(frame(1, "0103"), 14),
                frame(2, "0133" + "35".repeat(51)), audio("0500"), audio("0809"), audio("04ff"),
                audio("0000"))) {
            bridge.report(new UnreadableFrame(TIME, wrong, ""));
            assertArrayEquals(wrong, assertInstanceOf(UnreadableFrame.class,
                    client.poll(Duration.ofDays(1)).orElseThrow()).frame());
        }
        assertEquals(Optional.empty(), client.poll(Duration.ofSeconds(-1)));
        Instant start = Instant.now();
        assertEquals(Optional.empty(), client.poll(Duration.ofMillis(50)));
        long waited_ms = Duration.between(start, Instant.now()).toMillis();
        assertTrue(waited_ms >= 50 && waited_ms < 5_000, "waited ms " + waited_ms);
    }

    @Test
    void commandsAreWhatTheCardsTakeAndMisuseIsToldAtOnce() {
        LineSettings.Builder builder = LineSettings.builder();
        LineSettings built = builder.build();
        LineSettings mixed = builder.allLines(new LineSetting(Trigger.NEVER, Beep.OFF, 0))
                .line(0, new LineSetting(Trigger.OFF_HOOK, Beep.LOW, 65))
                .line(15, new LineSetting(Trigger.VOX_6, Beep.HIGH, 1)).build();
        assertArrayEquals(HEX.parseHex("010141" + "000000".repeat(14) + "030701"), mixed.toBytes());
        assertArrayEquals(HEX.parseHex("000503".repeat(16)), built.toBytes());
        byte[] audio = new byte[1201];
        audio[600] = 7;
        client.apply(mixed);
        client.enablePlayback(true);
        client.play(audio);
        client.play(new byte[0]);
        assertEquals(List.of(new SettingsApplied(mixed), new PlaybackSwitched(true),
                new AudioPlayed(AudioBlock.of(new byte[600])),
                new AudioPlayed(AudioBlock.of(Arrays.copyOfRange(audio, 600, 1200))),
                new AudioPlayed(AudioBlock.of(new byte[1]))), bridge.commands());

        client.enablePlayback(false);
        assertThrows(IllegalStateException.class, () -> client.play(audio));
        bridge.report(FrameDecoder.decode(audio("0400")));
        client.poll();  // so the cards are known
        List<AudioBlock> blocks = Collections.nCopies(4, AudioBlock.of(new byte[600]));
        Stream.<Executable>of(() -> new LineSetting(Trigger.VOX_1, Beep.OFF, -1),
                () -> new LineSetting(Trigger.VOX_1, Beep.OFF, 66), () -> client.monitor(16),
                () -> client.monitor(-1), () -> client.monitor(12), () -> client.linesOfCard(2),
                () -> builder.line(16, LineSetting.DEFAULT), () -> new CallStarted(TIME, 16),
                () -> new CallerIdentified(TIME, 0, "5".repeat(51)),
                () -> new DigitsHeard(TIME, 0, "\u20ac"), () -> new CardError(TIME, 256, ""),
                () -> new AudioRecorded(TIME, 13, blocks),
                () -> new AudioRecorded(TIME, 0, blocks.subList(0, 3)),
                () -> new AudioRecorded(TIME, 0, Collections.nCopies(8, blocks.get(0))))
                .forEach(wrong -> assertThrows(IllegalArgumentException.class, wrong));
        Stream.<Executable>of(() -> builder.line(0, null), () -> client.play(null),
                () -> new LineSetting(null, Beep.OFF, 3), () -> client.apply(null),
                () -> client.poll(null), () -> client.listen(null), () -> new CallEnded(null, 1),
                () -> new DigitsHeard(TIME, 1, null), () -> new AudioRecorded(TIME, 0, null),
                () -> new AudioRecorded(TIME, 0, Collections.singletonList(null)),
                () -> AudioBlock.of(null), () -> blocks.get(0).writeTo(null),
                () -> FrameDecoder.decode(null), () -> LineSettings.ofBytes(null),
                () -> new FakeBridge((int[]) null), () -> bridge.report(null),
                () -> new SettingsApplied(null), () -> new AudioPlayed(null),
                () -> new CardClient(null), () -> client.onListenerFailure(null))
                .map(wrong -> assertThrows(NullPointerException.class, wrong).getMessage())
                .forEach(what -> assertTrue(what.matches("\\w+"), "our name of it: " + what));
        assertEquals(6, bridge.commands().size(), "something wrong was sent");
    }

    @Test
    void listenersHearEverythingInOrderWhateverOneOfThemDoes() throws InterruptedException {
        BlockingQueue<CardEvent> heard = new LinkedBlockingQueue<>();
        Set<Thread> threads = new HashSet<>();
        List<Registration> registrations = new ArrayList<>();
        List<String> failures = new ArrayList<>();
        client.onListenerFailure((listener, failure) -> {
            failures.add(failure.getMessage());
            if (failures.size() == 1) {
                throw new IllegalStateException("and so does the handler");
            }
        });
        registrations.add(client.listen(event -> {
            throw new AssertionError("a listener throws");
        }));
        registrations.add(client.listen(event -> {
            registrations.get(1).close();
            failures.add("hears one event");
            Thread.currentThread().interrupt();
        }));
        registrations.add(client.listen(event -> {
            threads.add(Thread.currentThread());
            heard.add(event);
        }));
        List<CardEvent> events = events(1000);
        events.forEach(bridge::report);
        assertNull(heard.poll(50, TimeUnit.MILLISECONDS), "heard before the start");
        client.start();
        for (CardEvent event : events) {
            assertEquals(event, heard.poll(20, TimeUnit.SECONDS));
        }
        assertThrows(IllegalStateException.class, client::poll);
        CountDownLatch begun = new CountDownLatch(1);
        CountDownLatch ended = new CountDownLatch(1);
        Registration slow = client.listen(event -> {
            begun.countDown();
            LockSupport.parkNanos(50_000_000);
            ended.countDown();
        });
        bridge.report(events.get(0));
        begun.await();
        slow.close();
        assertEquals(0, ended.getCount(), "closed, and still running");
        registrations.get(2).close();
        assertEquals(List.of("a listener throws", "hears one event", "a listener throws"),
                failures.subList(0, 3));
        assertEquals(1002, failures.size());
        registrations.forEach(Registration::close);
        assertEquals(1, threads.size());
        threads.iterator().next().join(20_000);
        assertFalse(threads.iterator().next().isAlive());
    }

    @Test
    void noEventGetsLostBetweenListenersAndPollersAndClosingWaits() {
        List<CardEvent> events = events(4_000);
        List<CardEvent> heard = new ArrayList<>();  // unguarded: nobody may run beside another
        events.forEach(bridge::report);
        client.start();
        while (heard.size() < events.size()) {
            Registration registration = client.listen(heard::add);
            if (heard.size() % 3 == 0) {
                Thread.yield();
            }
            registration.close();
            client.poll().ifPresent(heard::add);
        }
        assertEquals(events, heard);
    }

    @Test
    void sendsAgainWhatTheCardsForgetAtANewBoot() {
        LineSettings settings = LineSettings.builder().build();
        client.apply(LineSettings.builder().allLines(new LineSetting(Trigger.NEVER, Beep.OFF, 0))
                .build());
        client.apply(settings);
        client.enablePlayback(true);
        client.monitor(5);
        int before = bridge.commands().size();
        sees("00000LLLLLL0");
        assertEquals(before, bridge.commands().size());
        sees("1L1");
        assertEquals(before, bridge.commands().size(), "card 0 is not there yet");
        sees("0000");  // those behind the first have happened before
        client.monitor(6);  // a line of card 1, which would keep the settings from being taken
        sees("10");
        List<Command> again = List.of(new PlaybackSwitched(true), new Monitored(-1),
                new SettingsApplied(settings));
        assertEquals(again, bridge.commands().subList(before, bridge.commands().size()));
        sees("0000");
        assertEquals(new Monitored(6), bridge.commands().get(before + again.size()));
        assertEquals(before + again.size() + 1, bridge.commands().size());
    }

    /** The client takes transfers of the cards 0 and 1, and lock-ups. */
    private void sees(String events) {
        for (char event : events.toCharArray()) {
            bridge.report(event == 'L' ? new CardError(TIME, 3, "DSP Board Locked Up")
                    : FrameDecoder.decode(audio(event == '0' ? "0400" : "0804")));
        }
        while (client.poll().isPresent()) { }
    }

    private static List<CardEvent> events(int count) {
        return IntStream.range(0, count).<CardEvent>mapToObj(number ->
                new DigitsHeard(TIME, number % 16, Integer.toString(number))).toList();
    }

    private static byte[] frame(int type, String payload) {
        byte[] bytes = HEX.parseHex(payload);
        return ByteBuffer.allocate(11 + bytes.length).order(ByteOrder.LITTLE_ENDIAN)
                .put((byte) type).putShort((short) bytes.length).putLong(TIME.toEpochMilli())
                .put(bytes).array();
    }

    private static byte[] audio(String linesAndFirst) {
        return frame(4, linesAndFirst
                + "00010203040506070809101112".repeat(185).substring(0, 4800));
    }
}
