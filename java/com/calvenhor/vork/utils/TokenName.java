package com.calvenhor.vork.utils;

import static com.calvenhor.vork.utils.SmartcardException.CRYPTOKI_ALREADY_INITIALIZED;
import static com.calvenhor.vork.utils.SmartcardException.CRYPTOKI_NOT_INITIALIZED;
import static com.calvenhor.vork.utils.SmartcardException.INSERT_OR_REBIND;
import static com.calvenhor.vork.utils.SmartcardException.SESSION_HANDLE_INVALID;
import static com.calvenhor.vork.utils.SmartcardException.TOKEN_NOT_PRESENT;

import java.io.IOException;
import java.net.URLDecoder;
import java.nio.charset.StandardCharsets;
import java.security.InvalidParameterException;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.TreeMap;
import java.util.stream.Collectors;
import java.util.stream.LongStream;

/**
 * The token that an argument of {@link SmartcardProvider#configure} names.
 *
 * @param module the path of the module; null for the bound module
 * @param index the slot index; {@link #ANY} to search all slots
 * @param label the token's label; null for any
 * @param serialNumber the token's serial number; null for any
 */
record TokenName(String module, long index, String label, String serialNumber) {
    private static final long ANY = -1;
    private static final long NO_SLOT = -1;
    private static final String SYNTAX = "expected MODULE, MODULE#SLOT or SLOT (the path of a PKCS#11 module, "
            + "a slot index from 0), or pkcs11:token=LABEL;serial=NUMBER?module-path=MODULE";

    static TokenName of(String argument) {
        if (argument.regionMatches(true, 0, "pkcs11:", 0, "pkcs11:".length())) {
            return ofUri(argument.substring("pkcs11:".length()));
        }
        int hash = argument.lastIndexOf('#');
        String last = argument.substring(hash + 1);
        boolean isSlot = last.matches("\\d{1,9}");
        if (argument.isEmpty() || hash == 0 || hash > 0 && !isSlot) {
            throw new InvalidParameterException(SYNTAX + ", not " + argument);
        }
        return new TokenName(isSlot ? hash < 0 ? null : argument.substring(0, hash) : argument,
                isSlot ? Long.parseLong(last) : ANY, null, null);
    }

    /**
     * Refuses each attribute that the native methods cannot compare: if it were ignored, another token could match.
     * Ignores manufacturer and model beside a label or a serial number, which identify the token without them.
     */
    private static TokenName ofUri(String uri) {
        String[] parts = uri.split("\\?", 2);
        Map<String, String> path = attributes(parts[0], ";");
        Map<String, String> query = attributes(parts.length < 2 ? "" : parts[1], "&");
        TokenName name = new TokenName(query.remove("module-path"), ANY, path.remove("token"), path.remove("serial"));
        if (name.label != null || name.serialNumber != null) {
            path.keySet().removeAll(Set.of("manufacturer", "model"));
        }
        path.putAll(query);
        if (!path.isEmpty()) {
            throw new InvalidParameterException("unsupported URI attributes: " + path.keySet() + "; " + SYNTAX);
        }
        return name;
    }

    private static Map<String, String> attributes(String text, String separator) {
        Map<String, String> attributes = new TreeMap<>();
        for (String attribute : text.isEmpty() ? new String[0] : text.split(separator, -1)) {
            String[] nameAndValue = attribute.split("=", 2);
            try {
                String value = URLDecoder.decode(nameAndValue[1].replace("+", "%2B"), StandardCharsets.UTF_8);
                if (attributes.put(nameAndValue[0], value) == null) {
                    continue;
                }
            } catch (ArrayIndexOutOfBoundsException | IllegalArgumentException e) {
                // Reported below, like an attribute that appears twice.
            }
            throw new InvalidParameterException("the URI attribute " + nameAndValue[0]
                    + " has no valid value or appears twice; " + SYNTAX);
        }
        return attributes;
    }

    /** Binds the module if none is bound; {@return the slot of the token} */
    SmartcardSlot find() throws IOException {
        synchronized (Smartcard.class) {
            bind();
            if (index != ANY) {
                return new SmartcardSlot(index);
            }
            List<SmartcardSlot> tokens = LongStream.range(0, Smartcard.getSlotCountDLL()).mapToObj(SmartcardSlot::new)
                    .filter(SmartcardSlot::mayHaveToken).toList();
            if (tokens.isEmpty()) {
                throw new SmartcardException("no initialised token in the slots of "
                        + (module == null ? "the bound module" : module), TOKEN_NOT_PRESENT, INSERT_OR_REBIND);
            }
            List<SmartcardSlot> found = tokens.stream().filter(slot -> slot.matches(label, serialNumber)).toList();
            if (found.size() != 1) {
                throw new IOException((found.isEmpty() ? "no token has"
                        + (label == null ? "" : " the label \"" + label + '"')
                        + (label == null || serialNumber == null ? "" : " and")
                        + (serialNumber == null ? "" : " the serial number " + serialNumber) + "; the tokens are: "
                        : "several tokens match; configure " + (module == null ? "SLOT" : module + "#SLOT")
                        + "; the tokens are: ")
                        + tokens.stream().map(SmartcardSlot::description).collect(Collectors.joining("; ")));
            }
            return found.get(0);
        }
    }

    private void bind() throws IOException {
        boolean isBound = Smartcard.getSessionInfoDLL(NO_SLOT)[0] != CRYPTOKI_NOT_INITIALIZED;
        if (module == null) {
            require(isBound, "no module is bound; call Smartcard.initDLL, or configure MODULE#SLOT");
            return;
        }
        long code = Smartcard.initDLL(module);
        require(code != -1, module + " cannot be loaded; if the file exists, `ldd " + module
                + "` shows which library is missing");
        require(code != -2, module + " is not a PKCS#11 module: it has no C_GetFunctionList");
        require(code != -3, module + " has no slot; connect the reader");
        if (!isBound) {
            SmartcardException.check(code, "initDLL of " + module,
                    code == CRYPTOKI_ALREADY_INITIALIZED
                    ? "; other code in this process has initialised the module" : "");
            return;
        }
        // initDLL may return 0x191 for the bound module and for any other, but calls only the bound one. If another is
        // bound, the last code is still the 0xB3 of getSessionInfoDLL above.
        require((Smartcard.readSlotDescriptionDLL(NO_SLOT)[0] & 0xFF) != SESSION_HANDLE_INVALID, "a module other than "
                + module + " is bound; call Smartcard.finalizeDLL first, or configure SLOT to use the bound module");
    }

    private static void require(boolean condition, String message) throws IOException {
        if (!condition) {
            throw new IOException(message);
        }
    }
}
