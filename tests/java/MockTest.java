import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.lang.reflect.*;
import java.nio.file.*;
import java.util.*;
import java.util.concurrent.*;
import java.util.stream.*;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;

/** Random calls on the mock PKCS#11 module, many of them with faults, from several threads. */
class MockTest {
    private static final String MODULE = System.getProperty("mock");
    private static final byte[] NAME = "mock".getBytes(); // every byte[] argument
    private static final long[] BAD_NUMBERS = {-1, 1, 1L << 31, 1L << 32, Long.MAX_VALUE, Long.MIN_VALUE};
    private static final long[] CODES = {0x02, 0x30, 0xB3, 0x150, 0x200, 0x1_8000_0123L};
    static final List<Method> NATIVES = Arrays.stream(Smartcard.class.getDeclaredMethods())
            .filter(method -> Modifier.isNative(method.getModifiers())).toList();

    static {
        System.load(MODULE);
    }

    /** Resets the module: one slot with a token whose PIN is "1". Must not be called while it is bound. */
    static native void reset();

    /** Makes the nth call of a function from now fail, counted from 1. */
    static native void failAt(String function, int nth, long code);

    /** Adds a slot with a token whose PIN is "2". Must not be called while the module is bound. */
    static native void addSlot();

    /** Makes the next sessions reuse the handles of earlier ones, which must be closed. */
    static native void reuseHandles();

    /** Returns and clears the names of the functions that were called, separated by blanks. */
    static native String takeCalls();

    /** The number of objects on the token, open sessions and active searches. */
    private static native long liveObjects();

    /** Binds the module, logs the user in and writes one object of each kind. */
    static void begin() {
        Smartcard.finalizeDLL();
        reset();
        bind(1);
    }

    private static void bind(long userType) {
        Smartcard.initDLL(MODULE);
        Smartcard.openSessionDLL(0);
        Smartcard.loginDLL(0, "1", userType);
        Smartcard.generateKeyPairDLL(0, 1024, NAME, NAME, NAME);
        Smartcard.writeCertificateDLL(0, NAME, NAME, NAME, NAME, NAME, NAME);
        Smartcard.writeAttributeCertificateDLL(0, NAME);
    }

    /**
     * Arguments of a successful call. The first number is the slot index 0. The others are 1: the user, the length of a
     * PIN, or CKM_RSA_PKCS. A modulus has 1024 bits.
     */
    static Object[] arguments(Method method) {
        List<Class<?>> types = List.of(method.getParameterTypes());
        return IntStream.range(0, types.size()).mapToObj(i -> types.get(i) == byte[].class ? NAME
                : types.get(i) == String.class ? method.getName().equals("initDLL") ? MODULE : "1"
                : i == types.indexOf(long.class) ? (Object) 0L
                : method.getName().equals("generateKeyPairDLL") ? 1024L : 1L).toArray();
    }

    /** Whether a call succeeds. A byte[1] is always a status, because all values here are longer. */
    private static boolean succeeds(Method method, Object... arguments) throws ReflectiveOperationException {
        Object result = method.invoke(null, arguments);
        return result instanceof byte[] bytes ? bytes.length != 1
                : result instanceof byte[][] listing ? listing[0][0] == 0
                : result instanceof int[] numbers ? numbers.length > 0 && numbers[1] != -1
                : method.getName().matches("get.*|isCardEmptyDLL|decryptDLL") ? (long) result > 0 : (long) result == 0;
    }

    /** Makes random calls. Some have bad arguments, and in some a call of the module fails. */
    private static void callAtRandom(int times, Random random, Set<String> succeeded) throws Exception {
        for (int i = 0; i < times; i++) {
            Method method = NATIVES.get(random.nextInt(NATIVES.size()));
            Object[] arguments = arguments(method);
            if (random.nextInt(4) == 0 && arguments.length > 0) {
                int bad = random.nextInt(arguments.length);
                arguments[bad] = arguments[bad] instanceof Long
                        ? BAD_NUMBERS[random.nextInt(BAD_NUMBERS.length)] : null;
            }
            synchronized (Smartcard.class) { // other threads call the mock too
                String[] calls = takeCalls().split(" ");
                if (random.nextInt(4) == 0 && !calls[0].isEmpty()) {
                    failAt(calls[0], 1 + random.nextInt(3), CODES[random.nextInt(CODES.length)]);
                }
            }
            if (succeeds(method, arguments)) {
                succeeded.add(method.getName());
            }
            if (Smartcard.isSessionOpenDLL(0) != 0 && random.nextBoolean()) {
                bind(random.nextInt(2));
            }
        }
    }

    @Test
    void randomCallsFromFourThreads() throws Throwable {
        assertTrue(NATIVES.stream().allMatch(method -> Modifier.isSynchronized(method.getModifiers())));
        begin();
        Set<String> succeeded = new ConcurrentSkipListSet<>();
        for (ThreadFactory kind : Threads.kinds()) {
            assertMemoryIsFlat(
                    () -> Threads.run(kind, 4, thread -> callAtRandom(20_000, new Random(thread), succeeded)));
        }
        assertEquals(NATIVES.stream().map(Method::getName).collect(Collectors.toCollection(TreeSet::new)), succeeded);

        begin();
        assertEquals(0, Smartcard.deleteDLL(0));
        assertEquals(0, Smartcard.closeSessionDLL(0));
        assertEquals(0, liveObjects());
    }

    /**
     * Expects that memory grows by less than 4 MiB in one of up to four rounds after the first, which warms up. A leak
     * grows in every round; the JIT compiler may use memory in some.
     */
    private static void assertMemoryIsFlat(Executable step) throws Throwable {
        long grown = Long.MAX_VALUE;
        for (int round = 0; round < 5 && (round < 2 || grown >= 4096); round++) {
            grown = -residentKiB();
            step.execute();
            grown += residentKiB();
        }
        assertTrue(grown < 4096, grown + " KiB more in the last round");
    }

    private static long residentKiB() throws Exception {
        return Long.parseLong(Files.readString(Path.of("/proc/self/statm")).split(" ")[1]) * 4;
    }
}
