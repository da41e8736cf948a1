// The LRU cache: capacity rules, refresh, the clear that keeps index and
// count, and a check against a std::list + std::map model.
#include "lru/lru.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <list>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "api/constants.h"

namespace {

using Cache = tpa::lru::LRU<std::string, int, int>;
using Key = std::pair<std::string, int>;

// Tiny helpers so that a test reads as a sequence of cache operations.
void start(Cache& cache) { cache.construct("def-key", 0, 0); }
int Get(Cache& cache, const std::string& key, int subKey = 10) {
  int out = -99;
  const int result = cache.get(Key(key, subKey), out);
  return result == tpa::error::TPA_ERROR_NONE ? out : result;
}
void Put(Cache& cache, const std::string& key, int value, int subKey = 10) {
  ASSERT_EQ(0, cache.put(Key(key, subKey), value));
}
std::vector<std::string> order(const Cache& cache) {
  std::vector<std::string> keys;
  cache.forEach([&keys](const auto& node) { keys.push_back(node.key); });
  return keys;
}

constexpr int kMiss = -5;

TEST(Lru, BeforeConstructEveryOperationIsOom) {
  Cache cache(4);
  int out = 7;
  EXPECT_EQ(tpa::error::TPA_ERROR_OOM, cache.get(Key("a", 10), out));
  EXPECT_EQ(7, out);
  EXPECT_EQ(tpa::error::TPA_ERROR_OOM, cache.put(Key("a", 10), 1));
  EXPECT_EQ(0u, cache.listSize());
}

TEST(Lru, MissLeavesOutputUntouched) {
  Cache cache(4);
  start(cache);
  int out = 7;
  EXPECT_EQ(tpa::error::TPA_ERROR_KEY_NOT_FOUND, cache.get(Key("a", 10), out));
  EXPECT_EQ(7, out);
}

TEST(Lru, EvictsLeastRecentlyUsed) {
  Cache cache(2);
  start(cache);
  Put(cache, "a", 1);
  Put(cache, "b", 2);
  EXPECT_EQ(1, Get(cache, "a"));  // b is now least recently used
  Put(cache, "c", 3);
  EXPECT_EQ(kMiss, Get(cache, "b"));
  EXPECT_EQ((std::vector<std::string>{"c", "a"}), order(cache));
}

TEST(Lru, CapacityOneKeepsTheNewest) {
  Cache cache(1);
  start(cache);
  Put(cache, "a", 1);
  Put(cache, "b", 2);
  EXPECT_EQ(kMiss, Get(cache, "a"));
  EXPECT_EQ(2, Get(cache, "b"));
  EXPECT_EQ(1, cache.count());
}

TEST(Lru, CapacityZeroHoldsExactlyOneEntry) {
  Cache cache(0);
  start(cache);
  Put(cache, "a", 1);
  EXPECT_EQ(1, Get(cache, "a"));
  Put(cache, "b", 2);
  EXPECT_EQ(kMiss, Get(cache, "a"));
  EXPECT_EQ(2, Get(cache, "b"));
  EXPECT_EQ(1u, cache.listSize());
  EXPECT_EQ(0, cache.count());
  EXPECT_EQ(1u, cache.indexSize());
}

TEST(Lru, NegativeCapacityNeverEvicts) {
  Cache cache(-1);
  start(cache);
  for (int i = 0; i < 300; ++i) Put(cache, std::to_string(i), i);
  for (int i = 0; i < 300; ++i) EXPECT_EQ(i, Get(cache, std::to_string(i)));
  EXPECT_EQ(300, cache.count());
}

TEST(Lru, PutOfExistingKeyRefreshesValueAndRecency) {
  Cache cache(2);
  start(cache);
  Put(cache, "a", 1);
  Put(cache, "b", 2);
  Put(cache, "a", 10);
  EXPECT_EQ(2, cache.count());
  Put(cache, "c", 3);  // evicts b, not the refreshed a
  EXPECT_EQ(10, Get(cache, "a"));
  EXPECT_EQ(kMiss, Get(cache, "b"));
}

TEST(Lru, SubKeysMakeIndependentEntries) {
  Cache cache(4);
  start(cache);
  Put(cache, "x", 1, 10);
  Put(cache, "x", 2, 20);
  EXPECT_EQ(1, Get(cache, "x", 10));
  EXPECT_EQ(2, Get(cache, "x", 20));
  EXPECT_EQ(kMiss, Get(cache, "x", 0));
  EXPECT_EQ(2, cache.count());
}

TEST(Lru, ClearKeepsCountAndIndexButForgetsEntries) {
  Cache cache(2);
  start(cache);
  Put(cache, "a", 1);
  Put(cache, "b", 2);
  cache.clear();
  EXPECT_EQ(2, cache.count());
  EXPECT_EQ(2u, cache.indexSize());
  EXPECT_EQ(0u, cache.listSize());
  // A stale key is a miss and its index entry goes; nothing released is read.
  EXPECT_EQ(kMiss, Get(cache, "a"));
  EXPECT_EQ(1u, cache.indexSize());
  // count is still at capacity: the next new key evicts from an empty list.
  Put(cache, "c", 3);
  EXPECT_EQ(2, cache.count());
  Put(cache, "b", 20);  // stale key put again: a new entry, evicting c
  EXPECT_EQ(20, Get(cache, "b"));
  EXPECT_EQ(kMiss, Get(cache, "c"));
  EXPECT_EQ((std::vector<std::string>{"b"}), order(cache));
  cache.deleteList();
  EXPECT_EQ(0u, cache.listSize());
  EXPECT_EQ(kMiss, Get(cache, "b"));
}

TEST(Lru, ConstructAgainDropsListedEntries) {
  Cache cache(3);
  start(cache);
  Put(cache, "a", 1);
  start(cache);
  EXPECT_EQ(0u, cache.listSize());
  EXPECT_EQ(kMiss, Get(cache, "a"));
  Put(cache, "a", 2);
  EXPECT_EQ(2, Get(cache, "a"));
}

TEST(Lru, KeyPairHashIsStringHashXorSignExtendedInt) {
  const tpa::lru::KeyPairHash hash;
  const std::size_t h = std::hash<std::string>{}("abc");
  EXPECT_EQ(h ^ std::size_t{10}, hash(Key("abc", 10)));
  EXPECT_EQ(h ^ static_cast<std::size_t>(std::int64_t{-5}), hash(Key("abc", -5)));
  EXPECT_EQ(~h, hash(Key("abc", -1)));
}

// The cache as described, written plainly: a recency list, a map from key to
// list position, and the index as "key -> live?" so that stale entries left
// by a clear are modelled too.
class Model {
 public:
  explicit Model(int capacity) : capacity_(capacity) {}
  int get(const Key& key, int& out) {
    auto it = index_.find(key);
    if (it == index_.end()) return kMiss;
    if (!it->second) {
      index_.erase(it);
      return kMiss;
    }
    auto pos = where_.at(key);
    out = pos->second;
    list_.splice(list_.begin(), list_, pos);
    return 0;
  }
  void put(const Key& key, int value) {
    auto it = index_.find(key);
    if (it != index_.end() && it->second) {
      where_.at(key)->second = value;
      list_.splice(list_.begin(), list_, where_.at(key));
      return;
    }
    index_[key] = true;
    if (count_ == capacity_) {
      --count_;
      if (!list_.empty()) {
        index_.erase(list_.back().first);
        where_.erase(list_.back().first);
        list_.pop_back();
      }
    }
    ++count_;
    list_.emplace_front(key, value);
    where_[key] = list_.begin();
  }
  void clear() {
    list_.clear();
    where_.clear();
    for (auto& entry : index_) entry.second = false;
  }
  std::vector<Key> keys() const {
    std::vector<Key> keys;
    for (const auto& entry : list_) keys.push_back(entry.first);
    return keys;
  }
  int count() const { return count_; }
  std::size_t indexSize() const { return index_.size(); }

 private:
  int capacity_;
  int count_ = 0;
  std::list<std::pair<Key, int>> list_;
  std::map<Key, std::list<std::pair<Key, int>>::iterator> where_;
  std::map<Key, bool> index_;
};

TEST(Lru, AgreesWithListAndMapModelOnRandomOperations) {
  std::mt19937 rng(7);
  for (int capacity : {-1, 0, 1, 2, 3, 5, 8}) {
    Cache cache(capacity);
    start(cache);
    Model model(capacity);
    for (int step = 0; step < 4000; ++step) {
      const Key key(std::string(1, static_cast<char>('a' + rng() % 9)), rng() % 2 ? 10 : 20);
      const unsigned op = rng() % 100;
      if (op < 45) {
        int got = -1, want = -1;
        ASSERT_EQ(model.get(key, want), cache.get(key, got)) << capacity << " step " << step;
        ASSERT_EQ(want, got);
      } else if (op < 97) {
        const int value = static_cast<int>(rng() % 1000);
        model.put(key, value);
        ASSERT_EQ(0, cache.put(key, value));
      } else {
        model.clear();
        cache.clear();
      }
      std::vector<Key> keys;
      cache.forEach([&keys](const auto& node) { keys.emplace_back(node.key, node.subKey); });
      ASSERT_EQ(model.keys(), keys) << capacity << " step " << step;
      ASSERT_EQ(model.count(), cache.count());
      ASSERT_EQ(model.indexSize(), cache.indexSize());
    }
  }
}

}  // namespace
