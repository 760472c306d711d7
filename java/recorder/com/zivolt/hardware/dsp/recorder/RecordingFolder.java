package com.zivolt.hardware.dsp.recorder;

import static java.nio.file.LinkOption.NOFOLLOW_LINKS;

import java.io.Closeable;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.channels.FileLock;
import java.nio.channels.OverlappingFileLockException;
import java.nio.charset.StandardCharsets;
import java.nio.file.AccessDeniedException;
import java.nio.file.DirectoryStream;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.FileSystemException;
import java.nio.file.Files;
import java.nio.file.OpenOption;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFilePermission;
import java.nio.file.attribute.PosixFilePermissions;
import java.time.DateTimeException;
import java.time.Instant;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.List;
import java.util.Set;
import java.util.TreeSet;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * The folder of the recordings: a folder for each day in it, a file for each call in that. A file
 * that is being written has ".part" behind its name. Owner and group may read what is made here,
 * nobody else; no link is followed, for whoever could place one could have anything overwritten.
 * Whoever opens the folder for writing has it alone. Used by one thread.
 */
final class RecordingFolder implements Closeable {
    static final String PART = ".part";

    private static final String LOCK = "recorder.lock";
    private static final Pattern DAY = Pattern.compile("\\d{8}Z");
    private static final Pattern NAME =
            Pattern.compile("line(\\d\\d)-(\\d{8}T\\d{6}\\.\\d{3}Z)(-\\d+)?\\.raw");
    private static final FileAttribute<Set<PosixFilePermission>> FILE_RIGHTS =
            PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rw-r-----"));
    private static final FileAttribute<Set<PosixFilePermission>> FOLDER_RIGHTS =
            PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwxr-x---"));

    private final Path path;
    private final FileChannel lock;
    private final Set<Path> changed = new TreeSet<>();
    private String lastName = "";

    /** What the name of a recording says. */
    record NameFacts(int line, Instant start) {
    }

    private RecordingFolder(Path path, FileChannel lock) {
        this.path = path;
        this.lock = lock;
    }

    /** Nothing may be written there, which no further try mends. */
    static final class ForbiddenException extends IOException {
        private static final long serialVersionUID = 1;

        ForbiddenException(FileSystemException reason) {
            super("nothing may be written in the folder: " + reason, reason);
        }
    }

    /**
     * Makes the folder when it is not there.
     *
     * @throws ForbiddenException when whoever runs this may not write there
     * @throws IOException when it cannot be used; when another recorder has it, that says which
     */
    static RecordingFolder open(Path path) throws IOException {
        try {
            return made(path);
        } catch (FileSystemException failure) {
            boolean forbidden = failure instanceof AccessDeniedException
                    || String.valueOf(failure.getReason()).contains("Read-only file system");
            throw forbidden ? new ForbiddenException(failure) : failure;
        }
    }

    private static RecordingFolder made(Path path) throws IOException {
        if (Files.exists(path) && !Files.isDirectory(path)) {
            throw new IOException(path + " is no folder");
        }
        if (!Files.exists(path)) {
            if (path.toAbsolutePath().getParent() != null) {
                Files.createDirectories(path.toAbsolutePath().getParent());
            }
            Files.createDirectory(path, FOLDER_RIGHTS);
        }
        Path real = path.toRealPath();
        return new RecordingFolder(real, locked(real.resolve(LOCK)));
    }

    Path path() {
        return path;
    }

    /** The name for the recording of a call, relative to the folder; nothing has that name yet. */
    String freeName(int line, Instant start) {
        String name = "%s/line%02d-%s".formatted(Utc.day(start), line, Utc.stamp(start));
        String free = name + ".raw";
        for (int i = 2; isTaken(free); ++i) {
            free = name + "-" + i + ".raw";
        }
        lastName = free;
        return free;
    }

    /** A new file for the recording, under its other name until {@link #closed}. */
    SpoolFile create(String name) throws IOException {
        Path file = path.resolve(name + PART);
        Path day = file.getParent();
        if (Files.notExists(day, NOFOLLOW_LINKS)) {
            Files.createDirectory(day, FOLDER_RIGHTS);
            changed.add(path);
        }
        requireFolder(day);
        changed.add(day);
        return new SpoolFile(FileChannel.open(file, Set.of(StandardOpenOption.CREATE_NEW,
                StandardOpenOption.WRITE, NOFOLLOW_LINKS), FILE_RIGHTS));
    }

    /** Gives a file that has been closed its name. Never replaces another. */
    void closed(String name) throws IOException {
        Path file = path.resolve(name);
        Files.move(path.resolve(name + PART), file);
        changed.add(file.getParent());
    }

    /** Forces to the disk what has been made, renamed and removed. */
    void force() throws IOException {
        for (Path folder : List.copyOf(changed)) {
            changed.remove(folder);
            try (FileChannel channel = FileChannel.open(folder, StandardOpenOption.READ)) {
                channel.force(true);
            }
        }
    }

    /**
     * Removes a recording with what was made of it, whose names have more behind a dot, and the folder
     * of its day with the last one.
     */
    void remove(String name) throws IOException {
        Path file = path.resolve(name);
        if (isFolder(file.getParent())) {
            Files.deleteIfExists(file);
            String first = file.getFileName() + ".";
            for (Path made : children(file.getParent(), other -> isFile(other)
                    && other.getFileName().toString().startsWith(first), Comparator.naturalOrder())) {
                Files.delete(made);
            }
            changed.add(file.getParent());
            if (!Utc.day(Instant.now()).equals(file.getParent().getFileName().toString())) {
                removeIfEmpty(file.getParent());
            }
        }
    }

    private void removeIfEmpty(Path day) {
        try {
            Files.delete(day);
            changed.remove(day);
            changed.add(path);
        } catch (IOException needed) {
            // or may not be removed, which harms nobody
        }
    }

    /** A file of the recorder's own beside the days' folders, made when it is not there. */
    Path ownFile(String name) throws IOException {
        Path file = path.resolve(name);
        try {
            Files.createFile(file, FILE_RIGHTS);
            changed.add(path);
        } catch (FileAlreadyExistsException there) {
            requireFile(file);
        }
        return file;
    }

    /** Whether it is a file, whatever a link might lead to. */
    static boolean isFile(Path file) {
        return Files.isRegularFile(file, NOFOLLOW_LINKS);
    }

    /** Whether the name is that of a recording, or of one being written, that is there. */
    static boolean isRecording(Path folder, String name) {
        return name.matches(DAY + "/[^/]+") && factsOf(name) != null
                && isFolder(folder.resolve(name).getParent()) && isFile(folder.resolve(name));
    }

    /** The days' folders, the latest first. */
    static List<Path> days(Path folder) throws IOException {
        return children(folder, day -> isFolder(day)
                && DAY.matcher(day.getFileName().toString()).matches(), Comparator.reverseOrder());
    }

    /** The files of a day that have or will have the name of a recording, relative to the folder. */
    static List<String> recordings(Path day) throws IOException {
        return children(day, file -> isFile(file) && factsOf(file.getFileName().toString()) != null,
                Comparator.naturalOrder()).stream()
                .map(file -> day.getFileName() + "/" + file.getFileName()).toList();
    }

    /** What the name of a recording says, with or without its folder; null when it is none. */
    static NameFacts factsOf(String name) {
        String plain = name.substring(name.lastIndexOf('/') + 1);
        Matcher parts = NAME.matcher(plain.endsWith(PART)
                ? plain.substring(0, plain.length() - PART.length()) : plain);
        try {
            return parts.matches()
                    ? new NameFacts(Integer.parseInt(parts.group(1)), Utc.ofStamp(parts.group(2)))
                    : null;
        } catch (DateTimeException noSuchDay) {
            return null;
        }
    }

    @Override
    public void close() throws IOException {
        lock.close();
    }

    private static FileChannel locked(Path file) throws IOException {
        FileChannel channel = FileChannel.open(file, Set.<OpenOption>of(StandardOpenOption.CREATE,
                StandardOpenOption.READ, StandardOpenOption.WRITE, NOFOLLOW_LINKS), FILE_RIGHTS);
        try {
            FileLock taken = channel.tryLock();
            if (taken != null) {
                tellHolder(channel);
                return channel;
            }
        } catch (OverlappingFileLockException ours) {
            // told below, as of another process
        }
        ByteBuffer holder = ByteBuffer.allocate(20);
        channel.read(holder);
        channel.close();
        throw new IOException("another recorder, process "
                + StandardCharsets.US_ASCII.decode(holder.flip()) + ", has " + file.getParent());
    }

    /** For whoever finds it locked. */
    private static void tellHolder(FileChannel channel) {
        try {
            channel.truncate(0);
            channel.write(StandardCharsets.US_ASCII.encode(
                    Long.toString(ProcessHandle.current().pid())));
        } catch (IOException full) {
            // it is locked without
        }
    }

    private boolean isTaken(String name) {
        return name.equals(lastName) || Files.exists(path.resolve(name), NOFOLLOW_LINKS)
                || Files.exists(path.resolve(name + PART), NOFOLLOW_LINKS);
    }

    private static boolean isFolder(Path folder) {
        return Files.isDirectory(folder, NOFOLLOW_LINKS);
    }

    private static void requireFolder(Path folder) throws IOException {
        if (!isFolder(folder)) {
            throw new IOException(folder + " is no folder");
        }
    }

    private static void requireFile(Path file) throws IOException {
        if (!isFile(file)) {
            throw new IOException(file + " is no file");
        }
    }

    private static List<Path> children(Path folder, DirectoryStream.Filter<Path> wanted,
            Comparator<Path> order) throws IOException {
        List<Path> found = new ArrayList<>();
        try (DirectoryStream<Path> files = Files.newDirectoryStream(folder, wanted)) {
            files.forEach(found::add);
        }
        found.sort(order);
        return found;
    }
}
