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
 * A virtual machine that does what {@link Bench} tells it and reports on standard error, since standard output belongs
 * to the library's traces. The library and SunPKCS11 cannot drive a module in one process, so that each has its own.
 */
final class Worker {
    static final int THREADS = 4;
    private static final long SLOT = 0;
    private static final String PIN = "1234";
    private static final byte[] DATA = new byte[51]; // as long as the DigestInfo of SHA-256
    private static final byte[] ID = "00001".getBytes(StandardCharsets.US_ASCII);

    /** Repeats its work, and gives the last result. */
    private interface Contestant {
        Object run(long times) throws Exception;
    }

    private static Provider provider;
    private static KeyStore keyStore;
    private static PrivateKey key;
    private static Signature signature;

    private Worker() {
    }

    /** Arguments: the module, then {@code bare}, {@code fill CERTIFICATES} or {@code KIND WORK [serve]}. */
    public static void main(String[] arguments) throws Exception {
        String module = arguments[0];
        switch (arguments[1]) {
            case "library" -> {
                bindLibrary(module);
                library(Integer.parseInt(arguments[2]), 1);
            }
            case "SunPKCS11" -> {
                bindSunPkcs11(module);
                sunPkcs11(Integer.parseInt(arguments[2]), 1);
            }
            case "fill" -> fill(module, Integer.parseInt(arguments[2]));
            default -> { } // a bare virtual machine, which only prints its line
        }
        System.err.println("ready");
        if (arguments.length > 3) {
            serve(module, Integer.parseInt(arguments[2]));
        }
        Runtime.getRuntime().halt(0); // at once: a closed standard input is Bench's way to end a worker
    }

    /** Takes lines of a number and a contestant's name, and answers each with nanoseconds, or with bytes. */
    private static void serve(String module, int work) throws Exception {
        if (provider == null) {
            Plain.bind(module);
            require(Objects.deepEquals(library(work, 1), repeat(work, true, 1)), "the library and plain JNI differ");
        }
        BufferedReader commands = new BufferedReader(new InputStreamReader(System.in, StandardCharsets.US_ASCII));
        for (String line = commands.readLine(); line != null; line = commands.readLine()) {
            String name = line.substring(line.indexOf(' ') + 1);
            long times = Long.parseLong(line, 0, line.indexOf(' '), 10);
            if (name.equals("memory")) {
                System.err.println(memory(work));
                continue;
            }
            Contestant contestant = switch (name) {
                case "C" -> n -> {
                    Plain.repeatInC(work, n, DATA, ID);
                    return null;
                };
                case "plain JNI" -> n -> repeat(work, true, n);
                case "unlocked JNI" -> Worker::plainUnlocked;
                case "library" -> n -> library(work, n);
                case "threads" -> n -> inThreads(work, n);
                case "SunPKCS11" -> n -> sunPkcs11(work, n);
                case "Signature kept" -> Worker::signWithKeptSignature;
                default -> throw new IllegalArgumentException(name);
            };
            if (times > 1) {
                contestant.run(1); // others have had the processor's caches meanwhile
            }
            long start = System.nanoTime();
            Object result = contestant.run(times);
            long elapsed = System.nanoTime() - start;
            require(!(result instanceof byte[] bytes) || bytes.length == 256, "a signature has failed");
            System.err.println(elapsed);
        }
    }

    private static void require(boolean holds, String what) {
        if (!holds) {
            System.err.println("failed: " + what);
            Runtime.getRuntime().halt(1);
        }
    }

    // ---- The library, and plain JNI in its place ----

    private static void bindLibrary(String module) {
        require(Smartcard.initDLL(module) == 0 && Smartcard.openSessionDLL(SLOT) == 0
                && Smartcard.loginDLL(SLOT, PIN, 1) == 0, "binding");
    }

    private static Object library(int work, long times) {
        return repeat(work, false, times);
    }

    private static Object repeat(int work, boolean plain, long times) {
        Object last = null;
        for (; times > 0; --times) {
            last = switch (work) {
                case Plain.SIGN -> plain ? Plain.sign(SLOT, DATA) : Smartcard.signDLL(SLOT, DATA);
                case Plain.SIGN_WITH_ID ->
                    plain ? Plain.signWithID(SLOT, DATA, ID) : Smartcard.signWithIDDLL(SLOT, DATA, ID);
                case Plain.LIST -> plain ? Plain.readAllCertificates(SLOT) : Smartcard.readAllCertificatesDLL(SLOT);
                default -> plain ? Plain.getSlotInfo(SLOT) : Smartcard.getSlotInfoDLL(SLOT);
            };
        }
        return last;
    }

    private static Object plainUnlocked(long times) {
        Object last = null;
        for (; times > 0; --times) {
            last = Plain.getSlotInfoUnlocked(SLOT);
        }
        return last;
    }

    /** The library again, called by several threads at once: as many calls as by one. */
    private static Object inThreads(int work, long times) throws InterruptedException {
        Thread[] threads = new Thread[THREADS];
        Object[] results = new Object[THREADS];
        for (int i = 0; i < THREADS; ++i) {
            int number = i;
            threads[i] = new Thread(() -> results[number] = library(work, times / THREADS + 1));
            threads[i].start();
        }
        for (Thread thread : threads) {
            thread.join();
        }
        return results[0];
    }

    /** What one call takes of Java's heap and, at most, of the process's memory outside of it, which is all used. */
    private static long memory(int work) throws Exception {
        var threads = (com.sun.management.ThreadMXBean) ManagementFactory.getThreadMXBean();
        Files.writeString(Path.of("/proc/self/clear_refs"), "5"); // the peak is what there is now
        long resident = kilobytes("VmRSS:");
        long allocated = threads.getCurrentThreadAllocatedBytes();
        library(work, 1);
        allocated = threads.getCurrentThreadAllocatedBytes() - allocated;
        return allocated + 1024 * Math.max(0, kilobytes("VmHWM:") - resident);
    }

    private static long kilobytes(String entry) throws Exception {
        String line = Files.readAllLines(Path.of("/proc/self/status")).stream().filter(l -> l.startsWith(entry))
                .findFirst().orElseThrow();
        return Long.parseLong(line.replaceAll("\\D", ""));
    }

    // ---- The JDK's own provider ----

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
        signature = Signature.getInstance("SHA256withRSA", provider);
        signature.initSign(key);
    }

    /** Signs with the key kept, or has the key store read what is on the token. */
    private static Object sunPkcs11(int work, long times) throws Exception {
        Object last = null;
        for (; times > 0; --times) {
            if (work == Plain.LIST) {
                keyStore.load(null, PIN.toCharArray());
                last = keyStore.size();
            } else {
                Signature fresh = Signature.getInstance("SHA256withRSA", provider);
                fresh.initSign(key);
                fresh.update(DATA);
                last = fresh.sign();
            }
        }
        return last;
    }

    private static Object signWithKeptSignature(long times) throws Exception {
        Object last = null;
        for (; times > 0; --times) {
            signature.update(DATA);
            last = signature.sign();
        }
        return last;
    }

    // ---- A token of SoftHSM2 ----

    /** Makes a token with a private key and so many certificates, named as the cheap module's. */
    private static void fill(String module, int certificates) throws Exception {
        require(Smartcard.initDLL(module) == 0 && Smartcard.initTokenDLL(SLOT, PIN, 4) == 0
                && Smartcard.finalizeDLL() == 0 && Smartcard.initDLL(module) == 0
                && Smartcard.openSessionDLL(SLOT) == 0 && Smartcard.loginDLL(SLOT, PIN, 0) == 0
                && Smartcard.initUserPINDLL(SLOT, PIN, 4) == 0 && Smartcard.logoutDLL(SLOT) == 0
                && Smartcard.loginDLL(SLOT, PIN, 1) == 0, "the token");
        require(Smartcard.generateKeyPairDLL(SLOT, 2048, new byte[] {1, 0, 1}, ID, ID).length == 256
                && Smartcard.deletePublicKeyDLL(SLOT, ID) == 0, "the key");
        byte[] certificate = Files.readAllBytes(Path.of(System.getenv("BENCH_CERTIFICATE")));
        for (int number = 1; number <= certificates; ++number) {
            for (int i = 0; i < 4; ++i) {
                certificate[16 + i] = (byte) (number >> 8 * i); // of its serial number
            }
            byte[] id = String.format("%05d", number).getBytes(StandardCharsets.US_ASCII);
            byte[] label = String.format("certificate %05d", number).getBytes(StandardCharsets.US_ASCII);
            require(Smartcard.writeCertificateDLL(SLOT, certificate, id, id, id, id, label) == 0, "a certificate");
        }
    }
}
