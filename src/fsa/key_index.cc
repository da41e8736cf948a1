#include "fsa/key_index.h"

#include <algorithm>
#include <cstring>

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

// A hash as filed: the low bit is the flag, and 0 means empty.
std::uint64_t filed(std::uint64_t h) {
  h &= ~std::uint64_t{1};
  return h == 0 ? 2 : h;
}

}  // namespace

void WildcardTails::HashSet::insert(std::uint64_t h, bool flag) {
  if (2 * (used_ + 1) > slots_.size()) rehash(slots_.empty() ? 16 : 2 * slots_.size());
  place(filed(h), flag);
}

void WildcardTails::HashSet::fit() {
  if (!slots_.empty()) rehash(used_ + used_ / 2 + 1);
}

void WildcardTails::HashSet::rehash(std::size_t size) {
  std::vector<std::uint64_t> old(size, 0);
  old.swap(slots_);
  used_ = 0;
  for (const std::uint64_t e : old) {
    if (e != 0) place(e & ~std::uint64_t{1}, (e & 1) != 0);
  }
}

void WildcardTails::HashSet::place(std::uint64_t want, bool flag) {
  for (std::size_t i = home(want);; i = next(i)) {
    std::uint64_t& e = slots_[i];
    if (e == 0) {
      e = want | (flag ? 1 : 0);
      ++used_;
      return;
    }
    if ((e | 1) == (want | 1)) {
      if (flag) e |= 1;
      return;
    }
  }
}

std::uint64_t WildcardTails::HashSet::find(std::uint64_t h) const {
  if (slots_.empty()) return 0;
  const std::uint64_t want = filed(h);
  for (std::size_t i = home(want);; i = next(i)) {
    const std::uint64_t e = slots_[i];
    if (e == 0 || (e | 1) == (want | 1)) return e;
  }
}

void WildcardTails::build(const unsigned char* text, const std::vector<StoredKey>& keys) {
  // The tail behind each key's first '*' (the later ones are its endings).
  std::vector<StoredKey> starred;
  for (const StoredKey& k : keys) {
    const int begin = k.end + 1 - k.length;
    const void* star = std::memchr(text + begin, '*', static_cast<std::size_t>(k.length));
    if (star == nullptr) continue;
    const int first = static_cast<int>(static_cast<const unsigned char*>(star) - text);
    if (first < k.end) starred.push_back(StoredKey{k.end, k.end - first});
  }
  if (starred.empty()) return;
  lastPairs_.assign(65536 / 64, 0);
  for (const StoredKey& t : starred) {
    if (!lastChar_[text[t.end]]) lastChars_.push_back(static_cast<char>(text[t.end]));
    lastChar_[text[t.end]] = true;
    if (t.length >= 2) {
      const unsigned pair = text[t.end - 1] << 8 | text[t.end];
      lastPairs_[pair >> 6] |= std::uint64_t{1} << (pair & 63);
    }
    std::uint64_t h = 0, power = 1;
    for (int length = 1; length <= t.length; ++length) {
      const int i = t.end + 1 - length;
      h += text[i] * power;
      power *= kBase;
      const bool tail = text[i - 1] == '*';
      if (tail && length == 1) singleCharacterTail_ = true;
      if (length <= kEnding) {
        endings_.insert(h, tail);
        continue;
      }
      const bool checkpoint = (length - kEnding) % kCheckpointEvery == 0;
      if (!tail && !checkpoint) continue;
      longer_.insert(h, tail);
      if (lengths_.size() <= static_cast<std::size_t>(length)) lengths_.resize(length + 1, 0);
      lengths_[static_cast<std::size_t>(length)] |=
          (tail ? kTailLength : 0) | (checkpoint ? kCheckpoint : 0);
    }
  }
  endings_.fit();
  longer_.fit();
}

bool WildcardTails::anyPieceIsTail(const char* key, int n) const {
  if (endings_.empty()) return false;
  const auto* k = reinterpret_cast<const unsigned char*>(key);
  // Past a few probes per character the partial lookup itself is cheaper.
  long budget = 4L * n + 64;
  if (lastChars_.size() <= 2) {
    // Typically the two list flags: found by memchr instead of a table per byte.
    for (const char c : lastChars_) {
      for (const void* at = std::memchr(k, c, static_cast<std::size_t>(n)); at != nullptr;) {
        const int j = static_cast<int>(static_cast<const unsigned char*>(at) - k);
        if (tailEndsAt(k, j, budget)) return true;
        at = std::memchr(k + j + 1, c, static_cast<std::size_t>(n - j - 1));
      }
    }
    return false;
  }
  for (int j = 0; j < n; ++j) {
    if (tailEndsAt(k, j, budget)) return true;
  }
  return false;
}

bool WildcardTails::tailEndsAt(const unsigned char* k, int j, long& budget) const {
  return tailsEndingAt(k, j, budget, true) != 0;
}

int WildcardTails::longestTailSuffix(const char* key, int n) const {
  if (endings_.empty() || n < 1) return 0;
  long budget = n + 64;
  const int longest =
      tailsEndingAt(reinterpret_cast<const unsigned char*>(key), n - 1, budget, false);
  return longest < 0 ? 0 : longest;
}

int WildcardTails::tailsEndingAt(const unsigned char* k, int j, long& budget, bool first) const {
  if (!lastChar_[k[j]]) return 0;
  if (!singleCharacterTail_ && (j == 0 || !endsPair(k[j - 1], k[j]))) return 0;
  const int longest = std::max(kEnding, static_cast<int>(lengths_.size()) - 1);
  int found = 0;
  std::uint64_t h = 0, power = 1;
  // A piece that ends no tail has no longer piece that is a tail: the
  // endings, and past them the checkpoints, stop the search early.
  for (int length = 1, last = std::min(j + 1, longest); length <= last; ++length) {
    h += k[j + 1 - length] * power;
    power *= kBase;
    if (--budget < 0) return -1;
    std::uint64_t e;
    if (length <= kEnding) {
      e = endings_.find(h);
      if (e == 0) break;
    } else {
      const std::uint8_t kind = lengths_[static_cast<std::size_t>(length)];
      if (kind == 0) continue;
      e = longer_.find(h);
      if (e == 0 && (kind & kCheckpoint) != 0) break;
    }
    if (e & 1) {
      found = length;
      if (first) break;
    }
  }
  return found;
}

}  // namespace tpa::fsa
