package com.calvenhor.vork.utils;

import com.calvenhor.vork.utils.SmartcardSignature.Algorithm;
import java.io.IOException;
import java.security.AuthProvider;
import java.security.NoSuchAlgorithmException;
import java.security.UnrecoverableKeyException;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import javax.security.auth.Subject;
import javax.security.auth.callback.Callback;
import javax.security.auth.callback.CallbackHandler;
import javax.security.auth.callback.PasswordCallback;
import javax.security.auth.callback.UnsupportedCallbackException;
import javax.security.auth.login.FailedLoginException;
import javax.security.auth.login.LoginException;

/**
 * Provides a token as a {@link java.security.KeyStore KeyStore} of the type {@code Smartcard}. Its keys sign through
 * {@link java.security.Signature Signature} with PKCS #1 v1.5: {@code NONEwithRSA} (over a DigestInfo of the caller);
 * {@code SHA1}, {@code SHA224}, {@code SHA256}, {@code SHA384} and {@code SHA512withRSA}; {@code SHA3-224},
 * {@code SHA3-256}, {@code SHA3-384} and {@code SHA3-512withRSA}. All except {@code NONEwithRSA} can also be requested
 * by OID.
 *
 * <p>The provider signs only with CKM_RSA_PKCS. It supports no PSS, no EC keys, no decryption and no keys that need the
 * PIN for each signature. TLS 1.3 client authentication needs PSS, so limit the client to TLS 1.2. Do not use the
 * KeyStore as a trust store: every certificate on the token would become a trust anchor.
 *
 * <pre>{@code
 * SmartcardProvider provider = new SmartcardProvider().configure("/usr/lib/vendor/pkcs11.so");
 * KeyStore store = KeyStore.getInstance("Smartcard", provider);
 * store.load(null, pin);
 * Signature signature = Signature.getInstance("SHA256withRSA", provider);
 * signature.initSign((PrivateKey) store.getKey(alias, null));
 * }</pre>
 *
 * <h2>Registration</h2>
 * APIs that look up a Signature without naming a provider (TLS, XML signatures) need
 * {@code Security.addProvider(provider)}. One provider serves the keys of several tokens. If a provider of this name is
 * registered, {@code addProvider} adds nothing and returns -1. Check this result: a provider that an earlier deployment
 * of the application registered cannot use the new keys. {@code Security.removeProvider("Smartcard")} removes it.
 * <p>Tools find the provider by name, also on the class path: {@code -addprovider Smartcard -providerarg MODULE} for
 * {@code keytool}, {@code security.provider.N=Smartcard MODULE} in {@code java.security}. Their standard output also
 * contains the traces of {@link Smartcard}: write results to a file, with an option such as {@code -file}.
 *
 * <h2>Loading</h2>
 * {@code load} binds the module, opens the slot's session and logs in, where necessary. It never closes a session or
 * logs out, even if it fails: {@link #logout logout} ends the login, {@link Smartcard#finalizeDLL finalizeDLL} all
 * sessions. {@code load} with a null or empty PIN logs in as follows:
 * <ul>
 * <li>A token with a PIN pad asks for the PIN itself.
 * <li>For any other token that requires a login, {@code load} asks the callback handler, unless the user is logged in.
 *     Without a handler, or if the handler sets no PIN, it lists only public objects.
 * </ul>
 * {@code load} fails if a module other than the configured one is bound, or if another token is in the slot when the
 * handler returns. It throws a {@link SmartcardException} if the failure has a PKCS#11 code. For a wrong or
 * unacceptable PIN the cause of this exception is an {@link java.security.UnrecoverableKeyException}.
 *
 * <p>While the user is logged in, {@code load} does not send the PIN, and succeeds even if it is wrong. To check a PIN,
 * call {@link #logout logout} first.
 *
 * <p>After the card was removed and inserted, {@code load} again; keys obtained earlier then work again. Some modules,
 * such as SoftHSM2, find a new or returning token only after a rebind. {@code load} then throws an
 * {@link IOException}, usually a {@link SmartcardException}: call {@code finalizeDLL} and {@code load} again.
 *
 * <h2>Entries</h2>
 * Each X.509 certificate that Java can parse is an entry; copies with one alias are one entry. An entry is a key entry
 * if the certificate's public key is RSA, its ID is not empty, and an RSA private key has the same ID. The chain has
 * the issuers that are on the token. Key passwords are not used.
 * <p>The alias is the label, without blanks around it and without control characters. It gets a suffix, "/" and the
 * first four bytes of the certificate's SHA-256 in hexadecimal, if the label is empty, is shared by different
 * certificates, or already ends in such a suffix.
 *
 * <h2>Changes</h2>
 * A change is written to the token at once. {@code store} with null does nothing; with a stream it fails. A change
 * needs the login that the token requires. It lists the token before and after, so the KeyStore then shows the current
 * objects. It writes new objects before it deletes old ones. If setting an entry fails before the first deletion, the
 * new objects are deleted. If only the labelling of the keys fails, the entry stays set. The message of the {@link
 * java.security.KeyStoreException} says what is left or unknown.
 * <ul>
 * <li>{@code setKeyEntry} with an RSA private key that has its CRT values imports the private key, the public key and
 *     the certificate. The ID is the SHA-1 of the modulus. If an RSA private key of the token has this ID, no key is
 *     written. If the alias is a certificate entry, its previous certificate is then deleted.
 * <li>{@code setKeyEntry} with a key of this token writes the certificate, deletes the previous certificate of the
 *     alias, and labels the key pair with the alias.
 * <li>Further certificates of the chain become certificate entries, unless the token has them.
 * <li>{@code setCertificateEntry} writes a certificate whose ID is the SHA-1 of its DER encoding, then deletes the
 *     previous certificate of the alias. It changes nothing if the alias has this certificate.
 * <li>{@code deleteEntry} of a key entry deletes the private key, the public key and the certificate, in this order. It
 *     deletes only the certificate if a certificate of another alias has the same ID. The issuers' certificates stay on
 *     the token. If a call of the module fails in between, repeat {@code deleteEntry}: {@code deleteEntry} of a
 *     certificate entry also deletes the certificate's public key with the same ID and label, unless a private key has
 *     that ID or a certificate of another alias needs the public key.
 * </ul>
 * A change is refused before anything is written, for example if
 * <ul>
 * <li>the alias belongs to the entry of another key ({@code setKeyEntry}) or of any key ({@code setCertificateEntry})
 * <li>the alias would not read back: it is empty, has blanks around it or control characters, ends in a suffix, or is
 *     the label of another certificate
 * <li>several keys have the ID of the key
 * <li>the token in the slot is not the one from which the KeyStore was loaded
 * <li>a deletion could delete another certificate instead
 * </ul>
 * Public keys are found by ID alone. If a public key that is not RSA has the ID of an RSA key, {@code setKeyEntry} may
 * relabel it. {@code deleteEntry} may delete it if its private key is not on the token.
 *
 * <h2>Key pairs</h2>
 * A configured provider has a KeyPairGenerator "RSA". The token generates the pair, after a login, with 2,048 bits by
 * default. If that fails, a {@link java.security.ProviderException} is thrown and the pair is deleted, or the message
 * says what is left. The private key never leaves the token. The pair has no entry until {@code setKeyEntry} gives it a
 * certificate. Register the provider last: the first registered provider with a KeyPairGenerator "RSA" generates the
 * pairs of applications that name no provider.
 *
 * <h2>Keys</h2>
 * A key is identified by its slot index and its ID; keys with the same slot index and ID are equal. The provider
 * verifies each signature with the public key of the certificate before returning it. {@code sign} throws a
 * {@link java.security.SignatureException} if another key with the same ID, or another card, has signed.
 *
 * <p>Several threads may share a provider, a KeyStore and its keys, and call {@link Smartcard} at the same time. Each
 * needs its own Signature and KeyPairGenerator.
 *
 * @see Smartcard for threads, traces, the native library and JDK 24
 */
public final class SmartcardProvider extends AuthProvider {
    private static final long serialVersionUID = 1;

    private final transient TokenName tokenName;
    private transient volatile CallbackHandler callbackHandler;

    /** A provider that names no token yet: see {@link #configure configure}. */
    public SmartcardProvider() {
        this(null);
    }

    private SmartcardProvider(TokenName tokenName) {
        super("Smartcard", "1.0", "RSA keys and certificates of smart cards, through PKCS#11");
        this.tokenName = tokenName;
        putService(new TokenService("KeyStore", "Smartcard", SmartcardKeyStore.class, List.of(), Map.of()));
        if (tokenName != null) {
            putService(new TokenService("KeyPairGenerator", "RSA", SmartcardKeyPairGenerator.class,
                    List.of("1.2.840.113549.1.1.1"), Map.of()));
        }
        // If a caller names no provider, the JDK chooses the provider by the class of the key.
        Map<String, String> keys = Map.of("SupportedKeyClasses", SmartcardKey.class.getName());
        for (Algorithm algorithm : Algorithm.values()) {
            putService(new TokenService("Signature", algorithm.standardName(), SmartcardSignature.class,
                    algorithm.aliases(), keys));
        }
    }

    private final class TokenService extends Service {
        TokenService(String type, String algorithm, Class<?> spi, List<String> aliases,
                Map<String, String> attributes) {
            super(SmartcardProvider.this, type, algorithm, spi.getName(), aliases, attributes);
        }

        @Override
        public Object newInstance(Object parameter) throws NoSuchAlgorithmException {
            return switch (getType()) {
                case "KeyStore" -> new SmartcardKeyStore(SmartcardProvider.this);
                case "KeyPairGenerator" -> new SmartcardKeyPairGenerator(SmartcardProvider.this);
                default -> new SmartcardSignature(Algorithm.valueOf(getAlgorithm().replace('-', '_')));
            };
        }
    }

    /**
     * {@return a provider for one token}
     *
     * @param argument one of
     *        <ul>
     *        <li>{@code MODULE#SLOT}: the path of a PKCS#11 module and a slot index
     *        <li>{@code MODULE}: the only token of that module
     *        <li>{@code SLOT}: a slot of the module that the application has bound
     *        <li>a PKCS#11 URI (RFC 7512), such as
     *            {@code pkcs11:token=First;serial=0123?module-path=/usr/lib/vendor/pkcs11.so}. {@code token} and {@code
     *            serial} are compared with the label and the serial number of each token. {@code manufacturer} and
     *            {@code model} are accepted only together with one of these two, and are ignored. Other attributes are
     *            refused. Without {@code module-path} the bound module is used.
     *        </ul>
     * @throws NullPointerException if the argument is null
     * @throws java.security.InvalidParameterException if the argument is none of these
     */
    @Override
    public SmartcardProvider configure(String argument) {
        return new SmartcardProvider(TokenName.of(argument));
    }

    @Override
    public boolean isConfigured() {
        return tokenName != null;
    }

    /**
     * {@return the slot index of the token, for the methods of {@link Smartcard}} Binds the module if none is bound.
     * The index is valid until a rebind.
     *
     * @throws IOException if this provider is not configured, its module cannot be bound, or not exactly one token
     *         matches. A configured slot index is returned unchecked.
     */
    public long slotIndex() throws IOException {
        synchronized (Smartcard.class) {
            return tokenName().find().index();
        }
    }

    private TokenName tokenName() throws IOException {
        if (tokenName == null) {
            throw new IOException("this provider names no token; use the one that SmartcardProvider.configure returns");
        }
        return tokenName;
    }

    // ---- Logins ----

    /**
     * Logs in as the token's user, for all threads. Does nothing if the user is logged in or the token needs no login.
     *
     * @param subject not used
     * @param handler provides the PIN, through a {@link PasswordCallback}, unless the token has a PIN pad; null for the
     *        handler of {@link #setCallbackHandler setCallbackHandler}
     * @throws FailedLoginException if the PIN is wrong
     * @throws LoginException if this provider is not configured, there is no PIN, or the token cannot be used
     */
    @Override
    public void login(Subject subject, CallbackHandler handler) throws LoginException {
        try {
            logInWith(handler == null ? callbackHandler : handler);
            synchronized (Smartcard.class) {
                open(null).requireLogin();
            }
        } catch (IOException e) {
            LoginException failure = e.getCause() instanceof UnrecoverableKeyException
                    ? new FailedLoginException(e.getMessage()) : new LoginException(e.getMessage());
            throw (LoginException) failure.initCause(e);
        }
    }

    /**
     * Logs the user out, for all threads and all other code in this process that uses the token. Does nothing if the
     * user is not logged in. Fails if the session was closed.
     *
     * @throws LoginException if this provider is not configured, or the token cannot be used
     */
    @Override
    public void logout() throws LoginException {
        try {
            synchronized (Smartcard.class) {
                tokenName().find().logOut();
            }
        } catch (IOException e) {
            throw (LoginException) new LoginException(e.getMessage()).initCause(e);
        }
    }

    /**
     * Sets the handler that provides the PIN if {@link #login login} gets no handler or {@code KeyStore.load} no PIN,
     * and for the KeyPairGenerator.
     *
     * @param handler supports {@link PasswordCallback}; null for none
     */
    @Override
    public void setCallbackHandler(CallbackHandler handler) {
        callbackHandler = handler;
    }

    CallbackHandler callbackHandler() {
        return callbackHandler;
    }

    /** Logs in with the PIN from the handler, if a login is needed. Calls the handler without the lock on Smartcard. */
    void logInWith(CallbackHandler handler) throws IOException {
        String tokenDescription;
        synchronized (Smartcard.class) {
            SmartcardSlot slot = handler == null ? null : tokenName().find();
            if (slot == null || !slot.needsPin()) {
                return;
            }
            tokenDescription = slot.description();
        }
        PasswordCallback callback = new PasswordCallback("PIN of the token in slot " + tokenDescription + ": ", false);
        char[] pin = null;
        try {
            handler.handle(new Callback[] {callback});
            pin = callback.getPassword();
            synchronized (Smartcard.class) {
                if (!tokenDescription.equals(tokenName().find().description())) {
                    throw new IOException("the PIN was not sent, because it was entered for slot " + tokenDescription
                            + ", and another token is there now");
                }
                open(pin);
            }
        } catch (UnsupportedCallbackException e) {
            throw new IOException("the callback handler does not support PasswordCallback", e);
        } finally {
            callback.clearPassword();
            if (pin != null) {
                Arrays.fill(pin, ' ');
            }
        }
    }

    /** Binds the module, opens the token's session and logs in, each if necessary. */
    SmartcardSlot open(char[] pin) throws IOException {
        synchronized (Smartcard.class) {
            SmartcardSlot slot = tokenName().find();
            slot.open(pin);
            return slot;
        }
    }
}
