package com.zivolt.hardware.dsp.bench;

import com.zivolt.hardware.dsp.cppint.CPPBridge;
import java.io.IOException;
import java.util.function.Supplier;

/**
 * What getPacket costs in a Java VM, beside a bare native method that makes and fills an array of
 * the same size. Usage: {@code GetPacketBench RESULTS ROUNDS}. Both are called in turns, in batches,
 * once the VM has compiled them; each batch is a sample.
 */
public final class GetPacketBench {
    private static final int BATCH = 10;
    private static final int WARM_UP_ROUNDS = 1000;
    private static final int FRAME_LENGTH = 2413;

    private static int seen;

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
        Results results = new Results();
        for (int round = -WARM_UP_ROUNDS; round < rounds; ++round) {
            double floor = perCall(() -> Floor.filledArray(FRAME_LENGTH), FRAME_LENGTH);
            double stores = perCall(() -> Floor.framedArray(FRAME_LENGTH), FRAME_LENGTH);
            Floor.queueAudio(BATCH);
            double driver = perCall(bridge::getPacket, FRAME_LENGTH);
            double emptyFloor = perCall(Floor::nothing, 0);
            double emptyDriver = perCall(bridge::getPacket, 0);
            if (round >= 0) {
                results.add("getPacket_floor", "cpu_time", floor);
                results.add("getPacket_stores", "cpu_time", stores);
                results.add("getPacket_driver", "cpu_time", driver);
                results.add("getPacket_empty_floor", "cpu_time", emptyFloor);
                results.add("getPacket_empty_driver", "cpu_time", emptyDriver);
                boolean early = round < rounds / 10;
                if (early || round >= rounds - rounds / 10) {
                    results.add("getPacket_age", early ? "first_ns" : "last_ns", driver);
                }
            }
        }
        results.write(args[0]);
        System.out.println("GetPacketBench: " + seen + " bytes seen");
    }

    /** Nanoseconds a call; every call must yield that many bytes, 0 standing for null. */
    private static double perCall(Supplier<byte[]> method, int expectedLength) {
        int bytes = 0;
        long start = System.nanoTime();
        for (int i = 0; i < BATCH; ++i) {
            byte[] frame = method.get();
            bytes += frame == null ? 0 : frame.length;
        }
        long end = System.nanoTime();
        if (bytes != BATCH * expectedLength) {
            throw new IllegalStateException(bytes + " bytes came in " + BATCH + " calls");
        }
        seen += bytes;
        return (end - start) / (double) BATCH;
    }
}
