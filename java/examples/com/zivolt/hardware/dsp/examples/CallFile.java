package com.zivolt.hardware.dsp.examples;

import com.zivolt.hardware.dsp.client.AudioBlock;
import java.io.Closeable;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.time.Instant;
import java.time.ZoneOffset;
import java.time.format.DateTimeFormatter;

/** The audio file of one call, in the card's own encoding. Its name tells line and start (UTC). */
final class CallFile implements Closeable {
    private static final DateTimeFormatter STAMP =
            DateTimeFormatter.ofPattern("yyyyMMdd-HHmmss-SSS").withZone(ZoneOffset.UTC);

    private final Path path;
    private final Instant start;
    private final OutputStream out;

    private CallFile(Path path, Instant start) throws IOException {
        this.path = path;
        this.start = start;
        out = Files.newOutputStream(path, StandardOpenOption.CREATE_NEW, StandardOpenOption.WRITE);
    }

    /** Never overwrites: a second call of the same line and millisecond gets another name. */
    static CallFile create(Path folder, int line, Instant start) throws IOException {
        String name = "line%02d-%s".formatted(line, STAMP.format(start));
        Path path = folder.resolve(name + ".raw");
        for (int i = 2; true; ++i) {
            try {
                return new CallFile(path, start);
            } catch (FileAlreadyExistsException taken) {
                path = folder.resolve(name + "-" + i + ".raw");
            }
        }
    }

    Path path() {
        return path;
    }

    Instant start() {
        return start;
    }

    void write(AudioBlock block) throws IOException {
        block.writeTo(out);
    }

    @Override
    public void close() throws IOException {
        out.close();
    }
}
