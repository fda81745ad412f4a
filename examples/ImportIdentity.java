import com.calvenhor.vork.utils.Smartcard;
import java.io.IOException;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.util.Arrays;

/**
 * Imports a key and its certificate from a PKCS#12 file into a new token. Signs with the key, changes the labels of key
 * and certificate, and deletes both.
 */
public final class ImportIdentity {
    private static final byte[] LABEL = "Imported".getBytes();
    private static final byte[] NEW_LABEL = "Contracts".getBytes();

    private ImportIdentity() {
    }

    /** @param arguments [--keep] MODULE FILE.p12 PASSWORD ALIAS; with --keep key and certificate stay on the token */
    public static void main(String[] arguments) throws GeneralSecurityException, IOException {
        boolean keep = arguments[0].equals("--keep");
        String[] values = keep ? Arrays.copyOfRange(arguments, 1, arguments.length) : arguments;
        Recipes.check("initDLL", Smartcard.initDLL(values[0]));
        try {
            long slot = Recipes.newToken(values[0], 0, "12345678", "123456");
            Recipes.logIn(slot, "123456");
            byte[] id = Recipes.importIdentity(slot, Path.of(values[1]), values[2].toCharArray(), values[3], LABEL);
            Recipes.Entry entry = showCertificate(slot, LABEL);
            Recipes.sign(slot, entry, "The key came from a file, and signs on the token.".getBytes());
            System.out.println("\n==> The imported key signs, and the certificate verifies the signature.");

            // The key pair keeps its ID, because the method does not change the ID of the certificate.
            Recipes.check("updateKeyPairIDAndLabelDLL", Smartcard.updateKeyPairIDAndLabelDLL(slot, id, id, NEW_LABEL));
            showCertificate(slot, LABEL);
            // The certificate gets the label of the public key.
            Recipes.check("setCertificateLabelDLL", Smartcard.setCertificateLabelDLL(null, slot));
            showCertificate(slot, NEW_LABEL);
            if (!keep) {
                delete(slot, id);
            }
        } finally {
            Smartcard.finalizeDLL();
        }
    }

    private static Recipes.Entry showCertificate(long slot, byte[] label) throws GeneralSecurityException, IOException {
        Recipes.Entry entry = Recipes.certificates(slot).get(0);
        System.out.println("\n==> " + new String(entry.label()) + ": " + entry.certificate().getSubjectX500Principal());
        if (!Arrays.equals(entry.label(), label)) {
            throw new IOException("the label is not " + new String(label));
        }
        return entry;
    }

    private static void delete(long slot, byte[] id) throws IOException {
        Recipes.check("deleteAllCertificatesDLL", Smartcard.deleteAllCertificatesDLL(slot));
        Recipes.check("deletePublicKeyDLL", Smartcard.deletePublicKeyDLL(slot, id));
        Recipes.check("deletePrivateKeyDLL", Smartcard.deletePrivateKeyDLL(slot, id));
        if (Smartcard.isCardEmptyDLL(slot) != 0) {
            throw new IOException("the token is not empty");
        }
        System.out.println("\n==> The private key, the public key and the certificate are deleted.");
    }
}
