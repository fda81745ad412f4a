import com.calvenhor.vork.utils.Smartcard;
import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.lang.management.ManagementFactory;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.Security;
import java.security.Signature;
import java.util.Collections;
import java.util.Objects;

/**
 * A JVM that runs operations for {@link Bench}. It reports on standard error, because the library writes traces to
 * standard output. The library and SunPKCS11 cannot use the same module in one process, so each has its own
 * process.
 */
final class Worker {
    // Operations in addition to those of Plain. Each runs once, in its own process.
    static final int FIRST_SIGNATURE = 4;
    static final int MEMORY = 5;
    static final int FILL = 6;

    private static final long SLOT = 0;
    private static final String PIN = "1234";
    private static final byte[] DATA = new byte[51]; // as long as the DigestInfo of SHA-256
    private static final byte[] ID = "00001".getBytes(StandardCharsets.US_ASCII);

    private static Provider provider;
    private static KeyStore keyStore;
    private static PrivateKey key;

    private Worker() {
    }

    /** Arguments: a module, {@code library} or {@code SunPKCS11}, and an operation. */
    public static void main(String[] arguments) throws Exception {
        String module = arguments[0];
        String implementation = arguments[1];
        int operation = Integer.parseInt(arguments[2]);
        long start = System.nanoTime();
        if (operation == FILL) {
            fill(module, Integer.parseInt(System.getenv("BENCH_CERTIFICATES")));
        } else if (implementation.equals("library")) {
            bindLibrary(module);
        } else {
            bindSunPkcs11(module);
        }
        switch (operation) {
            case FILL -> System.err.println("0");
            case MEMORY -> System.err.println(memory());
            case FIRST_SIGNATURE -> {
                run(implementation, Plain.SIGN, 1);
                System.err.println(System.nanoTime() - start);
            }
            default -> serve(module, implementation, operation);
        }
    }

    /** Reads lines with a number of repetitions and an implementation. Prints the nanoseconds for each line. */
    private static void serve(String module, String implementation, int operation) throws Exception {
        if (implementation.equals("library")) {
            Plain.bind(module);
            require(Objects.deepEquals(run("library", operation, 1), run("plain JNI", operation, 1)),
                    "the library and plain JNI returned different results");
        }
        BufferedReader commands = new BufferedReader(new InputStreamReader(System.in, StandardCharsets.US_ASCII));
        for (String line = commands.readLine(); line != null; line = commands.readLine()) {
            String[] command = line.split(" ", 2);
            long times = Long.parseLong(command[0]);
            if (times > 1) {
                run(command[1], operation, 1); // fills the processor's caches again
            }
            long start = System.nanoTime();
            run(command[1], operation, times);
            System.err.println(System.nanoTime() - start);
        }
    }

    private static void require(boolean condition, String failure) {
        if (!condition) {
            System.err.println(failure);
            Runtime.getRuntime().halt(1);
        }
    }

    /** Repeats an operation. Returns the last result. */
    private static Object run(String implementation, int operation, long times) throws Exception {
        Object last = null;
        switch (implementation) {
            case "C" -> Plain.repeatInC(operation, times);
            case "SunPKCS11" -> last = runSunPkcs11(operation, times);
            default -> last = runNatives(operation, implementation.equals("plain JNI"), times);
        }
        require(!(last instanceof byte[] signature) || signature.length == 256,
                "the signature does not have 256 bytes");
        return last;
    }

    // ---- The library and plain JNI ----

    private static void bindLibrary(String module) {
        require(Smartcard.initDLL(module) == 0 && Smartcard.openSessionDLL(SLOT) == 0
                && Smartcard.loginDLL(SLOT, PIN, 1) == 0, "the module cannot be bound");
    }

    private static Object runNatives(int operation, boolean plain, long times) {
        Object last = null;
        for (; times > 0; --times) {
            last = switch (operation) {
                case Plain.SIGN -> plain ? Plain.sign(SLOT, DATA) : Smartcard.signDLL(SLOT, DATA);
                case Plain.SIGN_WITH_ID ->
                    plain ? Plain.signWithID(SLOT, DATA, ID) : Smartcard.signWithIDDLL(SLOT, DATA, ID);
                case Plain.LIST -> plain ? Plain.readAllCertificates(SLOT) : Smartcard.readAllCertificatesDLL(SLOT);
                default -> plain ? Plain.getSlotInfo(SLOT) : Smartcard.getSlotInfoDLL(SLOT);
            };
        }
        return last;
    }

    /** {@return the bytes that a listing allocates on the Java heap, plus the increase of the process's peak memory} */
    private static long memory() throws Exception {
        var threads = (com.sun.management.ThreadMXBean) ManagementFactory.getThreadMXBean();
        Files.writeString(Path.of("/proc/self/clear_refs"), "5"); // resets the peak to the current memory
        long resident = kilobytes("VmRSS:");
        long allocated = threads.getCurrentThreadAllocatedBytes();
        Smartcard.readAllCertificatesDLL(SLOT);
        allocated = threads.getCurrentThreadAllocatedBytes() - allocated;
        return allocated + 1024 * Math.max(0, kilobytes("VmHWM:") - resident);
    }

    private static long kilobytes(String entry) throws Exception {
        String line = Files.readAllLines(Path.of("/proc/self/status")).stream().filter(l -> l.startsWith(entry))
                .findFirst().orElseThrow();
        return Long.parseLong(line.replaceAll("\\D", ""));
    }

    // ---- SunPKCS11 ----

    private static void bindSunPkcs11(String module) throws Exception {
        provider = Security.getProvider("SunPKCS11")
                .configure("--name=Bench\nlibrary=" + module + "\nslotListIndex=0\n");
        keyStore = KeyStore.getInstance("PKCS11", provider);
        keyStore.load(null, PIN.toCharArray());
        for (String alias : Collections.list(keyStore.aliases())) {
            if (keyStore.isKeyEntry(alias)) {
                key = (PrivateKey) keyStore.getKey(alias, null);
            }
        }
    }

    /** Signs with the key that bindSunPkcs11 found, or makes the KeyStore read the token again. */
    private static Object runSunPkcs11(int operation, long times) throws Exception {
        Object last = null;
        for (; times > 0; --times) {
            if (operation == Plain.LIST) {
                keyStore.load(null, PIN.toCharArray());
            } else {
                Signature signature = Signature.getInstance("SHA256withRSA", provider);
                signature.initSign(key);
                signature.update(DATA);
                last = signature.sign();
            }
        }
        return last;
    }

    // ---- Creating a SoftHSM2 token ----

    /** Creates a token with a private key and certificates, each with its own ID, label, names and serial number. */
    private static void fill(String module, int certificates) throws Exception {
        require(Smartcard.initDLL(module) == 0 && Smartcard.initTokenDLL(SLOT, PIN, 4) == 0
                && Smartcard.finalizeDLL() == 0 && Smartcard.initDLL(module) == 0
                && Smartcard.openSessionDLL(SLOT) == 0 && Smartcard.loginDLL(SLOT, PIN, 0) == 0
                && Smartcard.initUserPINDLL(SLOT, PIN, 4) == 0 && Smartcard.logoutDLL(SLOT) == 0
                && Smartcard.loginDLL(SLOT, PIN, 1) == 0, "the token cannot be created");
        require(Smartcard.generateKeyPairDLL(SLOT, 2048, new byte[] {1, 0, 1}, ID, ID).length == 256
                && Smartcard.deletePublicKeyDLL(SLOT, ID) == 0, "the key cannot be generated");
        byte[] certificate = Files.readAllBytes(Path.of(System.getenv("BENCH_CERTIFICATE")));
        for (int number = 1; number <= certificates; ++number) {
            for (int i = 0; i < 4; ++i) {
                certificate[16 + i] = (byte) (number >> 8 * i); // the serial number; the rest of the DER is the same
            }
            byte[] id = String.format("%05d", number).getBytes(StandardCharsets.US_ASCII);
            byte[] label = String.format("certificate %05d", number).getBytes(StandardCharsets.US_ASCII);
            require(Smartcard.writeCertificateDLL(SLOT, certificate, id, id, id, id, label) == 0,
                    "a certificate cannot be written");
        }
    }
}
