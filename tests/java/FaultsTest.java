import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
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
        for (String name : Mock.NATIVES.keySet()) { // nothing in this process has bound a module yet
            assertTrue(name.matches(NEEDS_NO_MODULE) || Mock.failed(name, Mock.call(name, Mock.arguments(name))), name);
        }
        for (String name : Mock.NATIVES.keySet()) {
            Object[] arguments = Mock.arguments(name);
            assertTrue(succeedsAfter(() -> { }, name, arguments), name);
            assertEquals(name.matches(NEEDS_NO_MODULE), succeedsAfter(Smartcard::finalizeDLL, name, arguments), name);
            succeedsAfter(() -> Smartcard.closeSessionDLL(0), name, arguments);
            failEachCall(name, arguments);
            passBadArguments(name, arguments);
        }
    }

    private static void failEachCall(String name, Object[] arguments) throws Exception {
        Mock.prepare(name);
        Mock.call(name, arguments);
        List<String> calls = List.of(Mock.takeCalls().split(" "));
        boolean noticed = false;
        for (int i = 0; i < calls.size(); i++) {
            String function = calls.get(i);
            int nth = Collections.frequency(calls.subList(0, i + 1), function);
            for (long code : CODES) {
                noticed |= !succeedsAfter(() -> Mock.failAt(function, nth, code), name, arguments);
            }
        }
        assertEquals(!name.matches("(getSlotCount|decrypt)DLL"), noticed, name); // those call nothing
    }

    private static void passBadArguments(String name, Object[] arguments) throws Exception {
        for (int i = 0; i < arguments.length; i++) {
            List<?> badValues = arguments[i].equals(0L) ? BAD_SLOTS
                    : arguments[i] instanceof Long ? List.of() : Collections.singletonList(null);
            boolean ignored = i == 0 && name.matches("(waitForSlotEvent|setCertificateLabel)DLL");
            for (Object bad : badValues) {
                Object[] changed = arguments.clone();
                changed[i] = bad;
                assertEquals(ignored, succeedsAfter(() -> { }, name, changed), name + " with " + bad);
            }
        }
    }

    /** Whether the method succeeds after this event; either way no search is left and the next call works. */
    private static boolean succeedsAfter(Runnable event, String name, Object[] arguments) throws Exception {
        Mock.prepare(name);
        event.run();
        Object result = Mock.call(name, arguments);
        assertEquals(0, Mock.activeSearches(), name);
        assertTrue(Smartcard.isSessionOpenDLL(0) != 0 || Smartcard.isCardEmptyDLL(0) >= 0, name);
        return !Mock.failed(name, result);
    }
}
