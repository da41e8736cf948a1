// The keyed machine: missing parts, cached answers per (string, kind), and
// answers that outlive later puts until the cache is cleared.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "api/constants.h"
#include "machine/fsm.h"
#include "testing/log_capture.h"

namespace {

using tpa::fsa::SAStateValue;
using tpa::machine::KeyedMachine;
using tpa::machine::kFullKey;
using tpa::machine::kPartialKey;
using Key = std::pair<std::string, int>;
using Value = SAStateValue<int>;

TEST(Machine, EveryOperationButConstructAndClearNeedsBothParts) {
  KeyedMachine machine;
  Value out(4, 4);
  int matched = 4;
  int size = 4;
  EXPECT_EQ(-1, machine.put(Key("#a$", kFullKey), 1));
  EXPECT_EQ(-1, machine.findFull(Key("#a$", kFullKey), out, matched));
  EXPECT_EQ(-1, machine.findPartial(Key("#a$", kPartialKey), out, matched));
  EXPECT_EQ(-1, machine.size(size));
  EXPECT_EQ(Value(4, 4), out);
  EXPECT_EQ(4, matched);
  EXPECT_EQ(4, size);
  EXPECT_EQ(-1, machine.clearCache());  // no cache to clear
}

TEST(Machine, ConstructZeroZeroGivesSixStatesAndAOneEntryCache) {
  KeyedMachine machine;
  machine.construct(0, 0);
  int size = -1;
  ASSERT_EQ(0, machine.size(size));
  EXPECT_EQ(0, size);
  EXPECT_EQ(6, machine.automaton()->capacity());
  ASSERT_EQ(0, machine.put(Key("#ab$", kFullKey), 3));
  Value out;
  int matched = 0;
  ASSERT_EQ(0, machine.findFull(Key("#a", kFullKey), out, matched));
  ASSERT_EQ(0, machine.findFull(Key("#ab$", kFullKey), out, matched));
  EXPECT_EQ(1u, machine.cache()->listSize());
  ASSERT_EQ(0, machine.size(size));
  EXPECT_EQ(4, size);
}

TEST(Machine, PutIgnoresSubKeyAndFailsWhenFull) {
  KeyedMachine machine;
  machine.construct(2, 10);  // 4 states: 3 characters fit
  tpa::testing::LogCapture capture;
  EXPECT_EQ(0, machine.put(Key("#a$", 12345), 7));
  EXPECT_EQ(tpa::error::TPA_ERROR_ARRAY_OUT_OF_INDEX, machine.put(Key("#b$", kFullKey), 8));
  ASSERT_EQ(1u, capture.records().size());
  Value out;
  int matched = 0;
  ASSERT_EQ(0, machine.findFull(Key("#a$", kFullKey), out, matched));
  EXPECT_EQ(3, matched);
  EXPECT_EQ(Value(3, 7), out);
}

TEST(Machine, FullAndPartialAnswersAreCachedApart) {
  KeyedMachine machine;
  machine.construct(16, 10);
  ASSERT_EQ(0, machine.put(Key("#*.b.c$11", kPartialKey), 5));
  Value full, partial;
  int fullMatched = 0, partialMatched = 0;
  ASSERT_EQ(0, machine.findFull(Key("#x.b.c$11", kFullKey), full, fullMatched));
  ASSERT_EQ(0, machine.findPartial(Key("#x.b.c$11", kPartialKey), partial, partialMatched));
  EXPECT_EQ(1, fullMatched);
  EXPECT_EQ(Value(), full);
  EXPECT_EQ(7, partialMatched);
  EXPECT_EQ(Value(9, 5), partial);
  std::vector<Key> cached;
  machine.cache()->forEach([&cached](const auto& n) { cached.emplace_back(n.key, n.subKey); });
  EXPECT_EQ((std::vector<Key>{{"#x.b.c$11", 20}, {"#x.b.c$11", 10}}), cached);
}

TEST(Machine, CachedAnswerSurvivesLaterPutUntilCleared) {
  KeyedMachine machine;
  machine.construct(16, 10);
  Value out;
  int matched = -1;
  ASSERT_EQ(0, machine.findFull(Key("#ab$", kFullKey), out, matched));
  EXPECT_EQ(0, matched);  // nothing stored yet; the miss is cached too
  ASSERT_EQ(0, machine.put(Key("#ab$", kFullKey), 4));
  ASSERT_EQ(0, machine.findFull(Key("#ab$", kFullKey), out, matched));
  EXPECT_EQ(0, matched);
  EXPECT_EQ(Value(), out);
  EXPECT_EQ(0, machine.clearCache());
  ASSERT_EQ(0, machine.findFull(Key("#ab$", kFullKey), out, matched));
  EXPECT_EQ(4, matched);
  EXPECT_EQ(Value(4, 4), out);
}

TEST(Machine, HitReturnsExactlyWhatTheMissComputed) {
  KeyedMachine machine;
  machine.construct(32, 10);
  ASSERT_EQ(0, machine.put(Key("#one$11", kFullKey), 1));
  ASSERT_EQ(0, machine.put(Key("#*.two$11", kPartialKey), 2));
  for (const std::string q : {"#one$11", "#x.two$11", "#on", "", "zz"}) {
    Value first, second;
    int m1 = -7, m2 = -7;
    ASSERT_EQ(0, machine.findPartial(Key(q, kPartialKey), first, m1));
    ASSERT_EQ(0, machine.findPartial(Key(q, kPartialKey), second, m2));
    EXPECT_EQ(first, second) << q;
    EXPECT_EQ(m1, m2) << q;
    Value direct;
    EXPECT_EQ(machine.automaton()->tryFindPartial(q, direct), m1) << q;
    EXPECT_EQ(direct, first);
  }
}

TEST(Machine, ConstructAgainStartsOver) {
  KeyedMachine machine;
  machine.construct(8, 10);
  ASSERT_EQ(0, machine.put(Key("#a$", kFullKey), 1));
  Value out;
  int matched = 0;
  ASSERT_EQ(0, machine.findFull(Key("#a$", kFullKey), out, matched));
  machine.construct(8, 10);
  int size = -1;
  ASSERT_EQ(0, machine.size(size));
  EXPECT_EQ(0, size);
  EXPECT_EQ(0u, machine.cache()->listSize());
  ASSERT_EQ(0, machine.findFull(Key("#a$", kFullKey), out, matched));
  EXPECT_EQ(0, matched);
}

}  // namespace
