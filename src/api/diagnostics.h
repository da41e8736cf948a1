// Inspect is the tool's and the tests' view into a facade: the map a build
// produced and queries that record how they were decided. It is not part of
// the installed interface and not exported from the shared library. The map
// pointers are borrowed from the facade and valid until its next build; read
// them only while no other thread builds. The traced query on an analyzer
// reads its current map like any query.
#ifndef TPA_API_DIAGNOSTICS_H_
#define TPA_API_DIAGNOSTICS_H_

#include <memory>
#include <string>

#include "mapper/trace.h"
#include "tpa/api/analyzer.h"

namespace tpa::api {

class Inspect {
 public:
  // The current map, or null before the first successful build.
  static const mapper::Map* map(const Builder& builder);
  static const mapper::Map* map(const TarnPatternAnalyzer& analyzer);

  // The facade's query; `trace`, when given, records how the decision was
  // reached.
  static int query(const Builder& builder, const std::string& app,
                   const std::string& destination, int& value, mapper::QueryTrace* trace);
  static int query(TarnPatternAnalyzer& analyzer, const std::string& app,
                   const std::string& destination, int& value, mapper::QueryTrace* trace);

  // The map of the rules the reader read from `text` before it finished,
  // also when the build then fails (brackets that do not balance): what the
  // document builds once that is mended. Null when even these rules do not
  // build. Logs nothing (it quiets the process's log while it runs: one
  // thread at a time): the build has said why it failed. Throws what the
  // reader throws (the two address forms) and std::bad_alloc while reading.
  static std::unique_ptr<mapper::Map> mapOfRulesRead(const std::string& text);

  // Builds put the include lists on a second thread when both that machine's
  // and the others' symbols reach this many (65,536 unless set): 0 for every
  // build, a larger number than any document for none. For tests, which
  // compare the two; set it while no build runs.
  static void setTwoThreadMinimum(long long symbols);
};

}  // namespace tpa::api

#endif  // TPA_API_DIAGNOSTICS_H_
