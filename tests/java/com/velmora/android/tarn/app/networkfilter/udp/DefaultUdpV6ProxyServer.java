package com.velmora.android.tarn.app.networkfilter.udp;

// Stand-in for the service's IPv6 UDP proxy server: declares exactly the native methods that the
// library registers on it.
public class DefaultUdpV6ProxyServer {
  public native void nativeSetNetworForSocketFd(int fd, int netId);

  public native boolean nativeQuery(String app, String destination);
}
