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
        assertEquals(0, Smartcard.initDLL(MODULE));
        assertEquals(0, Smartcard.initTokenDLL(SLOT, PIN, 4));
        assertEquals(0, Smartcard.finalizeDLL());
        assertEquals(0, Smartcard.initDLL(MODULE)); // with a slot of its own for the new token
        assertEquals(0, Smartcard.openSessionDLL(SLOT));
        assertEquals(0, Smartcard.loginDLL(SLOT, PIN, 0));
        assertEquals(0, Smartcard.initUserPINDLL(SLOT, PIN, 4));
        assertEquals(0, Smartcard.logoutDLL(SLOT));
        assertEquals(0, Smartcard.loginDLL(SLOT, PIN, 1));
    }

    @Test
    void lifeOfAKey() {
        byte[] modulus = Smartcard.generateKeyPairDLL(SLOT, 2048, EXPONENT, ID, LABEL);
        assertListing(Smartcard.readAllRSAPublicKeysDLL(SLOT), ID, LABEL, modulus, EXPONENT);
        assertSigned(modulus, Smartcard.signDLL(SLOT, DATA));

        assertEquals(0, Smartcard.changePINDLL(SLOT, PIN, 4, "567890", 6));
        assertEquals(0, Smartcard.logoutDLL(SLOT));
        assertArrayEquals(new byte[] {0}, Smartcard.signDLL(SLOT, DATA));
        assertEquals(0xA0, Smartcard.loginDLL(SLOT, PIN, 1));
        assertEquals(0, Smartcard.loginDLL(SLOT, "567890", 1));
        assertEquals(0, Smartcard.deletePrivateKeyDLL(SLOT, ID));
        assertEquals(1, Smartcard.isCardEmptyDLL(SLOT));
        assertEquals(0, Smartcard.deletePublicKeyDLL(SLOT, ID));
        assertEquals(0, Smartcard.isCardEmptyDLL(SLOT));
    }

    @Test
    void lifeOfAnIdentity() throws Exception {
        RSAPrivateCrtKey key = (RSAPrivateCrtKey) KeyPairGenerator.getInstance("RSA").generateKeyPair().getPrivate();
        byte[][] numbers = Stream.of(key.getModulus(), key.getPublicExponent(), key.getPrivateExponent(),
                key.getPrimeP(), key.getPrimeQ(), key.getPrimeExponentP(), key.getPrimeExponentQ(),
                key.getCrtCoefficient()).map(SoftTokenTest::unsigned).toArray(byte[][]::new);
        byte[] name = new X500Principal("CN=Some One").getEncoded();
        byte[] serialNumber = {2, 1, 7};
        assertEquals(0, Smartcard.writeCertificateAndPrivateKeyDLL(SLOT, DATA, name, name, serialNumber, numbers[0],
                numbers[1], numbers[2], numbers[3], numbers[4], numbers[5], numbers[6], numbers[7], ID, LABEL));
        assertEquals(0, Smartcard.writeAttributeCertificateDLL(SLOT, DATA));
        assertListing(Smartcard.readAllCertificatesDLL(SLOT), ID, LABEL, DATA);
        assertListing(Smartcard.readAllRSAPublicKeysDLL(SLOT), ID, LABEL, numbers[0], EXPONENT);
        assertArrayEquals(DATA, Smartcard.readAttributeCertificateDLL(SLOT));
        assertEquals(4, Smartcard.getObjectCountInTheTokenDLL(SLOT));
        assertSigned(numbers[0], Smartcard.signWithIDDLL(SLOT, DATA, ID));

        byte[] newLabel = "new".getBytes();
        assertEquals(0, Smartcard.updateKeyPairIDAndLabelDLL(SLOT, ID, "key 2".getBytes(), newLabel));
        assertEquals(0, Smartcard.setCertificateLabelDLL(null, SLOT));
        assertEquals(List.of("Certificate Object; type = X.509 cert label: new subject: DN: CN=Some One ID: 6b65792031",
                "Private Key Object; RSA label: new ID: 6b65792032",
                "Public Key Object; RSA " + key.getModulus().bitLength() + " bits label: new ID: 6b65792032"), objects());

        assertEquals(0, Smartcard.deleteCertificateDLL(SLOT, name, name, serialNumber, ID, newLabel));
        assertEquals(0, Smartcard.deleteDLL(SLOT));
        assertEquals(List.of(), objects());
    }

    @Test
    void slotTokenAndMechanisms() throws Exception {
        int[] session = Smartcard.getSessionInfoDLL(SLOT);
        assertArrayEquals(new int[] {3, 6, session[2], 0}, session); // CKS_RW_USER_FUNCTIONS, read/write and serial
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
        String command = "pkcs11-tool --module " + MODULE + " --token-label YENIKART " + question;
        Process tool = new ProcessBuilder(command.split(" ")).redirectErrorStream(true).start();
        String answer = new String(tool.getInputStream().readAllBytes());
        assertEquals(0, tool.waitFor(), answer);
        return answer;
    }

    /** Kind, label, subject and ID of the certificates and keys that the tool sees. */
    private static List<String> objects() throws Exception {
        return Arrays.stream(ask("--list-objects --login --pin " + PIN).split("\n(?! )"))
                .filter(object -> object.contains(" ID: "))
                .map(object -> object.replaceAll("\n +(?!label|subject|ID| )[^\n]*", "").replaceAll("\\s+", " ").strip())
                .sorted().toList();
    }

    private static void assertListing(byte[][] listing, byte[]... values) {
        assertArrayEquals(Stream.concat(Stream.of(new byte[] {0}), Stream.of(values)).toArray(), listing);
    }

    /** The signature opens to the data with PKCS #1 padding. */
    private static void assertSigned(byte[] modulus, byte[] signature) {
        BigInteger block = new BigInteger(1, signature).modPow(new BigInteger(EXPONENT), new BigInteger(1, modulus));
        assertTrue(block.toString(16).matches("1(ff)+00" + new BigInteger(DATA).toString(16)), block.toString(16));
    }

    /** Without the zero byte that keeps Java's form positive. */
    private static byte[] unsigned(BigInteger number) {
        byte[] bytes = number.toByteArray();
        return bytes[0] == 0 ? Arrays.copyOfRange(bytes, 1, bytes.length) : bytes;
    }
}
