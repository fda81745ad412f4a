package com.calvenhor.vork.utils.tool;

import com.calvenhor.vork.utils.Smartcard;
import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;

/**
 * The second virtual machine, which calls the module: it may crash or hang, and its standard output belongs to the
 * library's traces. It ends with the first one.
 */
final class Worker {
    private static final BlockingQueue<String> ANSWERS = new LinkedBlockingQueue<>();

    private Worker() {
    }

    /** @param arguments those of {@link Options}, with a module */
    public static void main(String[] arguments) {
        Thread listener = new Thread(Worker::listen);
        listener.setDaemon(true);
        listener.start();
        Options options = Options.parse(arguments);
        int status = Main.FAILED;
        try {
            status = options.command().equals("show") ? Show.run(options) : Check.run(options);
        } catch (Token.Failure e) {
            Message.send(Message.Kind.PROBLEM, e.getMessage());
            Smartcard.finalizeDLL();
        } catch (Exception | Error e) { // such as an UnsatisfiedLinkError, which says what was tried
            Message.send(Message.Kind.PROBLEM, e.toString());
        }
        Message.send(Message.Kind.END, String.valueOf(status));
    }

    private static void listen() {
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in, StandardCharsets.UTF_8));
        try {
            for (String answer = in.readLine(); answer != null; answer = in.readLine()) {
                ANSWERS.add(answer);
            }
            // The first one is gone. An exit would run the module's handlers, which may wait for a call that hangs.
            new ProcessBuilder("sh", "-c", "kill -KILL " + ProcessHandle.current().pid()).start().waitFor();
        } catch (IOException | InterruptedException e) {
            Runtime.getRuntime().halt(Main.FAILED);
        }
    }

    static void step(String what) {
        Message.send(Message.Kind.STEP, what);
    }

    static void tell(String line) {
        Message.send(Message.Kind.LINE, line);
    }

    /**
     * {@return "+" and the PIN, or "-" and the reason why there is none}
     *
     * @param token what the user knows the token by
     */
    static String askPin(String token) {
        Message.send(Message.Kind.PIN, token);
        try {
            return ANSWERS.take();
        } catch (InterruptedException e) {
            throw new IllegalStateException(e); // nobody does that here
        }
    }
}
