package com.zivolt.hardware.dsp.recorder;

import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.security.DigestInputStream;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.util.HexFormat;

/** The audio of a call that goes on. Holds whole blocks only. Used by one thread. */
final class SpoolFile {
    private final FileChannel channel;
    private final MessageDigest digest = sha256();
    private long bytes;

    SpoolFile(FileChannel channel) {
        this.channel = channel;
    }

    long bytes() {
        return bytes;
    }

    /** Appends the block, or nothing of it. */
    void write(byte[] block) throws IOException {
        try {
            ByteBuffer left = ByteBuffer.wrap(block);
            while (left.hasRemaining()) {
                channel.write(left);
            }
        } catch (IOException failure) {
            channel.truncate(bytes).position(bytes);
            throw failure;
        }
        bytes += block.length;
        digest.update(block);
    }

    void force() throws IOException {
        channel.force(false);
    }

    /** Forces all to the disk and closes. */
    void finish() throws IOException {
        try (channel) {
            channel.force(true);
        }
    }

    /** Of what was written; to be asked once, at the end. */
    String checksum() {
        return HexFormat.of().formatHex(digest.digest());
    }

    /** The checksum of a file that is there; no link is followed. */
    static String checksum(Path file) throws IOException {
        MessageDigest digest = sha256();
        try (InputStream in = new DigestInputStream(
                Files.newInputStream(file, LinkOption.NOFOLLOW_LINKS), digest)) {
            in.transferTo(OutputStream.nullOutputStream());
        }
        return HexFormat.of().formatHex(digest.digest());
    }

    private static MessageDigest sha256() {
        try {
            return MessageDigest.getInstance("SHA-256");
        } catch (NoSuchAlgorithmException impossible) {  // every Java has it
            throw new IllegalStateException(impossible);
        }
    }
}
