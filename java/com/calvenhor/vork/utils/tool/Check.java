package com.calvenhor.vork.utils.tool;

import com.calvenhor.vork.utils.Smartcard;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.MessageDigest;
import java.security.PublicKey;
import java.security.SecureRandom;
import java.security.Signature;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HexFormat;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.function.LongFunction;
import java.util.stream.IntStream;
import java.util.stream.LongStream;

/**
 * Asks a module for what the library can do with it: the report says what worked, what the module refused, and which
 * results contradict each other. It reads, and signs a sentence with each key in sight. With {@code --write} it also
 * takes a key pair and an identity through their lives, under IDs of their own: what was there before stays.
 */
final class Check {
    private static final byte[] EXPONENT = {1, 0, 1};
    private static final byte[] SENTENCE = utf8("Signed to check a PKCS#11 module.");
    private static final byte[] LABEL = utf8("Module check");
    private static final byte[] NEW_LABEL = utf8("Module check, renamed");
    private static final byte[] DIGEST_INFO = HexFormat.of().parseHex("3031300d060960864801650304020105000420");

    private interface Steps {
        void run() throws Exception;
    }

    private interface Listing {
        List<Token.Entry> of(long slot) throws Token.Failure;
    }

    private final Token token;
    private final long slot;
    private String detail; // of the answer to the present question
    private int misfits;

    // As they are before anything is written.
    private List<Token.Entry> certificates;
    private List<Token.Entry> publicKeys;
    private List<Token.Entry> privateKeys;
    private boolean unsure; // whether all were listed, or whether an ID finds its own object alone
    private boolean empty;

    private Check(Token token) {
        this.token = token;
        slot = token.slot;
    }

    /** {@return the exit status} */
    static int run(Options options) throws GeneralSecurityException, Token.Failure {
        Token.bind(options);
        Check check = new Check(Token.open(options.slot() >= 0 ? options.slot() : firstToken()));
        Worker.tell("slot " + check.slot + ": " + check.token.logIn(options));
        if (options.has("--remove")) {
            check.askForLeftovers().forEach((name, deletion) -> check.ask("delete " + name, deletion));
        }
        check.read();
        if (options.has("--write")) {
            check.write();
        }
        check.ask("log out, close, finalize", check::close);
        if (check.misfits == 0) {
            return 0;
        }
        Worker.tell("Results that do not fit: " + check.misfits);
        return Main.MISFIT;
    }

    private static long firstToken() throws Token.Failure {
        return LongStream.range(0, Smartcard.getSlotCountDLL()).filter(Token::isInitialised).findFirst()
                .orElseThrow(() -> new Token.Failure("no slot has a token that is ready for use: insert the card"));
    }

    private void close() throws Token.Failure {
        try {
            token.logOut();
            long code = Smartcard.closeSessionDLL(slot);
            if (code != 0xE0) { // CKR_TOKEN_NOT_PRESENT: it answers for the last slot of all, which may be empty
                Token.check(code, "closeSessionDLL");
            }
        } finally {
            Token.check(Smartcard.finalizeDLL(), "finalizeDLL");
        }
    }

    /** A call that fails is refused; any other failure is one of ours to make sense of the answers. */
    private boolean ask(String what, Steps steps) {
        Worker.step(what);
        detail = "";
        try {
            steps.run();
            enter(what, "worked", detail);
            return true;
        } catch (Token.Refused e) {
            enter(what, "refused", e.getMessage());
        } catch (Exception e) {
            enter(what, "DOES NOT FIT", e instanceof Token.Failure ? e.getMessage() : e.toString());
            misfits++;
        }
        return false;
    }

    private static void enter(String what, String verdict, String text) {
        Worker.tell(String.format("%-33s %-12s  %s", what, verdict, text).stripTrailing());
    }

    // ---- Reading ----

    private void read() {
        ask("slots", () -> {
            long tokens = 0;
            for (long i = 0; i < Smartcard.getSlotCountDLL(); i++) {
                Token.data(Smartcard.readSlotDescriptionDLL(i), "readSlotDescriptionDLL");
                Token.require(Smartcard.getSlotInfoDLL(i) != -1, "no flags of slot " + i);
                tokens += Smartcard.getSlotInfoDLL(i) & 1; // CKF_TOKEN_PRESENT
            }
            Token.require((Smartcard.getSlotInfoDLL(slot) & 1) != 0, "a session, and no token is present");
            detail = Smartcard.getSlotCountDLL() + ", " + tokens + " with a token";
        });
        ask("token", () -> {
            detail = "\"" + Token.text(Token.data(Smartcard.readCardLabelDLL(slot), "readCardLabelDLL"))
                    + "\", serial number "
                    + Token.text(Token.data(Smartcard.readCardSerialNumberDLL(slot), "readCardSerialNumberDLL"))
                    + (Token.isInitialised(slot) ? "" : ", not initialised");
        });
        ask("session", () -> {
            Token.check(Smartcard.isSessionOpenDLL(slot), "isSessionOpenDLL");
            int expected = token.loggedIn ? 3 : 2; // CKS_RW_USER_FUNCTIONS, CKS_RW_PUBLIC_SESSION
            int state = Smartcard.getSessionInfoDLL(slot)[0];
            Token.require(state == expected, "state " + state + ", not " + expected);
            detail = token.loggedIn ? "the user's" : "public";
        });
        ask("mechanisms", () -> {
            int[] types = Smartcard.getSupportedMechanismListDLL(slot);
            if (IntStream.of(types).allMatch(type -> type == 0)) {
                throw new Token.Refused("getSupportedMechanismListDLL: no list");
            }
            Token.require(Arrays.equals(types, Smartcard.getSupportedMechanismListDLL(slot)), "two lists differ");
            List<String> silent = IntStream.of(types).filter(type -> mechanism(type) == -1)
                    .mapToObj(type -> "0x" + Integer.toHexString(type)).toList();
            Token.require(silent.isEmpty(), types.length + ", without information on " + String.join(" ", silent));
            Token.require(mechanism(1) == -1 || IntStream.of(types).anyMatch(type -> type == 1),
                    types.length + ", without RSA_PKCS, of which there is information");
            detail = types.length + "; RSA_PKCS: " + (mechanism(1) == -1 ? "no" : Names.mechanismFlags(mechanism(1)));
        });
        certificates = list("certificates", Token::certificates, Smartcard::readCertificateIDDLL);
        publicKeys = list("RSA public keys", Token::publicKeys, Smartcard::readPublicKeyIDDLL);
        privateKeys = list("RSA private keys", Token::privateKeys, Smartcard::readPrivateKeyIDDLL);
        ask("objects", () -> {
            long count = Smartcard.getObjectCountInTheTokenDLL(slot);
            int listed = certificates.size() + publicKeys.size() + privateKeys.size();
            Token.require(count >= Math.min(20, listed), count + " are counted, " + listed + " listed");
            Token.require(Smartcard.isCardEmptyDLL(slot) == Math.min(1, count),
                    count + " are counted, and isCardEmptyDLL denies it");
            empty = count == 0 && listed == 0 && !unsure; // a search that fails reads like an empty token
            detail = count == 20 ? "20 or more" : String.valueOf(count);
        });
        if (!certificates.isEmpty()) {
            ask("certificates read by Java", () -> {
                for (Token.Entry entry : certificates) {
                    Token.certificate(entry);
                }
                byte[] first = Token.data(Smartcard.readCertificateDLL(slot), "readCertificateDLL");
                Token.require(Arrays.equals(first, certificates.get(0).values().get(0)),
                        "readCertificateDLL gives another than the first that is listed");
            });
        }
        for (Token.Entry key : privateKeys) {
            sign("sign with \"" + Token.text(key.label()) + "\"", key.id());
        }
        boolean noSignature = ask("sign with a key that is not there", () -> {
            byte[] signature = Smartcard.signWithIDDLL(slot, digestInfo(), newId());
            Token.require(signature.length == 1, "another key signed");
            detail = "no signature";
        });
        unsure |= !noSignature;
    }

    private long mechanism(int type) {
        return Smartcard.getMechanismInfoDLL(slot, Integer.toUnsignedLong(type));
    }

    private List<Token.Entry> list(String what, Listing listing, LongFunction<byte[]> firstId) {
        List<Token.Entry> found = new ArrayList<>();
        boolean listed = ask(what, () -> {
            found.addAll(listing.of(slot));
            requireSame(found, listing.of(slot));
            // Of keys it takes every type: the first one's need not be the first of the listing.
            byte[] id = firstId.apply(slot);
            Token.require(found.isEmpty() || id.length != 1 || found.get(0).id().length == 1,
                    found.size() + " are listed, and the first one's ID reads as status " + Token.hex(id));
            detail = String.valueOf(found.size());
        });
        unsure |= !listed;
        return found;
    }

    private void sign(String what, byte[] id) {
        ask(what, () -> {
            byte[] signature = Smartcard.signWithIDDLL(slot, digestInfo(), id);
            if (Arrays.equals(signature, new byte[1])) {
                // More data than any key takes: a key that is found refuses it with a code.
                byte[] refusal = Smartcard.signWithIDDLL(slot, new byte[2000], id);
                Token.require(!Arrays.equals(refusal, signature), "the key is listed, but not found by its ID, or"
                        + " refuses whatever it is given (CKR_FUNCTION_REJECTED): --traces FILE has the code");
                throw new Token.Refused("signWithIDDLL: status 0x00, such as CKR_FUNCTION_REJECTED (0x200)");
            }
            Token.data(signature, "signWithIDDLL");
            PublicKey publicKey = Token.publicKey(id, Token.publicKeys(slot), Token.certificates(slot));
            Token.require(publicKey == null || verifies(publicKey, signature),
                    "the signature does not verify");
            detail = signature.length + " bytes, " + (publicKey == null ? "no public key to verify them" : "verified");
        });
    }

    private static byte[] digestInfo() throws GeneralSecurityException {
        byte[] digest = MessageDigest.getInstance("SHA-256").digest(SENTENCE);
        byte[] digestInfo = Arrays.copyOf(DIGEST_INFO, DIGEST_INFO.length + digest.length);
        System.arraycopy(digest, 0, digestInfo, DIGEST_INFO.length, digest.length);
        return digestInfo;
    }

    private static boolean verifies(PublicKey publicKey, byte[] signature) throws GeneralSecurityException {
        Signature verifier = Signature.getInstance("SHA256withRSA");
        verifier.initVerify(publicKey);
        verifier.update(SENTENCE);
        return verifier.verify(signature);
    }

    // ---- Writing ----

    private void write() throws GeneralSecurityException {
        if (unsure) {
            enter("all that writes", "not asked", "it could reach what is not ours");
            return;
        }
        Message.send(Message.Kind.WRITES, "");
        generate();
        importIdentity();
        askForLeftovers();
    }

    /** {@return what the token has under the labels of a check, each with the steps that delete it} */
    private Map<String, Steps> askForLeftovers() {
        Map<String, Steps> found = new LinkedHashMap<>();
        ask("what is left of a check", () -> {
            for (Token.Entry entry : ours(Token.privateKeys(slot))) {
                found.put("private key " + entry, () -> Token.check(Smartcard.deletePrivateKeyDLL(slot, entry.id()),
                        "deletePrivateKeyDLL"));
            }
            for (Token.Entry entry : ours(Token.publicKeys(slot))) {
                found.put("public key " + entry, () -> Token.check(Smartcard.deletePublicKeyDLL(slot, entry.id()),
                        "deletePublicKeyDLL"));
            }
            for (Token.Entry entry : ours(Token.certificates(slot))) {
                found.put("certificate " + entry, () -> Identity.deleteCertificate(slot, Token.certificate(entry),
                        entry.id(), entry.label()));
            }
            if (Arrays.equals(Smartcard.readAttributeCertificateDLL(slot), SENTENCE)) {
                found.put("data object without a label", () -> {
                    Token.require(Smartcard.getObjectCountInTheTokenDLL(slot) == 1, "it is not alone on the token, and"
                            + " deleteDLL would delete the others as well");
                    Token.check(Smartcard.deleteDLL(slot), "deleteDLL");
                });
            }
            detail = String.join("; ", found.keySet());
            if (found.isEmpty()) {
                detail = "nothing";
                Message.send(Message.Kind.CLEAN, "");
            }
        });
        return found;
    }

    private static List<Token.Entry> ours(List<Token.Entry> entries) {
        return entries.stream().filter(entry -> Arrays.equals(entry.label(), LABEL)
                || Arrays.equals(entry.label(), NEW_LABEL)).toList();
    }

    private void generate() {
        byte[] id = newId();
        byte[] otherId = newId();
        boolean generated = ask("generate a key pair", () -> {
            byte[] modulus = Token.data(Smartcard.generateKeyPairDLL(slot, 2048, EXPONENT, id, LABEL),
                    "generateKeyPairDLL");
            requireAdded(privateKeys, Token.privateKeys(slot), id, LABEL);
            List<byte[]> values = requireAdded(publicKeys, Token.publicKeys(slot), id, LABEL).values();
            Token.require(Arrays.equals(values.get(0), modulus) && Arrays.equals(values.get(1), EXPONENT),
                    "the public key is listed with other numbers");
        });
        if (generated) {
            sign("sign with the generated key", id);
            rename("change the pair's ID and label", id, otherId);
        }
        ask("delete the pair", () -> deleteKeyPair(id, otherId));
    }

    private void importIdentity() throws GeneralSecurityException {
        byte[] id = newId();
        Identity identity = Identity.generate(id);
        ask("write and delete a certificate", () -> {
            identity.writeCertificate(slot, LABEL);
            requireAdded(certificates, Token.certificates(slot), id, LABEL);
            deleteCertificate(identity);
        });
        ask("write and delete a public key", () -> {
            identity.writePublicKey(slot, LABEL);
            requireAdded(publicKeys, Token.publicKeys(slot), id, LABEL);
            deleteKeyPair(id);
        });
        boolean imported = ask("import a key pair and certificate", () -> {
            identity.write(slot, LABEL);
            requireAdded(certificates, Token.certificates(slot), id, LABEL);
        });
        if (imported) {
            sign("sign with the imported key", id);
            rename("change the imported keys' label", id, id);
        }
        if (imported && empty) {
            ask("change the certificate's label", () -> {
                Token.check(Smartcard.setCertificateLabelDLL(null, slot), "setCertificateLabelDLL");
                if (!Arrays.equals(Smartcard.readCertificateLabelDLL(slot), Smartcard.readPublicKeyLabelDLL(slot))) {
                    throw new Token.Refused("setCertificateLabelDLL: --traces FILE has the code");
                }
            });
        }
        ask("delete keys and certificate", () -> {
            deleteKeyPair(id);
            deleteCertificate(identity);
        });
        if (!empty) {
            enter("what has the whole token in reach", "not asked", "it is not empty");
            return;
        }
        ask("delete all certificates", () -> {
            identity.writeCertificate(slot, LABEL);
            Token.check(Smartcard.deleteAllCertificatesDLL(slot), "deleteAllCertificatesDLL");
            requireSame(List.of(), Token.certificates(slot));
        });
        ask("write an attribute certificate", () -> {
            Token.check(Smartcard.writeAttributeCertificateDLL(slot, SENTENCE), "writeAttributeCertificateDLL");
            Token.require(Arrays.equals(Smartcard.readAttributeCertificateDLL(slot), SENTENCE), "another one is read");
        });
        ask("delete all objects", () -> {
            Token.check(Smartcard.deleteDLL(slot), "deleteDLL");
            Token.require(Smartcard.isCardEmptyDLL(slot) == 0, "the token is not empty");
        });
    }

    private void rename(String what, byte[] id, byte[] newId) {
        ask(what, () -> {
            Token.check(Smartcard.updateKeyPairIDAndLabelDLL(slot, id, newId, NEW_LABEL), "updateKeyPairIDAndLabelDLL");
            requireAdded(publicKeys, Token.publicKeys(slot), newId, NEW_LABEL);
            requireAdded(privateKeys, Token.privateKeys(slot), newId, NEW_LABEL);
        });
    }

    private void deleteKeyPair(byte[]... ids) throws Token.Failure {
        for (byte[] id : ids) {
            long privateKey = Smartcard.deletePrivateKeyDLL(slot, id);
            Token.check(Smartcard.deletePublicKeyDLL(slot, id), "deletePublicKeyDLL");
            Token.check(privateKey, "deletePrivateKeyDLL");
        }
        requireSame(privateKeys, Token.privateKeys(slot));
        requireSame(publicKeys, Token.publicKeys(slot));
    }

    private void deleteCertificate(Identity identity) throws Exception {
        for (byte[] label : List.of(LABEL, NEW_LABEL)) {
            Identity.deleteCertificate(slot, identity.certificate(), identity.id(), label);
        }
        requireSame(certificates, Token.certificates(slot));
    }

    private static byte[] utf8(String text) {
        return text.getBytes(StandardCharsets.UTF_8);
    }

    private static byte[] newId() {
        byte[] id = new byte[20];
        new SecureRandom().nextBytes(id);
        return id;
    }

    // ---- What fits ----

    /** The same objects with the same values, in any order. */
    private static void requireSame(List<Token.Entry> some, List<Token.Entry> others) throws Token.Failure {
        Token.require(content(some).equals(content(others)),
                "two listings that ought to be equal are not: " + some.size() + " and " + others.size() + " objects");
    }

    private static List<String> content(List<Token.Entry> entries) {
        return entries.stream().map(entry -> Token.hex(entry.id()) + ' ' + Token.hex(entry.label()) + ' '
                + entry.values().stream().map(Token::hex).toList()).sorted().toList();
    }

    /** One object more, with this ID and label. */
    private static Token.Entry requireAdded(List<Token.Entry> before, List<Token.Entry> after, byte[] id, byte[] label)
            throws Token.Failure {
        Token.require(after.size() == before.size() + 1, before.size() + " were listed, and now " + after.size());
        for (Token.Entry entry : after) {
            if (Arrays.equals(entry.id(), id) && Arrays.equals(entry.label(), label)) {
                return entry;
            }
        }
        throw new Token.Failure("it is not listed with the ID and label that it was given");
    }
}
