#include "fsa/suffix_sort.h"

#include <algorithm>

namespace tpa::fsa {

namespace {

using Index = std::int32_t;

// Bucket bounds per symbol: where the L-type suffixes of a symbol start and
// where its S-type ones start (each bucket holds its L-types first).
struct Buckets {
  std::vector<Index> lStart;  // upper + 2 entries
  std::vector<Index> sStart;
};

// Induces the order of every suffix from the LMS suffixes listed in `lms`
// (in the order they are to keep): L-types left to right, S-types right to
// left. `lType[i]`: the suffix at i is larger than the one at i + 1 (the
// last suffix, before the empty end, always is).
template <typename Symbol>
void induce(const Symbol* s, Index n, const std::vector<bool>& lType, const Buckets& b,
            const std::vector<Index>& lms, std::vector<Index>& sa) {
  std::fill(sa.begin(), sa.end(), -1);
  std::vector<Index> next(b.sStart);
  for (const Index d : lms) sa[static_cast<std::size_t>(next[s[d]]++)] = d;
  next = b.lStart;
  sa[static_cast<std::size_t>(next[s[n - 1]]++)] = n - 1;  // after the empty end
  for (Index i = 0; i < n; ++i) {
    const Index v = sa[static_cast<std::size_t>(i)];
    if (v >= 1 && lType[static_cast<std::size_t>(v - 1)]) {
      sa[static_cast<std::size_t>(next[s[v - 1]]++)] = v - 1;
    }
  }
  next = b.lStart;
  for (Index i = n - 1; i >= 0; --i) {
    const Index v = sa[static_cast<std::size_t>(i)];
    if (v >= 1 && !lType[static_cast<std::size_t>(v - 1)]) {
      sa[static_cast<std::size_t>(--next[s[v - 1] + 1])] = v - 1;
    }
  }
}

// Whether the LMS substrings starting at l and r (each up to the next LMS
// position, `endL` and `endR`, or the end) are equal.
template <typename Symbol>
bool sameLms(const Symbol* s, Index n, Index l, Index endL, Index r, Index endR) {
  if (endL - l != endR - r) return false;
  for (; l < endL; ++l, ++r) {
    if (s[l] != s[r]) return false;
  }
  return l < n && r < n && s[l] == s[r];
}

// SA-IS over symbols 0..upper. Recurses on the reduced string of LMS names,
// at most half as long, so the depth is at most log2(n).
template <typename Symbol>
std::vector<Index> sais(const Symbol* s, Index n, Index upper) {
  std::vector<Index> sa(static_cast<std::size_t>(n));
  if (n <= 2) {
    for (Index i = 0; i < n; ++i) sa[static_cast<std::size_t>(i)] = i;
    if (n == 2 && s[1] <= s[0]) std::swap(sa[0], sa[1]);  // "aa": the shorter first
    return sa;
  }
  std::vector<bool> lType(static_cast<std::size_t>(n));
  lType[static_cast<std::size_t>(n - 1)] = true;
  for (Index i = n - 2; i >= 0; --i) {
    lType[static_cast<std::size_t>(i)] =
        s[i] == s[i + 1] ? lType[static_cast<std::size_t>(i + 1)] : s[i] > s[i + 1];
  }
  Buckets b;
  b.lStart.assign(static_cast<std::size_t>(upper) + 2, 0);
  b.sStart.assign(static_cast<std::size_t>(upper) + 2, 0);
  for (Index i = 0; i < n; ++i) {
    if (lType[static_cast<std::size_t>(i)]) {
      ++b.sStart[s[i]];
    } else {
      ++b.lStart[static_cast<std::size_t>(s[i]) + 1];
    }
  }
  for (Index c = 0; c <= upper; ++c) {
    b.sStart[static_cast<std::size_t>(c)] += b.lStart[static_cast<std::size_t>(c)];
    b.lStart[static_cast<std::size_t>(c) + 1] += b.sStart[static_cast<std::size_t>(c)];
  }

  std::vector<Index> lmsName(static_cast<std::size_t>(n), -1);  // LMS position -> its index
  std::vector<Index> lms;
  for (Index i = 1; i < n; ++i) {
    if (lType[static_cast<std::size_t>(i - 1)] && !lType[static_cast<std::size_t>(i)]) {
      lmsName[static_cast<std::size_t>(i)] = static_cast<Index>(lms.size());
      lms.push_back(i);
    }
  }
  const auto m = static_cast<Index>(lms.size());
  induce(s, n, lType, b, lms, sa);
  if (m == 0) return sa;

  // Name the LMS substrings in sorted order; equal ones share a name.
  std::vector<Index> sorted;
  sorted.reserve(static_cast<std::size_t>(m));
  for (const Index v : sa) {
    if (v >= 0 && lmsName[static_cast<std::size_t>(v)] >= 0) sorted.push_back(v);
  }
  std::vector<Index> reduced(static_cast<std::size_t>(m));
  Index names = 0;
  const auto lmsEnd = [&](Index p) {
    const Index k = lmsName[static_cast<std::size_t>(p)] + 1;
    return k < m ? lms[static_cast<std::size_t>(k)] : n;
  };
  reduced[static_cast<std::size_t>(lmsName[static_cast<std::size_t>(sorted[0])])] = 0;
  for (Index i = 1; i < m; ++i) {
    const Index l = sorted[static_cast<std::size_t>(i - 1)];
    const Index r = sorted[static_cast<std::size_t>(i)];
    if (!sameLms(s, n, l, lmsEnd(l), r, lmsEnd(r))) ++names;
    reduced[static_cast<std::size_t>(lmsName[static_cast<std::size_t>(r)])] = names;
  }
  lmsName = std::vector<Index>();
  const std::vector<Index> reducedSa = sais(reduced.data(), m, names);
  reduced = std::vector<Index>();
  for (Index i = 0; i < m; ++i) {
    sorted[static_cast<std::size_t>(i)] =
        lms[static_cast<std::size_t>(reducedSa[static_cast<std::size_t>(i)])];
  }
  induce(s, n, lType, b, sorted, sa);
  return sa;
}

}  // namespace

std::vector<std::int32_t> suffixArray(const unsigned char* s, std::int32_t n) {
  return sais(s, n, 255);
}

std::vector<std::int32_t> prefixLcp(const unsigned char* s, const std::vector<std::int32_t>& sa) {
  const auto n = static_cast<Index>(sa.size());
  // First the suffix sorted before each one (-1 for the first), then, in
  // place, the length shared with it: it drops by at most one from i to i + 1.
  std::vector<Index> plcp(sa.size());
  for (Index j = 0; j < n; ++j) {
    plcp[static_cast<std::size_t>(sa[static_cast<std::size_t>(j)])] =
        j == 0 ? -1 : sa[static_cast<std::size_t>(j - 1)];
  }
  Index l = 0;
  for (Index i = 0; i < n; ++i) {
    const Index before = plcp[static_cast<std::size_t>(i)];
    if (before < 0) {
      plcp[static_cast<std::size_t>(i)] = l = 0;
      continue;
    }
    while (i + l < n && before + l < n && s[i + l] == s[before + l]) ++l;
    plcp[static_cast<std::size_t>(i)] = l;
    if (l > 0) --l;
  }
  return plcp;
}

}  // namespace tpa::fsa
