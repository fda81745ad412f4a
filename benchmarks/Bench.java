import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.PrintStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Random;
import java.util.TreeMap;
import java.util.function.Function;
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
    private static final int FIRST_SIGNATURE = 4; // beside those that Plain names

    /** A work on a token with a key and so many certificates. */
    private record Case(boolean cheap, int work, int certificates) {
        String title() {
            String on = cheap ? "" : ", SoftHSM2";
            return switch (work) {
                case FIRST_SIGNATURE -> "first signature of a process" + on;
                case Plain.QUERY -> NAMES[work];
                case Plain.LIST -> "%s, %,d of them%s".formatted(NAMES[work], certificates, on);
                default -> "%s, %,d objects%s".formatted(NAMES[work], certificates + 1, on);
            };
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
    private final TreeMap<String, String> jdks = new TreeMap<>();
    private final Map<Figure, double[]> figures = new HashMap<>();
    private final Random random = new Random(1);

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
            System.err.println("  " + each.title());
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
            if (certificates <= 10 * most) {
                cases.add(new Case(true, Plain.LIST, certificates));
            }
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
        Map<String, Machine> byLibrary = new HashMap<>();
        List<Machine> machines = new ArrayList<>();
        List<List<Figure>> groups = new ArrayList<>();
        Map<Figure, Contestant> contestants = new LinkedHashMap<>();
        for (String jdk : jdks.keySet()) {
            if (on.work == FIRST_SIGNATURE) {
                List<String> all = List.of("bare", "library", "SunPKCS11");
                groups.add(figures(on, jdk, all));
                all.forEach(who -> contestants.put(new Figure(on, jdk, who), times -> start(jdk, on, who)));
                continue;
            }
            for (List<String> able : List.of(together(on), threads(on), bySunPkcs11(on))) {
                if (!able.isEmpty()) {
                    String kind = able.contains("SunPKCS11") ? "SunPKCS11" : "library";
                    Machine machine = new Machine(jdk, on, kind, Integer.toString(on.work), "serve");
                    machines.add(machine);
                    byLibrary.putIfAbsent(jdk, machine);
                    groups.add(figures(on, jdk, able));
                    able.forEach(who -> contestants.put(new Figure(on, jdk, who), times -> machine.ask(who, times)));
                }
            }
        }

        Map<Figure, Long> times = new HashMap<>();
        for (var contestant : contestants.entrySet()) {
            // As often as fills the time of a sample, which warms up the just-in-time compiler as well.
            long often = 1;
            while (contestant.getValue().nanoseconds(often) < sample / 1.5 && on.work != FIRST_SIGNATURE) {
                often *= 2;
            }
            times.put(contestant.getKey(), often);
            figures.put(contestant.getKey(), new double[rounds]);
        }
        for (int round = 0; round < rounds; ++round) {
            // Who is compared stays together, but who comes after whom matters.
            Collections.shuffle(groups, random);
            for (List<Figure> group : groups) {
                Collections.shuffle(group, random);
                for (Figure turn : group) {
                    long often = times.get(turn);
                    figures.get(turn)[round] = contestants.get(turn).nanoseconds(often) / often;
                }
            }
        }
        if (on.work == Plain.LIST) {
            for (String jdk : jdks.keySet()) {
                figures.put(new Figure(on, jdk, "memory"), new double[] {byLibrary.get(jdk).ask("memory", 1)});
            }
        }
        machines.forEach(Machine::close);
    }

    private static List<Figure> figures(Case on, String jdk, List<String> contestants) {
        return new ArrayList<>(contestants.stream().map(who -> new Figure(on, jdk, who)).toList());
    }

    // Who measures a work, by the virtual machine that they share.

    private static List<String> together(Case on) {
        return on.work == Plain.QUERY ? List.of("C", "plain JNI", "library", "unlocked JNI")
                : List.of("C", "plain JNI", "library");
    }

    /** A lock that several threads have wanted costs more from then on: they get a virtual machine of their own. */
    private static List<String> threads(Case on) {
        return on.cheap && (on.work == Plain.QUERY || on.work == Plain.SIGN) ? List.of("threads") : List.of();
    }

    private static List<String> bySunPkcs11(Case on) {
        return switch (on.work) {
            case Plain.SIGN -> on.cheap ? List.of("SunPKCS11", "Signature kept") : List.of("SunPKCS11");
            case Plain.LIST -> List.of("SunPKCS11");
            default -> List.of(); // it has no such query, and finds a key by its alias once
        };
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

    /** The median of the rounds' differences. */
    private double later(Case on, String jdk, String who, String other) {
        double[] one = samples(on, jdk, who);
        double[] two = samples(on, jdk, other);
        return median(IntStream.range(0, one.length).mapToDouble(i -> one[i] - two[i]).toArray());
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
                        jdk -> later(first, jdk, "library", "bare") / 1e6),
                new Target("10,000 certificates: times of 1,000", 11, "%.1f",
                        jdk -> time(tenThousand, jdk, "library") / time(thousand, jdk, "library")),
                new Target("10,000 certificates: memory of 1,000", 11, "%.1f",
                        jdk -> time(tenThousand, jdk, "memory") / time(thousand, jdk, "memory")));
    }

    private void writeReport() throws IOException {
        StringBuilder out = new StringBuilder();
        appendTimes(out);
        appendTargets(out);
        appendBeside(out);
        System.out.print(out);
        Files.writeString(report.resolve("table.md"), out);
        Files.writeString(report.resolve("growth.dat"), growth());
    }

    private void appendTimes(StringBuilder out) {
        row(out, "work", "JDK", "C", "plain JNI", "library", "SunPKCS11", "library / C", "/ plain JNI", "/ SunPKCS11");
        out.append("|---".repeat(9)).append("|\n");
        for (Case each : cases()) {
            for (String jdk : jdks.keySet()) {
                List<String> cells = new ArrayList<>(List.of(each.title(), jdk));
                for (String who : List.of("C", "plain JNI", "library", "SunPKCS11")) {
                    cells.add(unit(time(each, jdk, who)));
                }
                for (String who : List.of("C", "plain JNI", "SunPKCS11")) {
                    cells.add(number("%.2f", ratio(each, jdk, "library", who)));
                }
                row(out, cells.toArray(String[]::new));
            }
        }
    }

    private void appendTargets(StringBuilder out) {
        out.append("\n");
        row(out, "target", "limit", String.join(" | | ", jdks.keySet().stream().map(jdk -> "JDK " + jdk).toList()), "");
        out.append("|---".repeat(2 + 2 * jdks.size())).append("|\n");
        for (Target target : targets()) {
            List<String> cells = new ArrayList<>(List.of(target.text, number(target.format, target.limit)));
            for (String jdk : jdks.keySet()) {
                double figure = target.figure.applyAsDouble(jdk);
                cells.add(number(target.format, figure));
                cells.add(Double.isNaN(figure) ? "not measured" : figure <= target.limit ? "holds" : "**missed**");
            }
            row(out, cells.toArray(String[]::new));
        }
    }

    /** What has no target of its own. */
    private void appendBeside(StringBuilder out) {
        Case sign = new Case(true, Plain.SIGN, 1);
        Case query = new Case(true, Plain.QUERY, 1);
        Case most = new Case(true, Plain.LIST, 10_000);
        Case first = new Case(false, FIRST_SIGNATURE, 1);
        out.append("\n");
        row(out, "beside", String.join(" | ", jdks.keySet().stream().map(jdk -> "JDK " + jdk).toList()));
        out.append("|---".repeat(1 + jdks.size())).append("|\n");
        row(out, "plain JNI for getSlotInfoDLL, without the lock", jdk -> unit(time(query, jdk, "unlocked JNI")));
        row(out, "getSlotInfoDLL from %d threads at once, one call every".formatted(Worker.THREADS),
                jdk -> unit(time(query, jdk, "threads")));
        row(out, "signDLL from %d threads at once, one call every".formatted(Worker.THREADS),
                jdk -> unit(time(sign, jdk, "threads")));
        row(out, "signing by SunPKCS11, Signature kept", jdk -> unit(time(sign, jdk, "Signature kept")));
        row(out, "bare virtual machine, to its line", jdk -> unit(time(first, jdk, "bare")));
        row(out, "memory for 10,000 certificates, the result included",
                jdk -> number("%.1f MB", time(most, jdk, "memory") / 1e6));
    }

    private void row(StringBuilder out, String title, Function<String, String> cell) {
        row(out, title, String.join(" | ", jdks.keySet().stream().map(cell).toList()));
    }

    private static void row(StringBuilder out, String... cells) {
        out.append("| ").append(String.join(" | ", cells)).append(" |\n");
    }

    private static String number(String format, double value) {
        return Double.isNaN(value) ? "" : format.formatted(value);
    }

    private static String unit(double nanoseconds) {
        int power = nanoseconds < 1e3 ? 0 : nanoseconds < 1e6 ? 1 : nanoseconds < 1e9 ? 2 : 3;
        double value = nanoseconds / Math.pow(1e3, power);
        return number(value < 10 ? "%.2f " : value < 100 ? "%.1f " : "%.0f ", value)
                + (Double.isNaN(value) ? "" : List.of("ns", "us", "ms", "s").get(power));
    }

    /** For the picture: milliseconds on SoftHSM2 by the first JDK, listing and then signing. */
    private String growth() {
        StringBuilder out = new StringBuilder();
        for (int certificates = 1; certificates <= most; certificates *= 10) {
            out.append(certificates);
            for (int work : List.of(Plain.LIST, Plain.SIGN)) {
                for (String who : List.of("C", "library", "SunPKCS11")) {
                    double time = time(new Case(false, work, certificates), jdks.firstKey(), who);
                    out.append(' ').append(time / 1e6);
                }
            }
            out.append('\n');
        }
        return out.toString();
    }
}
