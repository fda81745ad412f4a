package com.calvenhor.vork.utils.testing;

import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.io.UncheckedIOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.time.Duration;
import java.util.Arrays;
import java.util.List;
import java.util.Locale;
import java.util.Objects;

/**
 * A PKCS#11 module that passes every call on to a genuine one, and does to the application what cards do when a test
 * orders it: fail, hang, crash, leave the reader, lock after wrong PINs.
 * <pre>{@code
 * try (FaultyModule module = FaultyModule.before("/usr/lib/softhsm/libsofthsm2.so")) {
 *     Smartcard.initDLL(module.path()); // or SmartcardProvider, SunPKCS11, ...
 *     module.fail("C_Sign", 1, 0x30);   // the next C_Sign returns CKR_DEVICE_ERROR
 *     ...
 * }
 * }</pre>
 *
 * <h2>Functions</h2>
 * A function is named as in PKCS#11 2.40, such as {@code "C_Sign"}; any other name is an
 * {@link IllegalArgumentException}. A call is counted and listed when it begins. Then it hangs, then it is delayed, then
 * it fails or is passed on. A failing call does not reach the genuine module, but ends the operation that PKCS#11 lets
 * it end: after a failed {@code C_Sign} the next {@code C_SignInit} succeeds.
 *
 * <h2>Slots</h2>
 * A slot is given by its index in the list of {@code C_GetSlotList(false)}, from 0. What is set for a slot holds before
 * {@code C_Initialize} as well, and across {@code C_Finalize}. An index that the genuine module does not have has no
 * effect; a negative one is an {@link IllegalArgumentException}. {@code C_WaitForSlotEvent} reports the genuine module's
 * events only.
 *
 * <h2>Threads</h2>
 * Any thread may call any method, while calls of the module are under way. No method waits for a call of the module.
 *
 * <p>The class needs Linux on x86-64 or aarch64. From JDK 24 on the JVM warns unless it runs with
 * {@code --enable-native-access=ALL-UNNAMED}, or {@code --enable-native-access=com.calvenhor.vork.utils.testing} on the
 * module path.
 */
public final class FaultyModule implements AutoCloseable {
    /** How a module takes the removal of a card. The first call under way or to come shows it. */
    public enum Removal {
        /**
         * As PKCS#11 has it. {@code C_GetSlotInfo} clears CKF_TOKEN_PRESENT (1), and {@code C_GetSlotList(true)} leaves
         * the slot out. Every other call for the slot returns CKR_TOKEN_NOT_PRESENT (0xE0). A call with one of its
         * sessions returns CKR_DEVICE_REMOVED (0x32), and CKR_SESSION_HANDLE_INVALID (0xB3) once a card is back.
         */
        STANDARD,
        /**
         * As SoftHSM2 does, which goes on as if the card were there and empty. The slot keeps its CKF_TOKEN_PRESENT, and
         * its sessions and login stay valid. Searches find nothing, handles found before are CKR_OBJECT_HANDLE_INVALID
         * (0x82), and {@code C_GetTokenInfo}, logins and writes return CKR_GENERAL_ERROR (5). Nothing ends this, nor does
         * {@link FaultyModule#insert insert}, until {@code C_Initialize} sees what is there.
         */
        EMPTY,
        /**
         * As OpenSC does, which asks the reader in {@code C_GetSlotInfo} only. Until the application calls that for the
         * slot, the token's data, sessions, searches and attributes are returned as before, and calls that need the card
         * (login, signing, writing) return CKR_DEVICE_REMOVED (0x32); a login while logged in is
         * CKR_USER_ALREADY_LOGGED_IN (0x100) as before. From then on it is as in {@link #STANDARD}; where
         * a card is back already, the sessions are lost all the same.
         */
        CACHED
    }

    private static final String LIBRARY = "libfaulty_pkcs11.so";

    static {
        Path copy = copyOfLibrary();
        try {
            System.load(copy.toString());
        } finally {
            copy.toFile().delete();
        }
    }

    private final Path file;
    private long state; // 0: closed

    private FaultyModule(Path file, String genuine) {
        this.file = file;
        state = open(file.toString(), genuine);
    }

    /**
     * Makes a module that stands before a genuine one. Several may stand before the same one, each with what was ordered
     * of it alone.
     *
     * @param genuine path of the genuine module, or a file name for the system's library search
     * @return the module, which passes all on until something else is ordered
     * @throws UnsatisfiedLinkError if the genuine module cannot be loaded or is no PKCS#11 module; the message says why
     * @throws UncheckedIOException if no file can be created in {@code java.io.tmpdir}
     */
    public static FaultyModule before(String genuine) {
        Objects.requireNonNull(genuine);
        Path file = copyOfLibrary(); // its own: the system loads a file once, and each module has a state
        try {
            file.toFile().deleteOnExit();
            return new FaultyModule(file, genuine);
        } catch (UnsatisfiedLinkError e) {
            file.toFile().delete();
            throw e;
        }
    }

    private static Path copyOfLibrary() {
        String system = System.getProperty("os.name").toLowerCase(Locale.ROOT) + "-"
                + System.getProperty("os.arch").replace("amd64", "x86_64");
        try (InputStream library = FaultyModule.class.getResourceAsStream(system + "/" + LIBRARY)) {
            if (library == null) {
                throw new UnsatisfiedLinkError("the jar has no " + LIBRARY + " for " + system);
            }
            Path copy = Files.createTempFile("libfaulty_pkcs11", ".so",
                    PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rw-------")));
            try (OutputStream file = Files.newOutputStream(copy)) {
                library.transferTo(file);
            }
            return copy.toAbsolutePath();
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    /** {@return the path of this module, for whatever binds a PKCS#11 module in this process} */
    public String path() {
        return file.toString();
    }

    /**
     * Fails one call of a function, which is not passed on.
     *
     * @param function the function
     * @param nth which call from now on, the next one being 1
     * @param code the CK_RV that it returns, such as 0x30 for CKR_DEVICE_ERROR; 0 is an {@link IllegalArgumentException}
     */
    public synchronized void fail(String function, int nth, long code) {
        require(nth > 0 && code != 0, "nth from 1 and a code other than CKR_OK are expected");
        fail(state(), indexOf(function), nth, code);
    }

    /**
     * Delays every call of a function.
     *
     * @param function the function
     * @param duration the delay; zero ends it
     */
    public synchronized void delay(String function, Duration duration) {
        require(!duration.isNegative(), "a delay is not negative");
        delay(state(), indexOf(function), duration.toNanos());
    }

    /**
     * Makes every call of a function hang until {@link #release} or {@link #close}.
     *
     * @param function the function
     */
    public synchronized void hang(String function) {
        hang(state(), indexOf(function));
    }

    /** Lets all hanging calls go on, and later calls of their functions pass. */
    public synchronized void release() {
        release(state());
    }

    /**
     * Makes the next call of a function crash the process, by a write to address 0 (SIGSEGV).
     *
     * @param function the function
     */
    public synchronized void crash(String function) {
        crash(state(), indexOf(function));
    }

    /**
     * Removes the card from a slot, as {@link Removal#STANDARD}.
     *
     * @param slot the slot's index
     */
    public void remove(long slot) {
        remove(slot, Removal.STANDARD);
    }

    /**
     * Removes the card from a slot: its sessions and logins end. From now on the slot has CKF_REMOVABLE_DEVICE (2),
     * without which an application need not expect this.
     *
     * @param slot the slot's index
     * @param removal how the module takes it
     */
    public synchronized void remove(long slot, Removal removal) {
        remove(state(), checked(slot), removal.ordinal());
    }

    /**
     * Inserts the card that {@link #remove(long) remove} took out. No session or login comes back with it.
     *
     * @param slot the slot's index
     */
    public synchronized void insert(long slot) {
        insert(state(), checked(slot));
    }

    /**
     * Gives the slot a PIN pad: the token has CKF_PROTECTED_AUTHENTICATION_PATH (0x100), and a {@code C_Login} without a
     * PIN enters one.
     *
     * @param slot the slot's index
     * @param pin what its user enters; null cancels: {@code C_Login} returns CKR_FUNCTION_CANCELED (0x50)
     */
    public synchronized void pinPad(long slot, String pin) {
        pinPad(state(), checked(slot), pin == null ? null : pin.getBytes(StandardCharsets.UTF_8));
    }

    /**
     * Locks the user's PIN after wrong ones. The genuine module's CKR_PIN_INCORRECT (0xA0) in {@code C_Login} counts,
     * the right PIN ends the count. After {@code n} in a row {@code C_Login} returns CKR_PIN_LOCKED (0xA4) for any PIN,
     * until {@code C_InitPIN} or {@code C_InitToken}. The token has CKF_USER_PIN_COUNT_LOW (0x10000) after a wrong PIN,
     * CKF_USER_PIN_FINAL_TRY (0x20000) before the last try and CKF_USER_PIN_LOCKED (0x40000) in the end.
     *
     * @param slot the slot's index
     * @param n the tries, counted from now on; 0 for no limit
     */
    public synchronized void tries(long slot, int n) {
        require(n >= 0, "a number of tries is not negative");
        tries(state(), checked(slot), n);
    }

    /**
     * Renumbers the slots at the next {@code C_Initialize}, as readers are when they were plugged in anew. The indexes and
     * slot IDs of the list stay, and lead to other slots: {@code slots(1, 0)} exchanges the first two. What was set for
     * a slot moves with it.
     *
     * @param order indexes in the genuine module's own list, each once. Slots that are not named follow; without any,
     *        the genuine order is back. An index that the module does not have is passed over.
     */
    public synchronized void slots(long... order) {
        require(Arrays.stream(order).distinct().count() == order.length, "a slot is named twice");
        Arrays.stream(order).forEach(FaultyModule::checked);
        slots(state(), order.clone());
    }

    /** {@return the names of the functions called since the last {@code takeCalls}, or since the start, in order} */
    public synchronized List<String> takeCalls() {
        String names = takeCalls(state());
        return names.isEmpty() ? List.of() : List.of(names.split(" "));
    }

    /**
     * Lets hanging calls go on and removes the file. An application that has bound the module may go on with it; nothing
     * more can be ordered: all methods but this one and {@link #path} throw {@link IllegalStateException}.
     */
    @Override
    public synchronized void close() {
        if (state != 0) {
            release(state);
            close(state, path());
            state = 0;
            file.toFile().delete();
        }
    }

    private long state() {
        if (state == 0) {
            throw new IllegalStateException("the module is closed");
        }
        return state;
    }

    private static int indexOf(String function) {
        int index = function(Objects.requireNonNull(function));
        require(index >= 0, "PKCS#11 2.40 has no function " + function);
        return index;
    }

    private static long checked(long slot) {
        require(slot >= 0, "a slot index is not negative");
        return slot;
    }

    private static void require(boolean condition, String otherwise) {
        if (!condition) {
            throw new IllegalArgumentException(otherwise);
        }
    }

    private static native long open(String copy, String genuine);

    private static native void close(long state, String copy);

    /** The number of a function; -1 for an unknown name. */
    private static native int function(String name);

    private static native void fail(long state, int function, int nth, long code);

    private static native void delay(long state, int function, long nanoseconds);

    private static native void hang(long state, int function);

    private static native void release(long state);

    private static native void crash(long state, int function);

    private static native void remove(long state, long slot, int removal);

    private static native void insert(long state, long slot);

    private static native void pinPad(long state, long slot, byte[] pin);

    private static native void tries(long state, long slot, int n);

    private static native void slots(long state, long[] order);

    private static native String takeCalls(long state);
}
