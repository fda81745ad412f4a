import java.security.GeneralSecurityException;
import java.security.MessageDigest;
import java.security.PublicKey;
import java.security.Signature;
import java.util.Arrays;
import java.util.HexFormat;

/** The two sides of an RSA signature over SHA-256 (PKCS #1 v1.5): what the token is given to sign, and Java's check. */
final class Sha256Rsa {
    /** The DER encoding of DigestInfo for SHA-256, up to the digest itself. */
    private static final byte[] PREFIX = HexFormat.of().parseHex("3031300d060960864801650304020105000420");

    private Sha256Rsa() {
    }

    static byte[] digestInfo(byte[] document) throws GeneralSecurityException {
        byte[] digest = MessageDigest.getInstance("SHA-256").digest(document);
        byte[] digestInfo = Arrays.copyOf(PREFIX, PREFIX.length + digest.length);
        System.arraycopy(digest, 0, digestInfo, PREFIX.length, digest.length);
        return digestInfo;
    }

    static boolean verifies(PublicKey publicKey, byte[] document, byte[] signature) throws GeneralSecurityException {
        Signature verifier = Signature.getInstance("SHA256withRSA");
        verifier.initVerify(publicKey);
        verifier.update(document);
        return verifier.verify(signature);
    }
}
