package com.velmora.android.tarn.app.networkfilter.dns;

// Stand-in for the service's IPv6 DNS proxy server: declares exactly the native methods that the
// library registers on it.
public class DefaultDnsV6ProxyServer {
  public native boolean nativeQuery(String app, String destination);
}
