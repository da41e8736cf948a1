#include "jni/native_handler.h"

#include <android/log.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <optional>
#include <string>

#include "base/log.h"
#include "tpa/api/analyzer.h"
#include "tpa/api/constants.h"

namespace android {

namespace {

// The process-wide analyzer: null until configure, reset by jni_cleanup. A
// second configure abandons the first analyzer without destroying it, since
// another thread could still be inside it.
std::unique_ptr<tpa::api::TarnPatternAnalyzer> analyzer;

// The UTF-8 characters of a Java string, released when this goes out of scope.
class Utf8Chars {
 public:
  Utf8Chars(JNIEnv* env, jstring string)
      : env_(env), string_(string), chars_(env->GetStringUTFChars(string, nullptr)) {}
  ~Utf8Chars() {
    if (chars_ != nullptr) env_->ReleaseStringUTFChars(string_, chars_);
  }
  Utf8Chars(const Utf8Chars&) = delete;
  Utf8Chars& operator=(const Utf8Chars&) = delete;

  const char* get() const { return chars_; }

 private:
  JNIEnv* env_;
  jstring string_;
  const char* chars_;  // null when the JVM could not provide them
};

}  // namespace

void com_velmora_android_tarn_app_networkfilter_native_configure(JNIEnv* env, jobject /*thiz*/,
                                                                 jstring first, jstring second) {
  __android_log_print(
      tpa::log::kDebug, tpa::log::kNativeTag,
      "com_velmora_android_tarn_app_networkfilter_native_configure: process Id is %d", getpid());
  std::atexit(jni_cleanup);
  // The two strings are fetched and released, but nothing reads them.
  std::optional<Utf8Chars> firstChars;
  std::optional<Utf8Chars> secondChars;
  if (first != nullptr && second != nullptr) {
    firstChars.emplace(env, first);
    secondChars.emplace(env, second);
  }
  (void)analyzer.release();
  try {
    analyzer = std::make_unique<tpa::api::TarnPatternAnalyzer>();
  } catch (const std::bad_alloc&) {
    // Left unconfigured: builds answer -1 and queries false, as before configure.
    __android_log_print(
        tpa::log::kError, tpa::log::kNativeTag,
        "com_velmora_android_tarn_app_networkfilter_native_configure: out of memory");
  }
}

jint com_velmora_android_tarn_app_networkfilter_native_build(JNIEnv* env, jobject thiz,
                                                             jstring rules) {
  __android_log_print(tpa::log::kDebug, tpa::log::kNativeTag,
                      "com_velmora_android_tarn_app_networkfilter_native_build: process Id is %d",
                      getpid());
  if (env == nullptr || thiz == nullptr || rules == nullptr || !analyzer) return -1;
  Utf8Chars chars(env, rules);
  if (chars.get() == nullptr) return -2;
  try {
    std::string text(chars.get());
    return analyzer->build(text, false);
  } catch (const std::bad_alloc&) {  // the copy of the text; build itself never throws it
    __android_log_print(tpa::log::kError, tpa::log::kNativeTag,
                        "com_velmora_android_tarn_app_networkfilter_native_build: out of memory");
    return tpa::error::TPA_ERROR_OOM;
  }
}

jboolean com_velmora_android_tarn_app_networkfilter_native_query(JNIEnv* env, jobject thiz,
                                                                 jstring app, jstring destination) {
  if (env == nullptr || thiz == nullptr || destination == nullptr || app == nullptr || !analyzer) {
    return JNI_FALSE;
  }
  Utf8Chars appChars(env, app);
  if (appChars.get() == nullptr) return JNI_FALSE;
  Utf8Chars destinationChars(env, destination);
  if (destinationChars.get() == nullptr) return JNI_FALSE;
  int value = -1;
  int decision = tpa::mapper::TPA_DECISION_EXCLUDE;
  try {
    decision = analyzer->query(appChars.get(), destinationChars.get(), value);
  } catch (const std::bad_alloc&) {  // copying the strings; a query itself never throws it
    return JNI_FALSE;
  }
  return decision == tpa::mapper::TPA_DECISION_INCLUDE ? JNI_TRUE : JNI_FALSE;
}

void jni_cleanup() { analyzer.reset(); }

}  // namespace android
