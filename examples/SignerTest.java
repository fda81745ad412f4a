import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.*;
import com.calvenhor.vork.utils.testing.FaultyModule;
import java.io.*;
import java.nio.file.*;
import java.security.*;
import java.util.concurrent.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.io.TempDir;

/** Tests an application without a card. docs/testing.md explains its parts. */
class SignerTest {
    /** The application. */
    record Signer(KeyStore store, char[] password) {
        byte[] sign(byte[] document) throws GeneralSecurityException, IOException {
            try {
                return signOnce(document);
            } catch (SignatureException e) {
                store.load(null, password); // the card may have been removed and inserted
                return signOnce(document);
            }
        }

        private byte[] signOnce(byte[] document) throws GeneralSecurityException {
            Signature signature = Signature.getInstance("SHA256withRSA");
            signature.initSign((PrivateKey) store.getKey("Contracts", password));
            signature.update(document);
            return signature.sign();
        }
    }

    private static final String SOFTHSM2 = System.getProperty("softhsm2", "/usr/lib/softhsm/libsofthsm2.so");
    private static final String PIN = "123456";
    private static final byte[] DOCUMENT = "a contract".getBytes();

    static Path createIdentity(Path folder) throws Exception {
        Path file = folder.resolve("identity.p12");
        String keytool = System.getProperty("java.home") + "/bin/keytool";
        assertEquals(0, new ProcessBuilder(keytool, "-genkeypair", "-keyalg", "RSA", "-keysize", "2048",
                "-dname", "CN=Signer", "-alias", "Contracts", "-storetype", "PKCS12", "-storepass", PIN,
                "-keystore", file.toString()).inheritIO().start().waitFor());
        return file;
    }

    static void assertVerifies(KeyStore store, byte[] signed) throws Exception {
        Signature signature = Signature.getInstance("SHA256withRSA");
        signature.initVerify(store.getCertificate("Contracts"));
        signature.update(DOCUMENT);
        assertTrue(signature.verify(signed));
    }

    @Test
    void signsWithAFile(@TempDir Path folder) throws Exception {
        KeyStore store = KeyStore.getInstance(createIdentity(folder).toFile(), PIN.toCharArray());
        byte[] signed = new Signer(store, PIN.toCharArray()).sign(DOCUMENT);
        assertVerifies(store, signed);
    }

    // ---- On a software token ----

    @BeforeAll
    static void createToken(@TempDir Path folder) throws Exception {
        Path tokens = Files.createDirectory(folder.resolve("tokens"));
        Files.writeString(Path.of(System.getenv("SOFTHSM2_CONF")), "directories.tokendir = " + tokens + "\n");
        Recipes.check("initDLL", Smartcard.initDLL(SOFTHSM2));
        long slot = Recipes.newToken(SOFTHSM2, 0, "12345678", PIN);
        Recipes.logIn(slot, PIN);
        Recipes.importIdentity(slot, createIdentity(folder), PIN.toCharArray(), "Contracts", "Contracts".getBytes());
        Smartcard.finalizeDLL();
    }

    static KeyStore open(String module, String pin) throws Exception {
        Security.removeProvider("Smartcard");
        Provider provider = new SmartcardProvider().configure(module);
        Security.addProvider(provider);
        KeyStore store = KeyStore.getInstance("Smartcard", provider);
        store.load(null, pin.toCharArray());
        return store;
    }

    @AfterEach
    void unbind() {
        Smartcard.finalizeDLL(); // the next test binds another module
    }

    @Test
    void signsWithAToken() throws Exception {
        KeyStore store = open(SOFTHSM2, PIN);
        byte[] signed = new Signer(store, PIN.toCharArray()).sign(DOCUMENT);
        assertVerifies(store, signed);
    }

    // ---- On a token that fails ----

    @Test
    void recoversFromARemovedCard() throws Exception {
        try (FaultyModule module = FaultyModule.before(SOFTHSM2)) {
            KeyStore store = open(module.path() + "#0", PIN);
            Signer signer = new Signer(store, PIN.toCharArray());
            module.remove(0);
            assertThrows(SmartcardException.class, () -> signer.sign(DOCUMENT));
            module.insert(0);
            assertVerifies(store, signer.sign(DOCUMENT));
        }
    }

    @Test
    void reportsThatThePinIsLocked() throws Exception {
        try (FaultyModule module = FaultyModule.before(SOFTHSM2)) {
            module.tries(0, 1);
            assertThrows(IOException.class, () -> open(module.path(), "000000"));
            SmartcardException locked = assertThrows(SmartcardException.class, () -> open(module.path(), PIN));
            assertEquals(0xA4, locked.code()); // CKR_PIN_LOCKED
        }
    }

    @Test
    void survivesACardThatHangs() throws Exception {
        try (FaultyModule module = FaultyModule.before(SOFTHSM2)) {
            Signer signer = new Signer(open(module.path(), PIN), PIN.toCharArray());
            module.hang("C_Sign");
            FutureTask<byte[]> signing = new FutureTask<>(() -> signer.sign(DOCUMENT));
            new Thread(signing).start();
            assertThrows(TimeoutException.class, () -> signing.get(1, TimeUnit.SECONDS));
            module.release();
            assertVerifies(signer.store(), signing.get());
        }
    }
}
