// Registration of native methods on a Java class, with the platform helper's
// contract: a class that cannot be found aborts the process; a failing
// RegisterNatives is logged (with the exception it raised, which is taken and
// cleared so that later JNI calls stay legal) and returned. Stateless; safe
// from any thread attached to the JVM.
#ifndef TPA_JNI_JNI_HELP_H_
#define TPA_JNI_JNI_HELP_H_

#include <jni.h>

namespace android {

// Registers `count` methods on the class `className` ("a/b/C"). Returns 0, or
// the negative result of RegisterNatives.
[[nodiscard]] int jniRegisterNativeMethods(JNIEnv* env, const char* className,
                                           const JNINativeMethod* methods, int count);

}  // namespace android

#endif  // TPA_JNI_JNI_HELP_H_
