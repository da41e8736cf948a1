// Conversions between Java strings and UTF-16 strings, unit for unit (no
// decoding, so unpaired surrogates survive). Kept for the Java boundary; the
// entry points pass UTF-8. Stateless; the caller owns the returned values.
#ifndef TPA_JNI_STRING16_H_
#define TPA_JNI_STRING16_H_

#include <jni.h>

#include <string>

namespace android {

// The UTF-16 units of `string`; empty for null.
std::u16string jstringToString16(JNIEnv* env, jstring string);

// A new Java string of the units of `string` (a local reference), or null
// when the JVM cannot allocate it.
jstring string16ToJstring(JNIEnv* env, const std::u16string& string);

}  // namespace android

#endif  // TPA_JNI_STRING16_H_
