#include "testing/log_capture.h"

#include <android/log.h>

#include <ostream>

namespace tpa::testing {
namespace {
LogCapture* active = nullptr;
}

LogCapture::LogCapture() {
  active = this;
  __android_log_set_logger(&LogCapture::onRecord);
  previousPriority_ = __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

LogCapture::~LogCapture() {
  __android_log_set_minimum_priority(previousPriority_);
  __android_log_set_logger(&__android_log_stderr_logger);
  active = nullptr;
}

void LogCapture::onRecord(const struct __android_logger_data* data, const char* message) {
  if (active == nullptr) return;
  std::lock_guard<std::mutex> lock(active->mutex_);
  active->records_.push_back({data->priority, data->tag ? data->tag : "", message});
}

std::vector<LogRecord> LogCapture::records() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

std::ostream& operator<<(std::ostream& os, const LogRecord& r) {
  return os << "{" << r.priority << ", \"" << r.tag << "\", \"" << r.text << "\"}";
}

}  // namespace tpa::testing
