import com.calvenhor.vork.utils.Smartcard;
import java.io.IOException;
import java.math.BigInteger;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.KeyFactory;
import java.security.PublicKey;
import java.security.Signature;
import java.security.spec.RSAPublicKeySpec;
import java.util.Arrays;

/**
 * Signs a file with a key that stays on its token, and verifies the signature without the token. On a new token it
 * generates the key. On an existing token it uses the first suitable key, and changes nothing.
 */
public final class SignDocument {
    private static final byte[] EXPONENT = {1, 0, 1};

    private record Key(byte[] id, PublicKey publicKey) {
    }

    private SignDocument() {
    }

    /** @param arguments --fresh MODULE FILE, or --module MODULE FILE [SLOT], with the PIN in SMARTCARD_PIN */
    public static void main(String[] arguments) throws GeneralSecurityException, IOException {
        String module = arguments[1];
        Recipes.check("initDLL", Smartcard.initDLL(module));
        try {
            byte[] document = Files.readAllBytes(Path.of(arguments[2]));
            if (arguments[0].equals("--fresh")) {
                long slot = Recipes.newToken(module, 0, "12345678", "123456");
                Recipes.logIn(slot, "123456");
                sign(slot, generate(slot), document);
            } else {
                long slot = arguments.length > 3 ? Long.parseLong(arguments[3]) : firstToken();
                Recipes.check("openSessionDLL", Smartcard.openSessionDLL(slot));
                if (System.getenv("SMARTCARD_PIN") != null) {
                    Recipes.logIn(slot, System.getenv("SMARTCARD_PIN"));
                }
                sign(slot, choose(slot), document);
            }
        } finally {
            Smartcard.finalizeDLL();
        }
    }

    private static long firstToken() throws IOException {
        for (long slot = 0; slot < Smartcard.getSlotCountDLL(); slot++) {
            long flags = Smartcard.getTokenInfoDLL(slot);
            if (flags > 0 && (flags & 0x400) != 0) { // CKF_TOKEN_INITIALIZED
                return slot;
            }
        }
        throw new IOException("no slot has an initialised token: insert a card, or initialise the token");
    }

    private static Key generate(long slot) throws GeneralSecurityException, IOException {
        byte[] id = "contract-key".getBytes();
        byte[] modulus = Recipes.data("generateKeyPairDLL",
                Smartcard.generateKeyPairDLL(slot, 2048, EXPONENT, id, "Contracts".getBytes()));
        System.out.println("\n==> The token has generated a key pair.");
        return new Key(id, publicKey(modulus, EXPONENT));
    }

    /** {@return the first private key whose public key is also on the token, as an object or in a certificate} */
    private static Key choose(long slot) throws GeneralSecurityException, IOException {
        byte[][] privateKeys = Smartcard.readAllRSAPrivateKeysDLL(slot);
        byte[][] publicKeys = Smartcard.readAllRSAPublicKeysDLL(slot);
        for (int i = 1; i < privateKeys.length; i += 2) {
            byte[] id = privateKeys[i];
            for (int k = 1; k < publicKeys.length; k += 4) {
                if (Arrays.equals(publicKeys[k], id)) {
                    return new Key(id, publicKey(publicKeys[k + 2], publicKeys[k + 3]));
                }
            }
            for (Recipes.Entry entry : Recipes.certificates(slot)) {
                if (Arrays.equals(entry.id(), id)) {
                    return new Key(id, entry.certificate().getPublicKey());
                }
            }
        }
        throw new IOException(
                "no RSA private key with its public key is visible: set SMARTCARD_PIN, or generate a key");
    }

    private static PublicKey publicKey(byte[] modulus, byte[] exponent) throws GeneralSecurityException {
        return KeyFactory.getInstance("RSA").generatePublic(
                new RSAPublicKeySpec(new BigInteger(1, modulus), new BigInteger(1, exponent)));
    }

    private static void sign(long slot, Key key, byte[] document) throws GeneralSecurityException, IOException {
        byte[] signature = Recipes.data("signWithIDDLL",
                Smartcard.signWithIDDLL(slot, Recipes.digestInfo(document), key.id));
        System.out.println("\n==> The token signed the SHA-256 digest of the file: " + signature.length + " bytes.");
        Signature verifier = Signature.getInstance("SHA256withRSA");
        verifier.initVerify(key.publicKey);
        verifier.update(document);
        if (!verifier.verify(signature)) {
            throw new IOException("the signature does not verify");
        }
        System.out.println("\n==> The signature verifies.");
    }
}
