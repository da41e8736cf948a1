#include "jni/string16.h"

namespace android {

static_assert(sizeof(jchar) == sizeof(char16_t), "a jchar is one UTF-16 unit");

std::u16string jstringToString16(JNIEnv* env, jstring string) {
  if (string == nullptr) return {};
  // The length is read first: no other JNI call is allowed while the
  // characters are held critically.
  jsize length = env->GetStringLength(string);
  const jchar* chars = env->GetStringCritical(string, nullptr);
  if (chars == nullptr) return {};
  std::u16string units(reinterpret_cast<const char16_t*>(chars), static_cast<size_t>(length));
  env->ReleaseStringCritical(string, chars);
  return units;
}

jstring string16ToJstring(JNIEnv* env, const std::u16string& string) {
  return env->NewString(reinterpret_cast<const jchar*>(string.data()),
                        static_cast<jsize>(string.size()));
}

}  // namespace android
