import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.nio.file.Path;
import java.util.concurrent.FutureTask;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
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
    void crash() {
        for (int round = 0; round < 3; round++) {
            assertArrayEquals(DEVICE_ERROR, Smartcard.signWithIDDLL(SLOT, "crash".getBytes(), ID));
            assertGone();
            SoftTokenTest.assertSigned(modulus, signOnceMore());
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
        SoftTokenTest.assertSigned(modulus, signOnceMore());
    }

    @Test
    void goneBetweenTwoCalls() throws Exception {
        killProcess();
        assertGone();
        SoftTokenTest.assertSigned(modulus, signOnceMore());
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

    /** As docs/modules.md has it. */
    private static byte[] signOnceMore() {
        assertEquals(0x30, Smartcard.isSessionOpenDLL(SLOT));
        SoftTokenTest.assertOk(Smartcard.finalizeDLL(), Smartcard.initDLL(CLIENT), Smartcard.openSessionDLL(SLOT),
                Smartcard.loginDLL(SLOT, SoftTokenTest.PIN, 1));
        return Smartcard.signWithIDDLL(SLOT, SoftTokenTest.DATA, ID);
    }
}
