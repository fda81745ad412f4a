import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.io.*;
import java.net.*;
import java.nio.file.*;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.*;
import java.util.concurrent.TimeUnit;
import java.util.regex.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.io.TempDir;

/** The jar's command, run as a user runs it. */
class CommandTest {
    private static final String COMMAND = System.getProperty("java.home") + "/bin/java -Djava.library.path="
            + System.getProperty("java.library.path") + " -jar ";
    private static final String JAR = System.getProperty("jar");
    private static final String SOFTHSM2 = System.getProperty("softhsm2");
    private static final String MOCK = System.getProperty("mock");
    private static final String CLIENT = System.getProperty("client");
    private static final String PIN = SoftTokenTest.PIN;
    private static final String HANGS = "|sh -c 'cat >/dev/null'"; // p11-kit's client gets no reply

    @TempDir
    private Path folder; // the command's working directory
    private final Map<String, String> environment = new HashMap<>(Map.of("P11_KIT_SERVER_ADDRESS", HANGS));
    private Process process;
    private BufferedReader out;

    @BeforeEach
    void createToken(@TempDir Path tokens) throws Exception {
        SoftTokenTest.createToken(SOFTHSM2, tokens);
        generate(SoftTokenTest.ID, "Contracts");
        Smartcard.finalizeDLL();
    }

    private static void generate(byte[] id, String label) {
        assertEquals(256, Smartcard.generateKeyPairDLL(SoftTokenTest.SLOT, 2048, SoftTokenTest.EXPONENT, id,
                label.getBytes()).length);
    }

    private void start(String... arguments) throws IOException {
        start(List.of("sh", "-c", "exec " + COMMAND + JAR + " \"$@\"", "sh"), arguments);
    }

    private void start(List<String> words, String... arguments) throws IOException {
        List<String> command = new ArrayList<>(words);
        command.addAll(List.of(arguments));
        ProcessBuilder builder = new ProcessBuilder(command).directory(folder.toFile())
                .redirectError(folder.resolve("err").toFile());
        builder.environment().putAll(environment);
        process = builder.start();
        out = process.inputReader();
    }

    /** Expects this exit status, and an empty standard error if it is 0. Returns the rest of the output. */
    private String assertEnds(int status) throws Exception {
        StringWriter rest = new StringWriter();
        out.transferTo(rest);
        assertEquals(status, process.waitFor(), rest + err());
        assertEquals(status == 0 ? "" : err(), err(), rest.toString());
        return rest.toString();
    }

    private String err() throws IOException {
        return Files.readString(folder.resolve("err"));
    }

    private String run(int status, String... arguments) throws Exception {
        start(arguments);
        return assertEnds(status);
    }

    private void awaitLine(String pattern) throws IOException {
        for (String line = ""; !line.matches(pattern); ) {
            line = out.readLine();
            assertNotNull(line, pattern);
        }
    }

    /** The second JVM. */
    private ProcessHandle worker() throws Exception {
        while (process.children().findFirst().isEmpty()) {
            Thread.sleep(10);
        }
        return process.children().findFirst().get();
    }

    private int shell(String line) throws Exception {
        return new ProcessBuilder("sh", "-c", line).directory(folder.toFile()).inheritIO().start().waitFor();
    }

    private void signal(String name, ProcessHandle to) throws Exception {
        assertEquals(0, shell("kill -" + name + " " + to.pid()));
    }

    private static void assertContains(String text, String... parts) {
        for (String part : parts) {
            assertTrue(text.contains(part), part + " is not in: " + text);
        }
    }

    @Test
    void showAndCheckLeaveTheTokenUnchanged() throws Exception {
        String open = run(0, "show", "--module", SOFTHSM2);
        assertContains(open, "\"YENIKART\"", "not logged in", "SMARTCARD_PIN", "RSA private keys: 0", "Slot 1: ",
                "not initialised");
        environment.put("SMARTCARD_PIN", PIN);
        String key = "    \"Contracts\", ID 6b65792031, 2048 bits\n";
        String shown = run(0, "show", "--module", SOFTHSM2, "--slot", "0");
        assertContains(shown, "logged in as the user", "RSA public keys: 1\n" + key, "RSA private keys: 1\n" + key,
                "      certificate: none\n", "    RSA_PKCS_KEY_PAIR_GEN  generate-pair\n");
        assertFalse(shown.contains("Slot 1: "), shown);
        assertContains(run(0, "show", "--module", SOFTHSM2, "--slot", "0", "--no-pin"), "RSA private keys: 0");

        String checked = run(0, "check", "--module", SOFTHSM2, "--write", "--traces", "traces");
        assertContains(checked, "sign with \"Contracts\"             worked        256 bytes, verified\n",
                "import a key pair and certificate worked\n",
                "objects left by a check           worked        none\n");
        assertFalse(checked.contains("refused"), checked);
        assertContains(Files.readString(folder.resolve("traces")), "INITIALIZE start\n", "C_Sign = 0x0\n");
        assertEquals(shown, run(0, "show", "--module", SOFTHSM2, "--slot", "0"));
    }

    @Test
    void leftoversOfACrashAreReportedAndDeleted() throws Exception {
        environment.put("SMARTCARD_PIN", PIN);
        start("check", "--module", SOFTHSM2, "--write");
        awaitLine("generate a key pair .*");
        ProcessHandle worker = worker();
        assertFalse(Files.readString(Path.of("/proc/" + worker.pid() + "/environ")).contains("SMARTCARD_PIN"));
        assertTrue(Files.readString(Path.of("/proc/" + worker.pid() + "/limits")).matches(
                "(?s).*Max core file size +0 +0 .*"));
        signal("SEGV", worker);
        assertEnds(11);
        Matcher report = Pattern.compile("the module crashed in step: (.+); the crash report, which may show the PIN,"
                + " is in (.+)\n(?s:.*)\"Module check\".* deletes them:\n  java -jar (.+)\n").matcher(err());
        assertTrue(report.matches(), err());
        assertTrue(PosixFilePermissions.toString(Files.getPosixFilePermissions(Path.of(report.group(2))))
                .matches("rw-(-..){2}"), report.group(2));

        SoftTokenTest.assertOk(Smartcard.initDLL(SOFTHSM2), Smartcard.openSessionDLL(SoftTokenTest.SLOT),
                Smartcard.loginDLL(SoftTokenTest.SLOT, PIN, 1));
        generate("left".getBytes(), "Module check, renamed"); // in case the crash left nothing
        Smartcard.finalizeDLL();
        start(List.of("sh", "-c", COMMAND + report.group(3)));
        assertContains(assertEnds(0), "worked        private key \"Module check", "delete public key \"Module check");
        String shown = run(0, "show", "--module", SOFTHSM2, "--slot", "0");
        assertTrue(shown.contains("Contracts") && !shown.contains("Module check"), shown);
    }

    @Test
    void wrongPinIsSentOnce() throws Exception {
        Smartcard.initDLL(SOFTHSM2);
        Recipes.newToken(SOFTHSM2, 1, PIN, PIN);
        Smartcard.finalizeDLL();
        environment.put("SMARTCARD_PIN", "wrong");
        assertContains(run(1, "show", "--module", SOFTHSM2), "CKR_PIN_INCORRECT (0xa0)",
                "SMARTCARD_PIN is sent only once");
        assertEquals(1, run(0, "show", "--module", SOFTHSM2, "--no-pin").split("USER_PIN_COUNT_LOW").length - 1);
        run(1, "check", "--module", SOFTHSM2);
        assertContains(err(), "CKR_PIN_INCORRECT (0xa0)");
    }

    /** {@code script} provides the terminal. */
    @Test
    void pinIsReadWithoutEcho() throws Exception {
        start(List.of("script", "--quiet", "--return", "--command",
                COMMAND + JAR + " show --module " + SOFTHSM2 + " --slot 0", "/dev/null"));
        StringBuilder output = new StringBuilder();
        while (output.indexOf("PIN of the token \"YENIKART\"") < 0 || !output.toString().endsWith(": ")) {
            output.append((char) out.read());
        }
        process.getOutputStream().write((PIN + "\n").getBytes());
        process.getOutputStream().flush();
        String rest = assertEnds(0);
        assertContains(rest, "logged in as the user", "RSA private keys: 1");
        assertFalse(rest.contains(PIN), rest);
    }

    @Test
    void inconsistentResultsAreReported() throws Exception {
        environment.put("SMARTCARD_PIN", "1234");
        assertContains(run(10, "check", "--module", MOCK, "--write"), "INCONSISTENT  the signature does not verify",
                "Inconsistent results: 2");
    }

    @Test
    void hangingModuleEndsWithTheCommand() throws Exception {
        Path traces = folder.resolve("traces");
        start("check", "--module", CLIENT, "--timeout", "5", "--traces", "traces");
        while (!Files.exists(traces) || Files.size(traces) == 0) {
            Thread.sleep(10);
        }
        ProcessHandle stopped = worker();
        signal("STOP", stopped); // it can no longer end itself
        assertEnds(12);
        assertEquals("the module did not return within 5 s, in step: load and initialise the module\n", err());
        stopped.onExit().get(10, TimeUnit.SECONDS);

        environment.put("P11_KIT_SERVER_ADDRESS", "|sh -c 'yes \"$(printf \"\\001noise\")\" >&2'");
        run(12, "check", "--module", CLIENT, "--timeout", "3");
        assertContains(err(), "the module did not return within 3 s, in step: ", "\1noise\n");
        environment.put("P11_KIT_SERVER_ADDRESS", HANGS);
        for (String signal : List.of("INT", "KILL")) {
            start("check", "--module", CLIENT);
            awaitLine(CLIENT);
            ProcessHandle worker = worker();
            signal(signal, process.toHandle());
            worker.onExit().get(10, TimeUnit.SECONDS);
            assertEnds(signal.equals("INT") ? 130 : 137);
            assertEquals("", err());
        }
    }

    @Test
    void failingModulesDoNotStopTheOthers() throws Exception {
        Path modules = Files.createDirectories(folder.resolve("pkcs11/modules"));
        environment.put("XDG_CONFIG_HOME", folder.toString());
        Files.writeString(modules.resolve("a.module"), "# hangs\nmodule: " + CLIENT + "\n");
        Files.writeString(modules.resolve("b.module"), "module: nowhere.so\n");
        Files.writeString(modules.resolve("c.module"), "module:" + MOCK);
        String shown = run(12, "show", "--no-pin", "--timeout", "5");
        assertContains(shown, CLIENT + "\n  the module did not return within 5 s", "nowhere.so cannot be loaded",
                MOCK + "\n\nSlot 0: ", "libsofthsm2.so\n\nSlot 0: ", "\"YENIKART\"");
        assertEquals("", err());
    }

    /** Uses ssh and an sshd of this user, or a pipe if sshd refuses the login. */
    @Test
    void cardOnAnotherMachine() throws Exception {
        String remote = "SOFTHSM2_CONF=" + System.getenv("SOFTHSM2_CONF") + " p11-kit remote " + SOFTHSM2;
        int port;
        try (ServerSocket free = new ServerSocket(0, 1, InetAddress.getLoopbackAddress())) {
            port = free.getLocalPort();
        }
        shell("ssh-keygen -q -t ed25519 -N '' -f host && ssh-keygen -q -t ed25519 -N '' -f key"
                + (Files.isWritable(Path.of("/run")) ? " && mkdir -p /run/sshd" : "")); // sshd needs it as root
        Files.writeString(folder.resolve("keys"), "restrict,command=\"" + remote + "\" "
                + Files.readString(folder.resolve("key.pub")));
        Files.writeString(folder.resolve("hosts"), "[127.0.0.1]:" + port + " "
                + Files.readString(folder.resolve("host.pub")));
        String ssh = "ssh -q -F /dev/null -o BatchMode=yes -o UserKnownHostsFile=" + folder + "/hosts -i " + folder
                + "/key -p " + port + " " + System.getProperty("user.name") + "@127.0.0.1";
        start(List.of("sh", "-c", "exec /usr/sbin/sshd \"$@\"", "sshd"), "-D", "-E", folder + "/log", "-f", "/dev/null",
                "-h", folder + "/host", "-p", "" + port, "-o", "ListenAddress=127.0.0.1", "-o",
                "AuthorizedKeysFile=" + folder + "/keys", "-o", "StrictModes=no", "-o", "UsePAM=no", "-o",
                "PidFile=none");
        Process sshd = process;
        Path log = folder.resolve("log");
        while (sshd.isAlive() && !(Files.exists(log) && Files.readString(log).contains("listening"))) {
            Thread.sleep(10);
        }
        boolean canLogIn = shell(ssh + " -n") != 255; // 255 is an error of ssh itself
        environment.putAll(Map.of("P11_KIT_SERVER_ADDRESS", canLogIn ? '|' + ssh : "|sh -c '" + remote + "'",
                "SMARTCARD_PIN", PIN));
        try {
            assertContains(run(0, "check", "--module", CLIENT, "--write"), "256 bytes, verified\n");
        } finally {
            sshd.destroy();
        }
    }

    @Test
    void usage() throws Exception {
        for (String line : List.of("", "check", "show --write", "show --slot", "show --slot -1",
                "check --module m --timeout 0")) {
            run(2, line.isEmpty() ? new String[0] : line.split(" "));
            assertContains(err(), "java -jar JAR check --module PATH", "Exit status: ");
        }
        assertContains(run(0, "--help"), "Exit status: ");
        assertTrue(run(0, "--version").matches("libsmartcard \\d+\\.\\d+\\.\\d+\n"));
        run(1, "show", "--module", SOFTHSM2, "--slot", "99");
        assertEquals("slot 99 does not exist: the last slot is 1\n", err());
        run(1, "check", "--module", JAR);
        assertContains(err(), JAR + " cannot be loaded: ", "invalid ELF header");
    }
}
