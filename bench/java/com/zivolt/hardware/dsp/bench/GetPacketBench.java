package com.zivolt.hardware.dsp.bench;

import com.zivolt.hardware.dsp.cppint.CPPBridge;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.function.Supplier;

/**
 * What getPacket costs in a Java VM, beside a bare native method that makes the same calls into the
 * VM. Usage: {@code GetPacketBench RESULTS ROUNDS}. Both are called in turns, in batches, once the
 * VM has compiled them; each batch is a sample. The results are JSON in the form of Google
 * Benchmark.
 */
public final class GetPacketBench {
    private static final int BATCH = 10;
    private static final int WARM_UP_ROUNDS = 1000;
    private static final int FRAME_LENGTH = 2413;

    private GetPacketBench() {
    }

    /**
     * Measures.
     *
     * @param args file for the results, number of batches of each kind
     * @throws IOException when the results cannot be written
     */
    public static void main(String[] args) throws IOException {
        int rounds = Integer.parseInt(args[1]);
        CPPBridge bridge = new CPPBridge();
        List<String> samples = new ArrayList<>();
        for (int round = -WARM_UP_ROUNDS; round < rounds; ++round) {
            double floor = perCall(() -> floor(FRAME_LENGTH));
            queueAudio(BATCH);
            double driver = perCall(bridge::getPacket);
            if (round >= 0) {
                samples.add(sample("getPacket_floor", floor));
                samples.add(sample("getPacket_driver", driver));
            }
        }
        Files.writeString(Path.of(args[0]),
                "{\"benchmarks\": [\n" + String.join(",\n", samples) + "\n]}\n");
    }

    /** Makes an array of that length as a frame is made. */
    private static native byte[] floor(int length);

    /** Puts that many packets of recorded audio where the driver's getPacket finds them. */
    private static native void queueAudio(int packets);

    /** Nanoseconds a call; every call must yield a frame. */
    private static double perCall(Supplier<byte[]> method) {
        int bytes = 0;
        long start = System.nanoTime();
        for (int i = 0; i < BATCH; ++i) {
            bytes += method.get().length;
        }
        long end = System.nanoTime();
        if (bytes != BATCH * FRAME_LENGTH) {
            throw new IllegalStateException(bytes + " bytes came in " + BATCH + " calls");
        }
        return (end - start) / (double) BATCH;
    }

    private static String sample(String name, double value) {
        return String.format(Locale.ROOT,
                "  {\"run_name\": \"%s\", \"run_type\": \"iteration\", \"cpu_time\": %.3f}",
                name, value);
    }
}
