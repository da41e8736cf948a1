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

// Whether the suffix at i is an LMS suffix: S-type after an L-type.
inline bool isLms(const std::vector<bool>& lType, Index i) {
  return i > 0 && lType[static_cast<std::size_t>(i - 1)] && !lType[static_cast<std::size_t>(i)];
}

// Induces the order of every suffix from the LMS suffixes, given by
// `placeLms(place)` calling place(d) for each in the order they are to keep:
// L-types left to right, S-types right to left. `lType[i]`: the suffix at i
// is larger than the one at i + 1 (the last suffix, before the empty end,
// always is).
template <typename Symbol, typename PlaceLms>
void induce(const Symbol* s, Index n, const std::vector<bool>& lType, const Buckets& b,
            PlaceLms placeLms, std::vector<Index>& sa) {
  std::vector<Index> next(b.sStart);
  placeLms([&](Index d) { sa[static_cast<std::size_t>(next[s[d]]++)] = d; });
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

// The end of the LMS substring at LMS position p: the next LMS position, or n.
inline Index lmsEnd(const std::vector<bool>& lType, Index n, Index p) {
  Index e = p + 1;
  while (e < n && !isLms(lType, e)) ++e;
  return e;
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

// Names the LMS substrings, whose sorted order sa[0, m) holds, in that
// order (equal ones share a name), and returns the names in text order, the
// reduced string; `names` gets the largest. The names are parked in
// sa[m + p / 2] for LMS position p (two LMS positions are at least two
// apart, and m <= n / 2), so that no array of n is needed beside sa.
template <typename Symbol>
std::vector<Index> nameLms(const Symbol* s, Index n, const std::vector<bool>& lType, Index m,
                           std::vector<Index>& sa, Index& names) {
  std::fill(sa.begin() + m, sa.end(), -1);
  names = 0;
  Index prev = sa[0], prevEnd = lmsEnd(lType, n, prev);
  sa[static_cast<std::size_t>(m + prev / 2)] = 0;
  for (Index i = 1; i < m; ++i) {
    const Index r = sa[static_cast<std::size_t>(i)];
    const Index rEnd = lmsEnd(lType, n, r);
    if (!sameLms(s, n, prev, prevEnd, r, rEnd)) ++names;
    sa[static_cast<std::size_t>(m + r / 2)] = names;
    prev = r, prevEnd = rEnd;
  }
  std::vector<Index> reduced(static_cast<std::size_t>(m));
  std::size_t k = 0;
  for (Index j = m; j < n; ++j) {
    if (sa[static_cast<std::size_t>(j)] >= 0) reduced[k++] = sa[static_cast<std::size_t>(j)];
  }
  return reduced;
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

  const auto lmsInTextOrder = [&](auto place) {
    for (Index i = 1; i < n; ++i) {
      if (isLms(lType, i)) place(i);
    }
  };
  std::fill(sa.begin(), sa.end(), -1);
  induce(s, n, lType, b, lmsInTextOrder, sa);
  // The LMS suffixes, now sorted by their LMS substrings, to the front.
  Index m = 0;
  for (Index i = 0; i < n; ++i) {
    const Index v = sa[static_cast<std::size_t>(i)];
    if (v >= 0 && isLms(lType, v)) sa[static_cast<std::size_t>(m++)] = v;
  }
  if (m == 0) return sa;

  Index names = 0;
  std::vector<Index> order = nameLms(s, n, lType, m, sa, names);
  order = sais(order.data(), m, names);
  // The LMS positions, in text order, mapped through the reduced string's
  // suffix array: the LMS suffixes sorted.
  Index k = 0;
  lmsInTextOrder([&](Index i) { sa[static_cast<std::size_t>(k++)] = i; });
  for (Index& lms : order) lms = sa[static_cast<std::size_t>(lms)];
  std::fill(sa.begin(), sa.end(), -1);
  induce(s, n, lType, b,
         [&](auto place) {
           for (const Index d : order) place(d);
         },
         sa);
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
