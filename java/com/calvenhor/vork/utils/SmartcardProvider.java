package com.calvenhor.vork.utils;

import com.calvenhor.vork.utils.SmartcardSignature.Algorithm;
import java.security.NoSuchAlgorithmException;
import java.security.Provider;
import java.util.Map;

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
 * empty one, a token with a PIN pad asks for it, and of any other the public certificates are there. Where another
 * module is bound than the one named, {@code load} refuses. A failure with a PKCS#11 code is a {@link
 * SmartcardException}; a wrong PIN has an {@link java.security.UnrecoverableKeyException} as its cause.
 *
 * <p>While the user is logged in, {@code load} with a wrong PIN succeeds: the PIN is not sent. To check a PIN, call
 * {@link Smartcard#logoutDLL logoutDLL} first.
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
 * hexadecimal. Key passwords are not used. Entries cannot be changed; the natives of {@link Smartcard} do that.
 *
 * <h2>Keys</h2>
 * A key is a slot and an ID; keys with the same slot and ID are equal. Each signature is verified with the certificate
 * before it is returned, so that one by another key of the same ID, or by another card, is a {@link
 * java.security.SignatureException}.
 *
 * <p>Several threads may use all of it at once, also beside calls of {@link Smartcard}, which share its lock.
 */
public final class SmartcardProvider extends Provider {
    private static final long serialVersionUID = 1;

    private final transient SmartcardSlot slot;

    /** A provider that names no token yet: see {@link #configure configure}. */
    public SmartcardProvider() {
        this(null);
    }

    private SmartcardProvider(SmartcardSlot slot) {
        super("Smartcard", "1.0", "RSA keys and certificates of smart cards, through PKCS#11");
        this.slot = slot;
        putService(new Service(this, "KeyStore", "Smartcard", SmartcardKeyStore.class.getName(), null, null) {
            @Override
            public Object newInstance(Object parameter) {
                return new SmartcardKeyStore(slot);
            }
        });
        // Asked for one of these without a provider, the JDK chooses it by the key's class.
        Map<String, String> keys = Map.of("SupportedKeyClasses", SmartcardKey.class.getName());
        for (Algorithm algorithm : Algorithm.values()) {
            putService(new Service(this, "Signature", algorithm.standardName(), SmartcardSignature.class.getName(),
                    algorithm.aliases(), keys) {
                @Override
                public Object newInstance(Object parameter) throws NoSuchAlgorithmException {
                    return new SmartcardSignature(algorithm);
                }
            });
        }
    }

    /**
     * {@return a provider for one token}
     *
     * @param argument {@code MODULE#SLOT}, the path of a PKCS#11 module and a slot index; {@code MODULE}, for the only
     *        token that it has; or {@code SLOT}, for a slot of the module that the application has bound
     * @throws NullPointerException if it is null
     * @throws java.security.InvalidParameterException if it is none of these
     */
    @Override
    public Provider configure(String argument) {
        return new SmartcardProvider(SmartcardSlot.named(argument));
    }

    @Override
    public boolean isConfigured() {
        return slot != null;
    }
}
