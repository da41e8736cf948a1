package tpa.jvmtest;

import com.velmora.android.tarn.app.networkfilter.dns.DefaultDnsProxyServer;
import com.velmora.android.tarn.app.networkfilter.dns.DefaultDnsProxyService;
import com.velmora.android.tarn.app.networkfilter.dns.DefaultDnsV6ProxyServer;
import com.velmora.android.tarn.app.networkfilter.tcp.DefaultHttpProxyServer;
import com.velmora.android.tarn.app.networkfilter.tcp.DefaultTcpProxyServer;
import com.velmora.android.tarn.app.networkfilter.tcp.DefaultTcpProxyService;
import com.velmora.android.tarn.app.networkfilter.tcp.DefaultTcpV6ProxyServer;
import com.velmora.android.tarn.app.networkfilter.udp.DefaultUdpProxyServer;
import com.velmora.android.tarn.app.networkfilter.udp.DefaultUdpProxyService;
import com.velmora.android.tarn.app.networkfilter.udp.DefaultUdpV6ProxyServer;
import java.io.File;
import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.net.InetSocketAddress;
import java.net.StandardProtocolFamily;
import java.nio.channels.DatagramChannel;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicReference;

/**
 * The JNI library in a real JVM: registration on the proxy classes, configure, build and query,
 * and the socket helpers. Prints one line per test and the summary "N passed, M failed" (plus
 * ", K skipped"); exits non-zero when a test failed.
 *
 * <p>The wrapper script sets tpa.netns=1 when the JVM runs in a private network namespace with
 * loopback up (socket tests run only there), tpa.redirect.port when iptables redirects
 * 127.0.0.2:443 and 127.0.0.2:65535 to that local port, and tpa.probe.cp / tpa.broken.cp for the
 * child JVMs of the registration tests.
 */
public final class JvmTests {
  private static final String NATIVE_TAG = "tarnnwfilternativehandler";
  private static final int AF_INET = 2;
  private static final int AF_INET6 = 10;
  private static final String ENTRY = "com_velmora_android_tarn_app_networkfilter_native_";
  /** The log record of a build whose text is malformed. */
  private static final String MALFORMED =
      "6|tarn_patteren_analyzer.so|[BUILDER] parse json failed : [-4]\n";

  /** Two rules: com.example.mail's own (rule 1, id 7) and the any-application rule (id 9). */
  static final String EXAMPLE =
      "[{\"match_apps\": [\"com.example.mail\"], \"include\": [\"cdn.shop.test\"],"
          + " \"exclude\": [\"ads.other.test\"], \"id\": \"7\"},"
          + " {\"match_apps\": [\"#LAMBDA-APP\"], \"include\": [\"none.invalid\"],"
          + " \"exclude\": [\"ads.shop.test\"], \"id\": \"9\"}]";

  private int passed;
  private int failed;
  private int skipped;

  private final DefaultDnsProxyService dnsService = new DefaultDnsProxyService();
  private final DefaultTcpProxyService tcpService = new DefaultTcpProxyService();
  private final DefaultUdpProxyService udpService = new DefaultUdpProxyService();
  private final DefaultTcpProxyServer tcpServer = new DefaultTcpProxyServer();
  private final DefaultTcpV6ProxyServer tcpV6Server = new DefaultTcpV6ProxyServer();
  private final DefaultUdpProxyServer udpServer = new DefaultUdpProxyServer();
  private final DefaultUdpV6ProxyServer udpV6Server = new DefaultUdpV6ProxyServer();
  private final DefaultHttpProxyServer httpServer = new DefaultHttpProxyServer();

  /** Every registered nativeQuery: they all ask the one process-wide analyzer. */
  private final List<Querier> queriers =
      List.of(
          new DefaultDnsProxyServer()::nativeQuery,
          new DefaultDnsV6ProxyServer()::nativeQuery,
          udpServer::nativeQuery,
          udpV6Server::nativeQuery,
          tcpServer::nativeQuery,
          tcpV6Server::nativeQuery,
          httpServer::nativeQuery);

  interface Querier {
    boolean query(String app, String destination);
  }

  interface Body {
    void run() throws Exception;
  }

  /** Thrown by a test that cannot run here; it is counted as skipped, never as passed. */
  static final class Skipped extends RuntimeException {
    private static final long serialVersionUID = 1L;

    Skipped(String why) {
      super(why);
    }
  }

  public static void main(String[] args) {
    System.loadLibrary("jni_tarnnwfilterparser");
    JvmTests tests = new JvmTests();
    tests.runAll();
    String summary = tests.passed + " passed, " + tests.failed + " failed";
    if (tests.skipped > 0) summary += ", " + tests.skipped + " skipped";
    System.out.println(summary);
    System.exit(tests.failed == 0 ? 0 : 1);
  }

  private void runAll() {
    // Before any configure: these must run first.
    test("query before configure is false", this::queryBeforeConfigure);
    test("build before configure is -1", this::buildBeforeConfigure);
    test("the example document through build and query", this::exampleDocument);
    test("a failed build keeps the old rules", this::failedBuildKeepsOldRules);
    test("null arguments are refused", this::nullArguments);
    test("an empty document has no rules", this::emptyDocument);
    test("an empty array is one rule of defaults", this::emptyArray);
    test("a second configure starts an empty analyzer", this::secondConfigure);
    test("queries during rebuilds see old or new rules", this::queriesDuringRebuilds);
    test("original address of family 10 is empty", this::originalAddressOfIpv6);
    test("original address of a non-socket is zero", this::originalAddressOfNonSocket);
    test("original address of untracked sockets is zero", this::originalAddressOfUntracked);
    test("original address of a redirected connection", this::originalAddressOfRedirected);
    test("set network marks the socket", this::setNetworkMarksSocket);
    test("ip options are logged", this::ipOptionsAreLogged);
    test("UTF-16 helpers keep every unit", this::utf16RoundTrip);
    test("a failed registration lets the others run", this::failedRegistration);
    test("a missing class aborts the load", this::missingClass);
  }

  private void test(String name, Body body) {
    try {
      body.run();
      passed++;
      System.out.println("PASS     " + name);
    } catch (Skipped e) {
      skipped++;
      System.out.println("SKIPPED  " + name + ": " + e.getMessage());
    } catch (Throwable e) {
      failed++;
      System.out.println("FAIL     " + name + ": " + e);
    }
  }

  static void check(boolean condition, String what) {
    if (!condition) throw new AssertionError(what);
  }

  static void checkEquals(Object expected, Object actual, String what) {
    if (expected == null ? actual != null : !expected.equals(actual)) {
      throw new AssertionError(what + ": expected <" + expected + "> but was <" + actual + ">");
    }
  }

  /** Asks every registered nativeQuery and checks that they all give `expected`. */
  private void expectQuery(boolean expected, String app, String destination) {
    for (Querier querier : queriers) {
      String what = "query(" + app + ", " + destination + ")";
      checkEquals(expected, querier.query(app, destination), what);
    }
  }

  private void build(String document) {
    checkEquals(0, dnsService.nativeBuild(document), "build of " + document);
  }

  private void configure() {
    dnsService.nativeConfigure("", "");
  }

  // ---- the analyzer through the entry points ----

  private void queryBeforeConfigure() {
    expectQuery(false, "com.example.mail", "cdn.shop.test");
  }

  private void buildBeforeConfigure() {
    checkEquals(-1, dnsService.nativeBuild(EXAMPLE), "build before configure");
    checkEquals(-1, udpService.nativeBuild("[]"), "build before configure");
  }

  private void expectExampleAnswers() {
    expectQuery(true, "com.example.mail", "cdn.shop.test");  // rule 1, whole match
    expectQuery(false, "com.example.mail", "ads.other.test");  // rule 1 excludes
    expectQuery(false, "com.example.mail", "ads.shop.test");  // falls back to rule 0: exclude
    expectQuery(true, "com.example.mail", "none.invalid");  // falls back to rule 0: include
    expectQuery(false, "org.unknown.app", "unlisted.test");  // nothing matches: exclude
    expectQuery(true, "org.unknown.app", "none.invalid");  // rule 0 serves unknown apps
    expectQuery(false, "org.unknown.app", "cdn.shop.test");  // rule 1 is mail's alone
  }

  private void exampleDocument() {
    long pid = ProcessHandle.current().pid();
    TestNatives.startLogCapture();
    configure();
    checkEquals(0, tcpService.nativeBuild(EXAMPLE), "build");
    expectExampleAnswers();
    checkEquals(
        List.of(
            nativeRecord(3, ENTRY + "configure: process Id is " + pid),
            nativeRecord(3, ENTRY + "build: process Id is " + pid)),
        captured(),
        "log: one trace each, none for queries");
  }

  private void failedBuildKeepsOldRules() {
    build(EXAMPLE);
    expectQuery(true, "com.example.mail", "cdn.shop.test");  // fills the caches
    TestNatives.startLogCapture();
    checkEquals(-4, udpService.nativeBuild("[{\"include\": [\"cdn.shop.test\"]"), "unbalanced");
    checkEquals(-4, dnsService.nativeBuild("[{}"), "unbalanced text");
    List<String> log = captured();
    checkEquals(2L, log.stream().filter(MALFORMED::equals).count(), "failures logged:\n" + log);
    expectExampleAnswers();
  }

  private void nullArguments() {
    build(EXAMPLE);
    checkEquals(-1, dnsService.nativeBuild(null), "build(null)");
    expectQuery(false, null, "cdn.shop.test");
    expectQuery(false, "com.example.mail", null);
    expectExampleAnswers();
  }

  private void emptyDocument() {
    build(EXAMPLE);
    build("");
    expectQuery(false, "com.example.mail", "cdn.shop.test");
    expectQuery(false, "org.unknown.app", "none.invalid");
    expectQuery(false, "org.unknown.app", "anything.test");
  }

  private void emptyArray() {
    build(EXAMPLE);
    // "[]" is read as "[{}]": one any-application rule whose include "*" matches every
    // destination (an empty document, by contrast, includes nothing).
    build("[]");
    expectQuery(true, "com.example.mail", "cdn.shop.test");
    expectQuery(true, "org.unknown.app", "unlisted.test");
    build("");
    expectQuery(false, "org.unknown.app", "unlisted.test");
    build("[{}]");
    expectQuery(true, "org.unknown.app", "unlisted.test");
  }

  private void secondConfigure() {
    build(EXAMPLE);
    tcpService.nativeConfigure("first", "second");
    expectQuery(false, "com.example.mail", "cdn.shop.test");
    build(EXAMPLE);
    expectExampleAnswers();
  }

  /**
   * Readers hammer every query entry point while a writer alternates between two documents and a
   * broken one. Answers both documents agree on must never change; the others may be either.
   */
  private void queriesDuringRebuilds() throws InterruptedException {
    String before =
        "[{\"match_apps\": [\"app.a\"], \"include\": [\"stable.test\", \"flip.test\"],"
            + " \"exclude\": [\"never.test\"], \"id\": \"1\"}]";
    String after =
        "[{\"match_apps\": [\"app.a\"], \"include\": [\"stable.test\"],"
            + " \"exclude\": [\"never.test\", \"flip.test\"], \"id\": \"2\"}]";
    String broken = "[{\"match_apps\": [\"app.a\"]";
    build(before);
    AtomicInteger wrong = new AtomicInteger();
    AtomicReference<String> firstWrong = new AtomicReference<>();
    AtomicInteger builds = new AtomicInteger();
    List<Thread> threads = new ArrayList<>();
    for (Querier querier : queriers) {
      threads.add(
          new Thread(
              () -> {
                for (int i = 0; i < 3000; i++) {
                  String bad = null;
                  if (!querier.query("app.a", "stable.test")) bad = "stable.test excluded";
                  if (querier.query("app.a", "never.test")) bad = "never.test included";
                  if (querier.query("app.b", "stable.test")) bad = "app.b included";
                  querier.query("app.a", "flip.test");
                  querier.query("app.a", "n" + (i % 150) + ".test");  // cache evictions
                  if (bad != null && wrong.getAndIncrement() == 0) firstWrong.set(bad);
                }
              }));
    }
    threads.add(
        new Thread(
            () -> {
              for (int i = 0; i < 300; i++) {
                String document = i % 2 == 0 ? after : before;
                if (dnsService.nativeBuild(document) != 0) firstWrong.compareAndSet(null, "build");
                if (udpService.nativeBuild(broken) >= 0) firstWrong.compareAndSet(null, "broken");
                builds.incrementAndGet();
              }
            }));
    TestNatives.startLogCapture();  // 300 failed builds: count their lines, keep the output clean
    for (Thread thread : threads) thread.start();
    long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(120);
    for (Thread thread : threads) {
      thread.join(Math.max(1, TimeUnit.NANOSECONDS.toMillis(deadline - System.nanoTime())));
      if (thread.isAlive()) {
        System.out.println("FAIL     queries during rebuilds: no progress in 120 s (deadlock?)");
        System.out.flush();
        Runtime.getRuntime().halt(2);
      }
    }
    checkEquals(300L, captured().stream().filter(MALFORMED::equals).count(), "failures logged");
    checkEquals(null, firstWrong.get(), "first wrong answer (" + wrong.get() + " in all)");
    checkEquals(300, builds.get(), "rebuilds");
    // The writer's last document was `before`.
    expectQuery(true, "app.a", "flip.test");
  }

  // ---- socket helpers ----

  private static boolean inPrivateNetwork() {
    return "1".equals(System.getProperty("tpa.netns"));
  }

  private static void needPrivateNetwork() {
    if (!inPrivateNetwork()) throw new Skipped("needs a private network namespace");
  }

  private static List<String> captured() {
    return Arrays.asList(TestNatives.stopLogCapture());
  }

  private static String nativeRecord(int priority, String text) {
    return priority + "|" + NATIVE_TAG + "|" + text;
  }

  private static List<String> originalAddressLog(int result, String address, int port) {
    return List.of(
        nativeRecord(6, "IPV4 address is detected"),
        nativeRecord(
            6,
            "SO_ORIGINAL_DST result is " + result + " and original IP details are " + address
                + " and the port is " + port));
  }

  private void originalAddressOfIpv6() {
    TestNatives.startLogCapture();
    checkEquals("", tcpServer.nativeGetOriginalSockAddress(AF_INET6, 0), "family 10");
    checkEquals("", tcpV6Server.nativeGetOriginalSockAddress(AF_INET6, -1), "family 10");
    checkEquals("", tcpServer.nativeGetOriginalSockAddress(0, 0), "family 0");
    checkEquals(List.of(), captured(), "log: getsockopt is not called");
  }

  private void originalAddressOfNonSocket() throws IOException {
    try (FileInputStream file = new FileInputStream("/dev/null")) {
      int fd = TestNatives.fdOf(file.getFD());
      check(fd > 2, "descriptor of /dev/null");
      TestNatives.startLogCapture();
      checkEquals("0.0.0.0|0", tcpServer.nativeGetOriginalSockAddress(AF_INET, fd), "file");
      checkEquals(originalAddressLog(-1, "0.0.0.0", 0), captured(), "log");
    }
    checkEquals("0.0.0.0|0", tcpV6Server.nativeGetOriginalSockAddress(AF_INET, -1), "fd -1");
  }

  private void originalAddressOfUntracked() throws IOException {
    needPrivateNetwork();
    try (ServerSocketChannel listener = ServerSocketChannel.open(StandardProtocolFamily.INET);
        DatagramChannel datagram = DatagramChannel.open(StandardProtocolFamily.INET)) {
      listener.bind(new InetSocketAddress("127.0.0.1", 0));
      datagram.bind(new InetSocketAddress("127.0.0.1", 0));
      TestNatives.startLogCapture();
      int listenerFd = TestNatives.fdOf(listener);
      String listening = tcpServer.nativeGetOriginalSockAddress(AF_INET, listenerFd);
      String udp = tcpServer.nativeGetOriginalSockAddress(AF_INET, TestNatives.fdOf(datagram));
      List<String> log = captured();
      checkEquals("0.0.0.0|0", listening, "listening socket");
      checkEquals("0.0.0.0|0", udp, "UDP socket");
      checkEquals(originalAddressLog(-1, "0.0.0.0", 0), log.subList(0, 2), "log");
    }
  }

  private void originalAddressOfRedirected() throws IOException {
    needPrivateNetwork();
    String port = System.getProperty("tpa.redirect.port");
    if (port == null) throw new Skipped("needs root and iptables to redirect 127.0.0.2");
    try (ServerSocketChannel listener = ServerSocketChannel.open(StandardProtocolFamily.INET)) {
      listener.bind(new InetSocketAddress("127.0.0.1", Integer.parseInt(port)));
      for (int original : new int[] {443, 65535}) {
        try (SocketChannel client = SocketChannel.open(StandardProtocolFamily.INET)) {
          client.connect(new InetSocketAddress("127.0.0.2", original));
          try (SocketChannel accepted = listener.accept()) {
            int fd = TestNatives.fdOf(accepted);
            TestNatives.startLogCapture();
            String answer = tcpServer.nativeGetOriginalSockAddress(AF_INET, fd);
            List<String> log = captured();
            checkEquals("127.0.0.2|" + original, answer, "accepted socket");
            checkEquals(originalAddressLog(0, "127.0.0.2", original), log, "log");
            checkEquals(
                "127.0.0.2|" + original,
                tcpV6Server.nativeGetOriginalSockAddress(AF_INET, fd),
                "through the IPv6 server's registration");
          }
        }
      }
    }
  }

  private void setNetworkMarksSocket() throws IOException {
    needPrivateNetwork();
    try (DatagramChannel socket = DatagramChannel.open(StandardProtocolFamily.INET)) {
      int fd = TestNatives.fdOf(socket);
      if (TestNatives.setSocketMark(fd, 0) != 0) throw new Skipped("needs CAP_NET_ADMIN");
      TestNatives.startLogCapture();
      udpServer.nativeSetNetworForSocketFd(fd, 42);
      checkEquals(42, TestNatives.socketMark(fd), "mark after udp server");
      udpV6Server.nativeSetNetworForSocketFd(fd, 100);
      checkEquals(100, TestNatives.socketMark(fd), "mark after udp v6 server");
      tcpServer.nativeSetNetworForSocketFd(fd, 0x7fffffff);
      checkEquals(0x7fffffff, TestNatives.socketMark(fd), "mark after tcp server");
      tcpV6Server.nativeSetNetworForSocketFd(fd, -1);  // network ids are unsigned
      checkEquals(-1, TestNatives.socketMark(fd), "mark after tcp v6 server");
      httpServer.nativeSetNetworForSocketFd(fd, 7);
      checkEquals(7, TestNatives.socketMark(fd), "mark after http server");
      httpServer.nativeSetNetworForSocketFd(-1, 9);  // a bad descriptor is ignored
      checkEquals(List.of(), captured(), "log: nothing is logged");
    }
  }

  private void ipOptionsAreLogged() throws IOException {
    String none = nativeRecord(6, "check if ip options is set 0x00, 0x00");
    TestNatives.startLogCapture();
    tcpServer.nativeGetIpOptions(-1);
    checkEquals(List.of(none), captured(), "log of a bad descriptor");
    needPrivateNetwork();
    try (SocketChannel socket = SocketChannel.open(StandardProtocolFamily.INET)) {
      int fd = TestNatives.fdOf(socket);
      TestNatives.startLogCapture();
      tcpV6Server.nativeGetIpOptions(fd);
      checkEquals(List.of(none), captured(), "log without options");
      checkEquals(0, TestNatives.setRecordRoute(fd), "set record route");
      TestNatives.startLogCapture();
      tcpServer.nativeGetIpOptions(fd);
      checkEquals(
          List.of(nativeRecord(6, "check if ip options is set 0x07, 0x07")),
          captured(),
          "log with a record-route option");
    }
  }

  private void utf16RoundTrip() {
    String[] samples = {"", "com.example.mail", "bücher.test", "\u65e5\u672c", "\ud83d\ude00x",
        "\ud800 lone", "nul\u0000inside"};
    for (String sample : samples) {
      checkEquals(sample, TestNatives.roundTrip16(sample), "round trip");
      checkEquals(sample.length(), TestNatives.length16(sample), "units of " + sample);
    }
    checkEquals("", TestNatives.roundTrip16(null), "null reads as empty");
  }

  // ---- registration, in JVMs of their own ----

  /** Output and exit code of a child JVM running the registration probe on `classPath`. */
  private static final class Child {
    final String output;
    final int exitCode;

    Child(String output, int exitCode) {
      this.output = output;
      this.exitCode = exitCode;
    }
  }

  private static Child runProbe(String classPath) throws IOException, InterruptedException {
    String java = String.join(File.separator, System.getProperty("java.home"), "bin", "java");
    String command =
        "ulimit -c 0; exec \"$0\" -Xcheck:jni -Djava.library.path=\"$1\" -cp \"$2\""
            + " tpa.jvmtest.RegistrationProbe";
    Process process =
        new ProcessBuilder(
                "/bin/sh", "-c", command, java, System.getProperty("java.library.path"), classPath)
            .redirectErrorStream(true)
            .start();
    process.getOutputStream().close();
    String output;
    try (InputStream in = process.getInputStream()) {
      output = new String(in.readAllBytes(), StandardCharsets.UTF_8);
    }
    if (!process.waitFor(60, TimeUnit.SECONDS)) {
      process.destroyForcibly();
      throw new AssertionError("child JVM did not finish");
    }
    return new Child(output, process.exitValue());
  }

  private static String probePath(String property) {
    String path = System.getProperty(property);
    if (path == null) throw new Skipped(property + " is not set");
    return path;
  }

  private void failedRegistration() throws Exception {
    Child child = runProbe(probePath("tpa.broken.cp"));
    String output = child.output;
    String failing = "com/velmora/android/tarn/app/networkfilter/tcp/DefaultHttpProxyServer";
    String failure = "RegisterNatives failed for '" + failing + "'; aborting...";
    check(output.contains("java.lang.NoSuchMethodError: "), "exception logged:\n" + output);
    check(output.contains(failure), "failure logged:\n" + output);
    check(output.contains("probe: last class answers ''"), "later class registered:\n" + output);
    check(!output.contains("WARNING in native method"), "clean JNI use:\n" + output);
    checkEquals(0, child.exitCode, "exit code");
  }

  private void missingClass() throws Exception {
    Child child = runProbe(probePath("tpa.probe.cp"));
    String output = child.output;
    String first = "com/velmora/android/tarn/app/networkfilter/dns/DefaultDnsProxyService";
    String abort = "Native registration unable to find class '" + first + "'; aborting...";
    check(output.contains(abort), "abort message:\n" + output);
    check(!output.contains("probe: loaded"), "the load did not return:\n" + output);
    check(child.exitCode != 0, "process aborted");
  }
}
