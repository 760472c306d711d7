package com.zivolt.hardware.dsp.client;

import java.io.IOException;
import java.io.OutputStream;
import java.util.Arrays;
import java.util.Objects;

/**
 * The audio of one line from one transfer of its card, byte for byte in the card's own encoding:
 * 600 bytes from a four-channel card, 300 from an eight-channel card. Never changes.
 */
public final class AudioBlock {
    private final byte[] shared;
    private final int offset;
    private final int length;

    /** The array is shared by the blocks of a transfer and must never be written again. */
    AudioBlock(byte[] shared, int offset, int length) {
        this.shared = shared;
        this.offset = offset;
        this.length = length;
    }

    /**
     * A block of these bytes.
     *
     * @param audio copied
     * @return the block
     */
    public static AudioBlock of(byte[] audio) {
        byte[] copy = Objects.requireNonNull(audio, "audio").clone();
        return new AudioBlock(copy, 0, copy.length);
    }

    /**
     * The size of the block.
     *
     * @return number of bytes
     */
    public int length() {
        return length;
    }

    /**
     * One byte.
     *
     * @param index 0 to {@code length() - 1}
     * @return its value
     * @throws IndexOutOfBoundsException when there is no such byte
     */
    public byte byteAt(int index) {
        return shared[offset + Objects.checkIndex(index, length)];
    }

    /**
     * All bytes.
     *
     * @return a new array
     */
    public byte[] toByteArray() {
        return Arrays.copyOfRange(shared, offset, offset + length);
    }

    /**
     * Writes all bytes.
     *
     * @param out where to; neither flushed nor closed
     * @throws IOException when {@code out} throws it
     */
    public void writeTo(OutputStream out) throws IOException {
        Objects.requireNonNull(out, "out").write(shared, offset, length);
    }

    @Override
    public boolean equals(Object other) {
        return other instanceof AudioBlock block
                && Arrays.equals(shared, offset, offset + length,
                        block.shared, block.offset, block.offset + block.length);
    }

    @Override
    public int hashCode() {
        return Arrays.hashCode(toByteArray());
    }

    @Override
    public String toString() {
        return "AudioBlock[" + length + " bytes]";
    }
}
