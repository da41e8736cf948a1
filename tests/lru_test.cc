// The LRU cache: codes before construct, no allocation once full, and
// the rest (capacities, refresh, clear keeping the count) against the contract.
#include "lru/lru.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <list>
#include <new>
#include <random>
#include <string>
#include <vector>

static long allocations = 0;  // operator new calls in this test binary

void* operator new(std::size_t n) {
  ++allocations;
  if (void* p = std::malloc(n == 0 ? 1 : n)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using Cache = tpa::lru::LRU<std::string, int, int>;
using Key = std::pair<std::string, int>;
constexpr int kMiss = -5;

TEST(Lru, BeforeConstructEveryOperationIsOom) {
  Cache cache(4);
  int out = 7;
  EXPECT_EQ(-1, cache.get(Key("a", 10), out));
  EXPECT_EQ(-1, cache.put(Key("a", 10), 1));
  EXPECT_EQ(-1, cache.getOrPut(Key("a", 10), out, [] { return 1; }));  // nothing computed
  EXPECT_EQ(7, out);
}

TEST(Lru, PutOnceFullReusesTheEvictedEntry) {
  Cache cache(8);
  cache.construct("def-key", 0, 0);
  std::vector<Key> keys;
  for (int i = 0; i < 64; ++i)
    keys.emplace_back("a key longer than any short string " + std::to_string(100 + i), 10);
  for (int i = 0; i < 8; ++i) ASSERT_EQ(0, cache.put(keys[i], i));
  const long before = allocations;
  for (int i = 8; i < 64; ++i) ASSERT_EQ(0, cache.put(keys[i], i));
  EXPECT_EQ(before, allocations);
}

// The contract, written plainly: a recency list and a count. A clear empties
// the list and keeps the count, so a new key put at a full count evicts from
// an empty list and the count stays; a released key is a miss.
struct Model {
  int get(const Key& key, int& out) {
    const auto it = std::find_if(list.begin(), list.end(), [&](const auto& e) { return e.first == key; });
    if (it == list.end()) return kMiss;
    list.splice(list.begin(), list, it);
    out = list.front().second;
    return 0;
  }
  void put(const Key& key, int value) {
    if (int old = 0; get(key, old) == 0) return void(list.front().second = value);
    if (count == capacity) {
      --count;
      if (!list.empty()) list.pop_back();
    }
    ++count;
    list.emplace_front(key, value);
  }
  int capacity;
  int count = 0;
  std::list<std::pair<Key, int>> list;  // most recently used first
};

// Capacities 0 (one entry) and negative (never evicts); keys short and long (reused strings grow).
TEST(Lru, AgreesWithTheContractOnRandomOperations) {
  std::mt19937 rng(7);
  for (int capacity : {-1, 0, 1, 2, 3, 5, 8}) {
    Cache cache(capacity);
    cache.construct("def-key", 0, 0);
    Model model{capacity, 0, {}};
    std::size_t released = 0;  // entries the last clear let go
    for (int step = 0; step < 4000; ++step) {
      const Key key(std::string(rng() % 2 ? 1 : 30, static_cast<char>('a' + rng() % 9)),
                    rng() % 2 ? 10 : 20);
      const unsigned op = rng() % 100;
      const int value = static_cast<int>(rng() % 1000);
      int got = -1, want = -1;
      if (op < 40) {
        ASSERT_EQ(model.get(key, want), cache.get(key, got)) << capacity << " step " << step;
      } else if (op < 70) {  // a get that files `value` on a miss
        if (model.get(key, want) != 0) model.put(key, want = value);
        ASSERT_EQ(0, cache.getOrPut(key, got, [value] { return value; }));
      } else if (op < 97) {
        model.put(key, value);
        ASSERT_EQ(0, cache.put(key, value));
      } else {
        released = model.list.size();
        model.list.clear();
        (op % 2 ? cache.clear() : cache.deleteList());
        ASSERT_EQ(released, cache.indexSize());  // the index still names what was released
      }
      ASSERT_EQ(want, got);
      std::list<std::pair<Key, int>> entries;
      cache.forEach([&](const auto& n) { entries.push_back({{n.key, n.subKey}, n.value}); });
      ASSERT_EQ(model.list, entries) << capacity << " step " << step;
      ASSERT_EQ(model.count, cache.count());
      // Every live entry is indexed; repeated clears cannot pile up stale slots.
      ASSERT_GE(cache.indexSize(), entries.size());
      ASSERT_LE(cache.indexSize(), entries.size() + released);
    }
  }
}

}  // namespace
