// Map: the compiled form of a rules document, three keyed machines: the apps
// machine maps framed application keys to rule numbers, the include and
// exclude machines hold every rule's framed destinations with the rule's id.
// Built once (construct, put per rule, finishList for lists made from their
// text, then freeze; see fill.h), then only queried (get); a memo of whole
// decisions, one per querying thread, answers repeated queries before the
// machines. While it is built its machines are keyed machines, an automaton
// with an LRU cache each; a built map holds their frozen forms alone (a
// machine whose freeze ran out of memory stays keyed). Owns its machines
// alone. Building is for one thread. Once shareBetweenThreads has
// run, get only reads the map (and the calling thread's own key buffers and
// memo), so any number of threads may query it at once, also while
// clearCache runs; before, get writes the machines' caches and callers
// serialise queries.
#ifndef TPA_MAPPER_MAP_H_
#define TPA_MAPPER_MAP_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fsa/heap.h"
#include "machine/machine.h"
#include "mapper/bit_names.h"
#include "mapper/decision.h"
#include "mapper/decision_maker.h"

namespace tpa::mapper {

struct QueryTrace;

// Worth calling after a build frees much.
using fsa::releaseFreedMemory;

// The stored form of a sanitised destination, as put writes it into `text`:
// a network by its network identifier (bits), an address in its fixed-width
// text, anything else (wildcards too) verbatim. May throw what address
// recognition throws for the two malformed networks.
void storedDestination(const std::string& destination, std::string& text);

class Map {
 public:
  using Machine = machine::Machine;

  explicit Map(int capacity);
  ~Map();  // the exclude machine goes first, the apps machine last
  Map(const Map&) = delete;
  Map& operator=(const Map&) = delete;

  // Replaces the three machines, sized for the given symbol totals, each with
  // a cache of `capacity` entries; the include and exclude machines are made
  // as `lists` says (kFromText: by finishList, once every rule is put).
  // Returns 0. Throws std::bad_alloc.
  [[nodiscard]] int construct(int appsSize, int includeSize, int excludeSize,
                              fsa::Construction lists = fsa::Construction::kOnline);

  // Stores one rule: its applications under `ruleNumber` (or the any-
  // application branch), its include and exclude lists under the rule number
  // (0 when the only application is LAMBDA_STRING) with `id` as their value.
  // Stops at the first failure and returns its code.
  [[nodiscard]] int put(int ruleNumber, const std::vector<std::string>& apps,
                        const std::vector<std::string>& include,
                        const std::vector<std::string>& exclude, int id);

  // Freezes the three machines once every rule is put: their automata take
  // a fraction of the memory and answer as before, their caches and online
  // states go; no rule can be put after.
  void freeze();

  // Makes the include (or exclude) machine of a Map constructed kFromText,
  // once every rule is put: 0, or the code of the first put that an online
  // machine would have failed, with its messages, `keysPut` being the keys of
  // the list put before it. Throws std::bad_alloc.
  [[nodiscard]] int finishList(bool include, std::size_t& keysPut);

  // Readies a built map for queries from any number of threads at once: a
  // machine whose automaton could not be frozen answers from its automaton
  // alone from now on, as a frozen one does, so that queries write nothing
  // the map holds. Call before other threads may see the map.
  void shareBetweenThreads();

  // Empties the caches of the machines still keyed (a frozen one has none)
  // and sets every thread's memo of this map aside.
  // Returns -1 whether or not it did: callers must not read the result as a
  // failure.
  int clearCache();

  // The decision for a query; the default (-1, exclude) without machines.
  // `trace`, when not null, records every step (such a query always runs
  // through the machines). Never throws: when a cache or the memo cannot
  // grow, the automata answer alone; only a query whose keys cannot even be
  // framed (longer than the buffers' reserved room) gets the default.
  Decision get(const std::string& app, const std::string& destination,
               QueryTrace* trace = nullptr) const;

  // Read-only views for diagnostics and tests (null before construct).
  int capacity() const { return capacity_; }
  const Machine* appsMachine() const { return apps_.get(); }
  const Machine* includeMachine() const { return include_.get(); }
  const Machine* excludeMachine() const { return exclude_.get(); }

 private:
  // put's halves: the applications, and one list, each with the key buffers
  // given.
  [[nodiscard]] int putApps(int ruleNumber, const std::vector<std::string>& apps,
                            std::pair<std::string, int>& key);
  [[nodiscard]] int putList(bool include, int domainRule, const std::vector<std::string>& list,
                            int id, std::string& text, std::pair<std::string, int>& key);

  int capacity_;                      // cache capacity of every machine
  std::unique_ptr<Machine> apps_;     // tansformApp keys -> rule number
  std::unique_ptr<Machine> include_;  // transformDomain(d, rule, 1) -> id
  std::unique_ptr<Machine> exclude_;  // transformDomain(d, rule, 0) -> id
  // The bit strings among the destinations stored in include_ and exclude_.
  BitNames includeBits_;
  BitNames excludeBits_;
  // Key buffers reused by put (get uses those of its thread); freed by
  // freeze.
  QueryBuffers buffers_;
  // Files and finds this map's decisions in the threads' memos: a value no
  // other map and no earlier state of this one has had. Renewed by construct
  // and clearCache, so that a thread's memo answers only with decisions of
  // the map it queries, made since its caches were last emptied.
  void forgetDecisions();
  std::atomic<std::uint64_t> memoEpoch_{0};
  // The memos hold only decisions the machines would give again: every cached
  // search answer is the automaton's answer as long as no key is put after a
  // query. A put after a query may leave stale answers in the caches, which
  // their evictions would then reveal one by one, so the memos stay unused
  // until clearCache empties the caches (or construct replaces them).
  // A query ran through the machines since they were emptied.
  mutable std::atomic<bool> queried_{false};
  std::atomic<bool> memoUsable_{true};
  bool shared_ = false;  // shareBetweenThreads ran: queries never touch the caches
};

}  // namespace tpa::mapper

#endif  // TPA_MAPPER_MAP_H_
