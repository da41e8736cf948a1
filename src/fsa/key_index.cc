#include "fsa/key_index.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <tuple>

namespace tpa::fsa {

// --- WholeKeyIndex ----------------------------------------------------------

void WholeKeyIndex::build(const unsigned char* text, const std::vector<StoredKey>& keys) {
  slots_.reset(keys.size() + keys.size() / 2 + 1);
  std::vector<std::int32_t> lengths(slots_.size(), 0);  // of the key filed in each slot
  for (const StoredKey& k : keys) {
    const unsigned char* begin = text + (k.end + 1 - k.length);
    const std::uint64_t h = hashBytes(begin, static_cast<std::size_t>(k.length));
    const auto tag = static_cast<std::uint32_t>(h >> 32);
    const std::size_t i = slots_.probe(h, [&](const Slot& s) {
      // A copy of a key filed before.
      return s.tag == tag && lengths[static_cast<std::size_t>(&s - &slots_[0])] == k.length &&
             endsWith(text, static_cast<std::int32_t>(s.endPlusOne - 1), begin, k.length);
    });
    if (!slots_[i].empty()) continue;
    slots_[i] = Slot{static_cast<std::uint32_t>(k.end) + 1, tag};
    lengths[i] = k.length;
  }
}

// --- WildcardTails ----------------------------------------------------------

namespace {

// The smallest power of two of at least n (and 2) entries, as the shift that
// takes an index from the top bits of a 64-bit word.
unsigned shiftFor(std::size_t n) {
  unsigned log = 1;
  while ((std::size_t{1} << log) < n) ++log;
  return 64 - log;
}

// Whether some byte of w is zero.
bool hasZeroByte(std::uint64_t w) {
  return ((w - 0x0101010101010101u) & ~w & 0x8080808080808080u) != 0;
}

}  // namespace

void WildcardTails::build(const unsigned char* text, const std::vector<StoredKey>& keys) {
  // Every '*' of a key starts a tail that runs to the key's end; one pass
  // from the end hashes them all.
  std::vector<Filing> filings;
  for (const StoredKey& k : keys) {
    const int begin = k.end + 1 - k.length;
    if (std::memchr(text + begin, '*', static_cast<std::size_t>(k.length)) == nullptr) continue;
    std::uint64_t h = 0, power = 1;
    for (int i = k.end; i > begin; --i) {
      h += text[i] * power;
      power *= kBase;
      if (text[i - 1] != '*') continue;
      const auto length = static_cast<std::uint32_t>(k.end + 1 - i);
      filings.push_back(Filing{Bucket{}, Tail{h, length, leadAt(text + i, length), k.end}, k.end});
    }
  }
  if (filings.empty()) return;
  for (int a = 1; a <= kMaxAnchor; ++a) {
    unsigned char mask[kMaxAnchor] = {};
    std::memset(mask + (kMaxAnchor - a), 0xff, static_cast<std::size_t>(a));
    std::memcpy(&masks_[a], mask, sizeof masks_[a]);
  }
  bool anchorLength[kMaxAnchor + 1] = {};
  for (Filing& f : filings) {
    const auto a = std::min<std::uint32_t>(f.tail.length, kMaxAnchor);
    anchorLength[a] = true;
    f.anchor =
        Bucket{wordEndingAt(text, f.end) & masks_[a], 0, 0, static_cast<std::uint16_t>(a), false};
    lastChar_[text[f.end]] = true;
  }
  for (std::uint32_t a = 1; a <= kMaxAnchor; ++a) {
    if (anchorLength[a]) anchorLengths_[anchorLengthCount_++] = a;
  }
  int count = 0;
  for (int c = 0; c < 256; ++c) {
    if (lastChar_[c] && count < 2) lastWords_[count] = c * 0x0101010101010101u;
    count += lastChar_[c];
  }
  fewLastChars_ = count <= 2;
  if (count == 1) lastWords_[1] = lastWords_[0];
  fileTails(text, filings);
}

bool WildcardTails::filedBefore(const Filing& a, const Filing& b) {
  return std::make_tuple(a.anchor.anchorLength, a.anchor.anchor, a.tail.length, a.tail.lead,
                         a.tail.hash) < std::make_tuple(b.anchor.anchorLength, b.anchor.anchor,
                                                        b.tail.length, b.tail.lead, b.tail.hash);
}

bool WildcardTails::sameAnchor(const Filing& a, const Filing& b) {
  return a.anchor.anchorLength == b.anchor.anchorLength && a.anchor.anchor == b.anchor.anchor;
}

void WildcardTails::fileTails(const unsigned char* text, std::vector<Filing>& filings) {
  std::sort(filings.begin(), filings.end(), filedBefore);
  filings.erase(std::unique(filings.begin(), filings.end(),
                            [](const Filing& a, const Filing& b) {
                              return !filedBefore(a, b) && !filedBefore(b, a);
                            }),
                filings.end());
  std::vector<Bucket> made;
  std::size_t firstLevel = 0;
  tails_.reserve(filings.size());
  for (std::size_t i = 0; i < filings.size();) {
    std::size_t e = i + 1;
    while (e < filings.size() && sameAnchor(filings[e], filings[i])) ++e;
    fileBucket(text, filings, i, e, made);
    ++firstLevel;
    i = e;
  }
  seenShift_ = shiftFor(std::max<std::size_t>(16 * firstLevel, 64));
  seen_.assign((std::size_t{1} << (64 - seenShift_)) / 64, 0);
  bucketShift_ = shiftFor(2 * made.size());
  buckets_.assign(std::size_t{1} << (64 - bucketShift_), Bucket{0, 0, 0, 0, false});
  const std::size_t mask = buckets_.size() - 1;
  for (const Bucket& b : made) {
    const std::uint64_t mixed = mix(b.anchor, b.anchorLength);
    if (b.anchorLength <= kMaxAnchor) {  // the first level, reached through the bits
      const std::uint64_t bit = mixed >> seenShift_;
      seen_[bit >> 6] |= std::uint64_t{1} << (bit & 63);
    }
    std::size_t slot = static_cast<std::size_t>(mixed >> bucketShift_);
    while (buckets_[slot].anchorLength != 0) slot = (slot + 1) & mask;
    buckets_[slot] = b;
  }
}

std::size_t WildcardTails::fileBucket(const unsigned char* text, std::vector<Filing>& filings,
                                      std::size_t from, std::size_t to, std::vector<Bucket>& made) {
  Bucket b = filings[from].anchor;
  const std::uint32_t deeper = b.anchorLength + kSplitStep;
  // By length: the tails that stay come first.
  std::size_t stay = to;
  if (to - from > kBucketTails) {
    stay = from;
    while (stay < to && filings[stay].tail.length < deeper) ++stay;
  }
  b.split = stay < to;
  b.begin = static_cast<std::uint32_t>(tails_.size());
  for (std::size_t i = from; i < stay; ++i) tails_.push_back(filings[i].tail);
  b.end = static_cast<std::uint32_t>(tails_.size());
  made.push_back(b);
  std::size_t count = 1;
  if (!b.split) return count;
  for (std::size_t i = stay; i < to; ++i) {
    Filing& f = filings[i];
    f.anchor.anchor = hashOf(text + (f.end + 1 - deeper), deeper);
    f.anchor.anchorLength = static_cast<std::uint16_t>(deeper);
  }
  std::sort(filings.begin() + static_cast<std::ptrdiff_t>(stay),
            filings.begin() + static_cast<std::ptrdiff_t>(to), filedBefore);
  for (std::size_t i = stay; i < to;) {
    std::size_t e = i + 1;
    while (e < to && sameAnchor(filings[e], filings[i])) ++e;
    count += fileBucket(text, filings, i, e, made);
    i = e;
  }
  return count;
}

std::uint64_t WildcardTails::hashOf(const unsigned char* piece, std::uint32_t length) {
  std::uint64_t h = 0;
  for (std::uint32_t i = 0; i < length; ++i) h = h * kBase + piece[i];
  return h;
}

const WildcardTails::Bucket* WildcardTails::bucketOf(std::uint64_t anchor, std::uint32_t length,
                                                     std::uint64_t mixed) const {
  const std::size_t mask = buckets_.size() - 1;
  for (std::size_t slot = static_cast<std::size_t>(mixed >> bucketShift_);;
       slot = (slot + 1) & mask) {
    const Bucket& b = buckets_[slot];
    if (b.anchorLength == 0) return nullptr;
    if (b.anchor == anchor && b.anchorLength == length) return &b;
  }
}

bool WildcardTails::anyPieceIsTail(const char* key, int n) const {
  if (anchorLengthCount_ == 0) return false;
  const auto* k = reinterpret_cast<const unsigned char*>(key);
  // Past a few hashed characters per character the partial lookup itself is
  // cheaper.
  long budget = 4L * n + 64;
  int j = static_cast<int>(anchorLengths_[0]) - 1;
  if (fewLastChars_) {
    // Words holding neither last character are passed over whole.
    for (; j + 8 <= n; j += 8) {
      std::uint64_t w;
      std::memcpy(&w, k + j, sizeof w);
      if (!hasZeroByte(w ^ lastWords_[0]) && !hasZeroByte(w ^ lastWords_[1])) continue;
      for (int i = j; i < j + 8; ++i) {
        if (lastChar_[k[i]] && tailsEndingAt(k, i, budget, true).length != 0) return true;
      }
    }
  }
  for (; j < n; ++j) {
    if (lastChar_[k[j]] && tailsEndingAt(k, j, budget, true).length != 0) return true;
  }
  return false;
}

int WildcardTails::longestTailSuffix(const char* key, int n, std::int32_t& end) const {
  if (anchorLengthCount_ == 0 || n < 1) return 0;
  long budget = LONG_MAX;  // one position: each length hashed at most once
  const Found longest =
      tailsEndingAt(reinterpret_cast<const unsigned char*>(key), n - 1, budget, false);
  if (longest.length <= 0) return 0;
  end = longest.end;
  return longest.length;
}

WildcardTails::Found WildcardTails::tailsEndingAt(const unsigned char* k, int j, long& budget,
                                                  bool first) const {
  const std::uint64_t word = wordEndingAt(k, j);
  Found found;
  // Shorter anchors hold tails of their own length alone: the longest tail is
  // under the longest anchor that has one.
  for (int i = 0; i < anchorLengthCount_; ++i) {
    const std::uint32_t a = anchorLengths_[i];
    if (a > static_cast<std::uint32_t>(j + 1)) break;
    const std::uint64_t anchor = word & masks_[a];
    const std::uint64_t mixed = mix(anchor, a);
    if (!maySee(mixed)) continue;
    const Bucket* b = bucketOf(anchor, a, mixed);
    if (b == nullptr) continue;
    const Found here = splitTailsOf(b, k, j, budget, first);
    if (here.length < 0 || (here.length > 0 && first)) return here;
    if (here.length > found.length) found = here;
  }
  return found;
}

WildcardTails::Found WildcardTails::splitTailsOf(const Bucket* b, const unsigned char* k, int j,
                                                 long& budget, bool first) const {
  Found found;
  for (;;) {
    const Found here = tailsOf(*b, k, j, budget, first);
    if (here.length < 0 || (here.length > 0 && first)) return here;
    if (here.length > 0) found = here;  // a deeper bucket's tails are longer
    const std::uint32_t deeper = b->anchorLength + kSplitStep;
    if (!b->split || deeper > static_cast<std::uint32_t>(j + 1)) return found;
    if ((budget -= deeper) < 0) return Found{-1, -1};
    const std::uint64_t anchor = hashOf(k + (j + 1 - deeper), deeper);
    b = bucketOf(anchor, deeper, mix(anchor, deeper));
    if (b == nullptr) return found;
  }
}

WildcardTails::Found WildcardTails::tailsOf(const Bucket& b, const unsigned char* k, int j,
                                            long& budget, bool first) const {
  // By length, then first characters, then hash: a piece is hashed only
  // when a tail of its length starts like it.
  const Tail* t = tails_.data() + b.begin;
  const Tail* const end = tails_.data() + b.end;
  const auto room = static_cast<std::uint32_t>(j + 1);
  Found found;
  if (end - t <= 16) {  // a few tails: each compared in turn
    for (; t != end && t->length <= room; ++t) {
      const unsigned char* piece = k + (room - t->length);
      if (t->lead != leadAt(piece, t->length)) continue;
      if ((budget -= t->length) < 0) return Found{-1, -1};
      if (t->hash != hashOf(piece, t->length)) continue;
      found = Found{static_cast<int>(t->length), t->end};
      if (first) break;
    }
    return found;
  }
  while (t != end && t->length <= room) {
    const std::uint32_t length = t->length;
    const unsigned char* piece = k + (room - length);
    const Tail* next = t + 1;
    if (next != end && next->length == length) {
      next =
          std::partition_point(next, end, [length](const Tail& x) { return x.length == length; });
    }
    // Only the tails of this length that start like the piece are compared
    // whole (by hash).
    const std::uint32_t lead = leadAt(piece, length);
    const Tail* from =
        std::lower_bound(t, next, lead, [](const Tail& x, std::uint32_t v) { return x.lead < v; });
    if (from != next && from->lead == lead) {
      const Tail* to =
          std::partition_point(from, next, [lead](const Tail& x) { return x.lead == lead; });
      if ((budget -= length) < 0) return Found{-1, -1};
      const std::uint64_t h = hashOf(piece, length);
      const Tail* at =
          std::lower_bound(from, to, h, [](const Tail& x, std::uint64_t v) { return x.hash < v; });
      if (at != to && at->hash == h) {
        found = Found{static_cast<int>(length), at->end};
        if (first) break;
      }
    }
    t = next;
  }
  return found;
}

}  // namespace tpa::fsa
