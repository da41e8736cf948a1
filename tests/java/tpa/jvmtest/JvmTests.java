package tpa.jvmtest;

import static java.net.StandardProtocolFamily.INET;

import com.velmora.android.tarn.app.networkfilter.dns.*;
import com.velmora.android.tarn.app.networkfilter.tcp.*;
import com.velmora.android.tarn.app.networkfilter.udp.*;
import java.net.InetSocketAddress;
import java.nio.channels.*;
import java.util.*;
import java.util.concurrent.atomic.*;
import java.util.function.*;

// The JNI library in a real JVM: registration on the proxy classes, configure, build and query,
// and the socket helpers. Prints one line per test and the summary "N passed, M failed" (plus
// ", K skipped"); exits non-zero when a test failed.
//
// The wrapper script sets tpa.netns=1 when the JVM runs in a private network namespace with
// loopback up (socket tests run only there), tpa.redirect.port when iptables redirects
// 127.0.0.2:443 and 127.0.0.2:65535 to that local port, and tpa.probe.cp / tpa.broken.cp for the
// child JVMs of the registration tests.
public final class JvmTests {
  private static final String NATIVE_TAG = "tarnnwfilternativehandler";
  private static final int AF_INET = 2;
  // Two rules: com.example.mail's own (rule 1, id 7) and the any-application rule (id 9).
  static final String EXAMPLE =
      ("[{'match_apps': ['com.example.mail'], 'include': ['cdn.shop.test'], 'exclude':"
          + " ['ads.other.test'], 'id': '7'}, {'match_apps': ['#LAMBDA-APP'], 'include':"
          + " ['none.invalid'], 'exclude': ['ads.shop.test'], 'id': '9'}]").replace('\'', '"');

  private int passed, failed, skipped;

  private final DefaultDnsProxyService dnsService = new DefaultDnsProxyService();
  private final DefaultTcpProxyService tcpService = new DefaultTcpProxyService();
  private final DefaultUdpProxyService udpService = new DefaultUdpProxyService();
  private final DefaultTcpProxyServer tcpServer = new DefaultTcpProxyServer();
  private final DefaultTcpV6ProxyServer tcpV6Server = new DefaultTcpV6ProxyServer();
  private final DefaultUdpProxyServer udpServer = new DefaultUdpProxyServer();
  private final DefaultUdpV6ProxyServer udpV6Server = new DefaultUdpV6ProxyServer();
  private final DefaultHttpProxyServer httpServer = new DefaultHttpProxyServer();
  // Every registered nativeQuery: they all ask the one process-wide analyzer.
  private final List<BiPredicate<String, String>> queriers =
      List.of(new DefaultDnsProxyServer()::nativeQuery, new DefaultDnsV6ProxyServer()::nativeQuery,
          udpServer::nativeQuery, udpV6Server::nativeQuery, tcpServer::nativeQuery,
          tcpV6Server::nativeQuery, httpServer::nativeQuery);

  interface Body { void run() throws Exception; }

  // Thrown by a test that cannot run here; it is counted as skipped, never as passed.
  @SuppressWarnings("serial")
  static final class Skipped extends RuntimeException {
    Skipped(String why) { super(why); }
  }

  public static void main(String[] args) {
    System.loadLibrary("jni_tarnnwfilterparser");
    System.exit(new JvmTests().runAll());
  }

  // Runs every test, prints the summary and returns the exit code.
  private int runAll() {
    // Before any configure: these must run first.
    test("query before configure is false", () -> expectQuery(false, "com.example.mail", "x"));
    test("build before configure is -1", () -> checkEquals(-1, dnsService.nativeBuild("[]"), ""));
    test("the example document through build and query", this::exampleDocument);
    test("a failed build keeps the old rules; configure drops them", this::failedBuildKeepsOldRules);
    test("queries on every proxy thread while builds run", this::queriesDuringBuilds);
    test("original address: empty for family 10, zero untracked", this::originalAddressOfUntracked);
    test("original address of a redirected connection", this::originalAddressOfRedirected);
    test("set network marks the socket", this::setNetworkMarksSocket);
    test("ip options are logged", this::ipOptionsAreLogged);
    test("UTF-16 helpers keep every unit", this::utf16RoundTrip);
    test("a failed registration lets the others run", this::failedRegistration);
    test("a missing class aborts the load", this::missingClass);
    String summary = passed + " passed, " + failed + " failed";
    System.out.println(summary + (skipped > 0 ? ", " + skipped + " skipped" : ""));
    return failed == 0 ? 0 : 1;
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

  static void checkEquals(Object expected, Object actual, String what) {
    if (!Objects.equals(expected, actual)) {
      throw new AssertionError(what + ": expected <" + expected + "> but was <" + actual + ">");
    }
  }

  // Asks every registered nativeQuery and checks that they all give `expected`.
  private void expectQuery(boolean expected, String app, String destination) {
    for (BiPredicate<String, String> querier : queriers) {
      checkEquals(expected, querier.test(app, destination), app + " " + destination);
    }
  }

  private static List<String> captured() {
    return List.of(TestNatives.stopLogCapture());
  }

  // The log records written while `action` runs.
  private static List<String> logOf(Runnable action) {
    TestNatives.startLogCapture();
    action.run();
    return captured();
  }

  private static String nativeRecord(int priority, String text) {
    return priority + "|" + NATIVE_TAG + "|" + text;
  }

  // ---- the analyzer through the entry points ----

  private void expectExampleAnswers() {
    expectQuery(true, "com.example.mail", "cdn.shop.test"); // rule 1, whole match
    expectQuery(false, "com.example.mail", "ads.other.test"); // rule 1 excludes
    expectQuery(false, "com.example.mail", "ads.shop.test"); // falls back to rule 0: exclude
    expectQuery(false, "org.unknown.app", "cdn.shop.test"); // rule 1 is mail's alone
  }

  private void exampleDocument() {
    String trace = nativeRecord(3, "com_velmora_android_tarn_app_networkfilter_native_");
    String pid = ": process Id is " + ProcessHandle.current().pid();
    TestNatives.startLogCapture();
    dnsService.nativeConfigure("", "");
    checkEquals(0, tcpService.nativeBuild(EXAMPLE), "build");
    expectExampleAnswers();
    List<String> traces = List.of(trace + "configure" + pid, trace + "build" + pid);
    checkEquals(traces, captured(), "log: one trace each, none for queries");
  }

  private void failedBuildKeepsOldRules() {
    checkEquals(0, dnsService.nativeBuild(EXAMPLE), "build");
    expectQuery(true, "com.example.mail", "cdn.shop.test"); // fills the caches
    checkEquals(-4, udpService.nativeBuild("[{\"include\": [\"cdn.shop.test\"]"), "unbalanced");
    checkEquals(-1, tcpService.nativeBuild(null), "build(null)");
    expectQuery(false, null, "cdn.shop.test");
    expectQuery(false, "com.example.mail", null);
    expectExampleAnswers();
    tcpService.nativeConfigure("first", "second"); // a fresh analyzer, not yet built
    expectQuery(false, "com.example.mail", "cdn.shop.test");
  }

  // One thread per registered nativeQuery asks without pause while this one rebuilds, alternating
  // two documents with a broken one. Answers both documents agree on never change; the one they
  // differ on is the last built document's whenever no build ran during the query.
  private void queriesDuringBuilds() throws Exception {
    String[] docs = {EXAMPLE, EXAMPLE.replace("none.invalid", "mail.shop.test")};
    checkEquals(0, dnsService.nativeBuild(docs[0]), "build");
    AtomicInteger started = new AtomicInteger(), completed = new AtomicInteger();
    AtomicInteger wrong = new AtomicInteger(), settled = new AtomicInteger();
    AtomicBoolean done = new AtomicBoolean();
    List<Thread> threads = new ArrayList<>();
    for (BiPredicate<String, String> querier : queriers) {
      threads.add(new Thread(() -> {
        while (!done.get()) {
          if (!querier.test("com.example.mail", "cdn.shop.test")) wrong.incrementAndGet();
          if (querier.test("com.example.mail", "ads.other.test")) wrong.incrementAndGet();
          int before = completed.get();
          boolean idle = started.get() == before;
          boolean flip = querier.test("org.unknown.app", "mail.shop.test");
          if (idle && started.get() == before) {
            settled.incrementAndGet();
            if (flip != (before % 2 == 1)) wrong.incrementAndGet();
          }
        }
      }));
    }
    threads.forEach(Thread::start);
    try {
      for (int k = 1; k <= 300; k++) {
        started.set(k);
        checkEquals(0, tcpService.nativeBuild(docs[k % 2]), "build " + k);
        completed.set(k);
        checkEquals(-4, udpService.nativeBuild("[{\"include\": [\"x\"]"), "unbalanced");
      }
    } finally {
      done.set(true);
      for (Thread thread : threads) thread.join();
    }
    checkEquals(0, wrong.get(), "answers of neither document, or of the one replaced");
    checkEquals(true, settled.get() > 0, "queries with no build running");
    expectExampleAnswers();
  }

  // ---- socket helpers ----

  private static void needPrivateNetwork() {
    if (!"1".equals(System.getProperty("tpa.netns"))) throw new Skipped("no private network");
  }

  private static List<String> originalAddressLog(int result, String address, int port) {
    return List.of(nativeRecord(6, "IPV4 address is detected"), nativeRecord(6, "SO_ORIGINAL_DST"
        + " result is " + result + " and original IP details are " + address + " and the port is "
        + port));
  }

  private void expectUntracked(int fd, String what) {
    TestNatives.startLogCapture();
    checkEquals("0.0.0.0|0", tcpServer.nativeGetOriginalSockAddress(AF_INET, fd), what);
    checkEquals(originalAddressLog(-1, "0.0.0.0", 0), captured(), "log of " + what);
  }

  // Family 10 is not looked up (nor logged). No descriptor, a listening and a UDP socket: none has
  // an original destination. (With connection tracking, a plain connected TCP socket reports its
  // real one.)
  private void originalAddressOfUntracked() throws Exception {
    TestNatives.startLogCapture();
    checkEquals("", tcpServer.nativeGetOriginalSockAddress(10, 0), "family 10");
    checkEquals("", tcpV6Server.nativeGetOriginalSockAddress(10, -1), "family 10");
    checkEquals(List.of(), captured(), "log: getsockopt is not called");
    expectUntracked(-1, "no descriptor");
    needPrivateNetwork();
    InetSocketAddress loopback = new InetSocketAddress("127.0.0.1", 0);
    try (ServerSocketChannel listener = ServerSocketChannel.open(INET).bind(loopback);
        DatagramChannel datagram = DatagramChannel.open(INET).bind(loopback)) {
      expectUntracked(TestNatives.fdOf(listener), "a listening socket");
      expectUntracked(TestNatives.fdOf(datagram), "a UDP socket");
    }
  }

  private void originalAddressOfRedirected() throws Exception {
    needPrivateNetwork();
    String listening = System.getProperty("tpa.redirect.port");
    if (listening == null) throw new Skipped("needs root and iptables to redirect 127.0.0.2");
    try (ServerSocketChannel listener = ServerSocketChannel.open(INET)) {
      listener.bind(new InetSocketAddress("127.0.0.1", Integer.parseInt(listening)));
      for (int port : new int[] {443, 65535}) {
        try (SocketChannel client = SocketChannel.open(INET)) {
          client.connect(new InetSocketAddress("127.0.0.2", port));
          try (SocketChannel accepted = listener.accept()) {
            int fd = TestNatives.fdOf(accepted);
            TestNatives.startLogCapture();
            String answer = tcpServer.nativeGetOriginalSockAddress(AF_INET, fd);
            checkEquals(originalAddressLog(0, "127.0.0.2", port), captured(), "log");
            checkEquals("127.0.0.2|" + port, answer, "accepted socket");
          }
        }
      }
    }
  }

  private void setNetworkMarksSocket() throws Exception {
    needPrivateNetwork();
    List<BiConsumer<Integer, Integer>> setters =
        List.of(udpServer::nativeSetNetworForSocketFd, udpV6Server::nativeSetNetworForSocketFd,
            tcpServer::nativeSetNetworForSocketFd, tcpV6Server::nativeSetNetworForSocketFd,
            httpServer::nativeSetNetworForSocketFd);
    int[] marks = {42, 100, 0x7fffffff, -1, 7}; // network ids are unsigned: -1 is 0xffffffff
    try (DatagramChannel socket = DatagramChannel.open(INET)) {
      int fd = TestNatives.fdOf(socket);
      if (TestNatives.setSocketMark(fd, 0) != 0) throw new Skipped("needs CAP_NET_ADMIN");
      TestNatives.startLogCapture();
      for (int i = 0; i < marks.length; i++) {
        setters.get(i).accept(fd, marks[i]);
        checkEquals(marks[i], TestNatives.socketMark(fd), "mark set through registration " + i);
      }
      httpServer.nativeSetNetworForSocketFd(-1, 9); // a bad descriptor is ignored
      checkEquals(List.of(), captured(), "log: nothing is logged");
    }
  }

  private void ipOptionsAreLogged() throws Exception {
    List<String> none = List.of(nativeRecord(6, "check if ip options is set 0x00, 0x00"));
    checkEquals(none, logOf(() -> tcpServer.nativeGetIpOptions(-1)), "log of a bad descriptor");
    needPrivateNetwork();
    try (SocketChannel socket = SocketChannel.open(INET)) {
      int fd = TestNatives.fdOf(socket);
      checkEquals(none, logOf(() -> tcpV6Server.nativeGetIpOptions(fd)), "log without options");
      checkEquals(0, TestNatives.setRecordRoute(fd), "set record route");
      List<String> recordRoute = List.of(nativeRecord(6, "check if ip options is set 0x07, 0x07"));
      checkEquals(recordRoute, logOf(() -> tcpServer.nativeGetIpOptions(fd)), "record route");
    }
  }

  private void utf16RoundTrip() {
    String[] samples = {"", "\u65e5\u672c", "\ud83d\ude00x", "\ud800 lone", "n\u0000ul"};
    for (String sample : samples) {
      checkEquals(sample, TestNatives.roundTrip16(sample), "round trip");
      checkEquals(sample.length(), TestNatives.length16(sample), "units of " + sample);
    }
    checkEquals("", TestNatives.roundTrip16(null), "null reads as empty");
  }

  // ---- registration, in JVMs of their own ----

  // The output of a child JVM running the registration probe on the class path named by
  // `property`, and its exit code.
  record Child(String output, int exitCode) {}

  private static Child runProbe(String property) throws Exception {
    String classPath = System.getProperty(property);
    if (classPath == null) throw new Skipped(property + " is not set");
    String java = ProcessHandle.current().info().command().orElse("java");
    String command = "ulimit -c 0; exec \"$0\" -Xcheck:jni -Djava.library.path=\"$1\" -cp \"$2\""
        + " tpa.jvmtest.RegistrationProbe";
    Process process = new ProcessBuilder("/bin/sh", "-c", command, java,
            System.getProperty("java.library.path"), classPath).redirectErrorStream(true).start();
    String output = new String(process.getInputStream().readAllBytes()); // until the child exits
    return new Child(output, process.waitFor());
  }

  private void failedRegistration() throws Exception {
    Child child = runProbe("tpa.broken.cp");
    String failing = "com/velmora/android/tarn/app/networkfilter/tcp/DefaultHttpProxyServer";
    String failure = "RegisterNatives failed for '" + failing + "'; aborting...";
    for (String part : new String[] {"NoSuchMethodError: ", failure, "last class answers ''"}) {
      checkEquals(true, child.output().contains(part), part + " in:\n" + child.output());
    }
    checkEquals(false, child.output().contains("WARNING in native method"), "JNI misuse");
    checkEquals(0, child.exitCode(), "exit code");
  }

  private void missingClass() throws Exception {
    Child child = runProbe("tpa.probe.cp");
    String first = "com/velmora/android/tarn/app/networkfilter/dns/DefaultDnsProxyService";
    String abort = "Native registration unable to find class '" + first + "'; aborting...";
    checkEquals(true, child.output().contains(abort), "abort message in:\n" + child.output());
    checkEquals(false, child.output().contains("probe: loaded"), "the load returned");
    checkEquals(true, child.exitCode() != 0, "process aborted");
  }
}
