#include "fsa/frozen_automaton.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace tpa::fsa {

// --- RankedBits -------------------------------------------------------------

void RankedBits::resize(std::size_t n) {
  blocks_.assign((n + 63) / 64 + 1, Block{0, 0});  // one spare: rank(n) stays in bounds
}

void RankedBits::seal() {
  std::uint32_t total = 0;
  for (Block& b : blocks_) {
    b.before = total;
    total += bitCount(b.word);
  }
}

// --- RunIndex ---------------------------------------------------------------

void RunIndex::resize(std::size_t states, std::size_t runs) {
  blocks_.assign((states + 63) / 64 + 1, Block{0, 0, 0});  // one spare, as RankedBits
  ends_.clear();
  ends_.reserve(runs);
  filled_ = 0;
  edges_ = 0;
}

void RunIndex::fillTo(std::size_t block) {
  for (; filled_ <= block && filled_ < blocks_.size(); ++filled_) {
    blocks_[filled_].before = static_cast<std::uint32_t>(ends_.size());
    blocks_[filled_].base = edges_;
  }
}

void RunIndex::add(std::size_t s, std::uint32_t edges) {
  Block& b = blocks_[s >> 6];
  fillTo(s >> 6);
  b.word |= std::uint64_t{1} << (s & 63);
  edges_ += edges;
  ends_.push_back(static_cast<std::uint16_t>(edges_ - b.base));
}

void RunIndex::seal() { fillTo(blocks_.size()); }

// --- FrozenAutomaton --------------------------------------------------------

int FrozenAutomaton::stepOffText(int s, unsigned char c) const {
  std::uint32_t first = 0, count = 0;
  if (!runIndex_.find(static_cast<std::size_t>(s), first, count)) return -1;
  const unsigned char* run = &runs_[first * edgeBytes()];
  for (std::uint32_t k = 0; k < count; ++k) {
    if (run[k] == c) return target(run + count + k * targetWidth_);
  }
  return -1;
}

int FrozenAutomaton::tryFindFull(const char* key, int n, Value& out) const {
  int s = 0;
  for (int i = 0; i < n; ++i) {
    const int next = step(s, static_cast<unsigned char>(key[i]));
    if (next < 0) {
      out = valueOf(s);
      return i;
    }
    s = next;
  }
  out = valueOf(s);
  return n < 0 ? 0 : n;
}

bool FrozenAutomaton::occurs(const char* key, int from, int n) const {
  int s = 0;
  for (int i = from; i < n; ++i) {
    s = step(s, static_cast<unsigned char>(key[i]));
    if (s < 0) return false;
  }
  return true;
}

int FrozenAutomaton::tryFindPartial(const char* key, int n, Value& out) const {
  int best = INT32_MIN;
  if (n >= 1) {
    // Every suffix of an occurring suffix occurs: search the boundary. A
    // wildcard's tail that ends the key, once read, is one that occurs,
    // and often the longest. Else a miss shares a few characters with the
    // text and every probe that succeeds is read whole, so the probes start
    // short and grow slowly.
    int lo = 0;      // a suffix of this length occurs
    int hi = n + 1;  // and none of this length (n + 1: not known yet)
    std::int32_t tailEnd = -1;
    const int tail = tails_.longestTailSuffix(key, n, tailEnd);
    // A kept tail is a piece of the text: compared where it stands there, it
    // is known to occur without a walk.
    if (tail > 0 && tail <= n && tailEnd + 1 >= tail &&
        std::memcmp(text_.data() + (tailEnd + 1 - tail), key + (n - tail),
                    static_cast<std::size_t>(tail)) == 0) {
      lo = tail;
    }
    for (int probe = lo > 0 ? std::min(n, lo + 1) : std::min(n, 8), growth = 2; lo < n;
         growth *= 2) {
      if (!occurs(key, n - probe, n)) {
        hi = probe;
        break;
      }
      lo = probe;
      probe = std::min(n, probe + growth);
    }
    while (hi - lo > 1) {
      const int mid = lo + (hi - lo) / 2;
      if (occurs(key, n - mid, n)) {
        lo = mid;
      } else {
        hi = mid;
      }
    }
    best = lo;
  }
  const int star = root_[static_cast<unsigned char>('*')];
  if (star < 0) {
    out = valueOf(0);
    return best;
  }
  // The suffix is read again behind the '*'; an empty key reads nothing.
  int s = star;
  for (int j = n < 1 ? n : n - best; j < n; ++j) {
    const int next = step(s, static_cast<unsigned char>(key[j]));
    if (next < 0) break;
    s = next;
  }
  out = valueOf(s);
  return best;
}

bool FrozenAutomaton::findWholeKey(const char* key, int n, Value& out) const {
  // Each filed key ends a text state that carries it, of its own length.
  const std::int32_t end = wholeKeys_.find(
      text_.data(), key, n, [&](std::int32_t e) { return valueOf(e + 1).storedKeyLength == n; });
  if (end < 0) return false;
  out = valueOf(end + 1);
  return true;
}

bool FrozenAutomaton::mayFindWildcard(const char* key, int n) const {
  const int star = root_[static_cast<unsigned char>('*')];
  if (star < 0) return false;  // the lookup reports the start state's (0, -1)
  // Reading nothing behind the '*' reports the '*' state itself.
  if (valueOf(star).storedKeyLength != 0) return true;
  return tails_.anyPieceIsTail(key, n);
}

void FrozenAutomaton::indexKeys(const std::vector<StoredKey>& keys,
                                const std::vector<StoredKey>& wholeKeys) {
  wholeKeys_.build(text_.data(), wholeKeys);
  tails_.build(text_.data(), keys);
}

std::size_t FrozenAutomaton::bytes() const {
  return sizeof(*this) + text_.capacity() + runIndex_.bytes() + runs_.capacity() +
         valued_.bytes() + values_.capacity() * sizeof(Value) +
         wholeKeys_.bytes() + tails_.bytes();
}

// --- FrozenAutomaton::Builder -----------------------------------------------

FrozenAutomaton::Builder::Builder(int states, int textLength, Sizes sizes)
    : frozen_(std::make_unique<FrozenAutomaton>()) {
  FrozenAutomaton& f = *frozen_;
  std::fill(std::begin(f.root_), std::end(f.root_), -1);
  f.text_.assign(static_cast<std::size_t>(textLength), 0);
  f.runIndex_.resize(static_cast<std::size_t>(states), sizes.statesWithEdges);
  f.valued_.resize(static_cast<std::size_t>(states));
  f.stateCount_ = states;
  f.targetWidth_ = states <= (1 << 24) ? 3 : 4;
  f.runs_.reserve(sizes.edges * f.edgeBytes());
  f.values_.reserve(sizes.valued);
  run_.reserve(256);
}

void FrozenAutomaton::Builder::beginState(int s, Value v) {
  flushRun();
  current_ = s;
  if (v.storedKeyLength != kNoValue.storedKeyLength ||
      v.userDefinedValue != kNoValue.userDefinedValue) {
    frozen_->valued_.set(static_cast<std::size_t>(s));
    frozen_->values_.push_back(v);
  }
}

void FrozenAutomaton::Builder::addEdge(unsigned char c, int target) {
  FrozenAutomaton& f = *frozen_;
  const auto s = static_cast<std::size_t>(current_);
  // Every transition into a state carries the same character, so the one
  // from position s - 1 into position s is the text's character at s.
  const bool textEdge = target == current_ + 1 && s < f.text_.size();
  if (textEdge) f.text_[s] = c;
  if (current_ == 0) {
    f.root_[c] = target;
    return;
  }
  if (!textEdge) run_.emplace_back(c, target);
}

void FrozenAutomaton::Builder::flushRun() {
  if (run_.empty()) return;
  FrozenAutomaton& f = *frozen_;
  f.runIndex_.add(static_cast<std::size_t>(current_), static_cast<std::uint32_t>(run_.size()));
  for (const auto& edge : run_) f.runs_.push_back(edge.first);
  for (const auto& edge : run_) {
    for (unsigned b = 0; b < f.targetWidth_; ++b) {
      f.runs_.push_back(
          static_cast<unsigned char>(static_cast<std::uint32_t>(edge.second) >> (8 * b)));
    }
  }
  run_.clear();
}

std::unique_ptr<FrozenAutomaton> FrozenAutomaton::Builder::finish(
    const std::vector<StoredKey>& keys, const std::vector<StoredKey>& wholeKeys) {
  FrozenAutomaton& f = *frozen_;
  flushRun();
  f.runIndex_.seal();
  f.valued_.seal();
  f.indexKeys(keys, wholeKeys);
  return std::move(frozen_);
}

}  // namespace tpa::fsa
