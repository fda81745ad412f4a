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
 * A PKCS#11 module for tests of applications. It passes every call on to a genuine module, except for the failures that
 * a test sets: errors, delays, hangs, crashes, removed cards and locked PINs.
 * <pre>{@code
 * try (FaultyModule module = FaultyModule.before("/usr/lib/softhsm/libsofthsm2.so")) {
 *     Smartcard.initDLL(module.path()); // or SmartcardProvider, SunPKCS11, ...
 *     module.fail("C_Sign", 1, 0x30);   // the next C_Sign returns CKR_DEVICE_ERROR
 *     ...
 * }
 * }</pre>
 *
 * <h2>Functions</h2>
 * A parameter {@code function} is a name from PKCS#11 2.40, such as {@code "C_Sign"}. Any other name throws an
 * {@link IllegalArgumentException}. A call is counted and recorded when it begins. The settings then apply in this
 * order: crash, hang, delay, failure. A failing call does not reach the genuine module. If PKCS#11 ends the operation
 * on such a failure, this module ends it: after a failed {@code C_Sign} the next {@code C_SignInit} succeeds.
 *
 * <h2>Slots</h2>
 * A parameter {@code slot} is an index, from 0, in the list of {@code C_GetSlotList(false)}. A negative index throws an
 * {@link IllegalArgumentException}; an index beyond the genuine module's list has no effect. Settings of a slot may be
 * made before {@code C_Initialize}, and survive {@code C_Finalize}.
 * <p>{@link #slots slots} takes effect, and {@link Removal#EMPTY} ends, only at a {@code C_Initialize} that succeeds.
 * {@code C_Initialize} fails if the process has already initialised the genuine module.
 * <p>{@code C_WaitForSlotEvent} reports only events of the genuine module, not {@link #remove(long) remove} or
 * {@link #insert insert}.
 *
 * <h2>Threads</h2>
 * Any thread may call any method, also during calls of the module. No method waits for a call of the module.
 *
 * <p>The class needs Linux on x86-64 or aarch64. JDK 24 or later warns unless it runs with
 * {@code --enable-native-access=ALL-UNNAMED}, or {@code --enable-native-access=com.calvenhor.vork.utils.testing} on the
 * module path.
 */
public final class FaultyModule implements AutoCloseable {
    /** How the module behaves after the card was removed. A removal also affects calls that have not returned yet. */
    public enum Removal {
        /**
         * As PKCS#11 specifies. {@code C_GetSlotInfo} clears CKF_TOKEN_PRESENT (1), and {@code C_GetSlotList(true)}
         * omits the slot. Other calls for the slot return CKR_TOKEN_NOT_PRESENT (0xE0). Calls with one of its sessions
         * return CKR_DEVICE_REMOVED (0x32), or CKR_SESSION_HANDLE_INVALID (0xB3) after a card was inserted.
         */
        STANDARD,
        /**
         * Like SoftHSM2, which goes on as if the card were present and empty. The slot keeps CKF_TOKEN_PRESENT, and its
         * sessions and login stay valid. Searches find nothing. Calls with an object handle return
         * CKR_OBJECT_HANDLE_INVALID (0x82). {@code C_GetTokenInfo}, a first login, a PIN change and the creation of an
         * object return CKR_GENERAL_ERROR (5); a second login returns CKR_USER_ALREADY_LOGGED_IN (0x100). The next
         * {@code C_Initialize} ends this state; {@link FaultyModule#insert insert} alone does not.
         */
        EMPTY,
        /**
         * Like OpenSC, which checks the reader in {@code C_GetSlotInfo} only. Until the application calls {@code
         * C_GetSlotInfo} for the slot, token data, sessions, searches and attributes are as before. Calls that need the
         * card (login, signing, writing) return CKR_DEVICE_REMOVED (0x32); a second login returns
         * CKR_USER_ALREADY_LOGGED_IN (0x100). {@code C_GetSlotInfo} then changes the state to {@link #STANDARD}. The
         * sessions are lost even if a card was inserted before that call.
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
     * Creates a module in front of a genuine module. Several may be in front of the same genuine module; each has its
     * own settings.
     *
     * @param genuine the path of the genuine module, or a file name for the system's library search
     * @return a module that passes on all calls
     * @throws UnsatisfiedLinkError if the genuine module cannot be loaded or is not a PKCS#11 module
     * @throws UncheckedIOException if no file can be created in {@code java.io.tmpdir}
     */
    public static FaultyModule before(String genuine) {
        Objects.requireNonNull(genuine);
        Path file = copyOfLibrary(); // dlopen loads a file only once, and each module has its own state
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

    /** {@return the path of this module, for binding it in this process} */
    public String path() {
        return file.toString();
    }

    /**
     * Makes one call of a function fail.
     *
     * @param function the function
     * @param nth the number of the call, counted from now on: 1 is the next call
     * @param code the CK_RV that the call returns, such as 0x30 for CKR_DEVICE_ERROR; not 0
     * @throws IllegalArgumentException if {@code nth} is below 1 or {@code code} is 0
     */
    public synchronized void fail(String function, int nth, long code) {
        require(nth > 0 && code != 0, "nth must be at least 1, and the code must not be CKR_OK");
        fail(state(), indexOf(function), nth, code);
    }

    /**
     * Delays every call of a function.
     *
     * @param function the function
     * @param duration the additional time; zero removes the delay
     */
    public synchronized void delay(String function, Duration duration) {
        require(!duration.isNegative(), "the delay must not be negative");
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

    /** Lets all hanging calls continue. Later calls of these functions do not hang. */
    public synchronized void release() {
        release(state());
    }

    /**
     * Makes the next call of a function crash the process with SIGSEGV.
     *
     * @param function the function
     */
    public synchronized void crash(String function) {
        crash(state(), indexOf(function));
    }

    /**
     * Removes the card from a slot, with {@link Removal#STANDARD}.
     *
     * @param slot the slot's index
     */
    public void remove(long slot) {
        remove(slot, Removal.STANDARD);
    }

    /**
     * Removes the card from a slot. The slot has CKF_REMOVABLE_DEVICE (2) from now on, because applications need not
     * expect a removal without this flag.
     *
     * @param slot the slot's index
     * @param removal how the module behaves afterwards
     */
    public synchronized void remove(long slot, Removal removal) {
        remove(state(), requireSlot(slot), removal.ordinal());
    }

    /**
     * Inserts the removed card again. Sessions and logins that the removal ended stay invalid.
     *
     * @param slot the slot's index
     */
    public synchronized void insert(long slot) {
        insert(state(), requireSlot(slot));
    }

    /**
     * Adds a PIN pad to a slot. The token has CKF_PROTECTED_AUTHENTICATION_PATH (0x100), and a {@code C_Login} with a
     * null PIN takes the PIN from the PIN pad.
     *
     * @param slot the slot's index
     * @param pin the PIN that the user enters; null if the user cancels, so that {@code C_Login} returns
     *        CKR_FUNCTION_CANCELED (0x50)
     */
    public synchronized void pinPad(long slot, String pin) {
        pinPad(state(), requireSlot(slot), pin == null ? null : pin.getBytes(StandardCharsets.UTF_8));
    }

    /**
     * Limits the tries of the user PIN. After {@code n} wrong PINs in a row, {@code C_Login} returns CKR_PIN_LOCKED
     * (0xA4) for any PIN, until {@code C_InitPIN} or {@code C_InitToken} succeeds. A PIN is wrong if the genuine module
     * returns CKR_PIN_INCORRECT (0xA0). The token has CKF_USER_PIN_COUNT_LOW (0x10000) after a wrong PIN,
     * CKF_USER_PIN_FINAL_TRY (0x20000) before the last try, and CKF_USER_PIN_LOCKED (0x40000) when the PIN is locked.
     *
     * @param slot the slot's index
     * @param n the number of tries, counted from now on; 0 for no limit
     */
    public synchronized void tries(long slot, int n) {
        require(n >= 0, "the number of tries must not be negative");
        tries(state(), requireSlot(slot), n);
    }

    /**
     * Renumbers the slots at the next {@code C_Initialize}, like readers that were plugged in again in another order.
     * The list keeps its indexes and slot IDs, but they refer to other slots: {@code slots(1, 0)} swaps the first two.
     * The settings of a slot move with the slot.
     *
     * @param order indexes in the genuine module's list, without duplicates. The other slots follow in their own order,
     *        so {@code slots()} restores the genuine order. Indexes that the genuine module does not have are ignored.
     */
    public synchronized void slots(long... order) {
        require(Arrays.stream(order).distinct().count() == order.length, "the order contains a slot twice");
        Arrays.stream(order).forEach(FaultyModule::requireSlot);
        slots(state(), order.clone());
    }

    /** {@return the functions called since the last {@code takeCalls}, or since the module was created, in order} */
    public synchronized List<String> takeCalls() {
        String names = takeCalls(state());
        return names.isEmpty() ? List.of() : List.of(names.split(" "));
    }

    /**
     * Lets hanging calls continue, and deletes the module's file. An application that has bound the module may continue
     * to use it. After this, all methods except {@link #path} and this one throw {@link IllegalStateException}.
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

    private static long requireSlot(long slot) {
        require(slot >= 0, "a slot index must not be negative");
        return slot;
    }

    private static void require(boolean condition, String message) {
        if (!condition) {
            throw new IllegalArgumentException(message);
        }
    }

    private static native long open(String copy, String genuine);

    private static native void close(long state, String copy);

    /** {@return the number of a function; -1 for an unknown name} */
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
