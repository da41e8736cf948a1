package tpa.jvmtest;

// Test-only natives (libtpa_jvmtest_helper): descriptors, socket options, log capture.
final class TestNatives {
  static {
    System.loadLibrary("tpa_jvmtest_helper");
  }

  private TestNatives() {}

  // The descriptor of an NIO channel.
  static native int fdOf(Object channel);

  // The socket's SO_MARK, or -errno.
  static native int socketMark(int fd);

  // Sets SO_MARK directly; 0 or -errno (-1 is EPERM: no CAP_NET_ADMIN).
  static native int setSocketMark(int fd, int mark);

  // Sets a record-route IP option (type 7, length 7); 0 or -errno.
  static native int setRecordRoute(int fd);

  // Captures every Android log record from now on, debug ones included.
  static native void startLogCapture();

  // The records captured since startLogCapture, as "priority|tag|text".
  static native String[] stopLogCapture();

  // The string through the bridge's UTF-16 helpers and back.
  static native String roundTrip16(String text);

  // The number of UTF-16 units the bridge's helper reads from the string.
  static native int length16(String text);
}
