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
 * A token as a {@link java.security.KeyStore KeyStore} of the type {@code Smartcard}, whose keys sign by {@link
 * java.security.Signature Signature}: {@code NONEwithRSA} (over a DigestInfo that the caller gives); {@code SHA1},
 * {@code SHA224}, {@code SHA256}, {@code SHA384} and {@code SHA512withRSA}; {@code SHA3-224}, {@code SHA3-256}, {@code
 * SHA3-384} and {@code SHA3-512withRSA}. All are PKCS #1 v1.5, and each but the first also has its OID as a name. What
 * CKM_RSA_PKCS alone cannot do, it does not offer: PSS, and so no TLS 1.3 client authentication (limit the client to
 * TLS 1.2); EC keys; decryption; keys that want a PIN for each signature.
 *
 * <p>It is not a trust store: every certificate on the token would be an anchor. Traces go to standard output, as with
 * {@link Smartcard}; let tools write with an option such as {@code -file}.
 *
 * <pre>{@code
 * Provider provider = new SmartcardProvider().configure("/usr/lib/vendor/pkcs11.so");
 * KeyStore store = KeyStore.getInstance("Smartcard", provider);
 * store.load(null, pin);
 * Signature signature = Signature.getInstance("SHA256withRSA", provider);
 * signature.initSign((PrivateKey) store.getKey(alias, null));
 * }</pre>
 *
 * What asks for a Signature without naming a provider, as TLS and XML signatures do, needs {@code
 * Security.addProvider(provider)}. One is enough for the keys of several tokens; a second of this name is not added,
 * and {@code addProvider} returns -1. Look at the result: a provider that an earlier deployment of the application left
 * there cannot use the keys of this one. {@code Security.removeProvider("Smartcard")} removes it.
 * Configuration finds the provider by name, from the class path too: {@code -addprovider Smartcard -providerarg MODULE}
 * for {@code keytool}, {@code security.provider.N=Smartcard MODULE} in {@code java.security}.
 *
 * <h2>Loading</h2>
 * {@code load} binds the module, opens the slot's session and logs in, as far as the application has not done so;
 * nothing is closed or logged out, also when it fails: that is the application's to do. Without a PIN, or with an
 * empty one, a token with a PIN pad asks for it; for any other, the callback handler is asked if one is set and nobody
 * is logged in. Without a handler only public objects are listed. {@code load} refuses if another module is bound than
 * the one named, or if another token is in the slot when the handler returns. A failure with a PKCS#11 code is a {@link
 * SmartcardException}; a wrong PIN has an {@link java.security.UnrecoverableKeyException} as its cause.
 *
 * <p>While the user is logged in, {@code load} with a wrong PIN succeeds: the PIN is not sent. To check a PIN, call
 * {@link #logout logout} first.
 *
 * <p>After the card was removed and inserted, {@code load} again: keys obtained earlier work again, too. Some modules,
 * such as SoftHSM2, find a token again, or a new one, only when the module is bound again. {@code load} then throws a
 * {@link SmartcardException}: call {@link Smartcard#finalizeDLL finalizeDLL}, which ends all sessions, and {@code load}
 * again.
 *
 * <h2>Entries</h2>
 * Each X.509 certificate is an entry: a key entry, with the chain that the token holds, if an RSA private key has its
 * ID, which must not be empty. The alias is the label. Where that is empty, the label of several certificates that are
 * seen, or ends like this already, it is followed by "/" and the first four bytes of the certificate's SHA-256 in
 * hexadecimal. Key passwords are not used.
 *
 * <h2>Changes</h2>
 * A change is made on the token at once; {@code store} with null does nothing, and with a stream it fails. Each change
 * begins by listing the token, and lists it at the end: the KeyStore then has what the token has. It needs the login
 * that the token requires. Whatever it needs is written before anything is deleted. If it fails, what it wrote is
 * deleted again; the message of the {@link java.security.KeyStoreException} says what is left and what is unknown.
 * <ul>
 * <li>{@code setKeyEntry} with an RSA private key that has its CRT values imports it, with its public key and its
 *     certificate. The ID is the SHA-1 of the modulus. If the token has the key, only the certificate is written.
 * <li>{@code setKeyEntry} with a key of this token writes the certificate, deletes the one that the alias had, and
 *     gives the key pair the alias as its label.
 * <li>Further certificates of the chain become certificate entries, unless the token has them.
 * <li>{@code setCertificateEntry} writes a certificate whose ID is the SHA-1 of its DER encoding, then deletes the one
 *     that the alias had. It changes nothing if the alias has this certificate.
 * <li>{@code deleteEntry} of a key entry deletes the private key, the public key and the certificate, in this order; if
 *     an entry of another alias has the same key, only the certificate. Issuers stay. If a call fails in between,
 *     {@code deleteEntry} again finishes: with a certificate entry it also deletes the certificate's public key of the
 *     same ID and label, if no private key has that ID.
 * </ul>
 * A change is refused before anything is written if the alias is another key's entry; if it would not read back (empty,
 * blanks around it, control characters, the label of another certificate); if several keys have the ID; if the slot
 * has another token than the KeyStore was loaded from; or if a deletion could find another certificate. The token's
 * public keys are found by ID alone: one of another type with the ID of an RSA key, but without a private key, could be
 * taken for it.
 *
 * <h2>Key pairs</h2>
 * A configured provider has a KeyPairGenerator "RSA": 2,048 bits by default, generated by the token, after a login. The
 * private key never leaves the token. The pair has no entry until {@code setKeyEntry} gives it a certificate. An
 * application that asks for "RSA" key pairs without naming a provider gets them from the first provider that has them:
 * add this one behind the others.
 *
 * <h2>Keys</h2>
 * A key is a slot and an ID; keys with the same slot and ID are equal. Each signature is verified with the certificate
 * before it is returned, so that one by another key of the same ID, or by another card, is a {@link
 * java.security.SignatureException}.
 *
 * <p>Several threads may use all of it at once, also beside calls of {@link Smartcard}, which share its lock.
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
        // Asked for one of these without a provider, the JDK chooses it by the key's class.
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
     *        (RFC 7512) such as {@code pkcs11:token=First;serial=0123?module-path=/usr/lib/vendor/pkcs11.so}. Of a URI,
     *        {@code token} and {@code serial} are compared with the label and the serial number of each token. {@code
     *        manufacturer} and {@code model}, which cannot be compared, may stand beside them.
     * @throws NullPointerException if it is null
     * @throws java.security.InvalidParameterException if it is none of these
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
     * {@return the slot index of the token, for the methods of {@link Smartcard}} It is valid until the module is bound
     * again. Binds the module if none is bound.
     *
     * @throws IOException if this provider is not configured, or if the token cannot be found
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
     * @param handler asked for the PIN, by a {@link PasswordCallback}, unless the token has a PIN pad; null for the
     *        handler of {@link #setCallbackHandler setCallbackHandler}
     * @throws FailedLoginException if the PIN is wrong
     * @throws LoginException if this provider is not configured, if nobody gives a PIN, or if the token cannot be used
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
     * Logs the user out, for all threads and everything else in this process that uses the token. Does nothing if
     * nobody is logged in.
     *
     * @throws LoginException if this provider is not configured, or if the token cannot be used
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
     * Sets who is asked for the PIN where {@link #login login} is given nobody, or {@code KeyStore.load} no PIN.
     *
     * @param handler takes a {@link PasswordCallback}; null for nobody
     */
    @Override
    public void setCallbackHandler(CallbackHandler handler) {
        callbackHandler = handler;
    }

    CallbackHandler callbackHandler() {
        return callbackHandler;
    }

    /** Asks the handler for the PIN, outside the natives' lock, and logs in, if a PIN is needed. */
    void logIn(CallbackHandler handler) throws IOException {
        String asked;
        synchronized (Smartcard.class) {
            SmartcardSlot slot = handler == null ? null : token().find();
            if (slot == null || !slot.wantsPin()) {
                return;
            }
            asked = slot.description();
        }
        PasswordCallback callback = new PasswordCallback("PIN of the token in slot " + asked + ": ", false);
        char[] pin = null;
        try {
            handler.handle(new Callback[] {callback});
            pin = callback.getPassword();
            synchronized (Smartcard.class) {
                if (!asked.equals(token().find().description())) {
                    throw new IOException("the PIN was not sent, because it was entered for slot " + asked
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

    /** Binds the module, opens the token's session and logs in, as far as each is not done yet. */
    SmartcardSlot open(char[] pin) throws IOException {
        synchronized (Smartcard.class) {
            SmartcardSlot slot = token().find();
            slot.open(pin);
            return slot;
        }
    }
}
