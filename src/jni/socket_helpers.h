// The proxies' socket operations: bind a socket to a network, read the
// original IPv4 destination of a redirected connection, log a socket's IP
// options. None reports a failure to Java, and none touches shared state, so
// any thread may call them.
#ifndef TPA_JNI_SOCKET_HELPERS_H_
#define TPA_JNI_SOCKET_HELPERS_H_

#include <jni.h>

namespace android {

// Binds `fd` to the network `netId`; the result is ignored.
void com_velmora_android_tarn_app_networkfilter_native_setNetworkForSocketFd(JNIEnv* env,
                                                                             jobject thiz, jint fd,
                                                                             jint netId);

// "a.b.c.d|port", the destination a redirected IPv4 connection was sent to;
// "0.0.0.0|0" when the kernel knows none, "" for a family other than AF_INET.
jstring com_velmora_android_tarn_app_networkfilter_native_getOriginalSockAddress(JNIEnv* env,
                                                                                 jobject thiz,
                                                                                 jint family,
                                                                                 jint fd);

// Logs the type and length bytes of the first IP option of `fd` (zeros when
// none is set).
void com_velmora_android_tarn_app_networkfilter_native_getIpOption(JNIEnv* env, jobject thiz,
                                                                   jint fd);

}  // namespace android

#endif  // TPA_JNI_SOCKET_HELPERS_H_
