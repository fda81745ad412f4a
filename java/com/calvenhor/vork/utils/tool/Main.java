package com.calvenhor.vork.utils.tool;

import java.io.IOException;
import java.nio.file.Path;
import java.util.Set;

/** The command of the jar. It calls the PKCS#11 module in a second JVM, which the module may crash. */
public final class Main {
    static final int FAILED = 1;
    static final int USAGE_ERROR = 2;
    // Distinct from the exit statuses of compilers, shells and the JVM.
    static final int INCONSISTENT = 10;
    static final int CRASHED = 11;
    static final int TIMED_OUT = 12;

    private static final String USAGE = """
            java -jar JAR show  [--module PATH] [--slot N] [--no-pin] [--timeout SECONDS]
            java -jar JAR check --module PATH [--slot N] [--no-pin] [--timeout SECONDS] [--write] [--remove]
                                [--traces FILE]
            java -jar JAR --version | --help

            show prints slots, tokens, certificates and keys. check tests what the library can do with a module: it
            reads the token, and signs a fixed text with each key that it finds. It prints which steps worked, which the
            module refused (with the code), and which results are inconsistent. Only --write and --remove change the
            token.
              --module PATH      the PKCS#11 module of the card's vendor; if omitted, show uses all modules that it
                                 finds: those in p11-kit's configuration, SoftHSM2 and OpenSC
              --slot N           the slot index, from 0; default: all slots for show, for check the first with a token
              --no-pin           do not log in: only public objects are visible
              --timeout SECONDS  the time limit for one call, 60 by default
              --write            also generate, import, rename and delete keys and certificates, with labels that begin
                                 with "Module check"; if the token was empty, also test the methods that delete all
                                 certificates and all objects
              --remove           first delete the objects that an earlier --write left on the token
              --traces FILE      write the library's traces to FILE

            The PIN comes from the environment variable SMARTCARD_PIN. It is sent only once, to the first token that
            needs a PIN; other tokens are read without a login. If it is not set, the command prompts at the console.
            The PIN of a token with a PIN pad is entered at the PIN pad.

            Exit status: 0 each step worked or was refused with a code; 1 the module did not load, has no slot, or
            refused a session or the PIN; 2 wrong usage; 10 a result is inconsistent; 11 the module crashed;
            12 the module did not return in time.
            """;

    private Main() {
    }

    /** @param arguments see the usage */
    public static void main(String[] arguments) throws InterruptedException {
        System.setProperty("jdk.console", "java.base"); // other providers return a console even without a terminal
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
            System.err.println("cannot start a second JVM: " + e.getMessage());
            return FAILED;
        }
    }

    /** {@return the highest exit status; FAILED counts only if every module failed} */
    private static int showAll(Options options) throws IOException, InterruptedException {
        Set<Path> modules = Modules.find();
        if (modules.isEmpty()) {
            System.err.println("no PKCS#11 module was found; name one with --module PATH");
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
