// The work of `tpa import` without its command line: reads list lines into a
// ListMeaning, writes the document that gives every name the list's
// decision, builds it with the library and asks the library back for every
// listed name and for probes under every wildcard, so that each name whose
// meaning the document cannot keep is reported. One owner; not thread-safe
// (the analyzer it builds and asks is its own).
#ifndef TPA_TOOLS_IMPORTER_H_
#define TPA_TOOLS_IMPORTER_H_

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/list_formats.h"
#include "tools/list_meaning.h"
#include "tpa/api/analyzer.h"

namespace tpa::tools {

struct ImportOptions {
  ListFormat format = ListFormat::kHosts;
  bool excludeNames = false;      // listed names go to the exclude list
  std::vector<std::string> apps;  // empty: every application
  std::string id = "1";           // checked by the caller: what the reader reads back
};

// A line whose meaning the document does not keep, found by asking back.
struct ImportWarning {
  ListPlace place;
  LineNote note;
  std::string name;    // the name concerned
  bool below = false;  // it concerns (some of) the names under `name`, not `name`
};

struct ImportOutcome {
  bool built = false;     // false: no document builds from these names
  std::string document;   // the rules document, when built
  // The first rule's lists as written (the fuzz target reads them back).
  std::vector<std::string> include, exclude;
  bool everyOtherName = false;  // a second, any-application rule includes the rest
  std::vector<ImportWarning> warnings;
  std::size_t namesLost = 0;      // names of the lists the document decides otherwise
  std::size_t exceptionsDropped = 0;  // --exclude without --apps: see splitEntries
  std::size_t wildcardsHidden = 0;  // wildcards that miss some names under them
  std::size_t padding = 0;        // names under .invalid added so that it builds
};

class Importer {
 public:
  explicit Importer(ImportOptions options) : options_(std::move(options)) {}

  // Reads one line of a list; appends what it does not take to `notes`.
  void readLine(std::string_view line, ListPlace place, std::vector<LineNote>& notes);

  // Writes, builds and checks the document. Call once, after every line.
  [[nodiscard]] ImportOutcome finish();

  [[nodiscard]] const ListMeaning& meaning() const { return meaning_; }
  [[nodiscard]] std::size_t rulesRead() const { return rulesRead_; }
  [[nodiscard]] std::size_t duplicates() const { return duplicates_; }

 private:
  void splitEntries(ImportOutcome& outcome, const std::vector<MeaningEntry>& entries) const;
  void dropException(ImportOutcome& outcome, const MeaningEntry& e) const;
  [[nodiscard]] std::string document(const ImportOutcome& outcome) const;
  void askBack(ImportOutcome& outcome, api::TarnPatternAnalyzer& analyzer,
               const std::vector<MeaningEntry>& entries) const;
  // `gives`: whether the document lists a name.
  void askUnder(ImportOutcome& outcome, const std::string& name, std::set<char> ends,
                ListPlace place, const std::function<bool(const std::string&)>& gives) const;

  ImportOptions options_;
  ListMeaning meaning_;
  std::vector<ListRule> lineRules_;  // reused for every line
  std::size_t rulesRead_ = 0;
  std::size_t duplicates_ = 0;
};

}  // namespace tpa::tools

#endif  // TPA_TOOLS_IMPORTER_H_
