import com.calvenhor.vork.utils.Smartcard;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.PublicKey;
import java.security.interfaces.RSAPublicKey;
import java.util.ArrayDeque;
import java.util.Arrays;
import java.util.Deque;
import java.util.List;

/**
 * Signs a file with a key that never leaves its token, and verifies the signature without the token. On a fresh token
 * it generates the key; on a token that is there already it takes a key of that token, and changes nothing.
 */
public final class SignDocument {
    private static final byte[] PUBLIC_EXPONENT = {1, 0, 1};

    private record Key(byte[] id, PublicKey publicKey) {
    }

    private SignDocument() {
    }

    /** @param arguments the options of {@link Token#open}, then the file; without one, the one that demo.file names */
    public static void main(String[] arguments) {
        Token.run(() -> sign(new ArrayDeque<>(List.of(arguments))));
    }

    private static void sign(Deque<String> arguments) throws Exception {
        boolean fresh = arguments.contains("--fresh");
        try (Token token = Token.open(arguments)) {
            Token.require(arguments.size() <= 1, "one file to sign is expected");
            Path file = Path.of(arguments.isEmpty() ? System.getProperty("demo.file") : arguments.remove());
            byte[] document = Files.readAllBytes(file);

            Key key = fresh ? generate(token) : choose(token);

            Token.step("Sign " + file + " (" + document.length + " bytes) with the key " + Token.hex(key.id));
            byte[] signature = Token.data(Smartcard.signWithIDDLL(token.slot, Sha256Rsa.digestInfo(document), key.id),
                    "signWithIDDLL");
            Token.tell("The token signed the SHA-256 digest of the file: " + signature.length + " bytes, "
                    + Token.hex(Arrays.copyOf(signature, 16)) + "...");

            Token.step("Verify the signature with Java alone");
            Token.require(Sha256Rsa.verifies(key.publicKey, document, signature), "the signature does not verify");
            Token.tell("The file verifies.");
            byte[] changed = Arrays.copyOf(document, document.length + 1);
            Token.require(!Sha256Rsa.verifies(key.publicKey, changed, signature), "a changed file verifies as well");
            Token.tell("The file with one byte added does not.");

            if (fresh) {
                delete(token, key);
            }
        }
    }

    private static Key generate(Token token) throws Exception {
        byte[] id = Token.utf8("contract-key");
        Token.step("Generate an RSA key pair of 2048 bits on the token");
        byte[] modulus = Token.data(
                Smartcard.generateKeyPairDLL(token.slot, 2048, PUBLIC_EXPONENT, id, Token.utf8("Contracts")),
                "generateKeyPairDLL");
        RSAPublicKey publicKey = Token.publicKey(modulus, PUBLIC_EXPONENT);
        Token.require(publicKey.getModulus().bitLength() == 2048, "the modulus does not have 2048 bits");
        Token.tell("The private key stays there. The public key is " + Token.hex(Arrays.copyOf(modulus, 16)) + "...");
        return new Key(id, publicKey);
    }

    /** Takes the first private key whose public key is on the token too, as such or in a certificate. */
    private static Key choose(Token token) throws Exception {
        Token.step("Look for a key");
        List<Token.Entry> publicKeys = Token.publicKeys(token.slot);
        List<Token.Entry> certificates = Token.certificates(token.slot);
        for (Token.Entry privateKey : Token.privateKeys(token.slot)) {
            PublicKey publicKey = Token.publicKey(privateKey.id(), publicKeys, certificates);
            if (publicKey != null) {
                return new Key(privateKey.id(), publicKey);
            }
        }
        throw new Token.Failure("no RSA private key in sight whose public key is there too; does it need --pin?");
    }

    private static void delete(Token token, Key key) throws Token.Failure {
        Token.step("Delete the key pair");
        Token.check(Smartcard.deletePrivateKeyDLL(token.slot, key.id), "deletePrivateKeyDLL");
        Token.check(Smartcard.deletePublicKeyDLL(token.slot, key.id), "deletePublicKeyDLL");
        Token.require(Smartcard.isCardEmptyDLL(token.slot) == 0, "the token is not empty");
    }
}
