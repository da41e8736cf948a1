// `tpa import`: one rule made from the host lists people already keep
// (hosts files, plain domain lists, the domain-anchored rules of AdBlock-style
// lists). The lists are read line by line, so memory follows the names kept,
// not the files; every line or word not taken is reported where it stands,
// and so is every name whose meaning the written document does not keep.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "tools/build_guard.h"
#include "tools/cli.h"
#include "tools/commands.h"
#include "tools/doc_scan.h"
#include "tools/importer.h"
#include "tools/line_io.h"
#include "tools/output_format.h"
#include "tpa/api/constants.h"

namespace tpa::tools {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// Why `id` cannot be written as the rule's id, or empty. The reader takes the
// value with atoi, so only a plain positive decimal reads back as written;
// -1 is the value of "no rule decided" and 2147483647 that of a rule
// without an id.
std::string badId(const std::string& id) {
  if (id == "-1") return "-1 is the value of a query no rule decided";
  if (id.empty() || id.find_first_not_of("0123456789") != std::string::npos || id[0] == '0') {
    return quoted(id) + " is not read back as written: the id is a decimal number from 1 to "
           "2147483646, without sign, blanks or leading zeros";
  }
  if (id.size() > 10 || std::stoll(id) >= INT_MAX) {
    return quoted(id) + ": the ids end at 2147483646 (2147483647 is that of a rule without one)";
  }
  return "";
}

// The applications of --apps, or why they cannot be written as one rule's.
std::string splitApps(const Invocation& invocation, std::vector<std::string>& apps) {
  const std::string& text = invocation.apps;
  if (invocation.appsGiven && text.empty()) {
    return "--apps= names no application; leave the option out for a rule of every application";
  }
  for (std::size_t start = 0; !text.empty() && start <= text.size();) {
    std::size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    const std::string app = text.substr(start, comma - start);
    start = comma + 1;
    if (app.empty()) return "--apps has an empty application name (two commas, or one at an end)";
    if (app.find_first_of("{}[]\":\\ \t\r\n") != std::string::npos ||
        app == sigma::sentinel::LAMBDA_STRING) {
      return "application " + quoted(app) + " cannot be written as it is";
    }
    if (std::find(apps.begin(), apps.end(), app) == apps.end()) apps.push_back(app);
  }
  return "";
}

// Writes each note where it stands, in the chosen form, and shows how far
// the reading got while standard error is a terminal.
class Reporter {
 public:
  explicit Reporter(OutputFormat format) : format_(format) {}

  void note(const std::string& file, std::size_t line, const LineNote& note) {
    clearProgress();
    ++notes_;
    const std::string text = findingLine(format_, file, line, 0, note.code, note.message);
    std::fprintf(stderr, "%s\n", text.c_str());
  }

  // Called for every line read; writes at most four times a second.
  void progress(const std::string& file, std::size_t line, std::size_t names) {
    if (!progress_.active() || (line & 0x3fff) != 0) return;
    const auto now = std::chrono::steady_clock::now();
    if (now - shown_ < std::chrono::milliseconds(250)) return;
    shown_ = now;
    progress_.show("tpa: import: " + file + ": " + std::to_string(line) + " lines read, " +
                   std::to_string(names) + " names");
  }

  // A step that takes a while on a large list, shown until the next output.
  void stage(const char* what, std::size_t names) {
    progress_.show(std::string("tpa: import: ") + what + " (" + std::to_string(names) + " names)");
  }

  void clearProgress() { progress_.clear(); }

  [[nodiscard]] std::size_t notes() const { return notes_; }

 private:
  OutputFormat format_;
  ProgressLine progress_;
  std::chrono::steady_clock::time_point shown_{};
  std::size_t notes_ = 0;
};

// Streams one list through the importer. False when it cannot be opened.
bool readList(const std::string& path, std::uint32_t fileIndex, Importer& importer,
              Reporter& reporter) {
  const std::string name = displayName(path);
  const int fd = path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    std::fprintf(stderr, "tpa: cannot read '%s': %s\n", path.c_str(), std::strerror(errno));
    return false;
  }
  LineReader reader(fd, nullptr);
  std::string line;
  std::vector<LineNote> notes;
  while (reader.next(line)) {
    std::string_view text(line);
    if (reader.lineNumber() == 1 && text.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
      text.remove_prefix(kByteOrderMark.size());
    }
    if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
    notes.clear();
    const auto number = static_cast<std::uint32_t>(reader.lineNumber());
    importer.readLine(text, {fileIndex, number}, notes);
    for (const LineNote& n : notes) reporter.note(name, number, n);
    reporter.progress(name, reader.lineNumber(), importer.meaning().size());
  }
  reporter.clearProgress();
  if (fd != STDIN_FILENO) close(fd);
  return true;
}

void writeSummary(const Importer& importer, const ImportOutcome& outcome, std::size_t notTaken,
                  OutputFormat format) {
  if (format == OutputFormat::kJson) {
    const JsonLine summary = JsonLine()
                                 .field("include_entries", outcome.include.size())
                                 .field("exclude_entries", outcome.exclude.size())
                                 .field("names", importer.meaning().size())
                                 .field("rules", importer.rulesRead())
                                 .field("duplicates", importer.duplicates())
                                 .field("not_taken", notTaken)
                                 .field("names_lost", outcome.namesLost)
                                 .field("exceptions_dropped", outcome.exceptionsDropped)
                                 .field("wildcards_hidden", outcome.wildcardsHidden)
                                 .field("padding", outcome.padding);
    std::fprintf(stderr, "%s\n", JsonLine().field("summary", summary).str().c_str());
    return;
  }
  std::fprintf(stderr,
               "tpa: import: %zu include and %zu exclude entries for %zu names of %zu rules "
               "(%zu duplicates); %zu lines or words not taken; ",
               outcome.include.size(), outcome.exclude.size(), importer.meaning().size(),
               importer.rulesRead(), importer.duplicates(), notTaken);
  if (!outcome.built) {
    std::fprintf(stderr, "nothing asked back\n");
  } else if (outcome.namesLost + outcome.exceptionsDropped + outcome.wildcardsHidden == 0) {
    std::fprintf(stderr, "every name taken keeps its meaning\n");
  } else {
    std::fprintf(stderr,
                 "meaning not kept for %zu names of the lists, for the names of %zu exception "
                 "entries and for some names under %zu wildcards (reported above)\n",
                 outcome.namesLost, outcome.exceptionsDropped, outcome.wildcardsHidden);
  }
  if (outcome.everyOtherName) {
    std::fprintf(stderr,
                 "tpa: import: a second rule, for every application, includes the names no "
                 "entry decides (the exceptions fill the include list)\n");
  }
  if (outcome.padding != 0) {
    std::fprintf(stderr,
                 "tpa: import: %zu padding names under .invalid added so that the document "
                 "builds\n",
                 outcome.padding);
  }
}

int usage(const std::string& error) {
  std::fprintf(stderr, "tpa: import: %s\nRun 'tpa import --help' for usage.\n", error.c_str());
  return kExitUsage;
}

}  // namespace

int runImport(const Invocation& invocation) {
  ImportOptions options;
  options.excludeNames = invocation.excludeNames;
  options.id = invocation.id;
  if (!listFormatFromName(invocation.operands[0], options.format)) {
    return usage("unknown FORMAT '" + invocation.operands[0] + "' (hosts, domains, adblock)");
  }
  if (const std::string why = badId(invocation.id); !why.empty()) return usage("--id: " + why);
  if (const std::string why = splitApps(invocation, options.apps); !why.empty()) return usage(why);
  Importer importer(std::move(options));
  Reporter reporter(invocation.format);
  for (std::size_t i = 1; i < invocation.operands.size(); ++i) {
    if (!readList(invocation.operands[i], static_cast<std::uint32_t>(i), importer, reporter)) {
      return kExitNoInput;
    }
  }
  const std::size_t notTaken = reporter.notes();
  if (importer.meaning().size() == 0) {
    std::fprintf(stderr, "tpa: import: the lists give no name to import\n");
    return kExitBadQuery;
  }
  reporter.stage("building the document and asking every name back", importer.meaning().size());
  const ImportOutcome outcome = importer.finish();
  reporter.clearProgress();
  for (const ImportWarning& w : outcome.warnings) {
    reporter.note(displayName(invocation.operands[w.place.file]), w.place.line, w.note);
  }
  writeSummary(importer, outcome, notTaken, invocation.format);
  if (!outcome.built) {
    std::fprintf(stderr, "tpa: import: the document made of these names does not build\n");
    return kExitBuildFailed;
  }
  OutputSink out(STDOUT_FILENO, false);
  out.line(outcome.document);
  return finishOutput(out, kExitOk);
}

}  // namespace tpa::tools
