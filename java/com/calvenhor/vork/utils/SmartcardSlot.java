package com.calvenhor.vork.utils;

import java.io.IOException;
import java.nio.CharBuffer;
import java.nio.charset.StandardCharsets;
import java.security.InvalidParameterException;
import java.security.UnrecoverableKeyException;
import java.util.Arrays;
import java.util.List;
import java.util.function.LongFunction;
import java.util.HashMap;
import java.util.Map;
import java.util.stream.Collectors;
import java.util.stream.IntStream;
import java.util.stream.LongStream;

/**
 * A slot and its session, and the only caller of the natives. Steps that belong together hold the natives' lock.
 *
 * @param module the module to bind; null for the one that the application has bound
 * @param index the slot index; {@link #ONLY} for the only slot that has a token
 */
record SmartcardSlot(String module, long index) {
    private static final long ONLY = -1;
    private static final long NO_SLOT = -1;
    private static final long TOKEN_PRESENT = 1;
    private static final long TOKEN_INITIALIZED = 0x400;
    private static final long PIN_PAD = 0x100; // CKF_PROTECTED_AUTHENTICATION_PATH
    private static final long PIN_COUNT_LOW = 0x10000;
    private static final long PIN_FINAL_TRY = 0x20000;
    private static final long PIN_LOCKED = 0x40000;
    private static final long HOST_MEMORY = 0x02;
    private static final long DEVICE_REMOVED = 0x32;
    private static final long OBJECT_HANDLE_INVALID = 0x82;
    private static final long OPERATION_NOT_INITIALIZED = 0x91;
    private static final long PIN_INVALID = 0xA1;
    private static final long SESSION_HANDLE_INVALID = 0xB3;
    private static final long TOKEN_NOT_PRESENT = 0xE0;
    private static final long TOKEN_NOT_RECOGNIZED = 0xE1;
    private static final long USER_NOT_LOGGED_IN = 0x101;
    private static final long CRYPTOKI_NOT_INITIALIZED = 0x190;
    private static final long CRYPTOKI_ALREADY_INITIALIZED = 0x191;
    private static final long FUNCTION_REJECTED = 0x200;

    // Many modules, such as SoftHSM2, find a token that came since only once they are bound again.
    private static final String INSERT = "; insert the card; if it is in, call Smartcard.finalizeDLL and load again";

    /** By slot index, the slot ID that a new session reported: certainly that slot's, as long as the binding lasts. */
    private static final Map<Long, Integer> SLOT_IDS = new HashMap<>();

    /** The slot that MODULE, MODULE#SLOT or SLOT names. */
    static SmartcardSlot named(String argument) {
        int hash = argument.lastIndexOf('#');
        String last = argument.substring(hash + 1);
        boolean isSlot = last.matches("\\d{1,9}");
        if (argument.isEmpty() || hash == 0 || hash > 0 && !isSlot) {
            throw new InvalidParameterException("MODULE, MODULE#SLOT or SLOT is expected, with the path of a PKCS#11 "
                    + "module and a slot index from 0, not " + argument);
        }
        return new SmartcardSlot(isSlot ? hash < 0 ? null : argument.substring(0, hash) : argument,
                isSlot ? Long.parseLong(last) : ONLY);
    }

    /**
     * Binds the module, opens a session and logs in, as far as each is not done yet.
     *
     * @param pin null or empty for none: then the token asks for it, if it has a PIN pad
     * @return the slot, with its index
     */
    SmartcardSlot open(char[] pin) throws IOException {
        synchronized (Smartcard.class) {
            bind();
            SmartcardSlot slot = index == ONLY ? new SmartcardSlot(module, onlyToken()) : this;
            slot.openSession(pin);
            slot.requireToken();
            slot.logIn(pin);
            return slot;
        }
    }

    private void bind() throws IOException {
        boolean isBound = Smartcard.getSessionInfoDLL(NO_SLOT)[0] != CRYPTOKI_NOT_INITIALIZED;
        if (module == null) {
            require(isBound, "no module is bound: call Smartcard.initDLL, or configure MODULE#SLOT");
            return;
        }
        long code = Smartcard.initDLL(module);
        require(code != -1, module + " cannot be loaded; if the file exists, `ldd " + module
                + "` shows which library is missing");
        require(code != -2, module + " is not a PKCS#11 module: it has no C_GetFunctionList");
        require(code != -3, module + " has no slot: connect the reader");
        if (!isBound) {
            check(code, "initDLL of " + module,
                    code == CRYPTOKI_ALREADY_INITIALIZED ? "; something else in the process uses the module" : "");
            SLOT_IDS.clear();
            return;
        }
        // Whichever module is bound, the answer is 0x191. But only the bound one is called: where it is another, the
        // last code is still that of the question above.
        require((Smartcard.readSlotDescriptionDLL(NO_SLOT)[0] & 0xFF) != SESSION_HANDLE_INVALID, "not " + module
                + " is bound but another module: call Smartcard.finalizeDLL first, or configure SLOT alone to use it");
    }

    private long onlyToken() throws IOException {
        // A token that cannot be asked may be the one that is meant.
        long[] tokens = LongStream.range(0, Smartcard.getSlotCountDLL()).filter(slot -> {
            boolean isPresent = (Smartcard.getSlotInfoDLL(slot) & TOKEN_PRESENT) != 0; // first, as in openSession
            long flags = Smartcard.getTokenInfoDLL(slot);
            return (flags & TOKEN_INITIALIZED) != 0 || flags == 0 && isPresent;
        }).toArray();
        if (tokens.length == 0) {
            throw new SmartcardException("no token in the slots of " + module, TOKEN_NOT_PRESENT, INSERT);
        }
        if (tokens.length > 1) {
            throw new IOException("several tokens, configure " + module + "#SLOT: " + Arrays.stream(tokens)
                    .mapToObj(slot -> slot + " \"" + text(Smartcard.readCardLabelDLL(slot)) + '"')
                    .collect(Collectors.joining(", ")));
        }
        return tokens[0];
    }

    private void openSession(char[] pin) throws IOException {
        Smartcard.getSlotInfoDLL(index); // only then OpenSC notices that a card was removed, and its session closed
        if (Smartcard.isSessionOpenDLL(index) == 0 && !mayBelongToAnotherSlot(needsLogin(pin))) {
            return;
        }
        long code = Smartcard.openSessionDLL(index);
        require(code != -1, "there is no slot " + index + ": the last is " + (Smartcard.getSlotCountDLL() - 1)
                + "; a slot that is newer than the binding appears after Smartcard.finalizeDLL");
        boolean hasNoToken = code == TOKEN_NOT_PRESENT || code == TOKEN_NOT_RECOGNIZED || code == DEVICE_REMOVED;
        check(code, "openSessionDLL in slot " + index, hasNoToken ? INSERT : "");
        SLOT_IDS.put(index, Smartcard.getSessionInfoDLL(index)[2]);
    }

    /**
     * Whether the session may be another slot's: a module may give a handle that is free again to any slot, while it
     * still stands here. Two slots then report the same slot ID. A known ID that matches settles it where no PIN is at
     * stake, since each new session stays open in the module; for a PIN it does not: if the application has bound the
     * module again, the ID may be an earlier slot's.
     */
    private boolean mayBelongToAnotherSlot(boolean isPinAtStake) {
        int slotId = Smartcard.getSessionInfoDLL(index)[2];
        Integer known = SLOT_IDS.get(index);
        if (known != null && known != slotId) {
            return true;
        }
        return (known == null || isPinAtStake) && LongStream.range(0, Smartcard.getSlotCountDLL())
                .anyMatch(other -> other != index && Smartcard.isSessionOpenDLL(other) == 0
                        && Smartcard.getSessionInfoDLL(other)[2] == slotId);
    }

    /** SoftHSM2 opens sessions of a token that is gone, logs in and lists nothing; the serial number cannot be read. */
    private void requireToken() throws IOException {
        byte[] status = Smartcard.readCardSerialNumberDLL(index);
        if (status == null || status.length == 1) {
            throw new SmartcardException("the token in slot " + index + " does not answer", codeOf(status,
                    FUNCTION_REJECTED), INSERT);
        }
    }

    private boolean needsLogin(char[] pin) {
        return !isUser(Smartcard.getSessionInfoDLL(index)) && (isGiven(pin)
                || (Smartcard.getTokenInfoDLL(index) & PIN_PAD) != 0);
    }

    private static boolean isGiven(char[] pin) {
        return pin != null && pin.length > 0;
    }

    private void logIn(char[] pin) throws IOException {
        if (!needsLogin(pin)) {
            return;
        }
        // Strings reach the module in modified UTF-8, which differs from UTF-8 in these: a wrong PIN, and counted.
        boolean isAltered = isGiven(pin)
                && CharBuffer.wrap(pin).chars().anyMatch(c -> c == 0 || Character.isSurrogate((char) c));
        long code = isAltered ? PIN_INVALID
                : Smartcard.loginDLL(index, isGiven(pin) ? new String(pin) : null, 1); // as user
        if (code != 0) {
            boolean isWrong = 0xA0 <= code && code <= 0xA2; // CKR_PIN_INCORRECT, CKR_PIN_INVALID, CKR_PIN_LEN_RANGE
            IOException failure = new SmartcardException("loginDLL in slot " + index, code, isAltered
                    ? "; a NUL or a character above U+FFFF cannot be sent, and the token was not asked"
                    : isWrong ? triesLeft() : "");
            throw isWrong ? (IOException) failure.initCause(new UnrecoverableKeyException("wrong PIN")) : failure;
        }
    }

    private String triesLeft() {
        long flags = Smartcard.getTokenInfoDLL(index);
        return (flags & PIN_LOCKED) != 0 ? "; the PIN is locked"
                : (flags & PIN_FINAL_TRY) != 0 ? "; one try is left"
                : (flags & PIN_COUNT_LOW) != 0 ? "; more than one try is left" : "";
    }

    /** The X.509 certificates that the session sees, each with its ID, its label and its DER encoding. */
    List<byte[][]> certificates() throws IOException {
        return rows("readAllCertificatesDLL", Smartcard::readAllCertificatesDLL, 3);
    }

    /** The RSA private keys that the session sees, each with its ID and its label. */
    List<byte[][]> privateKeys() throws IOException {
        return rows("readAllRSAPrivateKeysDLL", Smartcard::readAllRSAPrivateKeysDLL, 2);
    }

    private List<byte[][]> rows(String call, LongFunction<byte[][]> list, int width) throws IOException {
        synchronized (Smartcard.class) {
            byte[][] listing = list.apply(index);
            // A code whose low 8 bits are 0 passes for success: only the missing values show it.
            if (listing == null || listing[0][0] != 0 || Arrays.asList(listing).contains(null)) {
                throw failure(call, listing == null ? null : listing[0], FUNCTION_REJECTED);
            }
            return IntStream.range(0, listing.length / width)
                    .mapToObj(k -> Arrays.copyOfRange(listing, 1 + k * width, 1 + (k + 1) * width)).toList();
        }
    }

    /** Signs with the first private key that has the ID, by CKM_RSA_PKCS. */
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
     * The failure of a call whose status keeps 8 bits: the session is asked before the status is believed.
     *
     * @param zero what a status of 0 stands for
     */
    private SmartcardException failure(String call, byte[] status, long zero) {
        long code = Smartcard.isSessionOpenDLL(index);
        int[] session = Smartcard.getSessionInfoDLL(index);
        String insert = "; insert the card and load the KeyStore again";
        String advice = insert;
        if (code == -1) { // no module, or one bound since, which has no session here
            code = Integer.toUnsignedLong(session[0]);
            advice = (code == CRYPTOKI_NOT_INITIALIZED ? "; no module is bound" : "; the module was bound again")
                    + ": load the KeyStore again";
        } else if (code == 0) {
            code = codeOf(status, zero);
            advice = code == TOKEN_NOT_PRESENT || code == DEVICE_REMOVED ? insert
                    : code == OPERATION_NOT_INITIALIZED ? "; C_SignInit refused the key: the key may not sign" : "";
            if (code == 1 || code == OBJECT_HANDLE_INVALID && !isUser(session)) {
                code = USER_NOT_LOGGED_IN;
                advice = isUser(session) ? "; a key that wants a PIN each time cannot be used"
                        : "; load the KeyStore with the PIN";
            }
        }
        return new SmartcardException(call + " in slot " + index, code, advice);
    }

    /** @param zero what a status of 0 stands for */
    private static long codeOf(byte[] status, long zero) {
        return status == null ? HOST_MEMORY : status[0] == 0 ? zero : status[0] & 0xFF;
    }

    /** Whether the state is CKS_RO_USER_FUNCTIONS or CKS_RW_USER_FUNCTIONS. */
    private static boolean isUser(int[] session) {
        return session[1] != -1 && (session[0] == 1 || session[0] == 3);
    }

    /** As a label is meant: what a token holds may be filled up, and may steer a terminal or turn its text around. */
    static String text(byte[] bytes) {
        return new String(bytes, StandardCharsets.UTF_8)
                .replaceAll("[\\p{Cntrl}\\x80-\\x9F\\u061C\\u200E\\u200F\\u202A-\\u202E\\u2066-\\u2069]", "").strip();
    }

    private static void check(long code, String step, String advice) throws IOException {
        if (code != 0) {
            throw new SmartcardException(step, code, advice);
        }
    }

    private static void require(boolean condition, String otherwise) throws IOException {
        if (!condition) {
            throw new IOException(otherwise);
        }
    }
}
