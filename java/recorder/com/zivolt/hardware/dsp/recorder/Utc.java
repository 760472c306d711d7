package com.zivolt.hardware.dsp.recorder;

import java.time.Instant;
import java.time.LocalDate;
import java.time.LocalDateTime;
import java.time.ZoneOffset;
import java.time.format.DateTimeFormatter;
import java.time.format.DateTimeParseException;
import java.util.Locale;

/** Times as they are written everywhere: UTC, with the zone, in the same digits in every country. */
final class Utc {
    private static final DateTimeFormatter TEXT = formatter("uuuu-MM-dd'T'HH:mm:ss.SSS'Z'");
    private static final DateTimeFormatter SECONDS = formatter("uuuu-MM-dd'T'HH:mm:ss'Z'");
    private static final DateTimeFormatter STAMP = formatter("uuuuMMdd'T'HHmmss.SSS'Z'");
    private static final DateTimeFormatter DAY = formatter("uuuuMMdd'Z'");

    private Utc() {
    }

    /** As in the log: 2026-11-23T00:51:52.025Z. */
    static String text(Instant time) {
        return TEXT.format(time);
    }

    /** As in lines: 2026-11-23T00:51:52Z. */
    static String seconds(Instant time) {
        return SECONDS.format(time);
    }

    /** As in file names: 20261123T005152.025Z. */
    static String stamp(Instant time) {
        return STAMP.format(time);
    }

    static Instant ofStamp(String stamp) {
        return STAMP.parse(stamp, Instant::from);
    }

    /** As folders are named: 20261123Z. */
    static String day(Instant time) {
        return DAY.format(time);
    }

    /** A day (its beginning), or a time with or without the zone. */
    static Instant parse(String text) {
        try {
            if (!text.matches("\\d{4}-.*")) {
                throw new DateTimeParseException("no year of four digits", text, 0);
            }
            return text.length() <= "2026-11-23".length()
                    ? LocalDate.parse(text).atStartOfDay(ZoneOffset.UTC).toInstant()
                    : LocalDateTime.parse(text.replaceFirst("Z$", "")).toInstant(ZoneOffset.UTC);
        } catch (DateTimeParseException wrong) {
            throw new IllegalArgumentException("'" + text
                    + "' is no time like 2026-11-23 or 2026-11-23T14:30:00Z (UTC)", wrong);
        }
    }

    private static DateTimeFormatter formatter(String pattern) {
        return DateTimeFormatter.ofPattern(pattern, Locale.ROOT).withZone(ZoneOffset.UTC);
    }
}
