import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.Smartcard;
import com.calvenhor.vork.utils.testing.FaultyModule;
import java.nio.file.*;
import java.security.*;
import java.util.concurrent.FutureTask;
import java.util.concurrent.atomic.*;
import javax.security.auth.callback.PasswordCallback;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The faulty module under the JDK's PKCS#11 provider, which calls it from several threads at once. */
class SunPkcs11Test {
    private final FaultyModule module = FaultyModule.before(System.getProperty("softhsm2"));
    private volatile AuthProvider provider;
    private volatile PrivateKey key;
    private volatile PublicKey publicKey;

    private void logIn() throws Exception {
        provider = (AuthProvider) Security.getProvider("SunPKCS11").configure("--name=Faulty\nslotListIndex=0\nlibrary="
                + module.path() + "\n");
        provider.login(null, callbacks -> ((PasswordCallback) callbacks[0]).setPassword(
                SoftTokenTest.PIN.toCharArray()));
        KeyStore store = KeyStore.getInstance("PKCS11", provider);
        store.load(null, null);
        key = (PrivateKey) store.getKey("Contracts", null);
        publicKey = store.getCertificate("Contracts").getPublicKey();
    }

    private void sign() throws Exception {
        Signature signature = Signature.getInstance("SHA256withRSA", provider);
        signature.initSign(key);
        signature.update(SoftTokenTest.DATA);
        byte[] signed = signature.sign();
        Signature verifier = Signature.getInstance("SHA256withRSA", "SunRsaSign");
        verifier.initVerify(publicKey);
        verifier.update(SoftTokenTest.DATA);
        assertTrue(verifier.verify(signed));
    }

    /** The name of the code with which signing fails. */
    private String failure() {
        Throwable failure = assertThrows(Exception.class, this::sign);
        while (failure.getCause() != null) {
            failure = failure.getCause();
        }
        return failure.getMessage();
    }

    @Test
    void faultsReachTheProvider(@TempDir Path folder) throws Exception {
        SoftTokenTest.createToken(module.path(), Files.createDirectory(folder.resolve("tokens")));
        Path identity = folder.resolve("identity.p12");
        SoftTokenTest.output(new ProcessBuilder(System.getProperty("java.home") + "/bin/keytool", "-genkeypair",
                "-keyalg", "RSA", "-keysize", "2048", "-dname", "CN=Signer", "-alias", "signer", "-storepass",
                "changeit", "-keystore", identity.toString()).redirectErrorStream(true));
        Recipes.importIdentity(SoftTokenTest.SLOT, identity, "changeit".toCharArray(), "signer",
                "Contracts".getBytes());
        Smartcard.finalizeDLL();
        logIn();
        sign();

        for (String function : new String[] {"C_SignInit", "C_SignUpdate", "C_SignFinal"}) {
            module.fail(function, 1, 0x30);
            assertEquals("CKR_DEVICE_ERROR", failure());
            sign();
        }
        module.remove(0);
        assertEquals("CKR_DEVICE_REMOVED", failure());
        module.insert(0);
        assertEquals("CKR_SESSION_HANDLE_INVALID", failure());

        AtomicBoolean isRunning = new AtomicBoolean(true);
        FutureTask<Integer> signing = new FutureTask<>(() -> {
            AtomicInteger signed = new AtomicInteger();
            Threads.run(Thread::new, 4, thread -> {
                while (isRunning.get()) {
                    try {
                        sign();
                        signed.incrementAndGet();
                    } catch (GeneralSecurityException | ProviderException e) {
                        Thread.yield(); // the card is removed, or the session was lost
                    }
                }
            });
            return signed.get();
        });
        new Thread(signing).start();
        for (int round = 0; round < 20; round++) {
            logIn();
            Thread.sleep(20);
            module.fail("C_SignFinal", 1, 0x30);
            module.remove(0);
            Thread.sleep(5);
            module.insert(0);
        }
        isRunning.set(false);
        assertTrue(signing.get() > 0);
        logIn();
        try {
            sign();
        } catch (ProviderException e) { // the last requested failure was still pending
            sign();
        }
    }
}
