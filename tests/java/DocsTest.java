import static org.junit.jupiter.api.Assertions.*;

import com.calvenhor.vork.utils.*;
import com.calvenhor.vork.utils.testing.FaultyModule;
import com.calvenhor.vork.utils.testing.FaultyModule.Removal;
import com.sun.net.httpserver.*;
import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.lang.reflect.Method;
import java.net.*;
import java.nio.charset.StandardCharsets;
import java.nio.file.*;
import java.security.*;
import java.security.cert.X509Certificate;
import java.util.*;
import java.util.concurrent.*;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.regex.*;
import java.util.stream.*;
import javax.net.ssl.*;
import javax.security.auth.callback.PasswordCallback;
import javax.xml.crypto.dom.DOMStructure;
import javax.xml.crypto.dsig.XMLSignatureFactory;
import javax.xml.crypto.dsig.dom.DOMValidateContext;
import javax.xml.parsers.DocumentBuilderFactory;
import org.bouncycastle.cms.*;
import org.bouncycastle.cms.jcajce.JcaSimpleSignerInfoVerifierBuilder;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;
import org.w3c.dom.Document;

/** Tests the Markdown pages: links have targets, tables match the code, and snippets and commands run. */
class DocsTest {
    private static final Path ROOT = Path.of(System.getProperty("root"));
    private static final String MODULE = System.getProperty("softhsm2");
    private static final String MOCK = System.getProperty("mock");
    private static final Path LIBRARY = Path.of(System.getProperty("java.library.path"), "libsmartcard.so");
    private static final String DEBIAN_MODULE = "/usr/lib/softhsm/libsofthsm2.so";
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
    void linksHaveTargets() throws Exception {
        for (Path page : pages()) {
            for (MatchResult link : matches("\\]\\((?!https?:|dist/)([^)#]*)#?([^)]*)\\)", Files.readString(page))) {
                Path target = link.group(1).isEmpty() ? page : page.resolveSibling(link.group(1));
                assertTrue(Files.exists(target), page + ": " + link.group());
                assertTrue(link.group(2).isEmpty() || matches("^#+ (.*)$", Files.readString(target)).stream()
                        .map(heading -> heading.group(1).toLowerCase().replaceAll("[^\\w -]", "").replace(' ', '-'))
                        .anyMatch(link.group(2)::equals), page + ": " + link.group());
            }
        }
    }

    /** Each Java snippet is part of Recipes, KeyStoreRecipes or SignerTest; each method of the recipes is called. */
    @Test
    void snippetsAreRecipes() throws Exception {
        String recipes = squeezed(read("examples/Recipes.java"));
        String keyStoreRecipes = squeezed(read("examples/KeyStoreRecipes.java"));
        String snippets = recipes + keyStoreRecipes + squeezed(read("examples/SignerTest.java"));
        for (Path page : pages()) {
            String text = Files.readString(page);
            matches("^```java\n((?s:.*?))^```$", text).forEach(snippet ->
                    assertTrue(snippets.contains(squeezed(snippet.group(1))), page + ": " + snippet.group()));
            assertFalse(text.replaceAll("(?ms)^```java$.*?^```$", "").matches("(?s).*\n {4}[^\n]*;\n.*"),
                    () -> page + ": Java that is not marked as such");
        }
        String calls = recipes + keyStoreRecipes + read("tests/java/DocsTest.java")
                + read("tests/java/OwnProcessTest.java");
        matches("\\bstatic \\S+ ((?!main)\\w+)\\(", recipes + keyStoreRecipes).forEach(method -> assertTrue(
                matches("[ .(]" + method.group(1) + "\\(", calls).size() > 1, method.group()));
    }

    @Test
    void versionsMatchTheBuild() throws Exception {
        String version = matches("^project\\(.* VERSION (\\S+) ", read("CMakeLists.txt")).get(0).group(1);
        List<MatchResult> shown = matches("smartcard(?:-testing)?[:-](\\d[\\w.-]*?)(?=(?:-javadoc)?\\.jar|[`\"<])",
                read("README.md") + read("docs/testing.md"));
        assertFalse(shown.isEmpty());
        shown.forEach(place -> assertEquals(version, place.group(1)));
        assertEquals(version, matches("^## (\\S+) \\(\\d{4}-\\d\\d-\\d\\d\\)$", read("CHANGELOG.md")).get(0).group(1));
    }

    @Test
    void ownersOfRulesExist() throws Exception {
        List<MatchResult> rules = matches("^\\| .* \\| (.*) in \\[.*\\]\\((.*)\\) \\|$", read("docs/architecture.md"));
        assertFalse(rules.isEmpty());
        for (MatchResult rule : rules) {
            String file = read("docs/" + rule.group(2));
            matches("`(\\w+)`", rule.group(1)).forEach(name ->
                    assertFalse(matches("\\b" + name.group(1) + "\\b", file).isEmpty(), rule.group()));
        }
    }

    /** {@return entry-points.md with one row for each method, and with "search" replaced by its three calls} */
    private static String entryPoints() throws IOException {
        return read("docs/entry-points.md").lines().flatMap(line -> {
            String row = line.replaceAll("\\bsearch\\b(?=[^|]*\\|$)",
                    "C_FindObjectsInit, C_FindObjects, C_FindObjectsFinal");
            String[] names = row.split(" (?=\\|)", 2)[0].split(", ");
            return names.length == 1 || !row.startsWith("| `") ? Stream.of(row) : Arrays.stream(names)
                    .map(name -> (name.startsWith("| ") ? "" : "| ") + name + row.substring(row.indexOf(" |")));
        }).collect(Collectors.joining("\n"));
    }

    @Test
    void entryPointsMatchTheClass() throws Exception {
        String page = entryPoints();
        String source = read("java/com/calvenhor/vork/utils/Smartcard.java");
        assertEquals(matches("native (\\S+) (\\w+)\\([^)]*\\);", source).stream()
                .map(method -> "| `" + method.group(2) + "` | `" + method.group(1) + "`").toList(),
                texts("^\\| `\\w+DLL` \\| `\\S+`", page));

        Map<String, Set<String>> recorded = new HashMap<>();
        for (Path transcript : files("tests/transcripts")) {
            matches("^> (\\w+).*\n((?: .*\n)*)", Files.readString(transcript)).forEach(call -> recorded
                    .computeIfAbsent(call.group(1) + "DLL", name -> new HashSet<>())
                    .addAll(texts("\\bC_\\w+(?=\\()", call.group(2))));
        }
        assertEquals(recorded, matches("^\\| `(\\w+DLL)` (?:[^|]*\\|){3}([^|]*)\\|$", page).stream().collect(
                Collectors.toMap(row -> row.group(1), row -> Set.copyOf(texts("C_\\w+", row.group(2))))));

        String library = Files.readString(LIBRARY, StandardCharsets.ISO_8859_1);
        String prefix = matches("`(Java_\\w+_)`", page).get(0).group(1);
        recorded.keySet().forEach(name -> assertTrue(library.contains('\0' + prefix + name + '\0'), name));

        assertEquals(LongStream.range(0, 0x400).filter(code -> SmartcardException.nameOf(code).startsWith("CKR_"))
                .mapToObj(code -> String.format("| 0x%02X `%s` |", code, SmartcardException.nameOf(code))).toList(),
                texts("^\\| 0x.*?`CKR_\\w+` \\|", page));
    }

    /** If a module call fails, the method returns a result that its row lists under "failure". */
    @Test
    void failuresMatchTheTable() throws Exception {
        for (MatchResult row : matches("^\\| `(\\w+DLL)` \\|([^|]*)\\|([^|]*)\\|([^|]*)\\|$",
                entryPoints())) {
            Method method = NATIVES.get(row.group(1));
            for (String function : texts("C_\\w+", row.group(4))) {
                int nth = 1;
                while (nth <= 4 && assertFailureIsListed(method, function, nth, row.group(2), row.group(3))) {
                    nth++;
                }
            }
        }
    }

    private static boolean assertFailureIsListed(Method method, String function, int nth, String success,
            String failure) throws Exception {
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
        List<Long> listed = new ArrayList<>(matches("-?\\b(0x[0-9A-F]+|\\d+)\\b", failure).stream()
                .map(number -> Long.decode(number.group())).toList());
        // The row explains the 0, so a module call may have failed.
        if (success.contains("`long` 0") && !success.endsWith("0 ")) {
            listed.add(0L);
        }
        boolean isStatus = result instanceof byte[] || result instanceof byte[][];
        String code = result instanceof byte[][] ? "\\{code" : isStatus ? "\\bstatus\\b(?! \\d)" : "\\bcode\\b";
        if (!matches(code, failure).isEmpty()) {
            listed.add(isStatus ? 0x23L : 0x10123L);
        }
        List<Long> codes = result instanceof Long number ? List.of(number)
                : result instanceof int[] numbers ? Arrays.stream(numbers).asLongStream().boxed().toList()
                : List.of(head(result)[0] & 0xFFL);
        // Some failures are not reported: the method returns the values that it read.
        boolean isRead = result instanceof Long number ? number > 0 && !success.contains("`long` 0")
                : result instanceof byte[][] listing ? listing.length > 1 && head(result)[0] == 0
                : result instanceof byte[] bytes && bytes.length != 1;
        assertTrue(isRead || listed.containsAll(codes),
                () -> method.getName() + ", " + function + ": " + codes + ", listed: " + listed);
        return true;
    }

    /** {@return the array that holds the status: element 0 of a listing} */
    private static byte[] head(Object result) {
        return result instanceof byte[][] listing ? listing[0] : (byte[]) result;
    }

    // ---- The recipes ----

    private static String run(String script) throws Exception {
        ProcessBuilder shell = new ProcessBuilder("bash", "-c", script).redirectError(ProcessBuilder.Redirect.DISCARD);
        shell.environment().merge("PATH", System.getProperty("java.home") + "/bin", (path, jdk) -> jdk + ":" + path);
        return SoftTokenTest.output(shell).strip();
    }

    /** {@return the command that a page shows, with the paths of this build and machine} */
    private static String shown(String command, String page) throws IOException {
        String classes = "'" + System.getProperty("java.class.path") + "'";
        return matches("^    (" + command + " .*)", read(page).replaceAll("\\\\\n", "")).get(0).group(1)
                .replace(DEBIAN_MODULE, MODULE)
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
        run("keytool -genkeypair -keyalg RSA -dname CN=Signer -alias signer -storepass changeit -keystore " + file);
        byte[] id = Recipes.importIdentity(slot, file, "changeit".toCharArray(), "signer", "Contracts".getBytes());
        Recipes.Entry signer = Recipes.certificates(slot).get(0);
        assertArrayEquals(id, signer.id());
        byte[] signature = Recipes.sign(slot, signer, DOCUMENT);

        byte[] serialNumber = Smartcard.readCardSerialNumberDLL(slot);
        Path token = tokens.resolve(tokens.toFile().list()[0]);
        assertWatched(MODULE, serialNumber, PIN, () -> {
            Files.move(token, folder.resolve("away"));
            assertResults(3);
        }, () -> Files.move(folder.resolve("away"), token), () -> { });

        if (MODULE.equals(DEBIAN_MODULE)) { // the path in asKeyStore and fromJava
            assertArrayEquals(signature, Recipes.asKeyStore(PIN.toCharArray(), DOCUMENT));
            Smartcard.finalizeDLL();
            assertArrayEquals(signature, Recipes.fromJava(PIN, Recipes.digestInfo(DOCUMENT), id));
        }
        assertTrue(read("docs/using.md").contains("\nThis prints " + run(shown("java", "docs/using.md")) + ","));
        String signed = run("cd " + folder + " && jar --create --file contracts.jar identity.p12 && echo " + PIN + " | "
                + shown("jarsigner", "README.md") + " && jarsigner -verify contracts.jar");
        assertTrue(signed.contains("jar verified."), signed);
    }

    /** Also checks the columns of the table in using.md that need FaultyModule. */
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
            assertResults(column);
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

    @Test
    void keyStoreRecipes(@TempDir Path folder) throws Throwable {
        try (FaultyModule module = FaultyModule.before(MODULE)) {
            SoftTokenTest.createToken(module.path(), Files.createDirectory(folder.resolve("tokens")));
            Path file = folder.resolve("identity.p12");
            run("keytool -genkeypair -keyalg RSA -dname CN=localhost -ext san=dns:localhost -alias signer -storepass "
                    + "changeit -keystore " + file);
            char[] password = "changeit".toCharArray();
            Recipes.importIdentity(0, file, password, "signer", "Contracts".getBytes());
            Smartcard.finalizeDLL();

            List<KeyStoreRecipes.Token> tokens = KeyStoreRecipes.tokens(module.path());
            assertEquals(List.of("YENIKART"), tokens.stream().map(KeyStoreRecipes.Token::label).toList());
            SmartcardProvider provider = new SmartcardProvider().configure(tokens.get(0).name());
            KeyStore store = KeyStore.getInstance("Smartcard", provider);
            store.load(null, SoftTokenTest.PIN.toCharArray());
            X509Certificate certificate = (X509Certificate) store.getCertificate("Contracts");

            CMSSignedData cms = new CMSSignedData(new CMSProcessableByteArray(DOCUMENT),
                    KeyStoreRecipes.signCms(store, "Contracts", DOCUMENT));
            assertTrue(cms.verifySignatures(id -> new JcaSimpleSignerInfoVerifierBuilder().build(certificate)));

            KeyStore identity = KeyStore.getInstance(file.toFile(), password);
            SSLContext client = KeyStoreRecipes.clientContext(store, identity);
            HttpsServer server = HttpsServer.create(new InetSocketAddress("localhost", 0), 0);
            server.setHttpsConfigurator(new HttpsConfigurator(KeyStoreTest.context(identity, password, identity)) {
                @Override
                public void configure(HttpsParameters parameters) {
                    SSLParameters needsClient = getSSLContext().getDefaultSSLParameters();
                    needsClient.setNeedClientAuth(true);
                    parameters.setSSLParameters(needsClient);
                }
            });
            server.createContext("/", exchange -> {
                exchange.sendResponseHeaders(200, DOCUMENT.length);
                exchange.getResponseBody().write(DOCUMENT);
                exchange.close();
            });
            server.start();
            try {
                URI uri = URI.create("https://localhost:" + server.getAddress().getPort());
                assertEquals(new String(DOCUMENT), KeyStoreRecipes.get(client, uri));
                assertArrayEquals(DOCUMENT, KeyStoreRecipes.getOverConnection(client, uri));
            } finally {
                server.stop(0);
            }

            DocumentBuilderFactory documents = DocumentBuilderFactory.newInstance();
            documents.setNamespaceAware(true);
            Document document = documents.newDocumentBuilder().parse(new ByteArrayInputStream("<a/>".getBytes()));
            KeyStoreRecipes.signXml(store, "Contracts", document);
            assertTrue(XMLSignatureFactory.getInstance("DOM").unmarshalXMLSignature(new DOMStructure(
                    document.getDocumentElement().getFirstChild())).validate(new DOMValidateContext(
                    certificate.getPublicKey(), document.getDocumentElement().getFirstChild())));

            KeyStoreRecipes.changePin(provider, SoftTokenTest.PIN, PIN);
            module.remove(0, Removal.EMPTY);
            module.insert(0);
            KeyStoreRecipes.reload(store, PIN.toCharArray());
            KeyStoreRecipes.signCms(store, "Contracts", DOCUMENT);

            provider.logout();
            AtomicInteger tries = new AtomicInteger();
            assertThrows(KeyStoreException.class, () -> KeyStoreRecipes.builder(provider, callbacks -> {
                tries.incrementAndGet();
                ((PasswordCallback) callbacks[0]).setPassword("000000".toCharArray());
            }).getKeyStore());
            assertEquals(3, tries.get());
            Security.removeProvider("Smartcard");
            Smartcard.finalizeDLL();
        }
    }

    /** While the card is removed, the results are those in a column of the table in using.md. */
    private static void assertResults(int column) throws Exception {
        String table = matches("^\\| call \\|.*\n.*\n((?:\\|.*\n)+)", read("docs/using.md")).get(0).group(1);
        for (String line : table.split("\n")) {
            String[] cells = line.split("\\|");
            MatchResult row = matches("`(\\w+)(?:\\(slot\\) & (\\w+))?`", cells[1]).get(0);
            Method method = NATIVES.get(row.group(1));
            Object result = method.invoke(null, MockTest.arguments(method));
            long mask = row.group(2) == null ? -1 : Long.decode(row.group(2));
            assertEquals(cells[column].strip(), result instanceof Long code ? String.format("0x%02X", code & mask)
                    : head(result).length > 1 ? "the number" : String.format("{%02X}", head(result)[0]), line);
        }
    }

    private static void assertWatched(String module, byte[] serialNumber, String pin, Executable remove,
            Executable insert, Executable then) throws Throwable {
        BlockingQueue<Long> reports = new LinkedBlockingQueue<>();
        FutureTask<Void> watcher = new FutureTask<>(() -> {
            Recipes.watch(module, serialNumber, pin, reports::add);
            return null;
        });
        Thread thread = new Thread(watcher);
        thread.start();
        for (Executable step : List.<Executable>of(() -> { }, remove, insert)) {
            synchronized (Smartcard.class) {
                step.execute();
            }
            assertEquals(step == remove ? -1 : 0, reports.poll(20, TimeUnit.SECONDS));
        }
        then.execute();
        assertEquals(3, Smartcard.getSessionInfoDLL(0)[0]); // CKS_RW_USER_FUNCTIONS
        thread.interrupt();
        assertThrows(ExecutionException.class, watcher::get);
    }

    /** {@return a second class loader with the library, as a redeployed web application has} */
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
        for (int i = 0; i < 2; i++) { // the second attempt shows that the first unbound the module
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
