package com.velmora.android.tarn.app.networkfilter.tcp;

// Stand-in for the service's IPv6 TCP proxy server: declares exactly the native methods that the
// library registers on it.
public class DefaultTcpV6ProxyServer {
  public native String nativeGetOriginalSockAddress(int family, int fd);

  public native void nativeSetNetworForSocketFd(int fd, int netId);

  public native void nativeGetIpOptions(int fd);

  public native boolean nativeQuery(String app, String destination);
}
