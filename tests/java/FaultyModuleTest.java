import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import com.calvenhor.vork.utils.testing.FaultyModule;
import com.calvenhor.vork.utils.testing.FaultyModule.Removal;
import java.nio.file.*;
import java.time.Duration;
import java.util.*;
import java.util.concurrent.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.io.TempDir;

/** The faulty module in front of SoftHSM2: each requested fault happens, and nothing else changes. */
class FaultyModuleTest {
    private static final String GENUINE = System.getProperty("softhsm2");
    private static final long SLOT = SoftTokenTest.SLOT;
    private static final String PIN = SoftTokenTest.PIN;
    private static final byte[] ID = SoftTokenTest.ID;

    private final FaultyModule module = FaultyModule.before(GENUINE);
    private byte[] modulus;

    @BeforeEach
    void createKey(@TempDir Path folder) throws Exception {
        SoftTokenTest.createToken(module.path(), folder);
        modulus = Smartcard.generateKeyPairDLL(SLOT, 1024, SoftTokenTest.EXPONENT, ID, ID);
        module.takeCalls();
    }

    @AfterEach
    void close() throws Exception {
        Smartcard.finalizeDLL();
        module.close();
        assertFalse(Files.exists(Path.of(module.path())));
        assertFalse(Files.readString(Path.of("/proc/self/maps")).contains(module.path()));
    }

    private static byte[] sign() {
        return Smartcard.signWithIDDLL(SLOT, SoftTokenTest.DATA, ID);
    }

    private void assertSigns() {
        SoftTokenTest.assertSigned(modulus, SoftTokenTest.DATA, sign());
    }

    private static void assertStatus(int code, byte[] result) {
        assertArrayEquals(new byte[] {(byte) code}, result);
    }

    private static long logInAgain(String pin) {
        Smartcard.logoutDLL(SLOT);
        return Smartcard.loginDLL(SLOT, pin, 1);
    }

    @Test
    void failures() {
        assertSigns();
        assertEquals(List.of("C_FindObjectsInit", "C_FindObjects", "C_FindObjectsFinal", "C_SignInit", "C_Sign"),
                module.takeCalls());
        module.fail("C_Sign", 2, 0x30);
        module.fail("C_Sign", 3, 0x31);
        assertSigns();
        assertStatus(0x30, sign());
        assertStatus(0x31, sign());
        assertSigns(); // no operation is left active
        module.fail("C_FindObjectsFinal", 1, 5);
        sign();
        assertSigns();

        try (FaultyModule other = FaultyModule.before(GENUINE)) { // has its own faults and calls
            other.fail("C_Sign", 1, 0x30);
            assertSigns();
            assertEquals(List.of(), other.takeCalls());
        }
        assertThrows(IllegalArgumentException.class, () -> module.fail("C_Sing", 1, 0x30));
        assertThrows(NullPointerException.class, () -> module.fail(null, 1, 0x30));
        assertThrows(NullPointerException.class, () -> FaultyModule.before(null));
        for (String wrong : List.of("/nowhere.so", "libc.so.6")) {
            assertTrue(assertThrows(UnsatisfiedLinkError.class, () -> FaultyModule.before(wrong)).getMessage()
                    .startsWith(wrong));
        }
    }

    /** Starts a signature that hangs. */
    private FutureTask<byte[]> startHanging() throws Exception {
        module.hang("C_Sign");
        FutureTask<byte[]> signing = new FutureTask<>(FaultyModuleTest::sign);
        new Thread(signing).start();
        while (!module.takeCalls().contains("C_Sign")) {
            Thread.sleep(10);
        }
        assertThrows(TimeoutException.class, () -> signing.get(100, TimeUnit.MILLISECONDS));
        return signing;
    }

    @Test
    void hangs() throws Exception {
        for (Runnable end : List.<Runnable>of(module::release, module::close)) {
            FutureTask<byte[]> signing = startHanging();
            end.run();
            SoftTokenTest.assertSigned(modulus, SoftTokenTest.DATA, signing.get());
            assertSigns();
        }
        assertThrows(IllegalStateException.class, () -> module.hang("C_Sign"));
    }

    /** The JVM's crash report names the module. */
    @Test
    void crashes(@TempDir Path folder) throws Exception {
        Process process = new ProcessBuilder(System.getProperty("java.home") + "/bin/java",
                "-XX:-CreateCoredumpOnCrash", "-XX:ErrorFile=" + folder.resolve("report"),
                "-Djava.io.tmpdir=" + folder, "-cp", System.getProperty("java.class.path"),
                "-Djava.library.path=" + System.getProperty("java.library.path"),
                "FaultyModuleTest", GENUINE).redirectErrorStream(true).start();
        String output = new String(process.getInputStream().readAllBytes());
        assertEquals(1, process.waitFor(), output);
        String report = Files.readString(folder.resolve("report"));
        assertTrue(report.contains("SIGSEGV") && report.contains("C  [libfaulty_pkcs11"), report);
    }

    /** Binds a module that crashes. */
    public static void main(String[] arguments) {
        FaultyModule module = FaultyModule.before(arguments[0]);
        module.crash("C_GetSlotList");
        Smartcard.initDLL(module.path());
    }

    @Test
    void delays() {
        module.delay("C_Sign", Duration.ofMillis(300));
        long start = System.nanoTime();
        assertSigns();
        assertTrue(System.nanoTime() - start >= 300_000_000);
        module.delay("C_Sign", Duration.ZERO);
        start = System.nanoTime();
        assertSigns();
        assertTrue(System.nanoTime() - start < 300_000_000);
    }

    @Test
    void removal() {
        module.remove(SLOT);
        assertEquals(2, Smartcard.getSlotInfoDLL(SLOT)); // CKF_REMOVABLE_DEVICE
        assertStatus(0xE0, Smartcard.readCardSerialNumberDLL(SLOT));
        assertEquals(0xE0, Smartcard.openSessionDLL(SLOT));
        assertEquals(0x32, Smartcard.isSessionOpenDLL(SLOT));
        assertEquals(0x32, Smartcard.loginDLL(SLOT, PIN, 1));
        module.insert(SLOT);
        assertEquals(3, Smartcard.getSlotInfoDLL(SLOT));
        assertEquals(0xB3, Smartcard.isSessionOpenDLL(SLOT));
        SoftTokenTest.assertOk(Smartcard.openSessionDLL(SLOT));
        assertEquals(2, Smartcard.getSessionInfoDLL(SLOT)[0]); // public: the login has ended
        SoftTokenTest.assertOk(Smartcard.loginDLL(SLOT, PIN, 1));
        assertSigns();
    }

    /** DocsTest finds the same codes when it moves the token's folder away from the genuine module. */
    @Test
    void removedCardLooksEmpty() {
        module.remove(SLOT, Removal.EMPTY);
        assertEquals(3, Smartcard.getSlotInfoDLL(SLOT));
        assertStatus(5, Smartcard.readCardSerialNumberDLL(SLOT));
        assertEquals(0x100, Smartcard.loginDLL(SLOT, PIN, 1));
        assertStatus(0, sign()); // no such key
        assertEquals(5, Smartcard.writeAttributeCertificateDLL(SLOT, ID));
        module.insert(SLOT);
        assertStatus(0, sign());
        SoftTokenTest.assertOk(Smartcard.openSessionDLL(SLOT), Smartcard.logoutDLL(SLOT));
        assertEquals(5, Smartcard.loginDLL(SLOT, PIN, 1));
        rebind(module);
        assertSigns();
    }

    @Test
    void dataOfARemovedCardIsCached() {
        module.remove(SLOT, Removal.CACHED);
        assertEquals(16, Smartcard.readCardSerialNumberDLL(SLOT).length);
        assertEquals(5, Smartcard.readAllRSAPublicKeysDLL(SLOT).length);
        assertStatus(0x32, sign());
        assertStatus(0x32, sign()); // not CKR_OPERATION_ACTIVE
        assertEquals(0, Smartcard.isSessionOpenDLL(SLOT));
        assertEquals(2, Smartcard.getSlotInfoDLL(SLOT));
        assertStatus(0xE0, Smartcard.readCardSerialNumberDLL(SLOT));
        assertEquals(0x32, Smartcard.isSessionOpenDLL(SLOT));
        module.insert(SLOT);
        assertEquals(0xB3, Smartcard.isSessionOpenDLL(SLOT));
    }

    /** A second faulty module, in front of the first, removes the card while the call hangs in the first. */
    @Test
    void removalDuringACall() throws Exception {
        try (FaultyModule outer = FaultyModule.before(module.path())) {
            rebind(outer);
            FutureTask<byte[]> signing = startHanging();
            outer.remove(SLOT);
            module.release();
            assertStatus(0x32, signing.get());
            Smartcard.finalizeDLL();
        }
    }

    private static void rebind(FaultyModule module) {
        SoftTokenTest.assertOk(Smartcard.finalizeDLL(), Smartcard.initDLL(module.path()),
                Smartcard.openSessionDLL(SLOT), Smartcard.loginDLL(SLOT, PIN, 1));
    }

    @Test
    void pinPad() {
        module.pinPad(SLOT, PIN);
        assertEquals(0x100, Smartcard.getTokenInfoDLL(SLOT) & 0x100);
        assertEquals(0, logInAgain(null));
        assertSigns();
        module.pinPad(SLOT, null);
        assertEquals(0x50, logInAgain(null));
        assertEquals(0, logInAgain(PIN));
    }

    @Test
    void lockedPin() {
        module.tries(SLOT, 3);
        assertEquals(0, pinFlags());
        assertEquals(0xA0, logInAgain("0000"));
        assertEquals(0x10000, pinFlags());
        assertEquals(0, logInAgain(PIN));
        assertEquals(0, pinFlags());
        for (long expected : new long[] {0x10000, 0x30000, 0x50000}) {
            assertEquals(0xA0, logInAgain("0000"));
            assertEquals(expected, pinFlags());
        }
        assertEquals(0xA4, logInAgain(PIN));
        SoftTokenTest.assertOk(Smartcard.loginDLL(SLOT, PIN, 0), Smartcard.initUserPINDLL(SLOT, PIN, 4));
        assertEquals(0, pinFlags());
        assertEquals(0, logInAgain(PIN));
    }

    /** The token's flags for the user's PIN. */
    private static long pinFlags() {
        return Smartcard.getTokenInfoDLL(SLOT) & 0x70000;
    }

    @Test
    void renumberedSlots() {
        SoftTokenTest.assertOk(Smartcard.initTokenDLL(1, PIN, 4)); // another token
        bindBoth();
        byte[] first = Smartcard.readCardSerialNumberDLL(0);
        int id = Smartcard.getSessionInfoDLL(0)[2];
        module.slots(1, 0);
        assertArrayEquals(first, Smartcard.readCardSerialNumberDLL(0)); // not yet
        bindBoth();
        assertArrayEquals(first, Smartcard.readCardSerialNumberDLL(1));
        assertEquals(id, Smartcard.getSessionInfoDLL(0)[2]);
        module.remove(1);
        assertEquals(0, Smartcard.isSessionOpenDLL(0));
        assertEquals(0x32, Smartcard.isSessionOpenDLL(1));
        module.slots();
        SoftTokenTest.assertOk(Smartcard.finalizeDLL(), Smartcard.initDLL(module.path()));
        assertStatus(0xE0, Smartcard.readCardSerialNumberDLL(0)); // the card is still out
    }

    private void bindBoth() {
        SoftTokenTest.assertOk(Smartcard.finalizeDLL(), Smartcard.initDLL(module.path()), Smartcard.openSessionDLL(0),
                Smartcard.openSessionDLL(1));
    }
}
