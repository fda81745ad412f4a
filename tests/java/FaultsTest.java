import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.lang.reflect.Method;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.Set;
import org.junit.jupiter.api.MethodOrderer;
import org.junit.jupiter.api.Order;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.TestMethodOrder;

/** Whatever the module answers, whatever is passed, in whatever state: a failure, and no harm done. */
@TestMethodOrder(MethodOrderer.OrderAnnotation.class)
class FaultsTest {
    private static final long[] CODES = {0x30, 0x150, 0x191, 0x1_8000_0123L};
    private static final long[] BAD_SLOTS = {-1, 1, 1L << 31, 1L << 32, Long.MAX_VALUE, Long.MIN_VALUE};

    /** Methods that do without a session. */
    private static final String SESSIONLESS = "(init|finalize|decrypt|initToken|openSession|waitForSlotEvent|getSlot.*"
            + "|getTokenInfo|getMechanismInfo|getSupportedMechanismList|readSlotDescription|readCard.*)DLL";

    /** The only failures of the module that a caller may fail to see. */
    private static final String HIDDEN = "C_FindObjectsFinal .*|C_(FindObjects|DestroyObject) delete.*"
            + "|C_\\w+ updateKeyPairIDAndLabelDLL|C_SetAttributeValue setCertificateLabelDLL"
            + "|C_CreateObject write(Certificate)?(And)?PrivateKeyDLL|C_CloseSession closeSessionDLL"
            + "|C_GetMechanismList getSupportedMechanismListDLL";

    /** Binds a new mock module and brings it to where the method succeeds. */
    private static void prepare(Method method) {
        Smartcard.finalizeDLL();
        MockModule.reset();
        String name = method.getName();
        if (!name.equals("initDLL")) {
            assertEquals(0, Smartcard.initDLL(MockModule.PATH));
            if (!name.equals("initTokenDLL")) { // which wants no session
                assertEquals(0, Smartcard.openSessionDLL(0));
            }
            if (!name.matches("initTokenDLL|loginDLL")) {
                assertEquals(0, Smartcard.loginDLL(0, Natives.PIN, name.equals("initUserPINDLL") ? 0 : 1));
            }
        }
        MockModule.takeCalls();
    }

    /** Failed with one of these codes, without a call of the module. */
    private static void assertRefused(Method method, Object result, Long... codes) {
        String what = method.getName() + " answered " + Natives.code(result);
        // Where a search fails, those answer a code of their own.
        boolean hasOwnCodes = result instanceof byte[] && method.getName().matches("(read.*|sign)DLL");
        assertTrue(Natives.failed(method, result), what);
        assertTrue(hasOwnCodes || Set.of(codes).contains(Natives.code(result)), what);
        assertEquals("", MockModule.takeCalls(), what);
    }

    private static void assertUnbound() {
        MockModule.takeCalls();
        for (Method method : Natives.ALL) {
            if (!method.getName().matches("(init|getSlotCount|decrypt)DLL")) { // those need no module
                assertRefused(method, Natives.call(method), -1L, 0x190L, 0x90L);
            }
        }
    }

    @Test
    @Order(1) // nothing in this process has bound a module yet
    void neverBound() {
        assertEquals(0, Smartcard.getSlotCountDLL());
        assertUnbound();
        assertEquals(-1, Smartcard.initDLL("/no/such/module.so"));
        assertUnbound();
        assertEquals(-2, Smartcard.initDLL(System.getProperty("library")));
        assertUnbound();
    }

    @Test
    void boundTwiceAndFinalized() {
        for (Method method : Natives.ALL) {
            prepare(method);
            Smartcard.initDLL(MockModule.PATH);
            assertEquals(0x191, Smartcard.initDLL(MockModule.PATH));
            assertEquals(method.getName().equals("initDLL"), Natives.failed(method, Natives.call(method)));
        }
        Smartcard.finalizeDLL();
        assertUnbound();
    }

    @Test
    void withoutSession() {
        for (Method method : Natives.ALL) {
            String name = method.getName();
            if (name.equals("initDLL")) {
                continue;
            }
            prepare(method);
            Smartcard.finalizeDLL();
            Smartcard.initDLL(MockModule.PATH);
            assertEquals(!name.matches(SESSIONLESS), Natives.failed(method, Natives.call(method)), name);

            prepare(method);
            Smartcard.closeSessionDLL(0); // a stale session is there to be closed once more
            boolean works = name.matches(SESSIONLESS) || name.equals("closeSessionDLL");
            assertEquals(!works, Natives.failed(method, Natives.call(method)), name);
        }
    }

    @Test
    void everyCallOfTheModuleFails() {
        int runs = 0;
        for (Method method : Natives.ALL) {
            prepare(method);
            assertFalse(Natives.failed(method, Natives.call(method)), method.getName());
            List<String> calls = new ArrayList<>();
            for (String function : MockModule.takeCalls().split(" ")) {
                calls.add(function);
                for (long code : CODES) {
                    prepare(method);
                    MockModule.failAt(function, Collections.frequency(calls, function), code);
                    boolean failed = Natives.failed(method, Natives.call(method));
                    String run = function + " " + method.getName();
                    assertTrue(failed || function.isEmpty() || run.matches(HIDDEN), run);
                    assertSound(method);
                    runs++;
                }
            }
        }
        assertTrue(runs > 600, "only " + runs + " runs");
    }

    /** No search is left over, and the next call works. */
    private static void assertSound(Method method) {
        assertEquals(0, MockModule.activeSearches(), method.getName());
        if (method.getName().equals("initDLL")) {
            assertUnbound();
        } else if (Smartcard.isSessionOpenDLL(0) == 0) {
            assertTrue(Smartcard.isCardEmptyDLL(0) >= 0, method.getName());
        }
    }

    @Test
    void nullArguments() {
        for (Method method : Natives.ALL) {
            Object[] all = Natives.arguments(method);
            for (int i = 0; i < all.length; i++) {
                if (!(all[i] instanceof Long)) {
                    Object[] one = Natives.arguments(method);
                    all[i] = one[i] = null;
                    assertNullRefused(method, one);
                    assertNullRefused(method, all);
                }
            }
        }
    }

    private static void assertNullRefused(Method method, Object[] arguments) {
        prepare(method);
        Object result = Natives.call(method, arguments);
        switch (method.getName()) {
            case "setCertificateLabelDLL" -> assertEquals(0L, result); // it has no use for its array
            case "loginDLL" -> assertEquals("C_Login", MockModule.takeCalls()); // on a PIN pad there is no PIN
            default -> {
                assertEquals(7, Natives.code(result), method.getName());
                assertEquals("", MockModule.takeCalls(), method.getName());
            }
        }
    }

    @Test
    void slotIndexesOutOfRange() {
        for (Method method : Natives.ALL) {
            int slot = Natives.slotParameter(method);
            if (slot >= 0 && !method.getName().equals("waitForSlotEventDLL")) { // which ignores its number
                for (long index : BAD_SLOTS) {
                    prepare(method);
                    Object[] arguments = Natives.arguments(method);
                    arguments[slot] = index;
                    assertRefused(method, Natives.call(method, arguments), -1L, 0x03L, 0xB3L);
                }
            }
        }
    }
}
