import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.calvenhor.vork.utils.Smartcard;
import java.lang.reflect.Method;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.TreeMap;
import java.util.TreeSet;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.MethodOrderer;
import org.junit.jupiter.api.Order;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.TestMethodOrder;

/** Whatever the module answers, whatever is passed and in whatever state: a failure, and no harm done. */
@TestMethodOrder(MethodOrderer.OrderAnnotation.class)
class FaultsTest {
    private static final long[] CODES = {0x30, 0x150, 0x191, 0x1_8000_0123L};
    private static final long[] BAD_SLOTS = {-1, 1, 1L << 31, 1L << 32, Long.MAX_VALUE, Long.MIN_VALUE};

    /** Methods that do without a session. */
    private static final String SESSIONLESS = "(init|finalize|decrypt|initToken|openSession|waitForSlotEvent|getSlot.*"
            + "|getTokenInfo|getMechanismInfo|getSupportedMechanismList|readSlotDescription|readCard.*)DLL";

    /** The module's failures that do not show to the caller: which call of a function, in which methods. */
    private static final String HIDDEN = """
            C_CloseSession 1 [closeSessionDLL]
            C_CreateObject 1 [writeCertificateAndPrivateKeyDLL, writePrivateKeyDLL]
            C_CreateObject 2 [writeCertificateAndPrivateKeyDLL]
            C_DestroyObject 1 [deleteDLL]
            C_DestroyObject 2 [deleteDLL]
            C_DestroyObject 3 [deleteDLL]
            C_DestroyObject 4 [deleteDLL]
            C_FindObjects 1 [deleteAllCertificatesDLL, deleteCertificateDLL, deleteDLL, deletePrivateKeyDLL, \
            deletePublicKeyDLL, updateKeyPairIDAndLabelDLL]
            C_FindObjects 2 [deleteAllCertificatesDLL]
            C_FindObjectsFinal 1 [deleteAllCertificatesDLL, deleteCertificateDLL, deletePrivateKeyDLL, \
            deletePublicKeyDLL, getObjectCountInTheTokenDLL, readAllCertificatesDLL, readAttributeCertificateDLL, \
            readCertificateDLL, readCertificateIDDLL, readCertificateLabelDLL, readPrivateKeyIDDLL, \
            readPrivateKeyLabelDLL, readPublicKeyIDDLL, readPublicKeyLabelDLL, setCertificateLabelDLL, signDLL, \
            signWithIDDLL, updateKeyPairIDAndLabelDLL]
            C_FindObjectsFinal 2 [readAllCertificatesDLL, readAllRSAPrivateKeysDLL, readAllRSAPublicKeysDLL, \
            updateKeyPairIDAndLabelDLL]
            C_FindObjectsInit 1 [updateKeyPairIDAndLabelDLL]
            C_GetMechanismList 2 [getSupportedMechanismListDLL]
            C_SetAttributeValue 1 [setCertificateLabelDLL, updateKeyPairIDAndLabelDLL]
            """;

    @AfterEach
    void unbind() {
        Smartcard.finalizeDLL();
    }

    // ---- The states ----

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

    /** Nothing reaches the module, and every method says so. */
    private static void assertUnbound() {
        MockModule.takeCalls();
        for (Method method : Natives.ALL) {
            if (method.getName().matches("(init|getSlotCount|decrypt)DLL")) {
                continue; // those need no module
            }
            Object result = Natives.call(method, Natives.arguments(method));
            assertTrue(Natives.failed(method, result), method.getName());
            assertTrue(hasOwnCodes(method) || Set.of(-1L, 0x190L, 0x90L).contains(Natives.code(result)),
                    () -> method.getName() + " answered " + Natives.code(result));
        }
        assertEquals("", MockModule.takeCalls());
    }

    /** Those answer codes of their own where a search fails. */
    private static boolean hasOwnCodes(Method method) {
        return method.getReturnType() == byte[].class && method.getName().matches("(read.*|sign)DLL");
    }

    @Test
    @Order(1)
    void neverBound() {
        assertEquals(0, Smartcard.getSlotCountDLL());
        assertUnbound();
    }

    @Test
    @Order(2)
    void notAModule() {
        assertEquals(-1, Smartcard.initDLL("/no/such/module.so"));
        assertUnbound();
        assertEquals(-2, Smartcard.initDLL(System.getProperty("library")));
        assertUnbound();
    }

    @Test
    void finalizedAndBoundTwice() {
        for (Method method : Natives.ALL) {
            prepare(method);
            Smartcard.initDLL(MockModule.PATH);
            assertEquals(0x191, Smartcard.initDLL(MockModule.PATH));
            Object result = Natives.call(method, Natives.arguments(method));
            assertEquals(method.getName().equals("initDLL"), Natives.failed(method, result), method.getName());
        }
        Smartcard.finalizeDLL();
        assertUnbound();
    }

    @Test
    void withoutSessionAndWithAStaleOne() {
        for (Method method : Natives.ALL) {
            boolean sessionless = method.getName().matches(SESSIONLESS);
            prepare(Natives.ALL.get(0));
            Smartcard.finalizeDLL();
            if (!method.getName().equals("initDLL")) {
                assertEquals(0, Smartcard.initDLL(MockModule.PATH));
            }
            Object result = Natives.call(method, Natives.arguments(method));
            assertEquals(!sessionless, Natives.failed(method, result), method.getName());

            prepare(method);
            Smartcard.openSessionDLL(0);
            Smartcard.closeSessionDLL(0);
            result = Natives.call(method, Natives.arguments(method));
            boolean hidden = method.getName().matches("initDLL|closeSessionDLL");
            assertEquals(!sessionless && !hidden, Natives.failed(method, result), method.getName());
        }
    }

    // ---- The module fails ----

    @Test
    void everyCallFails() {
        Map<String, Set<String>> hidden = new TreeMap<>();
        for (Method method : Natives.ALL) {
            prepare(method);
            assertFalse(Natives.failed(method, Natives.call(method, Natives.arguments(method))), method.getName());
            List<String> calls = new ArrayList<>();
            for (String function : MockModule.takeCalls().split(" ")) {
                calls.add(function);
                for (long code : function.isEmpty() ? new long[0] : CODES) {
                    prepare(method);
                    int nth = Collections.frequency(calls, function);
                    MockModule.failAt(function, nth, code);
                    Object result = Natives.call(method, Natives.arguments(method));
                    if (!Natives.failed(method, result)) {
                        hidden.computeIfAbsent(function + " " + nth, call -> new TreeSet<>()).add(method.getName());
                    }
                    assertSound(method);
                }
            }
        }
        StringBuilder table = new StringBuilder();
        hidden.forEach((call, methods) -> table.append(call).append(' ').append(methods).append('\n'));
        assertEquals(HIDDEN, table.toString());
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

    // ---- The caller errs ----

    @Test
    void nullArguments() {
        for (Method method : Natives.ALL) {
            Object[] all = Natives.arguments(method);
            for (int i = 0; i < all.length; i++) {
                if (!(all[i] instanceof Long)) {
                    Object[] arguments = Natives.arguments(method);
                    all[i] = arguments[i] = null;
                    assertNullRefused(method, arguments);
                    assertNullRefused(method, all);
                }
            }
        }
    }

    private static void assertNullRefused(Method method, Object[] arguments) {
        prepare(method);
        long code = Natives.code(Natives.call(method, arguments));
        switch (method.getName()) {
            case "setCertificateLabelDLL" -> assertEquals(0, code); // it has no use for its array
            case "loginDLL" -> { // on a PIN pad there is no PIN; this module has none
                assertEquals(7, code);
                assertEquals("C_Login", MockModule.takeCalls());
            }
            default -> {
                assertEquals(7, code, method.getName());
                assertEquals("", MockModule.takeCalls(), method.getName());
            }
        }
    }

    @Test
    void slotIndexesOutOfRange() {
        for (Method method : Natives.ALL) {
            int slot = Natives.slotParameter(method);
            if (slot < 0 || method.getName().equals("waitForSlotEventDLL")) {
                continue;
            }
            for (long index : BAD_SLOTS) {
                prepare(method);
                Object[] arguments = Natives.arguments(method);
                arguments[slot] = index;
                Object result = Natives.call(method, arguments);
                assertTrue(Natives.failed(method, result), method.getName());
                assertTrue(hasOwnCodes(method) || Set.of(-1L, 0x03L, 0xB3L).contains(Natives.code(result)),
                        () -> method.getName() + " answered " + Natives.code(result));
                assertEquals("", MockModule.takeCalls(), method.getName());
            }
        }
    }
}
