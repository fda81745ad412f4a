package com.calvenhor.vork.utils;

import com.calvenhor.vork.utils.SmartcardSignature.Algorithm;
import java.io.IOException;
import java.security.AuthProvider;
import java.security.NoSuchAlgorithmException;
import java.security.Provider;
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
 * A token as a {@link java.security.KeyStore KeyStore} of the type {@code Smartcard}. Its keys sign with
 * {@link java.security.Signature Signature}, by PKCS #1 v1.5: {@code NONEwithRSA} (over a DigestInfo of the caller);
 * {@code SHA1}, {@code SHA224}, {@code SHA256}, {@code SHA384} and {@code SHA512withRSA}; {@code SHA3-224},
 * {@code SHA3-256}, {@code SHA3-384} and {@code SHA3-512withRSA}. Each but the first also has its OID as a name.
 *
 * <p>The provider offers only what CKM_RSA_PKCS can do: no PSS, no EC keys, no decryption and no keys that need the PIN
 * for each signature. TLS 1.3 client authentication needs PSS, so limit the client to TLS 1.2. The KeyStore is not a
 * trust store: every certificate on the token would be an anchor.
 *
 * <pre>{@code
 * Provider provider = new SmartcardProvider().configure("/usr/lib/vendor/pkcs11.so");
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
 * {@code keytool}, {@code security.provider.N=Smartcard MODULE} in {@code java.security}. Their output mixes with the
 * traces of {@link Smartcard}; let them write with an option such as {@code -file}.
 *
 * <h2>Loading</h2>
 * {@code load} binds the module, opens the slot's session and logs in, each if necessary. It never closes a session or
 * logs out, also when it fails; the application does. {@code load} with a null or empty PIN logs in as follows:
 * <ul>
 * <li>A token with a PIN pad asks for the PIN itself.
 * <li>For any other token, {@code load} asks the callback handler, if one is set and the user is not logged in.
 * <li>Without a handler, only public objects are listed.
 * </ul>
 * {@code load} fails if another module is bound than the configured one, or if another token is in the slot when the
 * handler returns. A failure with a PKCS#11 code is a {@link SmartcardException}; a wrong PIN has an
 * {@link java.security.UnrecoverableKeyException} as its cause.
 *
 * <p>While the user is logged in, {@code load} does not send the PIN, so a wrong one succeeds. To check a PIN, call
 * {@link #logout logout} first.
 *
 * <p>After the card was removed and inserted, {@code load} again; keys obtained earlier then work again, too. Some
 * modules, such as SoftHSM2, find a new or returning token only after they are bound again. {@code load} then throws a
 * {@link SmartcardException}: call {@link Smartcard#finalizeDLL finalizeDLL}, which ends all sessions, and {@code load}
 * again.
 *
 * <h2>Entries</h2>
 * Each X.509 certificate is an entry. It is a key entry, with the chain that the token holds, if an RSA private key has
 * the same ID and the ID is not empty. The alias is the label. The alias has a suffix, "/" and the first four bytes of
 * the certificate's SHA-256 in hexadecimal, if the label is empty, belongs to several visible certificates, or ends
 * like this itself. Key passwords are not used.
 *
 * <h2>Changes</h2>
 * A change is written to the token at once. {@code store} with null does nothing; with a stream it fails. A change
 * needs the login that the token requires. It lists the token before and after, so the KeyStore shows the token as it
 * is. It writes everything new before it deletes anything. If it fails, it deletes what it wrote; the message of the
 * {@link java.security.KeyStoreException} says what is left or unknown.
 * <ul>
 * <li>{@code setKeyEntry} with an RSA private key that has its CRT values imports the private key, the public key and
 *     the certificate. The ID is the SHA-1 of the modulus. If the token has the key, only the certificate is written.
 * <li>{@code setKeyEntry} with a key of this token writes the certificate, deletes the previous certificate of the
 *     alias, and labels the key pair with the alias.
 * <li>Further certificates of the chain become certificate entries, unless the token has them.
 * <li>{@code setCertificateEntry} writes a certificate whose ID is the SHA-1 of its DER encoding, then deletes the
 *     previous certificate of the alias. It changes nothing if the alias has this certificate.
 * <li>{@code deleteEntry} of a key entry deletes the private key, the public key and the certificate, in this order. It
 *     deletes only the certificate if an entry of another alias has the same key. Issuers stay. If a call fails in
 *     between, repeat {@code deleteEntry}: for a certificate entry it also deletes the certificate's public key with
 *     the same ID and label, if no private key has that ID.
 * </ul>
 * A change is refused before anything is written if
 * <ul>
 * <li>the alias is the entry of another key
 * <li>the alias would not read back: it is empty, has blanks around it or control characters, or is the label of
 *     another certificate
 * <li>several keys have the ID
 * <li>the slot has another token than the KeyStore was loaded from
 * <li>a deletion could find another certificate
 * </ul>
 * Public keys are found by ID alone. A public key that is not RSA could be taken for that of an RSA key if both have
 * the same ID and it has no private key.
 *
 * <h2>Key pairs</h2>
 * A configured provider has a KeyPairGenerator "RSA". The token generates the pair, after a login, with 2,048 bits by
 * default. The private key never leaves the token. The pair has no entry until {@code setKeyEntry} gives it a
 * certificate. Applications that request "RSA" key pairs without naming a provider get them from the first provider
 * that has them, so register this one last.
 *
 * <h2>Keys</h2>
 * A key is a slot and an ID; keys with the same slot and ID are equal. The provider verifies each signature with the
 * certificate before it returns it. A signature by another key with the same ID, or by another card, is a
 * {@link java.security.SignatureException}.
 *
 * <p>Several threads may use all objects at once, also beside calls of {@link Smartcard}.
 *
 * @see Smartcard for threads, traces, the native library and JDK 24
 */
public final class SmartcardProvider extends AuthProvider {
    private static final long serialVersionUID = 1;

    private final transient TokenName token;
    private transient volatile CallbackHandler callbackHandler;

    /** A provider that names no token yet: see {@link #configure configure}. */
    public SmartcardProvider() {
        this(null);
    }

    private SmartcardProvider(TokenName token) {
        super("Smartcard", "1.0", "RSA keys and certificates of smart cards, through PKCS#11");
        this.token = token;
        putService(new TokenService("KeyStore", "Smartcard", SmartcardKeyStore.class, List.of(), Map.of()));
        if (token != null) {
            putService(new TokenService("KeyPairGenerator", "RSA", SmartcardKeyPairGenerator.class,
                    List.of("1.2.840.113549.1.1.1"), Map.of()));
        }
        // If a caller names no provider, the JDK chooses it by the class of the key.
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
     * @param argument {@code MODULE#SLOT}, the path of a PKCS#11 module and a slot index; {@code MODULE}, for the only
     *        token that it has; {@code SLOT}, for a slot of the module that the application has bound; or a PKCS#11 URI
     *        (RFC 7512) such as {@code pkcs11:token=First;serial=0123?module-path=/usr/lib/vendor/pkcs11.so}. {@code
     *        token} and {@code serial} of a URI are compared with the label and the serial number of each token. {@code
     *        manufacturer} and {@code model} are ignored, and allowed only beside one of these.
     * @throws NullPointerException if the argument is null
     * @throws java.security.InvalidParameterException if the argument is none of these
     */
    @Override
    public Provider configure(String argument) {
        return new SmartcardProvider(TokenName.of(argument));
    }

    @Override
    public boolean isConfigured() {
        return token != null;
    }

    /**
     * {@return the slot index of the token, for the methods of {@link Smartcard}} Binds the module if none is bound.
     * The index is valid until the module is bound again.
     *
     * @throws IOException if this provider is not configured, or the token is not found
     */
    public long slotIndex() throws IOException {
        synchronized (Smartcard.class) {
            return token().find().index();
        }
    }

    private TokenName token() throws IOException {
        if (token == null) {
            throw new IOException("this provider names no token; use the one that SmartcardProvider.configure returns");
        }
        return token;
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
            logIn(handler == null ? callbackHandler : handler);
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
     * Logs the user out, for all threads and all other code in this process that uses the token. Does nothing without a
     * login.
     *
     * @throws LoginException if this provider is not configured, or the token cannot be used
     */
    @Override
    public void logout() throws LoginException {
        try {
            synchronized (Smartcard.class) {
                token().find().logOut();
            }
        } catch (IOException e) {
            throw (LoginException) new LoginException(e.getMessage()).initCause(e);
        }
    }

    /**
     * Sets the handler that provides the PIN if {@link #login login} gets no handler, or {@code KeyStore.load} no PIN.
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

    /** Logs in with the handler's PIN if one is needed. It calls the handler without the lock on Smartcard. */
    void logIn(CallbackHandler handler) throws IOException {
        String tokenDescription;
        synchronized (Smartcard.class) {
            SmartcardSlot slot = handler == null ? null : token().find();
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
                if (!tokenDescription.equals(token().find().description())) {
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
            SmartcardSlot slot = token().find();
            slot.open(pin);
            return slot;
        }
    }
}
