package com.velmora.android.tarn.app.networkfilter.tcp;

// Stand-in for the service's TCP proxy service: declares exactly the native methods that the
// library registers on it.
public class DefaultTcpProxyService {
  public native void nativeConfigure(String first, String second);

  public native int nativeBuild(String rules);
}
