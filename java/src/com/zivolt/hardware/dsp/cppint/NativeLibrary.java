package com.zivolt.hardware.dsp.cppint;

import static java.nio.charset.StandardCharsets.ISO_8859_1;

import java.io.File;
import java.io.IOException;
import java.net.URISyntaxException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.CodeSource;
import java.util.ArrayList;
import java.util.List;
import java.util.Objects;
import java.util.jar.Attributes;
import java.util.jar.JarFile;
import java.util.jar.Manifest;

/**
 * Finds the driver's library and loads it, once in a process. May be used by any thread.
 *
 * <p>The library carries its version as a text, which is read from the file before it is loaded:
 * once loaded, a library that does not belong to this jar could not be got rid of. Classes that do
 * not come from the client's own jar have no version, and take any library.
 */
final class NativeLibrary {
    private static final String NAME = System.mapLibraryName("dspcard");
    private static final String TITLE = "dspcard";
    private static final String VERSION_MARK = "dspcard library version ";

    private static boolean loaded;

    private NativeLibrary() {
    }

    /**
     * Loads the library unless that has been done. After a failure the next call tries anew.
     *
     * @throws UnsatisfiedLinkError when no attempt succeeds; the message has a line for each
     */
    static synchronized void load() {
        if (loaded) {
            return;
        }
        String version = versionOfJar();
        List<String> failures = new ArrayList<>();
        for (Path file : candidates()) {
            try {
                requireVersion(file, version);
                System.load(file.toString());
                loaded = true;
                return;
            } catch (IOException | UnsatisfiedLinkError failure) {
                failures.add("  " + file + ": " + failure.getMessage());
            }
        }
        throw new UnsatisfiedLinkError(explanation(failures));
    }

    /** In the order of the attempts. A file that is named outright is the only one. */
    private static List<Path> candidates() {
        String named = System.getProperty(CPPBridge.LIBRARY_PROPERTY);
        if (named != null) {
            return List.of(Path.of(named).toAbsolutePath());
        }
        List<Path> files = new ArrayList<>();
        Path jar = jar();
        if (jar != null) {
            files.add(jar.resolveSibling(NAME));
        }
        String folders = System.getProperty("java.library.path", "");
        for (String folder : folders.split(File.pathSeparator)) {
            if (!folder.isEmpty()) {
                files.add(Path.of(folder, NAME).toAbsolutePath());
            }
        }
        return files;
    }

    private static void requireVersion(Path file, String version) throws IOException {
        if (!Files.isRegularFile(file)) {
            throw new IOException("no such file");
        }
        String found = versionOfLibrary(file);
        if (version != null && !version.equals(found)) {
            throw new IOException("is of version " + found + ", this jar of version " + version);
        }
    }

    private static String versionOfLibrary(Path file) throws IOException {
        String content = new String(Files.readAllBytes(file), ISO_8859_1);  // a char a byte
        int mark = content.indexOf(VERSION_MARK);
        return mark < 0 ? "unknown" : content.substring(mark + VERSION_MARK.length(),
                content.indexOf('\0', mark));
    }

    private static String versionOfJar() {
        Path file = jar();
        if (file == null) {
            return null;
        }
        try (JarFile jar = new JarFile(file.toFile())) {
            Manifest manifest = Objects.requireNonNullElseGet(jar.getManifest(), Manifest::new);
            Attributes about = manifest.getMainAttributes();
            return TITLE.equals(about.getValue(Attributes.Name.IMPLEMENTATION_TITLE))
                    ? about.getValue(Attributes.Name.IMPLEMENTATION_VERSION) : null;
        } catch (IOException unreadable) {
            return null;
        }
    }

    /** The jar that this class comes from; null when it comes from elsewhere. */
    private static Path jar() {
        CodeSource source = NativeLibrary.class.getProtectionDomain().getCodeSource();
        if (source == null || !source.getLocation().getProtocol().equals("file")) {
            return null;
        }
        try {
            Path file = Path.of(source.getLocation().toURI());
            return Files.isRegularFile(file) ? file : null;
        } catch (URISyntaxException noPath) {
            return null;
        }
    }

    private static String explanation(List<String> failures) {
        return """
                Cannot load the driver of the line cards, %s. Tried:
                %s
                Say where the file is by -D%s=FILE, or put its folder into -Djava.library.path.\
                """.formatted(NAME, String.join("\n", failures), CPPBridge.LIBRARY_PROPERTY);
    }
}
