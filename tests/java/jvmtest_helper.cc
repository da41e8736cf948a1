// Test-only natives of the JVM tests (class tpa.jvmtest.TestNatives): file
// descriptors of Java channels, the socket mark, IP options, a capture of the
// Android log (liblog is shared with the library under test, so its records
// land here too) and the UTF-16 string helpers of the bridge.
#include <android/log.h>
#include <jni.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "jni/string16.h"
#include "testing/log_capture.h"

namespace {

std::unique_ptr<tpa::testing::LogCapture> capture;

}  // namespace

extern "C" {

// The descriptor of an NIO channel, through its getFDVal(), which JNI may
// call whatever the module system says.
JNIEXPORT jint JNICALL Java_tpa_jvmtest_TestNatives_fdOf(JNIEnv* env, jclass, jobject channel) {
  jmethodID getFDVal = env->GetMethodID(env->GetObjectClass(channel), "getFDVal", "()I");
  return getFDVal != nullptr ? env->CallIntMethod(channel, getFDVal) : -1;
}

JNIEXPORT jint JNICALL Java_tpa_jvmtest_TestNatives_socketMark(JNIEnv*, jclass, jint fd) {
  unsigned mark = 0;
  socklen_t length = sizeof mark;
  if (getsockopt(fd, SOL_SOCKET, SO_MARK, &mark, &length) != 0) return -errno;
  return static_cast<jint>(mark);
}

JNIEXPORT jint JNICALL Java_tpa_jvmtest_TestNatives_setSocketMark(JNIEnv*, jclass, jint fd,
                                                                  jint mark) {
  unsigned value = static_cast<unsigned>(mark);
  return setsockopt(fd, SOL_SOCKET, SO_MARK, &value, sizeof value) == 0 ? 0 : -errno;
}

// Sets a record-route option (type 7, length 7) on an IPv4 socket.
JNIEXPORT jint JNICALL Java_tpa_jvmtest_TestNatives_setRecordRoute(JNIEnv*, jclass, jint fd) {
  const unsigned char option[8] = {7, 7, 4, 0, 0, 0, 0, 0};
  return setsockopt(fd, IPPROTO_IP, IP_OPTIONS, option, sizeof option) == 0 ? 0 : -errno;
}

JNIEXPORT void JNICALL Java_tpa_jvmtest_TestNatives_startLogCapture(JNIEnv*, jclass) {
  capture.reset();
  capture = std::make_unique<tpa::testing::LogCapture>();
}

// The records captured since startLogCapture, as "priority|tag|text".
JNIEXPORT jobjectArray JNICALL Java_tpa_jvmtest_TestNatives_stopLogCapture(JNIEnv* env, jclass) {
  std::vector<tpa::testing::LogRecord> records;
  if (capture) records = capture->records();
  capture.reset();
  jobjectArray lines = env->NewObjectArray(static_cast<jsize>(records.size()),
                                           env->FindClass("java/lang/String"), nullptr);
  for (size_t i = 0; i < records.size(); ++i) {
    std::string line =
        std::to_string(records[i].priority) + "|" + records[i].tag + "|" + records[i].text;
    jstring text = env->NewStringUTF(line.c_str());
    env->SetObjectArrayElement(lines, static_cast<jsize>(i), text);
    env->DeleteLocalRef(text);
  }
  return lines;
}

JNIEXPORT jstring JNICALL Java_tpa_jvmtest_TestNatives_roundTrip16(JNIEnv* env, jclass,
                                                                   jstring text) {
  return android::string16ToJstring(env, android::jstringToString16(env, text));
}

JNIEXPORT jint JNICALL Java_tpa_jvmtest_TestNatives_length16(JNIEnv* env, jclass, jstring text) {
  return static_cast<jint>(android::jstringToString16(env, text).size());
}

}  // extern "C"
