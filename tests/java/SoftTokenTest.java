import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.io.IOException;
import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.KeyFactory;
import java.security.MessageDigest;
import java.security.PublicKey;
import java.security.Signature;
import java.security.spec.RSAPublicKeySpec;
import java.util.Arrays;
import java.util.HexFormat;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.stream.Collectors;
import java.util.stream.IntStream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** A real token: what is done to it another tool sees, and what the library says of it another tool says as well. */
class SoftTokenTest {
    private static final byte[] ID = SoftToken.utf8("key 1");
    private static final byte[] LABEL = SoftToken.utf8("Köy");
    private static final byte[] EXPONENT = {1, 0, 1};
    private static final byte[] DOCUMENT = SoftToken.utf8("a document");

    @TempDir
    Path folder;

    @Test
    void lifeOfAKey() throws Exception {
        try (SoftToken token = new SoftToken(folder)) {
            long slot = token.slot;
            assertEquals(0, Smartcard.changePINDLL(slot, SoftToken.PIN, 4, "567890", 6));
            assertEquals(0, Smartcard.logoutDLL(slot));
            assertEquals(0xA0, Smartcard.loginDLL(slot, SoftToken.PIN, 1));
            assertEquals(0, Smartcard.loginDLL(slot, "567890", 1));

            byte[] modulus = Smartcard.generateKeyPairDLL(slot, 2048, EXPONENT, ID, LABEL);
            assertListing(Smartcard.readAllRSAPublicKeysDLL(slot), ID, LABEL, modulus, EXPONENT);
            assertListing(Smartcard.readAllRSAPrivateKeysDLL(slot), ID, LABEL);
            PublicKey key = KeyFactory.getInstance("RSA").generatePublic(
                    new RSAPublicKeySpec(new BigInteger(1, modulus), new BigInteger(1, EXPONENT)));
            assertVerifies(key, Smartcard.signWithIDDLL(slot, digestInfo(), ID));
            assertVerifies(key, Smartcard.signDLL(slot, digestInfo()));
            assertArrayEquals(new byte[] {0}, Smartcard.signWithIDDLL(slot, digestInfo(), LABEL));

            assertEquals(0, Smartcard.logoutDLL(slot));
            assertListing(Smartcard.readAllRSAPrivateKeysDLL(slot));
            assertArrayEquals(new byte[] {0}, Smartcard.signDLL(slot, digestInfo()));
            assertEquals(0, Smartcard.loginDLL(slot, "567890", 1));
            assertEquals(0, Smartcard.deletePrivateKeyDLL(slot, ID));
            assertListing(Smartcard.readAllRSAPrivateKeysDLL(slot));
            assertEquals(1, Smartcard.isCardEmptyDLL(slot));
            assertEquals(0, Smartcard.deletePublicKeyDLL(slot, ID));
            assertEquals(0, Smartcard.isCardEmptyDLL(slot));
        }
    }

    @Test
    void lifeOfAnIdentity() throws Exception {
        SoftToken.Identity identity = SoftToken.Identity.create(folder);
        byte[] certificate = identity.certificate().getEncoded();
        byte[] name = identity.name();
        byte[] modulus = SoftToken.unsigned(identity.key().getModulus());
        try (SoftToken token = new SoftToken(folder)) {
            long slot = token.slot;
            assertEquals(0, identity.write(slot, "key 1", "Köy"));
            assertListing(Smartcard.readAllCertificatesDLL(slot), ID, LABEL, certificate);
            assertListing(Smartcard.readAllRSAPublicKeysDLL(slot), ID, LABEL, modulus, EXPONENT);
            assertListing(Smartcard.readAllRSAPrivateKeysDLL(slot), ID, LABEL);
            assertArrayEquals(certificate, Smartcard.readCertificateDLL(slot));
            assertArrayEquals(ID, Smartcard.readCertificateIDDLL(slot));
            assertArrayEquals(LABEL, Smartcard.readCertificateLabelDLL(slot));
            assertObjects(token, Map.of("Certificate Object; type = X.509 cert", "Köy DN: CN=Some One 6b65792031",
                    "Public Key Object; RSA 2048 bits", "Köy 6b65792031", "Private Key Object; RSA", "Köy 6b65792031"));
            assertVerifies(identity.certificate().getPublicKey(), Smartcard.signWithIDDLL(slot, digestInfo(), ID));

            byte[] newId = SoftToken.utf8("key 2");
            byte[] newLabel = SoftToken.utf8("new");
            assertEquals(0, Smartcard.updateKeyPairIDAndLabelDLL(slot, ID, newId, newLabel));
            assertArrayEquals(newId, Smartcard.readPublicKeyIDDLL(slot));
            assertArrayEquals(newLabel, Smartcard.readPublicKeyLabelDLL(slot));
            assertArrayEquals(newId, Smartcard.readPrivateKeyIDDLL(slot));
            assertArrayEquals(newLabel, Smartcard.readPrivateKeyLabelDLL(slot));
            assertEquals(0, Smartcard.setCertificateLabelDLL(null, slot));
            assertEquals(0, Smartcard.writeAttributeCertificateDLL(slot, certificate));
            assertArrayEquals(certificate, Smartcard.readAttributeCertificateDLL(slot));
            assertEquals(4, Smartcard.getObjectCountInTheTokenDLL(slot));
            assertObjects(token, Map.of("Certificate Object; type = X.509 cert", "new DN: CN=Some One 6b65792031",
                    "Public Key Object; RSA 2048 bits", "new 6b65792032", "Private Key Object; RSA", "new 6b65792032",
                    "Data object", "''"));

            byte[] serialNumber = identity.serialNumber();
            assertEquals(0, Smartcard.deleteCertificateDLL(slot, name, name, serialNumber, ID, LABEL));
            assertListing(Smartcard.readAllCertificatesDLL(slot), ID, newLabel, certificate); // the label is another
            assertEquals(0, Smartcard.deleteCertificateDLL(slot, name, name, serialNumber, ID, newLabel));
            assertListing(Smartcard.readAllCertificatesDLL(slot));
            assertEquals(0, Smartcard.deleteDLL(slot));
            assertEquals(0, Smartcard.isCardEmptyDLL(slot));
            assertObjects(token, Map.of());
        }
    }

    @Test
    void slotTokenAndMechanisms() throws Exception {
        try (SoftToken token = new SoftToken(folder)) {
            long slot = token.slot;
            int[] session = Smartcard.getSessionInfoDLL(slot);
            String slots = token.ask("--list-slots");
            String expected = String.format("Slot %d (0x%x): %s", slot, session[2],
                    text(Smartcard.readSlotDescriptionDLL(slot)));
            assertTrue(slots.contains(expected), slots);
            assertArrayEquals(new int[] {3, 6, session[2], 0}, session); // CKS_RW_USER_FUNCTIONS, read/write and serial
            assertEquals("YENIKART", text(Smartcard.readCardLabelDLL(slot)));
            assertTrue(slots.contains("serial num         : " + text(Smartcard.readCardSerialNumberDLL(slot))), slots);
            assertEquals(1, Smartcard.getSlotInfoDLL(slot));
            assertEquals(0x42D, Smartcard.getTokenInfoDLL(slot)); // its flags: "login required, rng, …, 0x20"

            List<String> uses = IntStream.of(Smartcard.getSupportedMechanismListDLL(slot))
                    .mapToObj(type -> uses(Smartcard.getMechanismInfoDLL(slot, type))).toList();
            List<String> told = token.ask("--list-mechanisms").lines().skip(1)
                    .map(line -> line.replaceFirst("^ *[^,]*, (keySize=\\{[0-9,]*}, )?", "").replaceFirst(", EC .*", ""))
                    .toList();
            assertEquals(told, uses);
        }
    }

    private static String uses(long flags) {
        Map<Long, String> names = new TreeMap<>(Map.of(0x100L, "encrypt", 0x200L, "decrypt", 0x400L, "digest",
                0x800L, "sign", 0x2000L, "verify", 0x8000L, "generate", 0x10000L, "generate_key_pair",
                0x20000L, "wrap", 0x40000L, "unwrap", 0x80000L, "derive"));
        return names.entrySet().stream().filter(use -> (flags & use.getKey()) != 0).map(Map.Entry::getValue)
                .collect(Collectors.joining(", "));
    }

    /** The objects that another tool sees: by kind, label, subject (of a certificate) and ID. */
    private static void assertObjects(SoftToken token, Map<String, String> expected) throws Exception {
        String listing = token.ask("--list-objects", "--login", "--pin", SoftToken.PIN);
        Map<String, String> seen = new TreeMap<>();
        String kind = "";
        for (String line : listing.lines().toList()) {
            if (!line.startsWith(" ")) {
                kind = line.replaceFirst("( \\d+)? *$", "");
            } else if (line.matches(" *(label|subject|ID):.*")) {
                seen.merge(kind, line.replaceFirst(" *\\w+: *", ""), (names, name) -> names + " " + name);
            }
        }
        assertEquals(new TreeMap<>(expected), seen, listing);
    }

    private static void assertListing(byte[][] listing, byte[]... values) {
        assertArrayEquals(new byte[] {0}, listing[0]);
        assertArrayEquals(values, Arrays.copyOfRange(listing, 1, listing.length));
    }

    private static void assertVerifies(PublicKey key, byte[] signature) throws GeneralSecurityException {
        Signature verifier = Signature.getInstance("SHA256withRSA");
        verifier.initVerify(key);
        verifier.update(DOCUMENT);
        assertTrue(verifier.verify(signature));
    }

    private static byte[] digestInfo() throws GeneralSecurityException {
        return HexFormat.of().parseHex("3031300d060960864801650304020105000420"
                + HexFormat.of().formatHex(MessageDigest.getInstance("SHA-256").digest(DOCUMENT)));
    }

    private static String text(byte[] field) {
        return new String(field, StandardCharsets.UTF_8).strip();
    }
}
