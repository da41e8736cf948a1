package com.velmora.android.tarn.app.networkfilter.tcp;

// Stand-in for the service's HTTP proxy server: declares exactly the native methods that the
// library registers on it.
public class DefaultHttpProxyServer {
  public native boolean nativeQuery(String app, String destination);

  public native void nativeSetNetworForSocketFd(int fd, int netId);
}
