#include "base/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace tpa::log {

const char* sourceName(const char* path, char* out, unsigned size) {
  const char* base = std::strrchr(path, '/');
  base = base ? base + 1 : path;
  const char* dot = std::strrchr(base, '.');
  size_t n = dot ? static_cast<size_t>(dot - base) : std::strlen(base);
  if (n >= size) n = size - 1;
  std::memcpy(out, base, n);
  out[n] = '\0';
  return out;
}

namespace {
thread_local Deferral* deferral = nullptr;
}  // namespace

Deferral::Deferral() : previous_(deferral) { deferral = this; }

Deferral::~Deferral() { deferral = previous_; }

void write(const std::vector<Message>& kept) {
  for (const Message& m : kept) __android_log_write(m.priority, m.tag, m.text.c_str());
}

void write(int priority, const char* tag, const char* format, ...) {
  va_list args;
  va_start(args, format);
  if (deferral == nullptr) {
    __android_log_vprint(priority, tag, format, args);
    va_end(args);
    return;
  }
  char buffer[256];
  va_list again;
  va_copy(again, args);
  const int n = std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  std::string text;
  try {
    if (n >= 0 && static_cast<std::size_t>(n) < sizeof buffer) {
      text.assign(buffer, static_cast<std::size_t>(n));
    } else if (n >= 0) {
      text.resize(static_cast<std::size_t>(n));
      std::vsnprintf(&text[0], text.size() + 1, format, again);
    }
  } catch (...) {
    va_end(again);
    throw;
  }
  va_end(again);
  deferral->messages_.push_back(Message{priority, tag, std::move(text)});
}

void report(const char* file, int line, const char* function, const char* reason) {
  char name[128];
  __android_log_print(kError, kReportTag, "[%s] [%d] [%s] Reason: [%s]",
                      sourceName(file, name, sizeof name), line, function, reason);
}

}  // namespace tpa::log

extern "C" int LOG_message(int /*priority*/, const char* /*tag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int written = std::vfprintf(stdout, format, args);
  va_end(args);
  return written;
}
