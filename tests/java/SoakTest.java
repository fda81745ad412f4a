import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.calvenhor.vork.utils.Smartcard;
import java.io.IOException;
import java.lang.reflect.Method;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.HashSet;
import java.util.List;
import java.util.Random;
import java.util.Set;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;

/** Many calls leave nothing behind. */
class SoakTest {
    private static final long ALLOWED_GROWTH = 4 << 20;

    @AfterEach
    void unbind() {
        Smartcard.finalizeDLL();
    }

    @Test
    void mixedCalls() throws IOException {
        MockModule.reset();
        assertEquals(0, Smartcard.initDLL(MockModule.PATH));
        List<Method> methods = Natives.ALL.stream().filter(method -> !method.getName().equals("finalizeDLL")).toList();
        Set<Method> neverSucceeded = new HashSet<>(methods);
        walk(methods, 50_000, neverSucceeded);
        long before = residentBytes();
        for(int q=0;q<8;q++){ walk(methods, 50_000, neverSucceeded);System.err.println("STEP "+(residentBytes()-before)+" objects "+MockModule.objects());}
        long growth = residentBytes() - before;
        assertTrue(growth < ALLOWED_GROWTH, "memory grew by " + growth);System.err.println("GROWTH "+growth+" objects "+MockModule.objects());

        Smartcard.openSessionDLL(0);
        Smartcard.closeSessionDLL(0);
        assertEquals(0, MockModule.openSessions());
        assertEquals(List.of("initDLL"), neverSucceeded.stream().map(Method::getName).toList()); // which is bound already
    }

    /** Calls in an order that is random and the same every time: most methods succeed now and fail then. */
    private static void walk(List<Method> methods, int calls, Set<Method> neverSucceeded) {
        Random random = new Random(1);
        for (int i = 0; i < calls; i++) {
            Method method = methods.get(random.nextInt(methods.size()));
            Object[] arguments = Natives.arguments(method);
            if (method.getName().equals("loginDLL")) {
                arguments[2] = (long) random.nextInt(2); // the security officer or the user
            }
            Object result = Natives.call(method, arguments);
            if (!Natives.failed(method, result)) {
                neverSucceeded.remove(method);
            }
            if (i % 100 == 0) {
                MockModule.takeCalls();
            }
        }
        assertEquals(0, MockModule.activeSearches());
    }

    /** Another module than the one that the tests hold: this one is truly loaded and unloaded every time. */
    @Test
    void bindings() throws IOException {
        String module = System.getProperty("other");
        bind(module, 50);
        long before = residentBytes();
        bind(module, 500);
        long growth = residentBytes() - before;
        assertTrue(growth < ALLOWED_GROWTH, "memory grew by " + growth);System.err.println("GROWTH "+growth+" objects "+MockModule.objects());
        assertFalse(Files.readString(Path.of("/proc/self/maps")).contains(module));
    }

    private static void bind(String module, int times) {
        for (int i = 0; i < times; i++) {
            assertEquals(0, Smartcard.initDLL(module));
            assertEquals(0, Smartcard.openSessionDLL(0));
            assertEquals(0, Smartcard.finalizeDLL());
        }
    }

    private static long residentBytes() throws IOException {
        System.gc();
        return Long.parseLong(Files.readString(Path.of("/proc/self/statm")).split(" ")[1]) * 4096;
    }
}
