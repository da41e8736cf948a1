// Test helper: runs the built `tpa` executable (its path in TPA_TOOL, which
// ctest sets) as a child process. runTool gives it a string as standard input
// and collects the exit code and both outputs, all through temporary files.
// Also the text helpers the tool tests' tables share.
#ifndef TPA_TESTS_TOOLS_RUN_TOOL_H_
#define TPA_TESTS_TOOLS_RUN_TOOL_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace tpa::testing {

struct ToolResult {
  int exitCode = -1;  // -1 when the child did not exit normally
  std::string out, err;
};

// Runs `tpa args...` with `input` on its standard input and standard output
// into `output` when given (then `out` stays empty).
ToolResult runTool(const std::vector<std::string>& args, const std::string& input = "",
                   const char* output = nullptr);

// Starts `tpa args...` with `in`, `out` and `err` as its standard descriptors.
pid_t startTool(const std::vector<std::string>& args, int in, int out, int err);

// A document (or an output) written with ' for ", to keep the tables readable.
std::string doc(std::string text);

// The blank-separated words of `text`, '' standing for an empty one.
std::vector<std::string> words(const std::string& text);

// `text` with every `from` replaced by `to` (a temporary path by a short name).
std::string replaced(std::string text, const std::string& from, const std::string& to);

inline bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// A fresh temporary file holding `text`, removed with the object.
class TempFile {
 public:
  explicit TempFile(const std::string& text);
  ~TempFile();
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace tpa::testing

#endif  // TPA_TESTS_TOOLS_RUN_TOOL_H_
