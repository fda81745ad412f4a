import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.PrintStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.HashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Random;
import java.util.TreeMap;

/**
 * Compares the speed of the library, plain C, plain JNI functions and the JDK's SunPKCS11, which take turns in each
 * round. Arguments: rounds, milliseconds of one measurement, largest number of certificates on a token, folder
 * for the report, folder for temporary files, cheap module, SoftHSM2, then the JDKs, each as "HOME VERSION".
 */
final class Bench {
    private static final List<String> IMPLEMENTATIONS = List.of("C", "plain JNI", "library", "SunPKCS11");

    /** An operation on a token with one key and a number of certificates. */
    private record Case(boolean cheap, int operation, int certificates) {
        String title() {
            String module = cheap ? "" : ", SoftHSM2";
            return switch (operation) {
                case Plain.SIGN -> "signDLL, %,d objects%s".formatted(certificates + 1, module);
                case Plain.SIGN_WITH_ID -> "signWithIDDLL, %,d objects%s".formatted(certificates + 1, module);
                case Plain.LIST -> "readAllCertificatesDLL, %,d certificates%s".formatted(certificates, module);
                case Plain.QUERY -> "getSlotInfoDLL" + module;
                case Worker.FIRST_SIGNATURE -> "first signature of a process" + module;
                default -> "memory of readAllCertificatesDLL, %,d certificates%s".formatted(certificates, module);
            };
        }

        boolean isRepeated() {
            return operation <= Plain.QUERY;
        }

        /** {@return the implementations, grouped by process} */
        List<List<String>> implementations() {
            List<String> together = isRepeated() ? List.of("C", "plain JNI", "library") : List.of("library");
            return cheap ? List.of(together) : List.of(together, List.of("SunPKCS11"));
        }
    }

    private record Figure(Case benchmark, String jdk, String implementation) {
    }

    private final int rounds;
    private final double sampleNanos;
    private final int maxCertificates;
    private final Path report;
    private final Path temporary;
    private final String[] modules;
    private final TreeMap<String, String> jdks = new TreeMap<>();
    /** The minimum of all rounds, because disturbances only add time. */
    private final Map<Figure, Double> figures = new HashMap<>();

    private Bench(String[] arguments) {
        rounds = Integer.parseInt(arguments[0]);
        sampleNanos = 1e6 * Double.parseDouble(arguments[1]);
        maxCertificates = Integer.parseInt(arguments[2]);
        report = Path.of(arguments[3]);
        temporary = Path.of(arguments[4]);
        modules = new String[] {arguments[5], arguments[6]};
        for (int i = 7; i < arguments.length; ++i) {
            String[] jdk = arguments[i].split(" ");
            jdks.putIfAbsent(jdk[1], jdk[0]);
        }
    }

    public static void main(String[] arguments) throws IOException {
        Locale.setDefault(Locale.ROOT);
        Bench bench = new Bench(arguments);
        for (int certificates = 1; certificates <= bench.maxCertificates; certificates *= 10) {
            bench.makeToken(certificates);
        }
        for (Case each : bench.cases()) {
            System.err.println("  " + each.title());
            bench.measure(each);
        }
        bench.writeReport();
    }

    private List<Case> cases() {
        List<Case> cases = new ArrayList<>();
        for (int operation : List.of(Plain.SIGN, Plain.SIGN_WITH_ID, Plain.QUERY)) {
            cases.add(new Case(true, operation, 1));
        }
        cases.add(new Case(true, Plain.LIST, 10));
        for (int operation : List.of(Plain.SIGN, Plain.LIST)) {
            for (int certificates = 1; certificates <= maxCertificates; certificates *= 10) {
                cases.add(new Case(false, operation, certificates));
            }
        }
        cases.add(new Case(false, Worker.FIRST_SIGNATURE, 1));
        cases.add(new Case(true, Worker.MEMORY, Math.min(10 * maxCertificates, 10_000)));
        return cases;
    }

    // ---- Measuring ----

    /** A worker process: one for all rounds if the operation is repeated, otherwise a new one for each measurement. */
    private final class WorkerProcess {
        final Case benchmark;
        final String jdk;
        final List<String> implementations;
        private final Map<String, Long> repetitions = new HashMap<>();
        private Process process;
        private BufferedReader results;
        private PrintStream commands;

        WorkerProcess(Case benchmark, String jdk, List<String> implementations) {
            this.benchmark = benchmark;
            this.jdk = jdk;
            this.implementations = new ArrayList<>(implementations);
        }

        private void start() throws IOException {
            // The heap has its full size from the start, so that its growth and garbage collection are not measured.
            ProcessBuilder builder = new ProcessBuilder(jdks.get(jdk) + "/bin/java", "-XX:+UseSerialGC", "-Xms256m",
                    "-Xmx256m", "-XX:+AlwaysPreTouch", "--enable-native-access=ALL-UNNAMED",
                    "-Djava.library.path=" + System.getProperty("java.library.path"),
                    "-cp", System.getProperty("java.class.path"), "Worker", modules[benchmark.cheap ? 0 : 1],
                    implementations.contains("SunPKCS11") ? "SunPKCS11" : "library",
                    Integer.toString(benchmark.operation));
            builder.environment().put("BENCH_CERTIFICATES", Integer.toString(benchmark.certificates));
            builder.environment().put("SOFTHSM2_CONF", token(benchmark.certificates) + ".conf");
            process = builder.redirectOutput(ProcessBuilder.Redirect.DISCARD).start();
            results = new BufferedReader(new InputStreamReader(process.getErrorStream()));
            commands = new PrintStream(process.getOutputStream(), true);
        }

        void stop() {
            process.destroyForcibly().onExit().join();
        }

        private double readResult() throws IOException {
            String line = results.readLine();
            if (line == null || !line.matches("\\d+")) {
                throw new IOException("a worker failed: " + line + "\n" + String.join("\n", results.lines().toList()));
            }
            return Double.parseDouble(line);
        }

        private double repeat(String implementation, long times) throws IOException {
            commands.println(times + " " + implementation);
            return readResult();
        }

        /** Finds how many repetitions fill one measurement. This also warms up the just-in-time compiler. */
        void prepare() throws IOException {
            start();
            for (String implementation : implementations) {
                long times = 1;
                while (repeat(implementation, times) < sampleNanos / 1.5) {
                    times *= 2;
                }
                repetitions.put(implementation, times);
            }
        }

        double measure(String implementation) throws IOException {
            if (benchmark.isRepeated()) {
                long times = repetitions.get(implementation);
                return repeat(implementation, times) / times;
            }
            start();
            double result = readResult();
            stop();
            return result;
        }
    }

    private Path token(int certificates) {
        return temporary.resolve("token-" + certificates);
    }

    private void makeToken(int certificates) throws IOException {
        Path folder = Files.createDirectory(token(certificates));
        Files.writeString(Path.of(folder + ".conf"), "directories.tokendir = " + folder + "\nlog.level = ERROR\n");
        new WorkerProcess(new Case(false, Worker.FILL, certificates), jdks.firstKey(), List.of("library")).measure("");
    }

    private void measure(Case benchmark) throws IOException {
        List<WorkerProcess> processes = new ArrayList<>();
        for (String jdk : jdks.keySet()) {
            benchmark.implementations().forEach(together -> processes.add(new WorkerProcess(benchmark, jdk, together)));
        }
        if (benchmark.isRepeated()) {
            for (WorkerProcess process : processes) {
                process.prepare();
            }
        }
        Random random = new Random(1);
        for (int round = 0; round < rounds; ++round) {
            // In random order, because the previous implementation leaves its data in the processor's caches.
            Collections.shuffle(processes, random);
            for (WorkerProcess process : processes) {
                Collections.shuffle(process.implementations, random);
                for (String implementation : process.implementations) {
                    double value = process.measure(implementation);
                    figures.merge(new Figure(benchmark, process.jdk, implementation), value, Math::min);
                }
            }
        }
        if (benchmark.isRepeated()) {
            processes.forEach(WorkerProcess::stop);
        }
    }

    // ---- Reporting ----

    /** {@return a figure, or NaN if it was not measured} */
    private double figure(Case benchmark, String jdk, String implementation) {
        return figures.getOrDefault(new Figure(benchmark, jdk, implementation), Double.NaN);
    }

    private void writeReport() throws IOException {
        StringBuilder table = new StringBuilder();
        appendRow(table, List.of("call", "JDK", "C", "plain JNI", "library", "SunPKCS11", "library / C",
                "/ plain JNI", "/ SunPKCS11"));
        table.append("|---".repeat(9)).append("|\n");
        for (Case each : cases()) {
            for (String jdk : jdks.keySet()) {
                List<String> cells = new ArrayList<>(List.of(each.title(), jdk));
                for (String implementation : IMPLEMENTATIONS) {
                    double value = figure(each, jdk, implementation);
                    cells.add(each.operation == Worker.MEMORY ? format("%.1f MB", value / 1e6) : time(value));
                }
                for (String other : List.of("C", "plain JNI", "SunPKCS11")) {
                    cells.add(format("%.2f", figure(each, jdk, "library") / figure(each, jdk, other)));
                }
                appendRow(table, cells);
            }
        }
        System.out.print(table);
        Files.writeString(report.resolve("table.md"), table);
        Files.writeString(report.resolve("growth.dat"), growth());
    }

    private static void appendRow(StringBuilder table, List<String> cells) {
        table.append("| ").append(String.join(" | ", cells)).append(" |\n");
    }

    private static String format(String format, double value) {
        return Double.isNaN(value) ? "" : format.formatted(value);
    }

    private static String time(double nanoseconds) {
        int power = nanoseconds < 1e3 ? 0 : nanoseconds < 1e6 ? 1 : nanoseconds < 1e9 ? 2 : 3;
        double value = nanoseconds / Math.pow(1e3, power);
        String unit = List.of("ns", "us", "ms", "s").get(power);
        return format((value < 10 ? "%.2f " : value < 100 ? "%.1f " : "%.0f ") + unit, value);
    }

    /** {@return data of the graph: the time of a listing and of a signature in ms, on SoftHSM2 and the first JDK} */
    private String growth() {
        StringBuilder out = new StringBuilder();
        for (int certificates = 1; certificates <= maxCertificates; certificates *= 10) {
            out.append(certificates);
            for (int operation : List.of(Plain.LIST, Plain.SIGN)) {
                for (String implementation : List.of("C", "library", "SunPKCS11")) {
                    Case benchmark = new Case(false, operation, certificates);
                    out.append(' ').append(figure(benchmark, jdks.firstKey(), implementation) / 1e6);
                }
            }
            out.append('\n');
        }
        return out.toString();
    }
}
