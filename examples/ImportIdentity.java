import com.calvenhor.vork.utils.Smartcard;
import java.io.IOException;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.util.Arrays;

/** The life of an identity on a fresh token: imported from a PKCS#12 file, used, renamed, deleted. */
public final class ImportIdentity {
    private static final byte[] LABEL = "Imported".getBytes();
    private static final byte[] NEW_LABEL = "Contracts".getBytes();

    private ImportIdentity() {
    }

    /** @param arguments MODULE FILE.p12 PASSWORD ALIAS; --keep in front leaves the identity on the token, renamed */
    public static void main(String[] arguments) throws GeneralSecurityException, IOException {
        boolean keep = arguments[0].equals("--keep");
        String[] a = keep ? Arrays.copyOfRange(arguments, 1, arguments.length) : arguments;
        Recipes.check("initDLL", Smartcard.initDLL(a[0]));
        try {
            long slot = Recipes.newToken(a[0], 0, "12345678", "123456");
            Recipes.logIn(slot, "123456");
            byte[] id = Recipes.importIdentity(slot, Path.of(a[1]), a[2].toCharArray(), a[3], LABEL);
            Recipes.Entry entry = list(slot, LABEL);
            Recipes.sign(slot, entry, "The key came from a file, and signs on the token.".getBytes());
            System.out.println("\n==> Its key signs, and its certificate verifies that.");

            // The ID stays: the certificate would keep the old one.
            Recipes.check("updateKeyPairIDAndLabelDLL", Smartcard.updateKeyPairIDAndLabelDLL(slot, id, id, NEW_LABEL));
            list(slot, LABEL);
            Recipes.check("setCertificateLabelDLL", Smartcard.setCertificateLabelDLL(null, slot)); // the public key's
            list(slot, NEW_LABEL);
            if (!keep) {
                delete(slot, id);
            }
        } finally {
            Smartcard.finalizeDLL();
        }
    }

    private static Recipes.Entry list(long slot, byte[] label) throws GeneralSecurityException, IOException {
        Recipes.Entry entry = Recipes.certificates(slot).get(0);
        System.out.println("\n==> " + new String(entry.label()) + ": " + entry.certificate().getSubjectX500Principal());
        if (!Arrays.equals(entry.label(), label)) {
            throw new IOException("not the label " + new String(label));
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
        System.out.println("\n==> All three are deleted.");
    }
}
