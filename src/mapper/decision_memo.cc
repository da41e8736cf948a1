#include "mapper/decision_memo.h"

#include <cstring>
#include <new>
#include <utility>

#include "fsa/open_table.h"

namespace tpa::mapper {

bool DecisionMemo::Entry::holds(std::uint64_t h, std::uint64_t e, const std::string& app,
                                const std::string& destination) const {
  // The application's length tells "ab" + "c" from "a" + "bc".
  return lastUsed != 0 && hash == h && epoch == e && appLength == app.size() &&
         key.size() == app.size() + destination.size() &&
         std::memcmp(key.data(), app.data(), app.size()) == 0 &&
         std::memcmp(key.data() + app.size(), destination.data(), destination.size()) == 0;
}

std::uint64_t DecisionMemo::hashOf(const std::string& app, const std::string& destination) {
  return fsa::hashBytes(destination.data(), destination.size(),
                        fsa::hashBytes(app.data(), app.size()));
}

bool DecisionMemo::find(std::uint64_t epoch, const std::string& app, const std::string& destination,
                        Decision& out) {
  if (tooLong(app, destination)) return false;
  try {
    if (entries_.empty()) entries_.resize(sets_ * kWays);
  } catch (const std::bad_alloc&) {
    return false;  // no room for the memo: the machines answer
  }
  const std::uint64_t h = hashOf(app, destination);
  Entry* ways = set(h);
  for (std::size_t i = 0; i < kWays; ++i) {
    Entry& e = ways[i];
    if (e.holds(h, epoch, app, destination)) {
      e.lastUsed = ++clock_;
      out = e.decision;
      ++hits_;
      return true;
    }
  }
  return false;
}

DecisionMemo::Entry* DecisionMemo::victim(std::uint64_t hash, std::uint64_t epoch) {
  Entry* ways = set(hash);
  // Entries of other epochs answer no query of this one: they go first.
  const auto age = [epoch](const Entry& e) { return e.epoch == epoch ? e.lastUsed : 0; };
  Entry* oldest = ways;
  for (std::size_t i = 1; i < kWays; ++i) {
    if (age(ways[i]) < age(*oldest)) oldest = &ways[i];
  }
  return oldest;
}

void DecisionMemo::remember(std::uint64_t epoch, const std::string& app,
                            const std::string& destination, const Decision& d) {
  if (entries_.empty() || tooLong(app, destination)) return;
  const std::uint64_t h = hashOf(app, destination);
  Entry* e = victim(h, epoch);
  const auto replaces = [epoch](const Entry& v) { return v.lastUsed != 0 && v.epoch == epoch; };
  if (replaces(*e) && ++replaced_ >= entries_.size()) {
    // A table that keeps replacing entries grows, unless it hardly answers
    // anything (a stream of new pairs would only fill a larger one).
    const bool useful = hits_ >= replaced_ / kHitsPerGrowth;
    replaced_ = 0;
    hits_ = 0;
    if (useful && sets_ < kMaxSets && grow(epoch)) {
      e = victim(h, epoch);  // in the grown table
      if (replaces(*e)) ++replaced_;
    }
  }
  try {
    e->key.assign(app);
    e->key.append(destination);
  } catch (const std::bad_alloc&) {
    e->lastUsed = 0;  // its old key is kept no longer either
    return;
  }
  e->hash = h;
  e->appLength = app.size();
  e->epoch = epoch;
  e->lastUsed = ++clock_;
  e->decision = d;
}

bool DecisionMemo::grow(std::uint64_t epoch) {
  std::vector<Entry> old;
  try {
    old.resize(sets_ * 2 * kWays);
  } catch (const std::bad_alloc&) {
    return false;
  }
  old.swap(entries_);
  sets_ *= 2;
  // An old set splits into two new ones, each taking at most kWays entries.
  for (Entry& e : old) {
    if (e.lastUsed == 0 || e.epoch != epoch) continue;
    Entry* ways = set(e.hash);
    for (std::size_t i = 0; i < kWays; ++i) {
      if (ways[i].lastUsed == 0) {
        ways[i] = std::move(e);
        break;
      }
    }
  }
  return true;
}

void DecisionMemo::clear() {
  for (Entry& e : entries_) e.lastUsed = 0;
  replaced_ = 0;
  hits_ = 0;
}

}  // namespace tpa::mapper
