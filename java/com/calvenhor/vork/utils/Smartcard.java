package com.calvenhor.vork.utils;

/**
 * The native methods for smart cards and USB tokens. They call the PKCS#11 module of the card's vendor, one module at a
 * time. {@link SmartcardProvider} offers the same tokens to {@code java.security}, and so to {@code keytool},
 * {@code jarsigner} and libraries that sign PDF or XML.
 *
 * <p>The methods by group:
 * <ul>
 * <li>{@link #initDLL Module}: {@code initDLL}, {@code getSlotCountDLL}, {@code finalizeDLL}
 * <li>{@link #getSlotInfoDLL Slots, tokens and mechanisms}: {@code getSlotInfoDLL}, {@code getTokenInfoDLL},
 *     {@code readSlotDescriptionDLL}, {@code readCard...DLL}, {@code getMechanismInfoDLL},
 *     {@code getSupportedMechanismListDLL}, {@code waitForSlotEventDLL}
 * <li>{@link #openSessionDLL Sessions and PINs}: {@code ...Session...DLL}, {@code loginDLL}, {@code logoutDLL},
 *     {@code changePINDLL}, {@code initTokenDLL}, {@code initUserPINDLL}
 * <li>{@link #readAllCertificatesDLL Reading}: the other {@code read...DLL}, {@code isCardEmptyDLL},
 *     {@code getObjectCountInTheTokenDLL}
 * <li>{@link #writeCertificateDLL Writing}: {@code write...DLL}, {@code setCertificateLabelDLL},
 *     {@code updateKeyPairIDAndLabelDLL}
 * <li>{@link #deletePrivateKeyDLL Deleting}: {@code delete...DLL}
 * <li>{@link #signWithIDDLL Using keys}: {@code sign...DLL}, {@code generateKeyPairDLL}, {@code decryptDLL}
 * </ul>
 *
 * <h2>Order of use</h2>
 * <ol>
 * <li>{@link #initDLL} binds the module and reads its list of slots. A <em>slot index</em> is a position in that list,
 *     from 0 to {@link #getSlotCountDLL} - 1.
 * <li>{@link #openSessionDLL} opens a read/write session. Methods that need a session use the last one of the slot:
 *     all from the group "Sessions and PINs" on, except {@code openSessionDLL}, {@link #initTokenDLL} and
 *     {@link #decryptDLL}.
 * <li>{@link #loginDLL} as user gives access to private objects, such as private keys that this class wrote or
 *     generated. Most tokens require it for every change.
 * <li>{@link #finalizeDLL} ends all logins and sessions.
 * </ol>
 * <pre>{@code
 * if (Smartcard.initDLL("/usr/lib/vendor/pkcs11.so") != 0) ...
 * if (Smartcard.openSessionDLL(0) != 0) ...
 * if (Smartcard.loginDLL(0, pin, 1) != 0) ...
 * byte[] signature = Smartcard.signWithIDDLL(0, digestInfo, keyId);
 * if (signature.length == 1) ... // a status: see Results and failures
 * Smartcard.logoutDLL(0);
 * Smartcard.closeSessionDLL(0);
 * Smartcard.finalizeDLL();
 * }</pre>
 *
 * <h2>Threads</h2>
 * Any thread, including a virtual one, may call the methods. All are synchronized on this class: {@link #initDLL} does
 * not tell the module about threads, so the module may expect one call at a time. A call that waits for a PIN pad
 * blocks all others, on any slot.
 * <p>Between two calls another thread may delete an object that a listing returned. A login or a logout applies to all
 * threads. Hold the lock during steps that belong together:
 * <pre>{@code
 * synchronized (Smartcard.class) {
 *     if (Smartcard.loginDLL(0, pin, 1) == 0) {
 *         signature = Smartcard.signWithIDDLL(0, digestInfo, keyId);
 *         Smartcard.logoutDLL(0);
 *     }
 * }
 * }</pre>
 *
 * <h2>Results and failures</h2>
 * Once the class is loaded, the methods throw only {@link OutOfMemoryError}. Any other failure is a result:
 * <dl>
 * <dt>A <em>result code</em> ({@code long})
 * <dd>0 means success. A positive number is a code (CK_RV), usually of the PKCS#11 call that failed. -1 means that no
 *     module is bound, that the slot index is out of range or, if the method needs a session, that none was opened on
 *     the slot since {@link #initDLL}. After a session was closed, the code is CKR_SESSION_HANDLE_INVALID (0xB3).
 * <dt>A <em>status</em>, in place of another {@code byte[]}
 * <dd>One byte, the low 8 bits of a code: {@code status[0] & 0xFF}. CKR_PIN_INCORRECT (0xA0) becomes 0xA0,
 *     CKR_USER_NOT_LOGGED_IN (0x101) becomes 1. Methods that read one value or sign also return 0, 1 or 2 with
 *     another meaning. Only the length distinguishes a status from data: give objects IDs and labels of at least two
 *     bytes.
 * <dt>A <em>listing</em> ({@code byte[][]})
 * <dd>Element 0 is a status; 0 means complete. The values of the first object follow, then those of the second, and so
 *     on. On failure the listing has only element 0, or null for each value that was not read. A code whose low 8 bits
 *     are 0, such as CKR_FUNCTION_REJECTED (0x200), looks like success. A null in the listing reveals the failure. A
 *     listing of one element cannot be distinguished from that of an empty token.
 * </dl>
 * Many methods share these codes:
 * <ul>
 * <li>CKR_ARGUMENTS_BAD (0x07): a string or an array is null.
 * <li>CKR_HOST_MEMORY (0x02): there is no memory for the call. An array result is {@code null} if the JVM could not
 *     pass the contents of an argument and threw no exception.
 * <li>CKR_CRYPTOKI_NOT_INITIALIZED (0x190): no module is bound. Methods that return -1 for a slot index out of range
 *     return -1 instead.
 * <li>CKR_SLOT_ID_INVALID (0x03) or CKR_SESSION_HANDLE_INVALID (0xB3), from methods that never return -1: the slot
 *     index is out of range or, for 0xB3, the slot has no open session.
 * </ul>
 *
 * <h2>Strings and byte arrays</h2>
 * The module gets a PIN as modified UTF-8, in which an ASCII letter or digit is one byte. A PIN length is the number of
 * bytes to use. If it is negative or exceeds the string, the method returns CKR_PIN_LEN_RANGE (0xA2). The library keeps
 * no PIN and no key.
 * <p>IDs and labels are plain bytes; by convention a label is UTF-8. Certificates, names and serial numbers (INTEGER
 * with tag and length) are in DER. RSA numbers are big-endian without a sign byte. The library parses and checks none
 * of them.
 *
 * <h2>Objects</h2>
 * A certificate and its keys have the same ID (CKA_ID), and usually the same label. Writing does not look for existing
 * objects: writing twice creates two. "The first" object is the first that the module's search returns. Searches find
 * token objects and session objects, unless the description says "(token object)". Keys are of any type, unless it
 * says "RSA".
 *
 * <h2>Native library</h2>
 * The first use of this class loads {@code libsmartcard.so} from the path in the system property
 * {@code smartcard.library} if that is set, and from nowhere else; otherwise from the jar or, if that fails, from
 * {@code java.library.path}. An {@link UnsatisfiedLinkError} names each place that failed and why.
 * <p>On JDK 24 or later, start the JVM with {@code --enable-native-access=ALL-UNNAMED}, or on the module path with
 * {@code --enable-native-access=com.calvenhor.vork.utils}. Otherwise the JVM prints a warning, or refuses to load the
 * library if it denies native access.
 *
 * <h2>Traces</h2>
 * The library writes traces to standard output: file descriptor 1, regardless of {@link System#setOut System.setOut}.
 * They show labels, IDs and certificates, but no PIN, key component or data to sign. There is no way to switch the
 * traces off; {@code docs/using.md} shows how to redirect them.
 */
public final class Smartcard {
    static {
        NativeLibrary.load();
    }

    private Smartcard() {
    }

    // ---- Module ----

    /**
     * Loads and initialises a PKCS#11 module and reads the list of its slots, including those without a token. To
     * <em>rebind</em> the module, call {@link #finalizeDLL} and then this method: only then are new slots listed.
     * <p>While a module is bound, this method does not change the binding. It refuses another module with 0x191 before
     * it calls any of that module's functions. For the same module it returns the module's code. If that is 0, the
     * module allows a second initialisation and may stay initialised after {@code finalizeDLL}.
     *
     * @param modulePath path of the module, or a file name for the system's library search
     * @return <ul>
     *         <li>0: the module is bound
     *         <li>-1: the file cannot be loaded ({@code ldd} shows a missing library)
     *         <li>-2: the file has no C_GetFunctionList
     *         <li>-3: the module has no slot
     *         <li>the module's code; CKR_CRYPTOKI_ALREADY_INITIALIZED (0x191) if another module is bound, or this
     *             class or other code in the process has initialised this one
     *         </ul>
     */
    public static synchronized native long initDLL(String modulePath);

    /**
     * {@return the number of slots that {@code initDLL} last read from a module; 0 if it has read none} {@code
     * finalizeDLL} does not change the number, nor does an {@code initDLL} that fails before it reads one.
     */
    public static synchronized native long getSlotCountDLL();

    /**
     * Ends all sessions and logins and unloads the module, even if C_Finalize fails.
     *
     * @return 0 or the module's code; CKR_CRYPTOKI_NOT_INITIALIZED (0x190) if no module is bound
     */
    public static synchronized native long finalizeDLL();

    // ---- Slots, tokens and mechanisms ----

    /**
     * {@return the slot's flags: 1 CKF_TOKEN_PRESENT, 2 CKF_REMOVABLE_DEVICE, 4 CKF_HW_SLOT; -1 on any failure}
     * @param slotIndex the slot
     */
    public static synchronized native long getSlotInfoDLL(long slotIndex);

    /**
     * {@return the first 32 of the 64 bytes of the slot's description, padded with blanks; or a status} If the slot
     * index is out of range or no module is bound, it is the status of the last PKCS#11 call of any method; 0 if there
     * was none. A call that the library refused in place of the module, with 0x03, 0x54, 0xB3 or 0x190, counts; {@code
     * finalizeDLL} without a module does not.
     * @param slotIndex the slot
     */
    public static synchronized native byte[] readSlotDescriptionDLL(long slotIndex);

    /**
     * Returns the token's flags, such as 4 CKF_LOGIN_REQUIRED, 8 CKF_USER_PIN_INITIALIZED, 0x400 CKF_TOKEN_INITIALIZED
     * and 0x40000 CKF_USER_PIN_LOCKED.
     *
     * @param slotIndex the slot
     * @return the flags; 0 if there is no token or the query fails; -1 if the slot index is out of range
     */
    public static synchronized native long getTokenInfoDLL(long slotIndex);

    /**
     * {@return the token's label, 32 bytes padded with blanks; or a status}
     * @param slotIndex the slot
     */
    public static synchronized native byte[] readCardLabelDLL(long slotIndex);

    /**
     * {@return the token's serial number, 16 bytes padded with blanks; or a status}
     * @param slotIndex the slot
     */
    public static synchronized native byte[] readCardSerialNumberDLL(long slotIndex);

    /**
     * Blocks until a token is inserted or removed in any slot, and does not report the slot. All other methods wait
     * meanwhile, including {@link #finalizeDLL}. To detect that a card was inserted or removed, poll instead:
     * <pre>{@code
     * long flags = Smartcard.getSlotInfoDLL(slotIndex); // -1 on failure
     * boolean isPresent = flags > 0 && (flags & 1) != 0;
     * }</pre>
     * Some modules report a removed token as present; {@link #readCardSerialNumberDLL} then fails.
     *
     * @param ignored any value
     * @return 0 or the module's code; CKR_FUNCTION_NOT_SUPPORTED (0x54) if the module has no slot events
     */
    public static synchronized native long waitForSlotEventDLL(long ignored);

    /**
     * {@return the flags of a mechanism, such as 0x800 CKF_SIGN and 0x10000 CKF_GENERATE_KEY_PAIR; -1 if the token
     * lacks the mechanism, or on any other failure}
     * @param slotIndex the slot
     * @param mechanismType a CKM_ value, such as 1 for CKM_RSA_PKCS
     */
    public static synchronized native long getMechanismInfoDLL(long slotIndex, long mechanismType);

    /**
     * {@return the types (CKM_ values) of the token's mechanisms, in the module's order; empty if the module cannot
     * count them, there is no such slot or memory is short; all 0 if the module cannot list them} Types are cut to 32
     * bits, so vendor types (0x80000000 and up) are negative.
     * @param slotIndex the slot
     */
    public static synchronized native int[] getSupportedMechanismListDLL(long slotIndex);

    // ---- Sessions and PINs ----

    /**
     * Opens a read/write session on the slot. An earlier session of the slot stays open, unused, until
     * {@link #closeSessionDLL}.
     *
     * @param slotIndex the slot
     * @return a result code, such as CKR_TOKEN_NOT_PRESENT (0xE0)
     */
    public static synchronized native long openSessionDLL(long slotIndex);

    /**
     * Closes all sessions of this application <em>on every slot</em>, which also ends the logins.
     *
     * @param slotIndex a slot that had a session
     * @return -1, or the code of closing the sessions of the last slot; other failures are not reported
     */
    public static synchronized native long closeSessionDLL(long slotIndex);

    /**
     * {@return a result code: 0 if the slot's session is open, CKR_SESSION_HANDLE_INVALID (0xB3) after it was closed}
     * @param slotIndex the slot
     */
    public static synchronized native long isSessionOpenDLL(long slotIndex);

    /**
     * {@return state, flags, the module's slot ID, device error; on failure the code, -1, -1, -1} The state is 2
     * public, 3 user or 4 security officer (CKS_ values). The numbers are cut to 32 bits.
     * @param slotIndex the slot
     */
    public static synchronized native int[] getSessionInfoDLL(long slotIndex);

    /**
     * Logs in to the token, for all its sessions. Tokens count wrong PINs and, after a few, lock the PIN.
     *
     * @param slotIndex the slot
     * @param pin the PIN; null if the token asks for it itself, for example at a PIN pad
     * @param userType 0 security officer, 1 user, 2 context specific
     * @return a result code, such as CKR_PIN_INCORRECT (0xA0), CKR_PIN_LOCKED (0xA4) or CKR_USER_ALREADY_LOGGED_IN
     *         (0x100)
     */
    public static synchronized native long loginDLL(long slotIndex, String pin, long userType);

    /**
     * Logs out of the token, for all its sessions.
     *
     * @param slotIndex the slot
     * @return a result code
     */
    public static synchronized native long logoutDLL(long slotIndex);

    /**
     * Changes the PIN of the user or security officer who is logged in; without a login, the user's.
     *
     * @param slotIndex the slot
     * @param oldPin the current PIN
     * @param oldPinLength bytes of {@code oldPin} to use
     * @param newPin the new PIN
     * @param newPinLength bytes of {@code newPin} to use
     * @return a result code
     */
    public static synchronized native long changePINDLL(long slotIndex, String oldPin, long oldPinLength, String newPin,
            long newPinLength);

    /**
     * Initialises the token and <em>destroys everything on it</em>. The label is fixed: YENIKART. The user has no PIN
     * until {@link #initUserPINDLL}. The token must have no open session. The module may move the token to another
     * slot: rebind the module, and look for the token.
     *
     * @param slotIndex the slot
     * @param soPin the security officer's PIN; the current one if the token has one
     * @param soPinLength bytes of {@code soPin} to use
     * @return a result code, such as CKR_SESSION_EXISTS (0xB6)
     */
    public static synchronized native long initTokenDLL(long slotIndex, String soPin, long soPinLength);

    /**
     * Sets the user's PIN. Requires a login as security officer.
     *
     * @param slotIndex the slot
     * @param pin the new PIN of the user
     * @param pinLength bytes of {@code pin} to use
     * @return a result code
     */
    public static synchronized native long initUserPINDLL(long slotIndex, String pin, long pinLength);

    // ---- Reading ----

    /**
     * Reports whether the session sees any object. 0 means empty.
     *
     * @param slotIndex the slot
     * @return 0 if it sees none or C_FindObjects failed; 1 if it sees some; -1 as in a result code, or if the search
     *         could not begin or end
     */
    public static synchronized native long isCardEmptyDLL(long slotIndex);

    /**
     * {@return the number of objects that the session sees, at most 20; 0 if the search fails; -1 as in a result
     * code}
     * @param slotIndex the slot
     */
    public static synchronized native long getObjectCountInTheTokenDLL(long slotIndex);

    /**
     * Returns the first X.509 certificate.
     *
     * @param slotIndex the slot
     * @return the certificate; or a status:
     *         <ul>
     *         <li>0: the search failed, but counted one certificate
     *         <li>1: the certificate could not be read
     *         <li>2: there is none, the search failed, or memory is short
     *         </ul>
     */
    public static synchronized native byte[] readCertificateDLL(long slotIndex);

    /**
     * {@return the value of the first data object; or a status as in {@link #readCertificateDLL}}
     * {@link #writeAttributeCertificateDLL} writes such objects.
     * @param slotIndex the slot
     */
    public static synchronized native byte[] readAttributeCertificateDLL(long slotIndex);

    /**
     * Lists the ID, the label and the DER encoding of each X.509 certificate.
     *
     * @param slotIndex the slot
     * @return a listing. The method first counts the certificates. If one of them cannot be read or has disappeared,
     *         the listing keeps those before it. After any other failure it has only the status.
     */
    public static synchronized native byte[][] readAllCertificatesDLL(long slotIndex);

    /**
     * Lists the ID, label, modulus and public exponent of each RSA public key.
     *
     * @param slotIndex the slot
     * @return a listing. If the keys cannot be counted or memory is short, it has only the status. After any other
     *         failure it keeps the keys that were read.
     */
    public static synchronized native byte[][] readAllRSAPublicKeysDLL(long slotIndex);

    /**
     * Lists the ID and the label of each RSA private key.
     *
     * @param slotIndex the slot
     * @return a listing; failures as in {@link #readAllRSAPublicKeysDLL}
     */
    public static synchronized native byte[][] readAllRSAPrivateKeysDLL(long slotIndex);

    /**
     * {@return the ID of the first X.509 certificate; or a status: 0 if there is none or the search failed, 1 if it
     * could not be read}
     * @param slotIndex the slot
     */
    public static synchronized native byte[] readCertificateIDDLL(long slotIndex);

    /**
     * {@return the label of the first X.509 certificate; or a status as in {@link #readCertificateIDDLL}}
     * @param slotIndex the slot
     */
    public static synchronized native byte[] readCertificateLabelDLL(long slotIndex);

    /**
     * {@return the ID of the first public key; or a status as in {@link #readCertificateIDDLL}}
     * @param slotIndex the slot
     */
    public static synchronized native byte[] readPublicKeyIDDLL(long slotIndex);

    /**
     * {@return the label of the first public key; or a status as in {@link #readCertificateIDDLL}}
     * @param slotIndex the slot
     */
    public static synchronized native byte[] readPublicKeyLabelDLL(long slotIndex);

    /**
     * {@return the ID of the first private key; or a status as in {@link #readCertificateIDDLL}}
     * @param slotIndex the slot
     */
    public static synchronized native byte[] readPrivateKeyIDDLL(long slotIndex);

    /**
     * {@return the label of the first private key; or a status as in {@link #readCertificateIDDLL}}
     * @param slotIndex the slot
     */
    public static synchronized native byte[] readPrivateKeyLabelDLL(long slotIndex);

    // ---- Writing ----

    /**
     * Writes an X.509 certificate to the token.
     *
     * @param slotIndex the slot
     * @param certificate the certificate
     * @param subject its subject
     * @param issuer its issuer
     * @param serialNumber its serial number
     * @param id the ID of the keys that it belongs to
     * @param label its label
     * @return a result code
     */
    public static synchronized native long writeCertificateDLL(long slotIndex, byte[] certificate, byte[] subject,
            byte[] issuer, byte[] serialNumber, byte[] id, byte[] label);

    /**
     * Writes an attribute certificate to the token, as a data object without a label or ID.
     *
     * @param slotIndex the slot
     * @param attributeCertificate the attribute certificate
     * @return a result code
     */
    public static synchronized native long writeAttributeCertificateDLL(long slotIndex, byte[] attributeCertificate);

    /**
     * Writes an RSA public key to the token.
     *
     * @param slotIndex the slot
     * @param modulus the modulus
     * @param publicExponent the public exponent
     * @param id the key's ID
     * @param label the key's label
     * @return a result code
     */
    public static synchronized native long writePublicKeyDLL(long slotIndex, byte[] modulus, byte[] publicExponent,
            byte[] id, byte[] label);

    /**
     * Writes an RSA private key (private, sensitive, not extractable) and then its public key to the token. Requires a
     * login as user. The method tries both and <em>reports only the public key</em>: 0 does not mean that the private
     * key was written. {@link #readAllRSAPrivateKeysDLL} shows whether it was. A failure leaves the other key on the
     * token.
     *
     * @param slotIndex the slot
     * @param modulus the modulus
     * @param publicExponent the public exponent
     * @param privateExponent the private exponent d
     * @param prime1 the prime p
     * @param prime2 the prime q
     * @param exponent1 d mod (p - 1)
     * @param exponent2 d mod (q - 1)
     * @param coefficient the inverse of q mod p
     * @param id the ID of both keys
     * @param label the label of both keys
     * @return -1, or the code of writing the public key
     */
    public static synchronized native long writePrivateKeyDLL(long slotIndex, byte[] modulus, byte[] publicExponent,
            byte[] privateExponent, byte[] prime1, byte[] prime2, byte[] exponent1, byte[] exponent2, byte[]
            coefficient, byte[] id, byte[] label);

    /**
     * Writes an RSA private key, its public key and then its certificate to the token. Requires a login as user. The
     * method tries all three and <em>reports only the certificate</em>, as in {@link #writePrivateKeyDLL}.
     *
     * @param slotIndex the slot
     * @param certificate the certificate
     * @param subject its subject
     * @param issuer its issuer
     * @param serialNumber its serial number
     * @param modulus the modulus
     * @param publicExponent the public exponent
     * @param privateExponent the private exponent d
     * @param prime1 the prime p
     * @param prime2 the prime q
     * @param exponent1 d mod (p - 1)
     * @param exponent2 d mod (q - 1)
     * @param coefficient the inverse of q mod p
     * @param id the ID of all three objects
     * @param label the label of all three objects
     * @return -1, or the code of writing the certificate
     */
    public static synchronized native long writeCertificateAndPrivateKeyDLL(long slotIndex, byte[] certificate, byte[]
            subject, byte[] issuer, byte[] serialNumber, byte[] modulus, byte[] publicExponent, byte[] privateExponent,
            byte[] prime1, byte[] prime2, byte[] exponent1, byte[] exponent2, byte[] coefficient, byte[] id, byte[]
            label);

    /**
     * Gives the first X.509 certificate the label of the first public key.
     *
     * @param ignored any array, or null: it is not read
     * @param slotIndex the slot
     * @return a result code:
     *         <ul>
     *         <li>CKR_OBJECT_HANDLE_INVALID (0x82): there is no certificate or no public key
     *         <li>the code of a search or of reading the label, if that failed
     *         <li>otherwise the code of ending the search: 0 even if the token refused the label
     *         </ul>
     */
    public static synchronized native long setCertificateLabelDLL(byte[] ignored, long slotIndex);

    /**
     * Sets a new ID and label on the first private key and the first public key (token objects) with the given ID.
     * Certificates are not changed.
     *
     * @param slotIndex the slot
     * @param id the current ID
     * @param newId the new ID
     * @param newLabel the new label
     * @return a result code for the public key only: of the search for it or of its change, or
     *         CKR_OBJECT_HANDLE_INVALID (0x82) if there is none
     */
    public static synchronized native long updateKeyPairIDAndLabelDLL(long slotIndex, byte[] id, byte[] newId, byte[]
            newLabel);

    // ---- Deleting ----

    /**
     * Destroys the first 20 objects of any kind that the session sees. To empty a token, call this method until
     * {@link #isCardEmptyDLL} returns 0, but limit the number of calls: objects that the token refuses to destroy stay.
     * Without a login private objects stay.
     *
     * @param slotIndex the slot
     * @return -1, or the code of ending the search; a failure to destroy an object is not reported
     */
    public static synchronized native long deleteDLL(long slotIndex);

    /**
     * Destroys the first X.509 certificate (token object) that has all five values, byte for byte.
     *
     * @param slotIndex the slot
     * @param subject its subject
     * @param issuer its issuer
     * @param serialNumber its serial number, as it was written
     * @param id its ID
     * @param label its label
     * @return a result code. 0 does not mean that the certificate was destroyed: there may be none, or the search may
     *         have failed. If the search could not begin, the code of ending it, usually
     *         CKR_OPERATION_NOT_INITIALIZED (0x91).
     */
    public static synchronized native long deleteCertificateDLL(long slotIndex, byte[] subject, byte[] issuer, byte[]
            serialNumber, byte[] id, byte[] label);

    /**
     * Destroys the first public key (token object) that has the ID.
     *
     * @param slotIndex the slot
     * @param id its ID
     * @return a result code, as in {@link #deleteCertificateDLL}
     */
    public static synchronized native long deletePublicKeyDLL(long slotIndex, byte[] id);

    /**
     * Destroys the first private key (token object) that has the ID. Requires a login as user.
     *
     * @param slotIndex the slot
     * @param id its ID
     * @return a result code, as in {@link #deleteCertificateDLL}
     */
    public static synchronized native long deletePrivateKeyDLL(long slotIndex, byte[] id);

    /**
     * Destroys all X.509 certificates (token objects), and stops at the first that cannot be destroyed.
     *
     * @param slotIndex the slot
     * @return a result code, as in {@link #deleteCertificateDLL}
     */
    public static synchronized native long deleteAllCertificatesDLL(long slotIndex);

    // ---- Using keys ----

    /**
     * Signs with the first private key and CKM_RSA_PKCS: the data is padded without hashing (PKCS #1 v1.5, block type
     * 1).
     *
     * @param slotIndex the slot
     * @param data usually a DER DigestInfo; at most the length of the modulus less 11 bytes
     * @return the signature, as long as the modulus; or a status: 0 if there is no key or the search failed, otherwise
     *         the module's code
     */
    public static synchronized native byte[] signDLL(long slotIndex, byte[] data);

    /**
     * Signs like {@link #signDLL}, with the first private key that has the ID.
     *
     * @param slotIndex the slot
     * @param data as in {@link #signDLL}
     * @param id the key's ID
     * @return the signature, as long as the modulus; or a status: 0 if there is no such key,
     *         CKR_OPERATION_NOT_INITIALIZED (0x91) if the token refused the key or the search could not begin,
     *         otherwise the module's code
     */
    public static synchronized native byte[] signWithIDDLL(long slotIndex, byte[] data, byte[] id);

    /**
     * Generates an RSA key pair on the token. Requires a login as user. The private key is private, sensitive and not
     * extractable.
     *
     * @param slotIndex the slot
     * @param modulusBits the key's size in bits
     * @param publicExponent the public exponent, usually 01 00 01
     * @param id the ID of both keys
     * @param label the label of both keys
     * @return the modulus; or a status with the module's code. The pair may exist even then, if only its modulus could
     *         not be read
     */
    public static synchronized native byte[] generateKeyPairDLL(long slotIndex, long modulusBits, byte[] publicExponent,
            byte[] id, byte[] label);

    /** {@return always 1: the library does not decrypt} */
    public static synchronized native long decryptDLL();
}
