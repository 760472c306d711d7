package com.zivolt.hardware.dsp.recorder;

/** Text from the lines is data: it must not steer a terminal, break a row or end a field. */
final class Printable {
    private Printable() {
    }

    /** Control characters as \xNN and backslashes doubled, so that it can be told what there was. */
    static String escaped(String text) {
        StringBuilder result = new StringBuilder(text.length());
        text.chars().forEach(c -> {
            if (c == '\\') {
                result.append("\\\\");
            } else if (Character.isISOControl(c)) {
                result.append("\\x").append(Character.forDigit(c >> 4, 16))
                        .append(Character.forDigit(c & 15, 16));
            } else {
                result.append((char) c);
            }
        });
        return result.toString();
    }
}
