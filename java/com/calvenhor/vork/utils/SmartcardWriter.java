package com.calvenhor.vork.utils;

import com.calvenhor.vork.utils.SmartcardContents.Item;
import java.io.IOException;
import java.math.BigInteger;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.MessageDigest;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAPrivateCrtKey;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HexFormat;
import java.util.List;
import java.util.stream.Stream;

/** The native calls that change a token, with their arguments converted to the form that PKCS#11 requires. */
record SmartcardWriter(SmartcardSlot slot) {
    // ---- Values ----

    /** {@return the ID of a key, the SHA-1 of its modulus} */
    static byte[] idOf(BigInteger modulus) throws GeneralSecurityException {
        return sha1(unsigned(modulus));
    }

    static byte[] sha1(byte[] bytes) throws GeneralSecurityException {
        return MessageDigest.getInstance("SHA-1").digest(bytes);
    }

    static byte[] label(String text) {
        return text.getBytes(StandardCharsets.UTF_8);
    }

    /** {@return the number, big-endian without a sign byte} Wipes the intermediate copy: the number may be secret. */
    static byte[] unsigned(BigInteger number) {
        byte[] bytes = number.toByteArray();
        if (bytes[0] != 0) {
            return bytes;
        }
        byte[] unsigned = Arrays.copyOfRange(bytes, 1, bytes.length);
        Arrays.fill(bytes, (byte) 0);
        return unsigned;
    }

    /** {@return the number as an INTEGER, in DER up to 127 bytes} Serial numbers of certificates have at most 20. */
    static byte[] der(BigInteger number) {
        byte[] value = number.toByteArray();
        byte[] length = value.length < 0x80 ? new byte[] {(byte) value.length}
                : new byte[] {(byte) 0x82, (byte) (value.length >> 8), (byte) value.length};
        return ByteBuffer.allocate(1 + length.length + value.length).put((byte) 2).put(length).put(value).array();
    }

    // ---- Writing ----

    void writeCertificate(Item item) throws IOException, GeneralSecurityException {
        X509Certificate certificate = item.certificate();
        check("writeCertificateDLL", Smartcard.writeCertificateDLL(slot.index(), certificate.getEncoded(),
                subject(item), issuer(item), der(certificate.getSerialNumber()), item.id().array(),
                item.label().array()));
    }

    /** Also writes the public key. A failure to write a key shows only in a listing. */
    void writeCertificateAndPrivateKey(Item item, RSAPrivateCrtKey key) throws IOException, GeneralSecurityException {
        X509Certificate certificate = item.certificate();
        byte[][] numbers = Stream.of(key.getModulus(), key.getPublicExponent(), key.getPrivateExponent(),
                key.getPrimeP(), key.getPrimeQ(), key.getPrimeExponentP(), key.getPrimeExponentQ(),
                key.getCrtCoefficient()).map(SmartcardWriter::unsigned).toArray(byte[][]::new);
        try {
            check("writeCertificateAndPrivateKeyDLL", Smartcard.writeCertificateAndPrivateKeyDLL(slot.index(),
                    certificate.getEncoded(), subject(item), issuer(item), der(certificate.getSerialNumber()),
                    numbers[0], numbers[1], numbers[2], numbers[3], numbers[4], numbers[5], numbers[6], numbers[7],
                    item.id().array(), item.label().array()));
        } finally {
            for (byte[] number : numbers) {
                Arrays.fill(number, (byte) 0);
            }
        }
    }

    /** {@return the modulus} */
    BigInteger generateKeyPair(int bits, BigInteger publicExponent, byte[] id) throws IOException {
        byte[] modulus = Smartcard.generateKeyPairDLL(slot.index(), bits, unsigned(publicExponent), id, id);
        if (modulus == null || modulus.length == 1) {
            throw slot.failure("generateKeyPairDLL", modulus, SmartcardException.FUNCTION_REJECTED);
        }
        return new BigInteger(1, modulus);
    }

    /**
     * Sets a new ID and label on the first private key and the first public key, of any type, with the ID.
     *
     * @return the code for the public key only
     */
    long updateKeyPair(byte[] id, byte[] newId, byte[] label) {
        return Smartcard.updateKeyPairIDAndLabelDLL(slot.index(), id, newId, label);
    }

    // ---- Deleting: succeeds if there is nothing to delete ----

    void deleteCertificate(Item item, byte[] serialNumber) throws IOException {
        check("deleteCertificateDLL", Smartcard.deleteCertificateDLL(slot.index(), subject(item), issuer(item),
                serialNumber, item.id().array(), item.label().array()));
    }

    void deletePrivateKey(byte[] id) throws IOException {
        check("deletePrivateKeyDLL", Smartcard.deletePrivateKeyDLL(slot.index(), id));
    }

    void deletePublicKey(byte[] id) throws IOException {
        check("deletePublicKeyDLL", Smartcard.deletePublicKeyDLL(slot.index(), id));
    }

    /** Deletes the keys of an ID that was new to the token; {@return the keys that are still there} */
    List<String> deleteKeyPair(byte[] id, boolean withPublicKey) throws IOException {
        Smartcard.deletePrivateKeyDLL(slot.index(), id); // the listings below show whether it worked
        if (withPublicKey) {
            Smartcard.deletePublicKeyDLL(slot.index(), id);
        }
        List<String> left = new ArrayList<>();
        if (slot.privateKeys().stream().anyMatch(row -> Arrays.equals(row[0], id))) {
            left.add("a private key with the ID " + HexFormat.of().formatHex(id));
        }
        if (!slot.publicKeys(id).isEmpty()) {
            left.add("a public key with the ID " + HexFormat.of().formatHex(id));
        }
        slot.requireToken(); // otherwise the listings may be wrong
        return left;
    }

    private static byte[] subject(Item item) {
        return item.certificate().getSubjectX500Principal().getEncoded();
    }

    private static byte[] issuer(Item item) {
        return item.certificate().getIssuerX500Principal().getEncoded();
    }

    private void check(String call, long code) throws IOException {
        SmartcardException.check(code, call + " in slot " + slot.index(), "");
    }
}
