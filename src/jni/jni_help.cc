#include "jni/jni_help.h"

#include <android/log.h>

#include <new>
#include <string>

#include "base/log.h"

namespace android {

namespace {

// Clears a pending exception raised by a helper call below; returns whether
// there was one.
bool dropException(JNIEnv* env) {
  if (!env->ExceptionCheck()) return false;
  env->ExceptionClear();
  return true;
}

// The text of a Java string, "" for null. The local reference is released.
std::string textOf(JNIEnv* env, jstring string) {
  if (string == nullptr) return "";
  std::string text;
  if (const char* chars = env->GetStringUTFChars(string, nullptr)) {
    text = chars;
    env->ReleaseStringUTFChars(string, chars);
  }
  dropException(env);
  env->DeleteLocalRef(string);
  return text;
}

// Calls a no-argument String method of `object`, declared by `className`.
std::string callStringMethod(JNIEnv* env, jobject object, const char* className,
                             const char* method) {
  jclass clazz = env->FindClass(className);
  jmethodID id = nullptr;
  if (clazz != nullptr) {
    id = env->GetMethodID(clazz, method, "()Ljava/lang/String;");
    env->DeleteLocalRef(clazz);
  }
  jobject result = id != nullptr ? env->CallObjectMethod(object, id) : nullptr;
  if (dropException(env)) return "";
  return textOf(env, static_cast<jstring>(result));
}

// Takes the pending exception off the environment (no other JNI call is legal
// while it is pending) and logs its class name and message.
void logPendingException(JNIEnv* env) {
  jthrowable exception = env->ExceptionOccurred();
  if (exception == nullptr) return;
  env->ExceptionClear();
  jclass exceptionClass = env->GetObjectClass(exception);
  std::string name = callStringMethod(env, exceptionClass, "java/lang/Class", "getName");
  std::string message = callStringMethod(env, exception, "java/lang/Throwable", "getMessage");
  env->DeleteLocalRef(exceptionClass);
  env->DeleteLocalRef(exception);
  __android_log_print(tpa::log::kFatal, tpa::log::kJniHelpTag, "%s: %s", name.c_str(),
                      message.c_str());
}

}  // namespace

int jniRegisterNativeMethods(JNIEnv* env, const char* className, const JNINativeMethod* methods,
                             int count) {
  jclass clazz = env->FindClass(className);
  if (clazz == nullptr) {
    __android_log_assert("clazz == NULL", tpa::log::kJniHelpTag,
                         "Native registration unable to find class '%s'; aborting...", className);
  }
  int result = env->RegisterNatives(clazz, methods, count);
  if (result < 0) {
    try {
      logPendingException(env);
    } catch (const std::bad_alloc&) {
      // The exception is cleared before its text is fetched; only the text is lost.
    }
    __android_log_print(tpa::log::kFatal, tpa::log::kJniHelpTag,
                        "RegisterNatives failed for '%s'; aborting...", className);
  }
  env->DeleteLocalRef(clazz);
  return result < 0 ? result : 0;
}

}  // namespace android
