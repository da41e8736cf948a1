// How the tool writes its reports: the one JSON writer (JsonLine, one object
// per line), GitHub workflow annotations (so that a repository of rules
// documents can gate its changes in CI), a finding in each format, and the
// progress line of a terminal. Plain functions over values, any thread;
// ProgressLine writes standard error and has one owner.
#ifndef TPA_TOOLS_OUTPUT_FORMAT_H_
#define TPA_TOOLS_OUTPUT_FORMAT_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "tools/build_guard.h"
#include "tools/cli.h"
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

// A progress line on standard error while it is a terminal: each one is
// written over the last, and cleared before other output and at the end.
class ProgressLine {
 public:
  ProgressLine();
  [[nodiscard]] bool active() const { return terminal_; }
  void show(const std::string& text);
  void clear();

 private:
  bool terminal_;       // standard error is a terminal
  bool shown_ = false;  // a line waits to be cleared
};

// Builds one JSON object, field by field, in the order they are added; every
// string escaped by appendJsonString (tools/json_escape.h).
class JsonLine {
 public:
  JsonLine& field(std::string_view name, std::string_view text);
  JsonLine& field(std::string_view name, const char* text) {
    return field(name, std::string_view(text));
  }
  JsonLine& field(std::string_view name, const std::string& text) {
    return field(name, std::string_view(text));
  }
  template <typename Number, typename = std::enable_if_t<std::is_integral_v<Number>>>
  JsonLine& field(std::string_view name, Number number) {
    return raw(name,
               std::is_same_v<Number, bool> ? (number ? "true" : "false") : std::to_string(number));
  }
  JsonLine& field(std::string_view name, const std::vector<std::string>& texts);
  JsonLine& field(std::string_view name, const std::vector<int>& numbers);
  JsonLine& field(std::string_view name, const JsonLine& object) { return raw(name, object.str()); }
  JsonLine& null(std::string_view name) { return raw(name, "null"); }
  [[nodiscard]] std::string str() const { return body_.empty() ? "{}" : body_ + "}"; }

 private:
  JsonLine& raw(std::string_view name, std::string_view json);
  std::string body_;  // "{" and the fields so far, without the closing brace
};

// A finding (a warning at LINE, and COLUMN unless it is 0) of document or
// list `file` as one line of `format`: "FILE:LINE[:COLUMN]: warning: [CODE]
// MESSAGE", a JSON object {"file","line"[,"column"],"code","message"}, or a
// ::warning annotation (at column 1 when it has none).
[[nodiscard]] std::string findingLine(OutputFormat format, const std::string& file,
                                      std::size_t line, std::size_t column, const std::string& code,
                                      const std::string& message);

// A failed build of document `name` in a machine-readable format: the JSON
// object {"file":F,"error":"build_failed","code":C,"code_name":N,"message":M}
// or {"file":F,"error":"build_threw","exception":E,"key":K,"value":V,
// "line":L,"column":C,"message":M} (key to column only when the value was
// found), or an ::error annotation at the value.
void writeBuildFailure(OutputSink& out, OutputFormat format, const std::string& name,
                       const BuildFailure& failure);

}  // namespace tpa::tools

#endif  // TPA_TOOLS_OUTPUT_FORMAT_H_
