import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.nio.file.*;
import java.util.concurrent.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.io.TempDir;

/** A module in its own process, with p11-kit: if that process dies, the application continues. */
class OwnProcessTest {
    private static final String CLIENT = System.getProperty("client");
    private static final long SLOT = SoftTokenTest.SLOT;
    private static final byte[] ID = SoftTokenTest.ID;
    private static final byte[] DEVICE_ERROR = {0x30};

    private byte[] modulus;

    @BeforeEach
    void createKey(@TempDir Path folder) throws Exception {
        SoftTokenTest.createToken(CLIENT, folder);
        modulus = Smartcard.generateKeyPairDLL(SLOT, 2048, SoftTokenTest.EXPONENT, ID, ID);
    }

    /** The same happens if the module crashes, or if it hangs and its process is killed. */
    @Test
    void processDiesDuringACall() throws Exception {
        FutureTask<byte[]> generating = new FutureTask<>(() ->
                Smartcard.generateKeyPairDLL(SLOT, 16384, SoftTokenTest.EXPONENT, ID, ID)); // takes minutes
        new Thread(generating).start();
        assertThrows(TimeoutException.class, () -> generating.get(300, TimeUnit.MILLISECONDS));
        killProcess();
        assertArrayEquals(DEVICE_ERROR, generating.get());
        assertCallsFail();
        assertSignedInAnotherProcess();
    }

    @Test
    void processDiesBetweenTwoCalls() throws Exception {
        killProcess();
        assertCallsFail();
        assertSignedInAnotherProcess();
    }

    private static void killProcess() throws Exception {
        ProcessHandle process = ProcessHandle.current().children().findFirst().orElseThrow();
        assertTrue(process.destroyForcibly());
        process.onExit().get();
    }

    /** Every call fails until a rebind. */
    private static void assertCallsFail() {
        assertArrayEquals(DEVICE_ERROR, Smartcard.signWithIDDLL(SLOT, SoftTokenTest.DATA, ID));
        assertArrayEquals(DEVICE_ERROR, Smartcard.readAllRSAPublicKeysDLL(SLOT)[0]);
        assertArrayEquals(new byte[] {0}, Smartcard.signDLL(SLOT, SoftTokenTest.DATA)); // its search failed
        assertEquals(0x30, Smartcard.openSessionDLL(SLOT));
    }

    private void assertSignedInAnotherProcess() throws Exception {
        SoftTokenTest.assertSigned(modulus, SoftTokenTest.DATA,
                Recipes.signInAnotherProcess(CLIENT, SLOT, SoftTokenTest.PIN, SoftTokenTest.DATA, ID));
    }
}
