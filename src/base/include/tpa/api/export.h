// Symbol visibility for the shared library. Everything is built hidden;
// TPA_EXPORT marks the few symbols that form the library's public face
// (the facade, the shared constants and LOG_message).
#ifndef TPA_API_EXPORT_H_
#define TPA_API_EXPORT_H_

#define TPA_EXPORT __attribute__((visibility("default")))

#endif  // TPA_API_EXPORT_H_
