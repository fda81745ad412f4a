import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.Random;
import java.util.Set;
import java.util.TreeSet;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;

/** Many objects are listed whole, and many calls leave nothing behind. */
class LoadTest {
    @Test
    void manyObjects() throws Exception {
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

    /** In an order that is random and the same every time: nearly everything succeeds now and fails then. */
    @Test
    void mixedCalls() throws Throwable {
        Mock.prepare("signDLL");
        Random random = new Random(1);
        List<String> names = Mock.NATIVES.keySet().stream().filter(name -> !name.equals("finalizeDLL")).toList();
        Set<String> neverSucceeded = new TreeSet<>(names);
        assertFlat(200_000, () -> {
            String name = names.get(random.nextInt(names.size()));
            Object[] arguments = Mock.arguments(name);
            if (name.equals("loginDLL")) {
                arguments[2] = (long) random.nextInt(2); // the security officer or the user
            }
            if (!Mock.failed(name, Mock.call(name, arguments))) {
                neverSucceeded.remove(name);
            }
            Mock.takeCalls();
        });
        assertEquals(Set.of("initDLL"), neverSucceeded);
    }

    /** Of a module that nothing else holds: it is truly loaded and unloaded every time. */
    @Test
    void bindings() throws Throwable {
        Smartcard.finalizeDLL();
        String module = System.getProperty("other");
        assertFlat(500, () -> {
            assertEquals(0, Smartcard.initDLL(module));
            assertEquals(0, Smartcard.openSessionDLL(0));
            assertEquals(0, Smartcard.finalizeDLL());
        });
        assertFalse(Files.readString(Path.of("/proc/self/maps")).contains(module));
    }

    /** Memory may grow by what the virtual machine's compiler takes now and then, once all has been warmed up. */
    private static void assertFlat(int times, Executable step) throws Throwable {
        long before = 0;
        for (int i = -times / 4; i < times; i++) {
            if (i == 0) {
                before = residentKiB();
            }
            step.execute();
        }
        long growth = residentKiB() - before;
        System.out.println("memory grew by " + growth + " KiB");
        assertTrue(growth < 4096, "memory grew by " + growth + " KiB");
    }

    private static long residentKiB() throws Exception {
        System.gc();
        return Long.parseLong(Files.readString(Path.of("/proc/self/statm")).split(" ")[1]) * 4;
    }
}
