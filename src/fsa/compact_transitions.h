// CompactTransitions: the transition store of a suffix automaton, one ordered
// map from byte to target state per state, kept in flat arrays.
//
// Cost model: 8 bytes of head per allocated state (zero-filled, so heads of
// states never used are never made resident). A state with one transition
// keeps it inline in its head; a state with more keeps a run of edges sorted by
// unsigned byte value in one shared pool (5 bytes per edge slot), sized in
// powers of two and moved to a larger run when full; vacated runs are reused
// through per-size free lists. Lookups allocate nothing: an inline compare,
// a scan of up to 16 labels, or a binary search. Owns its arrays; no internal
// synchronisation.
#ifndef TPA_FSA_COMPACT_TRANSITIONS_H_
#define TPA_FSA_COMPACT_TRANSITIONS_H_

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>

#include "fsa/pod_array.h"

namespace tpa::fsa {

class CompactTransitions {
 public:
  // Drops every transition and makes room for `states` states without any.
  // Returns false when the allocator refuses.
  [[nodiscard]] bool allocate(int states) {
    labels_.reset();
    targets_.reset();
    poolUsed_ = 0;
    std::fill(std::begin(freeRuns_), std::end(freeRuns_), 0);
    return heads_.allocateZeroed(static_cast<std::size_t>(states));
  }

  // The target of `state` on `c`, or null. The pointer stays valid until the
  // next insert or copy.
  const std::int32_t* find(int state, unsigned char c) const {
    const Head& h = heads_[static_cast<std::size_t>(state)];
    if (h.count == 1) return h.label == c ? &h.data : nullptr;
    if (h.count == 0) return nullptr;
    const unsigned char* labels = labels_.data() + h.data;
    if (h.count <= kScanLimit) {
      for (int i = 0; i < h.count; ++i) {
        if (labels[i] == c) return targets_.data() + h.data + i;
      }
      return nullptr;
    }
    const unsigned char* at = std::lower_bound(labels, labels + h.count, c);
    if (at == labels + h.count || *at != c) return nullptr;
    return targets_.data() + h.data + (at - labels);
  }
  std::int32_t* find(int state, unsigned char c) {
    return const_cast<std::int32_t*>(static_cast<const CompactTransitions*>(this)->find(state, c));
  }

  // Adds the transition of `state` on `c`, which it must not have yet.
  void insert(int state, unsigned char c, std::int32_t target) {
    assert(find(state, c) == nullptr);
    Head& h = heads_[static_cast<std::size_t>(state)];
    if (h.count == 0) {
      h = Head{target, c, 0, 1};
      return;
    }
    if (h.count == 1) {
      spillInline(h);
    } else if (h.count == (1 << h.sizeClass)) {
      moveRun(h, h.sizeClass + 1);
    }
    unsigned char* labels = labels_.data() + h.data;
    std::int32_t* targets = targets_.data() + h.data;
    const int at = static_cast<int>(std::lower_bound(labels, labels + h.count, c) - labels);
    const std::size_t tail = static_cast<std::size_t>(h.count - at);
    std::memmove(labels + at + 1, labels + at, tail);
    std::memmove(targets + at + 1, targets + at, tail * sizeof(std::int32_t));
    labels[at] = c;
    targets[at] = target;
    ++h.count;
  }

  // Gives `to`, which has no transitions, a copy of the transitions of `from`.
  void copy(int from, int to) {
    const Head source = heads_[static_cast<std::size_t>(from)];
    Head& h = heads_[static_cast<std::size_t>(to)];
    assert(h.count == 0);
    h = source;
    if (source.count < 2) return;
    h.data = takeRun(source.sizeClass);
    copyEdges(source.data, h.data, source.count);
  }

  int size(int state) const { return heads_[static_cast<std::size_t>(state)].count; }

  // Calls f(label, target) for every transition of `state`, in ascending
  // unsigned byte order.
  template <typename F>
  void forEach(int state, F f) const {
    const Head& h = heads_[static_cast<std::size_t>(state)];
    if (h.count == 1) {
      f(h.label, h.data);
      return;
    }
    for (int i = 0; i < h.count; ++i) f(labels_[h.data + i], targets_[h.data + i]);
  }

  // Bytes reserved by the edge pool (heads not counted).
  std::size_t poolBytes() const { return targets_.size() * (sizeof(std::int32_t) + 1); }

 private:
  // Invariants: count <= 256; count 1 keeps (label, data = target) inline;
  // count >= 2 keeps a run of 1 << sizeClass edge slots at pool offset data,
  // whose first count labels are strictly ascending as unsigned bytes.
  struct Head {
    std::int32_t data;
    unsigned char label;
    std::uint8_t sizeClass;
    std::uint16_t count;
  };
  static_assert(sizeof(Head) == 8, "a transition head must stay 8 bytes");

  static constexpr int kScanLimit = 16;   // linear scan up to here, then binary search
  static constexpr int kSizeClasses = 9;  // runs of 2^1 .. 2^8 edges (index 0 unused)

  // Moves an inline transition into a fresh run of two slots.
  void spillInline(Head& h) {
    const std::int32_t offset = takeRun(1);
    labels_[static_cast<std::size_t>(offset)] = h.label;
    targets_[static_cast<std::size_t>(offset)] = h.data;
    h = Head{offset, 0, 1, 1};
  }

  void moveRun(Head& h, int sizeClass) {
    const std::int32_t offset = takeRun(sizeClass);
    copyEdges(h.data, offset, h.count);
    giveBackRun(h.data, h.sizeClass);
    h.data = offset;
    h.sizeClass = static_cast<std::uint8_t>(sizeClass);
  }

  void copyEdges(std::int32_t from, std::int32_t to, int count) {
    std::memcpy(labels_.data() + to, labels_.data() + from, static_cast<std::size_t>(count));
    std::memcpy(targets_.data() + to, targets_.data() + from,
                static_cast<std::size_t>(count) * sizeof(std::int32_t));
  }

  // A run of 1 << sizeClass slots: a vacated one if any, else fresh pool space.
  std::int32_t takeRun(int sizeClass) {
    if (freeRuns_[sizeClass] != 0) {
      const std::int32_t offset = freeRuns_[sizeClass] - 1;
      freeRuns_[sizeClass] = targets_[static_cast<std::size_t>(offset)];
      return offset;
    }
    const std::size_t slots = std::size_t{1} << sizeClass;
    if (poolUsed_ + slots > targets_.size()) {
      const std::size_t grown = std::max({targets_.size() * 2, poolUsed_ + slots, kMinPool});
      labels_.resize(grown);
      targets_.resize(grown);
    }
    const auto offset = static_cast<std::int32_t>(poolUsed_);
    poolUsed_ += slots;
    return offset;
  }

  void giveBackRun(std::int32_t offset, int sizeClass) {
    targets_[static_cast<std::size_t>(offset)] = freeRuns_[sizeClass];
    freeRuns_[sizeClass] = offset + 1;
  }

  static constexpr std::size_t kMinPool = 1024;

  PodArray<Head> heads_;  // one per allocated state; all-zero means no transitions
  // The edge pool: labels_[i] and targets_[i] form one edge slot. Slots below
  // poolUsed_ belong to exactly one live run or one free run.
  PodArray<unsigned char> labels_;
  PodArray<std::int32_t> targets_;
  std::size_t poolUsed_ = 0;
  // Per size class, 1 + offset of the first free run (0: none); a free run
  // keeps the next one's 1 + offset in its first target slot.
  std::int32_t freeRuns_[kSizeClasses] = {};
};

}  // namespace tpa::fsa

#endif  // TPA_FSA_COMPACT_TRANSITIONS_H_
