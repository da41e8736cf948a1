// The warnings of `tpa check`: constructs that the analyzer accepts but that
// almost certainly do not mean what their author wrote. The reading is the
// library reader's, watched by DocumentScan; rule numbers, default ids and
// stored destinations are the parser's and the map's own functions (inside
// try/catch, since two malformed networks make them throw), so a warning
// describes what the library will really do. Also finds the value that makes
// a build throw. Stateless, but the scan quiets the process's log while it
// reads: one thread at a time.
#ifndef TPA_TOOLS_LINT_H_
#define TPA_TOOLS_LINT_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mapper/map.h"
#include "tools/doc_scan.h"

namespace tpa::tools {

// Every warning for `text` (the document as it is built), sorted by offset;
// `built` is the map the build of `text` made (null when it failed), whose
// machines show which keys the searches run into.
[[nodiscard]] std::vector<Finding> lintDocument(const std::string& text, const mapper::Map* built);

// A destination as the map stores it, or why storing it throws.
struct StoredDestination {
  bool threw = false;
  std::string what;       // the exception's text when threw
  std::string stored;     // after the map's normalisation: the key's name part
  int network = 0;        // 4 or 6 when stored as a network, else 0
};
[[nodiscard]] StoredDestination storeDestination(const std::string& written);

// The first include or exclude value of `text` whose storing throws; false
// when none does.
[[nodiscard]] bool findThrowingValue(const std::string& text, KeyedValue& value, std::string& what);

// Byte offsets to 1-based line and column (in bytes).
class LineIndex {
 public:
  explicit LineIndex(std::string_view text);
  [[nodiscard]] std::pair<std::size_t, std::size_t> at(std::size_t offset) const;

 private:
  std::vector<std::size_t> lineStarts_;  // offset of each line's first byte, ascending
};

}  // namespace tpa::tools

#endif  // TPA_TOOLS_LINT_H_
