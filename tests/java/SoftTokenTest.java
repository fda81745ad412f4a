import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.math.BigInteger;
import java.nio.file.*;
import java.util.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.io.TempDir;

/** A real software token: another tool shows the same objects as the library. */
class SoftTokenTest {
    private static final String MODULE = System.getProperty("softhsm2");
    static final long SLOT = 0; // SoftHSM2 lists initialised tokens first
    static final String PIN = "1234";
    static final byte[] ID = "key 1".getBytes();
    private static final byte[] LABEL = "Köy".getBytes();
    static final byte[] DATA = "a document".getBytes();
    static final byte[] EXPONENT = {1, 0, 1};

    @BeforeEach
    void createToken(@TempDir Path folder) throws Exception {
        createToken(MODULE, folder);
    }

    /** Creates a token in the folder and logs the user in. The module must be SoftHSM2 or a module in front of it. */
    static void createToken(String module, Path folder) throws Exception {
        useTokens(folder);
        assertOk(Smartcard.initDLL(module), Smartcard.initTokenDLL(SLOT, PIN, 4), Smartcard.finalizeDLL());
        // The new token gets its slot at the next bind.
        assertOk(Smartcard.initDLL(module), Smartcard.openSessionDLL(SLOT), Smartcard.loginDLL(SLOT, PIN, 0));
        assertOk(Smartcard.initUserPINDLL(SLOT, PIN, 4), Smartcard.logoutDLL(SLOT), Smartcard.loginDLL(SLOT, PIN, 1));
    }

    /** Makes SoftHSM2 use the tokens in the folder. */
    static void useTokens(Path folder) throws Exception {
        Smartcard.finalizeDLL();
        Files.writeString(Path.of(System.getenv("SOFTHSM2_CONF")), "directories.tokendir = " + folder + "\n");
    }

    static void assertOk(long... results) {
        assertArrayEquals(new long[results.length], results);
    }

    @Test
    void keyIsGeneratedUsedAndDeleted() throws Exception {
        byte[] modulus = Smartcard.generateKeyPairDLL(SLOT, 2048, EXPONENT, ID, LABEL);
        assertArrayEquals(new byte[][] {{0}, ID, LABEL, modulus, EXPONENT}, Smartcard.readAllRSAPublicKeysDLL(SLOT));
        String key = runTool("--list-objects --type privkey --login --pin " + PIN).replaceAll("\\s+", " ");
        assertTrue(key.contains("; RSA label: Köy ID: 6b65792031 Usage: decrypt, sign, unwrap Access: sensitive, always"
                + " sensitive, never extractable, local"), key);
        assertSigned(modulus, DATA, Smartcard.signDLL(SLOT, DATA));
        assertSigned(modulus, DATA, Smartcard.signWithIDDLL(SLOT, DATA, ID));

        assertOk(Smartcard.changePINDLL(SLOT, PIN, 4, "567890", 6), Smartcard.logoutDLL(SLOT));
        assertArrayEquals(new byte[] {0}, Smartcard.signDLL(SLOT, DATA));
        assertEquals(0xA0, Smartcard.loginDLL(SLOT, PIN, 1));
        assertOk(Smartcard.loginDLL(SLOT, "567890", 1), Smartcard.deletePrivateKeyDLL(SLOT, ID));
        assertEquals(1, Smartcard.isCardEmptyDLL(SLOT));
        assertOk(Smartcard.deletePublicKeyDLL(SLOT, ID), Smartcard.isCardEmptyDLL(SLOT));
    }

    /** The output of OpenSC's tool for the token. */
    private static String runTool(String options) throws Exception {
        String[] command = ("pkcs11-tool --module " + MODULE + " --token-label YENIKART " + options).split(" ");
        return output(new ProcessBuilder(command).redirectErrorStream(true));
    }

    /** The output of a command, which must succeed. */
    static String output(ProcessBuilder command) throws Exception {
        Process process = command.start();
        String output = new String(process.getInputStream().readAllBytes());
        assertEquals(0, process.waitFor(), output);
        return output;
    }

    /** Checks that the signature is over the data with PKCS #1 padding. */
    static void assertSigned(byte[] modulus, byte[] data, byte[] signature) {
        BigInteger block = new BigInteger(1, signature).modPow(new BigInteger(EXPONENT), new BigInteger(1, modulus));
        assertTrue(block.toString(16).matches("1(ff)+00" + new BigInteger(data).toString(16)), block.toString(16));
    }
}
