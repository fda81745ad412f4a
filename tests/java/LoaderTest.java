import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.io.*;
import java.nio.file.*;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.io.TempDir;

/** The places from which the library is loaded, each in a new JVM, because a class is initialised only once. */
class LoaderTest {
    private static final String FOLDER = System.getProperty("java.library.path");
    private static final String LIBRARY = FOLDER + "/libsmartcard.so";
    private static final String ON_LIBRARY_PATH = "-Djava.library.path=" + FOLDER;
    private static final String NOT_ON_LIBRARY_PATH = "-Djava.library.path=/nowhere";

    @TempDir
    private Path jar; // a folder on the class path in its place
    @TempDir
    private Path temporary;

    /** Loads the library and prints the mapped file and its mode, or the error message. */
    public static void main(String[] arguments) throws IOException {
        try {
            Smartcard.getSlotCountDLL();
        } catch (UnsatisfiedLinkError e) {
            System.out.print(e.getMessage());
            return;
        }
        String[] mapping = Files.readAllLines(Path.of("/proc/self/maps")).stream()
                .filter(line -> line.contains("libsmartcard")).findFirst().orElseThrow().split(" +", 6);
        String mode;
        try {
            mode = PosixFilePermissions.toString(
                    Files.getPosixFilePermissions(Path.of("/proc/self/map_files", mapping[0])));
        } catch (FileSystemException e) { // only root may read it
            mode = "unknown";
        }
        System.out.print(mapping[5] + " " + mode);
    }

    @BeforeEach
    void fillJar() throws IOException {
        Files.copy(Path.of(LIBRARY), inJar());
    }

    private Path inJar() throws IOException {
        String architecture = System.getProperty("os.arch").replace("amd64", "x86_64");
        Path folder = jar.resolve("com/calvenhor/vork/utils/linux-" + architecture);
        return Files.createDirectories(folder).resolve("libsmartcard.so");
    }

    private String load(String... options) throws Exception {
        return load(List.of(), options);
    }

    private String load(List<String> wrapper, String... options) throws Exception {
        List<String> command = new ArrayList<>(wrapper);
        command.addAll(List.of(System.getProperty("java.home") + "/bin/java", "-Djava.io.tmpdir=" + temporary));
        command.addAll(List.of(options));
        command.addAll(List.of("-cp", jar + File.pathSeparator + System.getProperty("java.class.path"), "LoaderTest"));
        String output = SoftTokenTest.output(
                new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.DISCARD));
        try (var files = Files.list(temporary)) {
            assertEquals(List.of(), files.toList(), output);
        }
        return output;
    }

    /** Expects these parts in the message, in this order. */
    private static void assertFailed(String message, String... parts) {
        int from = 0;
        for (String part : parts) {
            from = message.indexOf(part, from);
            assertTrue(from >= 0, part + " is not in its place in: " + message);
        }
    }

    @Test
    void propertyIsTheOnlyPlace() throws Exception {
        Files.writeString(inJar(), "no library");
        for (Path path : List.of(Path.of(LIBRARY), Path.of("").toAbsolutePath().relativize(Path.of(LIBRARY)))) {
            assertTrue(load("-Dsmartcard.library=" + path, NOT_ON_LIBRARY_PATH).startsWith(LIBRARY));
        }
        Files.copy(Path.of(LIBRARY), inJar(), StandardCopyOption.REPLACE_EXISTING);
        String message = load("-Dsmartcard.library=/nowhere/mine.so", ON_LIBRARY_PATH);
        assertFailed(message, "correct the system property", "smartcard.library=/nowhere/mine.so: ");
        assertFalse(message.contains("jar:") || message.contains("java.library.path"), message);
    }

    @Test
    void copyFromTheJarIsPrivateAndDeleted() throws Exception {
        String loaded = load(ON_LIBRARY_PATH);
        assertTrue(loaded.matches(temporary + "/libsmartcard\\d+\\.so \\(deleted\\) (rw-------|unknown)"), loaded);
    }

    @Test
    void temporaryFolderMayBeRelative() throws Exception {
        Path relative = Path.of("").toAbsolutePath().relativize(temporary);
        String loaded = load(NOT_ON_LIBRARY_PATH, "-Djava.io.tmpdir=" + relative);
        assertTrue(loaded.contains(temporary + "/libsmartcard"), loaded);
    }

    @Test
    void libraryPathIsTheLastPlace() throws Exception {
        Files.writeString(inJar(), "no library");
        assertTrue(load(ON_LIBRARY_PATH).startsWith(LIBRARY));
        assertTrue(load(ON_LIBRARY_PATH, "-Dos.arch=riscv64").startsWith(LIBRARY));
    }

    @Test
    void failureNamesEachPlace() throws Exception {
        assertFailed(load(NOT_ON_LIBRARY_PATH, "-Dos.arch=riscv64"), "-Dsmartcard.library=PATH",
                "the jar: no library for linux-riscv64", "java.library.path: ", "/nowhere");
        assertFailed(load(NOT_ON_LIBRARY_PATH, "-Djava.io.tmpdir=/nowhere/tmp"), "-Dsmartcard.library=PATH",
                "the jar: ", "NoSuchFile", "/nowhere/tmp", "java.library.path: ");
        Files.writeString(inJar(), "no library");
        assertFailed(load(NOT_ON_LIBRARY_PATH), "the jar: " + temporary, "java.library.path: ", "/nowhere");
    }

    /** The JDK's class for temporary files fails in its initializer if the locale cannot encode the folder's name. */
    @Test
    void temporaryFolderThatTheLocaleCannotEncode() throws Exception {
        List<String> wrapper = List.of("env", "LC_ALL=C");
        String folder = "-Djava.io.tmpdir=" + temporary.resolve("ü");
        assertTrue(load(wrapper, folder, ON_LIBRARY_PATH).startsWith(LIBRARY));
        assertFailed(load(wrapper, folder, NOT_ON_LIBRARY_PATH), "the jar: ", "InvalidPathException",
                "java.library.path: ");
    }

    @Test
    void deniedNativeAccessIsExplained() throws Exception {
        Assumptions.assumeTrue(Runtime.version().feature() >= 24, "older JDKs deny nothing");
        String deny = "--illegal-native-access=deny";
        String classes = Path.of(Smartcard.class.getProtectionDomain().getCodeSource().getLocation().toURI())
                .toString();
        String module = Smartcard.class.getPackageName();
        assertFailed(load(deny), "--enable-native-access=ALL-UNNAMED", "IllegalCallerException");
        assertFailed(load(deny, "-p", classes, "--add-modules", module), "--enable-native-access=" + module, "Illegal");
        assertTrue(load(deny, "--enable-native-access=ALL-UNNAMED", ON_LIBRARY_PATH).contains("libsmartcard"));
    }

    @Test
    void temporaryFolderMountedNoexec() throws Exception {
        Process probe = new ProcessBuilder("unshare", "--map-root-user", "--mount", "true").start();
        Assumptions.assumeTrue(probe.waitFor() == 0, "this user may not create namespaces");
        List<String> wrapper = List.of("unshare", "--map-root-user", "--mount", "sh", "-c",
                "mount -t tmpfs -o noexec tmpfs " + temporary + " && exec \"$@\"", "sh");
        assertFailed(load(wrapper, NOT_ON_LIBRARY_PATH), "the jar: " + temporary, "failed to map segment");
    }
}
