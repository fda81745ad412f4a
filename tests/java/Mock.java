import static org.junit.jupiter.api.Assertions.assertEquals;

import com.calvenhor.vork.utils.Smartcard;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.Arrays;
import java.util.List;

/** The mock PKCS#11 module, shared with the library, and all native methods, as they succeed on its token. */
final class Mock {
    static final String PATH = System.getProperty("mock");
    static final byte[] NAME = "mock".getBytes(); // every value that is written and searched for
    static final List<Method> NATIVES = Arrays.stream(Smartcard.class.getDeclaredMethods())
            .filter(method -> Modifier.isNative(method.getModifiers())).toList();

    static {
        System.load(PATH);
    }

    /** As freshly loaded, with one slot, an event waiting there, and a token with the PIN "1". Not while bound. */
    private static native void reset();

    /** Fails the nth call of a function from now, the next one being 1. */
    static native void failAt(String function, int nth, long code);

    /** The names of the functions called since the last time, with a blank between two. */
    static native String takeCalls();

    /** Binds a new mock module and brings it to where the method succeeds. */
    static void prepare(String method) {
        Smartcard.finalizeDLL();
        reset();
        assertEquals(0, Smartcard.initDLL(PATH));
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
    static Object[] arguments(Method method) {
        Class<?>[] types = method.getParameterTypes();
        Object[] arguments = Arrays.stream(types).map(type -> type == byte[].class ? NAME
                : type == String.class ? method.getName().equals("initDLL") ? PATH : "1"
                : (Object) (method.getName().equals("generateKeyPairDLL") ? 1024L : 1L)).toArray();
        int slot = Arrays.asList(types).indexOf(long.class);
        if (slot >= 0) {
            arguments[slot] = 0L;
        }
        return arguments;
    }

    /** Whether it failed, in its own form of failure; nothing that succeeds here is as short as a status. */
    static boolean fails(Method method, Object... arguments) throws ReflectiveOperationException {
        Object result = method.invoke(null, arguments);
        if (result instanceof Long number) {
            return method.getName().matches("get.*|isCardEmptyDLL|decryptDLL") ? number <= 0 : number != 0;
        }
        return result instanceof byte[] bytes ? bytes.length == 1
                : result instanceof int[] numbers ? numbers.length == 0 || numbers[1] == -1
                : ((byte[][]) result)[0][0] != 0;
    }
}
