package com.calvenhor.vork.utils;

import com.calvenhor.vork.utils.SmartcardContents.Entry;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.security.GeneralSecurityException;
import java.security.Key;
import java.security.KeyStore;
import java.security.KeyStoreException;
import java.security.KeyStoreSpi;
import java.security.NoSuchAlgorithmException;
import java.security.cert.Certificate;
import java.security.cert.CertificateException;
import java.util.Collections;
import java.util.Date;
import java.util.Enumeration;

/** The entries of a token as of the last load or change through this KeyStore. Key entries come first. */
final class SmartcardKeyStore extends KeyStoreSpi {
    private interface Step {
        void run(SmartcardChange change) throws IOException, GeneralSecurityException;
    }

    private final SmartcardProvider provider;
    private volatile SmartcardContents contents; // null before the first load; KeyStore refuses calls until then

    SmartcardKeyStore(SmartcardProvider provider) {
        this.provider = provider;
    }

    // ---- Loading ----

    @Override
    public void engineLoad(InputStream stream, char[] pin)
            throws IOException, NoSuchAlgorithmException, CertificateException {
        if (stream != null) {
            throw new IOException("the entries are on the token; pass null as the stream");
        }
        if (pin == null || pin.length == 0) {
            provider.logInWith(provider.callbackHandler());
        }
        load(pin);
    }

    /** The inherited method asks the callback handler even if no PIN is needed. */
    @Override
    public void engineLoad(KeyStore.LoadStoreParameter parameter)
            throws IOException, NoSuchAlgorithmException, CertificateException {
        if (parameter != null
                && parameter.getProtectionParameter() instanceof KeyStore.CallbackHandlerProtection protection) {
            provider.logInWith(protection.getCallbackHandler());
            load(null);
        } else {
            super.engineLoad(parameter);
        }
    }

    private void load(char[] pin) throws IOException, NoSuchAlgorithmException, CertificateException {
        synchronized (Smartcard.class) {
            contents = SmartcardContents.of(provider.open(pin));
        }
    }

    // ---- Entries ----

    @Override
    public Enumeration<String> engineAliases() {
        return Collections.enumeration(contents.aliases());
    }

    @Override
    public int engineSize() {
        return contents.aliases().size();
    }

    @Override
    public boolean engineContainsAlias(String alias) {
        return contents.aliases().contains(alias);
    }

    @Override
    public boolean engineIsKeyEntry(String alias) {
        return contents.entry(alias).key() != null;
    }

    @Override
    public boolean engineIsCertificateEntry(String alias) {
        return contents.entry(alias).certificate() != null && !engineIsKeyEntry(alias);
    }

    @Override
    public Key engineGetKey(String alias, char[] password) {
        return contents.entry(alias).key();
    }

    @Override
    public Certificate engineGetCertificate(String alias) {
        return contents.entry(alias).certificate();
    }

    @Override
    public Certificate[] engineGetCertificateChain(String alias) {
        Entry entry = contents.entry(alias);
        return entry.key() == null ? null : contents.chain(entry.certificate());
    }

    @Override
    public String engineGetCertificateAlias(Certificate certificate) {
        SmartcardContents contents = this.contents;
        return contents.aliases().stream().filter(alias -> contents.entry(alias).certificate().equals(certificate))
                .findFirst().orElse(null);
    }

    /** {@return the start of the certificate's validity, since a token stores no creation date} */
    @Override
    public Date engineGetCreationDate(String alias) {
        Entry entry = contents.entry(alias);
        return entry.certificate() == null ? null : entry.certificate().getNotBefore();
    }

    /** The inherited method requires a password for a key, and refuses one for a certificate. */
    @Override
    public KeyStore.Entry engineGetEntry(String alias, KeyStore.ProtectionParameter protection) {
        SmartcardContents contents = this.contents;
        Entry entry = contents.entry(alias);
        return entry.key() != null ? new KeyStore.PrivateKeyEntry(entry.key(), contents.chain(entry.certificate()))
                : entry.certificate() != null ? new KeyStore.TrustedCertificateEntry(entry.certificate()) : null;
    }

    // ---- Changes ----

    private void change(Step step) throws KeyStoreException {
        synchronized (Smartcard.class) {
            try {
                SmartcardChange change = new SmartcardChange(contents);
                try {
                    step.run(change);
                } finally {
                    contents = change.contents();
                }
            } catch (KeyStoreException e) {
                throw e;
            } catch (IOException | GeneralSecurityException e) {
                throw new KeyStoreException(e.getMessage(), e);
            }
        }
    }

    @Override
    public void engineSetKeyEntry(String alias, Key key, char[] password, Certificate[] chain)
            throws KeyStoreException {
        change(change -> change.setKeyEntry(alias, key, chain));
    }

    @Override
    public void engineSetKeyEntry(String alias, byte[] key, Certificate[] chain) throws KeyStoreException {
        throw new KeyStoreException("an encrypted key cannot be imported; pass a PrivateKey");
    }

    @Override
    public void engineSetCertificateEntry(String alias, Certificate certificate) throws KeyStoreException {
        change(change -> change.setCertificateEntry(alias, certificate));
    }

    /** The inherited method requires a password for a key. */
    @Override
    public void engineSetEntry(String alias, KeyStore.Entry entry, KeyStore.ProtectionParameter protection)
            throws KeyStoreException {
        if (entry instanceof KeyStore.PrivateKeyEntry pair) {
            engineSetKeyEntry(alias, pair.getPrivateKey(), null, pair.getCertificateChain());
        } else if (entry instanceof KeyStore.TrustedCertificateEntry trusted) {
            engineSetCertificateEntry(alias, trusted.getTrustedCertificate());
        } else {
            throw new KeyStoreException("expected a PrivateKeyEntry or a TrustedCertificateEntry, not " + entry);
        }
    }

    @Override
    public void engineDeleteEntry(String alias) throws KeyStoreException {
        change(change -> change.deleteEntry(alias));
    }

    /** Does nothing without a stream: each change is written to the token at once. */
    @Override
    public void engineStore(OutputStream stream, char[] password) throws IOException {
        if (stream != null) {
            throw new IOException("the entries are on the token, and its keys cannot be exported; "
                    + "pass null as the stream");
        }
    }

    @Override
    public void engineStore(KeyStore.LoadStoreParameter parameter) {
        if (parameter != null) {
            throw new IllegalArgumentException("the entries are on the token; pass null as the parameter");
        }
    }
}
