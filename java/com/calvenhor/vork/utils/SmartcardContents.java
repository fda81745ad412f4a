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

/** What a token held when it was listed. It never changes: after each change the token is listed again. */
final class SmartcardContents {
    /**
     * A certificate object. Two that are equal are copies.
     *
     * @param certificate null if it cannot be parsed
     */
    record Item(ByteBuffer id, ByteBuffer label, X509Certificate certificate) {
    }

    /**
     * What an alias stands for: an item, or several copies of it.
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
    private final String token;
    private final List<Item> items;
    private final List<ByteBuffer> keyIds;
    private final Map<String, Set<X509Certificate>> byLabel;
    private final Map<X500Principal, Set<X509Certificate>> bySubject;
    private final Map<String, Entry> entries = new LinkedHashMap<>();

    /**
     * @param token its slot, label and serial number
     * @param keyIds the ID of each private key
     */
    private SmartcardContents(SmartcardSlot slot, String token, List<Item> items, List<ByteBuffer> keyIds)
            throws NoSuchAlgorithmException, CertificateException {
        this.slot = slot;
        this.token = token;
        this.items = items;
        this.keyIds = keyIds;
        List<Item> parsed = items.stream().filter(item -> item.certificate != null).toList();
        byLabel = parsed.stream().collect(Collectors.groupingBy(SmartcardContents::text,
                Collectors.mapping(Item::certificate, Collectors.toSet())));
        bySubject = parsed.stream().map(Item::certificate).collect(
                Collectors.groupingBy(X509Certificate::getSubjectX500Principal, Collectors.toSet()));
        // Copies of a certificate with one label are one entry: the first, so that it is one with a key.
        for (Entry entry : parsed.stream().map(item -> new Entry(item, key(item)))
                .sorted(Comparator.comparing(entry -> entry.key == null)).toList()) {
            entries.putIfAbsent(alias(entry.item), entry);
        }
    }

    /** Lists what is on the token, which has to be there afterwards: some modules list nothing of one that is gone. */
    static SmartcardContents of(SmartcardSlot slot) throws IOException, NoSuchAlgorithmException, CertificateException {
        List<byte[][]> privateKeys;
        List<byte[][]> certificates;
        String token;
        synchronized (Smartcard.class) {
            privateKeys = slot.privateKeys();
            certificates = slot.certificates();
            slot.requireToken();
            token = slot.description();
        }
        CertificateFactory factory = CertificateFactory.getInstance("X.509");
        List<Item> items = new ArrayList<>();
        for (byte[][] row : certificates) {
            items.add(new Item(ByteBuffer.wrap(row[0]), ByteBuffer.wrap(row[1]), parsed(factory, row[2])));
        }
        return new SmartcardContents(slot, token, items,
                privateKeys.stream().map(row -> ByteBuffer.wrap(row[0])).toList());
    }

    /** Null for one that cannot be parsed, which must not keep the others away. */
    private static X509Certificate parsed(CertificateFactory factory, byte[] der) {
        try {
            if (factory.generateCertificate(new ByteArrayInputStream(der)) instanceof X509Certificate certificate) {
                certificate.getPublicKey(); // some factories parse a part only when it is asked for
                certificate.getSubjectX500Principal();
                return certificate;
            }
        } catch (CertificateException | RuntimeException e) {
            // As good as null, which some factories return for an empty value.
        }
        return null;
    }

    /**
     * What the token will hold when these items are gone and those are there.
     *
     * @param newKeyId the ID of a private key that will be there as well; null if there will be none
     */
    SmartcardContents after(List<Item> gone, List<Item> added, byte[] newKeyId)
            throws NoSuchAlgorithmException, CertificateException {
        List<Item> left = new ArrayList<>(items);
        gone.forEach(left::remove);
        left.addAll(added);
        List<ByteBuffer> ids = new ArrayList<>(keyIds);
        if (newKeyId != null) {
            ids.add(ByteBuffer.wrap(newKeyId));
        }
        return new SmartcardContents(slot, token, left, ids);
    }

    /** {@return the key that has the certificate's ID; null if there is none} No ID at all joins nothing. */
    SmartcardKey key(Item item) {
        return item.id.hasRemaining() && keyIds.contains(item.id)
                && item.certificate.getPublicKey() instanceof RSAPublicKey publicKey
                && publicKey.getAlgorithm().equals("RSA") // and not RSASSA-PSS
                ? new SmartcardKey(slot, item.id.array(), publicKey) : null;
    }

    SmartcardSlot slot() {
        return slot;
    }

    /** {@return the token's slot, label and serial number, since some tokens share one serial number} */
    String token() {
        return token;
    }

    List<Item> items() {
        return items;
    }

    /** How many objects are equal to this one. */
    int count(Item item) {
        return Collections.frequency(items, item);
    }

    /** How many RSA private keys have the ID. */
    int keyCount(byte[] id) {
        return Collections.frequency(keyIds, ByteBuffer.wrap(id));
    }

    Set<String> aliases() {
        return Collections.unmodifiableSet(entries.keySet());
    }

    /** {@return the entry; one without a certificate if there is none of this alias} */
    Entry entry(String alias) {
        return entries.getOrDefault(alias, NONE);
    }

    /** {@return all objects that the alias stands for} */
    List<Item> objects(String alias) throws NoSuchAlgorithmException, CertificateException {
        List<Item> objects = new ArrayList<>();
        for (Item item : items) {
            if (item.certificate != null && alias.equals(alias(item))) {
                objects.add(item);
            }
        }
        return objects;
    }

    /** The keys of all objects that the alias stands for. */
    Stream<SmartcardKey> keys(String alias) throws NoSuchAlgorithmException, CertificateException {
        return objects(alias).stream().map(this::key).filter(Objects::nonNull);
    }

    /** The label; one that stands for several certificates, or for none, is told apart by the certificate. */
    String alias(Item item) throws NoSuchAlgorithmException, CertificateException {
        String label = text(item);
        // A label that looks like another's alias could take its place.
        return label.isEmpty() || byLabel.get(label).size() > 1 || label.matches("(?s).*/[0-9a-f]{8}")
                ? label + "/" + digest(item.certificate) : label;
    }

    private static String text(Item item) {
        return SmartcardSlot.text(item.label.array());
    }

    /** The first four bytes of a certificate's SHA-256, in hexadecimal. */
    static String digest(X509Certificate certificate) throws NoSuchAlgorithmException, CertificateException {
        byte[] digest = MessageDigest.getInstance("SHA-256").digest(certificate.getEncoded());
        return HexFormat.of().formatHex(digest, 0, 4);
    }

    /** The certificate, its issuer's, and so on, as far as the token has them. */
    X509Certificate[] chain(X509Certificate first) {
        Set<X509Certificate> chain = new LinkedHashSet<>();
        for (X509Certificate next = first; next != null && chain.add(next);) {
            next = issuer(next);
        }
        return chain.toArray(new X509Certificate[0]);
    }

    /** The issuer's, of several the one that is valid longest; null if there is none, or for a root. */
    private X509Certificate issuer(X509Certificate certificate) {
        X500Principal name = certificate.getIssuerX500Principal();
        return name.equals(certificate.getSubjectX500Principal()) ? null
                : bySubject.getOrDefault(name, Set.of()).stream().filter(other -> isSigned(certificate, other))
                .max(Comparator.comparing(X509Certificate::getNotAfter)).orElse(null);
    }

    private static boolean isSigned(X509Certificate certificate, X509Certificate issuer) {
        try {
            certificate.verify(issuer.getPublicKey());
            return true;
        } catch (GeneralSecurityException | RuntimeException e) {
            return false;
        }
    }
}
