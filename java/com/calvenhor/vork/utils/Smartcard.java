package com.calvenhor.vork.utils;

/**
 * Smart cards and USB tokens, through the PKCS#11 module of the card's vendor. For {@code java.security}, and so for
 * {@code keytool}, {@code jarsigner} and libraries that sign PDF or XML, see {@link SmartcardProvider}.
 *
 * <h2>Order of use</h2>
 * {@link #initDLL initDLL} loads the vendor's module and reads its slots, once. From then on a slot is named by its
 * <em>slot index</em>, its position in that list: 0 up to {@link #getSlotCountDLL getSlotCountDLL} - 1.
 * <ol>
 * <li>Slot, token and mechanism queries, and {@link #initTokenDLL initTokenDLL}, need only a slot.
 * <li>Everything else works in the slot's session: {@link #openSessionDLL openSessionDLL} first. Each slot has one,
 *     and it is read/write.
 * <li>Private objects, as the private keys written or generated here are, can be seen, used and made only after
 *     {@link #loginDLL loginDLL} as user. Most tokens want the login for every change.
 * <li>At the end {@link #logoutDLL logoutDLL}, {@link #closeSessionDLL closeSessionDLL} and
 *     {@link #finalizeDLL finalizeDLL}.
 * </ol>
 * <pre>{@code
 * if (Smartcard.initDLL("/usr/lib/vendor/pkcs11.so") != 0) ...
 * if (Smartcard.openSessionDLL(0) != 0) ...
 * if (Smartcard.loginDLL(0, pin, 1) != 0) ...
 * byte[] signature = Smartcard.signWithIDDLL(0, digestInfo, keyId);
 * if (signature.length == 1) ... // not a signature but a status: see Results
 * Smartcard.logoutDLL(0);
 * Smartcard.closeSessionDLL(0);
 * Smartcard.finalizeDLL();
 * }</pre>
 *
 * <h2>Threads</h2>
 * Any thread may call, also a virtual one. All methods are synchronized on this class, so calls wait for each other,
 * whatever the slot: the module is initialised for one call at a time. A PIN pad that waits for its user, or
 * {@link #waitForSlotEventDLL waitForSlotEventDLL}, makes every other call wait. To notice cards, call {@link
 * #getSlotInfoDLL getSlotInfoDLL} and {@link #readCardSerialNumberDLL readCardSerialNumberDLL} from time to time.
 * <p>Another thread may run between two calls: it may delete what a listing has found, and a login or a logout applies
 * to all threads. Hold the lock over steps that belong together:
 * <pre>{@code
 * synchronized (Smartcard.class) {
 *     if (Smartcard.loginDLL(0, pin, 1) == 0) {
 *         signature = Smartcard.signWithIDDLL(0, digestInfo, keyId);
 *         Smartcard.logoutDLL(0);
 *     }
 * }
 * }</pre>
 *
 * <h2>Results</h2>
 * Nothing is thrown but an {@link OutOfMemoryError} of the virtual machine; where one would be due, a virtual machine
 * that finds no memory to lend out an array or a string may also throw nothing, and an array result is {@code null}.
 * Any other failure comes back in one of these forms:
 * <dl>
 * <dt>A number
 * <dd>0 is success (CKR_OK), a positive number the PKCS#11 code (CK_RV) of the call that failed, and a negative one
 *     comes from this library. -1: the slot index is out of range, or the slot never had a session (a method that needs
 *     one); {@link #initDLL initDLL} has meanings of its own for -1, -2 and -3. A session that is closed is known only
 *     to the module, which answers CKR_SESSION_HANDLE_INVALID (0xB3).
 * <dt>A <em>status byte array</em>, in place of a {@code byte[]}
 * <dd>One element, the low 8 bits of a code: {@code status[0] & 0xFF}. CKR_PIN_INCORRECT (0xA0) reads 0xA0,
 *     CKR_USER_NOT_LOGGED_IN (0x101) reads 1. Data is told from it by its length alone: data of one byte looks the
 *     same, so give objects IDs and labels of at least two bytes.
 * <dt>A {@code byte[][]}
 * <dd>Element 0 is always a status byte array; 0 in it means that the listing is whole. On failure the result has that
 *     one element, or its full length with null in the places not reached. A code whose low 8 bits are 0
 *     (CKR_FUNCTION_REJECTED, 0x200) looks like success: nulls give it away, but a result of one element then reads
 *     like that of an empty token.
 * </dl>
 * Codes that many methods share, in whatever form: CKR_ARGUMENTS_BAD (0x07) for a null string or array;
 * CKR_HOST_MEMORY (0x02) when there is no memory for the call; and from methods without the -1 that tell the code of
 * what failed, CKR_CRYPTOKI_NOT_INITIALIZED (0x190) when no module is bound, and for a slot index out of range what a
 * module says of an unknown slot or session: CKR_SLOT_ID_INVALID (0x03), CKR_SESSION_HANDLE_INVALID (0xB3).
 *
 * <h2>Objects</h2>
 * A certificate and its keys belong together by an equal ID (CKA_ID), and usually carry the same label. IDs and labels
 * are plain bytes; a label is UTF-8 by convention. Nothing is parsed or checked: names and serial numbers are DER, as
 * PKCS#11 wants them, RSA numbers big-endian without a sign byte. Writing never looks for what is there: writing twice
 * makes two objects. Searches see session objects as well as token objects unless it is said otherwise, and "the first"
 * is the first that the module's search yields.
 *
 * <h2>PINs</h2>
 * A PIN reaches the module as the string's modified UTF-8 bytes, which for ASCII letters and digits is one byte a
 * character. Where a method takes a length, it is the number of those bytes to use: fewer than the string has are
 * passed on as given, a negative number or more than it has is refused with CKR_PIN_LEN_RANGE (0xA2). The library
 * keeps no PIN and no key.
 *
 * <p>The library writes traces to standard output. Labels, IDs and certificates show in them; PINs, key components and
 * data to sign do not.
 */
public final class Smartcard {
    static {
        NativeLibrary.load();
    }

    private Smartcard() {
    }

    // ---- The module ----

    /**
     * Loads and initialises a PKCS#11 module and reads its slots, with or without a token in them. The list is not
     * read again: a slot that appears later is seen after {@link #finalizeDLL finalizeDLL} and another call.
     * While a module is bound a further call changes nothing, whatever it answers: 0x191 for another module, which is
     * refused before any of its functions is called, and from the same one, but 0 from one that lets itself be
     * initialised twice, and -1 or -2 as ever.
     *
     * @param modulePath path of the module, or a file name for the system's library search
     * @return 0; -1 if the file cannot be loaded ({@code ldd} shows a library that it lacks); -2 if it has no
     *         C_GetFunctionList; -3 if the module has no slot; or the module's code, CKR_CRYPTOKI_ALREADY_INITIALIZED
     *         (0x191) if it is in use already, by this class or by anything else in the process
     */
    public static synchronized native long initDLL(String modulePath);

    /**
     * {@return the number of slots, as last read from a module: 0 before the first {@code initDLL}; after one that
     * failed before it read it, and after {@code finalizeDLL}, still the earlier one}
     */
    public static synchronized native long getSlotCountDLL();

    /**
     * Ends all sessions and logins and unloads the module.
     *
     * @return 0 or the module's code; CKR_CRYPTOKI_NOT_INITIALIZED (0x190) if none is bound
     */
    public static synchronized native long finalizeDLL();

    // ---- Slots and tokens ----

    /**
     * {@return the slot's flags: 1 CKF_TOKEN_PRESENT, 2 CKF_REMOVABLE_DEVICE, 4 CKF_HW_SLOT; -1 on any failure}
     *
     * @param slotIndex the slot
     */
    public static synchronized native long getSlotInfoDLL(long slotIndex);

    /**
     * {@return the first 32 of the 64 bytes of the slot's description, filled up with blanks; or a status byte array}
     * For a slot index out of range, as every index is while no module is bound, the status is the code of the last
     * module call of any method, 0 if that succeeded or there was none. What the library refused in the module's place
     * counts as a call, but a {@code finalizeDLL} without a module does not.
     *
     * @param slotIndex the slot
     */
    public static synchronized native byte[] readSlotDescriptionDLL(long slotIndex);

    /**
     * {@return the token's flags, such as 4 CKF_LOGIN_REQUIRED, 8 CKF_USER_PIN_INITIALIZED, 0x400 CKF_TOKEN_INITIALIZED
     * and 0x40000 CKF_USER_PIN_LOCKED; 0 if there is no token or the query fails; -1 for a bad slot index}
     *
     * @param slotIndex the slot
     */
    public static synchronized native long getTokenInfoDLL(long slotIndex);

    /**
     * {@return the token's label, 32 bytes filled up with blanks; or a status byte array}
     *
     * @param slotIndex the slot
     */
    public static synchronized native byte[] readCardLabelDLL(long slotIndex);

    /**
     * {@return the token's serial number, 16 bytes filled up with blanks; or a status byte array}
     *
     * @param slotIndex the slot
     */
    public static synchronized native byte[] readCardSerialNumberDLL(long slotIndex);

    /**
     * Blocks until a token is put into some slot or taken out; which one is not told. Every other method waits
     * meanwhile, {@link #finalizeDLL finalizeDLL} included. Who wants to notice cards asks now and then instead:
     * <pre>{@code
     * long flags = Smartcard.getSlotInfoDLL(slotIndex); // -1 if it cannot be told
     * boolean isThere = flags > 0 && (flags & 1) != 0;
     * }</pre>
     * A module may go on showing a token that is gone; its {@linkplain #readCardSerialNumberDLL serial number} it does
     * not give then.
     *
     * @param ignored any value
     * @return 0 or the module's code; CKR_FUNCTION_NOT_SUPPORTED (0x54) from a module without slot events
     */
    public static synchronized native long waitForSlotEventDLL(long ignored);

    // ---- Mechanisms ----

    /**
     * {@return the flags of one mechanism of the token, such as 0x800 CKF_SIGN and 0x10000 CKF_GENERATE_KEY_PAIR; -1 if
     * the token does not have it, or on any other failure}
     *
     * @param slotIndex the slot
     * @param mechanismType a CKM_ value, such as 1 for CKM_RSA_PKCS
     */
    public static synchronized native long getMechanismInfoDLL(long slotIndex, long mechanismType);

    /**
     * {@return the types (CKM_ values) of the token's mechanisms in the module's order; empty if it cannot tell how
     * many} Each is the low 32 bits of its value, so that vendors' own types (0x80000000 and up) read as negative. If
     * the module counts the types but then fails to list them, the result has that length and zeros.
     *
     * @param slotIndex the slot
     */
    public static synchronized native int[] getSupportedMechanismListDLL(long slotIndex);

    // ---- Sessions ----

    /**
     * Opens a read/write session on the slot. An earlier session of the slot is forgotten, not closed.
     *
     * @param slotIndex the slot
     * @return 0, -1 or the module's code, such as CKR_TOKEN_NOT_PRESENT (0xE0)
     */
    public static synchronized native long openSessionDLL(long slotIndex);

    /**
     * Closes every session of this application <em>on every slot</em>, and so ends the logins.
     *
     * @param slotIndex a slot that had a session
     * @return -1, or the code of closing the last slot's sessions; no other failure shows
     */
    public static synchronized native long closeSessionDLL(long slotIndex);

    /**
     * {@return 0 if the slot's session is open; -1 if it never had one; otherwise the module's code,
     * CKR_SESSION_HANDLE_INVALID (0xB3) after a close}
     *
     * @param slotIndex the slot
     */
    public static synchronized native long isSessionOpenDLL(long slotIndex);

    /**
     * {@return four numbers: state (CKS_: 2 public, 3 user, 4 security officer), flags, the module's slot ID, device
     * error; on failure the module's code, -1, -1, -1} Each is the low 32 bits of its value.
     *
     * @param slotIndex the slot
     */
    public static synchronized native int[] getSessionInfoDLL(long slotIndex);

    // ---- Login and PINs ----

    /**
     * Logs in on the token, for all its sessions. Tokens count wrong PINs, and lock.
     *
     * @param slotIndex a slot with a session
     * @param pin the PIN; null lets the token ask for it by itself, at a PIN pad for example
     * @param userType 0 security officer, 1 user, 2 context specific
     * @return 0, -1 or the module's code, such as CKR_PIN_INCORRECT (0xA0), CKR_PIN_LOCKED (0xA4) or
     *         CKR_USER_ALREADY_LOGGED_IN (0x100)
     */
    public static synchronized native long loginDLL(long slotIndex, String pin, long userType);

    /**
     * Logs out from the token, for all its sessions.
     *
     * @param slotIndex a slot with a session
     * @return 0, -1 or the module's code
     */
    public static synchronized native long logoutDLL(long slotIndex);

    /**
     * Changes the PIN of whoever is logged in; the user's when nobody is.
     *
     * @param slotIndex a slot with a session
     * @param oldPin the present PIN
     * @param oldPinLength bytes of {@code oldPin} to use
     * @param newPin the PIN from now on
     * @param newPinLength bytes of {@code newPin} to use
     * @return 0, -1 or the module's code
     */
    public static synchronized native long changePINDLL(long slotIndex, String oldPin, long oldPinLength, String newPin,
            long newPinLength);

    /**
     * Initialises the token under the label "YENIKART": <em>everything on it is destroyed</em>, and the user has no PIN
     * until {@link #initUserPINDLL initUserPINDLL}. The token must have no open session. A module may move the token to
     * another slot; then bind it anew.
     *
     * @param slotIndex the slot; it needs no session
     * @param soPin the security officer's PIN, the present one of a token that has one
     * @param soPinLength bytes of {@code soPin} to use
     * @return 0, -1 or the module's code, such as CKR_SESSION_EXISTS (0xB6)
     */
    public static synchronized native long initTokenDLL(long slotIndex, String soPin, long soPinLength);

    /**
     * Sets the user's PIN, after a login as security officer.
     *
     * @param slotIndex a slot with a session
     * @param pin the user's PIN from now on
     * @param pinLength bytes of {@code pin} to use
     * @return 0, -1 or the module's code
     */
    public static synchronized native long initUserPINDLL(long slotIndex, String pin, long pinLength);

    // ---- What is on the token ----

    /**
     * {@return 0 if the session sees no object, 1 if it sees some, -1 for a bad slot index or a search that could not
     * begin or could not end} Note the sense of the numbers. 0 also means that C_FindObjects failed. Private objects
     * are seen only after a login.
     *
     * @param slotIndex a slot with a session
     */
    public static synchronized native long isCardEmptyDLL(long slotIndex);

    /**
     * {@return the number of objects that the session sees, 20 at most; -1 for a bad slot index} A failing module is
     * not told from an empty token.
     *
     * @param slotIndex a slot with a session
     */
    public static synchronized native long getObjectCountInTheTokenDLL(long slotIndex);

    /**
     * {@return the first X.509 certificate, DER; or a status byte array: 2 there is none or the search failed (or
     * CKR_HOST_MEMORY), 0 the search failed after yielding it, 1 it could not be read}
     *
     * @param slotIndex a slot with a session
     */
    public static synchronized native byte[] readCertificateDLL(long slotIndex);

    /**
     * {@return the value of the first data object, which is where {@link #writeAttributeCertificateDLL} puts an
     * attribute certificate; or a status byte array as in {@link #readCertificateDLL}}
     *
     * @param slotIndex a slot with a session
     */
    public static synchronized native byte[] readAttributeCertificateDLL(long slotIndex);

    /**
     * Lists the X.509 certificates, three elements for each: certificate {@code k}, counted from 1, has its ID at
     * {@code 3k - 2}, its label at {@code 3k - 1} and its DER encoding at {@code 3k}.
     *
     * @param slotIndex a slot with a session
     * @return the status and 3 elements a certificate; a certificate whose values cannot be read, or that is gone
     *         since they were counted, leaves those read before it; any other failure gives the status alone
     */
    public static synchronized native byte[][] readAllCertificatesDLL(long slotIndex);

    /**
     * Lists the RSA public keys, four elements for each: key {@code k}, counted from 1, has its ID at {@code 4k - 3},
     * its label at {@code 4k - 2}, its modulus at {@code 4k - 1} and its public exponent at {@code 4k}.
     *
     * @param slotIndex a slot with a session
     * @return the status and 4 elements a key; a failure while the keys are counted, and a lack of memory at any time,
     *         gives the status alone, a later failure keeps the keys read before it
     */
    public static synchronized native byte[][] readAllRSAPublicKeysDLL(long slotIndex);

    /**
     * Lists the RSA private keys, two elements for each: key {@code k}, counted from 1, has its ID at {@code 2k - 1}
     * and its label at {@code 2k}. Private keys that are private objects appear only after a login.
     *
     * @param slotIndex a slot with a session
     * @return the status and 2 elements a key; failures as in {@link #readAllRSAPublicKeysDLL}
     */
    public static synchronized native byte[][] readAllRSAPrivateKeysDLL(long slotIndex);

    /**
     * {@return the ID of the first X.509 certificate; or a status byte array: 0 there is none or the search failed, 1
     * it could not be read}
     *
     * @param slotIndex a slot with a session
     */
    public static synchronized native byte[] readCertificateIDDLL(long slotIndex);

    /**
     * {@return the label of the first X.509 certificate; or a status byte array as in {@link #readCertificateIDDLL}}
     *
     * @param slotIndex a slot with a session
     */
    public static synchronized native byte[] readCertificateLabelDLL(long slotIndex);

    /**
     * {@return the ID of the first public key of any type; or a status byte array as in {@link #readCertificateIDDLL}}
     *
     * @param slotIndex a slot with a session
     */
    public static synchronized native byte[] readPublicKeyIDDLL(long slotIndex);

    /**
     * {@return the label of the first public key of any type; or a status byte array as in {@link
     * #readCertificateIDDLL}}
     *
     * @param slotIndex a slot with a session
     */
    public static synchronized native byte[] readPublicKeyLabelDLL(long slotIndex);

    /**
     * {@return the ID of the first private key of any type; or a status byte array as in {@link #readCertificateIDDLL}}
     *
     * @param slotIndex a slot with a session
     */
    public static synchronized native byte[] readPrivateKeyIDDLL(long slotIndex);

    /**
     * {@return the label of the first private key of any type; or a status byte array as in {@link
     * #readCertificateIDDLL}}
     *
     * @param slotIndex a slot with a session
     */
    public static synchronized native byte[] readPrivateKeyLabelDLL(long slotIndex);

    // ---- Writing ----

    /**
     * Puts an X.509 certificate on the token.
     *
     * @param slotIndex a slot with a session
     * @param certificate the certificate, DER
     * @param subject its subject, a DER Name
     * @param issuer its issuer, a DER Name
     * @param serialNumber its serial number, a DER INTEGER with tag and length
     * @param id the ID of the keys that it belongs to
     * @param label its label
     * @return 0, -1 or the module's code
     */
    public static synchronized native long writeCertificateDLL(long slotIndex, byte[] certificate, byte[] subject,
            byte[] issuer, byte[] serialNumber, byte[] id, byte[] label);

    /**
     * Puts an attribute certificate on the token, as a data object without a label or any other mark.
     *
     * @param slotIndex a slot with a session
     * @param attributeCertificate the attribute certificate, DER
     * @return 0, -1 or the module's code
     */
    public static synchronized native long writeAttributeCertificateDLL(long slotIndex, byte[] attributeCertificate);

    /**
     * Puts an RSA public key on the token.
     *
     * @param slotIndex a slot with a session
     * @param modulus the modulus
     * @param publicExponent the public exponent
     * @param id the key's ID
     * @param label the key's label
     * @return 0, -1 or the module's code
     */
    public static synchronized native long writePublicKeyDLL(long slotIndex, byte[] modulus, byte[] publicExponent,
            byte[] id, byte[] label);

    /**
     * Puts an RSA key pair on the token: a private key (private, sensitive, not extractable) and then its public key,
     * after a login. Both are tried, and <em>only the public key's result comes back</em>: 0 does not mean that the
     * private key was stored ({@link #readAllRSAPrivateKeysDLL} tells), and nothing is undone after a failure.
     *
     * @param slotIndex a slot with a session
     * @param modulus the modulus
     * @param publicExponent the public exponent
     * @param privateExponent the private exponent
     * @param prime1 the first prime, p
     * @param prime2 the second prime, q
     * @param exponent1 the private exponent modulo p - 1
     * @param exponent2 the private exponent modulo q - 1
     * @param coefficient the inverse of q modulo p
     * @param id the ID of both keys
     * @param label the label of both keys
     * @return -1, or the code of creating the public key
     */
    public static synchronized native long writePrivateKeyDLL(long slotIndex, byte[] modulus, byte[] publicExponent,
            byte[] privateExponent, byte[] prime1, byte[] prime2, byte[] exponent1, byte[] exponent2, byte[]
            coefficient, byte[] id, byte[] label);

    /**
     * Puts an identity on the token: an RSA private key, its public key and then its certificate, after a login. All
     * three are tried, and <em>only the certificate's result comes back</em>, as in {@link #writePrivateKeyDLL}.
     *
     * @param slotIndex a slot with a session
     * @param certificate the certificate, DER
     * @param subject its subject, a DER Name
     * @param issuer its issuer, a DER Name
     * @param serialNumber its serial number, a DER INTEGER with tag and length
     * @param modulus the modulus
     * @param publicExponent the public exponent
     * @param privateExponent the private exponent
     * @param prime1 the first prime, p
     * @param prime2 the second prime, q
     * @param exponent1 the private exponent modulo p - 1
     * @param exponent2 the private exponent modulo q - 1
     * @param coefficient the inverse of q modulo p
     * @param id the ID of all three objects
     * @param label the label of all three objects
     * @return -1, or the code of creating the certificate
     */
    public static synchronized native long writeCertificateAndPrivateKeyDLL(long slotIndex, byte[] certificate, byte[]
            subject, byte[] issuer, byte[] serialNumber, byte[] modulus, byte[] publicExponent, byte[] privateExponent,
            byte[] prime1, byte[] prime2, byte[] exponent1, byte[] exponent2, byte[] coefficient, byte[] id, byte[]
            label);

    /**
     * Gives the first X.509 certificate the label of the first public key.
     *
     * @param ignored any array, or null: it is not read
     * @param slotIndex a slot with a session
     * @return -1, CKR_OBJECT_HANDLE_INVALID (0x82) if there is no certificate or no public key, or the code with which
     *         they could not be looked for or the label not be read; otherwise that of ending the search, 0 even if
     *         the token refused the label
     */
    public static synchronized native long setCertificateLabelDLL(byte[] ignored, long slotIndex);

    /**
     * Gives the token's first private key and first public key of an ID a new ID and label. A certificate keeps its
     * own.
     *
     * @param slotIndex a slot with a session
     * @param id the present ID
     * @param newId the ID from now on
     * @param newLabel the label from now on
     * @return -1, or the code of changing the public key, CKR_OBJECT_HANDLE_INVALID (0x82) if there is none, or the
     *         code with which it could not be looked for; how the private key fared does not show
     */
    public static synchronized native long updateKeyPairIDAndLabelDLL(long slotIndex, byte[] id, byte[] newId, byte[]
            newLabel);

    // ---- Deletion ----

    /**
     * Destroys the first 20 objects of all kinds that the session sees. Call again until {@link #isCardEmptyDLL
     * isCardEmptyDLL} answers 0, but not for ever: what the token refuses to destroy stays. Without a login private
     * objects stay.
     *
     * @param slotIndex a slot with a session
     * @return -1, or the code of ending the search: an object that could not be destroyed does not show
     */
    public static synchronized native long deleteDLL(long slotIndex);

    /**
     * Destroys the first X.509 certificate of the token that has all five values, byte for byte.
     *
     * @param slotIndex a slot with a session
     * @param subject its subject, a DER Name
     * @param issuer its issuer, a DER Name
     * @param serialNumber its serial number, as it was written
     * @param id its ID
     * @param label its label
     * @return 0 also if there is none or the search failed; -1 or the module's code
     */
    public static synchronized native long deleteCertificateDLL(long slotIndex, byte[] subject, byte[] issuer, byte[]
            serialNumber, byte[] id, byte[] label);

    /**
     * Destroys the first public key of the token that has the ID.
     *
     * @param slotIndex a slot with a session
     * @param id its ID
     * @return 0 also if there is none or the search failed; -1 or the module's code
     */
    public static synchronized native long deletePublicKeyDLL(long slotIndex, byte[] id);

    /**
     * Destroys the first private key of the token that has the ID, after a login.
     *
     * @param slotIndex a slot with a session
     * @param id its ID
     * @return 0 also if there is none or the search failed; -1 or the module's code
     */
    public static synchronized native long deletePrivateKeyDLL(long slotIndex, byte[] id);

    /**
     * Destroys all X.509 certificates of the token, up to the first that cannot be destroyed.
     *
     * @param slotIndex a slot with a session
     * @return 0, also if the search failed; -1 or the module's code
     */
    public static synchronized native long deleteAllCertificatesDLL(long slotIndex);

    // ---- Keys at work ----

    /**
     * Signs with the first private key, by CKM_RSA_PKCS: the data is padded as it is, without hashing (PKCS #1 v1.5,
     * block type 1). For an ordinary signature it is a DER DigestInfo; at most the modulus's length less 11 bytes.
     *
     * @param slotIndex a slot with a session
     * @param data the data
     * @return the signature, as long as the modulus; or a status byte array: 0 there is no key or the search failed,
     *         otherwise the module's code
     */
    public static synchronized native byte[] signDLL(long slotIndex, byte[] data);

    /**
     * Signs like {@link #signDLL}, with the first private key that has the ID.
     *
     * @param slotIndex a slot with a session
     * @param data the data
     * @param id the key's ID
     * @return the signature, as long as the modulus; or a status byte array: 0 there is no such key, otherwise the
     *         module's code, CKR_OPERATION_NOT_INITIALIZED (0x91) if the key was refused
     */
    public static synchronized native byte[] signWithIDDLL(long slotIndex, byte[] data, byte[] id);

    /**
     * Generates an RSA key pair on the token, after a login. The private key is private, sensitive and not extractable.
     *
     * @param slotIndex a slot with a session
     * @param modulusBits the key's size in bits
     * @param publicExponent the public exponent, usually 01 00 01
     * @param id the ID of both keys
     * @param label the label of both keys
     * @return the modulus; or a status byte array with the module's code. A pair may have come into being all the same,
     *         when only its modulus could not be read
     */
    public static synchronized native byte[] generateKeyPairDLL(long slotIndex, long modulusBits, byte[] publicExponent,
            byte[] id, byte[] label);

    /** {@return always 1: the library does not decrypt} */
    public static synchronized native long decryptDLL();
}
