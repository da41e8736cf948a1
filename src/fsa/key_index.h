// What a frozen automaton knows of the keys stored in its text, for the two
// questions a decision asks most and a walk answers slowly:
//
// - WholeKeyIndex: is a query one of the stored keys that a full lookup reads
//   whole into a state reporting the query's own length? Only a stored key
//   can be: a state reports the key ending at its first occurrence, and a
//   query of that key's length ending there is that key. So a hash table of
//   exactly those keys (each filed once, by the end of its first copy in the
//   text) answers the question without a walk.
// - WildcardTails: can a partial lookup of a query reach a state reporting a
//   key longer than the suffix it read? Such a state is reached by '*' and a
//   piece y of the query read behind it, and reports the key ending at the
//   first occurrence of "*" + y; that key is longer than y, so "*" + y is its
//   suffix. The tails that follow a '*' up to the end of a stored key are
//   kept as hashes, with enough of their endings to stop a search early: a
//   query none of whose pieces is a tail cannot match a wildcard. A hash
//   collision only costs a walk.
//
// Both are built once from the finished text and then only read; const
// members may run concurrently. Lookups allocate nothing and never throw.
#ifndef TPA_FSA_KEY_INDEX_H_
#define TPA_FSA_KEY_INDEX_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fsa/open_table.h"

namespace tpa::fsa {

// A key stored in a text: its last character's position and its length.
struct StoredKey {
  std::int32_t end;
  std::int32_t length;
};

class WholeKeyIndex {
 public:
  // Files the keys of `text` in order; a key equal to one filed before is
  // left out, so each is found at its first copy. Throws std::bad_alloc.
  void build(const unsigned char* text, const std::vector<StoredKey>& keys);

  // The end of the filed key equal to key[0, n) that `accept(end)` takes,
  // or -1. A filed key whose last n characters equal the query may be longer
  // than it: accept tells them apart.
  template <typename Accept>
  std::int32_t find(const unsigned char* text, const char* key, int n, Accept accept) const {
    if (n < 1 || slots_.empty()) return -1;
    const auto* k = reinterpret_cast<const unsigned char*>(key);
    const std::uint64_t h = hashBytes(k, static_cast<std::size_t>(n));
    const auto tag = static_cast<std::uint32_t>(h >> 32);
    std::int32_t found = -1;
    slots_.probe(h, [&](const Slot& s) {
      const auto end = static_cast<std::int32_t>(s.endPlusOne - 1);
      if (s.tag != tag || !endsWith(text, end, k, n) || !accept(end)) return false;
      found = end;
      return true;
    });
    return found;
  }

  std::size_t bytes() const { return slots_.bytes(); }

 private:
  struct Slot {
    std::uint32_t endPlusOne;  // 0: empty
    std::uint32_t tag;         // high half of the key's hash
    bool empty() const { return endPlusOne == 0; }
  };
  // Whether text[end - n + 1, end] is key[0, n).
  static bool endsWith(const unsigned char* text, std::int32_t end, const unsigned char* key,
                       int n) {
    return end + 1 >= n && std::memcmp(text + (end + 1 - n), key, static_cast<std::size_t>(n)) == 0;
  }

  // At most two thirds of the slots are used, so every probe sequence ends
  // at an empty slot.
  OpenTable<Slot> slots_;
};

class WildcardTails {
 public:
  // Takes the tails of the keys of `text` that contain a '*'. Throws
  // std::bad_alloc.
  void build(const unsigned char* text, const std::vector<StoredKey>& keys);

  // True when some piece of key[0, n) is a kept tail (or by a hash
  // collision, or when ruling them out would take more than a few probes per
  // character); false proves that none is.
  bool anyPieceIsTail(const char* key, int n) const;

  // The longest kept tail that is a suffix of key[0, n) (or shares a kept
  // one's hash), 0 for none: a hint, to be checked, of a suffix that occurs.
  int longestTailSuffix(const char* key, int n) const;

  std::size_t bytes() const {
    return (endings_.capacity() + longer_.capacity() + lastPairs_.capacity()) *
               sizeof(std::uint64_t) +
           lengths_.capacity();
  }

 private:
  // Tail endings up to kEnding characters are kept piece by piece, so that a
  // query whose pieces end like no tail is ruled out after a few characters;
  // longer tails are kept whole, with checkpoints: every tail's ending of
  // kEnding + m * kCheckpointEvery characters.
  static constexpr int kEnding = 6;
  static constexpr int kCheckpointEvery = 8;
  static constexpr std::uint8_t kTailLength = 1;  // in lengths_
  static constexpr std::uint8_t kCheckpoint = 2;

  // A set of 64-bit hashes with linear probing: at most half full while it
  // grows (it doubles), two thirds once fitted. 0 is empty, and each hash
  // carries one flag in its low bit.
  class HashSet {
   public:
    // Throws std::bad_alloc.
    void insert(std::uint64_t h, bool flag);
    // Shrinks the table to what its entries need. Throws std::bad_alloc.
    void fit();
    // The entry of h (the flag in its low bit), or 0.
    std::uint64_t find(std::uint64_t h) const;
    std::size_t capacity() const { return slots_.capacity(); }
    bool empty() const { return slots_.empty(); }

   private:
    // The hashes are polynomials in the characters: mixed before use.
    std::size_t home(std::uint64_t h) const {
      return static_cast<std::size_t>((((h * 0x9e3779b97f4a7c15u) >> 32) * slots_.size()) >> 32);
    }
    std::size_t next(std::size_t i) const { return i + 1 == slots_.size() ? 0 : i + 1; }
    void rehash(std::size_t size);
    void place(std::uint64_t entry, bool flag);

    std::vector<std::uint64_t> slots_;
    std::size_t used_ = 0;
  };

  static constexpr std::uint64_t kBase = 0x100000001b3u;

  // Pieces are hashed backwards from their last character: h = sum of
  // c * kBase^k, k counted from the end, so a piece grows to the left in O(1).
  // endings_: every tail's endings of up to kEnding characters, flagged when
  // one is a whole tail; longer_: the longer tails (flagged) and checkpoint
  // endings; lengths_[l]: what longer_ holds of l characters.
  // True (or out of budget) when a piece of k ending at j is a kept tail.
  bool tailEndsAt(const unsigned char* k, int j, long& budget) const;
  // The length of the longest kept tail (of the first found when `first`)
  // that is a piece of k ending at j; 0 for none, -1 out of budget.
  int tailsEndingAt(const unsigned char* k, int j, long& budget, bool first) const;
  bool endsPair(unsigned char a, unsigned char b) const {
    const unsigned pair = a << 8 | b;
    return (lastPairs_[pair >> 6] >> (pair & 63)) & 1;
  }

  HashSet endings_;
  HashSet longer_;
  std::vector<std::uint8_t> lengths_;
  bool lastChar_[256] = {};  // the last characters of the tails
  std::string lastChars_;    // the same, listed
  // The last two characters of the tails of two or more, a bit per pair; a
  // query position that ends no such pair is skipped at once, unless some
  // tail has a single character.
  std::vector<std::uint64_t> lastPairs_;
  bool singleCharacterTail_ = false;
};

}  // namespace tpa::fsa

#endif  // TPA_FSA_KEY_INDEX_H_
