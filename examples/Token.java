import com.calvenhor.vork.utils.Smartcard;
import com.calvenhor.vork.utils.SmartcardException;
import java.io.ByteArrayInputStream;
import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.KeyFactory;
import java.security.PublicKey;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAPublicKey;
import java.security.spec.RSAPublicKeySpec;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Deque;
import java.util.HexFormat;
import java.util.List;
import java.util.stream.LongStream;

/** The token that an example works on: until it is closed its slot has a session, with a login where a PIN is known. */
final class Token implements AutoCloseable {
    /** Something went wrong, told so that the reader of an example understands it. */
    static class Failure extends Exception {
        private static final long serialVersionUID = 1;

        Failure(String message) {
            super(message);
        }
    }

    /** The module said no, as it may. */
    static final class Refused extends Failure {
        private static final long serialVersionUID = 1;

        Refused(String message) {
            super(message);
        }
    }

    /** The steps of an example. */
    interface Steps {
        void run() throws Exception;
    }

    /** An object of the token, with the values that its kind has beside ID and label. */
    record Entry(byte[] id, byte[] label, List<byte[]> values) {
    }

    private static final long SECURITY_OFFICER = 0;
    private static final long USER = 1;
    private static final String DEMO_SO_PIN = "12345678";
    private static final String DEMO_PIN = "123456";

    final long slot;
    boolean loggedIn;

    private Token(long slot) {
        this.slot = slot;
    }

    // ---- Opening and closing ----

    /**
     * Opens the token that the leading options name, and takes them away. {@code --fresh MODULE} makes a new token in
     * the module's first slot; {@code --module MODULE [--slot N]} takes one as it is, with the PIN that the environment
     * has in {@code SMARTCARD_PIN}: arguments are for everyone to see, and stand in the report of a crash.
     */
    static Token open(Deque<String> arguments) throws Failure {
        String module = null;
        long slot = -1;
        boolean fresh = false;
        while (!arguments.isEmpty() && arguments.peek().startsWith("--")) {
            String option = arguments.remove();
            require(!arguments.isEmpty(), option + " needs a value");
            String value = arguments.remove();
            switch (option) {
                case "--fresh" -> {
                    module = value;
                    fresh = true;
                }
                case "--module" -> module = value;
                case "--slot" -> {
                    require(value.matches("\\d{1,9}"), "--slot takes a slot index, not " + value);
                    slot = Long.parseLong(value);
                }
                default -> throw new Failure("unknown option " + option);
            }
        }
        require(module != null, "--module is missing");
        require(!fresh || slot == -1, "--slot goes with --module");

        step("Load and initialise the PKCS#11 module " + module);
        bind(module);
        try {
            return fresh ? fresh(module) : existing(slot, System.getenv("SMARTCARD_PIN"));
        } catch (Failure | RuntimeException | Error e) {
            Smartcard.finalizeDLL();
            throw e;
        }
    }

    private static void bind(String module) throws Failure {
        long code = Smartcard.initDLL(module);
        require(code != -1, "initDLL: " + module + " cannot be loaded; if the file exists, `ldd " + module
                + "` shows which library is missing");
        require(code != -2, "initDLL: " + module + " is no PKCS#11 module");
        require(code != -3, "initDLL: the module has no slot; is the reader there?");
        check(code, "initDLL");
    }

    private static Token fresh(String module) throws Failure {
        step("Initialise a token in slot 0, and with it the security officer's PIN");
        check(Smartcard.initTokenDLL(0, DEMO_SO_PIN, DEMO_SO_PIN.length()), "initTokenDLL");
        tell("The module may have moved the new token to another slot: bind it once more and look for it.");
        check(Smartcard.finalizeDLL(), "finalizeDLL");
        bind(module);

        Token token = new Token(firstToken());
        step("Open a session in slot " + token.slot);
        check(Smartcard.openSessionDLL(token.slot), "openSessionDLL");

        step("Set the user's PIN, as the security officer");
        token.login(DEMO_SO_PIN, SECURITY_OFFICER);
        check(Smartcard.initUserPINDLL(token.slot, DEMO_PIN, DEMO_PIN.length()), "initUserPINDLL");
        token.logout();

        step("Log in as the user");
        token.login(DEMO_PIN, USER);
        return token;
    }

    private static Token existing(long slot, String pin) throws Failure {
        Token token = new Token(slot >= 0 ? slot : firstToken());
        step("Open a session in slot " + token.slot);
        long code = Smartcard.openSessionDLL(token.slot);
        require(code != -1, "there is no slot " + slot + ": the last is " + (Smartcard.getSlotCountDLL() - 1));
        check(code, "openSessionDLL");
        if (pin == null || pin.isEmpty()) {
            tell("No PIN is given: what the token keeps private stays out of sight.");
        } else {
            boolean hasPinPad = (Smartcard.getTokenInfoDLL(token.slot) & 0x100) != 0;
            step("Log in as the user" + (hasPinPad ? ", at the PIN pad" : ""));
            token.login(hasPinPad ? null : pin, USER); // CKF_PROTECTED_AUTHENTICATION_PATH: it gets no PIN
        }
        return token;
    }

    private static long firstToken() throws Failure {
        for (long slot = 0; slot < Smartcard.getSlotCountDLL(); slot++) {
            if (isInitialised(slot)) {
                return slot;
            }
        }
        throw new Failure("no slot has a token that is ready for use");
    }

    /** Whether the slot has a token that is ready for use. */
    static boolean isInitialised(long slot) {
        long flags = Smartcard.getTokenInfoDLL(slot);
        return flags > 0 && (flags & 0x400) != 0; // CKF_TOKEN_INITIALIZED
    }

    private void login(String pin, long userType) throws Failure {
        check(Smartcard.loginDLL(slot, pin, userType), "loginDLL");
        loggedIn = true;
    }

    private void logout() throws Failure {
        check(Smartcard.logoutDLL(slot), "logoutDLL");
        loggedIn = false;
    }

    /** Logs out, closes all sessions and unloads the module, the last whatever became of the others. */
    @Override
    public void close() throws Failure {
        step("Log out, close the session, unload the module");
        try {
            if (loggedIn) {
                logout();
            }
            long code = Smartcard.closeSessionDLL(slot);
            if (code != 0xE0) { // CKR_TOKEN_NOT_PRESENT: it answers for the last slot of all, which may be empty
                check(code, "closeSessionDLL");
            }
        } finally {
            check(Smartcard.finalizeDLL(), "finalizeDLL");
        }
    }

    // ---- What is on it ----

    /** The X.509 certificates that a slot's session sees; the one value of each is its DER encoding. */
    static List<Entry> certificates(long slot) throws Failure {
        return entries(Smartcard.readAllCertificatesDLL(slot), 3, "readAllCertificatesDLL");
    }

    /** The RSA public keys; the values of each are its modulus and its public exponent. */
    static List<Entry> publicKeys(long slot) throws Failure {
        return entries(Smartcard.readAllRSAPublicKeysDLL(slot), 4, "readAllRSAPublicKeysDLL");
    }

    /** The RSA private keys, which show no value. */
    static List<Entry> privateKeys(long slot) throws Failure {
        return entries(Smartcard.readAllRSAPrivateKeysDLL(slot), 2, "readAllRSAPrivateKeysDLL");
    }

    private static List<Entry> entries(byte[][] listing, int width, String call) throws Failure {
        if (listing[0][0] != 0) {
            throw failure(listing[0], call);
        }
        List<Entry> entries = new ArrayList<>();
        for (int i = 1; i < listing.length; i += width) {
            // A code whose low 8 bits are 0 passes for success: only the missing values show it.
            require(listing[i + width - 1] != null, call + " gave a listing with gaps");
            entries.add(new Entry(listing[i], listing[i + 1], List.of(listing).subList(i + 2, i + width)));
        }
        return entries;
    }

    static RSAPublicKey publicKey(byte[] modulus, byte[] publicExponent) throws GeneralSecurityException {
        return (RSAPublicKey) KeyFactory.getInstance("RSA").generatePublic(
                new RSAPublicKeySpec(new BigInteger(1, modulus), new BigInteger(1, publicExponent)));
    }

    /** The public half of a private key: a public key or a certificate with its ID; null if there is neither. */
    static PublicKey publicKey(byte[] id, List<Entry> publicKeys, List<Entry> certificates)
            throws GeneralSecurityException {
        for (Entry entry : publicKeys) {
            if (Arrays.equals(entry.id(), id)) {
                return publicKey(entry.values().get(0), entry.values().get(1));
            }
        }
        for (Entry entry : certificates) {
            if (Arrays.equals(entry.id(), id)) {
                return certificate(entry.values().get(0)).getPublicKey();
            }
        }
        return null;
    }

    static X509Certificate certificate(byte[] der) throws GeneralSecurityException {
        return (X509Certificate) CertificateFactory.getInstance("X.509")
                .generateCertificate(new ByteArrayInputStream(der));
    }

    // ---- Checking and telling ----

    /** Runs the steps; a failure ends the program in plain words and with status 1. */
    static void run(Steps steps) {
        try {
            steps.run();
        } catch (Failure e) {
            failed(e.getMessage());
        } catch (Exception e) {
            failed(e.toString());
        }
        System.out.println("\n==> Done.");
    }

    private static void failed(String message) {
        System.out.println("\n==> FAILED: " + message);
        System.exit(1);
    }

    /** Goes on only after a success. */
    static void check(long code, String call) throws Failure {
        require(code >= 0, call + ": " + code);
        if (code > 0) {
            throw new Refused(call + ": " + named(code));
        }
    }

    /** Goes on only with data, not with the status that is returned in its place. */
    static byte[] data(byte[] result, String call) throws Failure {
        if (result.length == 1) {
            throw failure(result, call);
        }
        return result;
    }

    /** A status keeps 8 bits of a code, which several codes share: those that have a name are told. */
    private static Refused failure(byte[] status, String call) {
        List<String> names = LongStream.of(0, 0x100, 0x200).map(high -> high + (status[0] & 0xFF))
                .mapToObj(Token::named).filter(name -> name.startsWith("CKR_")).toList();
        return new Refused(String.format("%s: status 0x%02x", call, status[0])
                + (names.isEmpty() ? "" : ", " + String.join(" or ", names)));
    }

    private static String named(long code) {
        String hex = "0x" + Long.toHexString(code);
        String name = SmartcardException.nameOf(code);
        return name.equals(hex) ? hex : name + " (" + hex + ")";
    }

    static void require(boolean condition, String otherwise) throws Failure {
        if (!condition) {
            throw new Failure(otherwise);
        }
    }

    /** Says what comes next. The library's traces follow unindented, and may have left a line open before it. */
    static void step(String text) {
        System.out.println("\n==> " + text);
        System.out.flush();
    }

    /** Says what came of it. */
    static void tell(String text) {
        System.out.println("    " + text);
        System.out.flush();
    }

    static String hex(byte[] bytes) {
        return HexFormat.of().formatHex(bytes);
    }

    static byte[] utf8(String text) {
        return text.getBytes(StandardCharsets.UTF_8);
    }

    /** As text for the terminal: what a token holds may be filled up, and may be anything. */
    static String text(byte[] bytes) {
        return new String(bytes, StandardCharsets.UTF_8).replaceAll("\\p{Cntrl}", "").strip();
    }
}
