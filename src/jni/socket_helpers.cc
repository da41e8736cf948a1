#include "jni/socket_helpers.h"

#include <android/log.h>
#include <arpa/inet.h>
#include <linux/netfilter_ipv4.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>

#include "base/log.h"
#include "netd_client.h"

namespace android {

namespace {

// Only the first option's type and length bytes are read back.
constexpr socklen_t kIpOptionsBufferSize = 36;
constexpr size_t kPortBufferSize = 32;

}  // namespace

void com_velmora_android_tarn_app_networkfilter_native_setNetworkForSocketFd(JNIEnv* /*env*/,
                                                                             jobject /*thiz*/,
                                                                             jint fd, jint netId) {
  // Java passes (fd, netId); the network client takes them the other way round.
  (void)setNetworkForSocket(static_cast<unsigned>(netId), fd);
}

jstring com_velmora_android_tarn_app_networkfilter_native_getOriginalSockAddress(JNIEnv* env,
                                                                                 jobject /*thiz*/,
                                                                                 jint family,
                                                                                 jint fd) {
  if (family != AF_INET) return env->NewStringUTF("");
  __android_log_print(tpa::log::kError, tpa::log::kNativeTag, "IPV4 address is detected");
  static_assert(sizeof(sockaddr_in) == 16, "an IPv4 socket address is 16 bytes");
  sockaddr_in address{};
  socklen_t length = sizeof address;
  // A failure leaves the address zeroed: "0.0.0.0|0" is the answer then.
  int result = getsockopt(fd, SOL_IP, SO_ORIGINAL_DST, &address, &length);
  const char* dotted = inet_ntoa(address.sin_addr);  // a per-thread buffer
  int port = ntohs(address.sin_port);
  __android_log_print(
      tpa::log::kError, tpa::log::kNativeTag,
      "SO_ORIGINAL_DST result is %d and original IP details are %s and the port is %d", result,
      dotted, port);
  // Formatted in place: nothing here can fail to allocate.
  char text[INET_ADDRSTRLEN + kPortBufferSize + 1] = {};
  std::snprintf(text, sizeof text, "%s|%d", dotted, port);
  return env->NewStringUTF(text);
}

void com_velmora_android_tarn_app_networkfilter_native_getIpOption(JNIEnv* /*env*/,
                                                                   jobject /*thiz*/, jint fd) {
  unsigned char options[kIpOptionsBufferSize] = {};
  socklen_t length = sizeof options;
  (void)getsockopt(fd, IPPROTO_IP, IP_OPTIONS, options, &length);
  __android_log_print(tpa::log::kError, tpa::log::kNativeTag,
                      "check if ip options is set 0x%02x, 0x%02x", options[0], options[1]);
}

}  // namespace android
