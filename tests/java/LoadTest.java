import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.HashSet;
import java.util.List;
import java.util.Random;
import java.util.Set;
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
        assertListing(3, Smartcard.readAllCertificatesDLL(0));
        assertListing(4, Smartcard.readAllRSAPublicKeysDLL(0));
        assertListing(2, Smartcard.readAllRSAPrivateKeysDLL(0));
    }

    /** In the order of writing, with so many elements an object, the ID and the label first. */
    private static void assertListing(int width, byte[][] listing) {
        assertEquals(1 + 1000 * width, listing.length);
        for (int k = 0; k < 1000; k++) {
            assertEquals("id " + k, new String(listing[1 + k * width]));
            assertEquals("label " + k, new String(listing[2 + k * width]));
            assertArrayEquals(Mock.NAME, width == 2 ? Mock.NAME : listing[width + k * width]);
        }
    }

    /** In random order: nearly every method succeeds now and fails then. */
    @Test
    void mixedCalls() throws Throwable {
        Mock.prepare("signDLL");
        Random random = new Random(1);
        List<String> names = Mock.NATIVES.keySet().stream().filter(name -> !name.equals("finalizeDLL")).toList();
        Set<String> neverSucceeded = new HashSet<>(names);
        assertFlat(200_000, () -> {
            String name = names.get(random.nextInt(names.size()));
            if (!Mock.failed(name, Mock.call(name, Mock.arguments(name)))) {
                neverSucceeded.remove(name);
            }
            Mock.takeCalls();
        });
        assertEquals(Set.of("initDLL", "initUserPINDLL"), neverSucceeded); // bound already, and never the officer
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
        double before = 0;
        for (int i = -times / 4; i < times; i++) {
            if (i == 0) {
                before = residentKiB();
            }
            step.execute();
        }
        assertEquals(before, residentKiB(), 4096);
    }

    private static double residentKiB() throws Exception {
        System.gc();
        return Long.parseLong(Files.readString(Path.of("/proc/self/statm")).split(" ")[1]) * 4;
    }
}
