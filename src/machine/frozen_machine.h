// FrozenMachine: a keyed machine once built, its automaton's frozen form
// alone. Nothing is put into a built machine, so a cache in front could only
// repeat what the frozen form answers, at more than the cost of a walk: there
// is none, and every lookup answers as the keyed machine it was made from
// would (same codes, same outputs). Owns its automaton. Read-only: const
// members may run concurrently on any number of threads.
#ifndef TPA_MACHINE_FROZEN_MACHINE_H_
#define TPA_MACHINE_FROZEN_MACHINE_H_

#include <memory>
#include <string>
#include <utility>

#include "fsa/frozen_automaton.h"
#include "fsa/suffix_automaton.h"
#include "tpa/api/constants.h"

namespace tpa::machine {

class FrozenMachine {
 public:
  using KeyPair = std::pair<std::string, int>;
  using StateValue = fsa::SAStateValue<int>;

  // `states`: the states in use besides the start state, as the automaton it
  // was frozen from counted them.
  FrozenMachine(std::unique_ptr<fsa::FrozenAutomaton> automaton, int states)
      : automaton_(std::move(automaton)), states_(states) {}

  // How many leading characters of `key` can be read from the start state;
  // `out` gets the value of the state where reading stopped.
  int tryFindFull(const std::string& key, StateValue& out) const {
    fsa::FrozenAutomaton::Value v;
    const int read = automaton_->tryFindFull(key.data(), size(key), v);
    out = StateValue(v.storedKeyLength, v.userDefinedValue);
    return read;
  }
  // The partial (wildcard) lookup (see SuffixAutomaton::tryFindPartial).
  int tryFindPartial(const std::string& key, StateValue& out) const {
    fsa::FrozenAutomaton::Value v;
    const int best = automaton_->tryFindPartial(key.data(), size(key), v);
    out = StateValue(v.storedKeyLength, v.userDefinedValue);
    return best;
  }

  // The keyed machine's lookups, with its codes (always 0 here).
  [[nodiscard]] int findFull(const KeyPair& key, StateValue& out, int& matched) const {
    matched = tryFindFull(key.first, out);
    return error::TPA_ERROR_NONE;
  }
  [[nodiscard]] int findPartial(const KeyPair& key, StateValue& out, int& matched) const {
    matched = tryFindPartial(key.first, out);
    return error::TPA_ERROR_NONE;
  }
  // Whether key.first is stored whole as findFull sees it (`out` then gets
  // that state's value), asked of the index of the stored keys. 0.
  [[nodiscard]] int findWhole(const KeyPair& key, StateValue& out, bool& whole) const {
    fsa::FrozenAutomaton::Value v;
    whole = !key.first.empty() && automaton_->findWholeKey(key.first.data(), size(key.first), v);
    if (whole) out = StateValue(v.storedKeyLength, v.userDefinedValue);
    return error::TPA_ERROR_NONE;
  }
  // False only when findPartial of the key is sure to report no wildcard
  // match (a stored key length of 0, or not longer than the matched length).
  bool mayFindWildcard(const std::string& key) const {
    return automaton_->mayFindWildcard(key.data(), size(key));
  }

  // out = states in use other than the start state. 0.
  [[nodiscard]] int size(int& out) const {
    out = states_;
    return error::TPA_ERROR_NONE;
  }

  // Read-only view for diagnostics and benchmarks.
  const fsa::FrozenAutomaton& automaton() const { return *automaton_; }

 private:
  static int size(const std::string& key) { return static_cast<int>(key.size()); }

  std::unique_ptr<fsa::FrozenAutomaton> automaton_;  // never null
  int states_;
};

}  // namespace tpa::machine

#endif  // TPA_MACHINE_FROZEN_MACHINE_H_
