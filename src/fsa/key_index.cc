#include "fsa/key_index.h"

#include <algorithm>
#include <cstring>
#include <tuple>

namespace tpa::fsa {

// --- WholeKeyIndex ----------------------------------------------------------

std::uint64_t WholeKeyIndex::hash(const unsigned char* key, int n) {
  constexpr std::uint64_t kMul = 0x9fb21c651e98df25u;
  std::uint64_t h = static_cast<std::uint64_t>(n) * kMul;
  int i = 0;
  for (; i + 8 <= n; i += 8) {
    std::uint64_t w;
    std::memcpy(&w, key + i, 8);
    h = (h ^ w) * kMul;
    h ^= h >> 29;
  }
  if (i < n) {
    std::uint64_t w = 0;
    std::memcpy(&w, key + i, static_cast<std::size_t>(n - i));
    h = (h ^ w) * kMul;
  }
  h ^= h >> 32;
  h *= kMul;
  return h ^ (h >> 29);
}

void WholeKeyIndex::build(const unsigned char* text, const std::vector<StoredKey>& keys) {
  slots_.assign(keys.size() + keys.size() / 2 + 1, Slot{0, 0});
  std::vector<std::int32_t> lengths(slots_.size(), 0);  // of the key filed in each slot
  for (const StoredKey& k : keys) {
    const unsigned char* begin = text + (k.end + 1 - k.length);
    const std::uint64_t h = hash(begin, k.length);
    const auto tag = static_cast<std::uint32_t>(h >> 32);
    for (std::size_t i = home(h);; i = i + 1 == slots_.size() ? 0 : i + 1) {
      Slot& s = slots_[i];
      if (s.endPlusOne == 0) {
        s = Slot{static_cast<std::uint32_t>(k.end) + 1, tag};
        lengths[i] = k.length;
        break;
      }
      if (s.tag == tag && lengths[i] == k.length &&
          endsWith(text, static_cast<std::int32_t>(s.endPlusOne - 1), begin, k.length)) {
        break;  // a copy of a key filed before
      }
    }
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

// A tail found in the text, before it is filed: where it ends.
struct FoundTail {
  std::int32_t end;
  std::uint32_t length;
  std::uint64_t hash;
};

}  // namespace

void WildcardTails::build(const unsigned char* text, const std::vector<StoredKey>& keys) {
  // Every '*' of a key starts a tail that runs to the key's end; one pass
  // from the end hashes them all.
  std::vector<FoundTail> found;
  std::uint32_t shortest = kMaxAnchor;
  for (const StoredKey& k : keys) {
    const int begin = k.end + 1 - k.length;
    if (std::memchr(text + begin, '*', static_cast<std::size_t>(k.length)) == nullptr) continue;
    std::uint64_t h = 0, power = 1;
    for (int i = k.end; i > begin; --i) {
      h += text[i] * power;
      power *= kBase;
      if (text[i - 1] != '*') continue;
      const auto length = static_cast<std::uint32_t>(k.end + 1 - i);
      found.push_back(FoundTail{k.end, length, h});
      shortest = std::min(shortest, length);
    }
  }
  if (found.empty()) return;
  anchor_ = static_cast<int>(shortest);
  unsigned char mask[kMaxAnchor] = {};
  std::memset(mask + (kMaxAnchor - anchor_), 0xff, static_cast<std::size_t>(anchor_));
  std::memcpy(&anchorMask_, mask, sizeof anchorMask_);
  std::vector<std::pair<std::uint64_t, Tail>> anchored;
  anchored.reserve(found.size());
  for (const FoundTail& t : found) {
    anchored.emplace_back(anchorAt(text, t.end), Tail{t.hash, t.length, 0});
    lastChar_[text[t.end]] = true;
  }
  std::vector<FoundTail>().swap(found);
  fileTails(anchored);
}

void WildcardTails::fileTails(std::vector<std::pair<std::uint64_t, Tail>>& anchored) {
  const auto order = [](const std::pair<std::uint64_t, Tail>& a,
                        const std::pair<std::uint64_t, Tail>& b) {
    return std::make_tuple(a.first, a.second.length, a.second.hash) <
           std::make_tuple(b.first, b.second.length, b.second.hash);
  };
  const auto same = [](const std::pair<std::uint64_t, Tail>& a,
                       const std::pair<std::uint64_t, Tail>& b) {
    return a.first == b.first && a.second.length == b.second.length &&
           a.second.hash == b.second.hash;
  };
  std::sort(anchored.begin(), anchored.end(), order);
  anchored.erase(std::unique(anchored.begin(), anchored.end(), same), anchored.end());
  std::size_t anchors = 0;
  for (std::size_t i = 0; i < anchored.size(); ++i) {
    if (i == 0 || anchored[i].first != anchored[i - 1].first) ++anchors;
  }
  seenShift_ = shiftFor(std::max<std::size_t>(16 * anchors, 64));
  seen_.assign((std::size_t{1} << (64 - seenShift_)) / 64, 0);
  bucketShift_ = shiftFor(2 * anchors);
  buckets_.assign(std::size_t{1} << (64 - bucketShift_), Bucket{0, 0, 0});
  tails_.reserve(anchored.size());
  for (std::size_t i = 0; i < anchored.size();) {
    const std::uint64_t anchor = anchored[i].first;
    const auto begin = static_cast<std::uint32_t>(tails_.size());
    for (; i < anchored.size() && anchored[i].first == anchor; ++i) {
      tails_.push_back(anchored[i].second);
    }
    for (std::size_t t = tails_.size() - 1; t > begin; --t) {
      if (tails_[t - 1].length == tails_[t].length) {
        tails_[t - 1].sameLength = tails_[t].sameLength + 1;
      }
    }
    const std::uint64_t mixed = mix(anchor);
    const std::uint64_t bit = mixed >> seenShift_;
    seen_[bit >> 6] |= std::uint64_t{1} << (bit & 63);
    const std::size_t mask = buckets_.size() - 1;
    std::size_t slot = static_cast<std::size_t>(mixed >> bucketShift_);
    while (buckets_[slot].end != 0) slot = (slot + 1) & mask;
    buckets_[slot] = Bucket{anchor, begin, static_cast<std::uint32_t>(tails_.size())};
  }
}

const WildcardTails::Bucket* WildcardTails::bucketOf(std::uint64_t anchor,
                                                     std::uint64_t mixed) const {
  const std::size_t mask = buckets_.size() - 1;
  for (std::size_t slot = static_cast<std::size_t>(mixed >> bucketShift_);;
       slot = (slot + 1) & mask) {
    const Bucket& b = buckets_[slot];
    if (b.end == 0) return nullptr;
    if (b.anchor == anchor) return &b;
  }
}

bool WildcardTails::anyPieceIsTail(const char* key, int n) const {
  if (anchor_ == 0 || n < anchor_) return false;
  const auto* k = reinterpret_cast<const unsigned char*>(key);
  // Past a few hashed characters per character the partial lookup itself is
  // cheaper.
  long budget = 4L * n + 64;
  for (int j = anchor_ - 1; j < n; ++j) {
    if (lastChar_[k[j]] && tailsEndingAt(k, j, budget, true) != 0) return true;
  }
  return false;
}

int WildcardTails::longestTailSuffix(const char* key, int n) const {
  if (anchor_ == 0 || n < anchor_) return 0;
  long budget = n + 64L;  // a piece ending at n - 1 is hashed once: never spent
  const int longest =
      tailsEndingAt(reinterpret_cast<const unsigned char*>(key), n - 1, budget, false);
  return longest < 0 ? 0 : longest;
}

int WildcardTails::tailsEndingAt(const unsigned char* k, int j, long& budget, bool first) const {
  const std::uint64_t anchor = anchorAt(k, j);
  const std::uint64_t mixed = mix(anchor);
  if (!maySee(mixed)) return 0;
  const Bucket* b = bucketOf(anchor, mixed);
  if (b == nullptr) return 0;
  // The tails of the anchor by length: each length's piece is hashed once
  // (growing to the left) and looked up among that length's hashes.
  const Tail* t = tails_.data() + b->begin;
  const Tail* const end = tails_.data() + b->end;
  const auto room = static_cast<std::uint32_t>(j + 1);
  std::uint64_t h = 0, power = 1;
  std::uint32_t hashed = 0;
  int found = 0;
  while (t != end && t->length <= room) {
    const std::uint32_t length = t->length;
    budget -= length - hashed;
    if (budget < 0) return -1;
    for (; hashed < length; ++hashed) {
      h += k[j - hashed] * power;
      power *= kBase;
    }
    const Tail* next = t + 1 + t->sameLength;
    const Tail* at = t->sameLength < 4 ? std::find_if(t, next, [h](const Tail& x) {
      return x.hash >= h;
    }) : std::lower_bound(t, next, h, [](const Tail& x, std::uint64_t v) { return x.hash < v; });
    if (at != next && at->hash == h) {
      found = static_cast<int>(length);
      if (first) break;
    }
    t = next;
  }
  return found;
}

}  // namespace tpa::fsa
