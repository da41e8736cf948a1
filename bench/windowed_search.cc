#include "windowed_search.h"

#include <algorithm>
#include <cstdint>

namespace tpa::bench {

namespace {

using Automaton = fsa::SuffixAutomaton<int>;

// The longest suffix of key[start, n) that occurs in the automaton's text:
// the matching statistics of that window at its last character.
int suffixMatch(const Automaton& sa, const std::string& key, int start) {
  int s = 0;
  int l = 0;
  for (int i = start; i < static_cast<int>(key.size()); ++i) {
    const auto c = static_cast<unsigned char>(key[i]);
    while (s != 0 && sa.transitions().find(s, c) == nullptr) {
      s = std::max(sa.stateAt(s).link(), 0);
      l = sa.stateAt(s).length();
    }
    if (const std::int32_t* next = sa.transitions().find(s, c)) {
      s = *next;
      ++l;
    }
  }
  return l;
}

}  // namespace

int windowedPartial(const Automaton& sa, const std::string& key, fsa::SAStateValue<int>& out) {
  const int n = static_cast<int>(key.size());
  if (n < 1 || !sa.allocated()) return sa.tryFindPartial(key, out);
  int best = 0;
  for (int window = 16;; window *= 2) {
    const int start = std::max(0, n - window);
    best = suffixMatch(sa, key, start);
    if (best < n - start || start == 0) break;
  }
  const std::int32_t* star = sa.transitions().find(0, static_cast<unsigned char>('*'));
  if (star == nullptr) {
    out = sa.stateAt(0).value();
    return best;
  }
  int s = *star;
  for (int j = n - best; j < n; ++j) {
    const std::int32_t* next = sa.transitions().find(s, static_cast<unsigned char>(key[j]));
    if (next == nullptr) break;
    s = *next;
  }
  out = sa.stateAt(s).value();
  return best;
}

}  // namespace tpa::bench
