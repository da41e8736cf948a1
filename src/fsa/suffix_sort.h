// The suffix array of a byte string and the lengths of the prefixes its
// neighbours share, from which a frozen automaton is made without ever
// building the online one.
//
// suffixArray follows SA-IS (Nong, Zhang and Chan, "Two efficient algorithms
// for linear time suffix array construction"): O(n) time, the array itself
// plus, while it runs, a bit per character for the types and the reduced
// string of at most n/2 names (named in the array's unused part), then the
// same for the reduced string, at most half as long (with bucket arrays as
// long as its names are many), so that the recursion is at most log2(n)
// deep; about 12n bytes in all on domain names. A suffix that is a prefix of
// another sorts before it.
// prefixLcp is Kasai et al.'s algorithm in its permuted form (Karkkainen,
// Manzini and Puglisi): O(n), one array of 4n bytes, filled in place.
// Pure functions; every one may throw std::bad_alloc.
#ifndef TPA_FSA_SUFFIX_SORT_H_
#define TPA_FSA_SUFFIX_SORT_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tpa::fsa {

// The start positions of the suffixes of s[0, n), in sorted order.
std::vector<std::int32_t> suffixArray(const unsigned char* s, std::int32_t n);

// plcp[i]: the length of the prefix that the suffix at i shares with the
// suffix sorted just before it (0 for the first in order), for the suffix
// array `sa` of s[0, n).
std::vector<std::int32_t> prefixLcp(const unsigned char* s, const std::vector<std::int32_t>& sa);

}  // namespace tpa::fsa

#endif  // TPA_FSA_SUFFIX_SORT_H_
