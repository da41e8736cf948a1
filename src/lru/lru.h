// LRU: a bounded least-recently-used cache of (key, sub-key) -> value, put in
// front of every keyed machine so that a repeated lookup skips the automaton.
//
// A doubly linked list between two sentinels holds the live entries, most
// recently used first; a hash index finds them. The cache owns every node;
// the index refers to them without owning. get and put cost one hash lookup
// and a constant number of pointer changes; a get hit allocates nothing.
// Not thread-safe: even get reorders the list, so callers serialise access.
#ifndef TPA_LRU_LRU_H_
#define TPA_LRU_LRU_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "api/constants.h"
#include "fsa/suffix_automaton.h"

namespace tpa::lru {

template <typename K1, typename K2, typename V>
struct Node {
  K1 key;
  K2 subKey;
  V value;
  Node* next = nullptr;  // toward the least recently used end
  Node* prev = nullptr;  // toward the most recently used end
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
    // A fresh slot starts stale, so that it reads as a miss until filled.
    auto [it, inserted] = index_.try_emplace(key, Slot{nullptr, generation_ - 1});
    if (!inserted && it->second.generation == generation_) {
      it->second.node->value = value;
      moveFront(it->second.node);
      return error::TPA_ERROR_NONE;
    }
    // The new node is indexed before the eviction but listed after it, so the
    // eviction can never pick the entry being inserted.
    auto node = std::make_unique<Entry>(Entry{key.first, key.second, value});
    it->second = Slot{node.get(), generation_};
    if (count_ == capacity_) {
      --count_;
      evict();
    }
    ++count_;
    link(node.release());
    return error::TPA_ERROR_NONE;
  }

  // Releases every listed entry. The index and count are deliberately left as
  // they are; index entries naming released nodes are recognised as stale by
  // their generation and treated as misses.
  void clear() {
    releaseList();
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
  // Drops the least recently used entry; count is the caller's business.
  void evict() {
    Entry* victim = tail_->prev;
    if (victim == head_.get()) return;
    unlink(victim);
    auto it = index_.find(Key(victim->key, victim->subKey));
    if (it != index_.end() && it->second.node == victim) index_.erase(it);
    delete victim;
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
  // under its (key, subKey) with the current generation. After a clear the
  // index may also hold stale slots of older generations.
  std::unordered_map<Key, Slot, KeyPairHash> index_;
  int capacity_;                  // count_ never exceeds it once equal (negative: unbounded)
  int count_ = 0;                 // entries counted in; kept across clear
  std::uint64_t generation_ = 0;  // bumped by every clear
};

// The cache a keyed machine puts in front of its automaton.
using ResultCache = LRU<std::string, int, std::pair<fsa::SAStateValue<int>, int>>;
extern template class LRU<std::string, int, std::pair<fsa::SAStateValue<int>, int>>;

}  // namespace tpa::lru

#endif  // TPA_LRU_LRU_H_
