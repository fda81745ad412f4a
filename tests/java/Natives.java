import com.calvenhor.vork.utils.Smartcard;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.nio.charset.StandardCharsets;
import java.util.Arrays;
import java.util.Comparator;
import java.util.List;

/** The native methods by reflection, with arguments under which each of them succeeds on the mock token. */
final class Natives {
    static final String PIN = "1234";
    private static final byte[] NAME = "mock".getBytes(StandardCharsets.UTF_8);

    static final List<Method> ALL = Arrays.stream(Smartcard.class.getDeclaredMethods())
            .filter(method -> Modifier.isNative(method.getModifiers()))
            .sorted(Comparator.comparing(Method::getName)).toList();

    private Natives() {
    }

    /** The slot index is the first number of every method that takes one. */
    static int slotParameter(Method method) {
        return Arrays.asList(method.getParameterTypes()).indexOf(long.class);
    }

    static Object[] arguments(Method method) {
        Object[] arguments = Arrays.stream(method.getParameterTypes()).map(type -> type == byte[].class ? NAME
                : type == String.class ? method.getName().equals("initDLL") ? MockModule.PATH : PIN
                : switch (method.getName()) {
                    case "loginDLL", "getMechanismInfoDLL" -> 1L; // the user; CKM_RSA_PKCS
                    case "generateKeyPairDLL" -> 1024L;
                    default -> (long) PIN.length();
                }).toArray();
        if (slotParameter(method) >= 0) {
            arguments[slotParameter(method)] = 0L;
        }
        return arguments;
    }

    static Object call(Method method) {
        return call(method, arguments(method));
    }

    static Object call(Method method, Object[] arguments) {
        try {
            return method.invoke(null, arguments);
        } catch (ReflectiveOperationException e) {
            throw new AssertionError(method.getName(), e);
        }
    }

    /** Whether this is a failure, in the method's own form; what it asks for is there on the mock token. */
    static boolean failed(Method method, Object result) {
        if (result instanceof Long number) {
            return method.getName().matches("get.*|isCardEmptyDLL|decryptDLL") ? number <= 0 : number != 0;
        }
        return result instanceof byte[] bytes ? bytes.length == 1
                : result instanceof int[] numbers ? numbers.length == 0 || numbers[1] == -1
                : ((byte[][]) result)[0][0] != 0;
    }

    /** The code that a failure carries; -1 if none. */
    static long code(Object result) {
        if (result instanceof Long number) {
            return number;
        }
        return result instanceof byte[] bytes ? bytes[0] & 0xFF
                : result instanceof int[] numbers ? numbers.length == 0 ? -1 : numbers[0]
                : ((byte[][]) result)[0][0] & 0xFF;
    }
}
