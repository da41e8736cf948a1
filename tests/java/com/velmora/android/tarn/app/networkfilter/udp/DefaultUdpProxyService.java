package com.velmora.android.tarn.app.networkfilter.udp;

// Stand-in for the service's UDP proxy service: declares exactly the native methods that the
// library registers on it.
public class DefaultUdpProxyService {
  public native void nativeConfigure(String first, String second);

  public native int nativeBuild(String rules);
}
