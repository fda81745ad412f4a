import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.PrintStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.function.ToDoubleFunction;
import java.util.stream.DoubleStream;
import java.util.stream.IntStream;
import java.util.stream.Stream;

/**
 * Measures the library beside plain C, plain JNI functions and the JDK's SunPKCS11, in turn within each round, and says
 * which targets hold. Arguments: rounds, milliseconds of one measurement, the most certificates on a token, the folder
 * for the report and one for what is temporary, the modules (the cheap one, SoftHSM2), then the homes of the JDKs.
 */
final class Bench {
    private static final String[] NAMES = {"signDLL", "signWithIDDLL", "readAllCertificatesDLL", "getSlotInfoDLL"};
    private static final int FIRST_SIGNATURE = NAMES.length;
    private static final List<String> COLUMNS = List.of("C", "plain JNI", "library", "SunPKCS11");

    /** A work on a token with a key and so many certificates. */
    private record Case(boolean cheap, int work, int certificates) {
        String title() {
            String subject = switch (work) {
                case Plain.LIST -> ", %,d certificates".formatted(certificates);
                case Plain.QUERY -> "";
                default -> ", %,d objects".formatted(certificates + 1);
            };
            return work == FIRST_SIGNATURE ? "first signature of a process" : NAMES[work] + subject;
        }
    }

    private record Figure(Case measured, String jdk, String contestant) {
    }

    /** Something that repeats a work, and says how long that took. */
    private interface Contestant {
        double nanoseconds(long times) throws IOException;
    }

    private record Target(String text, double limit, String format, ToDoubleFunction<String> figure) {
    }

    private final int rounds;
    private final double sample;
    private final int most;
    private final Path report;
    private final Path temporary;
    private final String[] modules;
    private final Map<String, String> jdks = new java.util.TreeMap<>();
    private final Map<Figure, double[]> figures = new HashMap<>();

    private Bench(String[] arguments) throws IOException {
        rounds = Integer.parseInt(arguments[0]);
        sample = 1e6 * Double.parseDouble(arguments[1]);
        most = Integer.parseInt(arguments[2]);
        report = Path.of(arguments[3]);
        temporary = Path.of(arguments[4]);
        modules = new String[] {arguments[5], arguments[6]};
        for (String home : Arrays.copyOfRange(arguments, 7, arguments.length)) {
            String release = Files.readString(Path.of(home, "release"));
            jdks.put(release.replaceAll("(?s).*JAVA_VERSION=\"(\\d+).*", "$1"), home);
        }
    }

    public static void main(String[] arguments) throws IOException {
        Locale.setDefault(Locale.ROOT);
        Bench bench = new Bench(arguments);
        for (int certificates = 1; certificates <= bench.most; certificates *= 10) {
            bench.fill(certificates);
        }
        for (Case each : bench.cases()) {
            System.err.printf("  %s%s%n", each.title(), each.cheap ? "" : " on SoftHSM2");
            bench.measure(each);
        }
        bench.writeReport();
    }

    private List<Case> cases() {
        List<Case> cases = new ArrayList<>();
        cases.add(new Case(true, Plain.SIGN, 1));
        cases.add(new Case(true, Plain.SIGN_WITH_ID, 1));
        cases.add(new Case(true, Plain.QUERY, 1));
        for (int certificates : List.of(10, 1000, 10_000)) {
            cases.add(new Case(true, Plain.LIST, certificates));
        }
        for (int work : List.of(Plain.SIGN, Plain.LIST)) {
            for (int certificates = 1; certificates <= most; certificates *= 10) {
                cases.add(new Case(false, work, certificates));
            }
        }
        cases.add(new Case(false, FIRST_SIGNATURE, 1));
        return cases;
    }

    // ---- Measuring ----

    /** A virtual machine that works. */
    private final class Machine implements AutoCloseable {
        private final Process process;
        private final BufferedReader answers;
        private final PrintStream orders;

        /** Ready when it has done its work once. */
        Machine(String jdk, Case on, String... arguments) throws IOException {
            List<String> command = new ArrayList<>(List.of(jdks.get(jdk) + "/bin/java"));
            if (on.work != FIRST_SIGNATURE) {
                // A heap that is there from the start: neither its growth nor who collects it is the subject.
                command.addAll(List.of("-XX:+UseSerialGC", "-Xms256m", "-Xmx256m", "-XX:+AlwaysPreTouch"));
            }
            if (Integer.parseInt(jdk) >= 24) {
                command.add("--enable-native-access=ALL-UNNAMED");
            }
            command.addAll(List.of("-Djava.library.path=" + System.getProperty("java.library.path"), "-cp",
                    System.getProperty("java.class.path"), "Worker", modules[on.cheap ? 0 : 1]));
            command.addAll(List.of(arguments));
            ProcessBuilder builder = new ProcessBuilder(command).redirectOutput(ProcessBuilder.Redirect.DISCARD);
            builder.environment().put("BENCH_CERTIFICATES", Integer.toString(on.certificates));
            builder.environment().put("SOFTHSM2_CONF", tokens(on.certificates) + ".conf");
            process = builder.start();
            answers = new BufferedReader(new InputStreamReader(process.getErrorStream()));
            orders = new PrintStream(process.getOutputStream(), true);
            answer();
        }

        private String answer() throws IOException {
            String line = answers.readLine();
            if (line == null || !line.matches("\\d+|ready")) {
                throw new IOException("a worker failed: " + line + "\n" + String.join("\n", answers.lines().toList()));
            }
            return line;
        }

        double ask(String what, long times) throws IOException {
            orders.println(times + " " + what);
            return Double.parseDouble(answer());
        }

        @Override
        public void close() {
            process.destroy();
        }
    }

    private Path tokens(int certificates) {
        return temporary.resolve("tokens-" + certificates);
    }

    /** Makes a token of SoftHSM2. */
    private void fill(int certificates) throws IOException {
        Path folder = Files.createDirectory(tokens(certificates));
        Files.writeString(Path.of(folder + ".conf"), "directories.tokendir = " + folder + "\nlog.level = ERROR\n");
        String jdk = jdks.keySet().iterator().next();
        new Machine(jdk, new Case(false, Plain.SIGN, certificates), "fill", Integer.toString(certificates)).close();
    }

    private void measure(Case on) throws IOException {
        List<Machine> machines = new ArrayList<>();
        Map<Figure, Contestant> contestants = new java.util.LinkedHashMap<>();
        for (String jdk : jdks.keySet()) {
            List<String> bySunPkcs11 = switch (on.work) {
                case Plain.SIGN -> List.of("SunPKCS11", "Signature kept");
                case Plain.LIST -> List.of("SunPKCS11");
                default -> List.of();
            };
            List<String> byLibrary = on.work == Plain.QUERY
                    ? List.of("C", "plain JNI", "library", "synchronized JNI", "library, threads")
                    : List.of("C", "plain JNI", "library");
            if (on.work == FIRST_SIGNATURE) {
                for (String who : List.of("bare", "library", "SunPKCS11")) {
                    contestants.put(new Figure(on, jdk, who), times -> start(jdk, on, who));
                }
                continue;
            }
            for (List<String> together : List.of(byLibrary, bySunPkcs11)) {
                if (together.isEmpty()) {
                    continue;
                }
                String kind = together == byLibrary ? "library" : "SunPKCS11";
                Machine machine = new Machine(jdk, on, kind, Integer.toString(on.work), "serve");
                machines.add(machine);
                together.forEach(who -> contestants.put(new Figure(on, jdk, who), times -> machine.ask(who, times)));
            }
        }

        // As often as fills the time of a measurement; that warms up the just-in-time compiler as well.
        Map<Figure, Long> times = new HashMap<>();
        for (var contestant : contestants.entrySet()) {
            long enough = 1;
            while (on.work != FIRST_SIGNATURE && contestant.getValue().nanoseconds(enough) < sample / 1.5) {
                enough *= 2;
            }
            times.put(contestant.getKey(), enough);
            figures.put(contestant.getKey(), new double[rounds]);
        }
        for (int round = 0; round < rounds; ++round) {
            for (var contestant : contestants.entrySet()) {
                long often = times.get(contestant.getKey());
                figures.get(contestant.getKey())[round] = contestant.getValue().nanoseconds(often) / often;
            }
        }
        if (on.work == Plain.LIST && on.cheap) {
            int which = 0;
            for (String jdk : jdks.keySet()) {
                double bytes = machines.get(2 * which++).ask("memory", 1);
                figures.put(new Figure(on, jdk, "memory"), new double[] {bytes});
            }
        }
        machines.forEach(Machine::close);
    }

    /** How long a new process takes to its first signature, or to its only line. */
    private double start(String jdk, Case on, String who) throws IOException {
        long start = System.nanoTime();
        new Machine(jdk, on, who, Integer.toString(Plain.SIGN)).close();
        return System.nanoTime() - start;
    }

    // ---- Reporting ----

    /** The median; NaN for what was not measured. */
    private static double median(double[] values) {
        double[] sorted = values.clone();
        Arrays.sort(sorted);
        int middle = sorted.length / 2;
        return sorted.length == 0 ? Double.NaN
                : sorted.length % 2 == 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
    }

    private double[] samples(Case on, String jdk, String who) {
        return figures.getOrDefault(new Figure(on, jdk, who), new double[0]);
    }

    private double time(Case on, String jdk, String who) {
        return median(samples(on, jdk, who));
    }

    /** The median of the rounds' ratios: what disturbs a round disturbs both halves of its ratio. */
    private double ratio(Case on, String jdk, String who, String other) {
        double[] one = samples(on, jdk, who);
        double[] two = samples(on, jdk, other);
        int pairs = Math.min(one.length, two.length);
        return median(IntStream.range(0, pairs).mapToDouble(i -> one[i] / two[i]).toArray());
    }

    /** What is left of a time without the module's. */
    private double own(Case on, String jdk, String who) {
        return time(on, jdk, who) - time(on, jdk, "C");
    }

    private static double worst(DoubleStream ratios) {
        return ratios.reduce(0, Math::max);
    }

    private List<Target> targets() {
        Case sign = new Case(true, Plain.SIGN, 1);
        Case signWithId = new Case(true, Plain.SIGN_WITH_ID, 1);
        Case query = new Case(true, Plain.QUERY, 1);
        Case ten = new Case(true, Plain.LIST, 10);
        Case thousand = new Case(true, Plain.LIST, 1000);
        Case tenThousand = new Case(true, Plain.LIST, 10_000);
        Case first = new Case(false, FIRST_SIGNATURE, 1);
        return List.of(
                new Target("signDLL, own cost: of SunPKCS11's", 0.8, "%.2f",
                        jdk -> own(sign, jdk, "library") / own(sign, jdk, "SunPKCS11")),
                new Target("signWithIDDLL, own cost", 4, "%.2f us", jdk -> own(signWithId, jdk, "library") / 1e3),
                new Target("10 certificates, own cost: of SunPKCS11's", 0.4, "%.2f",
                        jdk -> own(ten, jdk, "library") / own(ten, jdk, "SunPKCS11")),
                new Target("getSlotInfoDLL", 60, "%.0f ns", jdk -> time(query, jdk, "library")),
                new Target("the four: of plain JNI, at worst", 1.2, "%.2f", jdk -> worst(
                        Stream.of(sign, signWithId, ten, query).mapToDouble(
                                each -> ratio(each, jdk, "library", "plain JNI")))),
                new Target("signing on SoftHSM2, 2 to 1,001 objects: of C, at worst", 1.03, "%.3f", jdk -> worst(
                        IntStream.of(1, 10, 100, 1000).mapToDouble(
                                n -> ratio(new Case(false, Plain.SIGN, n), jdk, "library", "C")))),
                new Target("listing on SoftHSM2, 10 to 1,000 certificates: of C, at worst", 1.08, "%.3f", jdk -> worst(
                        IntStream.of(10, 100, 1000).mapToDouble(
                                n -> ratio(new Case(false, Plain.LIST, n), jdk, "library", "C")))),
                new Target("the same: of SunPKCS11, at worst", 1 / 3.0, "%.3f", jdk -> worst(
                        IntStream.of(10, 100, 1000).mapToDouble(
                                n -> ratio(new Case(false, Plain.LIST, n), jdk, "library", "SunPKCS11")))),
                new Target("first signature after a bare virtual machine's line", 25, "%.0f ms",
                        jdk -> (time(first, jdk, "library") - time(first, jdk, "bare")) / 1e6),
                new Target("10,000 certificates: times of 1,000", 11, "%.1f",
                        jdk -> time(tenThousand, jdk, "library") / time(thousand, jdk, "library")),
                new Target("10,000 certificates: memory of 1,000", 11, "%.1f",
                        jdk -> time(tenThousand, jdk, "memory") / time(thousand, jdk, "memory")));
    }

    private static String unit(double nanoseconds) {
        int power = nanoseconds < 1e3 ? 0 : nanoseconds < 1e6 ? 1 : nanoseconds < 1e9 ? 2 : 3;
        double value = nanoseconds / Math.pow(1e3, power);
        String format = value < 10 && power > 0 ? "%.2f %s" : value < 100 ? "%.1f %s" : "%.0f %s";
        return Double.isNaN(value) ? "" : format.formatted(value, List.of("ns", "us", "ms", "s").get(power));
    }

    private void writeReport() throws IOException {
        StringBuilder table = new StringBuilder("| work | JDK | C | plain JNI | library | SunPKCS11 | library / C |"
                + " / plain JNI | / SunPKCS11 |\n|---|---|---|---|---|---|---|---|---|\n");
        for (Case each : cases()) {
            for (String jdk : jdks.keySet()) {
                table.append("| %s%s | %s |".formatted(each.title(), each.cheap ? "" : ", SoftHSM2", jdk));
                for (String who : COLUMNS) {
                    table.append(" %s |".formatted(unit(time(each, jdk, who))));
                }
                for (String who : List.of("C", "plain JNI", "SunPKCS11")) {
                    double ratio = ratio(each, jdk, "library", who);
                    table.append(Double.isNaN(ratio) ? " |" : " %.3g |".formatted(ratio));
                }
                table.append("\n");
            }
        }
        table.append("\n| target | limit |");
        jdks.keySet().forEach(jdk -> table.append(" JDK %s | |".formatted(jdk)));
        table.append("\n|---|---|" + "---|---|".repeat(jdks.size()) + "\n");
        for (Target target : targets()) {
            table.append("| %s | %s |".formatted(target.text, target.format.formatted(target.limit)));
            for (String jdk : jdks.keySet()) {
                double figure = target.figure.applyAsDouble(jdk);
                table.append(Double.isNaN(figure) ? " not measured | |" : " %s | %s |".formatted(
                        target.format.formatted(figure), figure <= target.limit ? "holds" : "**missed**"));
            }
            table.append("\n");
        }
        System.out.print(table);
        Files.writeString(report.resolve("table.md"), table);
    }
}
