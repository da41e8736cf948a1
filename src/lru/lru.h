// LRU: a bounded least-recently-used cache of (key, sub-key) -> value, put in
// front of every keyed machine so that a repeated lookup skips the automaton.
//
// A doubly linked list between two sentinels holds the live entries, most
// recently used first; a hash index finds them. The cache owns every node;
// the index refers to them without owning. get and put cost one hash lookup
// and a constant number of pointer changes. Neither a get hit nor, once the
// cache is full, a put allocates: the evicted entry and its index node are
// reused (their strings keep their capacity).
// Not thread-safe: even get reorders the list, so callers serialise access.
#ifndef TPA_LRU_LRU_H_
#define TPA_LRU_LRU_H_

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "tpa/api/constants.h"

namespace tpa::lru {

template <typename K1, typename K2, typename V>
struct Node {
  K1 key;
  K2 subKey;
  V value;
  Node* next = nullptr;  // toward the least recently used end
  Node* prev = nullptr;  // toward the most recently used end
  // The key of this node's slot in the cache's index (the index's own copy,
  // which stays put when the index rehashes); null for the sentinels.
  const std::pair<K1, K2>* indexed = nullptr;
};

// std::hash of the string, XOR the sub-key sign-extended to 64 bits.
struct KeyPairHash {
  template <typename K1, typename K2>
  std::size_t operator()(const std::pair<K1, K2>& key) const {
    return std::hash<K1>{}(key.first) ^
           static_cast<std::size_t>(static_cast<std::int64_t>(key.second));
  }
};

template <typename K1, typename K2, typename V>
class LRU {
 public:
  using Key = std::pair<K1, K2>;
  using Entry = Node<K1, K2, V>;

  explicit LRU(int capacity) : capacity_(capacity) { index_.max_load_factor(1.0f); }
  LRU(const LRU&) = delete;
  LRU& operator=(const LRU&) = delete;
  ~LRU() {
    releaseList();
    index_.clear();
    tail_.reset();
    head_.reset();
  }

  // Creates (or replaces) both sentinels, each holding copies of the
  // arguments, and links them. Entries listed before are released first.
  void construct(const K1& key, const K2& subKey, const V& value) {
    clear();
    head_ = std::make_unique<Entry>(Entry{key, subKey, value});
    tail_ = std::make_unique<Entry>(Entry{key, subKey, value});
    head_->next = tail_.get();
    tail_->prev = head_.get();
  }

  // 0 and the value on a hit (which becomes most recently used), -5 on a miss
  // (out untouched), -1 before construct.
  [[nodiscard]] int get(const Key& key, V& out) {
    if (!head_ || !tail_) return error::TPA_ERROR_OOM;
    auto it = index_.find(key);
    if (it == index_.end()) return error::TPA_ERROR_KEY_NOT_FOUND;
    if (it->second.generation != generation_) {  // released by a clear
      index_.erase(it);
      return error::TPA_ERROR_KEY_NOT_FOUND;
    }
    Entry* node = it->second.node;
    out = node->value;
    moveFront(node);
    return error::TPA_ERROR_NONE;
  }

  // Stores or refreshes an entry as most recently used. When count has reached
  // capacity the least recently used entry goes first. 0, or -1 before
  // construct.
  [[nodiscard]] int put(const Key& key, const V& value) {
    if (!head_ || !tail_) return error::TPA_ERROR_OOM;
    auto it = index_.find(key);
    if (it != index_.end() && it->second.generation == generation_) {
      it->second.node->value = value;
      moveFront(it->second.node);
      return error::TPA_ERROR_NONE;
    }
    file(it, key, value);
    return error::TPA_ERROR_NONE;
  }

  // get, and on a miss put(key, compute()) without looking the key up again:
  // out receives the cached or the computed value. 0, or -1 before construct
  // (compute is then not called and out is untouched).
  template <typename Compute>
  [[nodiscard]] int getOrPut(const Key& key, V& out, Compute compute) {
    if (!head_ || !tail_) return error::TPA_ERROR_OOM;
    auto it = index_.find(key);
    if (it != index_.end() && it->second.generation == generation_) {
      out = it->second.node->value;
      moveFront(it->second.node);
      return error::TPA_ERROR_NONE;
    }
    out = compute();
    file(it, key, out);
    return error::TPA_ERROR_NONE;
  }

  // Releases every listed entry. The count and the index slots of the entries
  // just released are deliberately left as they are; such a slot is stale
  // (its generation is old) and counts as a miss. Slots already stale from an
  // earlier clear are dropped here, so that repeated clears cannot pile them up.
  void clear() {
    releaseList();
    dropStaleSlots();
    ++generation_;
  }
  void deleteList() { clear(); }

  // Read-only views for diagnostics and tests.
  int capacity() const { return capacity_; }
  int count() const { return count_; }
  std::size_t indexSize() const { return index_.size(); }
  std::size_t listSize() const {
    std::size_t n = 0;
    forEach([&n](const Entry&) { ++n; });
    return n;
  }
  // Calls f(node) for every listed entry, most recently used first.
  template <typename F>
  void forEach(F f) const {
    if (!head_ || !tail_) return;
    for (const Entry* n = head_->next; n != tail_.get(); n = n->next) f(*n);
  }

 private:
  struct Slot {
    Entry* node;
    std::uint64_t generation;  // node is live exactly when this is generation_
  };
  using Index = std::unordered_map<Key, Slot, KeyPairHash>;

  // Files a new entry for `key`, whose slot `it` is stale or the index's end.
  // A key never indexed takes the victim's index slot; a stale slot left by a
  // clear is filled again. Either way the victim's entry is reused. The new
  // entry is listed only after the eviction, so it is never the victim.
  void file(typename Index::iterator it, const Key& key, const V& value) {
    const bool indexed = it != index_.end();
    typename Index::node_type slot;
    std::unique_ptr<Entry> node;
    if (count_ == capacity_) {
      --count_;
      node = evict(indexed ? nullptr : &slot);
    }
    ++count_;
    if (node) {
      node->key = key.first;
      node->subKey = key.second;
      node->value = value;
    } else {
      node = std::make_unique<Entry>(Entry{key.first, key.second, value});
    }
    if (indexed) {
      it->second = Slot{node.get(), generation_};
    } else if (slot) {
      slot.key().first = key.first;
      slot.key().second = key.second;
      slot.mapped() = Slot{node.get(), generation_};
      it = index_.insert(std::move(slot)).position;
    } else {
      it = index_.emplace(key, Slot{node.get(), generation_}).first;
    }
    node->indexed = &it->first;
    link(node.release());
  }

  // Inserts `node` right behind head; the list takes ownership.
  void link(Entry* node) {
    node->prev = head_.get();
    node->next = head_->next;
    head_->next->prev = node;
    head_->next = node;
  }
  // Joins the node's neighbours; the node's own pointers are left as they are.
  static void unlink(Entry* node) {
    node->prev->next = node->next;
    node->next->prev = node->prev;
  }
  void moveFront(Entry* node) {
    unlink(node);
    link(node);
  }
  // Takes the least recently used entry out of the list and the index and
  // hands it back (null when the list is empty); count is the caller's
  // business. Its index node goes to `slot` when given, else it is freed.
  std::unique_ptr<Entry> evict(typename Index::node_type* slot) {
    Entry* victim = tail_->prev;
    if (victim == head_.get()) return nullptr;
    unlink(victim);
    const auto it = index_.find(*victim->indexed);
    assert(it != index_.end() && it->second.node == victim);
    if (slot != nullptr) {
      *slot = index_.extract(it);
    } else {
      index_.erase(it);
    }
    return std::unique_ptr<Entry>(victim);
  }
  void dropStaleSlots() {
    for (auto it = index_.begin(); it != index_.end();) {
      it = it->second.generation == generation_ ? std::next(it) : index_.erase(it);
    }
  }
  void releaseList() {
    if (!head_ || !tail_) return;
    for (Entry* n = head_->next; n != tail_.get();) {
      Entry* next = n->next;
      delete n;
      n = next;
    }
    head_->next = tail_.get();
    tail_->prev = head_.get();
  }

  std::unique_ptr<Entry> head_;  // sentinel, most recently used side; null before construct
  std::unique_ptr<Entry> tail_;  // sentinel, least recently used side; null before construct
  // Every listed node (owned by the list, between the sentinels) is indexed
  // under its (key, subKey) with the current generation, and its `indexed`
  // names that slot's key. After a clear the index also holds the stale slots
  // of the entries that clear released (and of no earlier clear).
  Index index_;
  int capacity_;                  // count_ never exceeds it once equal (negative: unbounded)
  int count_ = 0;                 // entries counted in; kept across clear
  std::uint64_t generation_ = 0;  // bumped by every clear
};

}  // namespace tpa::lru

#endif  // TPA_LRU_LRU_H_
