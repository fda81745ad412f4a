package com.calvenhor.vork.utils;

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.ByteBuffer;
import java.security.GeneralSecurityException;
import java.security.Key;
import java.security.KeyStore;
import java.security.KeyStoreSpi;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.security.cert.Certificate;
import java.security.cert.CertificateException;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAPublicKey;
import java.util.ArrayList;
import java.util.Collections;
import java.util.Comparator;
import java.util.Date;
import java.util.Enumeration;
import java.util.HashMap;
import java.util.HexFormat;
import java.util.LinkedHashMap;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.stream.Collectors;
import javax.security.auth.x500.X500Principal;

/** The certificates of a token by alias, as they were when it was last loaded; those with a private key come first. */
final class SmartcardKeyStore extends KeyStoreSpi {
    private record Item(String label, X509Certificate certificate, SmartcardKey key) {
    }

    /** A token's content. A caller may ask for every chain, so issuers are indexed by subject. */
    private record Listing(Map<String, Item> byAlias, Map<X500Principal, List<X509Certificate>> bySubject) {
    }

    private static final Item NONE = new Item(null, null, null);

    private final SmartcardSlot configured;
    private volatile Listing listing = new Listing(Map.of(), Map.of());

    /** @param configured null if the provider was not configured */
    SmartcardKeyStore(SmartcardSlot configured) {
        this.configured = configured;
    }

    // ---- Loading ----

    @Override
    public void engineLoad(InputStream stream, char[] pin)
            throws IOException, NoSuchAlgorithmException, CertificateException {
        if (configured == null) {
            throw new IOException("no token is named: use what SmartcardProvider.configure returns");
        }
        if (stream != null) {
            throw new IOException("the entries are on the token: load with null in place of the stream");
        }
        SmartcardSlot slot;
        List<byte[][]> privateKeys;
        List<byte[][]> certificates;
        synchronized (Smartcard.class) {
            slot = configured.open(pin);
            privateKeys = slot.privateKeys();
            certificates = slot.certificates();
        }
        listing = parse(slot, privateKeys, certificates);
    }

    /** Makes entries of the private keys and certificates that a slot has listed. */
    private static Listing parse(SmartcardSlot slot, List<byte[][]> privateKeys, List<byte[][]> certificates)
            throws NoSuchAlgorithmException, CertificateException {
        // Objects without an ID do not belong together for that.
        Set<ByteBuffer> keyIds = privateKeys.stream().map(row -> ByteBuffer.wrap(row[0]))
                .filter(ByteBuffer::hasRemaining).collect(Collectors.toSet());
        CertificateFactory factory = CertificateFactory.getInstance("X.509");
        List<Item> found = new ArrayList<>();
        Map<X500Principal, List<X509Certificate>> bySubject = new HashMap<>();
        for (byte[][] row : certificates) {
            try {
                X509Certificate certificate =
                        (X509Certificate) factory.generateCertificate(new ByteArrayInputStream(row[2]));
                SmartcardKey key = certificate.getPublicKey() instanceof RSAPublicKey publicKey
                        && publicKey.getAlgorithm().equals("RSA") // and not RSASSA-PSS
                        && keyIds.contains(ByteBuffer.wrap(row[0]))
                        ? new SmartcardKey(slot, row[0], publicKey) : null;
                bySubject.computeIfAbsent(certificate.getSubjectX500Principal(), name -> new ArrayList<>())
                        .add(certificate);
                found.add(new Item(SmartcardSlot.text(row[1]), certificate, key));
            } catch (CertificateException | RuntimeException e) {
                // An unreadable one must not keep the others away. Another provider's factory may return null, or
                // throw an unchecked exception when a part is asked for.
            }
        }
        return new Listing(byAlias(found), bySubject);
    }

    /** A label that stands for several certificates, or for none, is told apart by the certificate. */
    private static Map<String, Item> byAlias(List<Item> items) throws NoSuchAlgorithmException, CertificateException {
        Map<String, Set<X509Certificate>> namesakes = items.stream().collect(
                Collectors.groupingBy(Item::label, Collectors.mapping(Item::certificate, Collectors.toSet())));
        // Copies of a certificate with one label are one entry: the first, so that it is one with a key.
        items.sort(Comparator.comparing(item -> item.key == null));
        Map<String, Item> byAlias = new LinkedHashMap<>();
        for (Item item : items) {
            String alias = item.label;
            // A label that looks like another's alias could take its place.
            if (alias.isEmpty() || namesakes.get(alias).size() > 1 || alias.matches("(?s).*/[0-9a-f]{8}")) {
                byte[] digest = MessageDigest.getInstance("SHA-256").digest(item.certificate.getEncoded());
                alias += "/" + HexFormat.of().formatHex(digest, 0, 4);
            }
            byAlias.putIfAbsent(alias, item);
        }
        return Collections.unmodifiableMap(byAlias);
    }

    // ---- Entries ----

    @Override
    public Enumeration<String> engineAliases() {
        return Collections.enumeration(listing.byAlias.keySet());
    }

    @Override
    public int engineSize() {
        return listing.byAlias.size();
    }

    @Override
    public boolean engineContainsAlias(String alias) {
        return listing.byAlias.containsKey(alias);
    }

    private Item item(String alias) {
        return listing.byAlias.getOrDefault(alias, NONE);
    }

    @Override
    public boolean engineIsKeyEntry(String alias) {
        return item(alias).key != null;
    }

    @Override
    public boolean engineIsCertificateEntry(String alias) {
        Item item = item(alias);
        return item.certificate != null && item.key == null;
    }

    @Override
    public Key engineGetKey(String alias, char[] password) {
        return item(alias).key;
    }

    @Override
    public Certificate engineGetCertificate(String alias) {
        return item(alias).certificate;
    }

    @Override
    public Certificate[] engineGetCertificateChain(String alias) {
        Item item = item(alias);
        return item.key == null ? null : chain(item.certificate);
    }

    private Certificate[] chain(X509Certificate first) {
        Set<X509Certificate> chain = new LinkedHashSet<>();
        for (X509Certificate next = first; next != null && chain.add(next); ) {
            next = issuer(next);
        }
        return chain.toArray(new Certificate[0]);
    }

    /** The issuer's, of several the one that is valid longest; null if there is none, or for a root. */
    private X509Certificate issuer(X509Certificate certificate) {
        X500Principal name = certificate.getIssuerX500Principal();
        return name.equals(certificate.getSubjectX500Principal()) ? null
                : listing.bySubject.getOrDefault(name, List.of()).stream()
                .filter(other -> isSigned(certificate, other))
                .max(Comparator.comparing(X509Certificate::getNotAfter)).orElse(null);
    }

    private static boolean isSigned(X509Certificate certificate, X509Certificate issuer) {
        try {
            certificate.verify(issuer.getPublicKey());
            return true;
        } catch (GeneralSecurityException e) {
            return false;
        }
    }

    @Override
    public String engineGetCertificateAlias(Certificate certificate) {
        return listing.byAlias.entrySet().stream().filter(entry -> entry.getValue().certificate.equals(certificate))
                .map(Map.Entry::getKey).findFirst().orElse(null);
    }

    /** A token keeps no such date: the certificate's first day. */
    @Override
    public Date engineGetCreationDate(String alias) {
        Item item = item(alias);
        return item.certificate == null ? null : item.certificate.getNotBefore();
    }

    /** The inherited one wants a password for a key, and none for a certificate. */
    @Override
    public KeyStore.Entry engineGetEntry(String alias, KeyStore.ProtectionParameter protection) {
        Item item = item(alias);
        return item.key != null ? new KeyStore.PrivateKeyEntry(item.key, chain(item.certificate))
                : item.certificate != null ? new KeyStore.TrustedCertificateEntry(item.certificate) : null;
    }

    // ---- Changes, which are refused ----

    private static UnsupportedOperationException readOnly() {
        return new UnsupportedOperationException("the KeyStore only reads: use Smartcard."
                + "writeCertificateAndPrivateKeyDLL, writeCertificateDLL, deleteCertificateDLL, deletePrivateKeyDLL");
    }

    @Override
    public void engineSetKeyEntry(String alias, Key key, char[] password, Certificate[] chain) {
        throw readOnly();
    }

    @Override
    public void engineSetKeyEntry(String alias, byte[] key, Certificate[] chain) {
        throw readOnly();
    }

    @Override
    public void engineSetCertificateEntry(String alias, Certificate certificate) {
        throw readOnly();
    }

    @Override
    public void engineSetEntry(String alias, KeyStore.Entry entry, KeyStore.ProtectionParameter protection) {
        throw readOnly();
    }

    @Override
    public void engineDeleteEntry(String alias) {
        throw readOnly();
    }

    @Override
    public void engineStore(OutputStream stream, char[] password) {
        throw readOnly();
    }

    @Override
    public void engineStore(KeyStore.LoadStoreParameter parameter) {
        throw readOnly();
    }
}
