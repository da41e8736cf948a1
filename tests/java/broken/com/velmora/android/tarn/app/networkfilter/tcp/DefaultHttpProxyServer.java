package com.velmora.android.tarn.app.networkfilter.tcp;

// A proxy class that lacks one of the natives of its table, so that its registration fails.
public class DefaultHttpProxyServer {
  public native boolean nativeQuery(String app, String destination);
}
