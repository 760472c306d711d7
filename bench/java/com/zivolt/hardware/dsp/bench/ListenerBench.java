package com.zivolt.hardware.dsp.bench;

import com.zivolt.hardware.dsp.client.CardClient;
import com.zivolt.hardware.dsp.client.CardEvent;
import com.zivolt.hardware.dsp.client.FrameDecoder;
import com.zivolt.hardware.dsp.cppint.CardBridge;
import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.concurrent.CompletableFuture;

/**
 * What a listener costs, beside a thread that takes the same frames by polling every 10 ms and does
 * nothing else: processor time of the threads, a second at a time, side by side. The frames are
 * those of a four- and an eight-channel card. Usage: {@code ListenerBench RESULTS SECONDS}. The
 * results are JSON in the form of Google Benchmark.
 */
public final class ListenerBench {
    private static final int WARM_UP_SECONDS = 10;
    private static final long POLL_INTERVAL_MS = 10;
    private static final ThreadMXBean THREADS = ManagementFactory.getThreadMXBean();

    private static volatile CardEvent latest;

    private ListenerBench() {
    }

    /**
     * Measures.
     *
     * @param args file for the results, number of seconds
     * @throws Exception when the results cannot be written
     */
    public static void main(String[] args) throws Exception {
        Thread polling = new Thread(ListenerBench::poll);
        polling.start();
        CompletableFuture<Thread> listening = new CompletableFuture<>();
        CardClient client = new CardClient(new SteadyCards());
        client.listen(event -> {
            latest = event;
            listening.complete(Thread.currentThread());
        });
        client.start();
        List<String> samples = new ArrayList<>();
        long[] before = {cpuTime(polling), cpuTime(listening.get())};
        for (int second = -WARM_UP_SECONDS; second < Integer.parseInt(args[1]); ++second) {
            Thread.sleep(1000);
            long[] after = {cpuTime(polling), cpuTime(listening.get())};
            if (second >= 0) {
                samples.add(sample("listener_floor", after[0] - before[0]));
                samples.add(sample("listener_driver", after[1] - before[1]));
            }
            before = after;
        }
        write(Path.of(args[0]), samples);
        System.exit(0);
    }

    private static void poll() {
        CardBridge cards = new SteadyCards();
        while (true) {
            byte[] frame = cards.getPacket();
            try {
                if (frame == null) {
                    Thread.sleep(POLL_INTERVAL_MS);
                } else {
                    latest = FrameDecoder.decode(frame);
                }
            } catch (InterruptedException end) {
                return;
            }
        }
    }

    private static long cpuTime(Thread thread) {
        return THREADS.getThreadCpuTime(thread.getId());
    }

    private static String sample(String name, long value) {
        return String.format(Locale.ROOT,
                "  {\"run_name\": \"%s\", \"run_type\": \"iteration\", \"cpu_time\": %d}",
                name, value);
    }

    private static void write(Path file, List<String> samples) throws IOException {
        Files.writeString(file,
                "{\"benchmarks\": [\n" + String.join(",\n", samples) + "\n]}\n");
    }

    /** Delivers the audio of two cards when it is due, and takes no command. */
    private static final class SteadyCards implements CardBridge {
        private static final long PERIOD_NS = 225_000_000;

        private final byte[][] frames = {frame(4, 0), frame(8, 4), frame(8, 4)};
        private final long start_ns = System.nanoTime();
        private long delivered;

        private static byte[] frame(int lines, int firstLine) {
            return ByteBuffer.allocate(2413).order(ByteOrder.LITTLE_ENDIAN).put((byte) 4)
                    .putShort((short) 2402).putLong(System.currentTimeMillis())
                    .put((byte) lines).put((byte) firstLine).array();
        }

        /** Three frames in two periods of the faster card. */
        @Override
        public byte[] getPacket() {
            long due = 3 * (System.nanoTime() - start_ns) / (2 * PERIOD_NS);
            if (delivered >= due) {
                return null;
            }
            byte[] frame = frames[(int) (delivered++ % frames.length)].clone();
            ByteBuffer.wrap(frame).order(ByteOrder.LITTLE_ENDIAN)
                    .putLong(3, System.currentTimeMillis()).putLong(13, delivered);
            return frame;
        }

        @Override
        public int getNumberOfChannels(int boardNumber) {
            return boardNumber == 0 ? 4 : 8;
        }

        @Override
        public void initialize() {
        }

        @Override
        public void startRecording() {
        }

        @Override
        public void stopRecording() {
        }

        @Override
        public void setMonitoring(int monitorChannel) {
        }

        @Override
        public void setPlayback(boolean playback) {
        }

        @Override
        public void putPacket(byte packetType, int length, byte[] data) {
        }
    }
}
