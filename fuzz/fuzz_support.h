// Helpers shared by the fuzz targets: a silent log (the library logs every
// rejected document, which would drown the fuzzer's own output and slow it
// down) and the check that stops a run on a broken invariant. Header-only;
// each target is a single-threaded process.
#ifndef TPA_FUZZ_FUZZ_SUPPORT_H_
#define TPA_FUZZ_FUZZ_SUPPORT_H_

#include <android/log.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace tpa::fuzz {

inline void discardRecord(const struct __android_logger_data*, const char*) {}

// Routes every log record of the library to nowhere.
inline void silenceLog() { __android_log_set_logger(discardRecord); }

// Aborts with `what` when an invariant does not hold, so that libFuzzer
// records the input as a crash.
inline void check(bool holds, const char* what, const std::string& input) {
  if (holds) return;
  std::fprintf(stderr, "invariant broken: %s\ninput (%zu bytes): %s\n", what, input.size(),
               input.c_str());
  std::abort();
}

// The two documented escapes of address parsing both need a '/' in a
// destination: a rules text without one must never throw.
inline bool mayThrowAddressException(const std::string& text) {
  return text.find('/') != std::string::npos;
}

// Every closing top-level bracket announces all objects read so far, and
// each announcement adds them all as rules again, so a short text of many
// "[{}]" makes millions of rules (a cost the tests bound per rule). Texts
// that could announce more than this many rules are skipped, so that the
// fuzzer explores instead of exhausting memory on one known shape.
inline bool tooManyRules(const std::string& text) {
  long closingBrackets = 0, closingBraces = 0;
  for (char c : text) {
    closingBrackets += c == ']';
    closingBraces += c == '}';
  }
  return closingBrackets * closingBraces > 20000;
}

}  // namespace tpa::fuzz

#endif  // TPA_FUZZ_FUZZ_SUPPORT_H_
