package tpa.jvmtest;

// Loads the library in a JVM of its own, where the test driver chooses what the class path offers
// (a proxy class missing, or one declaring too few natives), then shows whether the registrations
// after a failed one still work.
public final class RegistrationProbe {
  private RegistrationProbe() {}

  public static void main(String[] args) {
    System.loadLibrary("jni_tarnnwfilterparser");
    System.out.println("probe: loaded");
    System.out.println("probe: last class answers '" + ProbeCalls.lastRegisteredClass() + "'");
  }
}
