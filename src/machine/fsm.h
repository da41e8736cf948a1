// FSM: a keyed machine, one suffix automaton with an LRU cache in front of
// it. Keys are (string, sub-key) pairs: the automaton stores and reads the
// string, the cache files every answer under the whole pair, so full (kFullKey)
// and partial (kPartialKey) answers for one string are kept apart.
//
// Owns its automaton and cache; both are absent until construct. Every answer
// is cached, a non-match too, and stays cached across later puts. This is the
// machine while it is built: freeze (or finish) hands its automaton's frozen
// form over as a FrozenMachine, which answers alone from then on. Not
// thread-safe: lookups write to the cache, so callers serialise all access.
#ifndef TPA_MACHINE_FSM_H_
#define TPA_MACHINE_FSM_H_

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "fsa/suffix_automaton.h"
#include "lru/lru.h"
#include "machine/frozen_machine.h"
#include "tpa/api/constants.h"

namespace tpa::machine {

// The sentinel entry of every machine's cache.
inline constexpr char kCacheSentinelKey[] = "def-key";

template <typename Key, typename SubKey, typename Value, typename Length>
class FSM {
 public:
  using KeyPair = std::pair<Key, SubKey>;
  using StateValue = fsa::SAStateValue<Value>;
  using Cached = std::pair<StateValue, Length>;
  using Automaton = fsa::SuffixAutomaton<Value>;
  using Cache = lru::LRU<Key, SubKey, Cached>;

  FSM() = default;
  FSM(const FSM&) = delete;
  FSM& operator=(const FSM&) = delete;

  // Replaces both parts: an automaton for a text of automatonLength
  // characters, made as `how` says, and an empty cache of cacheCapacity
  // entries.
  void construct(int automatonLength, int cacheCapacity,
                 fsa::Construction how = fsa::Construction::kOnline) {
    automaton_.reset();
    cache_.reset();
    automaton_ = std::make_unique<Automaton>();
    automaton_->construct(automatonLength, how);
    cache_ = std::make_unique<Cache>(cacheCapacity);
    cache_->construct(kCacheSentinelKey, SubKey{0},
                      Cached(StateValue(0, fsa::SA_DEFAULT_USER_DEFINED_VALUE), 0));
  }

  // Appends key.first with userDefinedValue at its end; the sub-key plays no
  // part and the cache is left alone. 0, -1 (missing parts or states), -2.
  [[nodiscard]] int put(const KeyPair& key, Value userDefinedValue) {
    if (!automaton_ || !cache_) return error::TPA_ERROR_OOM;
    return automaton_->add(key.first, userDefinedValue);
  }

  // The full lookup of key.first, answered from the cache when it can be.
  // 0 with out and matched set, or -1 (missing parts; outputs untouched).
  [[nodiscard]] int findFull(const KeyPair& key, StateValue& out, Length& matched) {
    return find(key, out, matched,
                [this](const Key& k, StateValue& v) { return automaton_->tryFindFull(k, v); });
  }

  // The partial (wildcard) lookup of key.first, cached like findFull.
  [[nodiscard]] int findPartial(const KeyPair& key, StateValue& out, Length& matched) {
    return find(key, out, matched,
                [this](const Key& k, StateValue& v) { return automaton_->tryFindPartial(k, v); });
  }

  // Whether key.first is stored whole as findFull sees it: read to its end
  // into a state whose stored key length is its own (`out` then gets that
  // state's value). 0 with `whole` set, or -1.
  [[nodiscard]] int findWhole(const KeyPair& key, StateValue& out, bool& whole) {
    StateValue v;
    Length matched = 0;
    const int code = findFull(key, v, matched);
    if (code != error::TPA_ERROR_NONE) return code;
    const auto n = static_cast<Length>(key.first.size());
    whole = n >= 1 && matched == n && v.storedKeyLength() == n;
    if (whole) out = v;
    return error::TPA_ERROR_NONE;
  }

  // The machine once nothing more will be put: its automaton's read-only
  // form (see SuffixAutomaton::freeze), which answers every lookup as this
  // machine does (every answer the cache holds is one the frozen form gives
  // again). Empty, this machine left as it is, when the automaton cannot be
  // frozen (missing, broken by a failed put, out of memory).
  [[nodiscard]] std::optional<FrozenMachine> freeze() noexcept {
    if (!automaton_) return std::nullopt;
    const int states = automaton_->size();
    std::unique_ptr<fsa::FrozenAutomaton> frozen = automaton_->freeze();
    if (!frozen) return std::nullopt;
    return std::optional<FrozenMachine>(std::in_place, std::move(frozen), states);
  }

  // Makes the read-only form of an automaton constructed kFromText once
  // every key is put (see SuffixAutomaton::finish), into `frozen`: 0, or the
  // code of the first put the online automaton would have failed, `keysPut`
  // the puts before it (`frozen` then left empty). Throws std::bad_alloc.
  [[nodiscard]] int finish(std::size_t& keysPut, std::optional<FrozenMachine>& frozen) {
    if (!automaton_) return error::TPA_ERROR_NONE;
    std::unique_ptr<fsa::FrozenAutomaton> form;
    const int code = automaton_->finish(keysPut, form);
    if (form) frozen.emplace(std::move(form), automaton_->size());
    return code;
  }

  // out = states in use other than the start state. 0, or -1.
  [[nodiscard]] int size(int& out) const {
    if (!automaton_ || !cache_) return error::TPA_ERROR_OOM;
    out = automaton_->size();
    return error::TPA_ERROR_NONE;
  }

  // Empties the cache's list as LRU::clear does; the automaton is untouched.
  // 0, or -1 when there is no cache.
  int clearCache() {
    if (!cache_) return error::TPA_ERROR_OOM;
    cache_->clear();
    return error::TPA_ERROR_NONE;
  }

  // While set, lookups read the automaton alone and leave the cache as it is:
  // how a query that could not grow the cache still gets its answer.
  void bypassCache(bool bypass) { cacheBypassed_ = bypass; }

  // Read-only views for diagnostics and tests (null before construct).
  const Automaton* automaton() const { return automaton_.get(); }
  const Cache* cache() const { return cache_.get(); }

 private:
  template <typename Search>
  int find(const KeyPair& key, StateValue& out, Length& matched, Search search) {
    if (!automaton_ || !cache_) return error::TPA_ERROR_OOM;
    if (cacheBypassed_) {
      matched = search(key.first, out);
      return error::TPA_ERROR_NONE;
    }
    Cached answer(StateValue(0, fsa::SA_DEFAULT_USER_DEFINED_VALUE), 0);
    const int code = cache_->getOrPut(key, answer, [&] {
      StateValue found;
      const Length length = search(key.first, found);
      return Cached(found, length);
    });
    if (code != error::TPA_ERROR_NONE) return code;
    out = answer.first;
    matched = answer.second;
    return error::TPA_ERROR_NONE;
  }

  std::unique_ptr<Automaton> automaton_;  // null until construct
  std::unique_ptr<Cache> cache_;          // null until construct; sentinels linked
  bool cacheBypassed_ = false;
};

// The machine the mapping layer uses.
using KeyedMachine = FSM<std::string, int, int, int>;
extern template class FSM<std::string, int, int, int>;

}  // namespace tpa::machine

extern template class tpa::lru::LRU<std::string, int, std::pair<tpa::fsa::SAStateValue<int>, int>>;

#endif  // TPA_MACHINE_FSM_H_
