import com.calvenhor.vork.utils.Smartcard;
import java.nio.file.Path;
import java.util.ArrayDeque;
import java.util.Arrays;
import java.util.Deque;
import java.util.List;

/** The whole life of an identity on a token: imported from a PKCS#12 file, used, renamed, deleted. */
public final class ImportIdentity {
    private static final byte[] FIRST_LABEL = Token.utf8("Imported");
    private static final byte[] NEW_LABEL = Token.utf8("Contracts");

    private ImportIdentity() {
    }

    /** @param arguments the options of {@link Token#open}, then the PKCS#12 file and its password */
    public static void main(String[] arguments) {
        Token.run(() -> importIdentity(new ArrayDeque<>(List.of(arguments))));
    }

    private static void importIdentity(Deque<String> arguments) throws Exception {
        Token.require(arguments.contains("--fresh"), "this example empties its token, so it takes only a fresh one");
        try (Token token = Token.open(arguments)) {
            Token.require(arguments.size() == 2, "a PKCS#12 file and its password are expected");
            Path file = Path.of(arguments.remove());
            Token.step("Read " + file);
            Identity identity = Identity.read(file, arguments.remove().toCharArray());
            byte[] id = identity.id();
            Token.tell("An RSA key of " + identity.key().getModulus().bitLength() + " bits, with a certificate for "
                    + identity.certificate().getSubjectX500Principal());

            Token.step("Write private key, public key and certificate to the token");
            identity.write(token.slot, FIRST_LABEL);

            Token.step("List what is on the token");
            list(token, id, FIRST_LABEL, FIRST_LABEL);

            Token.step("Sign with the imported key, verify with the certificate");
            byte[] document = Token.utf8("The key came from a file, and signs on the token.");
            byte[] signature = Token.data(
                    Smartcard.signWithIDDLL(token.slot, Sha256Rsa.digestInfo(document), id), "signWithIDDLL");
            Token.require(Sha256Rsa.verifies(identity.certificate().getPublicKey(), document, signature),
                    "the signature does not verify");
            Token.tell("The signature verifies.");

            Token.step("Give the key pair the label \"" + Token.text(NEW_LABEL)
                    + "\"; the ID stays, since the certificate would keep the old one");
            Token.check(Smartcard.updateKeyPairIDAndLabelDLL(token.slot, id, id, NEW_LABEL),
                    "updateKeyPairIDAndLabelDLL");

            Token.step("List again: the certificate still has its old label");
            list(token, id, FIRST_LABEL, NEW_LABEL);

            Token.step("Give the certificate the label of the public key");
            Token.check(Smartcard.setCertificateLabelDLL(null, token.slot), "setCertificateLabelDLL");
            list(token, id, NEW_LABEL, NEW_LABEL);

            Token.step("Delete all three");
            identity.deleteCertificate(token.slot, NEW_LABEL);
            Token.check(Smartcard.deletePublicKeyDLL(token.slot, id), "deletePublicKeyDLL");
            Token.check(Smartcard.deletePrivateKeyDLL(token.slot, id), "deletePrivateKeyDLL");

            Token.step("Look at the token again");
            Token.require(Smartcard.isCardEmptyDLL(token.slot) == 0, "the token is not empty");
            Token.tell("It is empty.");
        }
    }

    /** Lists the three objects, and makes sure that they are the only ones and carry the ID and the labels. */
    private static void list(Token token, byte[] id, byte[] certificateLabel, byte[] keyLabel) throws Token.Failure {
        // All reading comes before all telling, so that the library's traces do not fall between the lines.
        List<Token.Entry> certificates = Token.certificates(token.slot);
        List<Token.Entry> publicKeys = Token.publicKeys(token.slot);
        List<Token.Entry> privateKeys = Token.privateKeys(token.slot);
        list("certificate", certificates, id, certificateLabel);
        list("public key", publicKeys, id, keyLabel);
        list("private key", privateKeys, id, keyLabel);
    }

    private static void list(String kind, List<Token.Entry> entries, byte[] id, byte[] label) throws Token.Failure {
        Token.require(entries.size() == 1, entries.size() + " objects of the kind " + kind);
        Token.Entry entry = entries.get(0);
        Token.tell(String.format("%-11s  ID %s  label \"%s\"", kind, Token.hex(entry.id()), Token.text(entry.label())));
        Token.require(Arrays.equals(entry.id(), id), "not the ID of the identity");
        Token.require(Arrays.equals(entry.label(), label), "not the label \"" + Token.text(label) + "\"");
    }
}
