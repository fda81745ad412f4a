package com.calvenhor.vork.utils.tool;

import java.io.IOException;
import java.nio.file.Path;
import java.util.Set;

/** The command of the jar: asks a card, from a second virtual machine that the card's module may crash. */
public final class Main {
    static final int FAILED = 1;
    static final int USAGE_ERROR = 2;
    // No compiler's, no shell's and no virtual machine's.
    static final int MISFIT = 10;
    static final int CRASHED = 11;
    static final int NO_ANSWER = 12;

    private static final String USAGE = """
            java -jar JAR show  [--module PATH] [--slot N] [--no-pin] [--timeout SECONDS]
            java -jar JAR check --module PATH [--slot N] [--no-pin] [--timeout SECONDS] [--write] [--remove]
                                [--traces FILE]
            java -jar JAR --version | --help

            show prints slots, tokens, certificates and keys. check asks a module for what the library can do with it,
            and prints what worked, what the module refused and by which code, and which results contradict each other.
            Both read only; check also signs a sentence with each key that it sees.
              --module PATH      the PKCS#11 module of the card's vendor; without it show asks each module that this
                                 system knows of: those of p11-kit's files, SoftHSM2 and OpenSC
              --slot N           the slot index, from 0; without it show takes all, check the first with a token
              --no-pin           do not log in: only public objects are seen
              --timeout SECONDS  how long a call may take, 60 by default
              --write            also generate, import, rename and delete keys and certificates, all labelled "Module
                                 check"; if the token is empty, also delete everything
              --remove           first delete what an earlier --write has left on the token
              --traces FILE      write the library's traces there

            The PIN comes from the environment variable SMARTCARD_PIN, which is sent once, to the first token that
            needs it; otherwise it is asked at the console. A token with a PIN pad asks for its PIN itself.

            Exit status: 0 all worked or was refused with a code; 1 the module could not be asked; 2 usage; 10 a result
            does not fit; 11 the module crashed; 12 the module did not answer in time.
            """;

    private Main() {
    }

    /** @param arguments see the usage */
    public static void main(String[] arguments) throws InterruptedException {
        System.setProperty("jdk.console", "java.base"); // with others there is a console without a terminal
        System.exit(run(arguments));
    }

    private static int run(String[] arguments) throws InterruptedException {
        switch (arguments.length == 1 ? arguments[0] : "") {
            case "-h", "--help" -> {
                System.out.print(USAGE);
                return 0;
            }
            case "--version" -> {
                Package information = Main.class.getPackage();
                System.out.println(information.getImplementationTitle() + ' ' + information.getImplementationVersion());
                return 0;
            }
            default -> {
            }
        }
        try {
            Options options = Options.parse(arguments);
            return options.module() == null ? showAll(options) : new Session(options, false).run();
        } catch (IllegalArgumentException e) {
            System.err.println(e.getMessage() + "\n\n" + USAGE);
            return USAGE_ERROR;
        } catch (IOException e) {
            System.err.println("a second virtual machine cannot be started: " + e.getMessage());
            return FAILED;
        }
    }

    /** {@return the worst of the exit statuses, where a module that cannot be asked counts only if all are such} */
    private static int showAll(Options options) throws IOException, InterruptedException {
        Set<Path> modules = Modules.known();
        if (modules.isEmpty()) {
            System.err.println("no module is known here: --module PATH names one");
            return FAILED;
        }
        int best = Integer.MAX_VALUE;
        int worst = 0;
        for (Path module : modules) {
            int status = new Session(options.withModule(module.toString()), true).run();
            System.out.println();
            best = Math.min(best, status);
            worst = Math.max(worst, status);
        }
        return worst == FAILED ? best : worst;
    }
}
