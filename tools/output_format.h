// The machine-readable forms of the tool's reports: JSON lines (one object
// per finding or decision) and GitHub workflow annotations, so that a
// repository of rules documents can gate its changes in CI. Plain functions
// over values; any thread.
#ifndef TPA_TOOLS_OUTPUT_FORMAT_H_
#define TPA_TOOLS_OUTPUT_FORMAT_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tools/build_guard.h"
#include "tools/cli.h"
#include "tools/doc_scan.h"
#include "tools/line_io.h"

namespace tpa::tools {

// Writes out what `out` holds and returns `code`; when standard output
// cannot be written, says so on stderr ("tpa: cannot write standard output:
// REASON") and returns kExitIo. Every command ends its report with this.
[[nodiscard]] int finishOutput(OutputSink& out, int code);

// "::LEVEL file=F,line=L,col=C::MESSAGE" with the annotation escapes
// (line 0 leaves out the position).
[[nodiscard]] std::string githubAnnotation(std::string_view level, std::string_view file,
                                           std::size_t line, std::size_t column,
                                           std::string_view message);

// Builds one JSON object, field by field, in the order they are added.
class JsonLine {
 public:
  JsonLine& field(std::string_view name, std::string_view text);
  JsonLine& field(std::string_view name, const char* text) {
    return field(name, std::string_view(text));
  }
  JsonLine& field(std::string_view name, long long number);
  JsonLine& field(std::string_view name, bool flag);
  JsonLine& null(std::string_view name);
  // A value already written as JSON (an object or an array).
  JsonLine& raw(std::string_view name, std::string_view json);
  [[nodiscard]] std::string str() const { return body_.empty() ? "{}" : body_ + "}"; }

 private:
  void name(std::string_view name);
  std::string body_;  // "{" and the fields so far, without the closing brace
};

// How the build of `tpa check` ended, for its machine-readable last line.
struct CheckResult {
  bool threw = false;
  std::string what;  // the exception's text when threw
  int code = 0;      // the build's tpa::error code otherwise
  std::size_t rules = 0;
  BuildFailure failure;  // as the annotation of a failed build gives it
};

// A failed build of document `name` in a machine-readable format: the JSON
// object {"file":F,"error":"build_failed","code":C,"code_name":N,"message":M}
// or {"file":F,"error":"build_threw","exception":E,"key":K,"value":V,
// "line":L,"column":C,"message":M} (key to column only when the value was
// found), or an ::error annotation at the value.
void writeBuildFailure(OutputSink& out, OutputFormat format, const std::string& name,
                       const BuildFailure& failure);

// check's report in JSON lines or annotations: one per finding (`findings`
// at byte offsets of `text`), then the build's result.
void writeCheckReport(OutputSink& out, OutputFormat format, const std::string& text,
                      const std::string& name, const std::vector<Finding>& findings,
                      const CheckResult& result);

}  // namespace tpa::tools

#endif  // TPA_TOOLS_OUTPUT_FORMAT_H_
