import com.calvenhor.vork.utils.Smartcard;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.math.BigInteger;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.Key;
import java.security.KeyStore;
import java.security.MessageDigest;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAPrivateCrtKey;
import java.util.Arrays;
import java.util.Collections;

/** An RSA key with its certificate, taken from a PKCS#12 file and split into the values that PKCS#11 stores. */
record Identity(RSAPrivateCrtKey key, X509Certificate certificate) {
    /** Reads the first RSA key of a file, and the certificate that goes with it. */
    static Identity read(Path file, char[] password) throws GeneralSecurityException, IOException, Token.Failure {
        KeyStore store = KeyStore.getInstance("PKCS12");
        try (InputStream in = Files.newInputStream(file)) {
            store.load(in, password);
        }
        for (String alias : Collections.list(store.aliases())) {
            Key key = store.isKeyEntry(alias) ? store.getKey(alias, password) : null;
            if (key instanceof RSAPrivateCrtKey rsa) {
                return new Identity(rsa, (X509Certificate) store.getCertificate(alias));
            }
        }
        throw new Token.Failure(file + " holds no RSA key");
    }

    /** The SHA-1 digest of the modulus: an ID by which others who see the certificate find the key as well. */
    byte[] id() throws GeneralSecurityException {
        return MessageDigest.getInstance("SHA-1").digest(unsigned(key.getModulus()));
    }

    byte[] subject() {
        return certificate.getSubjectX500Principal().getEncoded();
    }

    byte[] issuer() {
        return certificate.getIssuerX500Principal().getEncoded();
    }

    byte[] serialNumber() {
        return derInteger(certificate.getSerialNumber());
    }

    /** Puts private key, public key and certificate on the token, and makes sure that all three are there. */
    void write(long slot, byte[] label) throws GeneralSecurityException, Token.Failure {
        int privateKeys = Token.privateKeys(slot).size();
        int publicKeys = Token.publicKeys(slot).size();
        Token.check(Smartcard.writeCertificateAndPrivateKeyDLL(slot, certificate.getEncoded(), subject(), issuer(),
                serialNumber(), unsigned(key.getModulus()), unsigned(key.getPublicExponent()),
                unsigned(key.getPrivateExponent()), unsigned(key.getPrimeP()), unsigned(key.getPrimeQ()),
                unsigned(key.getPrimeExponentP()), unsigned(key.getPrimeExponentQ()),
                unsigned(key.getCrtCoefficient()), id(), label), "writeCertificateAndPrivateKeyDLL");
        // The result spoke for the certificate alone.
        if (Token.privateKeys(slot).size() != privateKeys + 1) {
            throw new Token.Refused("the private key is not on the token; the traces have the code");
        }
        if (Token.publicKeys(slot).size() != publicKeys + 1) {
            throw new Token.Refused("the public key is not on the token; the traces have the code");
        }
    }

    void writeCertificate(long slot, byte[] label) throws GeneralSecurityException, Token.Failure {
        Token.check(Smartcard.writeCertificateDLL(slot, certificate.getEncoded(), subject(), issuer(), serialNumber(),
                id(), label), "writeCertificateDLL");
    }

    void deleteCertificate(long slot, byte[] label) throws GeneralSecurityException, Token.Failure {
        Token.check(Smartcard.deleteCertificateDLL(slot, subject(), issuer(), serialNumber(), id(), label),
                "deleteCertificateDLL");
    }

    void writePublicKey(long slot, byte[] label) throws GeneralSecurityException, Token.Failure {
        Token.check(Smartcard.writePublicKeyDLL(slot, unsigned(key.getModulus()), unsigned(key.getPublicExponent()),
                id(), label), "writePublicKeyDLL");
    }

    /** Big-endian as PKCS#11 wants it: without the zero byte that keeps Java's form positive. */
    private static byte[] unsigned(BigInteger number) {
        byte[] bytes = number.toByteArray();
        return bytes[0] == 0 && bytes.length > 1 ? Arrays.copyOfRange(bytes, 1, bytes.length) : bytes;
    }

    private static byte[] derInteger(BigInteger number) {
        byte[] content = number.toByteArray();
        if (content.length > 127) { // A serial number has at most 20 bytes, so the short form of the length is enough.
            throw new IllegalArgumentException("a serial number of " + content.length + " bytes");
        }
        ByteArrayOutputStream der = new ByteArrayOutputStream();
        der.write(0x02);
        der.write(content.length);
        der.writeBytes(content);
        return der.toByteArray();
    }
}
