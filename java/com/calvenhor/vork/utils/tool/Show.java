package com.calvenhor.vork.utils.tool;

import com.calvenhor.vork.utils.Smartcard;
import java.security.GeneralSecurityException;
import java.security.PublicKey;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAKey;
import java.util.List;
import java.util.stream.LongStream;

/** Prints each slot of a module with its token, certificates and keys, and which keys and certificates match. */
final class Show {
    private static final byte NO_TOKEN = (byte) 0xE0; // CKR_TOKEN_NOT_PRESENT

    private final Options options;
    private boolean hasFailed; // whether a slot could not be shown; the others still are

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
                show.reportFailure(e);
            }
        }
        Worker.beginStep("finalize and unload the module");
        Smartcard.finalizeDLL();
        return show.hasFailed ? Main.FAILED : 0;
    }

    private void reportFailure(Exception failure) {
        Worker.print("  FAILED: " + failure.getMessage());
        hasFailed = true;
    }

    private void showSlot(long slot) throws GeneralSecurityException, Token.Failure {
        Worker.beginStep("read slot " + slot + " and its token");
        Worker.print("");
        Worker.print("Slot " + slot + ": "
                + Token.text(Token.data(Smartcard.readSlotDescriptionDLL(slot), "readSlotDescriptionDLL")));
        Worker.print("  flags: " + Names.slotFlags(Smartcard.getSlotInfoDLL(slot)));
        byte[] label = Smartcard.readCardLabelDLL(slot);
        if (label.length == 1) {
            Worker.print(label[0] == NO_TOKEN ? "  no token"
                    : "  the token cannot be read: " + Token.refusal(label, "readCardLabelDLL").getMessage());
            return;
        }
        Worker.print("  token: \"" + Token.text(label) + "\", serial number "
                + Token.text(Token.data(Smartcard.readCardSerialNumberDLL(slot), "readCardSerialNumberDLL")));
        Worker.print("  flags: " + Names.tokenFlags(Smartcard.getTokenInfoDLL(slot)));
        if (!Token.isInitialised(slot)) {
            Worker.print("  the token is not initialised");
            return;
        }
        Worker.beginStep("list the mechanisms of slot " + slot);
        Worker.print("  mechanisms: " + Smartcard.getSupportedMechanismListDLL(slot).length
                + "; the library uses");
        printMechanism(slot, "RSA_PKCS", 1);
        printMechanism(slot, "RSA_PKCS_KEY_PAIR_GEN", 0);
        Token token = Token.open(slot);
        try {
            Worker.print("  " + token.logIn(options));
        } catch (Token.Failure e) { // public objects are visible without a login
            reportFailure(e);
        }
        showObjects(slot);
        token.logOut();
    }

    private static void printMechanism(long slot, String name, long type) {
        long flags = Smartcard.getMechanismInfoDLL(slot, type);
        Worker.print(String.format("    %-22s %s", name, flags == -1 ? "not supported" : Names.mechanismFlags(flags)));
    }

    private static void showObjects(long slot) throws GeneralSecurityException, Token.Failure {
        Worker.beginStep("list the certificates and keys in slot " + slot);
        List<Token.Entry> certificates = Token.certificates(slot);
        List<Token.Entry> publicKeys = Token.publicKeys(slot);
        List<Token.Entry> privateKeys = Token.privateKeys(slot);

        Worker.print("  certificates: " + certificates.size());
        for (Token.Entry entry : certificates) {
            Worker.print("    " + entry);
            try {
                X509Certificate certificate = Token.certificate(entry);
                Worker.print("      subject: " + certificate.getSubjectX500Principal());
                Worker.print("      issuer: " + certificate.getIssuerX500Principal());
                Worker.print("      valid until: " + certificate.getNotAfter().toInstant());
            } catch (GeneralSecurityException e) {
                Worker.print("      Java cannot parse it: " + e.getMessage());
            }
            Worker.print("      private key: "
                    + (Token.find(entry.id(), privateKeys) == null ? "not visible" : "on the token"));
        }
        Worker.print("  RSA public keys: " + publicKeys.size());
        for (Token.Entry entry : publicKeys) {
            Worker.print("    " + entry + ", " + bits(Token.publicKey(entry)));
        }
        Worker.print("  RSA private keys: " + privateKeys.size());
        for (Token.Entry entry : privateKeys) {
            Worker.print("    " + entry + ", " + bits(Token.publicKey(entry.id(), publicKeys, certificates)));
            Token.Entry certificate = Token.find(entry.id(), certificates);
            Worker.print("      certificate: " + (certificate == null ? "none" : certificate));
        }
    }

    /** {@return the size of a key pair, which only the public key shows} */
    private static String bits(PublicKey publicKey) {
        return publicKey instanceof RSAKey key ? key.getModulus().bitLength() + " bits" : "size unknown: no public key";
    }
}
