// FrozenAutomaton: the read-only form of a finished suffix automaton, made
// once nothing will be appended any more, from the online automaton (Builder)
// or straight from its text (fromText). It holds the same states and
// transitions as the online automaton, so every walk reads the same states
// and reports the same values, in a fraction of the memory:
//
// - States are renumbered: the start state 0, then the state created for text
//   position e as e + 1, then the clones. The transition of state s < n on
//   text[s] always leads to s + 1 (the text itself, extended one character at
//   a time), so it is read from the text and not stored; a chain of states
//   with one transition is a run of the text, read in sequence.
// - Every other transition is stored once, in per-state runs found through a
//   ranked bit set, with the start state's in a direct table.
// - A value is stored only for the states that carry one (key ends and their
//   clones), found through a second ranked bit set.
// - There are no lengths and no links: the longest suffix of a query that
//   occurs in the text (the partial lookup's length) is found by reading
//   suffixes from the start state, whose occurrence is monotone in their
//   length.
//
// - Two indexes of the stored keys (key_index.h) answer a decision's
//   whole-key question and rule out most wildcard matches without a walk.
//
// Cost: about 1 byte per text character, 4 per stored transition (5 past
// 16M states), 2 per
// state with stored transitions, 8 per valued state, 3 bits per state and
// 12 per stored key.
// Immutable once made; const members may run concurrently. Lookups allocate
// nothing and never throw.
#ifndef TPA_FSA_FROZEN_AUTOMATON_H_
#define TPA_FSA_FROZEN_AUTOMATON_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "fsa/key_index.h"

namespace tpa::fsa {

// A bit per index with the count of set bits before each word, so that the
// rank of a set bit (its index among the set bits) costs one word count.
class RankedBits {
 public:
  // `n` bits, all clear. Throws std::bad_alloc.
  void resize(std::size_t n);
  void set(std::size_t i) { blocks_[i >> 6].word |= std::uint64_t{1} << (i & 63); }
  // Fills the counts; call once every bit is set.
  void seal();

  bool test(std::size_t i) const { return (blocks_[i >> 6].word >> (i & 63)) & 1; }
  // Asks for bit i's block ahead of a test or rank.
  void prefetch(std::size_t i) const { __builtin_prefetch(&blocks_[i >> 6]); }
  // Set bits below i.
  std::uint32_t rank(std::size_t i) const {
    const std::uint64_t below = (std::uint64_t{1} << (i & 63)) - 1;
    const Block& b = blocks_[i >> 6];
    return b.before + bitCount(b.word & below);
  }
  // In portable code: without a population count instruction the library
  // call costs more than this.
  static std::uint32_t bitCount(std::uint64_t x) {
    x = x - ((x >> 1) & 0x5555555555555555u);
    x = (x & 0x3333333333333333u) + ((x >> 2) & 0x3333333333333333u);
    x = (x + (x >> 4)) & 0x0f0f0f0f0f0f0f0fu;
    return static_cast<std::uint32_t>((x * 0x0101010101010101u) >> 56);
  }
  std::size_t bytes() const { return blocks_.capacity() * sizeof(Block); }

 private:
  // A word of bits and the count before it side by side: a test and a rank
  // read one cache line.
  struct Block {
    std::uint64_t word;
    std::uint32_t before;  // set bits in the words of the blocks before
  };
  std::vector<Block> blocks_;
};

// Which states have a run of stored transitions, and where each run lies: a
// bit per state, with per 64 states the runs and the edges before them, and
// per run its end counted from its block's first edge in 2 bytes (64 states
// of at most 256 edges each stay below 2^16) rather than from the first edge
// of all in 4: a step reads the block and two neighbouring ends, as it read
// a block and two starts.
class RunIndex {
 public:
  // `states` states, none with a run yet, room for `runs` runs. Throws
  // std::bad_alloc.
  void resize(std::size_t states, std::size_t runs);
  // State s, above every state added before, has a run of `edges` edges,
  // 1 to 256. Throws std::bad_alloc past the room asked for.
  void add(std::size_t s, std::uint32_t edges);
  // Completes the blocks after the last run; call once every run is in.
  void seal();

  // Whether state s has a run; if so, its edges are [first, first + count).
  bool find(std::size_t s, std::uint32_t& first, std::uint32_t& count) const {
    const Block& b = blocks_[s >> 6];
    const std::uint64_t bit = std::uint64_t{1} << (s & 63);
    if ((b.word & bit) == 0) return false;
    const std::uint64_t below = b.word & (bit - 1);
    const std::uint32_t r = b.before + RankedBits::bitCount(below);
    const std::uint32_t from = below == 0 ? 0 : ends_[r - 1];
    first = b.base + from;
    count = ends_[r] - from;
    return true;
  }
  std::uint32_t edges() const { return edges_; }
  std::size_t bytes() const {
    return blocks_.capacity() * sizeof(Block) + ends_.capacity() * sizeof(std::uint16_t);
  }

 private:
  struct Block {
    std::uint64_t word;    // a bit per state with a run
    std::uint32_t before;  // runs in the blocks before
    std::uint32_t base;    // edges in the blocks before
  };
  // Gives the blocks up to `block` their counts (the runs so far are before them).
  void fillTo(std::size_t block);

  std::vector<Block> blocks_;
  // Per run in state order: its end, in edges from its block's base.
  std::vector<std::uint16_t> ends_;
  std::size_t filled_ = 0;  // blocks [0, filled_) have their counts
  std::uint32_t edges_ = 0;  // in the runs added
};

// A key appended to a text: its last character's position, its length and
// the value given with it.
struct ValuedKey {
  std::int32_t end;
  std::int32_t length;
  std::int32_t value;
};

class FrozenAutomaton {
 public:
  // What a state stores, as the online automaton stores it: key length and
  // value, (0, -1) for states without a key end.
  struct Value {
    std::int32_t storedKeyLength;
    std::int32_t userDefinedValue;
  };

  // What a frozen automaton stores besides its text.
  struct Sizes {
    std::size_t edges;            // transitions neither from the start state nor read from the text
    std::size_t statesWithEdges;  // states with such transitions
    std::size_t valued;           // states whose value is not (0, -1)
  };

  // Filled by the owner of the online automaton, state by state in the new
  // numbering (see above); every member may throw std::bad_alloc.
  class Builder;

  // The frozen form of the suffix automaton of `text`, whose `keys` (in text
  // order) carry their values, made straight from the text without the
  // online automaton (frozen_from_text.cc). `states` gets the number of
  // states the automaton has, the start state included. Null, with `text`
  // kept, when that is more than `maxStates`; else `text` is taken. Throws
  // std::bad_alloc.
  static std::unique_ptr<FrozenAutomaton> fromText(std::vector<unsigned char>& text,
                                                   const std::vector<ValuedKey>& keys,
                                                   std::int64_t maxStates, std::int64_t& states);

  // Number of leading characters of key[0, n) readable from the start state;
  // `out` gets the value of the state where reading stopped.
  int tryFindFull(const char* key, int n, Value& out) const;
  // The longest suffix of key[0, n) occurring in the text (INT32_MIN when
  // n < 1); `out` gets the value of the state reached by reading that suffix
  // behind a '*' from the start state (the start state's value without '*').
  int tryFindPartial(const char* key, int n, Value& out) const;

  // True when tryFindFull would read all n >= 1 characters of the key into a
  // state whose stored key length is n, with `out` that state's value; what a
  // decision asks of a whole key, answered from an index of the stored keys.
  bool findWholeKey(const char* key, int n, Value& out) const;
  // False only when tryFindPartial is sure to report a stored key length of
  // 0 or one not longer than the length it returns: no wildcard entry can
  // match the key, which a decision then learns without the lookup.
  bool mayFindWildcard(const char* key, int n) const;

  int textLength() const { return static_cast<int>(text_.size()); }
  std::size_t bytes() const;

 private:
  static constexpr Value kNoValue{0, -1};

  // The target of state s on c, or -1. The text is the common case, kept
  // small enough to inline into every walk.
  int step(int s, unsigned char c) const {
    if (s == 0) return root_[c];
    if (s < static_cast<int>(text_.size()) && text_[static_cast<std::size_t>(s)] == c) return s + 1;
    return stepOffText(s, c);
  }
  int stepOffText(int s, unsigned char c) const;  // out of line: the runs
  // A stored target: little-endian in targetWidth_ bytes.
  int target(const unsigned char* t) const {
    std::uint32_t v = t[0] | std::uint32_t{t[1]} << 8 | std::uint32_t{t[2]} << 16;
    if (targetWidth_ == 4) v |= std::uint32_t{t[3]} << 24;
    return static_cast<int>(v);
  }
  Value valueOf(int s) const {
    if (!valued_.test(static_cast<std::size_t>(s))) return kNoValue;
    return values_[valued_.rank(static_cast<std::size_t>(s))];
  }
  // Reads key[from, n) from the start state; true when all of it was read.
  bool occurs(const char* key, int from, int n) const;
  // Builds the two key indexes once every state is in.
  void indexKeys(const std::vector<StoredKey>& keys, const std::vector<StoredKey>& wholeKeys);

  // Invariants: states are [0, stateCount_); state s + 1 is the target of s
  // on text_[s] for s < text_.size(), and that transition is not in the runs.
  std::vector<unsigned char> text_;
  std::int32_t root_[256];  // start state's targets, -1 for none
  RunIndex runIndex_;       // states (other than 0) with stored runs, and their edges
  // The runs, each its labels then its targets (targetWidth_ bytes each), so
  // that a step reads one place: a run whose edges start at e at byte
  // e * edgeBytes().
  std::vector<unsigned char> runs_;
  unsigned targetWidth_ = 4;  // 3 while every state number fits
  std::size_t edgeBytes() const { return 1 + targetWidth_; }
  RankedBits valued_;          // states whose value is not (0, -1)
  std::vector<Value> values_;  // per valued state, in state order
  WholeKeyIndex wholeKeys_;    // keys whose full lookup reports them
  WildcardTails tails_;        // of every key with a '*'
  int stateCount_ = 1;
};

class FrozenAutomaton::Builder {
 public:
  // An automaton of `states` states over a text of `textLength` characters
  // that stores `sizes`.
  Builder(int states, int textLength, Sizes sizes);

  // States in order 0, 1, 2, ..., each with its value and then its
  // transitions; the one from state s to s + 1 (s below the text length)
  // gives the text's character at s and is not stored otherwise.
  void beginState(int s, Value v);
  void addEdge(unsigned char c, int target);
  // The text, complete once every state is in.
  const unsigned char* text() const { return frozen_->text_.data(); }

  // The automaton, with the indexes of its stored keys: `keys` every key
  // appended, `wholeKeys` those whose full lookup reports their own length
  // (both in text order). The builder is spent.
  std::unique_ptr<FrozenAutomaton> finish(const std::vector<StoredKey>& keys,
                                          const std::vector<StoredKey>& wholeKeys);

 private:
  // Files the current state's edges as its run.
  void flushRun();

  std::unique_ptr<FrozenAutomaton> frozen_;
  int current_ = -1;
  // The current state's stored edges, filed as a run once it is complete.
  std::vector<std::pair<unsigned char, int>> run_;
};

}  // namespace tpa::fsa

#endif  // TPA_FSA_FROZEN_AUTOMATON_H_
