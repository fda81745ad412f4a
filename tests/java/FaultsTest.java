import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** Whatever the module answers, whatever is passed, in whatever state: no native method does harm. */
class FaultsTest {
    private static final long[] CODES = {0x30, 0x1_8000_0123L};
    private static final long[] BAD_SLOTS = {-1, 1, 1L << 31, 1L << 32, Long.MAX_VALUE, Long.MIN_VALUE};

    /** Whether the method succeeds after this has happened; either way no search is left over and the next call works. */
    private static boolean succeedsAfter(Runnable event, String name, Object... arguments) {
        Mock.prepare(name);
        event.run();
        boolean failed = Mock.failed(name, Mock.call(name, arguments));
        assertEquals(0, Mock.activeSearches());
        assertTrue(Smartcard.isSessionOpenDLL(0) != 0 || Smartcard.isCardEmptyDLL(0) >= 0);
        return !failed;
    }

    @BeforeAll // nothing in this process has bound a module yet
    static void neverBound() {
        for (String name : Mock.names()) {
            if (!name.matches("(init|decrypt)DLL")) {
                assertTrue(Mock.failed(name, Mock.call(name)), name);
            }
        }
    }

    @ParameterizedTest
    @MethodSource("Mock#names")
    void finalized(String name) {
        boolean needsNoModule = name.matches("(init|decrypt)DLL");
        assertEquals(needsNoModule, succeedsAfter(Smartcard::finalizeDLL, name, Mock.arguments(name)));
    }

    @ParameterizedTest
    @MethodSource("Mock#names")
    void staleSession(String name) {
        boolean needsSession = name.matches("(is|(read|write|update|delete|sign|change)(?!Slot|Card)).*");
        boolean succeeds = succeedsAfter(() -> Smartcard.closeSessionDLL(0), name, Mock.arguments(name));
        assertFalse(needsSession && succeeds);
    }

    @ParameterizedTest
    @MethodSource("Mock#names")
    void moduleFails(String name) {
        Mock.prepare(name);
        assertFalse(Mock.failed(name, Mock.call(name)));
        List<String> calls = Mock.takeCalls().lines().flatMap(line -> Arrays.stream(line.split(" "))).toList();
        boolean noticed = false;
        for (int i = 0; i < calls.size(); i++) {
            String function = calls.get(i);
            int nth = Collections.frequency(calls.subList(0, i + 1), function);
            for (long code : CODES) {
                noticed |= !succeedsAfter(() -> Mock.failAt(function, nth, code), name, Mock.arguments(name));
            }
        }
        assertEquals(!calls.isEmpty(), noticed);
    }

    @ParameterizedTest
    @MethodSource("Mock#names")
    void nullArguments(String name) {
        boolean hasNoUseForIt = name.equals("setCertificateLabelDLL");
        for (int i = 0; i < Mock.arguments(name).length; i++) {
            Object[] arguments = Mock.arguments(name);
            if (!(arguments[i] instanceof Long)) {
                arguments[i] = null;
                assertEquals(hasNoUseForIt, succeedsAfter(() -> { }, name, arguments));
            }
        }
    }

    @ParameterizedTest
    @MethodSource("Mock#names")
    void slotIndexOutOfRange(String name) {
        Object[] arguments = Mock.arguments(name);
        int slot = Arrays.asList(arguments).indexOf(0L);
        boolean hasNoUseForIt = name.equals("waitForSlotEventDLL");
        for (long index : slot < 0 ? new long[0] : BAD_SLOTS) {
            arguments[slot] = index;
            assertEquals(hasNoUseForIt, succeedsAfter(() -> { }, name, arguments));
        }
    }
}
