package tpa.jvmtest;

import com.velmora.android.tarn.app.networkfilter.tcp.DefaultTcpProxyServer;

// Calls into the proxy classes only after the library is loaded.
final class ProbeCalls {
  private ProbeCalls() {}

  // Calls a native of the class registered last: "" when it was registered.
  static String lastRegisteredClass() {
    return new DefaultTcpProxyServer().nativeGetOriginalSockAddress(10, 0);
  }
}
