import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.io.IOException;
import java.lang.reflect.Method;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.HashSet;
import java.util.List;
import java.util.Random;
import java.util.Set;
import java.util.stream.Collectors;
import org.junit.jupiter.api.Test;

/** Many calls leave nothing behind. */
class SoakTest {
    private final Set<Method> unseen = new HashSet<>(Natives.ALL); // methods that have not succeeded yet

    @Test
    void mixedCalls() throws IOException {
        MockModule.reset();
        assertEquals(0, Smartcard.initDLL(MockModule.PATH));
        walk(50_000);
        long before = residentBytes();
        walk(200_000);
        assertFlat(before);
        Smartcard.openSessionDLL(0);
        Smartcard.closeSessionDLL(0);
        assertEquals(0, MockModule.openSessions());
        assertTrue(MockModule.objects() < 100, "objects pile up");
        assertEquals(0, Smartcard.finalizeDLL());
        assertEquals(Set.of("initDLL", "finalizeDLL"), unseen.stream().map(Method::getName).collect(Collectors.toSet()));
    }

    /** In an order that is random and the same every time: nearly everything succeeds now and fails then. */
    private void walk(int calls) {
        Random random = new Random(1);
        List<Method> methods = Natives.ALL.stream().filter(method -> !method.getName().equals("finalizeDLL")).toList();
        for (int i = 0; i < calls; i++) {
            Method method = methods.get(random.nextInt(methods.size()));
            Object[] arguments = Natives.arguments(method);
            if (method.getName().equals("loginDLL")) {
                arguments[2] = (long) random.nextInt(2); // the security officer or the user
            }
            if (!Natives.failed(method, Natives.call(method, arguments))) {
                unseen.remove(method);
            }
            if (i % 100 == 0) {
                MockModule.takeCalls();
                assertEquals(0, MockModule.activeSearches());
            }
        }
    }

    /** Of a module that nothing else holds: it is truly loaded and unloaded every time. */
    @Test
    void bindings() throws IOException {
        Smartcard.finalizeDLL(); // where the other test has failed
        String module = System.getProperty("other");
        bind(module, 50);
        long before = residentBytes();
        bind(module, 500);
        assertFlat(before);
        assertFalse(Files.readString(Path.of("/proc/self/maps")).contains(module));
    }

    private static void bind(String module, int times) {
        for (int i = 0; i < times; i++) {
            assertEquals(0, Smartcard.initDLL(module));
            assertEquals(0, Smartcard.openSessionDLL(0));
            assertEquals(0, Smartcard.finalizeDLL());
        }
    }

    /** Up to what the virtual machine's compiler takes now and then. */
    private static void assertFlat(long before) throws IOException {
        long growth = residentBytes() - before;
        System.err.println("memory grew by " + growth / 1024 + " KiB");
        assertTrue(growth < 4 << 20, "memory grew by " + growth);
    }

    private static long residentBytes() throws IOException {
        System.gc();
        return Long.parseLong(Files.readString(Path.of("/proc/self/statm")).split(" ")[1]) * 4096;
    }
}
