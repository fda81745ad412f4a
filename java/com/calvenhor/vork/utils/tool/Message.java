package com.calvenhor.vork.utils.tool;

import java.nio.charset.StandardCharsets;

/**
 * A message from the worker to the first JVM: a line on the worker's standard error. The module may write there too; a
 * mark distinguishes messages from its output.
 */
record Message(Kind kind, String text) {
    enum Kind {
        STEP, // the name of the step that begins: a crash or hang message quotes it
        ALIVE, // a call has returned: the time limit starts again
        LINE, // a line of the report
        PROBLEM, // why the module cannot be used
        PIN, // Worker.askPin needs the PIN of this token
        PIN_PAD, // the user must enter the PIN at this token's PIN pad
        PIN_REFUSED, // the token has refused the last PIN
        WRITES, // from now on the worker may leave objects on the token
        CLEAN, // the worker has deleted all objects that it wrote
        END // the exit status
    }

    private static final char MARK = 1;

    /** Writes in one piece, so that output of other threads cannot split it, and without control characters. */
    static void send(Kind kind, String text) {
        byte[] line = (MARK + kind.name() + ' ' + text.replaceAll("\\p{Cc}", " ") + '\n')
                .getBytes(StandardCharsets.UTF_8);
        System.err.write(line, 0, line.length);
        System.err.flush();
    }

    /** {@return the message at the end of a line, which may follow output of the module; null if there is none} */
    static Message parse(String line) {
        int start = line.lastIndexOf(MARK) + 1; // the module may write the mark too; a message has only one
        for (Kind kind : Kind.values()) {
            if (start > 0 && line.startsWith(kind + " ", start)) {
                return new Message(kind, line.substring(start + kind.name().length() + 1));
            }
        }
        return null;
    }
}
