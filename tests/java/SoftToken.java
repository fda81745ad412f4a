import static org.junit.jupiter.api.Assertions.assertEquals;

import com.calvenhor.vork.utils.Smartcard;
import java.io.IOException;
import java.io.InputStream;
import java.math.BigInteger;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.KeyStore;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAPrivateCrtKey;
import java.util.Arrays;
import java.util.stream.LongStream;
import java.util.stream.Stream;

/** A new SoftHSM2 token with a session and the user logged in, until it is closed. */
final class SoftToken implements AutoCloseable {
    /** A key and its certificate, and the pieces of both as they go to a token. */
    record Identity(RSAPrivateCrtKey key, X509Certificate certificate) {
        static Identity create(Path folder) throws IOException, InterruptedException, GeneralSecurityException {
            Path file = folder.resolve("identity.p12");
            Command.run(System.getProperty("java.home") + "/bin/keytool", "-genkeypair", "-keystore", file.toString(),
                    "-storetype", "PKCS12", "-storepass", "password", "-alias", "a", "-keyalg", "RSA",
                    "-keysize", "2048", "-dname", "CN=Some One");
            KeyStore store = KeyStore.getInstance("PKCS12");
            try (InputStream in = Files.newInputStream(file)) {
                store.load(in, "password".toCharArray());
            }
            return new Identity((RSAPrivateCrtKey) store.getKey("a", "password".toCharArray()),
                    (X509Certificate) store.getCertificate("a"));
        }

        byte[] name() {
            return certificate.getSubjectX500Principal().getEncoded();
        }

        byte[] serialNumber() {
            byte[] content = certificate.getSerialNumber().toByteArray();
            return ByteBuffer.allocate(content.length + 2).put((byte) 0x02).put((byte) content.length).put(content)
                    .array();
        }

        long write(long slot, String id, String label) throws GeneralSecurityException {
            byte[][] numbers = Stream.of(key.getModulus(), key.getPublicExponent(), key.getPrivateExponent(),
                    key.getPrimeP(), key.getPrimeQ(), key.getPrimeExponentP(), key.getPrimeExponentQ(),
                    key.getCrtCoefficient()).map(SoftToken::unsigned).toArray(byte[][]::new);
            return Smartcard.writeCertificateAndPrivateKeyDLL(slot, certificate.getEncoded(), name(), name(),
                    serialNumber(), numbers[0], numbers[1], numbers[2], numbers[3], numbers[4], numbers[5],
                    numbers[6], numbers[7], utf8(id), utf8(label));
        }
    }

    static final String MODULE = System.getProperty("softhsm2");
    static final String SO_PIN = "12345678";
    static final String PIN = "1234";

    final long slot;

    SoftToken(Path folder) throws IOException {
        Files.writeString(Path.of(System.getenv("SOFTHSM2_CONF")), "directories.tokendir = " + folder + "\n");
        assertEquals(0, Smartcard.initDLL(MODULE));
        assertEquals(0, Smartcard.initTokenDLL(0, SO_PIN, SO_PIN.length()));
        assertEquals(0, Smartcard.finalizeDLL());
        assertEquals(0, Smartcard.initDLL(MODULE)); // an initialised token moves to a slot of its own
        slot = LongStream.range(0, Smartcard.getSlotCountDLL())
                .filter(index -> (Smartcard.getTokenInfoDLL(index) & 0x400) != 0).findFirst().orElseThrow();
        assertEquals(0, Smartcard.openSessionDLL(slot));
        assertEquals(0, Smartcard.loginDLL(slot, SO_PIN, 0));
        assertEquals(0, Smartcard.initUserPINDLL(slot, PIN, PIN.length()));
        assertEquals(0, Smartcard.logoutDLL(slot));
        assertEquals(0, Smartcard.loginDLL(slot, PIN, 1));
    }

    /** What OpenSC's tool says about the token. */
    String ask(String... question) throws IOException, InterruptedException {
        String[] tool = {"pkcs11-tool", "--module", MODULE, "--token-label", "YENIKART"};
        return Command.run(Stream.concat(Stream.of(tool), Stream.of(question)).toArray(String[]::new));
    }

    @Override
    public void close() {
        Smartcard.closeSessionDLL(slot);
        assertEquals(0, Smartcard.finalizeDLL());
    }

    static byte[] utf8(String text) {
        return text.getBytes(StandardCharsets.UTF_8);
    }

    /** Without the zero byte that keeps Java's form positive. */
    static byte[] unsigned(BigInteger number) {
        byte[] bytes = number.toByteArray();
        return bytes[0] == 0 ? Arrays.copyOfRange(bytes, 1, bytes.length) : bytes;
    }
}
