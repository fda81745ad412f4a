package com.calvenhor.vork.utils.tool;

import java.util.HashMap;
import java.util.Map;
import java.util.StringJoiner;

/** Names for PKCS#11 flags. A flag without a name here is shown in hexadecimal. */
final class Names {
    private static final Map<Long, String> SLOT_FLAGS = parseTable("1 TOKEN_PRESENT 2 REMOVABLE_DEVICE 4 HW_SLOT");
    private static final Map<Long, String> TOKEN_FLAGS = parseTable("""
            1 RNG  2 WRITE_PROTECTED  4 LOGIN_REQUIRED  8 USER_PIN_INITIALIZED  20 RESTORE_KEY_NOT_NEEDED
            40 CLOCK_ON_TOKEN  100 PROTECTED_AUTHENTICATION_PATH  200 DUAL_CRYPTO_OPERATIONS  400 TOKEN_INITIALIZED
            800 SECONDARY_AUTHENTICATION  10000 USER_PIN_COUNT_LOW  20000 USER_PIN_FINAL_TRY  40000 USER_PIN_LOCKED
            80000 USER_PIN_TO_BE_CHANGED  100000 SO_PIN_COUNT_LOW  200000 SO_PIN_FINAL_TRY  400000 SO_PIN_LOCKED
            800000 SO_PIN_TO_BE_CHANGED  1000000 ERROR_STATE
            """);
    private static final Map<Long, String> MECHANISM_FLAGS = parseTable("""
            1 hardware  100 encrypt  200 decrypt  400 digest  800 sign  1000 sign-recover  2000 verify
            4000 verify-recover  8000 generate  10000 generate-pair  20000 wrap  40000 unwrap  80000 derive
            """);

    private Names() {
    }

    static String slotFlags(long flags) {
        return flags(SLOT_FLAGS, flags);
    }

    static String tokenFlags(long flags) {
        return flags(TOKEN_FLAGS, flags);
    }

    /** {@return the uses of a mechanism, without flags for curve types and vendor-defined flags} */
    static String mechanismFlags(long flags) {
        return flags(MECHANISM_FLAGS, flags & 0xFFFFF);
    }

    private static String flags(Map<Long, String> namesByFlag, long flags) {
        if (flags == -1) {
            return "not available";
        }
        StringJoiner joined = new StringJoiner(" ");
        joined.setEmptyValue("none");
        for (long left = flags; left != 0; left &= left - 1) {
            long flag = Long.lowestOneBit(left);
            joined.add(namesByFlag.getOrDefault(flag, "0x" + Long.toHexString(flag)));
        }
        return joined.toString();
    }

    private static Map<Long, String> parseTable(String numbersAndNames) {
        Map<Long, String> names = new HashMap<>();
        String[] words = numbersAndNames.strip().split("\\s+");
        for (int i = 0; i < words.length; i += 2) {
            names.put(Long.parseLong(words[i], 16), words[i + 1]);
        }
        return names;
    }
}
