package com.calvenhor.vork.utils.tool;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Collection;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Map;
import java.util.Objects;
import java.util.Set;
import java.util.TreeMap;
import java.util.stream.Stream;

/** The modules that this system knows of: those of p11-kit's files, SoftHSM2 and OpenSC. */
final class Modules {
    private static final List<String> FOLDERS = List.of(
            "/usr/lib/" + System.getProperty("os.arch").replace("amd64", "x86_64") + "-linux-gnu", "/usr/lib64",
            "/usr/lib", "/usr/local/lib");

    private Modules() {
    }

    static Set<Path> known() {
        Set<Path> modules = new LinkedHashSet<>();
        for (Path file : files()) {
            try {
                String text = new String(Files.readAllBytes(file), StandardCharsets.UTF_8);
                if (!text.contains("trust-policy: yes")) { // certificates of authorities, and no read/write session
                    text.lines().filter(line -> line.startsWith("module:")).map(line -> line.substring(7).strip())
                            .forEach(name -> modules.add(first(name, "pkcs11")));
                }
            } catch (IOException e) {
                continue; // not for this user
            }
        }
        for (String name : List.of("libsofthsm2.so", "opensc-pkcs11.so")) {
            Path usual = first(name, "pkcs11", "softhsm", "");
            if (modules.stream().noneMatch(module -> module.endsWith(name)) && Files.exists(usual)) {
                modules.add(usual);
            }
        }
        return modules;
    }

    /** p11-kit's module files; one of the user's is read in place of the system's of the same name. */
    private static Collection<Path> files() {
        String configuration = Objects.requireNonNullElse(System.getenv("XDG_CONFIG_HOME"),
                System.getProperty("user.home") + "/.config");
        Map<String, Path> files = new TreeMap<>();
        for (String folder : List.of("/usr/share/p11-kit/modules", "/etc/pkcs11/modules",
                configuration + "/pkcs11/modules")) {
            try (DirectoryStream<Path> modules = Files.newDirectoryStream(Path.of(folder), "*.module")) {
                modules.forEach(file -> files.put(file.getFileName().toString(), file));
            } catch (IOException e) {
                continue; // no such folder
            }
        }
        return files.values();
    }

    /** The first place that has the file, which may be its whole path; the first of all if none has it. */
    private static Path first(String name, String... below) {
        List<Path> places = FOLDERS.stream().flatMap(folder -> Stream.of(below)
                .map(each -> Path.of(folder, each).resolve(name))).toList();
        return places.stream().filter(Files::exists).findFirst().orElse(places.get(0));
    }
}
