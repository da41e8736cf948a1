// CompactTransitions: the transition store of a suffix automaton, one ordered
// map from byte to target state per state, kept in flat arrays, with a small
// per-state payload of the automaton's own (its length and link) beside each
// state's head, so that reading a state and stepping from it touch one record.
//
// Cost model: a 16-byte record per allocated state (8 bytes of head, 8 of
// payload; zero-filled, so records of states never used are never made
// resident). A state with one transition keeps it inline in its head; a state
// with more keeps a run of edges in one shared pool, sized in powers of two and
// moved to a larger run when full (vacated runs are reused through per-size
// free lists): up to 16 edges as their labels in ascending unsigned byte order
// and then their targets (5 bytes per edge slot, padded to whole words); more
// as a 256-bit map of their labels and then their targets in label order (4
// bytes per slot and 40 per run, the map's per-word counts included). Lookups
// allocate nothing: an inline compare, a scan of up to 16 labels, or a bit
// test and a count of the bits below it.
// Owns its arrays; no internal synchronisation.
#ifndef TPA_FSA_COMPACT_TRANSITIONS_H_
#define TPA_FSA_COMPACT_TRANSITIONS_H_

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "fsa/pod_array.h"

namespace tpa::fsa {

template <typename Payload>
class CompactTransitions {
  static_assert(std::is_trivially_copyable_v<Payload> && sizeof(Payload) == 8,
                "a payload is 8 bytes whose all-zero value is its default");

 public:
  // Drops every transition and makes room for `states` states without any,
  // their payloads all-zero. Returns false when the allocator refuses.
  [[nodiscard]] bool allocate(int states) {
    pool_.reset();
    poolUsed_ = 0;
    std::fill(std::begin(freeRuns_), std::end(freeRuns_), 0);
    return records_.allocateZeroed(static_cast<std::size_t>(states));
  }

  Payload& payload(int state) { return record(state).payload; }
  const Payload& payload(int state) const { return record(state).payload; }

  // The target of `state` on `c`, or null. The pointer stays valid until the
  // next insert or copy.
  const std::int32_t* find(int state, unsigned char c) const {
    const Head& h = record(state).head;
    if (h.count == 1) return h.label == c ? &h.data : nullptr;
    if (h.count == 0) return nullptr;
    if (h.sizeClass >= kMapClass) {
      const std::uint32_t* map = mapOf(h);
      if ((map[c >> 5] & bit(c)) == 0) return nullptr;
      return targetsOf(h) + rank(map, c);
    }
    const unsigned char* labels = labelsOf(h);
    for (int i = 0; i < h.count; ++i) {
      if (labels[i] == c) return targetsOf(h) + i;
    }
    return nullptr;
  }
  std::int32_t* find(int state, unsigned char c) {
    return const_cast<std::int32_t*>(static_cast<const CompactTransitions*>(this)->find(state, c));
  }

  // Adds the transition of `state` on `c`, which it must not have yet.
  void insert(int state, unsigned char c, std::int32_t target) {
    assert(find(state, c) == nullptr);
    Head& h = record(state).head;
    if (h.count == 0) {
      h = Head{target, c, 0, 1};
      return;
    }
    if (h.count == 1) {
      spillInline(h);
    } else if (h.count == (1 << h.sizeClass)) {
      moveRun(h, h.sizeClass + 1);
    }
    std::int32_t* targets = targetsOf(h);
    int at;
    if (h.sizeClass >= kMapClass) {
      std::uint32_t* map = mapOf(h);
      at = rank(map, c);
      map[c >> 5] |= bit(c);
      for (int w = (c >> 5) + 1; w < kMapBitWords; ++w) ++belowOf(map)[w];
    } else {
      unsigned char* labels = labelsOf(h);
      at = static_cast<int>(std::lower_bound(labels, labels + h.count, c) - labels);
      std::memmove(labels + at + 1, labels + at, static_cast<std::size_t>(h.count - at));
      labels[at] = c;
    }
    std::memmove(targets + at + 1, targets + at,
                 static_cast<std::size_t>(h.count - at) * sizeof(std::int32_t));
    targets[at] = target;
    ++h.count;
  }

  // Calls f(label, target) for every transition of `state`.
  template <typename F>
  void forEach(int state, F f) const {
    const Head& h = record(state).head;
    if (h.count == 1) {
      f(h.label, h.data);
      return;
    }
    if (h.count == 0) return;
    const std::int32_t* targets = targetsOf(h);
    if (h.sizeClass < kMapClass) {
      for (int i = 0; i < h.count; ++i) f(labelsOf(h)[i], targets[i]);
      return;
    }
    const std::uint32_t* map = mapOf(h);
    int k = 0;
    for (int w = 0; w < kMapBitWords; ++w) {
      for (std::uint32_t bits = map[w]; bits != 0; bits &= bits - 1) {
        f(static_cast<unsigned char>(w * 32 + lowestBit(bits)), targets[k++]);
      }
    }
  }

  // Calls f(target) with a reference to every target of `state`.
  template <typename F>
  void forEachTarget(int state, F f) {
    Head& h = record(state).head;
    if (h.count == 1) {
      f(h.data);
      return;
    }
    std::int32_t* targets = h.count == 0 ? nullptr : targetsOf(h);
    for (int i = 0; i < h.count; ++i) f(targets[i]);
  }

  // Asks the memory system for `state`'s run of edges ahead of a visit.
  void prefetch(int state) const {
    const Head& h = record(state).head;
    if (h.count >= 2) __builtin_prefetch(pool_.data() + h.data);
  }

  // Transitions of `state`.
  int countOf(int state) const { return record(state).head.count; }

  // Frees every state and transition; allocate() starts over.
  void release() {
    records_.reset();
    pool_.reset();
    poolUsed_ = 0;
    std::fill(std::begin(freeRuns_), std::end(freeRuns_), 0);
  }

  // Gives `to`, which has no transitions, a copy of the transitions of `from`
  // (payloads are left alone).
  void copy(int from, int to) {
    const Head source = record(from).head;
    Head& h = record(to).head;
    assert(h.count == 0);
    h = source;
    if (source.count < 2) return;
    h.data = takeRun(source.sizeClass);
    copyEdges(source, h);
  }

 private:
  // Invariants: count <= 256; count 1 keeps (label, data = target) inline;
  // count >= 2 keeps a run of 1 << sizeClass edge slots at pool word data:
  // labelWords(sizeClass) words of labels, then one word per target. Below
  // kMapClass the first count labels are strictly ascending as unsigned bytes;
  // from kMapClass on (exactly the runs of more than 16 edges) the labels are
  // a map with one bit per byte value and, per word of bits, the number of
  // bits in the words before it; the targets are in the map's bit order.
  struct Head {
    std::int32_t data;
    unsigned char label;
    std::uint8_t sizeClass;
    std::uint16_t count;
  };
  struct Record {
    Head head;
    Payload payload;
  };
  static_assert(sizeof(Record) == 16, "a state record must stay 16 bytes");

  static constexpr int kSizeClasses = 9;  // runs of 2^1 .. 2^8 edges (index 0 unused)
  static constexpr int kMapClass = 5;     // runs of 32 slots and more map their labels
  static constexpr int kMapBitWords = 256 / 32;
  // The map: kMapBitWords words of bits, then one byte per bit word counting
  // the labels in the words before it.
  static constexpr std::size_t kMapWords = kMapBitWords + kMapBitWords / 4;
  static constexpr std::size_t kMinPool = 1024;

  static std::size_t labelWords(int sizeClass) {
    return sizeClass >= kMapClass ? kMapWords : ((std::size_t{1} << sizeClass) + 3) / 4;
  }
  static std::uint32_t bit(unsigned char c) { return std::uint32_t{1} << (c & 31); }
  static int bitCount(std::uint32_t x) {
    x = x - ((x >> 1) & 0x55555555u);
    x = (x & 0x33333333u) + ((x >> 2) & 0x33333333u);
    return static_cast<int>((((x + (x >> 4)) & 0x0f0f0f0fu) * 0x01010101u) >> 24);
  }
  // Index of the lowest set bit of x != 0.
  static int lowestBit(std::uint32_t x) { return bitCount((x & (0u - x)) - 1); }
  static std::uint8_t* belowOf(std::uint32_t* map) {
    return reinterpret_cast<std::uint8_t*>(map + kMapBitWords);
  }
  // How many labels of the map are below c.
  static int rank(const std::uint32_t* map, unsigned char c) {
    const auto* below = reinterpret_cast<const std::uint8_t*>(map + kMapBitWords);
    return below[c >> 5] + bitCount(map[c >> 5] & (bit(c) - 1));
  }
  static std::size_t runWords(int sizeClass) {
    return labelWords(sizeClass) + (std::size_t{1} << sizeClass);
  }

  Record& record(int state) { return records_[static_cast<std::size_t>(state)]; }
  const Record& record(int state) const { return records_[static_cast<std::size_t>(state)]; }

  std::uint32_t* mapOf(const Head& h) {
    return reinterpret_cast<std::uint32_t*>(pool_.data() + h.data);
  }
  const std::uint32_t* mapOf(const Head& h) const {
    return reinterpret_cast<const std::uint32_t*>(pool_.data() + h.data);
  }
  unsigned char* labelsOf(const Head& h) {
    return reinterpret_cast<unsigned char*>(pool_.data() + h.data);
  }
  const unsigned char* labelsOf(const Head& h) const {
    return reinterpret_cast<const unsigned char*>(pool_.data() + h.data);
  }
  std::int32_t* targetsOf(const Head& h) { return pool_.data() + h.data + labelWords(h.sizeClass); }
  const std::int32_t* targetsOf(const Head& h) const {
    return pool_.data() + h.data + labelWords(h.sizeClass);
  }

  // Moves an inline transition into a fresh run of two slots.
  void spillInline(Head& h) {
    const Head inline_ = h;
    h = Head{takeRun(1), 0, 1, 1};
    labelsOf(h)[0] = inline_.label;
    targetsOf(h)[0] = inline_.data;
  }

  void moveRun(Head& h, int sizeClass) {
    Head moved = h;
    moved.data = takeRun(sizeClass);
    moved.sizeClass = static_cast<std::uint8_t>(sizeClass);
    copyEdges(h, moved);
    giveBackRun(h.data, h.sizeClass);
    h = moved;
  }

  // Copies the first from.count edges of one run into another, mapping the
  // labels when the new run is the first to map them.
  void copyEdges(const Head& from, const Head& to) {
    if (from.sizeClass >= kMapClass) {
      std::memcpy(mapOf(to), mapOf(from), kMapWords * sizeof(std::uint32_t));
    } else if (to.sizeClass >= kMapClass) {
      std::uint32_t* map = mapOf(to);
      std::fill(map, map + kMapWords, 0);
      for (int i = 0; i < from.count; ++i) map[labelsOf(from)[i] >> 5] |= bit(labelsOf(from)[i]);
      for (int w = 1; w < kMapBitWords; ++w) {
        belowOf(map)[w] = static_cast<std::uint8_t>(belowOf(map)[w - 1] + bitCount(map[w - 1]));
      }
    } else {
      std::memcpy(labelsOf(to), labelsOf(from), from.count);
    }
    std::memcpy(targetsOf(to), targetsOf(from), from.count * sizeof(std::int32_t));
  }

  // A run of 1 << sizeClass slots: a vacated one if any, else fresh pool space.
  std::int32_t takeRun(int sizeClass) {
    if (freeRuns_[sizeClass] != 0) {
      const std::int32_t offset = freeRuns_[sizeClass] - 1;
      freeRuns_[sizeClass] = pool_[static_cast<std::size_t>(offset)];
      return offset;
    }
    const std::size_t words = runWords(sizeClass);
    if (poolUsed_ + words > pool_.size()) {
      pool_.resize(std::max({pool_.size() * 2, poolUsed_ + words, kMinPool}));
    }
    const auto offset = static_cast<std::int32_t>(poolUsed_);
    poolUsed_ += words;
    return offset;
  }

  void giveBackRun(std::int32_t offset, int sizeClass) {
    pool_[static_cast<std::size_t>(offset)] = freeRuns_[sizeClass];
    freeRuns_[sizeClass] = offset + 1;
  }

  PodArray<Record> records_;  // one per allocated state; all-zero: no transitions
  // The edge pool, in words. Words below poolUsed_ belong to exactly one live
  // run or one free run.
  PodArray<std::int32_t> pool_;
  std::size_t poolUsed_ = 0;
  // Per size class, 1 + word offset of the first free run (0: none); a free
  // run keeps the next one's 1 + offset in its first word.
  std::int32_t freeRuns_[kSizeClasses] = {};
};

}  // namespace tpa::fsa

#endif  // TPA_FSA_COMPACT_TRANSITIONS_H_
