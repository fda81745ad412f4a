package com.calvenhor.vork.utils;

import static com.calvenhor.vork.utils.SmartcardException.*;

import java.io.IOException;
import java.math.BigInteger;
import java.nio.ByteBuffer;
import java.nio.CharBuffer;
import java.nio.charset.StandardCharsets;
import java.security.UnrecoverableKeyException;
import java.security.interfaces.RSAPublicKey;
import java.util.Arrays;
import java.util.List;
import java.util.function.LongFunction;
import java.util.stream.IntStream;
import java.util.stream.LongStream;

/**
 * A slot of the bound module, with its session. Callers hold the lock on {@link Smartcard} during steps that belong
 * together.
 */
record SmartcardSlot(long index) {
    private static final long TOKEN_PRESENT = 1;
    private static final long LOGIN_REQUIRED = 4;
    private static final long TOKEN_INITIALIZED = 0x400;
    private static final long PIN_PAD = 0x100; // CKF_PROTECTED_AUTHENTICATION_PATH
    private static final long PIN_COUNT_LOW = 0x10000;
    private static final long PIN_FINAL_TRY = 0x20000;
    private static final long PIN_LOCKED = 0x40000;

    /** An RSA public key object. */
    record PublicKey(ByteBuffer label, BigInteger modulus, BigInteger exponent) {
        boolean isSameKeyAs(RSAPublicKey key) {
            return modulus.equals(key.getModulus()) && exponent.equals(key.getPublicExponent());
        }
    }

    /** Opens a session and logs in, if necessary. */
    void open(char[] pin) throws IOException {
        openSession();
        requireToken(); // nothing below would notice a removed token
        logIn(pin);
    }

    /** Opens a session unless this slot has one of its own. */
    void openSession() throws IOException {
        Smartcard.getSlotInfoDLL(index); // OpenSC notices a removed card, and ends its sessions, only in this call
        if (Smartcard.isSessionOpenDLL(index) == 0 && !mayBelongToAnotherSlot()) {
            return;
        }
        long code = Smartcard.openSessionDLL(index);
        require(code != -1, "there is no slot " + index + ": the last slot is " + (Smartcard.getSlotCountDLL() - 1)
                + "; if a slot was added later, call Smartcard.finalizeDLL and load again");
        check(code, "openSessionDLL in slot " + index, hasNoToken(code) ? INSERT_OR_REBIND : "");
    }

    /**
     * {@return whether the session recorded for this slot may belong to another slot} A module may reuse the handle of
     * a closed session for a session of another slot. Two slots with the same handle report the same slot ID. This
     * method opens a new session in each other slot that does so; the caller opens one in this slot. A slot without a
     * token cannot own the session.
     */
    private boolean mayBelongToAnotherSlot() {
        int slotId = Smartcard.getSessionInfoDLL(index)[2];
        return LongStream.range(0, Smartcard.getSlotCountDLL()).filter(other -> other != index
                && Smartcard.isSessionOpenDLL(other) == 0 && Smartcard.getSessionInfoDLL(other)[2] == slotId
                && !hasNoToken(Smartcard.openSessionDLL(other))).count() > 0;
    }

    private static boolean hasNoToken(long code) {
        return code == TOKEN_NOT_PRESENT || code == TOKEN_NOT_RECOGNIZED || code == DEVICE_REMOVED;
    }

    /**
     * Throws unless the token returns its serial number. Some modules, such as SoftHSM2, keep the session of a removed
     * token and list nothing, but fail to return the serial number.
     */
    void requireToken() throws IOException {
        byte[] number = Smartcard.readCardSerialNumberDLL(index);
        if (number == null || number.length == 1) {
            throw new SmartcardException("the token in slot " + index + " does not answer",
                    codeOf(number, FUNCTION_REJECTED), INSERT_OR_REBIND);
        }
    }

    /** {@return whether the slot has an initialised token, or one whose flags cannot be read} */
    boolean mayHaveToken() {
        boolean isPresent = (Smartcard.getSlotInfoDLL(index) & TOKEN_PRESENT) != 0; // called first, as in openSession
        long flags = Smartcard.getTokenInfoDLL(index);
        return (flags & TOKEN_INITIALIZED) != 0 || flags == 0 && isPresent;
    }

    /** {@return whether the token has this label and serial number; null matches any} */
    boolean matches(String label, String serialNumber) {
        return (label == null || label.equals(text(Smartcard.readCardLabelDLL(index))))
                && (serialNumber == null || serialNumber.equals(text(Smartcard.readCardSerialNumberDLL(index))));
    }

    /** {@return the slot index, and the token's label and serial number} */
    String description() {
        return index + " \"" + text(Smartcard.readCardLabelDLL(index)) + "\", serial number "
                + text(Smartcard.readCardSerialNumberDLL(index));
    }

    /** {@return whether the user is not logged in, and there is a PIN or a PIN pad} */
    private boolean mayLogIn(char[] pin) {
        return !isUser(Smartcard.getSessionInfoDLL(index)) && (isGiven(pin)
                || (Smartcard.getTokenInfoDLL(index) & PIN_PAD) != 0);
    }

    /** {@return whether a login is needed and the token has no PIN pad} */
    boolean needsPin() throws IOException {
        openSession();
        return (Smartcard.getTokenInfoDLL(index) & (LOGIN_REQUIRED | PIN_PAD)) == LOGIN_REQUIRED
                && !isUser(Smartcard.getSessionInfoDLL(index));
    }

    /** Throws if the token requires a login and the user is not logged in: listings would lack private objects. */
    void requireLogin() throws IOException {
        long flags = Smartcard.getTokenInfoDLL(index);
        require(flags > 0, "the flags of the token in slot " + index + " cannot be read" + INSERT_OR_REBIND);
        if ((flags & LOGIN_REQUIRED) != 0 && !isUser(Smartcard.getSessionInfoDLL(index))) {
            throw new SmartcardException("the token in slot " + index + " requires a login", USER_NOT_LOGGED_IN,
                    "; load the KeyStore with the PIN, or set a callback handler");
        }
    }

    /** Succeeds if the user is not logged in, or no session was opened. */
    void logOut() throws IOException {
        long code = Smartcard.logoutDLL(index);
        check(code == -1 || code == USER_NOT_LOGGED_IN ? 0 : code, "logoutDLL in slot " + index, "");
    }

    private static boolean isGiven(char[] pin) {
        return pin != null && pin.length > 0;
    }

    private void logIn(char[] pin) throws IOException {
        if (!mayLogIn(pin)) {
            return;
        }
        // In modified UTF-8 these characters differ from UTF-8: the token would count a wrong PIN.
        boolean isAltered = isGiven(pin)
                && CharBuffer.wrap(pin).chars().anyMatch(c -> c == 0 || Character.isSurrogate((char) c));
        long code = isAltered ? PIN_INVALID
                : Smartcard.loginDLL(index, isGiven(pin) ? new String(pin) : null, 1); // user
        if (code != 0) {
            boolean isWrong = 0xA0 <= code && code <= 0xA2; // CKR_PIN_INCORRECT, CKR_PIN_INVALID, CKR_PIN_LEN_RANGE
            IOException failure = new SmartcardException("loginDLL in slot " + index, code, isAltered
                    ? "; the PIN was not sent, because it has a NUL or a character above U+FFFF"
                    : isWrong ? describeTries() : "");
            throw isWrong ? (IOException) failure.initCause(new UnrecoverableKeyException("wrong PIN")) : failure;
        }
    }

    private String describeTries() {
        long flags = Smartcard.getTokenInfoDLL(index);
        return (flags & PIN_LOCKED) != 0 ? "; the PIN is locked, and the security officer must set a new one"
                : (flags & PIN_FINAL_TRY) != 0 ? "; one try is left before the PIN is locked"
                : (flags & PIN_COUNT_LOW) != 0 ? "; the token counts wrong PINs, and then locks the PIN" : "";
    }

    /** {@return the ID, label and DER encoding of each X.509 certificate} */
    List<byte[][]> certificates() throws IOException {
        return rows("readAllCertificatesDLL", Smartcard::readAllCertificatesDLL, 3);
    }

    /** {@return the ID and label of each RSA private key} */
    List<byte[][]> privateKeys() throws IOException {
        return rows("readAllRSAPrivateKeysDLL", Smartcard::readAllRSAPrivateKeysDLL, 2);
    }

    private List<byte[][]> rows(String call, LongFunction<byte[][]> list, int width) throws IOException {
        synchronized (Smartcard.class) {
            byte[][] listing = list.apply(index);
            // A null in a listing is a failure, also with a status of 0: see Smartcard.
            if (listing == null || listing[0][0] != 0 || Arrays.asList(listing).contains(null)) {
                throw failure(call, listing == null ? null : listing[0], FUNCTION_REJECTED);
            }
            return IntStream.range(0, listing.length / width)
                    .mapToObj(k -> Arrays.copyOfRange(listing, 1 + k * width, 1 + (k + 1) * width)).toList();
        }
    }

    /** {@return the RSA public keys that have the ID} */
    List<PublicKey> publicKeys(byte[] id) throws IOException {
        return rows("readAllRSAPublicKeysDLL", Smartcard::readAllRSAPublicKeysDLL, 4).stream()
                .filter(row -> Arrays.equals(row[0], id))
                .map(row -> new PublicKey(ByteBuffer.wrap(row[1]), new BigInteger(1, row[2]),
                        new BigInteger(1, row[3]))).toList();
    }

    /** {@return whether all RSA keys that have the ID have this label} */
    boolean allKeysHaveLabel(byte[] id, byte[] label) throws IOException {
        return privateKeys().stream().allMatch(row -> !Arrays.equals(row[0], id) || Arrays.equals(row[1], label))
                && publicKeys(id).stream().allMatch(key -> key.label().equals(ByteBuffer.wrap(label)));
    }

    /** {@return whether a private key of any type has the ID} Without one, signing returns a status of 0. */
    boolean hasPrivateKey(byte[] id) {
        byte[] signature = Smartcard.signWithIDDLL(index, new byte[1], id);
        return signature == null || signature.length != 1 || signature[0] != 0;
    }

    /** Signs with the first private key that has the ID, and CKM_RSA_PKCS. */
    byte[] sign(byte[] digestInfo, byte[] id) throws IOException {
        synchronized (Smartcard.class) {
            byte[] signature = Smartcard.signWithIDDLL(index, digestInfo, id);
            if (signature == null || signature.length == 1) {
                throw failure("signWithIDDLL", signature, OBJECT_HANDLE_INVALID);
            }
            return signature;
        }
    }

    /**
     * {@return the failure of a call that returned a status} Queries the session first, because isSessionOpenDLL
     * returns all bits of a code.
     *
     * @param codeOfZero the code that a status of 0 means
     */
    SmartcardException failure(String call, byte[] status, long codeOfZero) {
        long code = Smartcard.isSessionOpenDLL(index);
        int[] session = Smartcard.getSessionInfoDLL(index);
        String insertAndLoad = "; insert the card if it was removed, and load the KeyStore again";
        String advice = insertAndLoad;
        if (code == -1) { // no module, or one that was bound later and has no session here
            code = Integer.toUnsignedLong(session[0]);
            advice = (code == CRYPTOKI_NOT_INITIALIZED ? "; no module is bound" : "; the module was rebound")
                    + ": load the KeyStore again";
        } else if (code == 0) {
            code = codeOf(status, codeOfZero);
            advice = code == TOKEN_NOT_PRESENT || code == DEVICE_REMOVED ? insertAndLoad
                    : code == OPERATION_NOT_INITIALIZED
                    ? "; the module did not start the operation; for a signature, check that the key permits signing"
                    : "";
            if (code == 1 || code == OBJECT_HANDLE_INVALID && !isUser(session)) {
                code = USER_NOT_LOGGED_IN;
                advice = isUser(session) ? "; the token refused although the user is logged in;"
                        + " a key that needs the PIN for each signature is not supported"
                        : "; load the KeyStore with the PIN";
            }
        }
        return new SmartcardException(call + " in slot " + index, code, advice);
    }

    private static long codeOf(byte[] status, long codeOfZero) {
        return status == null ? HOST_MEMORY : status[0] == 0 ? codeOfZero : status[0] & 0xFF;
    }

    private static boolean isUser(int[] session) {
        // CKS_RO_USER_FUNCTIONS, CKS_RW_USER_FUNCTIONS
        return session[1] != -1 && (session[0] == 1 || session[0] == 3);
    }

    /** {@return the text without padding and without characters that control a terminal or the text direction} */
    static String text(byte[] bytes) {
        return new String(bytes, StandardCharsets.UTF_8)
                .replaceAll("[\\p{Cntrl}\\x80-\\x9F\\u061C\\u200E\\u200F\\u202A-\\u202E\\u2066-\\u2069]", "").strip();
    }

    private static void require(boolean condition, String message) throws IOException {
        if (!condition) {
            throw new IOException(message);
        }
    }
}
