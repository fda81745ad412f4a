package com.calvenhor.vork.utils.tool;

import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Deque;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

/** A command line: the command and its options. An option without a value maps to an empty string. */
record Options(String command, Map<String, String> values) {
    private static final List<String> OPTIONS = List.of("--module", "--slot", "--no-pin", "--timeout");
    private static final List<String> OPTIONS_OF_CHECK = List.of("--write", "--remove", "--traces");
    private static final List<String> WITHOUT_VALUE = List.of("--no-pin", "--write", "--remove");

    /** @throws IllegalArgumentException if the command line is invalid; the message says why */
    static Options parse(String... arguments) {
        Deque<String> left = new ArrayDeque<>(List.of(arguments));
        String command = left.isEmpty() ? "" : left.remove();
        boolean isCheck = command.equals("check");
        require(!command.isEmpty(), "the command is missing: show or check");
        require(isCheck || command.equals("show"), "the command must be show or check, not \"" + command + '"');
        Map<String, String> values = new LinkedHashMap<>();
        while (!left.isEmpty()) {
            String option = left.remove();
            require(OPTIONS.contains(option) || isCheck && OPTIONS_OF_CHECK.contains(option),
                    command + " has no option " + option);
            boolean hasValue = !WITHOUT_VALUE.contains(option);
            require(!hasValue || !left.isEmpty(), option + " needs a value");
            values.put(option, hasValue ? left.remove() : "");
        }
        require(values.getOrDefault("--slot", "0").matches("\\d{1,9}"), "--slot needs a slot index from 0");
        require(values.getOrDefault("--timeout", "1").matches("[1-9]\\d{0,5}"),
                "--timeout needs a number of seconds from 1 to 999999");
        require(!isCheck || values.containsKey("--module"), "check needs --module PATH");
        return new Options(command, values);
    }

    private static void require(boolean condition, String message) {
        if (!condition) {
            throw new IllegalArgumentException(message);
        }
    }

    Options withModule(String module) {
        Map<String, String> copy = new LinkedHashMap<>(values);
        copy.put("--module", module);
        return new Options(command, copy);
    }

    boolean has(String option) {
        return values.containsKey(option);
    }

    String module() {
        return values.get("--module");
    }

    /** {@return the slot index; -1 if the command line has none} */
    long slot() {
        return Long.parseLong(values.getOrDefault("--slot", "-1"));
    }

    int timeout() {
        return Integer.parseInt(values.getOrDefault("--timeout", "60"));
    }

    /** {@return the arguments from which {@link #parse} makes these options} */
    List<String> arguments() {
        List<String> arguments = new ArrayList<>(List.of(command));
        values.forEach((option, value) -> arguments.addAll(
                WITHOUT_VALUE.contains(option) ? List.of(option) : List.of(option, value)));
        return arguments;
    }
}
