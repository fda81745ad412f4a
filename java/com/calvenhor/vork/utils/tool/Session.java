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

/** Runs the {@link Worker} and prints its report. Detects a crash or a hang of the module. */
final class Session {
    private static final String START = "start the second JVM";
    private static final int KEPT_LINES = 100;
    private static final List<Integer> ENDED_BY_USER = List.of(129, 130, 143); // 128 + SIGHUP, SIGINT or SIGTERM

    private final Options options;
    private final boolean isOneOfMany;
    private final String jar = Path.of(URI.create(
            Main.class.getProtectionDomain().getCodeSource().getLocation().toString())).toString();
    private final BlockingQueue<Optional<Message>> messages = new LinkedBlockingQueue<>(); // empty: the end
    /** The first lines that the module itself wrote to standard error: a module may write without end. */
    private final BlockingQueue<String> moduleOutput = new LinkedBlockingQueue<>(KEPT_LINES);
    private final Process process;
    private final PrintStream replies;
    private String step = START;
    private int status = -1;
    private boolean workerHasPin;
    private volatile boolean mayLeaveObjects;
    private volatile boolean isEnding;

    /**
     * Starts the worker.
     *
     * @param isOneOfMany whether the command runs several modules: problems then go to standard output, in the report
     */
    Session(Options options, boolean isOneOfMany) throws IOException {
        this.options = options;
        this.isOneOfMany = isOneOfMany;
        // A core dump would contain the PIN. The JVM option prevents it after a crash, ulimit after an abort().
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
        replies = new PrintStream(process.getOutputStream(), true, StandardCharsets.UTF_8);
        Runtime.getRuntime().addShutdownHook(new Thread(this::shutDown));
        Thread reader = new Thread(this::read);
        reader.setDaemon(true);
        reader.start();
        // A child process of the module may keep the pipe open: the end of the worker counts as well.
        process.onExit().thenRunAsync(() -> messages.add(Optional.empty()),
                CompletableFuture.delayedExecutor(2, TimeUnit.SECONDS));
    }

    private void read() {
        try (BufferedReader reader = process.errorReader(StandardCharsets.UTF_8)) {
            reader.lines().forEach(line -> {
                Optional<Message> message = Optional.ofNullable(Message.parse(line));
                if (message.isPresent()) {
                    messages.add(message);
                } else {
                    moduleOutput.offer(line);
                }
            });
        } catch (IOException | UncheckedIOException e) {
            // treated like the end of the output
        }
        messages.add(Optional.empty());
    }

    /** {@return the exit status} */
    int run() throws InterruptedException {
        System.out.println(options.module());
        long deadline = newDeadline();
        Optional<Message> next;
        while ((next = messages.poll(deadline - System.nanoTime(), TimeUnit.NANOSECONDS)) != null && next.isPresent()) {
            receive(next.get());
            deadline = newDeadline();
        }
        if (next != null && process.waitFor(options.timeout(), TimeUnit.SECONDS)) {
            return finish(process.exitValue());
        }
        kill();
        return fail(Main.TIMED_OUT, "the module did not return within " + options.timeout() + " s, in step: " + step);
    }

    private long newDeadline() {
        return System.nanoTime() + TimeUnit.SECONDS.toNanos(options.timeout());
    }

    private void receive(Message message) {
        switch (message.kind()) {
            case STEP -> step = message.text();
            case ALIVE -> { }
            case LINE -> System.out.println(message.text());
            case PROBLEM -> printProblem(message.text());
            case PIN -> {
                String reply = Pins.request(message.text());
                workerHasPin |= reply.startsWith("+");
                replies.println(reply);
            }
            case PIN_PAD -> {
                if (System.console() != null) {
                    System.console().printf("Enter the PIN of %s at its PIN pad.%n", message.text());
                }
            }
            case PIN_REFUSED -> Pins.recordRefusal();
            case WRITES -> mayLeaveObjects = true;
            case CLEAN -> mayLeaveObjects = false;
            case END -> {
                status = Integer.parseInt(message.text());
                step = "exit the second JVM";
            }
        }
    }

    private int finish(int code) {
        if (isEnding || ENDED_BY_USER.contains(code)) {
            System.exit(code); // blocks if the shutdown has begun
        }
        if (status >= 0 && code == 0) {
            return status == 0 ? 0 : fail(status, null);
        }
        if (step.equals(START)) {
            return fail(Main.FAILED, "the second JVM did not start: exit status " + code);
        }
        String report = Stream.of("", "/tmp").map(folder -> Path.of(folder, "hs_err_pid" + process.pid() + ".log"))
                .filter(Files::exists).findFirst().map(this::describeReport)
                .orElse("no crash report was found; exit status " + code);
        return fail(Main.CRASHED, "the module crashed in step: " + step + "; " + report);
    }

    /** Makes the crash report unreadable for other users: it shows memory at addresses in registers, perhaps a PIN. */
    private String describeReport(Path report) {
        report.toFile().setReadable(false, false);
        report.toFile().setReadable(true);
        return "the crash report" + (workerHasPin ? ", which may show the PIN," : "") + " is in "
                + report.toAbsolutePath();
    }

    private int fail(int status, String problem) {
        if (problem != null) {
            printProblem(problem);
        }
        if (!isOneOfMany || status != Main.FAILED) {
            moduleOutput.forEach(this::printProblem);
        }
        return status;
    }

    private void printProblem(String problem) {
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

    /** Runs when the first JVM exits, including after Ctrl-C. */
    private void shutDown() {
        isEnding = true;
        kill();
        if (mayLeaveObjects) {
            printProblem("Objects labelled \"Module check\" may be left on the token. This command deletes them:\n"
                    + "  java -jar '" + jar + "' check --module '" + options.module() + "' --remove"
                    + (options.slot() >= 0 ? " --slot " + options.slot() : ""));
        }
    }
}
