package com.calvenhor.vork.utils.tool;

import com.calvenhor.vork.utils.Smartcard;
import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;

/**
 * The second JVM, which calls the module. The module may crash or hang this JVM. Standard output is for the library's
 * traces, so all messages go to standard error. The worker ends when the first JVM ends.
 */
final class Worker {
    private static final BlockingQueue<String> REPLIES = new LinkedBlockingQueue<>();

    private Worker() {
    }

    /** @param arguments {@link Options#arguments}, with a module */
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
        } catch (Exception | Error e) { // such as an UnsatisfiedLinkError, whose message lists the paths tried
            Message.send(Message.Kind.PROBLEM, e.toString());
        }
        Message.send(Message.Kind.END, String.valueOf(status));
    }

    private static void listen() {
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in, StandardCharsets.UTF_8));
        try {
            for (String reply = in.readLine(); reply != null; reply = in.readLine()) {
                REPLIES.add(reply);
            }
            // The first JVM has ended. exit() would run the module's exit handlers, which may wait for a hanging call.
            new ProcessBuilder("sh", "-c", "kill -KILL " + ProcessHandle.current().pid()).start().waitFor();
        } catch (IOException | InterruptedException e) {
            Runtime.getRuntime().halt(Main.FAILED);
        }
    }

    static void beginStep(String name) {
        Message.send(Message.Kind.STEP, name);
    }

    static void print(String line) {
        Message.send(Message.Kind.LINE, line);
    }

    /**
     * {@return "+" and the PIN, or "-" and the reason why there is no PIN}
     *
     * @param token a description of the token, for the prompt
     */
    static String askPin(String token) {
        Message.send(Message.Kind.PIN, token);
        try {
            return REPLIES.take();
        } catch (InterruptedException e) {
            throw new IllegalStateException(e); // this thread is never interrupted
        }
    }
}
