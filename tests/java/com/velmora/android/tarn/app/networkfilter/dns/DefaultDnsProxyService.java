package com.velmora.android.tarn.app.networkfilter.dns;

// Stand-in for the service's DNS proxy service: declares exactly the native methods that the
// library registers on it.
public class DefaultDnsProxyService {
  public native void nativeConfigure(String first, String second);

  public native int nativeBuild(String rules);
}
