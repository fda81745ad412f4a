package com.calvenhor.vork.utils;

import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;

/**
 * Loads the native library, in the order that {@link Smartcard} documents. If {@code smartcard.library} is set, nothing
 * else is tried, so that a stale library is never loaded instead.
 */
final class NativeLibrary {
    private interface Source {
        void load() throws IOException;
    }

    private final List<String> failures = new ArrayList<>();
    private String advice;

    private NativeLibrary(String advice) {
        this.advice = advice;
    }

    static void load() {
        String path = System.getProperty("smartcard.library");
        NativeLibrary library = new NativeLibrary(path != null ? "correct the system property smartcard.library"
                : "set its path with -Dsmartcard.library=PATH");
        boolean loaded = path != null
                ? library.tryLoad("smartcard.library=" + path, () -> System.load(new File(path).getAbsolutePath()))
                : library.tryLoad("the jar", NativeLibrary::loadFromJar)
                        || library.tryLoad("java.library.path", () -> System.loadLibrary("smartcard"));
        if (!loaded) {
            throw new UnsatisfiedLinkError("libsmartcard.so cannot be loaded; " + library.advice + ". Tried: "
                    + String.join("; ", library.failures));
        }
    }

    private boolean tryLoad(String place, Source source) {
        try {
            source.load();
            return true;
        } catch (UnsatisfiedLinkError e) {
            failures.add(place + ": " + e.getMessage());
        } catch (Exception | Error e) { // the next place may work
            if (e instanceof IllegalCallerException) {
                Module module = NativeLibrary.class.getModule();
                advice = "allow native access with --enable-native-access="
                        + (module.isNamed() ? module.getName() : "ALL-UNNAMED");
            }
            // ExceptionInInitializerError has a cause but no message.
            failures.add(place + ": " + (e instanceof ExceptionInInitializerError ? e.getCause() : e));
        }
        return false;
    }

    private static void loadFromJar() throws IOException {
        String architecture = System.getProperty("os.arch").replace("amd64", "x86_64");
        String system = System.getProperty("os.name").toLowerCase(Locale.ROOT) + "-" + architecture;
        try (InputStream library = NativeLibrary.class.getResourceAsStream(system + "/libsmartcard.so")) {
            if (library == null) {
                throw new UnsatisfiedLinkError("no library for " + system);
            }
            Path copy = Files.createTempFile("libsmartcard", ".so",
                    PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rw-------")));
            try {
                // Files.copy would replace the file with one that all users can read.
                try (OutputStream file = Files.newOutputStream(copy)) {
                    library.transferTo(file);
                }
                System.load(copy.toAbsolutePath().toString());
            } finally {
                copy.toFile().delete(); // the loaded library stays mapped; a failure to delete is ignored
            }
        }
    }
}
