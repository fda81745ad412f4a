package com.calvenhor.vork.utils.tool;

import com.calvenhor.vork.utils.Smartcard;
import com.calvenhor.vork.utils.SmartcardException;
import java.security.GeneralSecurityException;
import java.security.PublicKey;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAKey;
import java.util.List;
import java.util.stream.LongStream;

/** Shows the slots of a module: each one's token, certificates and keys, and which of them belong together. */
final class Show {
    private final Options options;
    private boolean failed; // somewhere, and the other slots are shown all the same

    private Show(Options options) {
        this.options = options;
    }

    /** {@return the exit status} */
    static int run(Options options) throws Token.Failure {
        Token.bind(options);
        Show show = new Show(options);
        for (long slot : options.slot() >= 0 ? new long[] {options.slot()}
                : LongStream.range(0, Smartcard.getSlotCountDLL()).toArray()) {
            try {
                show.showSlot(slot);
            } catch (Token.Failure | GeneralSecurityException e) {
                show.tellFailure(e);
            }
        }
        Worker.step("finalize and unload the module");
        Smartcard.finalizeDLL();
        return show.failed ? Main.FAILED : 0;
    }

    private void tellFailure(Exception failure) {
        Worker.tell("  FAILED: " + failure.getMessage());
        failed = true;
    }

    private void showSlot(long slot) throws GeneralSecurityException, Token.Failure {
        Worker.step("ask for slot " + slot + " and its token");
        Worker.tell("");
        Worker.tell("Slot " + slot + ": "
                + Token.text(Token.data(Smartcard.readSlotDescriptionDLL(slot), "readSlotDescriptionDLL")));
        Worker.tell("  flags: " + Names.slotFlags(Smartcard.getSlotInfoDLL(slot)));
        byte[] label = Smartcard.readCardLabelDLL(slot);
        if (label.length == 1) {
            Worker.tell("  no token: " + SmartcardException.nameOf(label[0] & 0xFF));
            return;
        }
        Worker.tell("  token: \"" + Token.text(label) + "\", serial number "
                + Token.text(Token.data(Smartcard.readCardSerialNumberDLL(slot), "readCardSerialNumberDLL")));
        Worker.tell("  flags: " + Names.tokenFlags(Smartcard.getTokenInfoDLL(slot)));
        if (!Token.isInitialised(slot)) {
            Worker.tell("  not initialised: nothing can be done with it yet");
            return;
        }
        Worker.step("ask for the mechanisms of slot " + slot);
        Worker.tell("  mechanisms: " + Smartcard.getSupportedMechanismListDLL(slot).length
                + ", of which the library uses");
        tellMechanism(slot, "RSA_PKCS", 1);
        tellMechanism(slot, "RSA_PKCS_KEY_PAIR_GEN", 0);
        Token token = Token.open(slot);
        try {
            Worker.tell("  " + token.logIn(options));
        } catch (Token.Failure e) { // what is public can be seen all the same
            tellFailure(e);
        }
        showObjects(slot);
        token.logOut();
    }

    private static void tellMechanism(long slot, String name, long type) {
        long flags = Smartcard.getMechanismInfoDLL(slot, type);
        Worker.tell(String.format("    %-22s %s", name, flags == -1 ? "not there" : Names.mechanismFlags(flags)));
    }

    private static void showObjects(long slot) throws GeneralSecurityException, Token.Failure {
        Worker.step("list the certificates and keys in slot " + slot);
        List<Token.Entry> certificates = Token.certificates(slot);
        List<Token.Entry> publicKeys = Token.publicKeys(slot);
        List<Token.Entry> privateKeys = Token.privateKeys(slot);

        Worker.tell("  certificates: " + certificates.size());
        for (Token.Entry entry : certificates) {
            Worker.tell("    " + entry);
            try {
                X509Certificate certificate = Token.certificate(entry);
                Worker.tell("      subject: " + certificate.getSubjectX500Principal());
                Worker.tell("      issuer: " + certificate.getIssuerX500Principal());
                Worker.tell("      valid until: " + certificate.getNotAfter().toInstant());
            } catch (GeneralSecurityException e) {
                Worker.tell("      Java cannot read it: " + e.getMessage());
            }
            Worker.tell("      private key: " + (Token.find(entry.id(), privateKeys) == null ? "none seen" : "here"));
        }
        Worker.tell("  RSA public keys: " + publicKeys.size());
        for (Token.Entry entry : publicKeys) {
            Worker.tell("    " + entry + ", " + bits(Token.publicKey(entry)));
        }
        Worker.tell("  RSA private keys: " + privateKeys.size());
        for (Token.Entry entry : privateKeys) {
            Worker.tell("    " + entry + ", " + bits(Token.publicKey(entry.id(), publicKeys, certificates)));
            Token.Entry certificate = Token.find(entry.id(), certificates);
            Worker.tell("      certificate: " + (certificate == null ? "none" : certificate));
        }
    }

    /** A private key does not tell its size: its other half does. */
    private static String bits(PublicKey publicKey) {
        return publicKey instanceof RSAKey key ? key.getModulus().bitLength() + " bits" : "size unknown: no public key";
    }
}
