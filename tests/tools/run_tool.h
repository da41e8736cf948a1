// Test helper: runs the built `tpa` executable as a child process and
// collects its exit code, standard output and standard error. Standard input
// is fed from a string through a pipe by a writer thread; the outputs go to
// temporary files, so nothing can block. The tool's path comes from the
// TPA_TOOL environment variable, which ctest sets.
#ifndef TPA_TESTS_TOOLS_RUN_TOOL_H_
#define TPA_TESTS_TOOLS_RUN_TOOL_H_

#include <string>
#include <vector>

namespace tpa::testing {

struct ToolResult {
  int exitCode = -1;  // -1 when the child did not exit normally
  std::string out;
  std::string err;
  long maxRssKiB = 0;  // the child's peak resident set size
};

// Runs `tpa args...` with `input`, written `repeat` times, on its standard
// input. Repeating keeps a long input out of this process's memory, whose
// peak a spawned child inherits in its own maxRssKiB.
ToolResult runTool(const std::vector<std::string>& args, const std::string& input = "",
                   int repeat = 1);

// Writes `text` to a fresh temporary file and returns its path; the file is
// removed when the TempFile goes away.
class TempFile {
 public:
  explicit TempFile(const std::string& text, const std::string& suffix = ".json");
  ~TempFile();
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// The path of the tool under test, or empty when TPA_TOOL is not set.
std::string toolPath();
// The bundled examples folder (TPA_EXAMPLES).
std::string examplesDir();

// The lines of `text`, without their '\n'.
std::vector<std::string> linesOf(const std::string& text);

}  // namespace tpa::testing

#endif  // TPA_TESTS_TOOLS_RUN_TOOL_H_
