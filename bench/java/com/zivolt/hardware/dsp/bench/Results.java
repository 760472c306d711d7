package com.zivolt.hardware.dsp.bench;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;

/** Measurements as JSON, in the form of Google Benchmark, each sample a repetition. */
final class Results {
    private final List<String> samples = new ArrayList<>();

    void add(String name, String field, double value) {
        samples.add(String.format(Locale.ROOT,
                "  {\"run_name\": \"%s\", \"run_type\": \"iteration\", \"%s\": %.3f}",
                name, field, value));
    }

    void write(String file) throws IOException {
        Files.writeString(Path.of(file),
                "{\"benchmarks\": [\n" + String.join(",\n", samples) + "\n]}\n");
    }
}
