// The frozen form made straight from the text, without the online automaton.
//
// The states of the suffix automaton of a text T (n characters) other than
// the start state are the nodes of the suffix tree of R, T reversed: a string
// s of T whose occurrences end at a set E is the string reverse(s) of R whose
// occurrences start at the mirrored set, so the states (sets of end
// positions) are the nodes (sets of suffixes, intervals of R's suffix array).
// In the suffix array and its LCP array the nodes are the lcp-intervals of
// value > 0 and the positions whose suffix is longer than its LCP with both
// neighbours (no terminator: a suffix that is the prefix of another is the
// left end of an lcp-interval of its own length). The rest follows:
//
// - A node whose interval holds the suffix of R of exactly its depth is the
//   state of a prefix of T, state e + 1 for the prefix ending at e; every
//   other node is a clone, numbered after them.
// - A state's value is the one given at its first end position in T (a clone
//   copies the value of the state it splits, which ends first where it does):
//   R's largest suffix position in the interval, mirrored.
// - The transition of a state on c is the Weiner link of its node: the suffix
//   positions of c + label are the LF images of the positions in the
//   interval whose BWT character is c, so the target's interval runs from the
//   image of the first such position to that of the last. A single position
//   is the state of a prefix; a longer interval is a clone if one was found
//   there, else the prefix state whose suffix starts it.
//
// The tree is walked bottom-up twice over the arrays (Abouelhoda, Kurtz and
// Ohlebusch's lcp-interval traversal), once to count states, transitions and
// values, once to place them; a node carries, per BWT character of its
// interval, the LF images of the first and last occurrence. Both walks read
// the suffix array and the LCP array front to back only, and the BWT
// straight from T. Memory: the suffix array of R in log2(n) bits per
// character (21 at 2M characters) and its LCP array in 1 byte, per clone 4
// bytes, 1 byte per state while counting, and the frozen form; SA-IS's own
// peak of about 12 bytes per character comes first.
// The heap is trimmed between the stages, so that what one frees is not
// left resident under the next.
#include <algorithm>
#include <functional>
#include <utility>

#include "fsa/frozen_automaton.h"
#include "fsa/heap.h"
#include "fsa/suffix_sort.h"

namespace tpa::fsa {

namespace {

using Index = std::int32_t;

// What a node's interval holds of one BWT character c: the LF images of its
// first and last occurrence there, which bound the interval of c + label,
// and the suffix at the first image (the one at the first occurrence, less
// one), so that the target's state is known without reading the suffix
// array out of order.
struct Reach {
  unsigned char c;
  Index lo;
  Index hi;
  Index loSuffix;
};

enum class NodeKind { kRoot, kPrefix, kClone };

// A node as the walk reports it.
struct Node {
  NodeKind kind;
  Index lb, rb;   // its interval of the suffix array
  Index maxSuffix;  // the largest suffix position of R in it (its first end in T, mirrored)
  const Reach* reach;  // per character, in character order
  std::size_t reaches;
  // A leaf's (lb == rb) longest LCP with its neighbours, its parent's depth:
  // its prefix of T is the only occurrence of each of its suffixes longer
  // than this. 0 for the other nodes.
  Index leafParentDepth = 0;
};

// Positions of a text of n characters (the suffix array as the walks read
// it, the clones' left ends), each in as many bits as n needs (21 for 2M
// characters, 25 for 32M).
class PackedPositions {
 public:
  PackedPositions() = default;
  // `values` in [0, n). Throws std::bad_alloc.
  PackedPositions(const std::vector<Index>& values, std::size_t n) {
    while (width_ < 31 && (std::size_t{1} << width_) < n) ++width_;
    words_.assign((values.size() * width_ + 63) / 64 + 1, 0);  // one spare: get reads a pair
    std::size_t bit = 0;
    for (const Index v : values) {
      const auto value = static_cast<std::uint64_t>(v);
      words_[bit / 64] |= value << (bit % 64);
      if (bit % 64 + width_ > 64) words_[bit / 64 + 1] |= value >> (64 - bit % 64);
      bit += width_;
    }
  }
  Index operator[](std::size_t j) const {
    const std::size_t bit = j * width_;
    std::uint64_t v = words_[bit / 64] >> (bit % 64);
    if (bit % 64 + width_ > 64) v |= words_[bit / 64 + 1] << (64 - bit % 64);
    return static_cast<Index>(v & ((std::uint64_t{1} << width_) - 1));
  }

 private:
  unsigned width_ = 1;
  std::vector<std::uint64_t> words_;  // position j at bits [j * width_, (j + 1) * width_)
};

// R with its suffix array and LCP array, walked bottom-up. Reads T (which
// must outlive it) for the character before each suffix.
class ReversedTree {
 public:
  explicit ReversedTree(const std::vector<unsigned char>& text)
      : n_(static_cast<Index>(text.size())), text_(text.data()) {
    std::vector<unsigned char> reversed(text.rbegin(), text.rend());
    std::vector<Index> sa = suffixArray(reversed.data(), n_);
    releaseFreedMemory();  // SA-IS's own arrays, before more are made
    // Both walks read the arrays in suffix order: put them in it once.
    std::vector<Index> plcp = prefixLcp(reversed.data(), sa);
    lcp_.resize(sa.size());
    for (std::size_t j = 0; j < sa.size(); ++j) {
      const Index shared = plcp[static_cast<std::size_t>(sa[j])];
      lcp_[j] = static_cast<unsigned char>(std::min(shared, kLongLcp));
      if (shared >= kLongLcp) longLcp_.push_back(shared);
    }
    for (const unsigned char c : reversed) ++start_[c + 1];
    for (int c = 0; c < 256; ++c) start_[c + 1] += start_[c];
    first_ = text.front();
    reversed = std::vector<unsigned char>();
    plcp = std::vector<Index>();
    releaseFreedMemory();
    sa_ = std::make_unique<PackedPositions>(sa, sa.size());
    sa = std::vector<Index>();
    releaseFreedMemory();
  }

  Index size() const { return n_; }
  Index suffixAt(Index j) const { return (*sa_)[static_cast<std::size_t>(j)]; }
  // The character of T after the prefix whose mirror is the suffix at
  // `suffix` > 0: R's character before it, read from T rather than kept in
  // an array of its own.
  unsigned char before(Index suffix) const { return text_[static_cast<std::size_t>(n_ - suffix)]; }
  // Those reads are all over T, which a large document's caches do not
  // hold: each is asked for kAhead suffixes before it is made.
  static constexpr Index kAhead = 32;
  void prefetchBefore(Index suffix) const {
    __builtin_prefetch(text_ + static_cast<std::size_t>(n_ - suffix));
  }

  // Calls visit(const Node&) for every node, children before their parent,
  // the root last, and ahead(suffix) kAhead suffixes before the leaf of
  // `suffix` is visited (for the visitor's own reads by leaf). n >= 1.
  template <typename Visit, typename Ahead>
  void walk(Visit visit, Ahead ahead) {
    Index seen[256] = {};
    nextLongLcp_ = 0;
    stack_.clear();
    reach_.clear();
    stack_.push_back(Open{0, 0, -1, false, 0});
    // The empty suffix, sorted before all, is followed in R by T's first
    // character: the start state's transition into state 1.
    add(Reach{first_, start_[first_], start_[first_], n_ - 1});
    seen[first_] = 1;
    Index previous = 0;  // lcp(j)
    for (Index j = 0; j < n_; ++j) {
      if (j + kAhead < n_) {
        const Index later = suffixAt(j + kAhead);
        prefetchBefore(later);
        ahead(later);
      }
      const Index suffix = suffixAt(j);
      const Index next = j + 1 < n_ ? lcp(j + 1) : 0;
      const Index shared = std::max(previous, next);
      previous = next;
      Reach own{0, -1, -1, -1};
      if (suffix > 0) {
        const unsigned char c = before(suffix);
        own = Reach{c, start_[c] + seen[c], start_[c] + seen[c], suffix - 1};
        ++seen[c];
      }
      if (next > stack_.back().lcp && n_ - suffix == next) {
        // The suffix is the prefix of the next one: the node of its own length.
        stack_.push_back(Open{next, j, suffix, true, reach_.size()});
        if (own.lo >= 0) add(own);
        continue;
      }
      if (next > stack_.back().lcp) stack_.push_back(Open{next, j, -1, false, reach_.size()});
      visit(Node{NodeKind::kPrefix, j, j, suffix, &own, own.lo >= 0 ? 1u : 0u, shared});
      stack_.back().maxSuffix = std::max(stack_.back().maxSuffix, suffix);
      if (own.lo >= 0) add(own);
      close(next, j, visit);
    }
    const Open& root = stack_.back();
    visit(Node{NodeKind::kRoot, 0, n_ - 1, root.maxSuffix, reach_.data() + root.reachStart,
               reach_.size() - root.reachStart});
  }

 private:
  // An interval whose right end is not reached yet; its reaches are
  // reach_[reachStart, the next open interval's reachStart).
  struct Open {
    Index lcp;
    Index lb;
    Index maxSuffix;
    bool prefix;  // holds the suffix of its own length, at lb
    std::size_t reachStart;
  };

  // The LCP at j; called once per j, in increasing order, in each walk.
  Index lcp(Index j) {
    const Index shared = lcp_[static_cast<std::size_t>(j)];
    return shared < kLongLcp ? shared : longLcp_[nextLongLcp_++];
  }

  // Ends the open intervals deeper than `depth` at rb, each a child of the
  // one below it or of a new interval of that depth.
  template <typename Visit>
  void close(Index depth, Index rb, Visit& visit) {
    while (depth < stack_.back().lcp) {
      const Open done = stack_.back();
      stack_.pop_back();
      visit(Node{done.prefix ? NodeKind::kPrefix : NodeKind::kClone, done.lb, rb, done.maxSuffix,
                 reach_.data() + done.reachStart, reach_.size() - done.reachStart});
      if (depth > stack_.back().lcp) {
        // Its parent starts where it does and takes its reaches as they are.
        stack_.push_back(Open{depth, done.lb, done.maxSuffix, false, done.reachStart});
        return;
      }
      Open& parent = stack_.back();
      parent.maxSuffix = std::max(parent.maxSuffix, done.maxSuffix);
      mergeTop(parent.reachStart, done.reachStart);
    }
  }

  // One more occurrence, right of all before, in the top interval.
  void add(const Reach& r) {
    const auto begin = reach_.begin() + static_cast<std::ptrdiff_t>(stack_.back().reachStart);
    auto at = std::lower_bound(begin, reach_.end(), r.c,
                               [](const Reach& x, unsigned char c) { return x.c < c; });
    if (at != reach_.end() && at->c == r.c) {
      at->hi = r.hi;
    } else {
      reach_.insert(at, r);
    }
  }

  // Merges a closed child's reaches [child, end) into its parent's
  // [parent, child), which lie left of them.
  void mergeTop(std::size_t parent, std::size_t child) {
    merged_.clear();
    std::size_t i = parent, k = child;
    while (i < child || k < reach_.size()) {
      if (k == reach_.size() || (i < child && reach_[i].c < reach_[k].c)) {
        merged_.push_back(reach_[i++]);
      } else if (i == child || reach_[k].c < reach_[i].c) {
        merged_.push_back(reach_[k++]);
      } else {
        merged_.push_back(Reach{reach_[i].c, reach_[i].lo, reach_[k].hi, reach_[i].loSuffix});
        ++i, ++k;
      }
    }
    reach_.resize(parent);
    reach_.insert(reach_.end(), merged_.begin(), merged_.end());
  }

  Index n_;
  const unsigned char* text_;  // T
  unsigned char first_ = 0;    // T's first character
  std::unique_ptr<PackedPositions> sa_;
  // The length shared with the suffix sorted before, in suffix order: in a
  // byte, kLongLcp standing for the next of longLcp_ (a domain name's
  // neighbours rarely share more), so that the array costs 1 byte per
  // character where 4 would be the peak's largest share after the suffix
  // array.
  static constexpr Index kLongLcp = 255;
  std::vector<unsigned char> lcp_;
  std::vector<Index> longLcp_;     // the lengths of kLongLcp and more, in suffix order
  std::size_t nextLongLcp_ = 0;    // the walk's next in longLcp_
  Index start_[257] = {};      // where the suffixes starting with each character begin
  std::vector<Open> stack_;    // the root at the bottom, deeper intervals above
  std::vector<Reach> reach_;   // the open intervals' reaches, bottom to top
  std::vector<Reach> merged_;  // scratch of mergeTop
};

// The clones by interval, for the targets of transitions. The walk ends
// intervals in the order of their right ends, and of those ending together
// the deeper (starting later) first: clone k in that order is state
// n + 1 + k, found among those that end where it does.
class CloneIndex {
 public:
  explicit CloneIndex(Index n) : n_(n) { endsHere_.resize(static_cast<std::size_t>(n)); }

  // The next clone in the walk's order. Throws std::bad_alloc.
  void add(Index lb, Index rb) {
    const std::size_t k = count_;
    if (k % 64 == 0) groupStart_.push_back(0);
    if (k == 0 || rb != lastEnd_) {
      endsHere_.set(static_cast<std::size_t>(rb));
      if (groups_ % kSampleEvery == 0) sampled_.push_back(static_cast<std::uint32_t>(k));
      groupStart_.back() |= std::uint64_t{1} << (k % 64);
      ++groups_;
      lastEnd_ = rb;
    }
    starts_.push_back(lb);
    ++count_;
  }
  // Call once every clone is in. Throws std::bad_alloc.
  void seal() {
    endsHere_.seal();
    // Through the second walk, the build's peak, in as few bits as the
    // text's length needs; grown by doubling, the rest may hold twice what
    // they use.
    packedStarts_ = PackedPositions(starts_, static_cast<std::size_t>(n_));
    starts_ = std::vector<Index>();
    groupStart_.shrink_to_fit();
    sampled_.shrink_to_fit();
  }
  Index count() const { return static_cast<Index>(count_); }

  // The state of the clone of interval [lb, rb], or -1. Those ending at rb
  // are nested, their left ends falling in the walk's order: a binary
  // search (a text of long runs ends thousands of clones at one place).
  Index find(Index lb, Index rb) const {
    if (!endsHere_.test(static_cast<std::size_t>(rb))) return -1;
    // The first of [first, last) whose left end is not after lb.
    std::size_t first = firstOf(endsHere_.rank(static_cast<std::size_t>(rb)));
    std::size_t last = nextGroup(first);
    const std::size_t end = last;
    while (first < last) {
      const std::size_t mid = first + (last - first) / 2;
      if (packedStarts_[mid] > lb) {
        first = mid + 1;
      } else {
        last = mid;
      }
    }
    if (first == end || packedStarts_[first] != lb) return -1;
    return n_ + 1 + static_cast<Index>(first);
  }

 private:
  static constexpr std::uint32_t kSampleEvery = 16;

  static std::size_t lowestBit(std::uint64_t bits) {
    return RankedBits::bitCount((bits & (~bits + 1)) - 1);
  }
  // groupStart_'s bits from clone k on (k < count()), the word holding them in w.
  std::uint64_t bitsFrom(std::size_t k, std::size_t& w) const {
    w = k / 64;
    return groupStart_[w] & (~std::uint64_t{0} << (k % 64));
  }
  // The first clone of the r-th right end: from the sampled one before it,
  // past the starts of the groups between (a few words).
  std::size_t firstOf(std::uint32_t r) const {
    std::size_t w = 0;
    std::uint64_t bits = bitsFrom(sampled_[r / kSampleEvery], w);
    std::uint32_t skip = r % kSampleEvery;
    for (std::uint32_t here = RankedBits::bitCount(bits); skip >= here;
         here = RankedBits::bitCount(bits)) {
      skip -= here;
      bits = groupStart_[++w];
    }
    for (; skip > 0; --skip) bits &= bits - 1;
    return w * 64 + lowestBit(bits);
  }
  // The first clone of the group after the one that clone k starts, or count().
  std::size_t nextGroup(std::size_t k) const {
    if (++k >= count_) return count_;
    std::size_t w = 0;
    for (std::uint64_t bits = bitsFrom(k, w);; bits = groupStart_[w]) {
      if (bits != 0) return std::min(w * 64 + lowestBit(bits), count_);
      if (++w == groupStart_.size()) return count_;
    }
  }

  Index n_;
  Index lastEnd_ = -1;
  std::uint32_t groups_ = 0;
  RankedBits endsHere_;  // right ends of clones
  // A bit per clone, set for the first of those ending where it does; and
  // every kSampleEvery-th such first clone, so that the r-th is found
  // without an offset per right end.
  std::vector<std::uint64_t> groupStart_;
  std::vector<std::uint32_t> sampled_;
  // Per clone in order: its left end, in starts_ until sealed, then in
  // packedStarts_.
  std::vector<Index> starts_;
  PackedPositions packedStarts_;
  std::size_t count_ = 0;  // clones added
};

// The keys proper: a value given by extend alone may claim no length, or
// more than the text before it.
bool isStored(const ValuedKey& k) { return k.length > 0 && k.length <= k.end + 1; }

// Those keys. Throws std::bad_alloc.
std::vector<StoredKey> storedKeys(const std::vector<ValuedKey>& keys) {
  std::vector<StoredKey> stored;
  stored.reserve(keys.size());
  for (const ValuedKey& k : keys) {
    if (isStored(k)) stored.push_back(StoredKey{k.end, k.length});
  }
  return stored;
}

}  // namespace

std::unique_ptr<FrozenAutomaton> FrozenAutomaton::fromText(std::vector<unsigned char>& text,
                                                           const std::vector<ValuedKey>& keys,
                                                           std::int64_t maxStates,
                                                           std::int64_t& states) {
  const auto n = static_cast<Index>(text.size());
  if (n == 0) {
    states = 1;
    if (maxStates < 1) return nullptr;
    Builder empty(1, 0, Sizes{0, 0, 0});
    empty.beginState(0, kNoValue);
    return empty.finish(storedKeys(keys), {});
  }
  // The value at each end position of T.
  RankedBits keyEnds;
  keyEnds.resize(text.size());
  for (const ValuedKey& k : keys) keyEnds.set(static_cast<std::size_t>(k.end));
  keyEnds.seal();
  const auto valuedAt = [&](Index e) { return keyEnds.test(static_cast<std::size_t>(e)); };

  auto tree = std::make_unique<ReversedTree>(text);
  const auto firstEndOf = [n](Index suffix) { return n - 1 - suffix; };
  const auto firstEnd = [&](const Node& node) { return firstEndOf(node.maxSuffix); };
  const auto prefixState = [n](Index suffix) { return n - suffix; };

  // First walk: the clones, and what each state stores.
  auto clones = std::make_unique<CloneIndex>(n);
  std::vector<bool> cloneValued;
  // Stored transitions per state: the prefix states', then the clones' as
  // found, in a byte each while they last, kManyEdges standing for the count
  // kept in manyEdges (a state rarely follows 255 characters or more).
  constexpr std::uint8_t kManyEdges = 255;
  std::vector<std::uint8_t> edges(static_cast<std::size_t>(n) + 1, 0);
  std::vector<std::uint8_t> cloneEdges;
  std::vector<std::pair<Index, std::uint16_t>> manyEdges;  // (state, count), sorted once complete
  const auto count = [&](Index state, std::size_t stored) {
    if (stored < kManyEdges) return static_cast<std::uint8_t>(stored);
    manyEdges.emplace_back(state, static_cast<std::uint16_t>(stored));
    return kManyEdges;
  };
  const auto counting = [&](const Node& node) {
    if (node.kind == NodeKind::kRoot) return;
    // A prefix state's transition on the next character of T is the text's.
    const std::size_t fromText = node.kind == NodeKind::kPrefix && node.maxSuffix > 0 ? 1 : 0;
    const std::size_t stored = node.reaches - fromText;
    if (node.kind == NodeKind::kPrefix) {
      const Index state = prefixState(node.maxSuffix);
      edges[static_cast<std::size_t>(state)] = count(state, stored);
      return;
    }
    cloneEdges.push_back(count(n + 1 + clones->count(), stored));
    clones->add(node.lb, node.rb);
    cloneValued.push_back(valuedAt(firstEnd(node)));
  };
  tree->walk(counting, [](Index) {});  // nothing read by leaf
  clones->seal();
  std::sort(manyEdges.begin(), manyEdges.end());
  states = 1 + static_cast<std::int64_t>(n) + static_cast<std::int64_t>(clones->count());
  if (states > maxStates) return nullptr;

  // The layout: which states have runs and values, and where each run starts.
  auto frozen = std::make_unique<FrozenAutomaton>();
  FrozenAutomaton& f = *frozen;
  const auto total = static_cast<std::size_t>(states);
  std::fill(std::begin(f.root_), std::end(f.root_), -1);
  f.stateCount_ = static_cast<int>(states);
  f.targetWidth_ = states <= (1 << 24) ? 3 : 4;
  f.valued_.resize(total);
  const auto edgesOf = [&](std::size_t s) -> std::size_t {
    const std::uint8_t stored = s < edges.size() ? edges[s] : cloneEdges[s - edges.size()];
    if (stored < kManyEdges) return stored;
    const auto many = std::lower_bound(manyEdges.begin(), manyEdges.end(),
                                       std::make_pair(static_cast<Index>(s), std::uint16_t{0}));
    return many->second;
  };
  std::size_t withEdges = 0;
  for (std::size_t s = 0; s < total; ++s) withEdges += edgesOf(s) > 0 ? 1 : 0;
  f.runIndex_.resize(total, withEdges);
  for (std::size_t s = 0; s < total; ++s) {
    const std::size_t stored = edgesOf(s);
    if (stored > 0) f.runIndex_.add(s, static_cast<std::uint32_t>(stored));
  }
  f.runIndex_.seal();
  const std::size_t edgeCount = f.runIndex_.edges();
  edges = std::vector<std::uint8_t>();
  cloneEdges = std::vector<std::uint8_t>();
  manyEdges = {};
  releaseFreedMemory();  // the counts, before the runs take their place
  f.runs_.resize(edgeCount * f.edgeBytes());
  for (const ValuedKey& k : keys) f.valued_.set(static_cast<std::size_t>(k.end) + 1);
  for (std::size_t c = 0; c < cloneValued.size(); ++c) {
    if (cloneValued[c]) f.valued_.set(static_cast<std::size_t>(n) + 1 + c);
  }
  cloneValued = std::vector<bool>();
  f.valued_.seal();
  f.values_.resize(f.valued_.rank(total));
  releaseFreedMemory();  // the counts

  // Second walk: values and transitions in place.
  const auto stateOf = [&](const Reach& r) {
    const Index clone = r.lo == r.hi ? -1 : clones->find(r.lo, r.hi);
    return clone >= 0 ? clone : prefixState(r.loSuffix);
  };
  Index nextClone = n + 1;  // in the first walk's order
  // Per key: it occurs nowhere else in T, so that its state carries it and a
  // full lookup finds it whole without a walk.
  std::vector<bool> onlyCopy(keys.size());
  const auto placing = [&](const Node& node) {
    const Index s = node.kind == NodeKind::kRoot     ? 0
                    : node.kind == NodeKind::kPrefix ? prefixState(node.maxSuffix)
                                                     : nextClone++;
    if (node.kind == NodeKind::kRoot) {
      for (std::size_t k = 0; k < node.reaches; ++k) {
        f.root_[node.reach[k].c] = stateOf(node.reach[k]);
      }
      return;
    }
    const auto at = static_cast<std::size_t>(s);
    if (node.kind == NodeKind::kPrefix && node.lb == node.rb) {
      // A leaf: its one reach, if any, is the text's, so it has no run; its
      // value is the key ending at it, placed with the others' below.
      const auto e = static_cast<std::size_t>(firstEnd(node));
      if (!keyEnds.test(e)) return;
      const std::uint32_t key = keyEnds.rank(e);
      if (keys[key].length > node.leafParentDepth) onlyCopy[key] = true;
      return;
    }
    if (node.kind == NodeKind::kClone && f.valued_.test(at)) {
      const ValuedKey& k = keys[keyEnds.rank(static_cast<std::size_t>(firstEnd(node)))];
      f.values_[f.valued_.rank(at)] = Value{k.length, k.value};
    }
    std::uint32_t first = 0, count = 0;
    if (!f.runIndex_.find(at, first, count)) return;
    unsigned char* run = &f.runs_[first * f.edgeBytes()];
    std::uint32_t k = 0;
    for (std::size_t i = 0; i < node.reaches; ++i) {
      const Reach& reach = node.reach[i];
      if (node.kind == NodeKind::kPrefix && s < n && reach.c == text[static_cast<std::size_t>(s)]) {
        continue;  // read from the text
      }
      const auto target = static_cast<std::uint32_t>(stateOf(reach));
      run[k] = reach.c;
      for (unsigned b = 0; b < f.targetWidth_; ++b) {
        run[count + k * f.targetWidth_ + b] = static_cast<unsigned char>(target >> (8 * b));
      }
      ++k;
    }
  };
  tree->walk(placing,
             [&](Index suffix) { keyEnds.prefetch(static_cast<std::size_t>(firstEndOf(suffix))); });

  // A prefix state's value is the key ending at it (its first end is its
  // own): placed in state order here, not all over the values in the walk's.
  for (const ValuedKey& k : keys) {
    f.values_[f.valued_.rank(static_cast<std::size_t>(k.end) + 1)] = Value{k.length, k.value};
  }

  // The walks' arrays go before the key indexes are made, and their memory
  // back to the system: the heap they lie in may be ordinary heap, not
  // blocks of their own, once the C library has raised its mmap threshold
  // past their size.
  tree.reset();
  clones.reset();
  keyEnds = RankedBits();
  releaseFreedMemory();
  f.text_ = std::move(text);
  text = std::vector<unsigned char>();
  // Only now, not to be held beside the arrays of the walks.
  const std::vector<StoredKey> stored = storedKeys(keys);
  // A key is found whole when its first copy ends in a state of its length:
  // one that occurs once is; another is looked up.
  std::vector<StoredKey> whole;
  for (std::size_t i = 0, next = 0; i < keys.size(); ++i) {
    if (!isStored(keys[i])) continue;
    const StoredKey& k = stored[next++];
    Value v;
    const char* key = reinterpret_cast<const char*>(f.text_.data()) + (k.end + 1 - k.length);
    if (onlyCopy[i] ||
        (f.tryFindFull(key, k.length, v) == k.length && v.storedKeyLength == k.length)) {
      whole.push_back(k);
    }
  }
  onlyCopy = std::vector<bool>();
  f.indexKeys(stored, whole);
  return frozen;
}

}  // namespace tpa::fsa
