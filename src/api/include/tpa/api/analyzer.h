// The public face of the analyzer. A Builder turns a rules document into a
// compiled mapper::Map that it owns alone (moved, never copied) and answers
// queries against it. A TarnPatternAnalyzer lets rules be rebuilt and queried
// from any thread: a rebuild is all-or-nothing, and the old map answers until
// a new one is complete. Builder is not thread-safe. TarnPatternAnalyzer's
// build and query are: queries never wait for one another nor for a build,
// which constructs the new map beside the answering one and swaps it in;
// builds run one at a time, in the order they were called. A build of a large
// document puts its include lists on a second thread of its own, joined before
// build returns.
#ifndef TPA_API_ANALYZER_H_
#define TPA_API_ANALYZER_H_

#include <memory>
#include <string>

#include "tpa/api/export.h"

namespace tpa::mapper {
class Map;
}  // namespace tpa::mapper

namespace tpa::api {

class Inspect;

class TPA_EXPORT Builder {
 public:
  Builder();
  ~Builder();
  Builder(const Builder&) = delete;

  // A move: takes other's map (other is left empty) and frees the one this
  // builder held. Assigning a builder to itself does nothing.
  Builder& operator=(Builder& other);

  // Builds a new map from a rules document: the JSON text itself, or the path
  // of a rules file when `fromFile` is true. Returns a tpa::error code; on
  // failure the current map is kept. Running out of memory is a failure like
  // any other (TPA_ERROR_OOM, logged); only the two malformed network forms
  // that address parsing throws on escape.
  [[nodiscard]] int build(const std::string& source, bool fromFile);

  // The decision (mapper::TPA_DECISION_INCLUDE or _EXCLUDE) for an application
  // and a destination; `value` receives the deciding rule's id (-1 when no rule
  // matched). Without a map: exclude, and `value` is left untouched. Never
  // throws on allocation failure (see mapper::Map::get).
  [[nodiscard]] int query(const std::string& app, const std::string& destination, int& value) const;

  // Empties the query caches of the current map, if there is one.
  void clearCache();

 private:
  friend class Inspect;  // the tool's and the tests' view of the map (api/diagnostics.h)
  friend class TarnPatternAnalyzer;  // publishes the map a build made

  std::unique_ptr<mapper::Map> map;  // null until the first successful build
};

class TPA_EXPORT TarnPatternAnalyzer {
 public:
  TarnPatternAnalyzer();
  ~TarnPatternAnalyzer();
  TarnPatternAnalyzer(const TarnPatternAnalyzer&) = delete;
  TarnPatternAnalyzer& operator=(const TarnPatternAnalyzer&) = delete;

  // Rebuilds the rules once the builds called earlier have ended. The current
  // map's caches are emptied first; the new map replaces it only when the
  // build succeeds: a query that begins after build returns reads it, one that
  // began before reads the old map whole. A JSON text (fromFile false) goes
  // through validate first. Returns a tpa::error code.
  [[nodiscard]] int build(const std::string& source, bool fromFile);

  // Rewrites the two degenerate documents in place: "" becomes "[]", and "[]"
  // becomes "[{}]" (one rule of defaults). Only one rewrite applies. Returns 0.
  int validate(std::string& text);

  // Builder::query on the current map; never waits for a build.
  [[nodiscard]] int query(const std::string& app, const std::string& destination, int& value);

 private:
  friend class Inspect;
  struct Shared;

  // The published map and the builds' turns; never null.
  std::unique_ptr<Shared> shared;
};

}  // namespace tpa::api

#endif  // TPA_API_ANALYZER_H_
