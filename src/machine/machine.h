// Machine: one keyed machine through its life, what a map holds and its
// queries read. While it is built it is a KeyedMachine (its automaton, online
// or collecting its text, with the LRU cache in front); once frozen it is a
// FrozenMachine alone, and the build's structures are gone. A machine whose
// freeze ran out of memory stays a KeyedMachine and keeps answering, through
// its cache or, bypassing it, from its automaton alone.
// Owns whichever it holds. A frozen machine is read-only and may be read by
// any number of threads; a keyed one writes its cache on lookups unless the
// cache is bypassed, and callers then serialise all access.
#ifndef TPA_MACHINE_MACHINE_H_
#define TPA_MACHINE_MACHINE_H_

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "machine/frozen_machine.h"
#include "machine/fsm.h"
#include "tpa/api/constants.h"

namespace tpa::machine {

class Machine {
 public:
  using KeyPair = KeyedMachine::KeyPair;
  using StateValue = KeyedMachine::StateValue;

  Machine() = default;
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;

  // A keyed machine made as KeyedMachine::construct says, replacing either
  // form. Throws std::bad_alloc.
  void construct(int automatonLength, int cacheCapacity,
                 fsa::Construction how = fsa::Construction::kOnline) {
    frozen_.reset();
    keyed_ = std::make_unique<KeyedMachine>();
    keyed_->construct(automatonLength, cacheCapacity, how);
  }

  // KeyedMachine::put while built; a frozen machine takes nothing more
  // (TPA_ERROR_ARRAY_OUT_OF_INDEX, as its automaton's extend answers).
  [[nodiscard]] int put(const KeyPair& key, int value) {
    if (frozen_) {
      return key.first.empty() ? error::TPA_ERROR_NONE : error::TPA_ERROR_ARRAY_OUT_OF_INDEX;
    }
    return keyed_ ? keyed_->put(key, value) : error::TPA_ERROR_OOM;
  }

  // The lookups of a keyed machine (see KeyedMachine), answered by whichever
  // form the machine has; -1 before construct.
  [[nodiscard]] int findFull(const KeyPair& key, StateValue& out, int& matched) {
    if (frozen_) return frozen_->findFull(key, out, matched);
    return keyed_ ? keyed_->findFull(key, out, matched) : error::TPA_ERROR_OOM;
  }
  [[nodiscard]] int findPartial(const KeyPair& key, StateValue& out, int& matched) {
    if (frozen_) return frozen_->findPartial(key, out, matched);
    return keyed_ ? keyed_->findPartial(key, out, matched) : error::TPA_ERROR_OOM;
  }
  [[nodiscard]] int findWhole(const KeyPair& key, StateValue& out, bool& whole) {
    if (frozen_) return frozen_->findWhole(key, out, whole);
    return keyed_ ? keyed_->findWhole(key, out, whole) : error::TPA_ERROR_OOM;
  }
  // False only when findPartial of the key is sure to report no wildcard
  // match; a keyed machine cannot tell and says true.
  bool mayFindWildcard(const std::string& key) const {
    return !frozen_ || frozen_->mayFindWildcard(key);
  }

  // The lookup of the kind the key carries (kFullKey or kPartialKey) as the
  // automaton alone answers it, the cache neither read nor written: what a
  // trace shows of a search that a query skipped. 0, or -1 before construct.
  [[nodiscard]] int peek(const KeyPair& key, StateValue& out, int& matched) const {
    const bool partial = key.second == kPartialKey;
    if (frozen_) {
      matched =
          partial ? frozen_->tryFindPartial(key.first, out) : frozen_->tryFindFull(key.first, out);
      return error::TPA_ERROR_NONE;
    }
    const KeyedMachine::Automaton* automaton = keyed_ ? keyed_->automaton() : nullptr;
    if (automaton == nullptr) return error::TPA_ERROR_OOM;
    matched = partial ? automaton->tryFindPartial(key.first, out)
                      : automaton->tryFindFull(key.first, out);
    return error::TPA_ERROR_NONE;
  }

  // Whether `text` occurs anywhere in the keys put, read one after another:
  // the full search, which may start anywhere, reads all of it. False
  // before construct.
  [[nodiscard]] bool occurs(const std::string& text) const {
    StateValue ignored;
    int matched = 0;
    return peek({text, kFullKey}, ignored, matched) == error::TPA_ERROR_NONE &&
           matched == static_cast<int>(text.size());
  }

  // Freezes a keyed machine once nothing more will be put: its cache and
  // online automaton go, its frozen form answers from now on. A machine that
  // cannot be frozen stays as it is. True when frozen.
  bool freeze() noexcept {
    if (frozen_) return true;
    if (!keyed_) return false;
    std::optional<FrozenMachine> frozen = keyed_->freeze();
    if (!frozen) return false;
    frozen_ = std::move(frozen);
    keyed_.reset();
    return true;
  }

  // Makes the frozen form of a machine constructed kFromText once every key
  // is put (see KeyedMachine::finish), which answers from now on: 0, or the
  // code of the first put the online machine would have failed, `keysPut`
  // the puts before it. Throws std::bad_alloc.
  [[nodiscard]] int finish(std::size_t& keysPut) {
    if (!keyed_) return error::TPA_ERROR_NONE;
    std::optional<FrozenMachine> frozen;
    const int code = keyed_->finish(keysPut, frozen);
    if (frozen) {
      frozen_ = std::move(frozen);
      keyed_.reset();
    }
    return code;
  }

  // out = states in use other than the start state. 0, or -1 before
  // construct.
  [[nodiscard]] int size(int& out) const {
    if (frozen_) return frozen_->size(out);
    return keyed_ ? keyed_->size(out) : error::TPA_ERROR_OOM;
  }

  // Empties a keyed machine's cache (KeyedMachine::clearCache); a frozen
  // machine has none. 0, or -1 before construct.
  int clearCache() {
    if (frozen_) return error::TPA_ERROR_NONE;
    return keyed_ ? keyed_->clearCache() : error::TPA_ERROR_OOM;
  }

  // While set, a keyed machine's lookups read its automaton alone and leave
  // its cache as it is (see KeyedMachine::bypassCache); a frozen machine
  // always reads its automaton alone.
  void bypassCache(bool bypass) {
    if (keyed_) keyed_->bypassCache(bypass);
  }

  // Whether the automaton's first room was had: a keyed machine whose
  // automaton is missing or unallocated would fail its first put.
  bool allocated() const {
    if (frozen_) return true;
    return keyed_ && keyed_->automaton() != nullptr && keyed_->automaton()->allocated();
  }

  // Read-only views for diagnostics, tests and benchmarks: the form the
  // machine has now, the other null.
  const KeyedMachine* keyed() const { return keyed_.get(); }
  const FrozenMachine* frozen() const { return frozen_ ? &*frozen_ : nullptr; }

 private:
  // At most one is set: none before construct, keyed_ while built (and
  // when the freeze failed), frozen_ once frozen.
  std::unique_ptr<KeyedMachine> keyed_;
  std::optional<FrozenMachine> frozen_;
};

}  // namespace tpa::machine

#endif  // TPA_MACHINE_MACHINE_H_
