// Registration of the native entry points on the service's ten proxy classes,
// run once from JNI_OnLoad on the loading thread.
#ifndef TPA_JNI_REGISTRATION_H_
#define TPA_JNI_REGISTRATION_H_

#include <jni.h>

namespace android {

// Registers every method table on its classes, in a fixed order. A missing
// class aborts the process; a failed registration is logged and the rest still
// run. Returns the result of the last registration.
int register_com_velmora_android_tarn_app_networkfilter_native(JNIEnv* env);

}  // namespace android

#endif  // TPA_JNI_REGISTRATION_H_
