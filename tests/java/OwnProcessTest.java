import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.nio.file.*;
import java.util.concurrent.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.io.TempDir;

/** A module in a process of its own, by p11-kit: when that process ends in a call, the application goes on. */
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

    /** As a call that crashes the module, or that never returns and has its process killed. */
    @Test
    void goneInACall() throws Exception {
        FutureTask<byte[]> generating = new FutureTask<>(() ->
                Smartcard.generateKeyPairDLL(SLOT, 16384, SoftTokenTest.EXPONENT, ID, ID)); // takes minutes
        new Thread(generating).start();
        assertThrows(TimeoutException.class, () -> generating.get(300, TimeUnit.MILLISECONDS));
        killProcess();
        assertArrayEquals(DEVICE_ERROR, generating.get());
        assertGone();
        assertSignedInAnotherProcess();
    }

    @Test
    void goneBetweenTwoCalls() throws Exception {
        killProcess();
        assertGone();
        assertSignedInAnotherProcess();
    }

    private static void killProcess() throws Exception {
        ProcessHandle process = ProcessHandle.current().children().findFirst().orElseThrow();
        assertTrue(process.destroyForcibly());
        process.onExit().get();
    }

    /** Every call fails until the module is bound anew. */
    private static void assertGone() {
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
