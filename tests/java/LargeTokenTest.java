import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.HashMap;
import java.util.Map;
import java.util.stream.Collectors;
import java.util.stream.IntStream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** Listings of many objects are whole; that they keep to JNI's rules is for -Xcheck:jni to say. */
class LargeTokenTest {
    @Test
    void mock() {
        MockModule.reset();
        assertEquals(0, Smartcard.initDLL(MockModule.PATH));
        assertEquals(0, Smartcard.openSessionDLL(0));
        assertEquals(0, Smartcard.loginDLL(0, Natives.PIN, 1));
        assertEquals(0, Smartcard.deleteDLL(0));
        MockModule.addIdentities(1000);

        byte[] modulus = new byte[256];
        Arrays.fill(modulus, (byte) 0xc1);
        assertListings(0, 1000, SoftToken.utf8("mock"), modulus);
        Smartcard.finalizeDLL();
    }

    @Test
    void softToken(@TempDir Path folder) throws Exception {
        SoftToken.Identity identity = SoftToken.Identity.create(folder);
        try (SoftToken token = new SoftToken(folder)) {
            for (int k = 1; k <= 40; k++) {
                assertEquals(0, identity.write(token.slot, "id " + k, "label of id " + k));
            }
            assertListings(token.slot, 40, identity.certificate().getEncoded(),
                    SoftToken.unsigned(identity.key().getModulus()));
        }
    }

    private static void assertListings(long slot, int count, byte[] certificate, byte[] modulus) {
        assertListing(count, Smartcard.readAllCertificatesDLL(slot), certificate);
        assertListing(count, Smartcard.readAllRSAPublicKeysDLL(slot), modulus, new byte[] {1, 0, 1});
        assertListing(count, Smartcard.readAllRSAPrivateKeysDLL(slot));
    }

    /** Each ID once, each with its label, all with the same further values. */
    private static void assertListing(int count, byte[][] listing, byte[]... values) {
        assertArrayEquals(new byte[] {0}, listing[0]);
        int width = 2 + values.length;
        assertEquals(1 + width * count, listing.length);
        Map<String, String> labels = new HashMap<>();
        for (int i = 1; i < listing.length; i += width) {
            labels.put(new String(listing[i]), new String(listing[i + 1]));
            for (int value = 0; value < values.length; value++) {
                assertArrayEquals(values[value], listing[i + 2 + value]);
            }
        }
        assertEquals(IntStream.rangeClosed(1, count).mapToObj(k -> "id " + k)
                .collect(Collectors.toMap(id -> id, id -> "label of " + id)), labels);
    }
}
