#include "tools/output_format.h"

#include <cstdio>
#include <cstring>

#include "tools/json_escape.h"
#include "tools/lint.h"
#include "tpa/api/constants.h"

namespace tpa::tools {
namespace {

// Annotation text escapes: '%', CR and LF everywhere, and in property
// values also ':' and ',', which separate the properties.
std::string annotationEscape(std::string_view text, bool property) {
  std::string out;
  for (char c : text) {
    if (c == '%') {
      out += "%25";
    } else if (c == '\r') {
      out += "%0D";
    } else if (c == '\n') {
      out += "%0A";
    } else if (property && c == ':') {
      out += "%3A";
    } else if (property && c == ',') {
      out += "%2C";
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace

int finishOutput(OutputSink& out, int code) {
  if (out.flush()) return code;
  std::fprintf(stderr, "tpa: cannot write standard output: %s\n", std::strerror(out.errorNumber()));
  return kExitIo;
}

std::string githubAnnotation(std::string_view level, std::string_view file, std::size_t line,
                             std::size_t column, std::string_view message) {
  std::string out = "::" + std::string(level) + " file=" + annotationEscape(file, true);
  if (line != 0) {
    out += ",line=" + std::to_string(line) + ",col=" + std::to_string(column);
  }
  return out + "::" + annotationEscape(message, false);
}

void JsonLine::name(std::string_view name) {
  body_ += body_.empty() ? "{" : ",";
  appendJsonString(body_, name);
  body_ += ':';
}

JsonLine& JsonLine::field(std::string_view name, std::string_view text) {
  this->name(name);
  appendJsonString(body_, text);
  return *this;
}

JsonLine& JsonLine::field(std::string_view name, long long number) {
  this->name(name);
  body_ += std::to_string(number);
  return *this;
}

JsonLine& JsonLine::field(std::string_view name, bool flag) {
  this->name(name);
  body_ += flag ? "true" : "false";
  return *this;
}

JsonLine& JsonLine::null(std::string_view name) {
  this->name(name);
  body_ += "null";
  return *this;
}

JsonLine& JsonLine::raw(std::string_view name, std::string_view json) {
  this->name(name);
  body_ += json;
  return *this;
}

void writeBuildFailure(OutputSink& out, OutputFormat format, const std::string& name,
                       const BuildFailure& failure) {
  if (format == OutputFormat::kGithub) {
    out.line(githubAnnotation("error", name, failure.line, failure.column, failure.message));
    return;
  }
  JsonLine line;
  line.field("file", name);
  if (failure.exitCode == kExitBuildFailed) {
    line.field("error", "build_failed")
        .field("code", static_cast<long long>(failure.code))
        .field("code_name", error::name(failure.code));
  } else {
    line.field("error", "build_threw").field("exception", failure.exception);
    if (failure.located) {
      line.field("key", failure.key)
          .field("value", failure.value)
          .field("line", static_cast<long long>(failure.line))
          .field("column", static_cast<long long>(failure.column));
    }
  }
  out.line(line.field("message", failure.message).str());
}

void writeCheckReport(OutputSink& out, OutputFormat format, const std::string& text,
                      const std::string& name, const std::vector<Finding>& findings,
                      const CheckResult& result) {
  const LineIndex lines(text);
  const bool json = format == OutputFormat::kJson;
  for (const Finding& f : findings) {
    const auto [line, column] = lines.at(f.offset);
    if (json) {
      out.line(JsonLine()
                   .field("file", name)
                   .field("line", static_cast<long long>(line))
                   .field("column", static_cast<long long>(column))
                   .field("code", f.code)
                   .field("message", f.message)
                   .str());
    } else {
      out.line(githubAnnotation("warning", name, line, column, "[" + f.code + "] " + f.message));
    }
  }
  const bool failed = result.threw || result.code != error::TPA_ERROR_NONE;
  const std::string resultName = result.threw ? "threw" : error::name(result.code);
  if (json) {
    out.line(JsonLine()
                 .field("file", name)
                 .field("result", static_cast<long long>(result.threw ? -1 : result.code))
                 .field("result_name", resultName)
                 .field("rules", static_cast<long long>(result.rules))
                 .field("warnings", static_cast<long long>(findings.size()))
                 .str());
  } else if (failed) {
    writeBuildFailure(out, format, name, result.failure);
  }
}

}  // namespace tpa::tools
