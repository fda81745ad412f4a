import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.Random;
import java.util.Set;
import java.util.TreeSet;
import org.junit.jupiter.api.Test;

/** Many objects are listed whole, and many calls leave nothing behind. */
class LoadTest {
    private final Set<String> unseen = new TreeSet<>(Mock.names()); // methods that have not succeeded yet

    @Test
    void manyObjects() {
        Mock.prepare("deleteDLL");
        assertEquals(0, Smartcard.deleteDLL(0));
        String write = "writeCertificateAndPrivateKeyDLL";
        Object[] arguments = Mock.arguments(write);
        for (int k = 0; k < 1000; k++) {
            arguments[13] = ("id " + k).getBytes();
            arguments[14] = ("label " + k).getBytes();
            assertEquals(0L, Mock.call(write, arguments));
        }
        assertListing(Smartcard.readAllCertificatesDLL(0), 1);
        assertListing(Smartcard.readAllRSAPublicKeysDLL(0), 2);
        assertListing(Smartcard.readAllRSAPrivateKeysDLL(0), 0);
    }

    /** Each ID with its label and so many further values, in the order of writing. */
    private static void assertListing(byte[][] listing, int values) {
        List<byte[]> expected = new ArrayList<>(List.of(new byte[] {0}));
        for (int k = 0; k < 1000; k++) {
            expected.add(("id " + k).getBytes());
            expected.add(("label " + k).getBytes());
            expected.addAll(Collections.nCopies(values, Mock.NAME));
        }
        assertArrayEquals(expected.toArray(), listing);
    }

    @Test
    void mixedCalls() throws IOException {
        Mock.prepare("signDLL");
        walk(50_000);
        long before = residentBytes();
        walk(200_000);
        assertFlat(before);
        assertEquals(Set.of("initDLL", "finalizeDLL"), unseen);
    }

    /** In an order that is random and the same every time: nearly everything succeeds now and fails then. */
    private void walk(int calls) {
        Random random = new Random(1);
        List<String> names = Mock.names().stream().filter(name -> !name.equals("finalizeDLL")).toList();
        for (int i = 0; i < calls; i++) {
            String name = names.get(random.nextInt(names.size()));
            Object[] arguments = Mock.arguments(name);
            if (name.equals("loginDLL")) {
                arguments[2] = (long) random.nextInt(2); // the security officer or the user
            }
            if (!Mock.failed(name, Mock.call(name, arguments))) {
                unseen.remove(name);
            }
            if (i % 100 == 0) {
                Mock.takeCalls();
                assertEquals(0, Mock.activeSearches());
            }
        }
    }

    /** Of a module that nothing else holds: it is truly loaded and unloaded every time. */
    @Test
    void bindings() throws IOException {
        Smartcard.finalizeDLL();
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
