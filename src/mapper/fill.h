// fill: how a Map is filled from a document's rules. Every rule is put in
// document order (the lists only collecting their text), each rule's strings
// let go as soon as the map holds them; then the include and exclude machines
// are made from their text, on two threads when both are large and what the
// second adds to the build's peak stays within a budget; then the machines
// are frozen. The outcome, messages included, is that of a one-thread put of
// online machines. The caller owns the rules and the map; a fill uses the
// map alone until it returns (its second thread is joined before).
#ifndef TPA_MAPPER_FILL_H_
#define TPA_MAPPER_FILL_H_

#include <cstddef>
#include <string>
#include <vector>

#include "mapper/map.h"

namespace tpa::mapper {

// The rules a map is filled from, in document order, as their reader holds
// them.
class RuleSource {
 public:
  struct Rule {
    int number;  // the number the map stores the rule under
    const std::vector<std::string>& apps;
    const std::vector<std::string>& include;
    const std::vector<std::string>& exclude;
    int id;
  };

  virtual ~RuleSource() = default;
  virtual std::size_t size() const = 0;
  virtual Rule at(std::size_t i) const = 0;
  // The map holds rule i now: its strings may go.
  virtual void release(std::size_t i) = 0;
  // The map holds every rule it will: all of them may go.
  virtual void releaseAll() = 0;
};

// Symbols of each machine's text, as the rules' reader counted them.
struct MachineSizes {
  int apps;
  int include;
  int exclude;
};

// Constructs `map` (lists made from their text) for `sizes`, puts every rule
// of `rules`, makes and freezes the machines. 0, or the code of the first
// failure, its messages logged. Throws std::bad_alloc, also when the
// automata's first room cannot be had.
[[nodiscard]] int fill(Map& map, const MachineSizes& sizes, RuleSource& rules);

// The two-thread threshold: a second thread is taken only when the include
// list and the rest each reach this many symbols (65,536 unless set); 0 lets
// every fill within the budget take it, a number larger than any document
// none. For tests, which compare the two; set it while no fill runs.
void setTwoThreadMinimum(long long symbols);

}  // namespace tpa::mapper

#endif  // TPA_MAPPER_FILL_H_
