package com.calvenhor.vork.utils.tool;

import java.nio.charset.StandardCharsets;

/**
 * What the worker tells the first virtual machine: a line on its standard error. The module may write there as well;
 * a mark tells the messages from that.
 */
record Message(Kind kind, String text) {
    enum Kind {
        STEP, // that begins: where a crash or a hang was
        ALIVE, // a call has returned
        LINE, // of the report
        PROBLEM, // why the module cannot be asked
        PIN, // of this token is needed: see Worker.askPin
        PIN_PAD, // of this token asks for the PIN
        PIN_REFUSED, // the one that was given last
        WRITES, // objects from now on
        CLEAN, // all that was written is deleted
        END // with this exit status
    }

    private static final char MARK = 1;

    /** In one piece, so that no other thread's line gets between; without what a terminal would obey. */
    static void send(Kind kind, String text) {
        byte[] line = (MARK + kind.name() + ' ' + text.replaceAll("\\p{Cc}", " ") + '\n')
                .getBytes(StandardCharsets.UTF_8);
        System.err.write(line, 0, line.length);
        System.err.flush();
    }

    /** The message that a line ends with; null if there is none. */
    static Message in(String line) {
        int start = line.lastIndexOf(MARK) + 1; // a module may write the mark as well, no message has a second one
        for (Kind kind : Kind.values()) {
            if (start > 0 && line.startsWith(kind + " ", start)) {
                return new Message(kind, line.substring(start + kind.name().length() + 1));
            }
        }
        return null;
    }
}
