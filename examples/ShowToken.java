import com.calvenhor.vork.utils.Smartcard;
import com.calvenhor.vork.utils.SmartcardException;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAKey;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Deque;
import java.util.List;

/**
 * Shows every slot of a module: the slot, its token, the token's mechanisms, certificates and RSA keys, and which of
 * them belong together. A fresh token is filled first, so that there is something to see; one that is there already is
 * only read.
 */
public final class ShowToken {
    private static final byte[] PUBLIC_EXPONENT = {1, 0, 1};

    private final List<String> lines = new ArrayList<>();

    private ShowToken() {
    }

    /** @param arguments the options of {@link Token#open}; for a fresh token, a PKCS#12 file and its password */
    public static void main(String[] arguments) {
        Token.run(() -> show(new ArrayDeque<>(List.of(arguments))));
    }

    private static void show(Deque<String> arguments) throws Exception {
        boolean fresh = arguments.contains("--fresh");
        try (Token token = Token.open(arguments)) {
            Token.require(arguments.size() == (fresh ? 2 : 0), "wrong number of arguments");
            if (fresh) {
                fill(token, Identity.read(Path.of(arguments.remove()), arguments.remove().toCharArray()));
            }

            Token.step("Read all slots");
            ShowToken inventory = new ShowToken();
            for (long slot = 0; slot < Smartcard.getSlotCountDLL(); slot++) {
                inventory.addSlot(slot, slot == token.slot);
            }

            Token.step("What was found");
            inventory.lines.forEach(Token::tell);
        }
    }

    private static void fill(Token token, Identity identity) throws Exception {
        Token.step("Write an identity to the token: private key, public key and certificate");
        identity.write(token.slot, Token.utf8("Identity"));
        Token.step("Generate a key pair that has no certificate");
        Token.data(Smartcard.generateKeyPairDLL(token.slot, 2048, PUBLIC_EXPONENT, Token.utf8("spare-key"),
                Token.utf8("Spare")), "generateKeyPairDLL");
    }

    private void addSlot(long slot, boolean hasSession) throws GeneralSecurityException, Token.Failure {
        byte[] description = Token.data(Smartcard.readSlotDescriptionDLL(slot), "readSlotDescriptionDLL");
        lines.add("");
        lines.add("Slot " + slot + ": " + Token.text(description));
        lines.add("  flags: " + Names.slotFlags(Smartcard.getSlotInfoDLL(slot)));
        byte[] label = Smartcard.readCardLabelDLL(slot);
        if (label.length == 1) {
            lines.add("  no token: " + SmartcardException.nameOf(label[0] & 0xFF));
            return;
        }
        byte[] serialNumber = Token.data(Smartcard.readCardSerialNumberDLL(slot), "readCardSerialNumberDLL");
        lines.add("  token: \"" + Token.text(label) + "\", serial number " + Token.text(serialNumber));
        lines.add("  flags: " + Names.tokenFlags(Smartcard.getTokenInfoDLL(slot)));
        if (!Token.isInitialised(slot)) {
            lines.add("  not initialised: nothing can be done with it yet");
            return;
        }
        addMechanisms(slot);
        if (!hasSession) {
            Token.check(Smartcard.openSessionDLL(slot), "openSessionDLL");
        }
        addObjects(slot);
    }

    private void addMechanisms(long slot) {
        int[] types = Smartcard.getSupportedMechanismListDLL(slot);
        lines.add("  mechanisms: " + types.length);
        for (int type : types) {
            long flags = Smartcard.getMechanismInfoDLL(slot, Integer.toUnsignedLong(type));
            lines.add(String.format("    %-27s %s", Names.mechanism(type),
                    flags == -1 ? "(no information)" : Names.mechanismFlags(flags)));
        }
    }

    private void addObjects(long slot) throws GeneralSecurityException, Token.Failure {
        List<Token.Entry> certificates = Token.certificates(slot);
        List<Token.Entry> publicKeys = Token.publicKeys(slot);
        List<Token.Entry> privateKeys = Token.privateKeys(slot);

        lines.add("  certificates: " + certificates.size());
        for (Token.Entry entry : certificates) {
            X509Certificate certificate = Token.certificate(entry.values().get(0));
            lines.add("    " + named(entry));
            lines.add("      subject: " + certificate.getSubjectX500Principal());
            lines.add("      valid: " + certificate.getNotBefore().toInstant() + " to "
                    + certificate.getNotAfter().toInstant());
            lines.add("      its private key: " + (find(entry, privateKeys) == null ? "not in sight" : "here"));
        }
        lines.add("  RSA public keys: " + publicKeys.size());
        for (Token.Entry entry : publicKeys) {
            lines.add("    " + named(entry) + ", " + bits(entry) + " bits");
        }
        lines.add("  RSA private keys: " + privateKeys.size());
        for (Token.Entry entry : privateKeys) {
            Token.Entry certificate = find(entry, certificates);
            lines.add("    " + named(entry) + ", " + size(find(entry, publicKeys), certificate));
            lines.add("      its certificate: " + (certificate == null ? "none" : named(certificate)));
        }
    }

    /** A private key does not tell its size: its other half does, on its own or in a certificate. */
    private static String size(Token.Entry publicKey, Token.Entry certificate) throws GeneralSecurityException {
        if (publicKey != null) {
            return bits(publicKey) + " bits";
        }
        if (certificate != null
                && Token.certificate(certificate.values().get(0)).getPublicKey() instanceof RSAKey key) {
            return key.getModulus().bitLength() + " bits";
        }
        return "size unknown: its public key is not here";
    }

    private static int bits(Token.Entry publicKey) throws GeneralSecurityException {
        return Token.publicKey(publicKey.values().get(0), publicKey.values().get(1)).getModulus().bitLength();
    }

    /** The first of the entries with the same ID, or null. */
    private static Token.Entry find(Token.Entry entry, List<Token.Entry> among) {
        return among.stream().filter(other -> Arrays.equals(other.id(), entry.id())).findFirst().orElse(null);
    }

    private static String named(Token.Entry entry) {
        return "\"" + Token.text(entry.label()) + "\", ID " + Token.hex(entry.id());
    }
}
