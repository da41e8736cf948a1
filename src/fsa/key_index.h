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
//   kept as hashes, filed by their last eight characters or fewer (their
//   anchor, kept whole): a query position that ends no anchor is passed
//   over after a bit test per anchor length, and one that does compares the
//   tails of that anchor alone, most by their first characters. A
//   query none of whose pieces is a tail cannot match a wildcard. A hash
//   collision only costs a walk.
//
// Both are built once from the finished text and then only read; const
// members may run concurrently. Lookups allocate nothing and never throw.
#ifndef TPA_FSA_KEY_INDEX_H_
#define TPA_FSA_KEY_INDEX_H_

#include <algorithm>
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
      if (s.tag != tag) return false;
      // The key's text and what accept reads are apart: loaded side by side.
      __builtin_prefetch(text + (end + 1 - std::min(end + 1, n)));
      if (!accept(end) || !endsWith(text, end, k, n)) return false;
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
  // collision, or when ruling them out would take more than a few hashed
  // characters per character); false proves that none is.
  bool anyPieceIsTail(const char* key, int n) const;

  // The longest kept tail that is a suffix of key[0, n) (or shares a kept
  // one's hash), 0 for none: a hint, to be checked, of a suffix that occurs.
  // `end` gets where that tail ends in the text, so that the check is a
  // comparison there.
  int longestTailSuffix(const char* key, int n, std::int32_t& end) const;

  std::size_t bytes() const {
    return seen_.capacity() * sizeof(std::uint64_t) + buckets_.capacity() * sizeof(Bucket) +
           tails_.capacity() * sizeof(Tail);
  }

 private:
  static constexpr int kMaxAnchor = 8;  // characters: one machine word
  static constexpr std::uint64_t kBase = 0x100000001b3u;

  // A tail: its hash (h = sum of c * kBase^k, k counted from its end) and
  // its length; its first four characters as a word (0 for a shorter one),
  // which rule out most pieces of its length before they are hashed.
  struct Tail {
    std::uint64_t hash;
    std::uint32_t length;
    std::uint32_t lead;
    std::int32_t end;  // of its first copy in the text
  };
  // The tails of one anchor, a tail's last min(length, kMaxAnchor)
  // characters: tails_[begin, end), by length, then lead, then hash. A
  // bucket of more than kBucketTails is split: it keeps the tails shorter
  // than its anchor length + kSplitStep, and the longer ones are filed under
  // that longer anchor (recursively; past kMaxAnchor an anchor is the hash of
  // its characters, collisions merging buckets).
  static constexpr std::uint32_t kBucketTails = 16;
  static constexpr std::uint32_t kSplitStep = 4;
  struct Bucket {
    std::uint64_t anchor;  // the characters as a word, masked to their length, or their hash
    std::uint32_t begin;
    std::uint32_t end;
    std::uint16_t anchorLength;  // 0: an empty slot
    bool split;
  };
  // A tail being filed: its anchor so far and where it ends in the text.
  struct Filing {
    Bucket anchor;
    Tail tail;
    std::int32_t end;
  };

  // The word of the kMaxAnchor characters of k ending at j, zeros standing
  // in for those before the key.
  static std::uint64_t wordEndingAt(const unsigned char* k, int j) {
    std::uint64_t w;
    if (j >= kMaxAnchor - 1) {
      std::memcpy(&w, k + (j + 1 - kMaxAnchor), sizeof w);
    } else {
      unsigned char b[kMaxAnchor] = {};
      std::memcpy(b + (kMaxAnchor - 1 - j), k, static_cast<std::size_t>(j + 1));
      std::memcpy(&w, b, sizeof w);
    }
    return w;
  }
  static std::uint64_t mix(std::uint64_t anchor, std::uint32_t length) {
    return ((anchor ^ (anchor >> 29)) + length) * 0x9e3779b97f4a7c15u;
  }
  static std::uint32_t leadAt(const unsigned char* piece, std::uint32_t length) {
    std::uint32_t w = 0;
    if (length >= sizeof w) std::memcpy(&w, piece, sizeof w);
    return w;
  }
  static std::uint64_t hashOf(const unsigned char* piece, std::uint32_t length);
  bool maySee(std::uint64_t mixed) const {
    const std::uint64_t bit = mixed >> seenShift_;
    return (seen_[bit >> 6] >> (bit & 63)) & 1;
  }
  const Bucket* bucketOf(std::uint64_t anchor, std::uint32_t length, std::uint64_t mixed) const;
  // What the search of the tails ending at a query position found: the
  // longest (or, when `first`, the first) kept tail there, 0 for none, -1
  // when `budget`, spent on the characters hashed, ran out; and where that
  // tail ends in the text.
  struct Found {
    int length = 0;
    std::int32_t end = -1;
  };
  Found tailsEndingAt(const unsigned char* k, int j, long& budget, bool first) const;
  Found tailsOf(const Bucket& b, const unsigned char* k, int j, long& budget, bool first) const;
  Found splitTailsOf(const Bucket* b, const unsigned char* k, int j, long& budget,
                     bool first) const;
  // By anchor, then as a bucket holds its tails.
  static bool filedBefore(const Filing& a, const Filing& b);
  static bool sameAnchor(const Filing& a, const Filing& b);
  void fileTails(const unsigned char* text, std::vector<Filing>& filings);
  // Files filings[from, to), one anchor's, as one bucket or split; returns
  // the buckets made.
  std::size_t fileBucket(const unsigned char* text, std::vector<Filing>& filings, std::size_t from,
                         std::size_t to, std::vector<Bucket>& made);

  // anchorLengths_: the anchor lengths in use, ascending (count of them in
  // anchorLengthCount_; none while there is no tail); masks_[a] keeps the
  // last a characters of a word. seen_: a bit per mixed anchor (its top
  // bits), set for every anchor of kMaxAnchor characters or fewer (the longer
  // ones of split buckets are looked up from their bucket). buckets_: open
  // addressing by mixed anchor, linear probing, at most half full, a power
  // of two.
  std::uint32_t anchorLengths_[kMaxAnchor] = {};
  int anchorLengthCount_ = 0;
  std::uint64_t masks_[kMaxAnchor + 1] = {};
  unsigned seenShift_ = 63;
  unsigned bucketShift_ = 63;
  std::vector<std::uint64_t> seen_;
  std::vector<Bucket> buckets_;
  std::vector<Tail> tails_;
  bool lastChar_[256] = {};  // the last characters of the tails
  // When there are at most two (typically the two list flags): each of them
  // in every byte of a word, so that a query is searched a word at a time.
  bool fewLastChars_ = false;
  std::uint64_t lastWords_[2] = {0, 0};
};

}  // namespace tpa::fsa

#endif  // TPA_FSA_KEY_INDEX_H_
