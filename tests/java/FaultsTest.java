import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.lang.reflect.Method;
import java.util.Collections;
import java.util.List;
import org.junit.jupiter.api.Test;

/** Whatever the module answers, whatever is passed, in whatever state: no native method does harm. */
class FaultsTest {
    private static final List<Long> CODES = List.of(0x30L, 0x1_8000_0123L);
    private static final List<Long> BAD_SLOTS = List.of(-1L, 1L, 1L << 31, 1L << 32, Long.MAX_VALUE, Long.MIN_VALUE);
    private static final String NEEDS_NO_MODULE = "(init|getSlotCount|decrypt)DLL";

    @Test
    void noMethodDoesHarm() throws Exception {
        for (Method method : Mock.NATIVES) { // nothing in this process has bound a module yet
            boolean needsNoModule = method.getName().matches(NEEDS_NO_MODULE);
            assertTrue(needsNoModule || Mock.fails(method, Mock.arguments(method)), method.getName());
        }
        for (Method method : Mock.NATIVES) {
            boolean needsNoModule = method.getName().matches(NEEDS_NO_MODULE);
            Object[] arguments = Mock.arguments(method);
            assertFalse(failsAfter(() -> { }, method, arguments), method.getName());
            assertEquals(!needsNoModule, failsAfter(Smartcard::finalizeDLL, method, arguments), method.getName());
            failsAfter(() -> Smartcard.closeSessionDLL(0), method, arguments);
            failEachCall(method, arguments);
            passBadArguments(method, arguments);
        }
    }

    private static void failEachCall(Method method, Object[] arguments) throws Exception {
        Mock.prepare(method.getName());
        method.invoke(null, arguments);
        List<String> calls = List.of(Mock.takeCalls().split(" "));
        boolean noticed = false;
        for (int i = 0; i < calls.size(); i++) {
            String function = calls.get(i);
            int nth = Collections.frequency(calls.subList(0, i + 1), function);
            for (long code : CODES) {
                noticed |= failsAfter(() -> Mock.failAt(function, nth, code), method, arguments);
            }
        }
        assertEquals(!calls.get(0).isEmpty(), noticed, method.getName());
    }

    private static void passBadArguments(Method method, Object[] arguments) throws Exception {
        for (int i = 0; i < arguments.length; i++) {
            List<?> badValues = arguments[i].equals(0L) ? BAD_SLOTS
                    : arguments[i] instanceof Long ? List.of() : Collections.singletonList(null);
            boolean ignored = (method.getName() + i).matches("(waitForSlotEvent|setCertificateLabel)DLL0");
            for (Object bad : badValues) {
                Object[] changed = arguments.clone();
                changed[i] = bad;
                assertEquals(!ignored, failsAfter(() -> { }, method, changed), method.getName() + " with " + bad);
            }
        }
    }

    /** Whether the method fails after this event; either way the next call works, and its search: none was left. */
    private static boolean failsAfter(Runnable event, Method method, Object[] arguments) throws Exception {
        Mock.prepare(method.getName());
        event.run();
        boolean fails = Mock.fails(method, arguments);
        assertTrue(Smartcard.isSessionOpenDLL(0) != 0 || Smartcard.isCardEmptyDLL(0) >= 0, method.getName());
        return fails;
    }
}
