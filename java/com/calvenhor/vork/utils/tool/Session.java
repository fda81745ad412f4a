package com.calvenhor.vork.utils.tool;

import java.io.BufferedReader;
import java.io.File;
import java.io.IOException;
import java.io.PrintStream;
import java.io.UncheckedIOException;
import java.net.URI;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Optional;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.TimeUnit;
import java.util.stream.Stream;

/** The worker as the first virtual machine sees it: it prints the report, and notices a crash and a hang. */
final class Session {
    private static final String START = "start the second virtual machine";
    private static final int LINES_OF_NOISE = 100;
    private static final List<Integer> BY_USER = List.of(129, 130, 143); // 128 and SIGHUP, SIGINT or SIGTERM

    private final Options options;
    private final boolean isOneOfMany;
    private final String jar = Path.of(URI.create(
            Main.class.getProtectionDomain().getCodeSource().getLocation().toString())).toString();
    private final BlockingQueue<Optional<Message>> messages = new LinkedBlockingQueue<>(); // an empty one is the end
    /** What else is on the worker's standard error: its first lines, since a module may write without end. */
    private final BlockingQueue<String> noise = new LinkedBlockingQueue<>(LINES_OF_NOISE);
    private final Process process;
    private final PrintStream answers;
    private String step = START;
    private int status = -1;
    private boolean hasPin; // the worker
    private volatile boolean mayLeaveObjects;
    private volatile boolean isEnding;

    /**
     * Starts the worker.
     *
     * @param isOneOfMany whether other modules are asked as well: then it belongs to the report what is wrong with one
     */
    Session(Options options, boolean isOneOfMany) throws IOException {
        this.options = options;
        this.isOneOfMany = isOneOfMany;
        // A core dump would hold the PIN. The option is for a crash, the limit for a module that aborts.
        List<String> command = new ArrayList<>(List.of("sh", "-c", "ulimit -c 0; exec \"$@\"", "sh",
                System.getProperty("java.home") + "/bin/java", "--enable-native-access=ALL-UNNAMED",
                "-XX:-CreateCoredumpOnCrash"));
        for (String property : List.of("java.io.tmpdir", "java.library.path", "smartcard.library")) {
            if (System.getProperty(property) != null) {
                command.add("-D" + property + '=' + System.getProperty(property));
            }
        }
        command.addAll(List.of("-cp", jar, Worker.class.getName()));
        command.addAll(options.arguments());
        ProcessBuilder builder = new ProcessBuilder(command);
        builder.environment().remove("SMARTCARD_PIN");
        builder.redirectOutput(options.has("--traces")
                ? ProcessBuilder.Redirect.to(new File(options.values().get("--traces")))
                : ProcessBuilder.Redirect.DISCARD);
        process = builder.start();
        answers = new PrintStream(process.getOutputStream(), true, StandardCharsets.UTF_8);
        Runtime.getRuntime().addShutdownHook(new Thread(this::end));
        Thread reader = new Thread(this::read);
        reader.setDaemon(true);
        reader.start();
        // A process that the module has started may hold the other end open.
        process.onExit().thenRunAsync(() -> messages.add(Optional.empty()),
                CompletableFuture.delayedExecutor(2, TimeUnit.SECONDS));
    }

    private void read() {
        try (BufferedReader reader = process.errorReader(StandardCharsets.UTF_8)) {
            reader.lines().forEach(line -> {
                Optional<Message> message = Optional.ofNullable(Message.in(line));
                if (message.isPresent()) {
                    messages.add(message);
                } else {
                    noise.offer(line);
                }
            });
        } catch (IOException | UncheckedIOException e) {
            // an end as well
        }
        messages.add(Optional.empty());
    }

    /** {@return the exit status} */
    int run() throws InterruptedException {
        System.out.println(options.module());
        long end = endOfPatience();
        Optional<Message> next;
        while ((next = messages.poll(end - System.nanoTime(), TimeUnit.NANOSECONDS)) != null && next.isPresent()) {
            receive(next.get());
            end = endOfPatience();
        }
        if (next != null && process.waitFor(options.timeout(), TimeUnit.SECONDS)) {
            return ended(process.exitValue());
        }
        kill();
        return failure(Main.NO_ANSWER, "no answer for " + options.timeout() + " s while: " + step);
    }

    private long endOfPatience() {
        return System.nanoTime() + TimeUnit.SECONDS.toNanos(options.timeout());
    }

    private void receive(Message message) {
        switch (message.kind()) {
            case STEP -> step = message.text();
            case ALIVE -> { }
            case LINE -> System.out.println(message.text());
            case PROBLEM -> complain(message.text());
            case PIN -> {
                String answer = Pins.answer(message.text());
                hasPin |= answer.startsWith("+");
                answers.println(answer);
            }
            case PIN_PAD -> {
                if (System.console() != null) {
                    System.console().printf("Enter the PIN of %s at its PIN pad.%n", message.text());
                }
            }
            case PIN_REFUSED -> Pins.refused();
            case WRITES -> mayLeaveObjects = true;
            case CLEAN -> mayLeaveObjects = false;
            case END -> {
                status = Integer.parseInt(message.text());
                step = "end the process";
            }
        }
    }

    private int ended(int code) {
        if (isEnding || BY_USER.contains(code)) {
            System.exit(code); // which waits, if that is under way
        }
        if (status >= 0 && code == 0) {
            return status == 0 ? 0 : failure(status, null);
        }
        if (step.equals(START)) {
            return failure(Main.FAILED, "the second virtual machine did not start, its exit status is " + code);
        }
        String report = Stream.of("", "/tmp").map(folder -> Path.of(folder, "hs_err_pid" + process.pid() + ".log"))
                .filter(Files::exists).findFirst().map(this::place)
                .orElse("there is no report, the exit status is " + code);
        return failure(Main.CRASHED, "the module crashed while: " + step + "; " + report);
    }

    /** The virtual machine reports what its registers point to: a crash in a login may show the PIN. */
    private String place(Path report) {
        report.toFile().setReadable(false, false);
        report.toFile().setReadable(true);
        return "the report" + (hasPin ? ", which may show the PIN," : "") + " is in " + report.toAbsolutePath();
    }

    private int failure(int status, String problem) {
        if (problem != null) {
            complain(problem);
        }
        if (!isOneOfMany || status != Main.FAILED) {
            noise.forEach(this::complain);
        }
        return status;
    }

    private void complain(String problem) {
        if (isOneOfMany) {
            System.out.println("  " + problem);
        } else {
            System.err.println(problem);
        }
    }

    private void kill() {
        process.descendants().forEach(ProcessHandle::destroyForcibly);
        process.destroyForcibly();
    }

    /** At the end of the first virtual machine, also by Ctrl-C. */
    private void end() {
        isEnding = true;
        kill();
        if (mayLeaveObjects) {
            complain("Objects labelled \"Module check\" may be left on the token. This deletes them:\n  java -jar '"
                    + jar + "' check --module '" + options.module() + "' --remove"
                    + (options.slot() >= 0 ? " --slot " + options.slot() : ""));
        }
    }
}
