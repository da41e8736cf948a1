// The entry points that drive the process-wide analyzer: configure creates it,
// build rebuilds its rules, query asks it; jni_cleanup destroys it at exit.
// The analyzer makes build and query safe from any thread itself (a query
// never waits for a build), but the pointer to it is not guarded: configure
// must run before other threads call in, cleanup at exit.
#ifndef TPA_JNI_NATIVE_HANDLER_H_
#define TPA_JNI_NATIVE_HANDLER_H_

#include <jni.h>

namespace android {

// Creates a new, empty analyzer (an earlier one is left allocated) and
// registers jni_cleanup to run at exit, once per call. The two strings are
// accepted and unused.
void com_velmora_android_tarn_app_networkfilter_native_configure(JNIEnv* env, jobject thiz,
                                                                 jstring first, jstring second);

// Rebuilds the rules from a JSON document. Returns 0 or a tpa::error code; -1
// for a null argument or before configure, -2 when the text is unavailable.
jint com_velmora_android_tarn_app_networkfilter_native_build(JNIEnv* env, jobject thiz,
                                                             jstring rules);

// True exactly when the rules include `destination` for `app`; false for any
// null argument, before configure, or when the text is unavailable.
jboolean com_velmora_android_tarn_app_networkfilter_native_query(JNIEnv* env, jobject thiz,
                                                                 jstring app, jstring destination);

// Destroys the analyzer, if any. Registered with atexit by configure.
void jni_cleanup();

}  // namespace android

#endif  // TPA_JNI_NATIVE_HANDLER_H_
