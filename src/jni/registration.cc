#include "jni/registration.h"

#include <android/log.h>

#include <cstddef>

#include "base/log.h"
#include "jni/jni_help.h"
#include "jni/native_handler.h"
#include "jni/socket_helpers.h"

namespace android {

namespace {

// One row of a method table. JNINativeMethod takes non-const strings in older
// JNI headers; the JVM never writes through them.
template <typename Function>
JNINativeMethod row(const char* name, const char* signature, Function* function) {
  return {const_cast<char*>(name), const_cast<char*>(signature), reinterpret_cast<void*>(function)};
}

JNINativeMethod configureRow() {
  return row("nativeConfigure", "(Ljava/lang/String;Ljava/lang/String;)V",
             com_velmora_android_tarn_app_networkfilter_native_configure);
}
JNINativeMethod buildRow() {
  return row("nativeBuild", "(Ljava/lang/String;)I",
             com_velmora_android_tarn_app_networkfilter_native_build);
}
JNINativeMethod queryRow() {
  return row("nativeQuery", "(Ljava/lang/String;Ljava/lang/String;)Z",
             com_velmora_android_tarn_app_networkfilter_native_query);
}
JNINativeMethod setNetworkRow() {
  return row("nativeSetNetworForSocketFd", "(II)V",
             com_velmora_android_tarn_app_networkfilter_native_setNetworkForSocketFd);
}
JNINativeMethod originalAddressRow() {
  return row("nativeGetOriginalSockAddress", "(II)Ljava/lang/String;",
             com_velmora_android_tarn_app_networkfilter_native_getOriginalSockAddress);
}
JNINativeMethod ipOptionsRow() {
  return row("nativeGetIpOptions", "(I)V",
             com_velmora_android_tarn_app_networkfilter_native_getIpOption);
}

// A class and the table registered on it.
struct Registration {
  template <size_t N>
  Registration(const char* name, const JNINativeMethod (&methods)[N])
      : className(name), table(methods), rows(static_cast<int>(N)) {}

  const char* className;
  const JNINativeMethod* table;
  int rows;
};

}  // namespace

int register_com_velmora_android_tarn_app_networkfilter_native(JNIEnv* env) {
  const JNINativeMethod service[] = {configureRow(), buildRow()};
  const JNINativeMethod query[] = {queryRow()};
  const JNINativeMethod udp[] = {setNetworkRow(), queryRow()};
  const JNINativeMethod tcp[] = {originalAddressRow(), setNetworkRow(), ipOptionsRow(), queryRow()};
  const JNINativeMethod http[] = {queryRow(), setNetworkRow()};
  const Registration registrations[] = {
      {"com/velmora/android/tarn/app/networkfilter/dns/DefaultDnsProxyService", service},
      {"com/velmora/android/tarn/app/networkfilter/tcp/DefaultTcpProxyService", service},
      {"com/velmora/android/tarn/app/networkfilter/udp/DefaultUdpProxyService", service},
      {"com/velmora/android/tarn/app/networkfilter/dns/DefaultDnsProxyServer", query},
      {"com/velmora/android/tarn/app/networkfilter/dns/DefaultDnsV6ProxyServer", query},
      {"com/velmora/android/tarn/app/networkfilter/udp/DefaultUdpProxyServer", udp},
      {"com/velmora/android/tarn/app/networkfilter/udp/DefaultUdpV6ProxyServer", udp},
      {"com/velmora/android/tarn/app/networkfilter/tcp/DefaultTcpV6ProxyServer", tcp},
      {"com/velmora/android/tarn/app/networkfilter/tcp/DefaultHttpProxyServer", http},
      {"com/velmora/android/tarn/app/networkfilter/tcp/DefaultTcpProxyServer", tcp},
  };
  int result = 0;
  for (const Registration& r : registrations) {
    result = jniRegisterNativeMethods(env, r.className, r.table, r.rows);
  }
  return result;
}

}  // namespace android

// The library's entry point, called by the JVM when the library is loaded.
extern "C" JNIEXPORT jint JNI_OnLoad(JavaVM* vm, void* /*reserved*/) {
  JNIEnv* env = nullptr;
  if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) != JNI_OK) {
    __android_log_print(tpa::log::kError, tpa::log::kNativeTag, "ERROR: GetEnv failed");
    return -1;
  }
  (void)android::register_com_velmora_android_tarn_app_networkfilter_native(env);
  return JNI_VERSION_1_6;
}
