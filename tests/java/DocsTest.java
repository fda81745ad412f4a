import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.*;
import com.calvenhor.vork.utils.testing.FaultyModule;
import com.calvenhor.vork.utils.testing.FaultyModule.Removal;
import java.io.IOException;
import java.lang.reflect.Method;
import java.net.*;
import java.nio.charset.StandardCharsets;
import java.nio.file.*;
import java.security.Security;
import java.util.*;
import java.util.concurrent.*;
import java.util.regex.*;
import java.util.stream.*;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;

/** The pages here and in docs/: what they link to is there, and what they say and show is so. */
class DocsTest {
    private static final Path ROOT = Path.of(System.getProperty("root"));
    private static final String MODULE = System.getProperty("softhsm2");
    private static final String MOCK = System.getProperty("mock");
    private static final Path LIBRARY = Path.of(System.getProperty("java.library.path"), "libsmartcard.so");
    private static final String DEBIANS_MODULE = "/usr/lib/softhsm/libsofthsm2.so";
    private static final String PIN = "123456";
    private static final byte[] DOCUMENT = "a document".getBytes();
    private static final Map<String, Method> NATIVES = MockTest.NATIVES.stream()
            .collect(Collectors.toMap(Method::getName, method -> method));

    // ---- The pages ----

    private static List<Path> files(String folder) throws IOException {
        try (Stream<Path> files = Files.list(ROOT.resolve(folder))) {
            return files.toList();
        }
    }

    private static List<Path> pages() throws IOException {
        return Stream.of(files(""), files("docs")).flatMap(List::stream).filter(file -> file.toString().endsWith(".md"))
                .toList();
    }

    private static String read(String file) throws IOException {
        return Files.readString(ROOT.resolve(file));
    }

    private static List<MatchResult> matches(String pattern, String text) {
        return Pattern.compile(pattern, Pattern.MULTILINE).matcher(text).results().toList();
    }

    private static List<String> texts(String pattern, String text) {
        return matches(pattern, text).stream().map(MatchResult::group).toList();
    }

    private static String squeezed(String text) {
        return text.strip().replaceAll("\\s+", " ");
    }

    @Test
    void linksLeadSomewhere() throws Exception {
        for (Path page : pages()) {
            for (MatchResult link : matches("\\]\\((?!https?:)([^)#]*)#?([^)]*)\\)", Files.readString(page))) {
                Path target = link.group(1).isEmpty() ? page : page.resolveSibling(link.group(1));
                assertTrue(Files.exists(target), page + ": " + link.group());
                assertTrue(link.group(2).isEmpty() || matches("^#+ (.*)$", Files.readString(target)).stream()
                        .map(heading -> heading.group(1).toLowerCase().replaceAll("[^\\w -]", "").replace(' ', '-'))
                        .anyMatch(link.group(2)::equals), page + ": " + link.group());
            }
        }
    }

    /** The snippets stand in Recipes or SignerTest, and nothing stands in Recipes that nobody calls. */
    @Test
    void snippetsAreRecipes() throws Exception {
        String recipes = squeezed(read("examples/Recipes.java"));
        String snippets = recipes + squeezed(read("examples/SignerTest.java"));
        for (Path page : pages()) {
            String text = Files.readString(page);
            matches("^```java\n((?s:.*?))^```$", text).forEach(snippet ->
                    assertTrue(snippets.contains(squeezed(snippet.group(1))), page + ": " + snippet.group()));
            assertFalse(text.replaceAll("(?ms)^```java$.*?^```$", "").matches("(?s).*\n {4}[^\n]*;\n.*"),
                    () -> page + ": Java that is not marked as such");
        }
        String calls = recipes + read("tests/java/DocsTest.java") + read("tests/java/OwnProcessTest.java");
        matches("\\bstatic \\S+ ((?!main)\\w+)\\(", read("examples/Recipes.java")).forEach(method -> assertTrue(
                matches("[ .(]" + method.group(1) + "\\(", calls).size() > 1, method.group()));
    }

    @Test
    void versionIsTheBuilds() throws Exception {
        String version = matches("^project\\(.* VERSION (\\S+) ", read("CMakeLists.txt")).get(0).group(1);
        List<MatchResult> shown = matches("smartcard(?:-testing)?[:-](\\d[\\w.-]*?)(?=\\.jar|[`\"])",
                read("README.md") + read("docs/testing.md"));
        assertFalse(shown.isEmpty());
        shown.forEach(place -> assertEquals(version, place.group(1)));
        assertEquals(version, matches("^## (\\S+) \\(\\d{4}-\\d\\d-\\d\\d\\)$", read("CHANGELOG.md")).get(0).group(1));
    }

    @Test
    void rulesStandWhereTheTableSays() throws Exception {
        List<MatchResult> rules = matches("^\\| .* \\| (.*) in \\[.*\\]\\((.*)\\) \\|$", read("docs/architecture.md"));
        assertFalse(rules.isEmpty());
        for (MatchResult rule : rules) {
            String file = read("docs/" + rule.group(2));
            matches("`(\\w+)`", rule.group(1)).forEach(name ->
                    assertFalse(matches("\\b" + name.group(1) + "\\b", file).isEmpty(), rule.group()));
        }
    }

    @Test
    void entryPointsAreTheClasses() throws Exception {
        String page = read("docs/entry-points.md");
        String source = read("java/com/calvenhor/vork/utils/Smartcard.java");
        assertEquals(matches("native (\\S+) (\\w+)\\(([^)]*)\\);", source).stream().map(method -> "| `" + method.group(2)
                + "` | " + (method.group(3).isEmpty() ? "" : '`' + squeezed(method.group(3)) + "` ") + "| `"
                + method.group(1) + "`").toList(),
                texts("^\\| `\\w+DLL` \\| .*?\\| `.*?`", page));

        Map<String, Set<String>> recorded = new HashMap<>();
        for (Path transcript : files("tests/transcripts")) {
            matches("^> (\\w+).*\n((?: .*\n)*)", Files.readString(transcript)).forEach(call -> recorded
                    .computeIfAbsent(call.group(1) + "DLL", name -> new HashSet<>())
                    .addAll(texts("\\bC_\\w+(?=\\()", call.group(2))));
        }
        assertEquals(recorded, matches("^\\| `(\\w+DLL)` .*\\|(.*)\\|$", page).stream().collect(Collectors.toMap(
                row -> row.group(1), row -> Set.copyOf(texts("C_\\w+", row.group(2))))));

        String library = Files.readString(LIBRARY, StandardCharsets.ISO_8859_1);
        String prefix = matches("`(Java_\\w+_)`", page).get(0).group(1);
        recorded.keySet().forEach(name -> assertTrue(library.contains('\0' + prefix + name + '\0'), name));

        assertEquals(LongStream.range(0, 0x400).filter(code -> SmartcardException.nameOf(code).startsWith("CKR_"))
                .mapToObj(code -> String.format("| 0x%02X | %02X | `%s` |", code, code & 0xFF,
                        SmartcardException.nameOf(code))).toList(),
                texts("^\\| 0x.*?`CKR_\\w+` \\|", page));
    }

    /** Whichever call of the module fails, the answer is one that the method's row has under "failure". */
    @Test
    void failuresAreAsTold() throws Exception {
        for (MatchResult row : matches("^\\| `(\\w+DLL)` \\|[^|]*\\|([^|]*)\\|([^|]*)\\|([^|]*)\\|$",
                read("docs/entry-points.md"))) {
            Method method = NATIVES.get(row.group(1));
            for (String function : texts("C_\\w+", row.group(4))) {
                int nth = 1;
                while (nth <= 4 && assertFailsAsTold(method, function, nth, row.group(2), row.group(3))) {
                    nth++;
                }
            }
        }
    }

    private static boolean assertFailsAsTold(Method method, String function, int nth, String success, String failure)
            throws Exception {
        MockTest.begin();
        if (method.getName().equals("initDLL")) {
            Smartcard.finalizeDLL();
        }
        MockTest.takeCalls();
        MockTest.failAt(function, nth, 0x10123);
        Object result = method.invoke(null, MockTest.arguments(method));
        if (Collections.frequency(List.of(MockTest.takeCalls().split(" ")), function) < nth) {
            return false;
        }
        List<Long> told = new ArrayList<>(matches("-?\\b(0x[0-9A-F]+|\\d+)\\b", failure).stream()
                .map(number -> Long.decode(number.group())).toList());
        if (success.contains("`long` 0") && !success.endsWith("0 ")) { // a success of something else
            told.add(0L);
        }
        boolean isStatus = result instanceof byte[] || result instanceof byte[][];
        String code = result instanceof byte[][] ? "\\{code" : isStatus ? "\\bstatus\\b(?! \\d)" : "\\bcode\\b";
        if (!matches(code, failure).isEmpty()) {
            told.add(isStatus ? 0x23L : 0x10123L);
        }
        List<Long> answer = result instanceof Long number ? List.of(number)
                : result instanceof int[] numbers ? Arrays.stream(numbers).asLongStream().boxed().toList()
                : List.of(head(result)[0] & 0xFFL);
        // Of some failures one is told nothing, and reads what there is all the same.
        boolean isRead = result instanceof Long number ? number > 0 && !success.contains("`long` 0")
                : result instanceof byte[][] listing ? listing.length > 1 && head(result)[0] == 0
                : result instanceof byte[] bytes && bytes.length != 1;
        assertTrue(isRead || told.containsAll(answer),
                () -> method.getName() + ", " + function + ": " + answer + ", told: " + told);
        return true;
    }

    /** What a status stands in: of a listing, the first array. */
    private static byte[] head(Object answer) {
        return answer instanceof byte[][] listing ? listing[0] : (byte[]) answer;
    }

    // ---- The recipes ----

    private static String run(String script) throws Exception {
        ProcessBuilder shell = new ProcessBuilder("bash", "-c", script).redirectError(ProcessBuilder.Redirect.DISCARD);
        shell.environment().merge("PATH", System.getProperty("java.home") + "/bin", (path, jdk) -> jdk + ":" + path);
        return SoftTokenTest.output(shell).strip();
    }

    /** A command of a page, with the paths that are here. */
    private static String shown(String command, String page) throws IOException {
        String classes = "'" + System.getProperty("java.class.path") + "'";
        return matches("^    (" + command + " .*)", read(page).replaceAll("\\\\\n", "")).get(0).group(1)
                .replace(DEBIANS_MODULE, MODULE)
                .replace("java -cp", "java -Djava.library.path='" + LIBRARY.getParent() + "' -cp")
                .replace("smartcard.jar:examples", classes)
                .replaceAll("smartcard-[\\d.]+\\.jar", "'" + System.getProperty("jar") + "'");
    }

    @Test
    void recipesOnASoftwareToken(@TempDir Path folder) throws Throwable {
        Path tokens = Files.createDirectory(folder.resolve("tokens"));
        SoftTokenTest.useTokens(tokens);
        Smartcard.initDLL(MODULE);
        long slot = Recipes.newToken(MODULE, 0, "12345678", PIN);
        Recipes.logIn(slot, PIN);
        Path file = folder.resolve("identity.p12");
        run("keytool -genkeypair -keyalg RSA -keysize 2048 -dname CN=Signer -alias signer -storepass changeit -keystore "
                + file);
        byte[] id = Recipes.importIdentity(slot, file, "changeit".toCharArray(), "signer", "Contracts".getBytes());
        Recipes.Entry signer = Recipes.certificates(slot).get(0);
        assertArrayEquals(id, signer.id());
        byte[] signature = Recipes.sign(slot, signer, DOCUMENT);

        byte[] serialNumber = Smartcard.readCardSerialNumberDLL(slot);
        Path token = tokens.resolve(tokens.toFile().list()[0]);
        assertWatched(MODULE, serialNumber, PIN, () -> {
            Files.move(token, folder.resolve("away"));
            assertAnswers(3);
        }, () -> Files.move(folder.resolve("away"), token), () -> { });

        if (MODULE.equals(DEBIANS_MODULE)) { // which these two name
            assertArrayEquals(signature, Recipes.asKeyStore(PIN.toCharArray(), DOCUMENT));
            Smartcard.finalizeDLL();
            assertArrayEquals(signature, Recipes.fromJava(PIN, Recipes.digestInfo(DOCUMENT), id));
        }
        assertTrue(read("docs/using.md").contains("\nprints " + run(shown("java", "docs/using.md")) + ","));
        String signed = run("cd " + folder + " && jar --create --file contracts.jar identity.p12 && echo " + PIN + " | "
                + shown("jarsigner", "README.md") + " && jarsigner -verify contracts.jar");
        assertTrue(signed.contains("jar verified."), signed);
    }

    /** The table's columns that the software token does not show by itself. */
    @Test
    void recipesWithAPinPad(@TempDir Path folder) throws Throwable {
        assertRecipesWork(Removal.STANDARD, 2, Files.createDirectory(folder.resolve("standard")));
        assertRecipesWork(Removal.CACHED, 4, Files.createDirectory(folder.resolve("cached")));
    }

    private static void assertRecipesWork(Removal removal, int column, Path folder) throws Throwable {
        try (FaultyModule module = FaultyModule.before(MODULE)) {
            SoftTokenTest.createToken(module.path(), folder);
            byte[] id = (byte[]) MockTest.arguments(NATIVES.get("signWithIDDLL"))[2];
            Smartcard.generateKeyPairDLL(0, 1024, SoftTokenTest.EXPONENT, id, id);
            byte[] serialNumber = Smartcard.readCardSerialNumberDLL(0);
            module.pinPad(0, SoftTokenTest.PIN);
            module.remove(0, removal);
            assertAnswers(column);
            module.insert(0);
            assertWatched(module.path(), serialNumber, "not asked for", () -> module.remove(0, removal), () -> {
                module.insert(0);
                module.fail("C_OpenSession", 1, 0xE0); // not ready yet
            }, () -> {
                synchronized (Smartcard.class) {
                    module.remove(0, removal);
                    module.insert(0);
                    module.takeCalls();
                }
                for (int i = 0; i < 200 && !module.takeCalls().contains("C_Login"); i++) {
                    Thread.sleep(50);
                }
            });
            Smartcard.finalizeDLL();
        }
    }

    /** What is answered while the card is out stands in a column of the table. */
    private static void assertAnswers(int column) throws Exception {
        String table = matches("^\\| asked \\|.*\n.*\n((?:\\|.*\n)+)", read("docs/using.md")).get(0).group(1);
        for (String line : table.split("\n")) {
            String[] cells = line.split("\\|");
            MatchResult row = matches("`(\\w+)(?:\\(slot\\) & (\\w+))?`", cells[1]).get(0);
            Method method = NATIVES.get(row.group(1));
            Object answer = method.invoke(null, MockTest.arguments(method));
            long mask = row.group(2) == null ? -1 : Long.decode(row.group(2));
            assertEquals(cells[column].strip(), answer instanceof Long code ? String.format("0x%02X", code & mask)
                    : head(answer).length > 1 ? "the number" : String.format("{%02X}", head(answer)[0]), line);
        }
    }

    private static void assertWatched(String module, byte[] serialNumber, String pin, Executable takeOut,
            Executable putIn, Executable then) throws Throwable {
        BlockingQueue<Long> reports = new LinkedBlockingQueue<>();
        FutureTask<Void> watcher = new FutureTask<>(() -> {
            Recipes.watch(module, serialNumber, pin, reports::add);
            return null;
        });
        Thread thread = new Thread(watcher);
        thread.start();
        for (Executable step : List.<Executable>of(() -> { }, takeOut, putIn)) {
            synchronized (Smartcard.class) {
                step.execute();
            }
            assertEquals(step == takeOut ? -1 : 0, reports.poll(20, TimeUnit.SECONDS));
        }
        then.execute();
        assertEquals(3, Smartcard.getSessionInfoDLL(0)[0]); // CKS_RW_USER_FUNCTIONS
        thread.interrupt();
        assertThrows(ExecutionException.class, watcher::get);
    }

    /** Another class loader with this library, as a web application that is deployed anew gets one. */
    private static URLClassLoader loader(Path library) {
        URL[] classes = {Smartcard.class.getProtectionDomain().getCodeSource().getLocation()};
        return new URLClassLoader(classes, null) {
            @Override
            protected String findLibrary(String name) {
                return library.toString();
            }
        };
    }

    private static Object call(ClassLoader loader, String method, Object... arguments) throws Exception {
        Class<?>[] types = NATIVES.get(method).getParameterTypes();
        return loader.loadClass(Smartcard.class.getName()).getMethod(method, types).invoke(null, arguments);
    }

    @Test
    void redeployed(@TempDir Path folder) throws Exception {
        Smartcard.finalizeDLL();
        Path copy = Files.copy(LIBRARY, folder.resolve("copy.so"));
        Security.addProvider(new SmartcardProvider());
        for (int i = 0; i < 2; i++) { // the second shows that the first has left no module bound
            assertTrue(assertThrows(IOException.class, () -> new Recipes.Binding(MOCK)).getMessage()
                    .startsWith("another provider Smartcard"));
        }
        Security.removeProvider("Smartcard");
        Recipes.Binding first = new Recipes.Binding(MOCK);
        assertNotNull(Security.getProvider("Smartcard"));
        try (URLClassLoader samePath = loader(LIBRARY); URLClassLoader ownCopy = loader(copy)) {
            assertTrue(assertThrows(UnsatisfiedLinkError.class, () -> call(samePath, "initDLL", MOCK)).getMessage()
                    .contains("already loaded in another classloader"));
            assertEquals(0x191L, call(ownCopy, "initDLL", MOCK));
            first.close();
            assertNull(Security.getProvider("Smartcard"));
            assertEquals(0L, call(ownCopy, "initDLL", MOCK));
            call(ownCopy, "finalizeDLL");
        }
    }
}
