import com.calvenhor.vork.utils.Smartcard;
import com.calvenhor.vork.utils.SmartcardException;
import com.calvenhor.vork.utils.SmartcardProvider;
import java.io.ByteArrayInputStream;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.math.BigInteger;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.KeyStore;
import java.security.MessageDigest;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.Security;
import java.security.Signature;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAPrivateCrtKey;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HexFormat;
import java.util.List;
import java.util.function.LongConsumer;

/** The snippets of README.md and docs/. Tests compare and run them. */
final class Recipes {
    private Recipes() {
    }

    static byte[] fromJava(String pin, byte[] digestInfo, byte[] keyId) throws IOException {
        if (Smartcard.initDLL("/usr/lib/softhsm/libsofthsm2.so") != 0) throw new IOException("initDLL failed");
        if (Smartcard.openSessionDLL(0) != 0) throw new IOException("openSessionDLL failed");
        if (Smartcard.loginDLL(0, pin, 1) != 0) throw new IOException("loginDLL failed"); // 1: as user
        byte[] signature = Smartcard.signWithIDDLL(0, digestInfo, keyId);     // PKCS #1 v1.5, without hashing
        if (signature.length == 1) throw new IOException("status 0x" + Integer.toHexString(signature[0] & 0xFF));
        Smartcard.logoutDLL(0);
        Smartcard.closeSessionDLL(0);
        Smartcard.finalizeDLL();
        return signature;
    }

    static byte[] asKeyStore(char[] pin, byte[] document) throws GeneralSecurityException, IOException {
        Provider provider = new SmartcardProvider().configure("/usr/lib/softhsm/libsofthsm2.so");
        KeyStore store = KeyStore.getInstance("Smartcard", provider);
        store.load(null, pin);                                         // binds, opens a session, logs in
        Signature signature = Signature.getInstance("SHA256withRSA", provider);
        signature.initSign((PrivateKey) store.getKey("Contracts", null));
        signature.update(document);
        byte[] signed = signature.sign();
        return signed;
    }

    // ---- Results ----

    static void check(String call, long code) throws IOException {
        if (code != 0) {
            throw new IOException(call + ": " + (code < 0 ? "" + code : SmartcardException.nameOf(code)));
        }
    }

    static byte[] data(String call, byte[] result) throws IOException {
        if (result == null || result.length == 1) {
            throw new IOException(call + ": " + (result == null ? "no memory"
                : "status 0x" + Integer.toHexString(result[0] & 0xFF)));
        }
        return result;
    }

    // ---- Tokens ----

    static long newToken(String module, long emptySlot, String soPin, String pin) throws IOException {
        check("initTokenDLL", Smartcard.initTokenDLL(emptySlot, soPin, soPin.length()));
        byte[] serialNumber = data("readCardSerialNumberDLL", Smartcard.readCardSerialNumberDLL(emptySlot));
        check("finalizeDLL", Smartcard.finalizeDLL()); // the module may have moved the token to another slot
        check("initDLL", Smartcard.initDLL(module));
        long slot = slotOf(serialNumber);
        check("openSessionDLL", Smartcard.openSessionDLL(slot));
        check("loginDLL", Smartcard.loginDLL(slot, soPin, 0)); // 0: as security officer
        check("initUserPINDLL", Smartcard.initUserPINDLL(slot, pin, pin.length()));
        check("logoutDLL", Smartcard.logoutDLL(slot));
        return slot;
    }

    static long slotOf(byte[] serialNumber) {
        for (long slot = 0; slot < Smartcard.getSlotCountDLL(); slot++) {
            if (Arrays.equals(Smartcard.readCardSerialNumberDLL(slot), serialNumber)) {
                return slot;
            }
        }
        return -1;
    }

    static void logIn(long slot, String pin) throws IOException {
        boolean hasPinPad = (Smartcard.getTokenInfoDLL(slot) & 0x100) != 0; // CKF_PROTECTED_AUTHENTICATION_PATH
        long code = Smartcard.loginDLL(slot, hasPinPad ? null : pin, 1);
        if (code != 0x100) { // CKR_USER_ALREADY_LOGGED_IN
            check("loginDLL", code);
        }
    }

    static byte[] importIdentity(long slot, Path file, char[] password, String alias, byte[] label)
            throws GeneralSecurityException, IOException {
        KeyStore store = KeyStore.getInstance("PKCS12");
        try (InputStream in = Files.newInputStream(file)) {
            store.load(in, password);
        }
        RSAPrivateCrtKey key = (RSAPrivateCrtKey) store.getKey(alias, password);
        X509Certificate certificate = (X509Certificate) store.getCertificate(alias);
        byte[] id = MessageDigest.getInstance("SHA-1").digest(unsigned(key.getModulus()));
        byte[] serialNumber = certificate.getSerialNumber().toByteArray();
        byte[] der = new byte[2 + serialNumber.length]; // INTEGER, length, value: 20 bytes at most
        der[0] = 0x02;
        der[1] = (byte) serialNumber.length;
        System.arraycopy(serialNumber, 0, der, 2, serialNumber.length);
        check("writeCertificateAndPrivateKeyDLL", Smartcard.writeCertificateAndPrivateKeyDLL(slot,
                certificate.getEncoded(), certificate.getSubjectX500Principal().getEncoded(),
                certificate.getIssuerX500Principal().getEncoded(), der, unsigned(key.getModulus()),
                unsigned(key.getPublicExponent()), unsigned(key.getPrivateExponent()), unsigned(key.getPrimeP()),
                unsigned(key.getPrimeQ()), unsigned(key.getPrimeExponentP()), unsigned(key.getPrimeExponentQ()),
                unsigned(key.getCrtCoefficient()), id, label));
        byte[][] keys = Smartcard.readAllRSAPrivateKeysDLL(slot);
        for (int i = 1; i < keys.length; i += 2) {
            if (Arrays.equals(keys[i], id)) {
                return id;
            }
        }
        throw new IOException("the certificate was written, but not the private key");
    }

    static byte[] unsigned(BigInteger number) {
        byte[] bytes = number.toByteArray();
        return bytes[0] == 0 ? Arrays.copyOfRange(bytes, 1, bytes.length) : bytes;
    }

    record Entry(byte[] id, byte[] label, X509Certificate certificate) {
    }

    static List<Entry> certificates(long slot) throws GeneralSecurityException, IOException {
        byte[][] listing = Smartcard.readAllCertificatesDLL(slot);
        if (listing == null || listing[0][0] != 0 || Arrays.asList(listing).contains(null)) {
            throw new IOException("readAllCertificatesDLL failed or returned only some values");
        }
        CertificateFactory factory = CertificateFactory.getInstance("X.509");
        List<Entry> entries = new ArrayList<>();
        for (int i = 1; i < listing.length; i += 3) {
            entries.add(new Entry(listing[i], listing[i + 1], (X509Certificate) factory.generateCertificate(
                    new ByteArrayInputStream(listing[i + 2]))));
        }
        return entries;
    }

    static byte[] sign(long slot, Entry signer, byte[] document) throws GeneralSecurityException, IOException {
        byte[] signature = data("signWithIDDLL", Smartcard.signWithIDDLL(slot, digestInfo(document), signer.id()));
        Signature verifier = Signature.getInstance("SHA256withRSA");
        verifier.initVerify(signer.certificate().getPublicKey());
        verifier.update(document);
        if (!verifier.verify(signature)) {
            throw new IOException("the certificate does not verify the signature: perhaps another key has the same ID");
        }
        return signature;
    }

    static byte[] digestInfo(byte[] document) throws GeneralSecurityException {
        byte[] digest = MessageDigest.getInstance("SHA-256").digest(document);
        return HexFormat.of().parseHex("3031300d060960864801650304020105000420" + HexFormat.of().formatHex(digest));
    }

    // ---- Long-running applications ----

    static void watch(String module, byte[] serialNumber, String pin, LongConsumer report)
            throws IOException, InterruptedException {
        long reported = -1;
        for (long slot = slotOf(serialNumber);; Thread.sleep(500)) {
            synchronized (Smartcard.class) {
                // First getSlotInfoDLL: OpenSC looks for the card only there.
                boolean isConnected = (Smartcard.getSlotInfoDLL(slot) & 1) != 0
                        && Smartcard.isSessionOpenDLL(slot) == 0
                        && Arrays.equals(Smartcard.readCardSerialNumberDLL(slot), serialNumber);
                if (!isConnected) {
                    slot = reconnect(module, serialNumber, pin);
                }
            }
            if (slot != reported) {
                report.accept(reported = slot); // -1: no card
            }
        }
    }

    static long reconnect(String module, byte[] serialNumber, String pin) throws IOException {
        Smartcard.finalizeDLL();
        if (Smartcard.initDLL(module) != 0) { // such as -3: the reader was unplugged, too
            return -1;
        }
        long slot = slotOf(serialNumber);
        if (slot == -1 || Smartcard.openSessionDLL(slot) != 0) { // the card may not be ready yet
            return -1;
        }
        logIn(slot, pin);
        return slot;
    }

    static byte[] signInAnotherProcess(String client, long slot, String pin, byte[] digestInfo, byte[] keyId)
            throws IOException {
        byte[] signature = Smartcard.signWithIDDLL(slot, digestInfo, keyId);
        if (Smartcard.isSessionOpenDLL(slot) == 0x30) { // the process is gone
            Smartcard.finalizeDLL();
            Smartcard.initDLL(client);
            Smartcard.openSessionDLL(slot);
            if (Smartcard.loginDLL(slot, pin, 1) != 0) throw new IOException("the module cannot be restarted");
            signature = Smartcard.signWithIDDLL(slot, digestInfo, keyId);
        }
        return signature;
    }

    static final class Binding implements AutoCloseable {
        private final Provider provider = new SmartcardProvider().configure("0"); // slot 0 of the bound module

        Binding(String module) throws IOException {
            check("initDLL", Smartcard.initDLL(module));
            if (Security.addProvider(provider) == -1) { // an earlier deployment left its provider
                Smartcard.finalizeDLL();
                throw new IOException("another provider " + provider.getName() + " is registered");
            }
        }

        @Override
        public void close() {
            Security.removeProvider(provider.getName());
            Smartcard.finalizeDLL(); // waits for the current call, then ends all sessions
        }
    }

    static void writeData(byte[] bytes) throws IOException {
        try (OutputStream out = new FileOutputStream("/dev/fd/3")) {
            out.write(bytes);
        }
    }

    /** Writes the label of the token in the first slot. */
    public static void main(String[] arguments) throws IOException {
        Binding binding = new Binding(arguments[0]);
        writeData(data("readCardLabelDLL", Smartcard.readCardLabelDLL(0)));
        binding.close();
    }
}
