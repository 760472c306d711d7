package com.zivolt.hardware.dsp.recorder;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;

/**
 * How grave a line is, for a journal that takes the process's output: systemd reads it in front of
 * the line. What the recorder says of trouble begins with a word in capitals. For any thread.
 */
final class Journal {
    private static final String ERROR = "<3>";
    private static final String WARNING = "<4>";

    private Journal() {
    }

    /** Whether what is written to a descriptor, 1 or 2, goes to the journal and nowhere else. */
    static boolean takes(int descriptor) {
        String stream = System.getenv("JOURNAL_STREAM");
        Path output = Path.of("/proc/self/fd/" + descriptor);
        try {
            return stream != null && stream.equals(Files.getAttribute(output, "unix:dev") + ":"
                    + Files.getAttribute(output, "unix:ino"));
        } catch (IOException closed) {
            return false;
        }
    }

    /** What stands in front of the line: an error means calls or audio that are not recorded. */
    static String level(String text) {
        if (text.matches("(CANNOT|THE|NO CARD|CARD \\d) .*")) {
            return ERROR;
        }
        return text.matches("\\p{Upper}{2}.*") ? WARNING : "";
    }
}
