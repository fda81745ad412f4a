import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.*;
import com.calvenhor.vork.utils.testing.FaultyModule;
import java.io.*;
import java.math.BigInteger;
import java.nio.ByteBuffer;
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

/** Changes by the KeyStore. No object is lost if any one call of the module fails or the card is removed. */
class KeyStoreChangeTest {
    private static final String MODULE = System.getProperty("softhsm2");
    private static final char[] PIN = "1234".toCharArray();
    private static final byte[] LABEL = "label".getBytes();

    private static final String PREPARE = """
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
            req a | openssl x509 -req -CA ca.crt -CAkey ca.pem -outform DER -out again-by-ca.crt
            openssl req -new -x509 -subj "/O=Org/CN=ca" -key other.pem -outform DER -out org.crt
            """;

    private interface Change {
        void make(KeyStore store) throws Exception;
    }

    @TempDir
    static Path folder;

    private static Path tokens;
    private static FaultyModule module;

    /**
     * The objects after each change: kind, label, and the name of the key or certificate from which the ID is computed;
     * for a certificate also its own name.
     */
    private static final Map<String, String> RESULTS = Map.of(
            "import", "crt a a a-by-ca|crt b b b-by-other|crt ca ca ca|crt other other other|prv a a|prv b b|pub a a"
                    + "|pub b b",
            "renew", "crt a a a-by-other|crt ca ca ca|crt other other other|prv a a|pub a a",
            "rename", "crt a a a-by-ca|crt ca ca ca|crt renamed a a-by-ca|prv renamed a|pub renamed a",
            "set again", "crt a a a-by-ca|crt ca ca ca|crt Org org org|crt other other other|prv a a|pub a a",
            "set certificate", "crt a a a-by-ca|crt ca ca ca|crt other other other|prv a a|pub a a",
            "replace certificate", "crt a a a-by-ca|crt ca other other|prv a a|pub a a",
            "generate", "crt a a a-by-ca|crt ca ca ca|prv a a|prv new new|pub a a|pub new new",
            "delete key", "crt ca ca ca",
            "delete certificate", "crt a a a-by-ca|prv a a|pub a a");

    private static final Map<String, Change> CHANGES = new TreeMap<>(Map.of(
            "import", store -> store.setKeyEntry("b", key("b"), null, chain("b-by-other", "other")),
            "renew", store -> store.setKeyEntry("a", store.getKey("a", null), null, chain("a-by-other", "other")),
            "set again", store -> store.setKeyEntry("a", key("a"), null, chain("a-by-ca", "org", "ca", "other")),
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
        SoftTokenTest.output(new ProcessBuilder("bash", "-eo", "pipefail", "-c", PREPARE).directory(folder.toFile()));
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

    /** Replaces a folder with a copy of another folder. */
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

    /** Restores the token's initial contents and loads the KeyStore. */
    private static KeyStore begin() throws Exception {
        Smartcard.finalizeDLL();
        copy(folder.resolve("before"), tokens);
        return load();
    }

    /** The contents of the objects' files on the token, by file name. */
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

    /** The objects on the token, as OpenSC's tool lists them. */
    private static Set<String> toolListing() throws Exception {
        return new HashSet<>(List.of(runTool("--list-objects").split("(?m)^(?=\\S)")));
    }

    /** The objects on the token, in the format of {@link #RESULTS}. */
    private static String contents() throws Exception {
        Map<String, String> names = new HashMap<>();
        for (String name : List.of("a-by-ca", "a-by-other", "b-by-other", "b-by-ca", "ca", "other", "org")) {
            byte[] der = chain(name)[0].getEncoded();
            names.put(hex(der), name);
            names.put(hex(sha1(der)), name);
            names.putIfAbsent(hex(idOf(name)), name.substring(0, name.contains("-") ? 1 : name.length()));
        }
        List<String> lines = new ArrayList<>();
        byte[][] list = Smartcard.readAllCertificatesDLL(0);
        for (int i = 1; i < list.length; i += 3) {
            lines.add("crt " + new String(list[i + 1]) + " " + names.get(hex(list[i])) + " "
                    + names.get(hex(list[i + 2])));
        }
        list = Smartcard.readAllRSAPrivateKeysDLL(0);
        for (int i = 1; i < list.length; i += 2) {
            lines.add("prv " + new String(list[i + 1]) + " " + name(names, list[i]));
        }
        list = Smartcard.readAllRSAPublicKeysDLL(0);
        for (int i = 1; i < list.length; i += 4) {
            lines.add("pub " + new String(list[i + 1]) + " " + name(names, list[i]));
        }
        lines.replaceAll(line -> line.replaceAll("[0-9a-f]{40}", "new"));
        lines.sort(String.CASE_INSENSITIVE_ORDER);
        return String.join("|", lines);
    }

    private static String name(Map<String, String> names, byte[] id) {
        return names.getOrDefault(hex(id), hex(id));
    }

    private static String hex(byte[] bytes) {
        return HexFormat.of().formatHex(bytes);
    }

    private static byte[] sha1(byte[] bytes) throws Exception {
        return MessageDigest.getInstance("SHA-1").digest(bytes);
    }

    private static byte[] modulus(String certificate) throws Exception {
        byte[] modulus = ((RSAPublicKey) chain(certificate)[0].getPublicKey()).getModulus().toByteArray();
        return Arrays.copyOfRange(modulus, 1, modulus.length);
    }

    /** The ID of a certificate's key. */
    private static byte[] idOf(String certificate) throws Exception {
        return sha1(modulus(certificate));
    }

    /** The kind of each entry and its certificate's hash code, by alias. */
    private static Map<String, String> entries(KeyStore store) throws Exception {
        Map<String, String> entries = new TreeMap<>();
        for (String alias : Collections.list(store.aliases())) {
            entries.put(alias, (store.isKeyEntry(alias) ? "key " : "") + store.getCertificate(alias).hashCode());
        }
        return entries;
    }

    private static void assertFails(String message, Change change, KeyStore store) throws Exception {
        Map<String, String> objects = objects();
        Exception failure = assertThrows(KeyStoreException.class, () -> change.make(store), message);
        assertTrue(failure.getMessage().contains(message), failure.getMessage());
        assertEquals(objects, objects(), failure.getMessage());
    }

    // ---- Failures during a change ----

    @Test
    void everyCallOfAChangeFails() throws Exception {
        for (String name : CHANGES.keySet()) {
            KeyStore store = begin();
            Map<String, String> before = entries(store);
            Map<String, String> objectsBefore = objects();
            Set<String> listingBefore = toolListing();
            module.takeCalls();
            CHANGES.get(name).make(store);
            List<String> calls = module.takeCalls();
            Map<String, String> after = entries(load());
            String contents = contents();
            assertEquals(RESULTS.get(name), contents, name);
            assertTrue(name.contains("certificate") || calls.contains("C_Sign"), "signs with the key: " + name);
            for (int i = 0; i < calls.size(); i++) {
                String function = calls.get(i);
                boolean isReading = function.matches("C_(Find|Get).*");
                if (isReading && i % 3 != 0) {
                    continue; // many of these calls are alike
                }
                int nth = Collections.frequency(calls.subList(0, i + 1), function);
                store = begin();
                module.fail(function, nth, 0x30); // CKR_DEVICE_ERROR
                String failure = failure(name, store);
                String what = name + ", " + function + " " + nth + ": " + failure;
                Map<String, String> objects = objects();
                assertEquals(entries(load()), entries(store), what);
                if (failure == null) {
                    assertEquals(after, entries(store), what);
                    // An imported key works without its public key, which some tokens refuse.
                    boolean isPublicKey = name.equals("import") && function.equals("C_CreateObject") && nth == 2;
                    assertEquals(isPublicKey ? contents.replace("|pub b b", "") : contents, contents(), what);
                } else if (name.startsWith("delete")) {
                    CHANGES.get(name).make(store); // finishes the deletion
                    assertEquals(after, entries(store), what);
                    assertEquals(contents, contents(), what);
                } else if (!failure.contains("the entry is set")) {
                    assertKept(objectsBefore, objects, failure, what);
                    if (!isReading && !function.equals("C_DestroyObject")) { // the KeyStore can undo it all
                        assertEquals(objectsBefore, objects, what);
                    }
                    assertTrue(isReading || toolListing().containsAll(listingBefore), what);
                    assertTrue(failure.contains("left on the token") || before.equals(entries(store)), what);
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

    /** Expects that no object is lost, and that the message reports objects left behind. */
    private static void assertKept(Map<String, String> before, Map<String, String> now, String failure, String what) {
        assertTrue(now.entrySet().containsAll(before.entrySet()), what);
        assertTrue(now.size() == before.size() || failure.contains("left on the token"), what);
    }

    @Test
    void cardIsRemovedDuringAChange() throws Exception {
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
                        CHANGES.get(name).make(load()); // finishes the deletion
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

    // ---- Refusals before anything is written ----

    @Test
    void refusals() throws Exception {
        KeyStore store = begin();
        PrivateKey ofToken = (PrivateKey) store.getKey("a", null);
        PrivateKey ec = KeyPairGenerator.getInstance("EC").generateKeyPair().getPrivate();
        assertFails("CRT", each -> each.setKeyEntry("b", ec, null, chain("b-by-ca")), store);
        assertFails("does not belong to the key",
                each -> each.setKeyEntry("b", key("b"), null, chain("a-by-ca", "ca")), store);
        assertFails("does not belong to the key",
                each -> each.setKeyEntry("b", ofToken, null, chain("b-by-ca", "ca")), store);
        assertFails("the entry of another key",
                each -> each.setKeyEntry("a", key("b"), null, chain("b-by-ca", "ca")), store);
        assertFails("the entry of a key", each -> each.setCertificateEntry("a", chain("other")[0]), store);
        assertFails("X.509", each -> each.setCertificateEntry("other", null), store);
        assertFails("encrypted", each -> each.setKeyEntry("b", new byte[9], chain("b-by-ca")), store);
        for (String alias : List.of("", " b ", "x/12345678", "a\tb")) {
            assertFails("read back", each -> each.setKeyEntry(alias, key("b"), null, chain("b-by-ca")), store);
        }
        assertFails("read back", each -> each.setCertificateEntry("x/12345678", chain("other")[0]), store);
        store.deleteEntry("unknown");
        store.store(null, PIN);
        assertThrows(IOException.class, () -> store.store(new ByteArrayOutputStream(), PIN));
        Smartcard.logoutDLL(0);
        for (String name : CHANGES.keySet()) {
            assertTrue(failure(name, store).contains("CKR_USER_NOT_LOGGED_IN"), name);
        }
    }

    // ---- Objects of other programs ----

    /** Serial numbers in other encodings, several objects with one ID, and copies of certificates. */
    @Test
    void objectsOfOtherPrograms() throws Exception {
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

    /** Keys with the ID of another key: an RSA key, a public key, and a key pair that no listing contains. */
    @Test
    void keysOfOtherPrograms() throws Exception {
        KeyStore store = begin();
        Smartcard.generateKeyPairDLL(0, 1024, SoftTokenTest.EXPONENT, idOf("b-by-ca"), LABEL);
        assertFails("does not verify", each -> each.setKeyEntry("b", key("b"), null, chain("b-by-ca")), store);

        store = begin();
        Smartcard.generateKeyPairDLL(0, 1024, SoftTokenTest.EXPONENT, sha1(chain("other")[0].getEncoded()), LABEL);
        assertFails("would become a key entry", each -> each.setCertificateEntry("other", chain("other")[0]), store);

        store = begin();
        SoftTokenTest.assertOk(
                Smartcard.writePublicKeyDLL(0, modulus("b-by-ca"), SoftTokenTest.EXPONENT, idOf("b-by-ca"), LABEL),
                Smartcard.writePublicKeyDLL(0, modulus("a-by-ca"), SoftTokenTest.EXPONENT, idOf("a-by-ca"), LABEL));
        Map<String, String> before = objects();
        module.fail("C_CreateObject", 1, 0x30);
        assertTrue(failure("import", store).contains("a public key with the ID"));
        assertTrue(objects().entrySet().containsAll(before.entrySet()));
        assertFails("several public keys", CHANGES.get("rename"), store);
        module.fail("C_SignInit", 1, 0x30);
        module.fail("C_DestroyObject", 3, 0x30); // after two certificates
        assertTrue(failure("import", store).contains("a private key with the ID"));
        store.deleteEntry("a");
        assertFalse(contents().contains(" a"), contents());

        store = begin();
        SoftTokenTest.assertOk(
                Smartcard.writePublicKeyDLL(0, modulus("b-by-ca"), SoftTokenTest.EXPONENT, idOf("a-by-ca"), LABEL),
                Smartcard.writePublicKeyDLL(0, modulus("b-by-ca"), SoftTokenTest.EXPONENT,
                        sha1(chain("ca")[0].getEncoded()), "ca".getBytes()));
        assertFails("the public key of another key pair", each -> each.deleteEntry("a"), store);
        Smartcard.writePublicKeyDLL(0, modulus("other"), SoftTokenTest.EXPONENT, new byte[] {7}, LABEL);
        write((X509Certificate) chain("other")[0], new byte[0], new byte[] {7}, "other");
        store.deleteEntry("ca");
        store.deleteEntry("other");
        assertTrue(contents().contains("pub ca ca|pub label 07"), contents());

        store = begin();
        write((X509Certificate) chain("a-by-ca")[0], new byte[0], new byte[] {7}, "a");
        runTool("--write-object " + folder.resolve("a.key") + " --type privkey --id 07");
        assertFails("under the IDs of several private keys", CHANGES.get("delete key"), store);
        assertFails("the entry of another key", CHANGES.get("renew"), store);

        for (String name : List.of("a-by-ca", "b-by-ca")) {
            store = begin();
            before = objects();
            runTool("--keypairgen --key-type EC:prime256v1 --id " + hex(idOf(name)));
            Map<String, String> pair = objects();
            pair.keySet().removeAll(before.keySet());
            assertNotNull(failure(name.equals("a-by-ca") ? "delete key" : "import", store));
            assertTrue(objects().entrySet().containsAll(pair.entrySet()), name);
        }
    }

    private static String runTool(String options) throws Exception {
        String[] command = ("pkcs11-tool --module " + MODULE + " --login --pin 1234 " + options).split(" ");
        return SoftTokenTest.output(new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.DISCARD));
    }

    /** Certificates that a deletion could confuse, and one that cannot be parsed. */
    @Test
    void certificatesOfOtherPrograms() throws Exception {
        KeyStore store = begin();
        X509Certificate first = (X509Certificate) chain("a-by-ca")[0];
        X509Certificate second = (X509Certificate) chain("again-by-ca")[0];
        write(first, new byte[] {9}, new byte[] {1}, "alike"); // cannot be found by its serial number
        write(second, new byte[0], new byte[] {1}, "alike");
        store.load(null, null);
        for (String alias : Collections.list(store.aliases())) {
            if (first.equals(store.getCertificate(alias)) && alias.startsWith("alike/")) {
                assertFails("does not find", each -> each.deleteEntry(alias), store);
            }
        }

        X509Certificate ca = (X509Certificate) chain("ca")[0];
        byte[] number = ca.getSerialNumber().toByteArray();
        byte[] name = ca.getSubjectX500Principal().getEncoded();
        SoftTokenTest.assertOk(Smartcard.writeCertificateDLL(0, new byte[] {1}, name, name, number,
                sha1(ca.getEncoded()), "ca".getBytes()));
        assertFails("another certificate", CHANGES.get("replace certificate"), store);
        assertFails("another certificate", CHANGES.get("delete certificate"), store);
        SoftTokenTest.assertOk(
                Smartcard.writeCertificateDLL(0, new byte[] {1}, name, name, number, idOf("a-by-ca"), LABEL));
        store.deleteEntry("a"); // although a certificate that cannot be parsed has its ID
        assertFalse(contents().contains("prv"), contents());

        CHANGES.get("set certificate").make(store); // with its serial number in DER, as other programs expect
        X509Certificate other = (X509Certificate) chain("other")[0];
        number = other.getSerialNumber().toByteArray();
        name = other.getSubjectX500Principal().getEncoded();
        Smartcard.deleteCertificateDLL(0, name, name, ByteBuffer.allocate(2 + number.length).put((byte) 2)
                .put((byte) number.length).put(number).array(), sha1(other.getEncoded()), "other".getBytes());
        assertFalse(contents().contains("other"), contents());

        write(other, new byte[0], new byte[] {7}, "same");
        Map<String, String> before = objects();
        store.setCertificateEntry("same", chain("other")[0]);
        assertEquals(before, objects());
    }

    /** A KeyStore that was loaded from another token, as after a swap of cards. */
    @Test
    void anotherToken() throws Exception {
        KeyStore store = begin();
        Smartcard.finalizeDLL();
        SoftTokenTest.useTokens(Files.createDirectory(folder.resolve("others")));
        SoftTokenTest.output(new ProcessBuilder("softhsm2-util", "--init-token", "--free", "--label", "Second",
                "--so-pin", "12345678", "--pin", "1234"));
        SoftTokenTest.useTokens(tokens);
        AuthProvider provider = (AuthProvider) store.getProvider();
        assertTrue(assertThrows(LoginException.class, () -> provider.login(null, callbacks -> {
            Smartcard.finalizeDLL();
            Files.writeString(Path.of(System.getenv("SOFTHSM2_CONF")),
                    "directories.tokendir = " + folder.resolve("others") + "\n");
            ((PasswordCallback) callbacks[0]).setPassword(PIN);
        })).getMessage().contains("another token"));
        assertNotEquals(0, Smartcard.logoutDLL(0));
        load();
        for (String name : RESULTS.keySet()) {
            assertTrue(name.equals("generate") || failure(name, store).contains("\"First\""), name);
        }
        SoftTokenTest.useTokens(tokens);
    }

    private static void write(X509Certificate certificate, byte[] serialNumber, byte[] id, String label)
            throws Exception {
        SoftTokenTest.assertOk(Smartcard.writeCertificateDLL(0, certificate.getEncoded(),
                certificate.getSubjectX500Principal().getEncoded(), certificate.getIssuerX500Principal().getEncoded(),
                serialNumber, id, label.getBytes()));
    }

    // ---- Logins, URIs and key pairs ----

    @Test
    void logins() throws Exception {
        begin();
        SmartcardProvider provider = new SmartcardProvider().configure(module.path());
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
        KeyStore.Builder.newInstance("Smartcard", provider, new KeyStore.CallbackHandlerProtection(handler))
                .getKeyStore();
        assertEquals(List.of(), pins); // no PIN was requested while logged in
        SmartcardProvider unconfigured = new SmartcardProvider();
        assertThrows(LoginException.class, () -> unconfigured.login(null, handler));
        assertThrows(LoginException.class, unconfigured::logout);
        assertNull(unconfigured.getService("KeyPairGenerator", "RSA"));
    }

    @Test
    void uris() throws Exception {
        begin();
        String path = "?module-path=" + module.path();
        String serial = new String(Smartcard.readCardSerialNumberDLL(0)).strip();
        for (String name : List.of("", "token=First", "token=F%69rst;serial=" + serial + ";model=any")) {
            assertEquals(0, new SmartcardProvider().configure("pkcs11:" + name + path).slotIndex());
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
