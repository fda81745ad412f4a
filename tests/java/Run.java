import org.junit.platform.console.ConsoleLauncher;

/** JUnit with its report on standard error. */
final class Run {
    public static void main(String[] arguments) {
        System.setOut(System.err);
        ConsoleLauncher.main(arguments);
    }
}
