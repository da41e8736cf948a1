// The keyed machine: missing parts, cached answers per (string, kind), and
// answers that outlive later puts until the cache is cleared.
#include <gtest/gtest.h>

#include <ostream>
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

// What a lookup handed out: the matched length and the state value.
struct Answer {
  int matched;
  Value value;
  bool operator==(const Answer& o) const { return matched == o.matched && value == o.value; }
};
std::ostream& operator<<(std::ostream& os, const Answer& a) {
  return os << a.matched << " (" << a.value.storedKeyLength() << ", " << a.value.userDefinedValue()
            << ")";
}

Answer Full(KeyedMachine& machine, const std::string& key) {
  Answer a{-7, Value(-7, -7)};
  EXPECT_EQ(0, machine.findFull(Key(key, kFullKey), a.value, a.matched)) << key;
  return a;
}
Answer Partial(KeyedMachine& machine, const std::string& key) {
  Answer a{-7, Value(-7, -7)};
  EXPECT_EQ(0, machine.findPartial(Key(key, kPartialKey), a.value, a.matched)) << key;
  return a;
}

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
  Full(machine, "#a");
  EXPECT_EQ((Answer{4, Value(4, 3)}), Full(machine, "#ab$"));
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
  EXPECT_EQ((Answer{3, Value(3, 7)}), Full(machine, "#a$"));
}

TEST(Machine, FullAndPartialAnswersAreCachedApart) {
  KeyedMachine machine;
  machine.construct(16, 10);
  ASSERT_EQ(0, machine.put(Key("#*.b.c$11", kPartialKey), 5));
  EXPECT_EQ((Answer{1, Value()}), Full(machine, "#x.b.c$11"));
  EXPECT_EQ((Answer{7, Value(9, 5)}), Partial(machine, "#x.b.c$11"));
  std::vector<Key> cached;
  machine.cache()->forEach([&cached](const auto& n) { cached.emplace_back(n.key, n.subKey); });
  EXPECT_EQ((std::vector<Key>{{"#x.b.c$11", 20}, {"#x.b.c$11", 10}}), cached);
}

TEST(Machine, CachedAnswerSurvivesLaterPutUntilCleared) {
  KeyedMachine machine;
  machine.construct(16, 10);
  // Nothing stored yet: the non-match is cached too.
  EXPECT_EQ((Answer{0, Value()}), Full(machine, "#ab$"));
  ASSERT_EQ(0, machine.put(Key("#ab$", kFullKey), 4));
  EXPECT_EQ((Answer{0, Value()}), Full(machine, "#ab$"));
  EXPECT_EQ(0, machine.clearCache());
  EXPECT_EQ((Answer{4, Value(4, 4)}), Full(machine, "#ab$"));
}

TEST(Machine, HitReturnsExactlyWhatTheMissComputed) {
  KeyedMachine machine;
  machine.construct(32, 10);
  ASSERT_EQ(0, machine.put(Key("#one$11", kFullKey), 1));
  ASSERT_EQ(0, machine.put(Key("#*.two$11", kPartialKey), 2));
  for (const std::string q : {"#one$11", "#x.two$11", "#on", "", "zz"}) {
    const Answer miss = Partial(machine, q);
    EXPECT_EQ(miss, Partial(machine, q)) << q;
    Answer direct{0, Value()};
    direct.matched = machine.automaton()->tryFindPartial(q, direct.value);
    EXPECT_EQ(direct, miss) << q;
  }
}

TEST(Machine, ConstructAgainStartsOver) {
  KeyedMachine machine;
  machine.construct(8, 10);
  ASSERT_EQ(0, machine.put(Key("#a$", kFullKey), 1));
  Full(machine, "#a$");
  machine.construct(8, 10);
  int size = -1;
  ASSERT_EQ(0, machine.size(size));
  EXPECT_EQ(0, size);
  EXPECT_EQ(0u, machine.cache()->listSize());
  EXPECT_EQ((Answer{0, Value()}), Full(machine, "#a$"));
}

}  // namespace
