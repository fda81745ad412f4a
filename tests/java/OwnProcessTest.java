import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.nio.file.*;
import java.util.concurrent.FutureTask;
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

    @Test
    void crash(@TempDir Path folder) throws Exception {
        for (int round = 0; round < 3; round++) {
            Path file = Files.createFile(folder.resolve("crash"));
            assertSignedInAnotherProcess(file.toString().getBytes());
            assertFalse(Files.exists(file));
        }
    }

    /** A call that never returns ends with the process, which is there to be killed. */
    @Test
    void hang() throws Exception {
        FutureTask<byte[]> signing = new FutureTask<>(() -> Smartcard.signWithIDDLL(SLOT, "hang".getBytes(), ID));
        new Thread(signing).start();
        Thread.sleep(200);
        assertFalse(signing.isDone());
        killProcess();
        assertArrayEquals(DEVICE_ERROR, signing.get());
        assertGone();
        assertSignedInAnotherProcess(SoftTokenTest.DATA);
    }

    @Test
    void goneBetweenTwoCalls() throws Exception {
        killProcess();
        assertGone();
        assertSignedInAnotherProcess(SoftTokenTest.DATA);
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

    private void assertSignedInAnotherProcess(byte[] data) throws Exception {
        SoftTokenTest.assertSigned(modulus, data,
                Recipes.signInAnotherProcess(CLIENT, SLOT, SoftTokenTest.PIN, data, ID));
    }
}
