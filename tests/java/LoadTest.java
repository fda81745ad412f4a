import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.lang.reflect.Method;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.HashSet;
import java.util.Random;
import java.util.Set;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;

/** Many objects are listed whole, and many calls leave nothing behind. */
class LoadTest {
    @Test
    void manyObjects() {
        Mock.prepare("deleteDLL");
        assertEquals(0, Smartcard.deleteDLL(0));
        for (int k = 0; k < 1000; k++) {
            byte[] v = ("value " + k).getBytes();
            assertEquals(0, Smartcard.writeCertificateAndPrivateKeyDLL(0, v, v, v, v, v, v, v, v, v, v, v, v, v, v));
        }
        assertListing(3, Smartcard.readAllCertificatesDLL(0));
        assertListing(4, Smartcard.readAllRSAPublicKeysDLL(0));
        assertListing(2, Smartcard.readAllRSAPrivateKeysDLL(0));
    }

    private static void assertListing(int valuesPerObject, byte[][] listing) {
        assertEquals(1 + 1000 * valuesPerObject, listing.length);
        for (int i = 1; i < listing.length; i++) {
            assertEquals("value " + (i - 1) / valuesPerObject, new String(listing[i]));
        }
    }

    @Test
    void mixedCalls() throws Throwable {
        Mock.prepare("signDLL");
        Random random = new Random(1);
        Set<Method> neverSucceeded = new HashSet<>(Mock.NATIVES);
        assertFlat(200_000, () -> {
            Method method = Mock.NATIVES.get(random.nextInt(Mock.NATIVES.size()));
            Object[] arguments = Mock.arguments(method);
            if (method.getName().equals("loginDLL")) {
                arguments[2] = (long) random.nextInt(2); // the security officer or the user
            }
            if (!Mock.fails(method, arguments)) {
                neverSucceeded.remove(method);
            }
            Mock.takeCalls();
        });
        assertEquals(Set.of(), neverSucceeded);
    }

    @Test
    void bindings() throws Throwable {
        Smartcard.finalizeDLL();
        String module = System.getProperty("other"); // which nothing else holds, so that it is truly unloaded
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
