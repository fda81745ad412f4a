package com.calvenhor.vork.utils;

import java.io.IOException;
import java.util.HashMap;
import java.util.Map;

/**
 * A failure with a PKCS#11 code, which a call of the module returned or this library found. {@code Signature.sign}
 * throws a {@link java.security.SignatureException} with this exception as its cause.
 */
public final class SmartcardException extends IOException {
    private static final long serialVersionUID = 1;

    static final long HOST_MEMORY = 0x02;
    static final long DEVICE_REMOVED = 0x32;
    static final long OBJECT_HANDLE_INVALID = 0x82;
    static final long OPERATION_NOT_INITIALIZED = 0x91;
    static final long PIN_INVALID = 0xA1;
    static final long SESSION_HANDLE_INVALID = 0xB3;
    static final long TOKEN_NOT_PRESENT = 0xE0;
    static final long TOKEN_NOT_RECOGNIZED = 0xE1;
    static final long USER_NOT_LOGGED_IN = 0x101;
    static final long CRYPTOKI_NOT_INITIALIZED = 0x190;
    static final long CRYPTOKI_ALREADY_INITIALIZED = 0x191;
    static final long FUNCTION_REJECTED = 0x200;

    static final String INSERT_OR_REBIND = "; insert the card; if it is inserted, call Smartcard.finalizeDLL and load"
            + " again";

    private static final Map<Long, String> NAMES = new HashMap<>();

    static {
        String[] codesAndNames = """
            0 OK  1 CANCEL  2 HOST_MEMORY  3 SLOT_ID_INVALID  5 GENERAL_ERROR  6 FUNCTION_FAILED  7 ARGUMENTS_BAD
            12 ATTRIBUTE_TYPE_INVALID  13 ATTRIBUTE_VALUE_INVALID  20 DATA_INVALID  21 DATA_LEN_RANGE
            30 DEVICE_ERROR  31 DEVICE_MEMORY  32 DEVICE_REMOVED  50 FUNCTION_CANCELED  54 FUNCTION_NOT_SUPPORTED
            60 KEY_HANDLE_INVALID  62 KEY_SIZE_RANGE  63 KEY_TYPE_INCONSISTENT  68 KEY_FUNCTION_NOT_PERMITTED
            70 MECHANISM_INVALID  82 OBJECT_HANDLE_INVALID  90 OPERATION_ACTIVE  91 OPERATION_NOT_INITIALIZED
            a0 PIN_INCORRECT  a1 PIN_INVALID  a2 PIN_LEN_RANGE  a3 PIN_EXPIRED  a4 PIN_LOCKED  b0 SESSION_CLOSED
            b1 SESSION_COUNT
            b3 SESSION_HANDLE_INVALID  b5 SESSION_READ_ONLY  b6 SESSION_EXISTS  d0 TEMPLATE_INCOMPLETE
            d1 TEMPLATE_INCONSISTENT  e0 TOKEN_NOT_PRESENT  e1 TOKEN_NOT_RECOGNIZED  e2 TOKEN_WRITE_PROTECTED
            100 USER_ALREADY_LOGGED_IN  101 USER_NOT_LOGGED_IN  102 USER_PIN_NOT_INITIALIZED  103 USER_TYPE_INVALID
            104 USER_ANOTHER_ALREADY_LOGGED_IN  150 BUFFER_TOO_SMALL  190 CRYPTOKI_NOT_INITIALIZED
            191 CRYPTOKI_ALREADY_INITIALIZED  200 FUNCTION_REJECTED
            """.strip().split("\\s+");
        for (int i = 0; i < codesAndNames.length; i += 2) {
            NAMES.put(Long.parseLong(codesAndNames[i], 16), "CKR_" + codesAndNames[i + 1]);
        }
    }

    /** The CK_RV. */
    private final long code;

    SmartcardException(String step, long code, String advice) {
        super(step + ": " + nameOf(code) + " (0x" + Long.toHexString(code) + ")" + advice);
        this.code = code;
    }

    /**
     * {@return the code (CK_RV) of the failure} If a method returned a status, the code is derived from the status and
     * the session.
     */
    public long code() {
        return code;
    }

    /**
     * {@return the PKCS#11 name of a code, such as CKR_PIN_INCORRECT; the code in hexadecimal if this class has no name
     * for it}
     *
     * @param code a CK_RV
     */
    public static String nameOf(long code) {
        return NAMES.getOrDefault(code, "0x" + Long.toHexString(code));
    }

    static void check(long code, String step, String advice) throws SmartcardException {
        if (code != 0) {
            throw new SmartcardException(step, code, advice);
        }
    }
}
