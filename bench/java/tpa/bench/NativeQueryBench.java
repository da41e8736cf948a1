package tpa.bench;

import com.velmora.android.tarn.app.networkfilter.dns.DefaultDnsProxyServer;
import com.velmora.android.tarn.app.networkfilter.dns.DefaultDnsProxyService;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;

/**
 * Time of one nativeQuery round trip from the JVM, as the proxies make it: the two Java strings
 * cross into the library, the query runs under the analyzer's lock, a boolean comes back.
 *
 * <p>Usage: NativeQueryBench SIZE RULES.json STREAM.tsv [QUERIES]. Builds the rules through
 * nativeBuild, warms the JIT on the stream, then times rounds over it and prints one JSON line with
 * the median nanoseconds per query.
 */
public final class NativeQueryBench {
  private static final int ROUNDS = 7;

  private NativeQueryBench() {}

  public static void main(String[] args) throws IOException {
    if (args.length < 3) {
      System.err.println("usage: NativeQueryBench SIZE RULES.json STREAM.tsv [QUERIES]");
      System.exit(2);
    }
    final String size = args[0];
    final String rules = Files.readString(Path.of(args[1]), StandardCharsets.UTF_8);
    final Path streamPath = Path.of(args[2]);
    final int limit = args.length > 3 ? Integer.parseInt(args[3]) : 200_000;

    final List<String> lines = Files.readAllLines(streamPath, StandardCharsets.UTF_8);
    final int n = Math.min(limit, lines.size());
    final String[] apps = new String[n];
    final String[] destinations = new String[n];
    for (int i = 0; i < n; i++) {
      final String line = lines.get(i);
      final int tab = line.indexOf('\t');
      apps[i] = line.substring(0, tab);
      destinations[i] = line.substring(tab + 1);
    }

    System.loadLibrary("jni_tarnnwfilterparser");
    final DefaultDnsProxyService service = new DefaultDnsProxyService();
    service.nativeConfigure("bench", "bench");
    final long buildStart = System.nanoTime();
    final int built = service.nativeBuild(rules);
    final long buildNanos = System.nanoTime() - buildStart;
    if (built != 0) {
      System.err.println("nativeBuild failed: " + built);
      System.exit(1);
    }

    final DefaultDnsProxyServer server = new DefaultDnsProxyServer();
    int included = 0;
    for (int warm = 0; warm < 3; warm++) {
      included = round(server, apps, destinations);
    }
    final double[] nanosPerQuery = new double[ROUNDS];
    for (int r = 0; r < ROUNDS; r++) {
      final long start = System.nanoTime();
      included = round(server, apps, destinations);
      nanosPerQuery[r] = (double) (System.nanoTime() - start) / n;
    }
    Arrays.sort(nanosPerQuery);
    final String stream = streamPath.getFileName().toString().replaceAll("^\\d+-|\\.tsv$", "");
    System.out.printf(
        "{\"size\": %s, \"stream\": \"%s\", \"queries\": %d, \"ns_per_query\": %.1f,"
            + " \"build_ms\": %.1f, \"included\": %d}%n",
        size, stream, n, nanosPerQuery[ROUNDS / 2], buildNanos / 1e6, included);
  }

  private static int round(DefaultDnsProxyServer server, String[] apps, String[] destinations) {
    int included = 0;
    for (int i = 0; i < apps.length; i++) {
      if (server.nativeQuery(apps[i], destinations[i])) {
        included++;
      }
    }
    return included;
  }
}
