package com.calvenhor.vork.utils.tool;

import java.io.Console;
import java.util.HashSet;
import java.util.Set;

/** Gets PINs. SMARTCARD_PIN is sent only once, and a refused PIN never again: a token counts wrong PINs. */
final class Pins {
    private static final Set<String> REFUSED = new HashSet<>();
    private static String lastRequest; // the token and the PIN
    private static String receiver; // the token that got SMARTCARD_PIN

    private Pins() {
    }

    /** {@return the reply to {@link Worker#askPin}} */
    static String request(String token) {
        String pin = System.getenv("SMARTCARD_PIN");
        Console console = System.console();
        if (pin != null && !pin.isEmpty()) {
            if (receiver != null) {
                return "-SMARTCARD_PIN is sent only once, and was sent to " + receiver;
            }
            receiver = token;
        } else if (console == null) {
            return "-SMARTCARD_PIN is not set, and there is no console for a prompt";
        } else {
            char[] entered = console.readPassword("PIN of %s (Enter: no login): ", token);
            if (entered == null || entered.length == 0) {
                return "-no PIN was entered";
            }
            pin = new String(entered);
        }
        // Control characters could end the reply's line, and JNI does not encode surrogates as UTF-8. U+FFFD replaces
        // characters that are invalid in the locale's character set.
        if (pin.chars().anyMatch(c -> c < ' ' || Character.isSurrogate((char) c) || c == '\uFFFD')) {
            return "-the PIN contains a character that cannot be sent";
        }
        lastRequest = token.replace(Token.FINAL_TRY, "") + '\n' + pin;
        return REFUSED.contains(lastRequest) ? "-this PIN was refused before" : '+' + pin;
    }

    static void recordRefusal() {
        REFUSED.add(lastRequest);
    }
}
