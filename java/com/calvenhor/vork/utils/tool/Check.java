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
 * The command check: see the usage in {@link Main}. The keys and certificates that {@code --write} creates have random
 * IDs. Other objects stay unchanged.
 */
final class Check {
    private static final byte[] EXPONENT = {1, 0, 1};
    private static final byte[] SENTENCE = utf8("Signed to check a PKCS#11 module.");
    private static final byte[] LABEL = utf8("Module check");
    private static final byte[] NEW_LABEL = utf8("Module check, renamed");
    private static final byte[] DIGEST_INFO_PREFIX = HexFormat.of().parseHex("3031300d060960864801650304020105000420");

    private interface Action {
        void run() throws Exception;
    }

    private interface Listing {
        List<Token.Entry> of(long slot) throws Token.Failure;
    }

    private final Token token;
    private final long slot;
    private String detail; // of the current step, for its line
    private int inconsistencies;

    // The listings before any write.
    private List<Token.Entry> certificates;
    private List<Token.Entry> publicKeys;
    private List<Token.Entry> privateKeys;
    private boolean isUnreliable; // whether a listing or the search by ID is: a deletion could hit other objects
    private boolean isTokenEmpty;

    private Check(Token token) {
        this.token = token;
        slot = token.slot;
    }

    /** {@return the exit status} */
    static int run(Options options) throws GeneralSecurityException, Token.Failure {
        Token.bind(options);
        Check check = new Check(Token.open(options.slot() >= 0 ? options.slot() : firstToken()));
        Worker.print("slot " + check.slot + ": " + check.token.logIn(options));
        if (options.has("--remove")) {
            check.findLeftovers().forEach((name, deletion) -> check.runStep("delete " + name, deletion));
        }
        check.read();
        if (options.has("--write")) {
            check.write();
        }
        check.runStep("log out, close, finalize", check::close);
        if (check.inconsistencies == 0) {
            return 0;
        }
        Worker.print("Inconsistent results: " + check.inconsistencies);
        return Main.INCONSISTENT;
    }

    private static long firstToken() throws Token.Failure {
        return LongStream.range(0, Smartcard.getSlotCountDLL()).filter(Token::isInitialised).findFirst()
                .orElseThrow(() -> new Token.Failure(
                        "no slot has an initialised token: insert a card, or initialise the token"));
    }

    private void close() throws Token.Failure {
        try {
            token.logOut();
            long code = Smartcard.closeSessionDLL(slot);
            if (code != 0xE0) { // CKR_TOKEN_NOT_PRESENT: the code is that of the last slot, which may be empty
                Token.check(code, "closeSessionDLL");
            }
        } finally {
            Token.check(Smartcard.finalizeDLL(), "finalizeDLL");
        }
    }

    /** Runs a step and prints its line; {@return whether it worked} */
    private boolean runStep(String name, Action action) {
        Worker.beginStep(name);
        detail = "";
        try {
            action.run();
            print(name, "worked", detail);
            return true;
        } catch (Token.Refused e) {
            print(name, "refused", e.getMessage());
        } catch (Exception e) {
            print(name, "INCONSISTENT", e instanceof Token.Failure ? e.getMessage() : e.toString());
            inconsistencies++;
        }
        return false;
    }

    private static void print(String name, String verdict, String text) {
        Worker.print(String.format("%-33s %-12s  %s", name, verdict, text).stripTrailing());
    }

    // ---- Reading ----

    private void read() {
        runStep("slots", () -> {
            long tokens = 0;
            for (long i = 0; i < Smartcard.getSlotCountDLL(); i++) {
                Token.data(Smartcard.readSlotDescriptionDLL(i), "readSlotDescriptionDLL");
                Token.require(Smartcard.getSlotInfoDLL(i) != -1, "getSlotInfoDLL returns no flags of slot " + i);
                tokens += Smartcard.getSlotInfoDLL(i) & 1; // CKF_TOKEN_PRESENT
            }
            Token.require((Smartcard.getSlotInfoDLL(slot) & 1) != 0,
                    "a session is open, but getSlotInfoDLL reports no token");
            detail = Smartcard.getSlotCountDLL() + ", " + tokens + " with a token";
        });
        runStep("token", () -> {
            detail = "\"" + Token.text(Token.data(Smartcard.readCardLabelDLL(slot), "readCardLabelDLL"))
                    + "\", serial number "
                    + Token.text(Token.data(Smartcard.readCardSerialNumberDLL(slot), "readCardSerialNumberDLL"))
                    + (Token.isInitialised(slot) ? "" : ", not initialised");
        });
        runStep("session", () -> {
            Token.check(Smartcard.isSessionOpenDLL(slot), "isSessionOpenDLL");
            int expected = token.isLoggedIn ? 3 : 2; // CKS_RW_USER_FUNCTIONS, CKS_RW_PUBLIC_SESSION
            int state = Smartcard.getSessionInfoDLL(slot)[0];
            Token.require(state == expected, "the session state is " + state + ", not " + expected);
            detail = token.isLoggedIn ? "user" : "public";
        });
        runStep("mechanisms", () -> {
            int[] types = Smartcard.getSupportedMechanismListDLL(slot);
            if (IntStream.of(types).allMatch(type -> type == 0)) {
                throw new Token.Refused("getSupportedMechanismListDLL returns no list");
            }
            Token.require(Arrays.equals(types, Smartcard.getSupportedMechanismListDLL(slot)),
                    "getSupportedMechanismListDLL returns another list the second time");
            List<String> unknown = IntStream.of(types).filter(type -> mechanism(type) == -1)
                    .mapToObj(type -> "0x" + Integer.toHexString(type)).toList();
            Token.require(unknown.isEmpty(), types.length + " mechanisms, but getMechanismInfoDLL fails for "
                    + String.join(" ", unknown));
            Token.require(mechanism(1) == -1 || IntStream.of(types).anyMatch(type -> type == 1),
                    types.length + " mechanisms without RSA_PKCS, but getMechanismInfoDLL returns its flags");
            detail = types.length + "; RSA_PKCS: " + (mechanism(1) == -1 ? "no" : Names.mechanismFlags(mechanism(1)));
        });
        certificates = list("certificates", Token::certificates, Smartcard::readCertificateIDDLL);
        publicKeys = list("RSA public keys", Token::publicKeys, Smartcard::readPublicKeyIDDLL);
        privateKeys = list("RSA private keys", Token::privateKeys, Smartcard::readPrivateKeyIDDLL);
        runStep("objects", () -> {
            long count = Smartcard.getObjectCountInTheTokenDLL(slot);
            int listed = certificates.size() + publicKeys.size() + privateKeys.size();
            Token.require(count >= Math.min(20, listed),
                    count + " objects are counted, but " + listed + " are listed");
            long seen = Smartcard.isCardEmptyDLL(slot);
            Token.require(seen == Math.min(1, count),
                    count + " objects are counted, but isCardEmptyDLL returns " + seen);
            isTokenEmpty = count == 0 && listed == 0 && !isUnreliable; // a failed search also counts 0 objects
            detail = count == 20 ? "20 or more" : String.valueOf(count);
        });
        if (!certificates.isEmpty()) {
            runStep("parse the certificates in Java", () -> {
                for (Token.Entry entry : certificates) {
                    Token.certificate(entry);
                }
                byte[] first = Token.data(Smartcard.readCertificateDLL(slot), "readCertificateDLL");
                Token.require(Arrays.equals(first, certificates.get(0).values().get(0)),
                        "readCertificateDLL does not return the first certificate of the listing");
            });
        }
        for (Token.Entry key : privateKeys) {
            sign("sign with \"" + Token.text(key.label()) + "\"", key.id());
        }
        boolean noSignature = runStep("sign with an unknown ID", () -> {
            byte[] signature = Smartcard.signWithIDDLL(slot, digestInfo(), newId());
            Token.require(signature.length == 1, "a key with another ID signed");
            detail = "no signature";
        });
        isUnreliable |= !noSignature;
    }

    private long mechanism(int type) {
        return Smartcard.getMechanismInfoDLL(slot, Integer.toUnsignedLong(type));
    }

    private List<Token.Entry> list(String name, Listing listing, LongFunction<byte[]> firstId) {
        List<Token.Entry> found = new ArrayList<>();
        boolean listed = runStep(name, () -> {
            found.addAll(listing.of(slot));
            requireSame(found, listing.of(slot));
            // The listing has only RSA keys, but firstId reads the first key of any type. The IDs may differ.
            byte[] id = firstId.apply(slot);
            Token.require(found.isEmpty() || id.length != 1 || found.get(0).id().length == 1,
                    found.size() + " objects are listed, but the first ID cannot be read: status 0x" + Token.hex(id));
            detail = String.valueOf(found.size());
        });
        isUnreliable |= !listed;
        return found;
    }

    private void sign(String name, byte[] id) {
        runStep(name, () -> {
            byte[] signature = Smartcard.signWithIDDLL(slot, digestInfo(), id);
            if (Arrays.equals(signature, new byte[1])) {
                // More data than any key accepts: if the key is found, the module refuses it with another code.
                byte[] refusal = Smartcard.signWithIDDLL(slot, new byte[2000], id);
                Token.require(!Arrays.equals(refusal, signature), "the listed key is not found by its ID, or the token"
                        + " refuses all data (CKR_FUNCTION_REJECTED); --traces FILE has the code");
                throw new Token.Refused("signWithIDDLL: status 0x00, for example CKR_FUNCTION_REJECTED (0x200)");
            }
            Token.data(signature, "signWithIDDLL");
            PublicKey publicKey = Token.publicKey(id, Token.publicKeys(slot), Token.certificates(slot));
            Token.require(publicKey == null || verifies(publicKey, signature),
                    "the signature does not verify");
            detail = signature.length + " bytes, " + (publicKey == null ? "not verified: no public key" : "verified");
        });
    }

    private static byte[] digestInfo() throws GeneralSecurityException {
        byte[] digest = MessageDigest.getInstance("SHA-256").digest(SENTENCE);
        byte[] digestInfo = Arrays.copyOf(DIGEST_INFO_PREFIX, DIGEST_INFO_PREFIX.length + digest.length);
        System.arraycopy(digest, 0, digestInfo, DIGEST_INFO_PREFIX.length, digest.length);
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
        if (isUnreliable) {
            print("all write steps", "skipped", "the results above are unreliable: a deletion could hit other objects");
            return;
        }
        Message.send(Message.Kind.WRITES, "");
        generate();
        importIdentity();
        findLeftovers();
    }

    /** {@return the objects that an earlier check left, found by their labels, with the steps that delete each} */
    private Map<String, Action> findLeftovers() {
        Map<String, Action> found = new LinkedHashMap<>();
        runStep("objects left by a check", () -> {
            for (Token.Entry entry : ownObjects(Token.privateKeys(slot))) {
                found.put("private key " + entry, () -> Token.check(Smartcard.deletePrivateKeyDLL(slot, entry.id()),
                        "deletePrivateKeyDLL"));
            }
            for (Token.Entry entry : ownObjects(Token.publicKeys(slot))) {
                found.put("public key " + entry, () -> Token.check(Smartcard.deletePublicKeyDLL(slot, entry.id()),
                        "deletePublicKeyDLL"));
            }
            for (Token.Entry entry : ownObjects(Token.certificates(slot))) {
                found.put("certificate " + entry, () -> Identity.deleteCertificate(slot, Token.certificate(entry),
                        entry.id(), entry.label()));
            }
            if (Arrays.equals(Smartcard.readAttributeCertificateDLL(slot), SENTENCE)) {
                found.put("data object without a label", () -> {
                    Token.require(Smartcard.getObjectCountInTheTokenDLL(slot) == 1,
                            "deleteDLL would also delete the other objects on the token");
                    Token.check(Smartcard.deleteDLL(slot), "deleteDLL");
                });
            }
            detail = String.join("; ", found.keySet());
            if (found.isEmpty()) {
                detail = "none";
                Message.send(Message.Kind.CLEAN, "");
            }
        });
        return found;
    }

    private static List<Token.Entry> ownObjects(List<Token.Entry> entries) {
        return entries.stream().filter(entry -> Arrays.equals(entry.label(), LABEL)
                || Arrays.equals(entry.label(), NEW_LABEL)).toList();
    }

    private void generate() {
        byte[] id = newId();
        byte[] otherId = newId();
        boolean generated = runStep("generate a key pair", () -> {
            byte[] modulus = Token.data(Smartcard.generateKeyPairDLL(slot, 2048, EXPONENT, id, LABEL),
                    "generateKeyPairDLL");
            requireAdded(privateKeys, Token.privateKeys(slot), id, LABEL);
            List<byte[]> values = requireAdded(publicKeys, Token.publicKeys(slot), id, LABEL).values();
            Token.require(Arrays.equals(values.get(0), modulus) && Arrays.equals(values.get(1), EXPONENT),
                    "the public key is listed with another modulus or exponent");
        });
        if (generated) {
            sign("sign with the generated key", id);
            updateKeyPair("change the pair's ID and label", id, otherId);
        }
        runStep("delete the pair", () -> deleteKeyPair(id, otherId));
    }

    private void importIdentity() throws GeneralSecurityException {
        byte[] id = newId();
        Identity identity = Identity.generate(id);
        runStep("write and delete a certificate", () -> {
            identity.writeCertificate(slot, LABEL);
            requireAdded(certificates, Token.certificates(slot), id, LABEL);
            deleteCertificate(identity);
        });
        runStep("write and delete a public key", () -> {
            identity.writePublicKey(slot, LABEL);
            requireAdded(publicKeys, Token.publicKeys(slot), id, LABEL);
            deleteKeyPair(id);
        });
        boolean imported = runStep("import a key pair and certificate", () -> {
            identity.write(slot, LABEL);
            requireAdded(certificates, Token.certificates(slot), id, LABEL);
        });
        if (imported) {
            sign("sign with the imported key", id);
            updateKeyPair("change the imported keys' label", id, id);
        }
        if (imported && isTokenEmpty) {
            runStep("change the certificate's label", () -> {
                Token.check(Smartcard.setCertificateLabelDLL(null, slot), "setCertificateLabelDLL");
                if (!Arrays.equals(Smartcard.readCertificateLabelDLL(slot), Smartcard.readPublicKeyLabelDLL(slot))) {
                    throw new Token.Refused(
                            "setCertificateLabelDLL did not change the label; --traces FILE has the code");
                }
            });
        }
        runStep("delete keys and certificate", () -> {
            deleteKeyPair(id);
            deleteCertificate(identity);
        });
        if (!isTokenEmpty) {
            print("steps that need an empty token", "skipped", "the token is not empty");
            return;
        }
        runStep("delete all certificates", () -> {
            identity.writeCertificate(slot, LABEL);
            Token.check(Smartcard.deleteAllCertificatesDLL(slot), "deleteAllCertificatesDLL");
            requireSame(List.of(), Token.certificates(slot));
        });
        runStep("write an attribute certificate", () -> {
            Token.check(Smartcard.writeAttributeCertificateDLL(slot, SENTENCE), "writeAttributeCertificateDLL");
            Token.require(Arrays.equals(Smartcard.readAttributeCertificateDLL(slot), SENTENCE),
                    "readAttributeCertificateDLL returns other data");
        });
        runStep("delete all objects", () -> {
            Token.check(Smartcard.deleteDLL(slot), "deleteDLL");
            Token.require(Smartcard.isCardEmptyDLL(slot) == 0, "the token is not empty");
        });
    }

    private void updateKeyPair(String name, byte[] id, byte[] newId) {
        runStep(name, () -> {
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

    // ---- Comparing listings ----

    /** Requires the same objects with the same values, in any order. */
    private static void requireSame(List<Token.Entry> some, List<Token.Entry> others) throws Token.Failure {
        Token.require(content(some).equals(content(others)),
                "two listings that should be equal differ (" + some.size() + " and " + others.size() + " objects)");
    }

    private static List<String> content(List<Token.Entry> entries) {
        return entries.stream().map(entry -> Token.hex(entry.id()) + ' ' + Token.hex(entry.label()) + ' '
                + entry.values().stream().map(Token::hex).toList()).sorted().toList();
    }

    /** Requires one additional object, which has this ID and label. */
    private static Token.Entry requireAdded(List<Token.Entry> before, List<Token.Entry> after, byte[] id, byte[] label)
            throws Token.Failure {
        Token.require(after.size() == before.size() + 1,
                before.size() + " objects were listed before, " + after.size() + " after");
        for (Token.Entry entry : after) {
            if (Arrays.equals(entry.id(), id) && Arrays.equals(entry.label(), label)) {
                return entry;
            }
        }
        throw new Token.Failure("the new object is not listed with its ID and label");
    }
}
