// A proposed wildcard search for the library's suffix automaton: the same
// answer as SuffixAutomaton::tryFindPartial, found by reading only the tail
// of the key. The longest suffix of the key that occurs in the text is also
// the longest suffix of any window of the key that it does not fill, so the
// matching statistics start 16 characters from the end and widen (double)
// only while the window matches whole. Built on the automaton's public
// read-only views; reads only, so any thread may run it on an automaton that
// no one is changing.
#ifndef TPA_BENCH_WINDOWED_SEARCH_H_
#define TPA_BENCH_WINDOWED_SEARCH_H_

#include <string>

#include "fsa/suffix_automaton.h"

namespace tpa::bench {

// As tryFindPartial: the length of the longest suffix of `key` found in the
// text (INT32_MIN for an empty key), and in `out` the value reached by reading
// that suffix again behind a leading '*'.
[[nodiscard]] int windowedPartial(const fsa::SuffixAutomaton<int>& sa, const std::string& key,
                                  fsa::SAStateValue<int>& out);

}  // namespace tpa::bench

#endif  // TPA_BENCH_WINDOWED_SEARCH_H_
