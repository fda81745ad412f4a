import static org.junit.jupiter.api.Assertions.assertEquals;

import com.calvenhor.vork.utils.Smartcard;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.Arrays;
import java.util.Map;
import java.util.stream.Collectors;

/** The mock PKCS#11 module, shared with the library, and all native methods by name, as they succeed on its token. */
final class Mock {
    static final String PATH = System.getProperty("mock");
    static final byte[] NAME = "mock".getBytes(); // every value that is written and searched for
    static final Map<String, Method> NATIVES = Arrays.stream(Smartcard.class.getDeclaredMethods())
            .filter(method -> Modifier.isNative(method.getModifiers()))
            .collect(Collectors.toMap(Method::getName, method -> method));

    static {
        System.load(PATH);
    }

    /** As freshly loaded, with one slot, an event waiting there, and a token with the PIN "1". Not while it is bound. */
    private static native void reset();

    /** Fails the nth call of a function from now, the next one being 1. */
    static native void failAt(String function, int nth, long code);

    /** The names of the functions called since the last time, with a blank between two. */
    static native String takeCalls();

    static native long activeSearches();

    /** Binds a new mock module and brings it to where the method succeeds. */
    static void prepare(String name) {
        Smartcard.finalizeDLL();
        reset();
        assertEquals(0, Smartcard.initDLL(PATH));
        assertEquals(0, Smartcard.openSessionDLL(0));
        assertEquals(0, Smartcard.loginDLL(0, "1", name.equals("initUserPINDLL") ? 0 : 1));
        Smartcard.generateKeyPairDLL(0, 1024, NAME, NAME, NAME);
        assertEquals(0, Smartcard.writeCertificateDLL(0, NAME, NAME, NAME, NAME, NAME, NAME));
        assertEquals(0, Smartcard.writeAttributeCertificateDLL(0, NAME));
        switch (name) {
            case "initDLL" -> Smartcard.finalizeDLL();
            case "initTokenDLL" -> Smartcard.closeSessionDLL(0);
            case "loginDLL" -> Smartcard.logoutDLL(0);
        }
        takeCalls();
    }

    /** The first number of a method is its slot index; 1 is the user, the PIN's length and CKM_RSA_PKCS. */
    static Object[] arguments(String name) {
        Class<?>[] types = NATIVES.get(name).getParameterTypes();
        Object[] arguments = Arrays.stream(types).map(type -> type == byte[].class ? NAME
                : type == String.class ? name.equals("initDLL") ? PATH : "1"
                : (Object) (name.equals("generateKeyPairDLL") ? 1024L : 1L)).toArray();
        int slot = Arrays.asList(types).indexOf(long.class);
        if (slot >= 0) {
            arguments[slot] = 0L;
        }
        return arguments;
    }

    static Object call(String name, Object... arguments) throws Exception {
        return NATIVES.get(name).invoke(null, arguments);
    }

    /** Whether this is a failure in the method's own form; nothing that succeeds here is as short as a status. */
    static boolean failed(String name, Object result) {
        if (result instanceof Long number) {
            return name.matches("get.*|isCardEmptyDLL|decryptDLL") ? number <= 0 : number != 0;
        }
        return result instanceof byte[] bytes ? bytes.length == 1
                : result instanceof int[] numbers ? numbers.length == 0 || numbers[1] == -1
                : ((byte[][]) result)[0][0] != 0;
    }
}
