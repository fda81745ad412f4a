package com.calvenhor.vork.utils.tool;

import java.io.Console;
import java.util.HashSet;
import java.util.Set;

/** The PINs of a run. A wrong one costs a try: SMARTCARD_PIN is sent once, and none is sent again that was refused. */
final class Pins {
    private static final Set<String> REFUSED = new HashSet<>();
    private static String last;
    private static String hasFromEnvironment; // the token that does

    private Pins() {
    }

    /** {@return "+" and the PIN of a token, or "-" and the reason why there is none} */
    static String answer(String token) {
        String pin = System.getenv("SMARTCARD_PIN");
        Console console = System.console();
        if (pin != null && !pin.isEmpty()) {
            if (hasFromEnvironment != null) {
                return "-SMARTCARD_PIN is sent once, and was to " + hasFromEnvironment;
            }
            hasFromEnvironment = token;
        } else if (console == null) {
            return "-SMARTCARD_PIN is not set, and there is no console to ask at";
        } else {
            char[] entered = console.readPassword("PIN of %s, or nothing to do without: ", token);
            if (entered == null || entered.length == 0) {
                return "-no PIN was entered";
            }
            pin = new String(entered);
        }
        // Others end the line to the worker, reach the module in another form than UTF-8, or stand for what the
        // locale's character set does not have.
        if (pin.chars().anyMatch(c -> c < ' ' || Character.isSurrogate((char) c) || c == '\uFFFD')) {
            return "-the PIN has a character that cannot be sent";
        }
        last = token.replace(Token.FINAL_TRY, "") + '\n' + pin;
        return REFUSED.contains(last) ? "-this PIN was refused before" : '+' + pin;
    }

    /** The token has refused the last answer. */
    static void refused() {
        REFUSED.add(last);
    }
}
