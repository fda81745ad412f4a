package com.calvenhor.vork.utils.tool;

import com.calvenhor.vork.utils.Smartcard;
import com.calvenhor.vork.utils.SmartcardException;
import java.io.ByteArrayInputStream;
import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.KeyFactory;
import java.security.PublicKey;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAPublicKey;
import java.security.spec.RSAPublicKeySpec;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HexFormat;
import java.util.List;
import java.util.stream.LongStream;

/** The token in a slot, with an open session. Also checks the results of native methods. */
final class Token {
    /** A step failed; the message is for the user. */
    static class Failure extends Exception {
        private static final long serialVersionUID = 1;

        Failure(String message) {
            super(message);
        }
    }

    /** The module refused a call with a code. */
    static final class Refused extends Failure {
        private static final long serialVersionUID = 1;

        Refused(String message) {
            super(message);
        }
    }

    /** An object on the token: ID, label, and the other values in the listing of its class. */
    record Entry(byte[] id, byte[] label, List<byte[]> values) {
        @Override
        public String toString() {
            return '"' + text(label) + "\", ID " + hex(id);
        }
    }

    /** Appended to a token's name if one try of the PIN is left. */
    static final String FINAL_TRY = " (final try)";

    private static final long LOGIN_REQUIRED = 4;
    private static final long PIN_PAD = 0x100;
    private static final long INITIALIZED = 0x400;
    private static final long PIN_FINAL_TRY = 0x20000;
    private static final long PIN_LOCKED = 0x40000;
    private static final long USER_ALREADY_LOGGED_IN = 0x100;

    final long slot;
    boolean isLoggedIn;

    private Token(long slot) {
        this.slot = slot;
    }

    // ---- Module and session ----

    /** Binds the module. Checks that the slot exists, if the options name one. */
    static void bind(Options options) throws Failure {
        String module = options.module();
        Worker.beginStep("load and initialise the module");
        long code = Smartcard.initDLL(module);
        if (code == -1) {
            throw new Failure(module + " cannot be loaded: " + explainLoadFailure(module));
        }
        require(code != -2, module + " is not a PKCS#11 module: it has no C_GetFunctionList");
        require(code != -3, module + " has no slot: connect the reader");
        check(code, "initDLL of " + module);
        long last = Smartcard.getSlotCountDLL() - 1;
        require(options.slot() <= last, "slot " + options.slot() + " does not exist: the last slot is " + last);
    }

    private static String explainLoadFailure(String module) {
        String path = Path.of(module).toAbsolutePath().toString();
        try {
            System.load(path);
            return "pass the absolute path, " + path; // a name without a slash is searched in the system's folders
        } catch (UnsatisfiedLinkError e) {
            return e.getMessage();
        }
    }

    /** {@return whether the slot has an initialised token} */
    static boolean isInitialised(long slot) {
        long flags = Smartcard.getTokenInfoDLL(slot);
        return flags > 0 && (flags & INITIALIZED) != 0;
    }

    static Token open(long slot) throws Failure {
        Worker.beginStep("open a session in slot " + slot);
        check(Smartcard.openSessionDLL(slot), "openSessionDLL in slot " + slot);
        return new Token(slot);
    }

    /** {@return a line for the report: logged in, or why not} */
    String logIn(Options options) throws Failure {
        long flags = Smartcard.getTokenInfoDLL(slot); // 0 if the query fails
        require(flags != 0, "the flags of the token in slot " + slot + " cannot be read");
        if ((flags & LOGIN_REQUIRED) == 0) {
            return "no login needed";
        }
        if (options.has("--no-pin")) {
            return "not logged in, only public objects are shown: --no-pin";
        }
        if ((flags & PIN_LOCKED) != 0) {
            throw new Refused("the user PIN in slot " + slot + " is locked; unlock it, or use --no-pin");
        }
        String name = "the token \"" + text(Smartcard.readCardLabelDLL(slot)) + "\", serial number "
                + text(Smartcard.readCardSerialNumberDLL(slot))
                + ((flags & PIN_FINAL_TRY) != 0 ? FINAL_TRY : "");
        String pin = null;
        if ((flags & PIN_PAD) != 0) {
            Message.send(Message.Kind.PIN_PAD, name);
        } else {
            String reply = Worker.askPin(name);
            if (reply.startsWith("-")) {
                return "not logged in, only public objects are shown: " + reply.substring(1);
            }
            pin = reply.substring(1);
        }
        Worker.beginStep("log in as the user in slot " + slot);
        long code = Smartcard.loginDLL(slot, pin, 1);
        if (code != 0 && code != USER_ALREADY_LOGGED_IN) {
            if (pin != null) {
                Message.send(Message.Kind.PIN_REFUSED, "");
            }
            throw new Refused("loginDLL in slot " + slot + ": " + describe(code) + "; the PIN is not sent again");
        }
        isLoggedIn = true;
        return "logged in as the user";
    }

    void logOut() throws Failure {
        if (isLoggedIn) {
            check(Smartcard.logoutDLL(slot), "logoutDLL");
        }
    }

    // ---- Listings ----

    /** {@return the visible X.509 certificates; the value of each is its DER encoding} */
    static List<Entry> certificates(long slot) throws Failure {
        return entries(Smartcard.readAllCertificatesDLL(slot), 3, "readAllCertificatesDLL");
    }

    /** {@return the visible RSA public keys; the values of each are modulus and public exponent} */
    static List<Entry> publicKeys(long slot) throws Failure {
        return entries(Smartcard.readAllRSAPublicKeysDLL(slot), 4, "readAllRSAPublicKeysDLL");
    }

    /** {@return the visible RSA private keys, without values} */
    static List<Entry> privateKeys(long slot) throws Failure {
        return entries(Smartcard.readAllRSAPrivateKeysDLL(slot), 2, "readAllRSAPrivateKeysDLL");
    }

    private static List<Entry> entries(byte[][] listing, int width, String call) throws Failure {
        if (listing[0][0] != 0) {
            throw refusal(listing[0], call);
        }
        List<Entry> entries = new ArrayList<>();
        for (int i = 1; i < listing.length; i += width) {
            // A null in a listing is a failure, also with a status of 0: see Smartcard.
            require(listing[i + width - 1] != null, call + " returned a listing with missing values");
            entries.add(new Entry(listing[i], listing[i + 1], List.of(listing).subList(i + 2, i + width)));
        }
        Message.send(Message.Kind.ALIVE, "");
        return entries;
    }

    /** {@return the first entry with an ID, or null} */
    static Entry find(byte[] id, List<Entry> entries) {
        return entries.stream().filter(entry -> Arrays.equals(entry.id(), id)).findFirst().orElse(null);
    }

    /** {@return the public key for a private key's ID, from a public key object or else a certificate; or null} */
    static PublicKey publicKey(byte[] id, List<Entry> publicKeys, List<Entry> certificates)
            throws GeneralSecurityException {
        Entry publicKey = find(id, publicKeys);
        Entry certificate = find(id, certificates);
        return publicKey != null ? publicKey(publicKey)
                : certificate != null ? certificate(certificate).getPublicKey() : null;
    }

    static RSAPublicKey publicKey(Entry entry) throws GeneralSecurityException {
        return (RSAPublicKey) KeyFactory.getInstance("RSA").generatePublic(new RSAPublicKeySpec(
                new BigInteger(1, entry.values().get(0)), new BigInteger(1, entry.values().get(1))));
    }

    static X509Certificate certificate(Entry entry) throws GeneralSecurityException {
        return (X509Certificate) CertificateFactory.getInstance("X.509")
                .generateCertificate(new ByteArrayInputStream(entry.values().get(0)));
    }

    // ---- Results ----

    /** Throws unless the code is 0. */
    static void check(long code, String call) throws Failure {
        require(code >= 0, call + " returned " + code);
        if (code > 0) {
            throw new Refused(call + ": " + describe(code));
        }
        Message.send(Message.Kind.ALIVE, "");
    }

    /** {@return the result, unless it is a status} */
    static byte[] data(byte[] result, String call) throws Refused {
        if (result.length == 1) {
            throw refusal(result, call);
        }
        Message.send(Message.Kind.ALIVE, "");
        return result;
    }

    /** A status has only the low 8 bits of a code: the message names all codes that end in them. */
    static Refused refusal(byte[] status, String call) {
        List<String> names = LongStream.of(0, 0x100, 0x200).map(high -> high + (status[0] & 0xFF))
                .mapToObj(Token::describe).filter(name -> name.startsWith("CKR_")).toList();
        return new Refused(String.format("%s: status 0x%02x", call, status[0])
                + (names.isEmpty() ? "" : ", " + String.join(" or ", names)));
    }

    private static String describe(long code) {
        String hex = "0x" + Long.toHexString(code);
        String name = SmartcardException.nameOf(code);
        return name.equals(hex) ? hex : name + " (" + hex + ")";
    }

    static void require(boolean condition, String message) throws Failure {
        if (!condition) {
            throw new Failure(message);
        }
    }

    static String hex(byte[] bytes) {
        return HexFormat.of().formatHex(bytes);
    }

    /** {@return bytes of the token as text for a terminal, without padding and control characters} */
    static String text(byte[] bytes) {
        return new String(bytes, StandardCharsets.UTF_8).replaceAll("\\p{Cc}", "").strip();
    }
}
