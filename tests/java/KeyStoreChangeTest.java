import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.*;
import com.calvenhor.vork.utils.testing.FaultyModule;
import java.io.*;
import java.math.BigInteger;
import java.nio.file.*;
import java.security.*;
import java.security.cert.*;
import java.security.cert.Certificate;
import java.security.interfaces.RSAPublicKey;
import java.security.spec.*;
import java.util.*;
import java.util.concurrent.FutureTask;
import java.util.stream.*;
import javax.security.auth.callback.*;
import javax.security.auth.login.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.io.TempDir;

/** Changes by the KeyStore, each of whose calls to the module fails once: nothing that was there before is lost. */
class KeyStoreChangeTest {
    private static final String MODULE = System.getProperty("softhsm2");
    private static final char[] PIN = "1234".toCharArray();

    private static final String MAKE = """
            softhsm2-util --init-token --free --label First --so-pin 12345678 --pin 1234
            for name in ca a b other; do
              openssl genrsa -out $name.pem 2048
              openssl pkcs8 -topk8 -nocrypt -in $name.pem -outform DER -out $name.key
            done
            req() { openssl req -new -subj "/CN=$1" -key $1.pem "${@:2}"; }
            for name in ca other; do req $name -x509 -outform DER -out $name.crt; done
            for name in a b; do
              for ca in ca other; do
                req $name | openssl x509 -req -CA $ca.crt -CAkey $ca.pem -outform DER -out $name-by-$ca.crt
              done
            done
            """;

    private interface Change {
        void make(KeyStore store) throws Exception;
    }

    @TempDir
    static Path folder;

    private static Path tokens;
    private static FaultyModule module;

    private static final Map<String, Change> CHANGES = new TreeMap<>(Map.of(
            "import", store -> store.setKeyEntry("b", key("b"), null, chain("b-by-other", "other")),
            "renew", store -> store.setKeyEntry("a", store.getKey("a", null), null, chain("a-by-other", "other")),
            "rename", store -> store.setKeyEntry("renamed", store.getKey("a", null), null, chain("a-by-ca", "ca")),
            "set certificate", store -> store.setCertificateEntry("other", chain("other")[0]),
            "replace certificate", store -> store.setCertificateEntry("ca", chain("other")[0]),
            "delete key", store -> store.deleteEntry("a"),
            "delete certificate", store -> store.deleteEntry("ca"),
            "generate", store -> KeyPairGenerator.getInstance("RSA", store.getProvider()).generateKeyPair()));

    @BeforeAll
    static void fillToken() throws Exception {
        tokens = Files.createDirectory(folder.resolve("tokens"));
        SoftTokenTest.useTokens(tokens);
        SoftTokenTest.output(new ProcessBuilder("bash", "-eo", "pipefail", "-c", MAKE).directory(folder.toFile()));
        module = FaultyModule.before(MODULE);
        load().setKeyEntry("a", key("a"), null, chain("a-by-ca", "ca"));
        Smartcard.finalizeDLL();
        copy(tokens, folder.resolve("before"));
    }

    @AfterAll
    static void close() {
        Smartcard.finalizeDLL();
        module.close();
    }

    private static PrivateKey key(String name) throws Exception {
        return KeyFactory.getInstance("RSA").generatePrivate(
                new PKCS8EncodedKeySpec(Files.readAllBytes(folder.resolve(name + ".key"))));
    }

    private static Certificate[] chain(String... names) throws Exception {
        Certificate[] chain = new Certificate[names.length];
        for (int i = 0; i < names.length; i++) {
            try (InputStream file = Files.newInputStream(folder.resolve(names[i] + ".crt"))) {
                chain[i] = CertificateFactory.getInstance("X.509").generateCertificate(file);
            }
        }
        return chain;
    }

    /** Replaces a folder by a copy of another. */
    private static void copy(Path from, Path to) throws IOException {
        if (Files.exists(to)) {
            try (Stream<Path> old = Files.walk(to)) {
                old.sorted(Comparator.reverseOrder()).forEach(path -> path.toFile().delete());
            }
        }
        try (Stream<Path> files = Files.walk(from)) {
            for (Path file : files.toList()) {
                Files.copy(file, to.resolve(from.relativize(file).toString()));
            }
        }
    }

    private static KeyStore load() throws Exception {
        KeyStore store = KeyStore.getInstance("Smartcard", new SmartcardProvider().configure(module.path()));
        store.load(null, PIN);
        return store;
    }

    /** The token as it was in the beginning. */
    private static KeyStore begin() throws Exception {
        Smartcard.finalizeDLL();
        copy(folder.resolve("before"), tokens);
        return load();
    }

    /** The objects on the token, byte for byte, by their files. */
    private static Map<String, String> objects() throws IOException {
        try (Stream<Path> files = Files.walk(tokens)) {
            Map<String, String> objects = new HashMap<>();
            for (Path file : files.filter(each -> each.toString().endsWith(".object")
                    && !each.endsWith("token.object")).toList()) {
                objects.put(file.getFileName().toString(), HexFormat.of().formatHex(Files.readAllBytes(file)));
            }
            return objects;
        }
    }

    /** The objects on the token, as another maker's tool lists them. */
    private static Set<String> listed() throws Exception {
        String[] command = ("pkcs11-tool --module " + MODULE + " --login --pin 1234 --list-objects").split(" ");
        String list = SoftTokenTest.output(new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.DISCARD));
        return new HashSet<>(List.of(list.split("(?m)^(?=\\S)")));
    }

    /** What a KeyStore shows. */
    private static Map<String, String> shown(KeyStore store) throws Exception {
        Map<String, String> shown = new TreeMap<>();
        for (String alias : Collections.list(store.aliases())) {
            shown.put(alias, (store.isKeyEntry(alias) ? "key " : "") + store.getCertificate(alias).hashCode());
        }
        return shown;
    }

    private static void assertFails(String message, Change change, KeyStore store) throws Exception {
        Map<String, String> objects = objects();
        Exception failure = assertThrows(KeyStoreException.class, () -> change.make(store), message);
        assertTrue(failure.getMessage().contains(message), failure.getMessage());
        assertEquals(objects, objects(), failure.getMessage());
    }

    // ---- Failures in the middle ----

    @Test
    void everyCallOfAChangeFails() throws Exception {
        for (String name : CHANGES.keySet()) {
            KeyStore store = begin();
            Map<String, String> before = shown(store);
            Map<String, String> objectsBefore = objects();
            Set<String> listedBefore = listed();
            module.takeCalls();
            CHANGES.get(name).make(store);
            List<String> calls = module.takeCalls();
            Map<String, String> after = shown(load());
            int countAfter = objects().size();
            for (int i = 0; i < calls.size(); i++) {
                String function = calls.get(i);
                boolean isReading = function.matches("C_(Find|Get).*");
                if (isReading && i % 3 != 0) {
                    continue; // many are alike
                }
                int nth = Collections.frequency(calls.subList(0, i + 1), function);
                store = begin();
                module.fail(function, nth, 0x30); // CKR_DEVICE_ERROR
                String failure = failure(name, store);
                String what = name + ", " + function + " " + nth + ": " + failure;
                Map<String, String> objects = objects();
                assertEquals(shown(load()), shown(store), what);
                if (failure == null) {
                    assertEquals(after, shown(store), what);
                    // An imported key works without its public half, which some tokens refuse.
                    boolean isPublicKey = name.equals("import") && function.equals("C_CreateObject") && nth == 2;
                    assertEquals(countAfter - (isPublicKey ? 1 : 0), objects.size(), what);
                } else if (name.startsWith("delete")) {
                    CHANGES.get(name).make(store); // finishes
                    assertEquals(after, shown(store), what);
                    assertEquals(countAfter, objects().size(), what);
                } else if (!failure.contains("the entry is set")) {
                    assertKept(objectsBefore, objects, failure, what);
                    assertTrue(isReading || listed().containsAll(listedBefore), what);
                    assertTrue(failure.contains("left on the token") || before.equals(shown(store)), what);
                }
            }
        }
    }

    /** The message of a change's failure; null if there was none. */
    private static String failure(String name, KeyStore store) throws Exception {
        try {
            CHANGES.get(name).make(store);
            return null;
        } catch (KeyStoreException | ProviderException e) {
            return e.getMessage();
        }
    }

    /** All that was there is there, and what is there besides is told. */
    private static void assertKept(Map<String, String> before, Map<String, String> now, String failure, String what) {
        assertTrue(now.entrySet().containsAll(before.entrySet()), what);
        assertTrue(now.size() == before.size() || failure.contains("left on the token"), what);
    }

    @Test
    void theCardLeavesInTheMiddle() throws Exception {
        for (String name : CHANGES.keySet()) {
            for (String function : List.of("C_CreateObject", "C_DestroyObject", "C_SetAttributeValue",
                    "C_GenerateKeyPair", "C_SignInit")) {
                for (FaultyModule.Removal removal : FaultyModule.Removal.values()) {
                    KeyStore store = begin();
                    Map<String, String> before = objects();
                    module.takeCalls();
                    module.hang(function);
                    FutureTask<String> change = new FutureTask<>(() -> failure(name, store));
                    new Thread(change).start();
                    while (!change.isDone() && !module.takeCalls().contains(function)) {
                        Thread.sleep(1);
                    }
                    module.remove(0, removal);
                    module.release();
                    String failure = change.get();
                    String what = name + ", " + function + ", " + removal + ": " + failure;
                    module.insert(0);
                    if (failure != null && !name.startsWith("delete") && !failure.contains("the entry is set")) {
                        assertKept(before, objects(), failure, what);
                    }
                    Smartcard.finalizeDLL();
                    if (name.startsWith("delete")) {
                        CHANGES.get(name).make(load()); // finishes
                    }
                }
            }
        }
    }

    @Test
    void twoThreadsChangeAndAThirdReads() throws Exception {
        begin();
        Threads.run(Thread::new, 3, thread -> {
            for (int round = 0; round < 20; round++) {
                KeyStore store = load();
                if (thread == 2) {
                    assertNotNull(store.getKey("a", null));
                } else {
                    store.setCertificateEntry("thread " + thread, chain(round % 2 == 0 ? "other" : "b-by-ca")[0]);
                    assertTrue(store.isCertificateEntry("thread " + thread));
                }
            }
        });
        KeyStore store = load();
        assertEquals(Set.of("a", "ca", "thread 0", "thread 1"), Set.copyOf(Collections.list(store.aliases())));
        assertEquals(chain("b-by-ca")[0], store.getCertificate("thread 0"));
    }

    // ---- What is refused, before anything is written ----

    @Test
    void refusals() throws Exception {
        KeyStore store = begin();
        PrivateKey ofToken = (PrivateKey) store.getKey("a", null);
        PrivateKey ec = KeyPairGenerator.getInstance("EC").generateKeyPair().getPrivate();
        assertFails("CRT", each -> each.setKeyEntry("b", ec, null, chain("b-by-ca")), store);
        assertFails("not the key's", each -> each.setKeyEntry("b", key("b"), null, chain("a-by-ca", "ca")), store);
        assertFails("not the key's", each -> each.setKeyEntry("b", ofToken, null, chain("b-by-ca", "ca")), store);
        assertFails("another key's", each -> each.setKeyEntry("a", key("b"), null, chain("b-by-ca", "ca")), store);
        assertFails("key's entry", each -> each.setCertificateEntry("a", chain("other")[0]), store);
        assertFails("X.509", each -> each.setCertificateEntry("other", null), store);
        assertFails("encrypted", each -> each.setKeyEntry("b", new byte[9], chain("b-by-ca")), store);
        for (String alias : List.of("", " b ", "x/12345678", "a\tb")) {
            assertFails("read back", each -> each.setKeyEntry(alias, key("b"), null, chain("b-by-ca")), store);
        }
        assertFails("read back", each -> each.setCertificateEntry("x/12345678", chain("other")[0]), store);
        store.deleteEntry("unknown");
        Smartcard.logoutDLL(0);
        for (String name : CHANGES.keySet()) {
            assertTrue(failure(name, store).contains("CKR_USER_NOT_LOGGED_IN"), name);
        }
    }

    // ---- What others have written ----

    /** Writers differ in the serial number; keys and certificates may share an ID; certificates may be alike. */
    @Test
    void othersObjects() throws Exception {
        KeyStore store = begin();
        X509Certificate b = (X509Certificate) chain("b-by-ca")[0];
        byte[] id = "an ID".getBytes();
        byte[][] serialNumbers = {b.getSerialNumber().toByteArray(), new byte[0]};
        for (byte[] serialNumber : serialNumbers) {
            write(b, serialNumber, id, "by another");
            store.deleteEntry("by another");
        }
        write(b, serialNumbers[0], id, "copies");
        write(b, serialNumbers[1], id, "copies");
        store.deleteEntry("copies");
        assertEquals(Set.of("a", "ca"), Set.copyOf(Collections.list(store.aliases())));

        byte[] keyId = Smartcard.readPrivateKeyIDDLL(0);
        write((X509Certificate) chain("other")[0], new byte[0], keyId, "shares the ID");
        store.deleteEntry("a"); // the certificate alone
        assertEquals(1, (Smartcard.readAllRSAPrivateKeysDLL(0).length - 1) / 2);

        store = begin();
        Smartcard.generateKeyPairDLL(0, 1024, SoftTokenTest.EXPONENT, keyId, keyId);
        assertFails("several private keys", each -> each.deleteEntry("a"), store);
        assertFails("several private keys",
                each -> each.setKeyEntry("c", each.getKey("a", null), null, each.getCertificateChain("a")), store);
    }

    private static void write(X509Certificate certificate, byte[] serialNumber, byte[] id, String label)
            throws Exception {
        SoftTokenTest.assertOk(Smartcard.writeCertificateDLL(0, certificate.getEncoded(),
                certificate.getSubjectX500Principal().getEncoded(), certificate.getIssuerX500Principal().getEncoded(),
                serialNumber, id, label.getBytes()));
    }

    // ---- Logins, names and key pairs ----

    @Test
    void logins() throws Exception {
        begin();
        SmartcardProvider provider = (SmartcardProvider) new SmartcardProvider().configure(module.path());
        KeyStore store = KeyStore.getInstance("Smartcard", provider);
        List<String> pins = new ArrayList<>(List.of("4321", "1234", "1234", "1234"));
        CallbackHandler handler = callbacks -> {
            assertFalse(Thread.holdsLock(Smartcard.class));
            ((PasswordCallback) callbacks[0]).setPassword(pins.remove(0).toCharArray());
        };
        store.load(null); // logged in by begin
        provider.logout();
        provider.logout();
        assertThrows(LoginException.class, () -> provider.login(null, null));
        assertThrows(FailedLoginException.class, () -> provider.login(null, handler));
        provider.login(null, handler);
        provider.login(null, handler);
        assertEquals(2, pins.size());
        provider.logout();
        store.load(null, null);
        assertFalse(store.isKeyEntry("a"));
        provider.setCallbackHandler(handler);
        store.load(null, null);
        assertTrue(store.isKeyEntry("a"));
        provider.logout();
        assertTrue(KeyStore.Builder.newInstance("Smartcard", provider,
                new KeyStore.CallbackHandlerProtection(handler)).getKeyStore().isKeyEntry("a"));
        assertEquals(List.of(), pins);
        SmartcardProvider unconfigured = new SmartcardProvider();
        assertThrows(LoginException.class, () -> unconfigured.login(null, handler));
        assertThrows(LoginException.class, unconfigured::logout);
        assertNull(unconfigured.getService("KeyPairGenerator", "RSA"));
    }

    @Test
    void names() throws Exception {
        begin();
        String path = "?module-path=" + module.path();
        String serial = new String(Smartcard.readCardSerialNumberDLL(0)).strip();
        for (String name : List.of("", "token=First", "token=F%69rst;serial=" + serial + ";model=any")) {
            Provider provider = new SmartcardProvider().configure("pkcs11:" + name + path);
            assertEquals(0, ((SmartcardProvider) provider).slotIndex());
        }
        for (String name : List.of("token=Second", "token=Firs", "serial=0")) {
            Provider provider = new SmartcardProvider().configure("pkcs11:" + name + path);
            String message = assertThrows(IOException.class,
                    () -> KeyStore.getInstance("Smartcard", provider).load(null, PIN)).getMessage();
            assertTrue(message.contains("\"First\"") && message.contains(serial), message);
        }
        for (String name : List.of("object=a", "model=any", "token", "token=a;token=b", "token=%", "slot-id=0")) {
            String message = assertThrows(InvalidParameterException.class,
                    () -> new SmartcardProvider().configure("pkcs11:" + name + path)).getMessage();
            assertTrue(message.contains("pkcs11:token=LABEL"), message);
        }
        assertThrows(InvalidParameterException.class,
                () -> new SmartcardProvider().configure("pkcs11:token=First" + path + "&pin-value=1234"));
    }

    @Test
    void keyPairs() throws Exception {
        KeyStore store = begin();
        KeyPairGenerator generator = KeyPairGenerator.getInstance("RSA", store.getProvider());
        generator.initialize(new RSAKeyGenParameterSpec(1024, BigInteger.valueOf(3)));
        KeyPair pair = generator.generateKeyPair();
        assertEquals(BigInteger.valueOf(3), ((RSAPublicKey) pair.getPublic()).getPublicExponent());
        assertEquals(1024, ((RSAPublicKey) pair.getPublic()).getModulus().bitLength());
        assertNull(pair.getPrivate().getEncoded());
        Signature signature = Signature.getInstance("SHA256withRSA", store.getProvider());
        signature.initSign(pair.getPrivate());
        byte[] signed = signature.sign();
        signature = Signature.getInstance("SHA256withRSA", "SunRsaSign");
        signature.initVerify(pair.getPublic());
        assertTrue(signature.verify(signed));
        assertThrows(InvalidAlgorithmParameterException.class, () -> generator.initialize(new ECGenParameterSpec("a")));
        Smartcard.logoutDLL(0);
        assertEquals(0x101, ((SmartcardException) assertThrows(ProviderException.class, generator::generateKeyPair)
                .getCause()).code());
    }
}
