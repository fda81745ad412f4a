import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.*;
import com.calvenhor.vork.utils.testing.FaultyModule;
import com.calvenhor.vork.utils.testing.FaultyModule.Removal;
import java.io.*;
import java.math.BigInteger;
import java.net.Socket;
import java.nio.file.*;
import java.security.*;
import java.security.cert.*;
import java.security.cert.Certificate;
import java.security.interfaces.RSAKey;
import java.security.spec.PSSParameterSpec;
import java.time.Duration;
import java.util.*;
import java.util.concurrent.*;
import javax.net.ssl.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;

/** The KeyStore, on tokens filled by OpenSC's tool behind the faulty module, and on the mock. */
class KeyStoreTest {
    private static final String MODULE = System.getProperty("softhsm2");
    private static final String MOCK = System.getProperty("mock");
    private static final String JDK = System.getProperty("java.home") + "/bin/";
    private static final byte[] DATA = "a document".getBytes();

    /** Two tokens. On the first, each certificate's label says what is special about it or its key. */
    private static final String FILL = """
            softhsm2-util --init-token --free --label First --so-pin 12345678 --pin 1234
            softhsm2-util --init-token --free --label Second --so-pin 12345678 --pin şifre1
            for name in root ca leaf a b; do
              openssl genrsa -out $name.pem 2048
              openssl pkey -in $name.pem -outform DER -out $name.key
            done
            req() { openssl req -new -subj "/CN=$1" -key $1.pem "${@:2}"; }
            for name in root a b; do req $name -x509 -outform DER -out $name.crt; done
            echo basicConstraints=critical,CA:TRUE >ca.ext
            req ca | openssl x509 -req -CA root.crt -CAkey root.pem -extfile ca.ext -outform DER -out ca.crt
            req leaf | openssl x509 -req -CA ca.crt -CAkey ca.pem -outform DER -out leaf.crt
            req a | openssl x509 -req -CA b.crt -CAkey b.pem -outform DER -out a-by-b.crt
            for days in 60 45 30; do
              req b | openssl x509 -req -days $days -CA a.crt -CAkey a.pem -outform DER -out b-$days.crt
            done
            openssl req -new -x509 -days 9999 -subj /CN=ca -key b.pem -outform DER -out other-ca.crt
            openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ec.pem -subj /CN=ec \\
              -outform DER -out ec.crt
            put() { pkcs11-tool --module $MODULE --token-label $token --login --pin $pin --write-object "$@"; }
            key() { put $1.key --type privkey "${@:2}"; }
            crt() { put $1.crt --type cert "${@:2}"; }
            openssl req -x509 -newkey rsa-pss -nodes -keyout pss.pem -subj /CN=pss -outform DER -out pss.crt
            token=First pin=1234
            key leaf --id 01 --label other; crt leaf --id 01 --label Köy
            crt ca --label CA; crt root --label Root; crt other-ca --label other-ca
            key a --id 0202; key b --id 0203; crt a --id 0202 --label twin; crt b --id 0203 --label twin
            key a --id 0404; key b --id 0404; crt a --id 0404 --label one-of-two; crt b --id 0404 --label two-of-two
            key a --id 0505; crt b --id 0505 --label wrong
            key a; crt a --label without-id
            key b --id 0606; crt b --id 0606
            key a --id 0707; crt ec --id 0707 --label other-algorithm; crt pss --id 0707 --label pss
            token=Second pin=şifre1
            key a --id 01; crt a --id 01 --label x/01234567
            """;

    @TempDir
    static Path folder;

    private static long slot; // of the first token

    private final FaultyModule module = FaultyModule.before(MODULE);
    private final String first = module.path() + "#" + slot;
    private final String second = module.path() + "#" + (1 - slot);

    @BeforeAll
    static void fillTokens() throws Exception {
        SoftTokenTest.useTokens(Files.createDirectory(folder.resolve("tokens")));
        run("bash", "-eo", "pipefail", "-c", FILL);
        assertEquals(0, Smartcard.initDLL(MODULE));
        slot = new String(Smartcard.readCardLabelDLL(0)).startsWith("First") ? 0 : 1;
    }

    @BeforeEach
    void reset() throws Exception {
        SoftTokenTest.useTokens(folder.resolve("tokens"));
        MockTest.reset();
        Security.removeProvider("Smartcard");
    }

    @AfterEach
    void close() {
        Smartcard.finalizeDLL();
        module.close();
    }

    private static String run(String... words) throws Exception {
        ProcessBuilder command = new ProcessBuilder(words).directory(folder.toFile()).redirectErrorStream(true);
        command.environment().put("MODULE", MODULE);
        return SoftTokenTest.output(command);
    }

    // ---- Helpers ----

    private static KeyStore store(String argument) throws Exception {
        return KeyStore.getInstance("Smartcard", new SmartcardProvider().configure(argument));
    }

    private static KeyStore load(String argument, String pin) throws Exception {
        KeyStore store = store(argument);
        store.load(null, pin == null ? null : pin.toCharArray());
        return store;
    }

    private static PrivateKey key(KeyStore store, String alias) throws Exception {
        return (PrivateKey) store.getKey(alias, null);
    }

    private static byte[] sign(KeyStore store, String alias) throws Exception {
        return sign(store.getProvider(), "SHA256withRSA", key(store, alias), DATA);
    }

    private static byte[] sign(Provider provider, String algorithm, PrivateKey key, byte[] data) throws Exception {
        return sign(Signature.getInstance(algorithm, provider), key, data);
    }

    private static byte[] sign(Signature signature, PrivateKey key, byte[] data) throws Exception {
        signature.initSign(key);
        signature.update(data[0]);
        signature.update(data, 1, data.length - 1);
        return signature.sign();
    }

    /** Whether the JDK's own provider accepts the signature over DATA. */
    private static boolean verifies(String algorithm, Certificate certificate, byte[] signature) throws Exception {
        Signature verifier = Signature.getInstance(algorithm, "SunRsaSign");
        verifier.initVerify(certificate);
        verifier.update(DATA);
        return verifier.verify(signature);
    }

    /** Whether the entry's certificate verifies a signature by its key. */
    private static boolean signs(KeyStore store, String alias) throws Exception {
        return verifies("SHA256withRSA", store.getCertificate(alias), sign(store, alias));
    }

    /** Expects a load or signature to fail with this code and advice. */
    private static void assertCode(long code, String advice, Executable step) {
        Exception failure = assertThrows(Exception.class, step);
        Throwable cause = failure instanceof SignatureException ? failure.getCause() : failure;
        assertEquals(code, assertInstanceOf(SmartcardException.class, cause, failure::toString).code(), advice);
        String expected = "(0x" + Long.toHexString(code) + ")" + (advice.isEmpty() ? "" : "; " + advice);
        assertTrue(cause.getMessage().contains(expected), cause.getMessage());
    }

    private static void assertFails(Class<? extends Exception> expected, String sentence, Executable step) {
        String message = assertThrows(expected, step).getMessage();
        assertTrue(message.contains(sentence), message);
    }

    /** Fills the mock with the objects of MockTest.begin, and then with a's certificate under each ID and label. */
    private static void fillMock(String... idsAndLabels) throws Exception {
        MockTest.begin();
        for (int i = 0; i < idsAndLabels.length; i += 2) {
            write(Files.readAllBytes(folder.resolve("a.crt")), idsAndLabels[i], idsAndLabels[i + 1]);
        }
        Smartcard.finalizeDLL();
        MockTest.takeCalls();
    }

    private static void write(byte[] der, String id, String label) {
        Smartcard.writeCertificateDLL(0, der, der, der, der, id.getBytes(), label.getBytes());
    }

    // ---- Entries and signatures ----

    @Test
    void entries() throws Exception {
        KeyStore store = load(first, "1234");
        Signature signature = Signature.getInstance("SHA256withRSA", store.getProvider()); // with each key in turn
        List<String> found = new ArrayList<>();
        for (String alias : Collections.list(store.aliases())) {
            X509Certificate certificate = (X509Certificate) store.getCertificate(alias);
            assertTrue(store.containsAlias(alias));
            assertNotEquals(store.isKeyEntry(alias), store.isCertificateEntry(alias));
            assertEquals(certificate.getNotBefore(), store.getCreationDate(alias));
            String entry = "certificate";
            if (store.isKeyEntry(alias)) {
                var key = (KeyStore.PrivateKeyEntry) store.getEntry(alias, null);
                assertSame(store.getKey(alias, "any".toCharArray()), key.getPrivateKey());
                assertArrayEquals(store.getCertificateChain(alias), key.getCertificateChain());
                entry = "key, chain of " + key.getCertificateChain().length;
                try {
                    byte[] signed = sign(signature, key.getPrivateKey(), DATA);
                    entry += verifies("SHA256withRSA", certificate, signed) ? ", signs" : ", WRONG";
                } catch (SignatureException e) {
                    entry += ", refuses";
                    assertNull(e.getCause(), e.toString());
                }
            } else {
                assertInstanceOf(KeyStore.TrustedCertificateEntry.class, store.getEntry(alias, null));
                assertNull(store.getKey(alias, null));
                assertNull(store.getCertificateChain(alias));
            }
            byte[] digest = MessageDigest.getInstance("SHA-256").digest(certificate.getEncoded());
            found.add(alias.replace(HexFormat.of().formatHex(digest, 0, 4), "DIGEST")
                    .replaceAll("(one|two)-of", "any-of") + ": " + entry);
        }
        assertEquals(store.size(), found.size());
        Collections.sort(found);
        assertEquals("""
                /DIGEST: key, chain of 1, signs
                CA: certificate
                Köy: key, chain of 3, signs
                Root: certificate
                any-of-two: key, chain of 1, refuses
                any-of-two: key, chain of 1, signs
                other-algorithm: certificate
                other-ca: certificate
                pss: certificate
                twin/DIGEST: key, chain of 1, signs
                twin/DIGEST: key, chain of 1, signs
                without-id: certificate
                wrong: key, chain of 1, refuses
                """, String.join("\n", found) + "\n");
        assertEquals(List.of("CN=leaf", "CN=ca", "CN=root"), Arrays.stream(store.getCertificateChain("Köy"))
                .map(each -> ((X509Certificate) each).getSubjectX500Principal().getName()).toList());
    }

    @Test
    void copies() throws Exception {
        String unprintable = "\0\u009F\u061C\u200E\u200F\u202A\u202E\u2066\u2069";
        KeyStore store = store(MOCK);
        for (String[] copies : new String[][] {{"mock", "X" + unprintable, "none", "X"}, {"none", "X", "mock", "X"}}) {
            fillMock(copies);
            store.load(null, "1".toCharArray());
            assertEquals(List.of("X"), Collections.list(store.aliases()));
            assertTrue(store.isKeyEntry("X"));
        }
        fillMock("none", "X", "mock", "Y");
        store.load(null, "1".toCharArray());
        Certificate equal = CertificateFactory.getInstance("X.509").generateCertificates(
                Files.newInputStream(folder.resolve("a.crt"))).iterator().next(); // not a cached object
        assertNotSame(equal, store.getCertificate("Y"));
        assertEquals("Y", store.getCertificateAlias(equal));
    }

    /** a and b issued each other's certificates; b has three. The chain has the one valid longest, and ends. */
    @Test
    void circleOfIssuers() throws Exception {
        MockTest.begin();
        for (String name : List.of("b-45", "b-60", "a-by-b", "b-30")) {
            write(Files.readAllBytes(folder.resolve(name + ".crt")), name.equals("a-by-b") ? "mock" : "none", name);
        }
        KeyStore store = load(MOCK, "1");
        assertArrayEquals(new Certificate[] {store.getCertificate("a-by-b"), store.getCertificate("b-60")},
                assertTimeoutPreemptively(Duration.ofSeconds(20), () -> store.getCertificateChain("a-by-b")));
    }

    /** Returns null for an empty value, as some other providers do. */
    public static final class OtherFactory extends CertificateFactorySpi {
        @Override
        public Certificate engineGenerateCertificate(InputStream in) throws CertificateException {
            return ((ByteArrayInputStream) in).available() == 0 ? null
                    : CertificateFactory.getInstance("X.509", Security.getProvider("SUN")).generateCertificate(in);
        }

        @Override
        public Collection<Certificate> engineGenerateCertificates(InputStream in) {
            return null;
        }

        @Override
        public CRL engineGenerateCRL(InputStream in) {
            return null;
        }

        @Override
        public Collection<CRL> engineGenerateCRLs(InputStream in) {
            return null;
        }
    }

    @Test
    void otherCertificateFactory() throws Exception {
        fillMock("mock", "X");
        load(MOCK, "1");
        write(new byte[0], "mock", "empty");
        Provider other = new Provider("Other", "1", "") {
            private static final long serialVersionUID = 1;
        };
        other.put("CertificateFactory.X.509", OtherFactory.class.getName());
        Security.insertProviderAt(other, 1);
        try {
            assertEquals(List.of("X"), Collections.list(load(MOCK, "1").aliases()));
        } finally {
            Security.removeProvider("Other");
        }
    }

    @Test
    void algorithms() throws Exception {
        KeyStore store = load(first, "1234");
        PrivateKey key = key(store, "Köy");
        Certificate certificate = store.getCertificate("Köy");
        byte[] digestInfo = HexFormat.of().parseHex("3031300d060960864801650304020105000420"
                + HexFormat.of().formatHex(MessageDigest.getInstance("SHA-256").digest(DATA)));
        Provider provider = store.getProvider();
        assertTrue(verifies("SHA256withRSA", certificate, sign(provider, "NONEwithRSA", key, digestInfo)));
        for (String oid : List.of("1.2.840.113549.1.1.5", "1.2.840.113549.1.1.14", "1.2.840.113549.1.1.11",
                "1.2.840.113549.1.1.12", "1.2.840.113549.1.1.13", "2.16.840.1.101.3.4.3.13", "2.16.840.1.101.3.4.3.14",
                "2.16.840.1.101.3.4.3.15", "2.16.840.1.101.3.4.3.16")) {
            String algorithm = Security.getProvider("SunRsaSign").getService("Signature", oid).getAlgorithm();
            byte[] signed = sign(provider, oid, key, DATA);
            assertTrue(verifies(algorithm, certificate, signed), algorithm);

            Signature signature = Signature.getInstance(algorithm, provider);
            signature.initSign(key);
            signature.update(DATA); // the next line discards it
            signature.initVerify(certificate);
            for (boolean isRight : new boolean[] {true, false}) {
                signature.update(DATA);
                assertEquals(isRight, signature.verify(signed), algorithm);
                signed[20] ^= 1;
            }
            signature.update(DATA);
            byte[] longer = new byte[257]; // the same number, with a leading zero
            System.arraycopy(signed, 0, longer, 1, 256);
            assertFalse(signature.verify(longer));
        }
        sign(provider, "NONEwithRSA", key, new byte[245]);
        assertFails(SignatureException.class, "245", () -> sign(provider, "NONEwithRSA", key, new byte[246]));
        assertEquals(2048, ((RSAKey) key).getModulus().bitLength());
        assertNull(((RSAKey) key).getParams());
        assertNull(key.getFormat());
        assertNull(key.getEncoded());
        assertThrows(NotSerializableException.class,
                () -> new ObjectOutputStream(new ByteArrayOutputStream()).writeObject(key));
        assertTrue(new HashSet<>(List.of(key)).contains(key(load(first, "1234"), "Köy")));
        KeyStore other = load(second, "şifre1"); // its key has the same ID
        assertFalse(List.of(key(store, "wrong"), key(other, other.aliases().nextElement())).contains(key));
    }

    @Test
    @SuppressWarnings("deprecation")
    void numberAboveModulusAndParametersAreRefused() throws Exception {
        KeyPairGenerator generator = KeyPairGenerator.getInstance("RSA");
        generator.initialize(2047); // also 256 bytes
        KeyPair keys = generator.generateKeyPair();
        Signature signature = Signature.getInstance("SHA256withRSA", new SmartcardProvider());
        signature.initVerify(keys.getPublic());
        byte[] signed = sign(Security.getProvider("SunRsaSign"), "SHA256withRSA", keys.getPrivate(), DATA);
        signature.update(DATA);
        assertTrue(signature.verify(signed));
        byte[] larger = new BigInteger(1, signed).add(((RSAKey) keys.getPublic()).getModulus()).toByteArray();
        signature.update(DATA);
        assertFalse(signature.verify(Arrays.copyOfRange(larger, larger.length - 256, larger.length)));

        assertThrows(UnsupportedOperationException.class, () -> signature.setParameter(PSSParameterSpec.DEFAULT));
        assertThrows(InvalidParameterException.class, () -> signature.setParameter("saltLength", 32));
    }

    /** If no provider is named, the JDK chooses it by the key, whatever the position of this provider. */
    @Test
    void choiceOfProvider() throws Exception {
        KeyStore store = load(first, "1234");
        PrivateKey software = KeyPairGenerator.getInstance("RSA").generateKeyPair().getPrivate();
        for (int position : new int[] {1, 100}) {
            Security.removeProvider("Smartcard");
            Security.insertProviderAt(store.getProvider(), position);
            for (boolean isOurs : new boolean[] {true, false}) {
                Signature signature = Signature.getInstance("SHA256withRSA");
                signature.initSign(isOurs ? key(store, "Köy") : software);
                assertEquals(isOurs, signature.getProvider() == store.getProvider());
            }
            Signature verifier = Signature.getInstance("SHA256withRSA");
            verifier.initVerify(store.getCertificate("Köy"));
            assertNotSame(store.getProvider(), verifier.getProvider());
        }
    }

    // ---- PINs, modules and sessions ----

    @Test
    void pins() throws Exception {
        KeyStore open = load(first, null);
        assertEquals(13, open.size());
        for (String alias : Collections.list(open.aliases())) {
            assertTrue(open.isCertificateEntry(alias), alias);
        }
        assertWrongPin(0xA0, first, "4321");
        KeyStore.Builder builder = KeyStore.Builder.newInstance("Smartcard", store(first).getProvider(),
                new KeyStore.PasswordProtection("1234".toCharArray()));
        assertEquals(13, builder.getKeyStore().size());

        KeyStore store = load(second, "şifre1");
        String alias = store.aliases().nextElement(); // its label looks like an alias with a digest
        assertTrue(alias.matches("x/01234567/[0-9a-f]{8}"), alias);
        assertTrue(signs(store, alias));

        Smartcard.logoutDLL(slot);
        module.takeCalls();
        for (String altered : List.of("1😀", "1\0", "1\uD83D")) {
            assertWrongPin(0xA1, first, altered);
            assertFalse(module.takeCalls().contains("C_Login"), altered);
        }
        module.fail("C_Login", 1, 0xA2);
        assertWrongPin(0xA2, first, "1234");
        module.tries(slot, 3);
        for (String advice : List.of("the token counts wrong PINs", "one try is left", "the PIN is locked")) {
            assertCode(0xA0, advice, () -> load(first, "4321"));
        }
        assertNull(assertThrows(SmartcardException.class, () -> load(first, "1234")).getCause()); // locked, not wrong
    }

    private static void assertWrongPin(long code, String argument, String pin) {
        SmartcardException failure = assertThrows(SmartcardException.class, () -> load(argument, pin));
        assertEquals(code, failure.code());
        assertInstanceOf(UnrecoverableKeyException.class, failure.getCause());
    }

    @Test
    void logins() throws Exception {
        assertLoads(null, false, "C_OpenSession");
        assertLoads("", false);
        assertLoads("1234", true, "C_Login");
        assertLoads("not needed", true);
        Smartcard.logoutDLL(slot);
        module.pinPad(slot, "1234");
        assertLoads(null, true, "C_Login");
        assertLoads(null, true);
        Smartcard.logoutDLL(slot);
        Smartcard.loginDLL(slot, "12345678", 0); // as security officer
        assertCode(0x104, "", () -> load(first, "1234"));
    }

    private void assertLoads(String pin, boolean withKey, String... calls) throws Exception {
        module.takeCalls();
        assertEquals(withKey, load(first, pin).isKeyEntry("Köy"));
        assertEquals(List.of(calls), module.takeCalls().stream().filter(Set.of("C_OpenSession", "C_Login")::contains)
                .toList());
    }

    @Test
    void modules() throws Exception {
        assertFails(IOException.class, "no module is bound", () -> load("" + slot, "1234"));
        Smartcard.initDLL(MODULE);
        Smartcard.openSessionDLL(slot);
        for (String argument : List.of(module.path(), first)) {
            assertFails(IOException.class, "a module other than", () -> load(argument, "1234"));
        }
        assertEquals(2, Smartcard.getSessionInfoDLL(slot)[0]); // public: the PIN was not sent
        load("" + slot, "1234");
        load(Files.createSymbolicLink(folder.resolve("link"), Path.of(MODULE)) + "#" + slot, "1234");
        assertEquals(3, Smartcard.getSessionInfoDLL(slot)[0]);
        Smartcard.finalizeDLL();

        assertFails(IOException.class, "`ldd no such module`", () -> load("no such module", "1"));
        assertFails(IOException.class, "C_GetFunctionList", () -> load("libc.so.6", "1"));
        assertFails(IOException.class, "no slot 3: the last slot is 2", () -> load(MODULE + "#3", "1234"));
        for (String label : List.of("First", "Second")) {
            assertFails(IOException.class, '"' + label + '"', () -> load(MODULE, "1234"));
        }
    }

    /** SoftHSM2 looks for tokens only in C_Initialize, so a new token needs a rebind. */
    @Test
    void newToken() throws Exception {
        SoftTokenTest.useTokens(Files.createDirectory(folder.resolve("others")));
        for (String argument : List.of(MODULE, MODULE + "#0")) {
            assertTokenIsMissing(argument);
        }
        run("softhsm2-util", "--init-token", "--free", "--label", "Late", "--so-pin", "12345678", "--pin", "1234");
        for (String argument : List.of(MODULE, MODULE + "#0")) {
            assertTokenIsMissing(argument);
        }
        assertFails(IOException.class, "the last slot is 0; if a slot was added later",
                () -> load(MODULE + "#1", "1234"));
        Smartcard.finalizeDLL();
        load(MODULE, "1234");
    }

    private static void assertTokenIsMissing(String argument) {
        assertFails(SmartcardException.class, "insert the card; if it is inserted, call Smartcard.finalizeDLL and load"
                + " again", () -> load(argument, "1234"));
    }

    @Test
    void lostSessionsAreReportedAndReplaced() throws Throwable {
        KeyStore store = load(first, "1234");
        PrivateKey old = key(store, "Köy");
        Map<String, Executable> losses = Map.of("(0xb3); insert the card", () -> Smartcard.closeSessionDLL(slot),
                "(0x190); no module is bound", Smartcard::finalizeDLL, "(0xb3); the module was rebound",
                () -> { Smartcard.finalizeDLL(); Smartcard.initDLL(module.path()); });
        for (String message : losses.keySet()) {
            losses.get(message).execute();
            assertFails(SignatureException.class, message, () -> sign(store, "Köy"));
            store.load(null, "1234".toCharArray());
            for (PrivateKey key : List.of(old, key(store, "Köy"))) {
                byte[] signed = sign(store.getProvider(), "SHA256withRSA", key, DATA);
                assertTrue(verifies("SHA256withRSA", store.getCertificate("Köy"), signed));
            }
        }
    }

    /** The card is removed and inserted, for each way to name the token and each behaviour of the module. */
    @Test
    void reinsertedCard() throws Exception {
        Smartcard.initDLL(module.path());
        assertFails(IOException.class, "several tokens", () -> load(module.path(), "1234"));
        module.fail("C_GetTokenInfo", 2, 0x30); // a token that is present but cannot be read
        assertFails(IOException.class, "several tokens", () -> load(module.path(), "1234"));
        module.remove(1 - slot, Removal.CACHED); // now the first is the only token
        for (Removal removal : Removal.values()) {
            boolean isEmpty = removal == Removal.EMPTY;
            for (String argument : List.of(module.path(), first, "" + slot)) {
                KeyStore store = load(argument, "1234");
                for (boolean loadsWhileRemoved : new boolean[] {false, true}) {
                    assertTrue(signs(store, "Köy"));
                    module.remove(slot, removal);
                    assertCode(isEmpty ? 0x82 : 0x32, isEmpty ? "" : "insert the card if it was removed",
                            () -> sign(store, "Köy"));
                    if (loadsWhileRemoved) {
                        Smartcard.logoutDLL(slot); // so that a load needs the PIN
                        assertTokenIsMissing(argument);
                    }
                    module.insert(slot);
                    if (isEmpty) { // the slot stays empty until a rebind
                        assertTokenIsMissing(argument);
                        Smartcard.finalizeDLL();
                        Smartcard.initDLL(module.path());
                    }
                    store.load(null, "1234".toCharArray());
                }
            }
        }
    }

    /** The handle of the first slot's session now belongs to the second slot, which must not get the PIN. */
    @Test
    void sessionOfAnotherSlot() throws Exception {
        MockTest.addSlot();
        Smartcard.initDLL(MOCK);
        reuseHandleOfFirst();
        load(MOCK + "#0", "1");
        assertEquals(3, Smartcard.getSessionInfoDLL(0)[0]);
        assertEquals(2, Smartcard.getSessionInfoDLL(1)[0]); // public
    }

    private static void reuseHandleOfFirst() {
        for (long each = 0; each < 2; each++) {
            Smartcard.closeSessionDLL(0);
            MockTest.reuseHandles();
            Smartcard.openSessionDLL(each);
        }
        assertEquals(0, Smartcard.isSessionOpenDLL(0));
    }

    /** Loads open few sessions: a replaced one stays open in the module, and some tokens allow only eight. */
    @Test
    void ambiguousSessions() throws Exception {
        MockTest.addSlot();
        load(MOCK + "#0", null);
        reuseHandleOfFirst();
        assertOpens(2, "1", null); // the handle may belong to either slot; now each slot has its own
        assertOpens(0, "1", null);
        assertOpens(0, "0", "1");
        assertOpens(0, "1", "2");

        reuseHandleOfFirst();
        for (int load = 0; load < 2; load++) {
            MockTest.failAt("C_OpenSession", 1, 0xE0); // without a card, the handle cannot belong to the first slot
            assertOpens(1, "1", null);
        }

        // The user of the second slot is logged in, so no refused PIN would reveal the wrong slot.
        Smartcard.finalizeDLL();
        Smartcard.initDLL(MOCK);
        reuseHandleOfFirst();
        assertEquals(0, Smartcard.loginDLL(1, "2", 1));
        assertOpens(2, "0", "1");
        assertEquals(3, Smartcard.getSessionInfoDLL(0)[0]);
        assertNotEquals(Smartcard.getSessionInfoDLL(1)[2], Smartcard.getSessionInfoDLL(0)[2]);
    }

    private static void assertOpens(int sessions, String slot, String pin) throws Exception {
        MockTest.takeCalls();
        load(slot, pin);
        assertEquals(sessions, Collections.frequency(List.of(MockTest.takeCalls().split(" ")), "C_OpenSession"));
    }

    @Test
    void codes() throws Throwable {
        for (String row : """
                load C_GetFunctionList 1 30 30
                load C_Initialize 1 191 191 other code in this process has initialised the module
                load C_OpenSession 1 180000123 180000123
                load C_OpenSession 1 32 32 insert the card; if it is inserted
                load C_OpenSession 1 e1 e1 insert the card; if it is inserted
                load C_Login 1 100 100
                load C_FindObjectsInit 1 101 101 the token refused although the user is logged in
                load C_FindObjectsInit 2 5 5
                load C_GetAttributeValue 2 200 200
                load C_GetAttributeValue 20 200 200
                sign C_Sign 1 101 101 the token refused although the user is logged in
                sign C_Sign 1 e0 e0 insert the card if it was removed
                sign C_SignInit 1 68 91 the module did not start the operation
                sign C_FindObjects 1 30 30
                sign C_FindObjects 1 100 82
                """.lines().toList()) {
            String[] cells = row.split(" ", 6);
            Smartcard.finalizeDLL();
            KeyStore store = cells[0].equals("sign") ? load(first, "1234") : null;
            module.fail(cells[1], Integer.parseInt(cells[2]), Long.parseLong(cells[3], 16));
            assertCode(Long.parseLong(cells[4], 16), cells.length > 5 ? cells[5] : "",
                    store == null ? () -> load(first, "1234") : () -> sign(store, "Köy"));
        }
        // After a failure the KeyStore calls isSessionOpenDLL, which returns all bits of its code.
        KeyStore store = load(first, "1234");
        module.fail("C_Sign", 1, 5);
        module.fail("C_GetSessionInfo", 1, 0x1_8000_0123L);
        assertCode(0x1_8000_0123L, "insert the card if it was removed", () -> sign(store, "Köy"));
        Smartcard.logoutDLL(slot);
        assertCode(0x101, "load the KeyStore with the PIN", () -> sign(store, "Köy"));
        assertEquals("CKR_PIN_INCORRECT", SmartcardException.nameOf(0xA0));
        assertEquals("0x80000001", SmartcardException.nameOf(0x8000_0001L));
    }

    @Test
    void badInput() throws Exception {
        Provider provider = new SmartcardProvider();
        for (String argument : List.of("", "#0", MODULE + "#", MODULE + "#-1", MODULE + "#x", MODULE + "#9999999999")) {
            assertFails(InvalidParameterException.class, "expected MODULE", () -> provider.configure(argument));
        }
        assertThrows(NullPointerException.class, () -> provider.configure(null));
        assertTrue(!provider.isConfigured() && provider.configure(MODULE).isConfigured());
        assertFails(IOException.class, "configure",
                () -> KeyStore.getInstance("Smartcard", provider).load(null, null));

        assertThrows(KeyStoreException.class, () -> store(first).aliases());
        assertFails(IOException.class, "null", () -> store(first).load(InputStream.nullInputStream(), null));
        KeyStore store = load(first, "1234");
        for (String alias : new String[] {null, "x"}) {
            assertFalse(store.containsAlias(alias) || store.isKeyEntry(alias) || store.isCertificateEntry(alias));
            assertNull(store.getKey(alias, null));
            assertNull(store.getCertificate(alias));
            assertNull(store.getCertificateChain(alias));
            assertNull(store.getCreationDate(alias));
        }
        assertNull(store.getEntry("x", null));
        assertNull(store.getCertificateAlias(null));

        store.store(null, null);
        store.store(null);
        assertFails(IOException.class, "null", () -> store.store(OutputStream.nullOutputStream(), null));
        Signature signature = Signature.getInstance("SHA256withRSA", provider);
        KeyPair software = KeyPairGenerator.getInstance("EC").generateKeyPair();
        assertFails(InvalidKeyException.class, "KeyStore", () -> signature.initSign(software.getPrivate()));
        assertFails(InvalidKeyException.class, "RSA", () -> signature.initVerify(software.getPublic()));
        assertFails(InvalidKeyException.class, "key is null", () -> signature.initSign(null));
    }

    @Test
    void threads() throws Exception {
        for (ThreadFactory kind : Threads.kinds()) {
            KeyStore store = load(first, "1234");
            Threads.run(kind, 6, thread -> {
                for (int i = 0; i < 10; i++) {
                    assertTrue(signs(store, "Köy"));
                    assertEquals(13, load(first, "1234").size());
                    assertEquals(40, Smartcard.readAllCertificatesDLL(slot).length);
                }
            });
            // No other thread logs out between a load's login and its reading.
            Threads.run(kind, 6, thread -> {
                for (int i = 0; i < 10; i++) {
                    assertTrue(load(first, "1234").isKeyEntry("Köy"));
                    assertNotEquals(-1, Smartcard.logoutDLL(slot));
                }
            });
        }
    }

    // ---- Clients ----

    @Test
    void clientAuthentication() throws Exception {
        run("bash", "-ec", "openssl x509 -in ca.crt | openssl pkcs12 -export -inkey ca.pem -passout pass:pw -out p12");
        KeyStore server = KeyStore.getInstance(folder.resolve("p12").toFile(), "pw".toCharArray());
        KeyStore trusted = KeyStore.getInstance("PKCS12");
        trusted.load(null, null);
        KeyStore client = load(first, "1234");
        trusted.setCertificateEntry("root", client.getCertificate("Root"));
        Security.addProvider(client.getProvider());
        SSLContext clients = context(client, null, trusted);
        SSLContext servers = context(server, "pw".toCharArray(), trusted);
        handshake(clients, servers, "TLSv1.2");
        assertFails(SSLException.class, "No supported CertificateVerify signature algorithm",
                () -> handshake(clients, servers, "TLSv1.3"));
    }

    static SSLContext context(KeyStore keys, char[] password, KeyStore trusted) throws Exception {
        KeyManagerFactory keyManagers = KeyManagerFactory.getInstance("PKIX");
        keyManagers.init(keys, password);
        TrustManagerFactory trustManagers = TrustManagerFactory.getInstance("PKIX");
        trustManagers.init(trusted);
        SSLContext context = SSLContext.getInstance("TLS");
        context.init(keyManagers.getKeyManagers(), trustManagers.getTrustManagers(), null);
        return context;
    }

    /** Returns once the server has accepted the client's certificate. */
    private static void handshake(SSLContext clients, SSLContext servers, String version) throws Exception {
        try (SSLServerSocket listener = (SSLServerSocket) servers.getServerSocketFactory().createServerSocket(0)) {
            listener.setNeedClientAuth(true);
            new Thread(new FutureTask<>(() -> {
                try (Socket socket = listener.accept()) {
                    socket.getOutputStream().write(1);
                    return socket.getInputStream().read(); // until the client is done
                }
            })).start();
            try (SSLSocket socket = (SSLSocket) clients.getSocketFactory().createSocket("localhost",
                    listener.getLocalPort())) {
                socket.setEnabledProtocols(new String[] {version});
                socket.setSoTimeout(10_000);
                assertEquals(1, socket.getInputStream().read());
            }
        }
    }
}
