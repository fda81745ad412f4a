import java.util.HashMap;
import java.util.Map;
import java.util.StringJoiner;

/** PKCS#11's names of mechanisms and flags, without their prefixes; a number without one here is shown in hex. */
final class Names {
    private static final Map<Long, String> MECHANISMS = table("""
            0 RSA_PKCS_KEY_PAIR_GEN  1 RSA_PKCS  3 RSA_X_509  5 MD5_RSA_PKCS  6 SHA1_RSA_PKCS  9 RSA_PKCS_OAEP
            d RSA_PKCS_PSS  e SHA1_RSA_PKCS_PSS  10 DSA_KEY_PAIR_GEN  11 DSA  12 DSA_SHA1  13 DSA_SHA224
            14 DSA_SHA256  15 DSA_SHA384  16 DSA_SHA512  20 DH_PKCS_KEY_PAIR_GEN  21 DH_PKCS_DERIVE
            40 SHA256_RSA_PKCS  41 SHA384_RSA_PKCS  42 SHA512_RSA_PKCS  43 SHA256_RSA_PKCS_PSS
            44 SHA384_RSA_PKCS_PSS  45 SHA512_RSA_PKCS_PSS  46 SHA224_RSA_PKCS  47 SHA224_RSA_PKCS_PSS
            110 RC4_KEY_GEN  111 RC4  120 DES_KEY_GEN  121 DES_ECB  122 DES_CBC  123 DES_MAC  125 DES_CBC_PAD
            130 DES2_KEY_GEN  131 DES3_KEY_GEN  132 DES3_ECB  133 DES3_CBC  134 DES3_MAC  136 DES3_CBC_PAD
            138 DES3_CMAC  210 MD5  211 MD5_HMAC  220 SHA_1  221 SHA_1_HMAC  240 RIPEMD160  250 SHA256
            251 SHA256_HMAC  255 SHA224  256 SHA224_HMAC  260 SHA384  261 SHA384_HMAC  270 SHA512  271 SHA512_HMAC
            350 GENERIC_SECRET_KEY_GEN  360 CONCATENATE_BASE_AND_KEY  362 CONCATENATE_BASE_AND_DATA
            363 CONCATENATE_DATA_AND_BASE  3b0 PKCS5_PBKD2  1040 EC_KEY_PAIR_GEN  1041 ECDSA  1042 ECDSA_SHA1
            1043 ECDSA_SHA224  1044 ECDSA_SHA256  1045 ECDSA_SHA384  1046 ECDSA_SHA512  1050 ECDH1_DERIVE
            1051 ECDH1_COFACTOR_DERIVE  1053 ECDH_AES_KEY_WRAP  1054 RSA_AES_KEY_WRAP  1055 EC_EDWARDS_KEY_PAIR_GEN
            1056 EC_MONTGOMERY_KEY_PAIR_GEN  1057 EDDSA  1080 AES_KEY_GEN  1081 AES_ECB  1082 AES_CBC  1083 AES_MAC
            1085 AES_CBC_PAD  1086 AES_CTR  1087 AES_GCM  1088 AES_CCM  108a AES_CMAC  1100 DES_ECB_ENCRYPT_DATA
            1101 DES_CBC_ENCRYPT_DATA  1102 DES3_ECB_ENCRYPT_DATA  1103 DES3_CBC_ENCRYPT_DATA
            1104 AES_ECB_ENCRYPT_DATA  1105 AES_CBC_ENCRYPT_DATA  2000 DSA_PARAMETER_GEN  2001 DH_PKCS_PARAMETER_GEN
            2109 AES_KEY_WRAP  210a AES_KEY_WRAP_PAD
            """);
    private static final Map<Long, String> SLOT_FLAGS = table("1 TOKEN_PRESENT 2 REMOVABLE_DEVICE 4 HW_SLOT");
    private static final Map<Long, String> TOKEN_FLAGS = table("""
            1 RNG  2 WRITE_PROTECTED  4 LOGIN_REQUIRED  8 USER_PIN_INITIALIZED  20 RESTORE_KEY_NOT_NEEDED
            40 CLOCK_ON_TOKEN  100 PROTECTED_AUTHENTICATION_PATH  200 DUAL_CRYPTO_OPERATIONS  400 TOKEN_INITIALIZED
            800 SECONDARY_AUTHENTICATION  10000 USER_PIN_COUNT_LOW  20000 USER_PIN_FINAL_TRY  40000 USER_PIN_LOCKED
            80000 USER_PIN_TO_BE_CHANGED  100000 SO_PIN_COUNT_LOW  200000 SO_PIN_FINAL_TRY  400000 SO_PIN_LOCKED
            800000 SO_PIN_TO_BE_CHANGED  1000000 ERROR_STATE
            """);
    private static final Map<Long, String> MECHANISM_FLAGS = table("""
            1 hardware  100 encrypt  200 decrypt  400 digest  800 sign  1000 sign-recover  2000 verify
            4000 verify-recover  8000 generate  10000 generate-pair  20000 wrap  40000 unwrap  80000 derive
            """);

    private Names() {
    }

    static String mechanism(int type) {
        return name(MECHANISMS, Integer.toUnsignedLong(type));
    }

    static String slotFlags(long flags) {
        return flags(SLOT_FLAGS, flags);
    }

    static String tokenFlags(long flags) {
        return flags(TOKEN_FLAGS, flags);
    }

    /** The uses of a mechanism; what lies beyond them (curve types, vendors' own) is left out. */
    static String mechanismFlags(long flags) {
        return flags(MECHANISM_FLAGS, flags & 0xFFFFF);
    }

    private static String name(Map<Long, String> names, long number) {
        return names.getOrDefault(number, "0x" + Long.toHexString(number));
    }

    private static String flags(Map<Long, String> names, long flags) {
        StringJoiner joined = new StringJoiner(" ");
        joined.setEmptyValue("none");
        for (long left = flags; left != 0; left &= left - 1) {
            joined.add(name(names, Long.lowestOneBit(left)));
        }
        return joined.toString();
    }

    private static Map<Long, String> table(String numbersAndNames) {
        Map<Long, String> names = new HashMap<>();
        String[] words = numbersAndNames.strip().split("\\s+");
        for (int i = 0; i < words.length; i += 2) {
            names.put(Long.parseLong(words[i], 16), words[i + 1]);
        }
        return names;
    }
}
