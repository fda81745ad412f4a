package com.calvenhor.vork.utils;

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.security.GeneralSecurityException;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.security.cert.CertificateException;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAPublicKey;
import java.util.ArrayList;
import java.util.Collections;
import java.util.Comparator;
import java.util.HexFormat;
import java.util.LinkedHashMap;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Map;
import java.util.Objects;
import java.util.Set;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import javax.security.auth.x500.X500Principal;

/** The certificates and RSA private keys on a token when it was listed. Immutable: a change lists the token again. */
final class SmartcardContents {
    /**
     * A certificate object. Equal items are copies.
     *
     * @param certificate null if it cannot be parsed
     */
    record Item(ByteBuffer id, ByteBuffer label, X509Certificate certificate) {
    }

    /**
     * The entry of an alias: an item, or several copies of it.
     *
     * @param key null for a certificate entry
     */
    record Entry(Item item, SmartcardKey key) {
        X509Certificate certificate() {
            return item.certificate;
        }
    }

    private static final Entry NONE = new Entry(new Item(null, null, null), null);

    private final SmartcardSlot slot;
    private final String tokenDescription;
    private final List<Item> items;
    private final List<ByteBuffer> keyIds;
    private final Map<String, Set<X509Certificate>> byLabel;
    private final Map<X500Principal, Set<X509Certificate>> bySubject;
    private final Map<String, Entry> entries = new LinkedHashMap<>();

    private SmartcardContents(SmartcardSlot slot, String tokenDescription, List<Item> items, List<ByteBuffer> keyIds)
            throws NoSuchAlgorithmException, CertificateException {
        this.slot = slot;
        this.tokenDescription = tokenDescription;
        this.items = items;
        this.keyIds = keyIds;
        List<Item> parsed = items.stream().filter(item -> item.certificate != null).toList();
        byLabel = parsed.stream().collect(Collectors.groupingBy(SmartcardContents::text,
                Collectors.mapping(Item::certificate, Collectors.toSet())));
        bySubject = parsed.stream().map(Item::certificate).collect(
                Collectors.groupingBy(X509Certificate::getSubjectX500Principal, Collectors.toSet()));
        // Copies of a certificate with one alias are one entry, under any IDs. Those with a key come first.
        for (Entry entry : parsed.stream().map(item -> new Entry(item, key(item)))
                .sorted(Comparator.comparing(entry -> entry.key == null)).toList()) {
            entries.putIfAbsent(alias(entry.item), entry);
        }
    }

    /** Lists the token, and requires that it is still present. */
    static SmartcardContents of(SmartcardSlot slot) throws IOException, NoSuchAlgorithmException, CertificateException {
        List<byte[][]> privateKeys;
        List<byte[][]> certificates;
        String tokenDescription;
        synchronized (Smartcard.class) {
            privateKeys = slot.privateKeys();
            certificates = slot.certificates();
            slot.requireToken();
            tokenDescription = slot.description();
        }
        CertificateFactory factory = CertificateFactory.getInstance("X.509");
        List<Item> items = new ArrayList<>();
        for (byte[][] row : certificates) {
            items.add(new Item(ByteBuffer.wrap(row[0]), ByteBuffer.wrap(row[1]), parse(factory, row[2])));
        }
        return new SmartcardContents(slot, tokenDescription, items,
                privateKeys.stream().map(row -> ByteBuffer.wrap(row[0])).toList());
    }

    /** {@return the certificate; null if it cannot be parsed, because one bad certificate must not hide the others} */
    private static X509Certificate parse(CertificateFactory factory, byte[] der) {
        try {
            if (factory.generateCertificate(new ByteArrayInputStream(der)) instanceof X509Certificate certificate) {
                certificate.getPublicKey(); // some factories parse a part only on demand
                certificate.getSubjectX500Principal();
                return certificate;
            }
        } catch (CertificateException | RuntimeException e) {
            // Treated like null, which some factories return for an empty value.
        }
        return null;
    }

    /**
     * {@return the contents as a change would leave them}
     *
     * @param newKeyId the ID of a private key that the change adds; null for none
     */
    SmartcardContents after(List<Item> removed, List<Item> added, byte[] newKeyId)
            throws NoSuchAlgorithmException, CertificateException {
        List<Item> remaining = new ArrayList<>(items);
        removed.forEach(remaining::remove);
        remaining.addAll(added);
        List<ByteBuffer> ids = new ArrayList<>(keyIds);
        if (newKeyId != null) {
            ids.add(ByteBuffer.wrap(newKeyId));
        }
        return new SmartcardContents(slot, tokenDescription, remaining, ids);
    }

    /** {@return the key with the item's ID; null if there is none, the ID is empty, or the certificate is not RSA} */
    SmartcardKey key(Item item) {
        return item.id.hasRemaining() && keyIds.contains(item.id)
                && item.certificate.getPublicKey() instanceof RSAPublicKey publicKey
                && publicKey.getAlgorithm().equals("RSA") // and not RSASSA-PSS
                ? new SmartcardKey(slot, item.id.array(), publicKey) : null;
    }

    SmartcardSlot slot() {
        return slot;
    }

    /** {@return slot, label and serial number: some tokens have the same serial number} */
    String tokenDescription() {
        return tokenDescription;
    }

    List<Item> items() {
        return items;
    }

    /** {@return the number of copies} */
    int count(Item item) {
        return Collections.frequency(items, item);
    }

    /** {@return the number of RSA private keys that have the ID} */
    int keyCount(byte[] id) {
        return Collections.frequency(keyIds, ByteBuffer.wrap(id));
    }

    Set<String> aliases() {
        return Collections.unmodifiableSet(entries.keySet());
    }

    /** {@return the entry; one without a certificate if there is none} */
    Entry entry(String alias) {
        return entries.getOrDefault(alias, NONE);
    }

    /** {@return all items with the alias} */
    List<Item> items(String alias) throws NoSuchAlgorithmException, CertificateException {
        List<Item> found = new ArrayList<>();
        for (Item item : items) {
            if (item.certificate != null && alias.equals(alias(item))) {
                found.add(item);
            }
        }
        return found;
    }

    /** {@return the keys of the items with the alias} */
    Stream<SmartcardKey> keys(String alias) throws NoSuchAlgorithmException, CertificateException {
        return items(alias).stream().map(this::key).filter(Objects::nonNull);
    }

    /** {@return the label, with a suffix in the cases that SmartcardProvider lists} */
    String alias(Item item) throws NoSuchAlgorithmException, CertificateException {
        String label = text(item);
        // A label that looks like an alias with a digest could be the alias of another certificate.
        return label.isEmpty() || byLabel.get(label).size() > 1 || label.matches("(?s).*/[0-9a-f]{8}")
                ? label + "/" + digest(item.certificate) : label;
    }

    private static String text(Item item) {
        return SmartcardSlot.text(item.label.array());
    }

    /** {@return the first four bytes of the certificate's SHA-256, in hexadecimal} */
    static String digest(X509Certificate certificate) throws NoSuchAlgorithmException, CertificateException {
        byte[] digest = MessageDigest.getInstance("SHA-256").digest(certificate.getEncoded());
        return HexFormat.of().formatHex(digest, 0, 4);
    }

    /** {@return the certificate, its issuer, and so on, as far as the token has them} */
    X509Certificate[] chain(X509Certificate first) {
        Set<X509Certificate> chain = new LinkedHashSet<>();
        for (X509Certificate next = first; next != null && chain.add(next);) {
            next = issuer(next);
        }
        return chain.toArray(new X509Certificate[0]);
    }

    /** {@return the issuer that is valid longest; null if there is none, or for a root} */
    private X509Certificate issuer(X509Certificate certificate) {
        X500Principal name = certificate.getIssuerX500Principal();
        return name.equals(certificate.getSubjectX500Principal()) ? null
                : bySubject.getOrDefault(name, Set.of()).stream().filter(other -> isSignedBy(certificate, other))
                .max(Comparator.comparing(X509Certificate::getNotAfter)).orElse(null);
    }

    private static boolean isSignedBy(X509Certificate certificate, X509Certificate issuer) {
        try {
            certificate.verify(issuer.getPublicKey());
            return true;
        } catch (GeneralSecurityException | RuntimeException e) {
            return false;
        }
    }
}
