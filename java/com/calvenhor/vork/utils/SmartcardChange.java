package com.calvenhor.vork.utils;

import com.calvenhor.vork.utils.SmartcardContents.Entry;
import com.calvenhor.vork.utils.SmartcardContents.Item;
import com.calvenhor.vork.utils.SmartcardSlot.PublicKey;
import java.io.IOException;
import java.math.BigInteger;
import java.nio.ByteBuffer;
import java.security.GeneralSecurityException;
import java.security.Key;
import java.security.KeyStoreException;
import java.security.cert.Certificate;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAKey;
import java.security.interfaces.RSAPrivateCrtKey;
import java.security.interfaces.RSAPublicKey;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HexFormat;
import java.util.List;
import java.util.regex.Pattern;
import java.util.stream.Stream;

/**
 * A change of the entries of one token. It refuses before it writes, and writes the new before it deletes the old. It
 * believes only listings: the result of a native method often speaks for one object of several, and a deletion that
 * found nothing succeeds. The caller holds the lock of the natives from the constructor on.
 */
final class SmartcardChange {
    private final SmartcardSlot slot;
    private final SmartcardWriter writer;
    private SmartcardContents now; // as last listed
    private boolean isListed; // and not merely tried to be

    /** @param known what the token held before: with another token in the slot, nothing is changed */
    SmartcardChange(SmartcardContents known) throws IOException, GeneralSecurityException {
        slot = known.slot();
        writer = new SmartcardWriter(slot);
        slot.openSession(); // asks for the card, which some modules look for only then
        slot.requireLogin();
        list();
        require(known.token().equals(now.token()), "the token has changed: the KeyStore was loaded from slot "
                + known.token() + "; now it is slot " + now.token() + "; load the KeyStore again");
    }

    /** {@return what the token holds now, or held when it could last be listed} */
    SmartcardContents contents() {
        try {
            if (!isListed) {
                list();
            }
        } catch (IOException | GeneralSecurityException e) {
            // What failed before is what the caller is told.
        }
        return now;
    }

    private void list() throws IOException, GeneralSecurityException {
        isListed = false;
        now = SmartcardContents.of(slot);
        isListed = true;
    }

    // ---- Setting ----

    /** Imports a key with its certificate, or gives a key of this token its certificate. */
    void setKeyEntry(String alias, Key key, Certificate[] chain) throws IOException, GeneralSecurityException {
        SmartcardKey known = key instanceof SmartcardKey ours ? ours : null;
        RSAPrivateCrtKey imported = key instanceof RSAPrivateCrtKey crt && crt.getAlgorithm().equals("RSA")
                ? crt : null;
        require(known != null || imported != null, "expected a key of this token, or an RSA private key with CRT "
                + "values, not " + (key == null ? "null" : key.getAlgorithm() + ", " + key.getClass().getName()));
        require(known == null || known.slot().equals(slot), "the key is in another slot: " + known);
        List<X509Certificate> certificates = x509(chain);
        BigInteger modulus = ((RSAKey) key).getModulus();
        BigInteger exponent = known != null ? known.publicKey().getPublicExponent() : imported.getPublicExponent();
        if (!(certificates.get(0).getPublicKey() instanceof RSAPublicKey publicKey)
                || !publicKey.getModulus().equals(modulus) || !publicKey.getPublicExponent().equals(exponent)) {
            throw new KeyStoreException("the first certificate of the chain does not belong to the key");
        }
        SmartcardKey named = new SmartcardKey(slot, known != null ? known.id() : SmartcardWriter.idOf(modulus),
                publicKey);
        require(now.keys(alias).allMatch(named::equals),
                "\"" + alias + "\" is the entry of another key; delete it first");
        int count = now.keyCount(named.id());
        require(count < 2, "several private keys have the same ID: " + named);
        require(count == 1 || imported != null, "the key is no longer on the token: " + named);
        // Renaming takes the first of each half.
        require(known == null || slot.publicKeys(named.id()).size() < 2,
                "several public keys have the same ID: " + named);
        if (count == 1) {
            named.requireSigns();
        } else {
            require(!slot.hasPrivateKey(named.id()), "a private key that is not RSA has the same ID: " + named);
        }
        Item item = item(named.id(), alias, certificates.get(0));
        set(alias, item, certificates.subList(1, certificates.size()), named, count == 0 ? imported : null);
        if (known != null) {
            label(named, item.label().array());
        }
    }

    void setCertificateEntry(String alias, Certificate certificate) throws IOException, GeneralSecurityException {
        X509Certificate x509 = x509(certificate).get(0);
        require(now.keys(alias).findAny().isEmpty(), "\"" + alias + "\" is the entry of a key; delete it first");
        if (!x509.equals(now.entry(alias).certificate())) { // by whose ID another program may find its key
            set(alias, item(SmartcardWriter.sha1(x509.getEncoded()), alias, x509), List.of(), null, null);
        }
    }

    /**
     * Gives an alias its item, and takes away what the alias stood for.
     *
     * @param key null for a certificate entry
     * @param imported the private key if it has to be written, else null
     */
    private void set(String alias, Item item, List<X509Certificate> issuers, SmartcardKey key,
            RSAPrivateCrtKey imported) throws IOException, GeneralSecurityException {
        SmartcardContents before = now;
        List<Item> old = new ArrayList<>(before.objects(alias));
        List<Item> added = new ArrayList<>();
        if (!old.removeIf(item::equals) || imported != null) {
            added.add(item); // with an imported key perhaps a copy
        }
        byte[] newKeyId = imported == null ? null : key.id();
        for (X509Certificate issuer : issuers) {
            SmartcardContents after = before.after(old, added, newKeyId);
            if (after.items().stream().noneMatch(other -> issuer.equals(other.certificate()))) {
                added.add(freeItem(issuer, after));
            }
        }
        SmartcardContents after = before.after(old, added, newKeyId);
        require(alias.equals(after.alias(item)), "the alias would read back as \"" + after.alias(item) + "\", not as \""
                + alias + "\"; choose another one");
        require((key == null) == (after.key(item) == null), "with the ID " + HexFormat.of().formatHex(item.id().array())
                + ", this certificate would " + (key == null ? "become a key entry" : "not become a key entry"));
        for (Item each : old) {
            requireDeletable(each, Stream.concat(before.items().stream(), added.stream()).toList());
        }
        boolean hadPublicKey = newKeyId != null && !slot.publicKeys(newKeyId).isEmpty();

        try {
            for (Item each : added) {
                if (each == item && imported != null) {
                    writer.writeCertificateAndPrivateKey(each, imported);
                } else {
                    writer.writeCertificate(each);
                }
            }
            list();
            for (Item each : added) {
                require(now.count(each) > before.count(each),
                        "the token does not list the written certificate: " + described(each));
            }
            if (imported != null) {
                require(now.keyCount(newKeyId) == 1, "the token does not list the written private key");
                key.requireSigns();
            }
            for (Item each : old) {
                deleteCertificate(each);
            }
        } catch (IOException | GeneralSecurityException | RuntimeException e) {
            throw undone(e, before, old, added, newKeyId, hadPublicKey);
        }
    }

    /** Takes off again what has been written, unless something of the old is gone. The failure says what is left. */
    private KeyStoreException undone(Exception failure, SmartcardContents before, List<Item> old, List<Item> added,
            byte[] newKeyId, boolean hadPublicKey) {
        List<String> left = new ArrayList<>();
        try {
            list();
            if (old.stream().anyMatch(each -> now.count(each) < before.count(each))) {
                old.stream().filter(each -> now.count(each) > 0).map(SmartcardChange::described).forEach(left::add);
                return new KeyStoreException("the entry is set, but a later step failed: "
                        + failure.getMessage() + suffix(left), failure);
            }
            for (Item each : added) {
                if (now.count(each) > before.count(each)) {
                    try {
                        deleteCertificate(each);
                    } catch (IOException | GeneralSecurityException e) {
                        // The listing below shows it.
                    }
                }
            }
            if (newKeyId != null) {
                left.addAll(writer.takeOffKeyPair(newKeyId, !hadPublicKey));
            }
            list();
            added.stream().filter(each -> now.count(each) > before.count(each)).map(SmartcardChange::described)
                    .forEach(left::add);
        } catch (IOException | GeneralSecurityException e) {
            left.add("unknown, because the token cannot be listed");
        }
        return new KeyStoreException(failure.getMessage() + suffix(left), failure);
    }

    static String suffix(List<String> left) {
        return left.isEmpty() ? "" : "; left on the token: " + String.join("; ", left);
    }

    /** Gives both halves of a key pair the label, by which other programs show them. */
    private void label(SmartcardKey key, byte[] label) throws KeyStoreException {
        try {
            if (!slot.areLabelled(key.id(), label)) {
                long code = writer.renameKeyPair(key.id(), key.id(), label);
                require(slot.areLabelled(key.id(), label), "updateKeyPairIDAndLabelDLL returned "
                        + SmartcardException.nameOf(code) + ", which is the code for the public key alone");
            }
        } catch (IOException | KeyStoreException e) {
            throw new KeyStoreException("the entry is set, but its keys may still have the old label: "
                    + e.getMessage(), e);
        }
    }

    // ---- Deleting ----

    /** Deletes an entry; its keys only with the last certificate that has their ID. */
    void deleteEntry(String alias) throws IOException, GeneralSecurityException {
        List<Item> objects = now.objects(alias);
        if (objects.isEmpty()) {
            return;
        }
        for (Item each : objects) {
            requireDeletable(each, now.items());
        }
        Entry entry = now.entry(alias);
        SmartcardKey key = entry.key();
        require(now.keys(alias).distinct().count() < 2,
                "several private keys have a copy of the certificate of \"" + alias + "\"");
        boolean areKeysShared = now.items().stream().anyMatch(other -> other.id().equals(entry.item().id())
                && other.certificate() != null && !objects.contains(other));
        if (key != null && !areKeysShared) {
            require(now.keyCount(key.id()) == 1, "several private keys have the same ID: " + key);
            require(slot.publicKeys(key.id()).stream().allMatch(each -> each.isHalfOf(key.publicKey())),
                    "the public key of another key pair has the same ID: " + key);
            key.requireSigns(); // a deletion takes the first key of the ID, of any type: the one that signs
            writer.deletePrivateKey(key.id());
            list();
            require(now.keyCount(key.id()) == 0, "the token still lists the deleted private key: " + key);
        }
        if (!areKeysShared) {
            deletePublicKeys(entry);
        }
        for (Item each : objects) {
            deleteCertificate(each);
        }
    }

    /**
     * With the entry's private key gone; a certificate entry may be the rest of an entry that was partly deleted. While
     * a private key of another type has the ID, the first public key may be that one's.
     */
    private void deletePublicKeys(Entry entry) throws IOException, KeyStoreException {
        byte[] id = entry.item().id().array();
        List<PublicKey> keys = slot.publicKeys(id);
        if (id.length == 0 || keys.isEmpty()
                || !(entry.certificate().getPublicKey() instanceof RSAPublicKey publicKey)) {
            return;
        }
        boolean isShared = slot.hasPrivateKey(id);
        require(!isShared || entry.key() == null, "only the private key was deleted, because a key that "
                + "is not RSA has the same ID; left on the token: the public key and the certificate of "
                + entry.key());
        boolean areItsOwn = !isShared && keys.stream().allMatch(each -> each.isHalfOf(publicKey)
                && (entry.key() != null || each.label().equals(entry.item().label())));
        for (int count = keys.size(); areItsOwn && count > 0; count--) {
            writer.deletePublicKey(id);
            require(slot.publicKeys(id).size() < count, "the token still lists the deleted public key of "
                    + described(entry.item()));
        }
    }

    private void deleteCertificate(Item item) throws IOException, GeneralSecurityException {
        int count = now.count(item);
        IOException failure = null;
        for (byte[] serialNumber : serialNumbers(item)) {
            if (now.items().stream().noneMatch(other -> mayMatch(other, item, serialNumber))) {
                try {
                    writer.deleteCertificate(item, serialNumber);
                } catch (IOException e) {
                    failure = e;
                }
                list();
                if (now.count(item) < count) {
                    return;
                }
            }
        }
        throw failure != null ? failure : new IOException("the token does not find the certificate that it lists: "
                + described(item));
    }

    /** A certificate is found by all but its value: whatever else could be found in its place is in danger. */
    private static void requireDeletable(Item item, List<Item> among) throws KeyStoreException {
        byte[] serialNumber = serialNumbers(item).get(0);
        require(among.stream().noneMatch(other -> mayMatch(other, item, serialNumber)),
                "a deletion could delete another certificate with the same label and ID: " + described(item));
    }

    /** Whether a deletion of the item, by this form of its serial number, could find another one. */
    private static boolean mayMatch(Item other, Item item, byte[] serialNumber) {
        if (other.equals(item) || !other.id().equals(item.id()) || !other.label().equals(item.label())) {
            return false;
        }
        return other.certificate() == null
                || other.certificate().getSubjectX500Principal().equals(item.certificate().getSubjectX500Principal())
                && other.certificate().getIssuerX500Principal().equals(item.certificate().getIssuerX500Principal())
                && serialNumbers(other).stream().anyMatch(each -> Arrays.equals(each, serialNumber));
    }

    /** The forms that writers give CKA_SERIAL_NUMBER: DER, which PKCS#11 asks for, the number alone, and nothing. */
    private static List<byte[]> serialNumbers(Item item) {
        BigInteger number = item.certificate().getSerialNumber();
        return List.of(SmartcardWriter.der(number), number.toByteArray(), new byte[0]);
    }

    // ---- Items ----

    private static Item item(byte[] id, String label, X509Certificate certificate) {
        return new Item(ByteBuffer.wrap(id), ByteBuffer.wrap(SmartcardWriter.label(label)), certificate);
    }

    /** A certificate entry under the first of its common name, its organisation and its whole name that is free. */
    private static Item freeItem(X509Certificate certificate, SmartcardContents contents)
            throws GeneralSecurityException {
        String name = certificate.getSubjectX500Principal().getName();
        byte[] id = SmartcardWriter.sha1(certificate.getEncoded());
        for (String label : List.of(attribute("CN", name), attribute("O", name), name,
                name + " " + SmartcardContents.digest(certificate))) {
            Item item = item(id, label, certificate);
            if (contents.after(List.of(), List.of(item), null).alias(item).equals(label)) {
                return item;
            }
        }
        throw new KeyStoreException("no alias is free for the issuer certificate of " + name);
    }

    /** The value of an attribute in a name as RFC 2253 writes it; empty if there is none. */
    private static String attribute(String type, String name) {
        return Pattern.compile("(?:^|[,+])" + type + "=((?:[^,+\\\\]|\\\\.)*)").matcher(name).results()
                .map(found -> found.group(1).replaceAll("\\\\(.)", "$1")).findFirst().orElse("");
    }

    private static List<X509Certificate> x509(Certificate... chain) throws KeyStoreException {
        require(chain != null && chain.length > 0 && Arrays.stream(chain).allMatch(X509Certificate.class::isInstance),
                "expected one or more X.509 certificates");
        return Arrays.stream(chain).map(X509Certificate.class::cast).toList();
    }

    private static String described(Item item) {
        return "\"" + SmartcardSlot.text(item.label().array()) + "\", "
                + item.certificate().getSubjectX500Principal().getName();
    }

    private static void require(boolean condition, String otherwise) throws KeyStoreException {
        if (!condition) {
            throw new KeyStoreException(otherwise);
        }
    }
}
