import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Random;
import java.util.stream.IntStream;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;

/** The mock PKCS#11 module, shared with the library: whatever it answers, however much it holds, no harm is done. */
class MockTest {
    private static final String MODULE = System.getProperty("mock");
    private static final byte[] NAME = "mock".getBytes(); // whatever is written and searched for
    private static final List<Long> BAD_SLOTS = List.of(-1L, 1L, 1L << 31, 1L << 32, Long.MAX_VALUE, Long.MIN_VALUE);
    private static final List<?> NULL = Collections.singletonList(null);
    private static final List<Method> NATIVES = Arrays.stream(Smartcard.class.getDeclaredMethods())
            .filter(method -> Modifier.isNative(method.getModifiers())).toList();

    static {
        System.load(MODULE);
    }

    /** As freshly loaded, with one slot and a token with the PIN "1". Not while bound. */
    static native void reset();

    /** Fails the nth call of a function from now, the next one being 1. */
    static native void failAt(String function, int nth, long code);

    /** Such as 0x100, CKF_PROTECTED_AUTHENTICATION_PATH. */
    static native void setTokenFlags(long flags);

    /** The names of the functions called since the last time, with a blank between two. */
    static native String takeCalls();

    /** The objects on the token, the open sessions and the active searches. */
    private static native long liveObjects();

    /** Binds a new mock module and brings it to where the method succeeds. */
    private static void prepare(String method) {
        Smartcard.finalizeDLL();
        reset();
        assertEquals(0, Smartcard.initDLL(MODULE));
        assertEquals(0, Smartcard.openSessionDLL(0));
        assertEquals(0, Smartcard.loginDLL(0, "1", method.equals("initUserPINDLL") ? 0 : 1));
        Smartcard.generateKeyPairDLL(0, 1024, NAME, NAME, NAME); // not as the security officer
        assertEquals(0, Smartcard.writeCertificateDLL(0, NAME, NAME, NAME, NAME, NAME, NAME));
        assertEquals(0, Smartcard.writeAttributeCertificateDLL(0, NAME));
        switch (method) {
            case "initDLL" -> Smartcard.finalizeDLL();
            case "initTokenDLL" -> Smartcard.closeSessionDLL(0);
            case "loginDLL" -> Smartcard.logoutDLL(0);
        }
        takeCalls();
    }

    /** The first number of a method is its slot index; 1 is the user, the PIN's length and CKM_RSA_PKCS. */
    private static Object[] arguments(Method method) {
        List<Class<?>> types = List.of(method.getParameterTypes());
        return IntStream.range(0, types.size()).mapToObj(i -> types.get(i) == byte[].class ? NAME
                : types.get(i) == String.class ? method.getName().equals("initDLL") ? MODULE : "1"
                : i == types.indexOf(long.class) ? (Object) 0L
                : method.getName().equals("generateKeyPairDLL") ? 1024L : 1L).toArray();
    }

    /** Whether it fails, in its own form of failure; nothing that succeeds here is as short as a status. */
    private static boolean fails(Method method, Object... arguments) throws ReflectiveOperationException {
        Object result = method.invoke(null, arguments);
        return result instanceof byte[] bytes ? bytes.length == 1
                : result instanceof byte[][] listing ? listing[0][0] != 0
                : result instanceof int[] numbers ? numbers.length == 0 || numbers[1] == -1
                : method.getName().matches("get.*|isCardEmptyDLL|decryptDLL") ? (long) result <= 0 : (long) result != 0;
    }

    /** Whether it fails after this event; either way the next search works: none was left active. */
    private static boolean failsAfter(Runnable event, Method method, Object... arguments) throws Exception {
        prepare(method.getName());
        event.run();
        boolean fails = fails(method, arguments);
        assertTrue(Smartcard.isSessionOpenDLL(0) != 0 || Smartcard.readAllCertificatesDLL(0)[0][0] == 0,
                method.getName());
        return fails;
    }

    @BeforeAll
    static void neverBound() throws Exception {
        for (Method method : NATIVES) {
            if (!method.getName().equals("initDLL")) {
                assertEquals(!method.getName().equals("decryptDLL"), fails(method, arguments(method)), method.getName());
            }
        }
    }

    @Test
    void faults() throws Exception {
        for (Method method : NATIVES) {
            Object[] arguments = arguments(method);
            failsAfter(() -> Smartcard.closeSessionDLL(0), method, arguments);
            boolean needsModule = !method.getName().matches("(init|getSlotCount|decrypt)DLL");
            assertEquals(needsModule, failsAfter(Smartcard::finalizeDLL, method, arguments), method.getName());
            for (String step : List.of("C_GetFunctionList 1", "C_Initialize 1", "C_GetSlotList 1", "C_GetSlotList 2")) {
                assertEquals(needsModule, failsAfter(() -> failToBind(step), method, arguments), method.getName());
            }
            boolean isSecond = method.getName().equals("initDLL");
            assertEquals(isSecond, failsAfter(() -> Smartcard.initDLL(MODULE), method, arguments), method.getName());
            failEachCall(method, arguments);
            passBadArguments(method, arguments);
        }
    }

    private static void failToBind(String step) {
        Smartcard.finalizeDLL();
        String[] functionAndNth = step.split(" ");
        failAt(functionAndNth[0], Integer.parseInt(functionAndNth[1]), 0x30);
        assertEquals(0x30, Smartcard.initDLL(MODULE));
        assertEquals(-1, Smartcard.initDLL("no such module"));
    }

    private static void failEachCall(Method method, Object[] arguments) throws Exception {
        prepare(method.getName());
        assertFalse(fails(method, arguments), method.getName());
        List<String> calls = List.of(takeCalls().split(" "));
        boolean noticed = false;
        for (int i = 0; i < calls.size(); i++) {
            String function = calls.get(i);
            int nth = Collections.frequency(calls.subList(0, i + 1), function);
            noticed |= failsAfter(() -> failAt(function, nth, 0x30), method, arguments);
            noticed |= failsAfter(() -> failAt(function, nth, 0x1_8000_0123L), method, arguments);
        }
        assertEquals(!calls.contains(""), noticed, method.getName());
    }

    private static void passBadArguments(Method method, Object[] arguments) throws Exception {
        Object[] nulls = arguments.clone();
        boolean nullsFail = false;
        for (int i = 0; i < arguments.length; i++) {
            boolean isNumber = arguments[i] instanceof Long;
            boolean isUsed = !(method.getName() + i).matches("(waitForSlotEvent|setCertificateLabel)DLL0");
            for (Object bad : arguments[i].equals(0L) ? BAD_SLOTS : isNumber ? List.of() : NULL) {
                Object[] changed = arguments.clone();
                changed[i] = bad;
                assertEquals(isUsed, failsAfter(() -> { }, method, changed), method.getName() + " with " + bad);
            }
            nulls[i] = isNumber ? arguments[i] : null;
            nullsFail |= isUsed && !isNumber;
        }
        assertEquals(nullsFail, failsAfter(() -> { }, method, nulls), method.getName() + " with nulls");
    }

    @Test
    void manyObjects() {
        prepare("deleteDLL");
        assertEquals(0, Smartcard.deleteDLL(0));
        for (int k = 0; k < 1000; k++) {
            byte[] v = ("value " + k).getBytes();
            assertEquals(0, Smartcard.writeCertificateAndPrivateKeyDLL(0, v, v, v, v, v, v, v, v, v, v, v, v, v, v));
        }
        assertListing(3, Smartcard.readAllCertificatesDLL(0));
        assertListing(4, Smartcard.readAllRSAPublicKeysDLL(0));
        assertListing(2, Smartcard.readAllRSAPrivateKeysDLL(0));
    }

    private static void assertListing(int valuesPerObject, byte[][] listing) {
        assertEquals(1 + 1000 * valuesPerObject, listing.length);
        for (int i = 1; i < listing.length; i++) {
            assertEquals("value " + (i - 1) / valuesPerObject, new String(listing[i]));
        }
    }

    @Test
    void mixedCalls() throws Throwable {
        prepare("signDLL");
        List<Method> methods = NATIVES.stream().filter(method -> !method.getName().matches("(init|final).*")).toList();
        List<Method> neverSucceeded = new ArrayList<>(methods);
        Random random = new Random(1);
        assertFlat(200_000, () -> {
            Method method = methods.get(random.nextInt(methods.size()));
            if (!fails(method, arguments(method))) {
                neverSucceeded.remove(method);
            }
            takeCalls();
        });
        assertEquals(List.of(), neverSucceeded);

        Smartcard.closeSessionDLL(0);
        assertEquals(0, Smartcard.openSessionDLL(0));
        assertEquals(0, Smartcard.loginDLL(0, "1", 1));
        while (Smartcard.isCardEmptyDLL(0) == 1) {
            assertEquals(0, Smartcard.deleteDLL(0));
        }
        assertEquals(0, Smartcard.closeSessionDLL(0));
        assertEquals(0, liveObjects());
    }

    @Test
    void bindings() throws Throwable {
        Smartcard.finalizeDLL();
        String module = System.getProperty("other"); // which nothing else holds, so that it is truly unloaded
        assertFlat(500, () -> {
            assertEquals(0, Smartcard.initDLL(module));
            assertEquals(0, Smartcard.openSessionDLL(0));
            assertEquals(0, Smartcard.finalizeDLL());
        });
        assertFalse(Files.readString(Path.of("/proc/self/maps")).contains(module));
    }

    /** Memory may grow while all is warmed up, and then by what the virtual machine's compiler takes now and then. */
    private static void assertFlat(int times, Executable step) throws Throwable {
        long before = 0;
        for (int i = -times / 2; i < times; i++) {
            if (i == 0) {
                before = residentKiB();
            }
            step.execute();
        }
        assertTrue(residentKiB() < before + 4096, "more than 4 MiB above " + before + " KiB");
    }

    private static long residentKiB() throws Exception {
        return Long.parseLong(Files.readString(Path.of("/proc/self/statm")).split(" ")[1]) * 4;
    }
}
