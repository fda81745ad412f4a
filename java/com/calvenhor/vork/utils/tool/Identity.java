package com.calvenhor.vork.utils.tool;

import com.calvenhor.vork.utils.Smartcard;
import java.io.ByteArrayOutputStream;
import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.KeyPair;
import java.security.KeyPairGenerator;
import java.security.Signature;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAPrivateCrtKey;
import java.util.Arrays;
import java.util.HexFormat;
import java.util.List;
import javax.security.auth.x500.X500Principal;

/** An RSA key and its certificate, and the ID under which both are written to a token. */
record Identity(RSAPrivateCrtKey key, X509Certificate certificate, byte[] id) {
    private static final int SEQUENCE = 0x30;

    /** {@return a new key with a self-signed certificate} */
    static Identity generate(byte[] id) throws GeneralSecurityException {
        KeyPairGenerator generator = KeyPairGenerator.getInstance("RSA");
        generator.initialize(2048);
        KeyPair pair = generator.generateKeyPair();
        byte[] name = new X500Principal("CN=Module check").getEncoded();
        byte[] validity = der(SEQUENCE, der(0x17, "200101000000Z".getBytes(StandardCharsets.US_ASCII)),
                der(0x17, "491231235959Z".getBytes(StandardCharsets.US_ASCII)));
        byte[] algorithm = HexFormat.of().parseHex("300d06092a864886f70d01010b0500"); // sha256WithRSAEncryption
        BigInteger serialNumber = new BigInteger(1, Arrays.copyOf(id, 8));
        byte[] tbsCertificate = der(SEQUENCE, der(2, serialNumber.toByteArray()), algorithm, name, validity, name,
                pair.getPublic().getEncoded());
        Signature signer = Signature.getInstance("SHA256withRSA");
        signer.initSign(pair.getPrivate());
        signer.update(tbsCertificate);
        byte[] signature = signer.sign();
        byte[] certificate = der(SEQUENCE, tbsCertificate, algorithm, der(3, new byte[1], signature));
        return new Identity((RSAPrivateCrtKey) pair.getPrivate(),
                Token.certificate(new Token.Entry(id, id, List.of(certificate))), id);
    }

    /** Writes both keys and the certificate. Requires that the token lists one more private and one more public key. */
    void write(long slot, byte[] label) throws GeneralSecurityException, Token.Failure {
        int privateKeys = Token.privateKeys(slot).size();
        int publicKeys = Token.publicKeys(slot).size();
        Token.check(Smartcard.writeCertificateAndPrivateKeyDLL(slot, certificate.getEncoded(), subject(certificate),
                issuer(certificate), serialNumber(certificate), unsigned(key.getModulus()),
                unsigned(key.getPublicExponent()), unsigned(key.getPrivateExponent()), unsigned(key.getPrimeP()),
                unsigned(key.getPrimeQ()), unsigned(key.getPrimeExponentP()), unsigned(key.getPrimeExponentQ()),
                unsigned(key.getCrtCoefficient()), id, label), "writeCertificateAndPrivateKeyDLL");
        // The method returns the code of the certificate only.
        if (Token.privateKeys(slot).size() != privateKeys + 1) {
            throw new Token.Refused("the private key is not on the token; --traces FILE has the code");
        }
        if (Token.publicKeys(slot).size() != publicKeys + 1) {
            throw new Token.Refused("the public key is not on the token; --traces FILE has the code");
        }
    }

    void writeCertificate(long slot, byte[] label) throws GeneralSecurityException, Token.Failure {
        Token.check(Smartcard.writeCertificateDLL(slot, certificate.getEncoded(), subject(certificate),
                issuer(certificate), serialNumber(certificate), id, label), "writeCertificateDLL");
    }

    void writePublicKey(long slot, byte[] label) throws GeneralSecurityException, Token.Failure {
        Token.check(Smartcard.writePublicKeyDLL(slot, unsigned(key.getModulus()), unsigned(key.getPublicExponent()), id,
                label), "writePublicKeyDLL");
    }

    static void deleteCertificate(long slot, X509Certificate certificate, byte[] id, byte[] label)
            throws Token.Failure {
        Token.check(Smartcard.deleteCertificateDLL(slot, subject(certificate), issuer(certificate),
                serialNumber(certificate), id, label), "deleteCertificateDLL");
    }

    private static byte[] subject(X509Certificate certificate) {
        return certificate.getSubjectX500Principal().getEncoded();
    }

    private static byte[] issuer(X509Certificate certificate) {
        return certificate.getIssuerX500Principal().getEncoded();
    }

    private static byte[] serialNumber(X509Certificate certificate) {
        return der(2, certificate.getSerialNumber().toByteArray());
    }

    /** {@return a PKCS#11 Big integer: without the leading zero byte of Java's two's complement} */
    private static byte[] unsigned(BigInteger number) {
        byte[] bytes = number.toByteArray();
        return bytes[0] == 0 && bytes.length > 1 ? Arrays.copyOfRange(bytes, 1, bytes.length) : bytes;
    }

    private static byte[] der(int tag, byte[]... parts) {
        ByteArrayOutputStream content = new ByteArrayOutputStream();
        for (byte[] part : parts) {
            content.writeBytes(part);
        }
        int length = content.size();
        ByteArrayOutputStream der = new ByteArrayOutputStream();
        der.write(tag);
        if (length > 0xFF) {
            der.writeBytes(new byte[] {(byte) 0x82, (byte) (length >> 8)});
        } else if (length > 0x7F) {
            der.write(0x81);
        }
        der.write(length);
        der.writeBytes(content.toByteArray());
        return der.toByteArray();
    }
}
