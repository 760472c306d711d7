package com.zivolt.hardware.dsp.launch;

import java.io.FileOutputStream;
import java.io.IOException;
import java.io.PrintStream;
import java.nio.charset.Charset;

/**
 * Gives an application an output of its own, before its {@code main} begins: the driver of the line
 * cards prints its lines to the standard streams of the process. For {@code dspcard-java}, which
 * opens these outputs.
 */
public final class OwnOutput {
    private OwnOutput() {
    }

    /**
     * Called by the Java VM.
     *
     * @param files what {@code System.out} and {@code System.err} become, with a comma between
     * @throws IOException when one of them cannot be opened
     */
    public static void premain(String files) throws IOException {
        String[] outAndErr = files.split(",", 2);
        System.setOut(open(outAndErr[0]));
        System.setErr(open(outAndErr[1]));
    }

    private static PrintStream open(String file) throws IOException {
        return new PrintStream(new FileOutputStream(file, true), true,
                Charset.forName(System.getProperty("native.encoding")));
    }
}
