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
 * A change of the entries of one token, as {@link SmartcardProvider} describes it. It relies on listings, not on codes:
 * a native method often reports the code of only one of several objects, and a deletion that finds nothing succeeds.
 * The caller holds the lock on {@link Smartcard} from the constructor on.
 */
final class SmartcardChange {
    private static final String NOT_SET = "the entry was not set: ";
    private static final String NOT_DELETED = "the entry was not deleted: ";

    private final SmartcardSlot slot;
    private final SmartcardWriter writer;
    private SmartcardContents listed; // by the last listing that succeeded
    private boolean isCurrent; // whether the last listing succeeded

    /** @param known the contents that the KeyStore shows; the change is refused if another token is in the slot */
    SmartcardChange(SmartcardContents known) throws IOException, GeneralSecurityException {
        slot = known.slot();
        writer = new SmartcardWriter(slot);
        slot.openSession(); // makes some modules look for the card
        slot.requireLogin();
        list();
        require(known.tokenDescription().equals(listed.tokenDescription()), "another token is in slot "
                + listed.tokenDescription() + "; the KeyStore was loaded from slot " + known.tokenDescription()
                + "; load it again");
    }

    /** {@return the current contents of the token, or those of the last listing that succeeded} */
    SmartcardContents contents() {
        try {
            if (!isCurrent) {
                list();
            }
        } catch (IOException | GeneralSecurityException e) {
            // The caller gets the exception of the change, not this one.
        }
        return listed;
    }

    private void list() throws IOException, GeneralSecurityException {
        isCurrent = false;
        listed = SmartcardContents.of(slot);
        isCurrent = true;
    }

    // ---- Setting ----

    /** Imports a key with its certificate, or writes the certificate of a key of this token. */
    void setKeyEntry(String alias, Key key, Certificate[] chain) throws IOException, GeneralSecurityException {
        SmartcardKey tokenKey = key instanceof SmartcardKey ours ? ours : null;
        RSAPrivateCrtKey imported = key instanceof RSAPrivateCrtKey crt && crt.getAlgorithm().equals("RSA")
                ? crt : null;
        require(tokenKey != null || imported != null, "expected a key of this token, or an RSA private key with CRT "
                + "values, not " + (key == null ? "null" : key.getAlgorithm() + ", " + key.getClass().getName()));
        require(tokenKey == null || tokenKey.slot().equals(slot), "the key is in another slot: " + tokenKey);
        List<X509Certificate> certificates = x509(chain);
        BigInteger modulus = ((RSAKey) key).getModulus();
        BigInteger exponent = tokenKey != null ? tokenKey.publicKey().getPublicExponent()
                : imported.getPublicExponent();
        if (!(certificates.get(0).getPublicKey() instanceof RSAPublicKey publicKey)
                || !publicKey.getModulus().equals(modulus) || !publicKey.getPublicExponent().equals(exponent)) {
            throw new KeyStoreException("the first certificate of the chain does not belong to the key");
        }
        SmartcardKey entryKey = new SmartcardKey(slot, tokenKey != null ? tokenKey.id() : SmartcardWriter.idOf(modulus),
                publicKey);
        require(listed.keys(alias).allMatch(entryKey::equals),
                "\"" + alias + "\" belongs to the entry of another key; delete that entry first");
        int count = listed.keyCount(entryKey.id());
        String sameId = entryKey.describeId() + "; delete the other keys, or change their IDs";
        require(count < 2, NOT_SET + "several private keys have " + sameId);
        require(count == 1 || imported != null,
                NOT_SET + "the token no longer has the " + entryKey + "; load the KeyStore again");
        // updateKeyPair changes the first private key and the first public key.
        require(tokenKey == null || slot.publicKeys(entryKey.id()).size() < 2,
                NOT_SET + "several public keys have " + sameId);
        if (count == 1) {
            entryKey.requireValidSignature();
        } else {
            require(!slot.hasPrivateKey(entryKey.id()), NOT_SET + "a private key that is not RSA has " + sameId);
        }
        Item item = item(entryKey.id(), alias, certificates.get(0));
        set(alias, item, certificates.subList(1, certificates.size()), entryKey, count == 0 ? imported : null);
        if (tokenKey != null) {
            setKeyLabel(entryKey, item.label().array());
        }
    }

    void setCertificateEntry(String alias, Certificate certificate) throws IOException, GeneralSecurityException {
        X509Certificate x509 = x509(certificate).get(0);
        require(listed.keys(alias).findAny().isEmpty(),
                "\"" + alias + "\" belongs to the entry of a key; delete that entry first");
        // A certificate that the alias already has keeps its ID: other programs may find its key by this ID.
        if (!x509.equals(listed.entry(alias).certificate())) {
            set(alias, item(SmartcardWriter.sha1(x509.getEncoded()), alias, x509), List.of(), null, null);
        }
    }

    /**
     * Writes the item of an alias, and deletes the previous ones.
     *
     * @param key null for a certificate entry
     * @param imported the private key to write, or null
     */
    private void set(String alias, Item item, List<X509Certificate> issuers, SmartcardKey key,
            RSAPrivateCrtKey imported) throws IOException, GeneralSecurityException {
        SmartcardContents before = listed;
        List<Item> old = new ArrayList<>(before.items(alias));
        List<Item> added = new ArrayList<>();
        if (!old.removeIf(item::equals) || imported != null) {
            added.add(item); // with an imported key also if the token has the certificate, as a copy
        }
        byte[] newKeyId = imported == null ? null : key.id();
        for (X509Certificate issuer : issuers) {
            SmartcardContents after = before.after(old, added, newKeyId);
            if (after.items().stream().noneMatch(other -> issuer.equals(other.certificate()))) {
                added.add(issuerItem(issuer, after));
            }
        }
        SmartcardContents after = before.after(old, added, newKeyId);
        require(alias.equals(after.alias(item)), "the alias would read back as \"" + after.alias(item) + "\", not as \""
                + alias + "\"; choose another one");
        require((key == null) == (after.key(item) == null), NOT_SET + (key == null
                ? "it would become a key entry, because a private key has the ID "
                + HexFormat.of().formatHex(item.id().array())
                : "it would not become a key entry, because the algorithm of its certificate's key is "
                + item.certificate().getPublicKey().getAlgorithm() + ", not RSA"));
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
                require(listed.count(each) > before.count(each),
                        "the token does not list the written certificate: " + describe(each));
            }
            if (imported != null) {
                require(listed.keyCount(newKeyId) == 1, "the token does not list the written private key");
                key.requireValidSignature();
            }
            for (Item each : old) {
                deleteCertificate(each);
            }
        } catch (IOException | GeneralSecurityException | RuntimeException e) {
            throw undo(e, before, old, added, newKeyId, hadPublicKey);
        }
    }

    /** Deletes what was written, unless an old object is already deleted. {@return a failure that says what is left} */
    private KeyStoreException undo(Exception failure, SmartcardContents before, List<Item> old, List<Item> added,
            byte[] newKeyId, boolean hadPublicKey) {
        List<String> left = new ArrayList<>();
        try {
            list();
            if (old.stream().anyMatch(each -> listed.count(each) < before.count(each))) {
                old.stream().filter(each -> listed.count(each) > 0).map(SmartcardChange::describe).forEach(left::add);
                return new KeyStoreException("the entry is set, but a later step failed: "
                        + failure.getMessage() + describeLeft(left), failure);
            }
            for (Item each : added) {
                if (listed.count(each) > before.count(each)) {
                    try {
                        deleteCertificate(each);
                    } catch (IOException | GeneralSecurityException e) {
                        // The listing below shows the certificate.
                    }
                }
            }
            if (newKeyId != null) {
                left.addAll(writer.deleteKeyPair(newKeyId, !hadPublicKey));
            }
            list();
            added.stream().filter(each -> listed.count(each) > before.count(each)).map(SmartcardChange::describe)
                    .forEach(left::add);
        } catch (IOException | GeneralSecurityException e) {
            left.add("unknown, because the token cannot be listed");
        }
        return new KeyStoreException(failure.getMessage() + describeLeft(left), failure);
    }

    static String describeLeft(List<String> left) {
        return left.isEmpty() ? "" : "; left on the token: " + String.join("; ", left);
    }

    /** Sets the label of both keys of a pair, which other programs display. */
    private void setKeyLabel(SmartcardKey key, byte[] label) throws KeyStoreException {
        try {
            if (!slot.allKeysHaveLabel(key.id(), label)) {
                long code = writer.updateKeyPair(key.id(), key.id(), label);
                require(slot.allKeysHaveLabel(key.id(), label), "updateKeyPairIDAndLabelDLL returned "
                        + (code == -1 ? "-1" : SmartcardException.nameOf(code)) + ", and reports only the public key");
            }
        } catch (IOException | KeyStoreException e) {
            throw new KeyStoreException("the entry is set, but its keys may still have the old label: "
                    + e.getMessage(), e);
        }
    }

    // ---- Deleting ----

    /** Deletes an entry, and its keys if no other certificate has their ID. */
    void deleteEntry(String alias) throws IOException, GeneralSecurityException {
        List<Item> items = listed.items(alias);
        if (items.isEmpty()) {
            return;
        }
        for (Item each : items) {
            requireDeletable(each, listed.items());
        }
        Entry entry = listed.entry(alias);
        SmartcardKey key = entry.key();
        require(listed.keys(alias).distinct().count() < 2, NOT_DELETED + "the certificate of \"" + alias
                + "\" is on the token under the IDs of several private keys; delete the other keys first");
        boolean areKeysShared = listed.items().stream().anyMatch(other -> other.id().equals(entry.item().id())
                && other.certificate() != null && !items.contains(other));
        if (key != null && !areKeysShared) {
            String sameId = key.describeId() + "; delete the other keys, or change their IDs";
            require(listed.keyCount(key.id()) == 1, NOT_DELETED + "several private keys have " + sameId);
            require(slot.publicKeys(key.id()).stream().allMatch(each -> each.isSameKeyAs(key.publicKey())),
                    NOT_DELETED + "the public key of another key pair has " + sameId);
            // deletePrivateKeyDLL finds the key as signWithIDDLL does: the first with the ID, of any type.
            key.requireValidSignature();
            writer.deletePrivateKey(key.id());
            list();
            require(listed.keyCount(key.id()) == 0, "the token still lists the deleted private key: " + key);
        }
        if (!areKeysShared) {
            deletePublicKeys(entry);
        }
        for (Item each : items) {
            deleteCertificate(each);
        }
    }

    /**
     * Deletes the public keys of an entry whose RSA private key was deleted, now or by an earlier deletion that failed.
     * Deletes none if a private key that is not RSA has the ID: the first public key may belong to it.
     */
    private void deletePublicKeys(Entry entry) throws IOException, KeyStoreException {
        byte[] id = entry.item().id().array();
        List<PublicKey> keys = slot.publicKeys(id);
        if (id.length == 0 || keys.isEmpty()
                || !(entry.certificate().getPublicKey() instanceof RSAPublicKey publicKey)) {
            return;
        }
        boolean hasOtherKey = slot.hasPrivateKey(id);
        require(!hasOtherKey || entry.key() == null, "only the private key was deleted, because a key that "
                + "is not RSA has the same ID; left on the token: the public key and the certificate of "
                + entry.key());
        boolean areKeysOfEntry = !hasOtherKey && keys.stream().allMatch(each -> each.isSameKeyAs(publicKey)
                && (entry.key() != null || each.label().equals(entry.item().label())));
        for (int count = keys.size(); areKeysOfEntry && count > 0; count--) {
            writer.deletePublicKey(id);
            require(slot.publicKeys(id).size() < count, "the token still lists the deleted public key of "
                    + describe(entry.item()));
        }
    }

    private void deleteCertificate(Item item) throws IOException, GeneralSecurityException {
        int count = listed.count(item);
        IOException failure = null;
        for (byte[] serialNumber : serialNumbers(item)) {
            if (listed.items().stream().noneMatch(other -> mayMatch(other, item, serialNumber))) {
                try {
                    writer.deleteCertificate(item, serialNumber);
                } catch (IOException e) {
                    failure = e;
                }
                list();
                if (listed.count(item) < count) {
                    return;
                }
            }
        }
        throw failure != null ? failure : new IOException("a certificate was not deleted, because the token does not"
                + " find it by its names, serial number, ID and label; delete it with another tool: " + describe(item));
    }

    /** A deletion finds a certificate by all attributes but its value, so it could delete another one instead. */
    private static void requireDeletable(Item item, List<Item> among) throws KeyStoreException {
        byte[] serialNumber = serialNumbers(item).get(0);
        require(among.stream().noneMatch(other -> mayMatch(other, item, serialNumber)),
                "nothing was changed, because the token could delete another certificate with the same label and ID"
                + " instead; delete one of the two with another tool: " + describe(item));
    }

    /** {@return whether a deletion of the item, by this form of its serial number, could find the other one} */
    private static boolean mayMatch(Item other, Item item, byte[] serialNumber) {
        if (other.equals(item) || !other.id().equals(item.id()) || !other.label().equals(item.label())) {
            return false;
        }
        return other.certificate() == null
                || other.certificate().getSubjectX500Principal().equals(item.certificate().getSubjectX500Principal())
                && other.certificate().getIssuerX500Principal().equals(item.certificate().getIssuerX500Principal())
                && serialNumbers(other).stream().anyMatch(each -> Arrays.equals(each, serialNumber));
    }

    /** {@return the values of CKA_SERIAL_NUMBER in use: DER (as PKCS#11 requires), the number without tag, or empty} */
    private static List<byte[]> serialNumbers(Item item) {
        BigInteger number = item.certificate().getSerialNumber();
        return List.of(SmartcardWriter.der(number), number.toByteArray(), new byte[0]);
    }

    // ---- Items ----

    private static Item item(byte[] id, String label, X509Certificate certificate) {
        return new Item(ByteBuffer.wrap(id), ByteBuffer.wrap(SmartcardWriter.label(label)), certificate);
    }

    /** {@return an item for an issuer: its label is the first free alias of four, the last of which has a digest} */
    private static Item issuerItem(X509Certificate certificate, SmartcardContents contents)
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

    /** {@return the value of an attribute of an RFC 2253 name; empty if there is none} */
    private static String attribute(String type, String name) {
        return Pattern.compile("(?:^|[,+])" + type + "=((?:[^,+\\\\]|\\\\.)*)").matcher(name).results()
                .map(found -> found.group(1).replaceAll("\\\\(.)", "$1")).findFirst().orElse("");
    }

    private static List<X509Certificate> x509(Certificate... chain) throws KeyStoreException {
        require(chain != null && chain.length > 0 && Arrays.stream(chain).allMatch(X509Certificate.class::isInstance),
                "expected one or more X.509 certificates");
        return Arrays.stream(chain).map(X509Certificate.class::cast).toList();
    }

    private static String describe(Item item) {
        return "\"" + SmartcardSlot.text(item.label().array()) + "\", "
                + item.certificate().getSubjectX500Principal().getName();
    }

    private static void require(boolean condition, String message) throws KeyStoreException {
        if (!condition) {
            throw new KeyStoreException(message);
        }
    }
}
