// Logging through the Android log (liblog, the platform's own library on the
// host too). Each layer logs under one fixed tag:
//   kEngineTag    engine, mapping, builder, JSON validation (priorities 6, 7)
//   kReportTag    assertion reports of the JSON reader and objects (6)
//   kNativeTag    JNI entry points and socket helpers (3, 6)
//   kJniHelpTag   native-method registration (7)
// A format that ends in "%s" is given kLineEnd for it. liblog is thread-safe.
// Internal: the installed headers carry only LOG_message (tpa/api/log_message.h).
#ifndef TPA_BASE_LOG_H_
#define TPA_BASE_LOG_H_

#include <android/log.h>

#include <string>
#include <utility>
#include <vector>

#include "tpa/api/log_message.h"

namespace tpa::log {

inline constexpr char kEngineTag[] = "tarn_patteren_analyzer.so";
inline constexpr char kReportTag[] = "TarnPatternAnalyzer";
inline constexpr char kNativeTag[] = "tarnnwfilternativehandler";
inline constexpr char kJniHelpTag[] = "JNIHelp";
inline constexpr char kLineEnd[] = "\n";

inline constexpr int kDebug = ANDROID_LOG_DEBUG;  // 3
inline constexpr int kError = ANDROID_LOG_ERROR;  // 6
inline constexpr int kFatal = ANDROID_LOG_FATAL;  // 7

// A message kept instead of written (see Deferral).
struct Message {
  int priority;
  const char* tag;  // one of the tags above
  std::string text;
};

// While one lives on a thread, write() keeps that thread's messages in it
// instead of writing them. A Map put on two threads at once writes them
// afterwards, and only those that a build on one thread would have written.
// At most one per thread at a time; not shared between threads.
class Deferral {
 public:
  Deferral();
  ~Deferral();
  Deferral(const Deferral&) = delete;
  Deferral& operator=(const Deferral&) = delete;

  // The kept messages, in the order they came; none are kept after.
  std::vector<Message> take() { return std::move(messages_); }

 private:
  friend void write(int priority, const char* tag, const char* format, ...);
  std::vector<Message> messages_;
  Deferral* previous_;  // the thread's deferral before this one, if any
};

// __android_log_print, unless a Deferral on this thread keeps the message
// (which may throw std::bad_alloc).
void write(int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Writes messages a Deferral kept, in order.
void write(const std::vector<Message>& kept);

// The text after the last '/' of `path`, up to its last '.': the name under
// which a source file signs its reports ("src/json/json.cc" -> "json").
// Writes into `out` (at least `size` bytes) and returns it.
const char* sourceName(const char* path, char* out, unsigned size);

// Logs "[%s] [%d] [%s] Reason: [%s]" under kReportTag at error priority,
// with the source file's name, a line number, the function and the reason.
void report(const char* file, int line, const char* function, const char* reason);

}  // namespace tpa::log

// Contract report signed by the calling source file.
#define TPA_REPORT(line, function, reason) ::tpa::log::report(__FILE__, line, function, reason)

#endif  // TPA_BASE_LOG_H_
