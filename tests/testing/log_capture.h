// Test helper: captures what the library writes to the Android log.
//
// While a LogCapture is alive, liblog hands every record to it instead of
// printing it, and the minimum priority is lowered to debug so that traces
// are seen too. Only one LogCapture may be alive at a time; the records are
// guarded by a mutex, so logging threads may run while a test captures.
#ifndef TPA_TESTS_TESTING_LOG_CAPTURE_H_
#define TPA_TESTS_TESTING_LOG_CAPTURE_H_

#include <android/log.h>

#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace tpa::testing {

struct LogRecord {
  int priority;
  std::string tag;
  std::string text;
  bool operator==(const LogRecord& o) const {
    return priority == o.priority && tag == o.tag && text == o.text;
  }
};

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogRecord> records() const;

 private:
  static void onRecord(const struct __android_logger_data* data, const char* message);

  mutable std::mutex mutex_;
  std::vector<LogRecord> records_;  // guarded by mutex_
  int previousPriority_;
};

std::ostream& operator<<(std::ostream& os, const LogRecord& r);

}  // namespace tpa::testing

#endif  // TPA_TESTS_TESTING_LOG_CAPTURE_H_
