#include "tools/output_format.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "tools/json_escape.h"
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

ProgressLine::ProgressLine() : terminal_(isatty(STDERR_FILENO) == 1) {}

void ProgressLine::show(const std::string& text) {
  if (!terminal_) return;
  std::fprintf(stderr, "\r%s", text.c_str());
  shown_ = true;
}

void ProgressLine::clear() {
  if (shown_) std::fputs("\r\033[K", stderr);
  shown_ = false;
}

std::string githubAnnotation(std::string_view level, std::string_view file, std::size_t line,
                             std::size_t column, std::string_view message) {
  std::string out = "::" + std::string(level) + " file=" + annotationEscape(file, true);
  if (line != 0) {
    out += ",line=" + std::to_string(line) + ",col=" + std::to_string(column);
  }
  return out + "::" + annotationEscape(message, false);
}

JsonLine& JsonLine::raw(std::string_view name, std::string_view json) {
  body_ += body_.empty() ? "{" : ",";
  appendJsonString(body_, name);
  body_ += ':';
  body_ += json;
  return *this;
}

JsonLine& JsonLine::field(std::string_view name, std::string_view text) {
  std::string json;
  appendJsonString(json, text);
  return raw(name, json);
}

JsonLine& JsonLine::field(std::string_view name, const std::vector<std::string>& texts) {
  std::string json;
  appendJsonStringArray(json, texts);
  return raw(name, json);
}

JsonLine& JsonLine::field(std::string_view name, const std::vector<int>& numbers) {
  std::string json = "[";
  for (int n : numbers) json += (json.size() > 1 ? "," : "") + std::to_string(n);
  return raw(name, json + "]");
}

std::string findingLine(OutputFormat format, const std::string& file, std::size_t line,
                        std::size_t column, const std::string& code, const std::string& message) {
  const std::string text = "[" + code + "] " + message;
  if (format == OutputFormat::kGithub) {
    return githubAnnotation("warning", file, line, column == 0 ? 1 : column, text);
  }
  if (format == OutputFormat::kText) {
    const std::string at = column == 0 ? "" : ":" + std::to_string(column);
    return file + ":" + std::to_string(line) + at + ": warning: " + text;
  }
  JsonLine json;
  json.field("file", file).field("line", line);
  if (column != 0) json.field("column", column);
  return json.field("code", code).field("message", message).str();
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
        .field("code", failure.code)
        .field("code_name", error::name(failure.code));
  } else {
    line.field("error", "build_threw").field("exception", failure.exception);
    if (failure.located) {
      line.field("key", failure.key)
          .field("value", failure.value)
          .field("line", failure.line)
          .field("column", failure.column);
    }
  }
  out.line(line.field("message", failure.message).str());
}

}  // namespace tpa::tools
