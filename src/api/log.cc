#include "api/log.h"

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
