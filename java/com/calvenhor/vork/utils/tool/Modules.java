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

/** Finds installed PKCS#11 modules, as the usage in {@link Main} lists them. */
final class Modules {
    private static final List<String> FOLDERS = List.of(
            "/usr/lib/" + System.getProperty("os.arch").replace("amd64", "x86_64") + "-linux-gnu", "/usr/lib64",
            "/usr/lib", "/usr/local/lib");

    private Modules() {
    }

    static Set<Path> find() {
        Set<Path> modules = new LinkedHashSet<>();
        for (Path file : moduleFiles()) {
            try {
                String text = new String(Files.readAllBytes(file), StandardCharsets.UTF_8);
                if (!text.contains("trust-policy: yes")) { // trust modules refuse a read/write session
                    text.lines().filter(line -> line.startsWith("module:")).map(line -> line.substring(7).strip())
                            .forEach(name -> modules.add(locate(name, "pkcs11")));
                }
            } catch (IOException e) {
                continue; // this user may not read it
            }
        }
        for (String name : List.of("libsofthsm2.so", "opensc-pkcs11.so")) {
            Path usual = locate(name, "pkcs11", "softhsm", "");
            if (modules.stream().noneMatch(module -> module.endsWith(name)) && Files.exists(usual)) {
                modules.add(usual);
            }
        }
        return modules;
    }

    /** {@return p11-kit's module files; a file of the user replaces the system's file of the same name} */
    private static Collection<Path> moduleFiles() {
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

    /** {@return the first existing candidate, or else the first one; an absolute name is returned unchanged} */
    private static Path locate(String name, String... subfolders) {
        List<Path> candidates = FOLDERS.stream().flatMap(folder -> Stream.of(subfolders)
                .map(subfolder -> Path.of(folder, subfolder).resolve(name))).toList();
        return candidates.stream().filter(Files::exists).findFirst().orElse(candidates.get(0));
    }
}
