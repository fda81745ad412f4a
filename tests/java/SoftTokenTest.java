import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.math.BigInteger;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.KeyPairGenerator;
import java.security.interfaces.RSAPrivateCrtKey;
import java.util.Arrays;
import java.util.List;
import java.util.stream.Stream;
import javax.security.auth.x500.X500Principal;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** A real token: what is done to it another tool sees, and what the library says of it another tool says as well. */
class SoftTokenTest {
    private static final String MODULE = System.getProperty("softhsm2");
    private static final long SLOT = 0; // a token that is initialised comes first
    private static final String PIN = "1234";
    private static final byte[] ID = "key 1".getBytes();
    private static final byte[] LABEL = "Köy".getBytes();
    private static final byte[] DATA = "a document".getBytes();
    private static final byte[] EXPONENT = {1, 0, 1};

    @BeforeEach
    void createToken(@TempDir Path folder) throws Exception {
        Files.writeString(Path.of(System.getenv("SOFTHSM2_CONF")), "directories.tokendir = " + folder + "\n");
        Smartcard.finalizeDLL();
        assertOk(Smartcard.initDLL(MODULE), Smartcard.initTokenDLL(SLOT, PIN, 4), Smartcard.finalizeDLL());
        // The next list of slots has one for the new token alone.
        assertOk(Smartcard.initDLL(MODULE), Smartcard.openSessionDLL(SLOT), Smartcard.loginDLL(SLOT, PIN, 0));
        assertOk(Smartcard.initUserPINDLL(SLOT, PIN, 4), Smartcard.logoutDLL(SLOT), Smartcard.loginDLL(SLOT, PIN, 1));
    }

    /** All of these, one after the other. */
    private static void assertOk(long... results) {
        assertArrayEquals(new long[results.length], results);
    }

    @Test
    void lifeOfAKey() {
        byte[] modulus = Smartcard.generateKeyPairDLL(SLOT, 2048, EXPONENT, ID, LABEL);
        assertArrayEquals(new byte[][] {{0}, ID, LABEL, modulus, EXPONENT}, Smartcard.readAllRSAPublicKeysDLL(SLOT));
        assertSigned(modulus, Smartcard.signDLL(SLOT, DATA));

        assertOk(Smartcard.changePINDLL(SLOT, PIN, 4, "567890", 6), Smartcard.logoutDLL(SLOT));
        assertArrayEquals(new byte[] {0}, Smartcard.signDLL(SLOT, DATA));
        assertEquals(0xA0, Smartcard.loginDLL(SLOT, PIN, 1));
        assertOk(Smartcard.loginDLL(SLOT, "567890", 1), Smartcard.deletePrivateKeyDLL(SLOT, ID));
        assertEquals(1, Smartcard.isCardEmptyDLL(SLOT));
        assertOk(Smartcard.deletePublicKeyDLL(SLOT, ID), Smartcard.isCardEmptyDLL(SLOT));
    }

    @Test
    void lifeOfAnIdentity() throws Exception {
        RSAPrivateCrtKey key = (RSAPrivateCrtKey) KeyPairGenerator.getInstance("RSA").generateKeyPair().getPrivate();
        byte[][] numbers = Stream.of(key.getModulus(), key.getPublicExponent(), key.getPrivateExponent(),
                key.getPrimeP(), key.getPrimeQ(), key.getPrimeExponentP(), key.getPrimeExponentQ(),
                key.getCrtCoefficient()).map(BigInteger::toByteArray) // some with a zero byte for the sign
                .map(bytes -> Arrays.copyOfRange(bytes, bytes[0] == 0 ? 1 : 0, bytes.length)).toArray(byte[][]::new);
        byte[] name = new X500Principal("CN=Some One").getEncoded();
        byte[] serialNumber = {2, 1, 7};
        assertOk(Smartcard.writeCertificateAndPrivateKeyDLL(SLOT, DATA, name, name, serialNumber, numbers[0],
                numbers[1], numbers[2], numbers[3], numbers[4], numbers[5], numbers[6], numbers[7], ID, LABEL));
        assertOk(Smartcard.writeAttributeCertificateDLL(SLOT, DATA));
        assertArrayEquals(DATA, Smartcard.readAttributeCertificateDLL(SLOT));
        assertArrayEquals(new byte[][] {{0}, ID, LABEL, DATA}, Smartcard.readAllCertificatesDLL(SLOT));
        assertSigned(numbers[0], Smartcard.signWithIDDLL(SLOT, DATA, ID));

        assertOk(Smartcard.updateKeyPairIDAndLabelDLL(SLOT, ID, "key 2".getBytes(), "new".getBytes()));
        assertOk(Smartcard.setCertificateLabelDLL(null, SLOT)); // to that of the key pair
        assertEquals(List.of("Certificate Object; type = X.509 cert label: new subject: DN: CN=Some One ID: 6b65792031",
                "Private Key Object; RSA label: new ID: 6b65792032",
                "Public Key Object; RSA " + 8 * numbers[0].length + " bits label: new ID: 6b65792032"), objects());
        assertOk(Smartcard.deleteCertificateDLL(SLOT, name, name, serialNumber, ID, "new".getBytes()));
        assertOk(Smartcard.deleteDLL(SLOT), Smartcard.isCardEmptyDLL(SLOT));
        assertEquals(List.of(), objects());
    }

    @Test
    void slotTokenAndMechanisms() throws Exception {
        String slots = ask("--list-slots");
        for (byte[] field : List.of(Smartcard.readSlotDescriptionDLL(SLOT), Smartcard.readCardLabelDLL(SLOT),
                Smartcard.readCardSerialNumberDLL(SLOT))) {
            assertTrue(slots.contains(": " + new String(field).strip() + "\n"), slots);
        }
        assertEquals(1, Smartcard.getSlotInfoDLL(SLOT));
        assertEquals(0x42D, Smartcard.getTokenInfoDLL(SLOT)); // its flags: "login required, rng, …, 0x20"

        String mechanisms = ask("--list-mechanisms");
        int[] types = Smartcard.getSupportedMechanismListDLL(SLOT);
        assertEquals(mechanisms.lines().skip(1).count(), types.length);
        assertEquals(mechanisms.lines().filter(line -> line.matches(".*, sign\\b.*")).count(),
                Arrays.stream(types).filter(type -> (Smartcard.getMechanismInfoDLL(SLOT, type) & 0x800) != 0).count());
    }

    /** What OpenSC's tool says about the token. */
    private static String ask(String question) throws Exception {
        String[] command = ("pkcs11-tool --module " + MODULE + " --token-label YENIKART " + question).split(" ");
        Process tool = new ProcessBuilder(command).redirectErrorStream(true).start();
        String answer = new String(tool.getInputStream().readAllBytes());
        assertEquals(0, tool.waitFor(), answer);
        return answer;
    }

    /** Kind, label, subject and ID of the certificates and keys that the tool sees. */
    private static List<String> objects() throws Exception {
        return Arrays.stream(ask("--list-objects --login --pin " + PIN).split("\n(?! )"))
                .filter(object -> object.contains(" ID: "))
                .map(object -> object.replaceAll("\n +(?!label|subject|ID| )[^\n]*", ""))
                .map(object -> object.replaceAll("\\s+", " ").strip()).sorted().toList();
    }

    /** The signature opens to the data with PKCS #1 padding. */
    private static void assertSigned(byte[] modulus, byte[] signature) {
        BigInteger block = new BigInteger(1, signature).modPow(new BigInteger(EXPONENT), new BigInteger(1, modulus));
        assertTrue(block.toString(16).matches("1(ff)+00" + new BigInteger(DATA).toString(16)), block.toString(16));
    }
}
