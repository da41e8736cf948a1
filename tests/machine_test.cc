// The keyed machine: missing parts, cached answers per (string, kind), and
// answers that outlive later puts until the cache is cleared.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "machine/fsm.h"

namespace {

using tpa::machine::KeyedMachine;
using Key = std::pair<std::string, int>;
using Value = tpa::fsa::SAStateValue<int>;
using Answer = std::pair<int, Value>;  // matched length, state value

Answer Find(KeyedMachine& machine, const std::string& key, int kind = 10) {
  Answer a{-7, Value(-7, -7)};
  EXPECT_EQ(0, kind == 10 ? machine.findFull(Key(key, kind), a.second, a.first)
                          : machine.findPartial(Key(key, kind), a.second, a.first));
  return a;
}

TEST(Machine, EveryOperationButConstructAndClearNeedsBothParts) {
  KeyedMachine machine;
  Value out(4, 4);
  int matched = 4;
  EXPECT_EQ(-1, machine.put(Key("#a$", 10), 1));
  EXPECT_EQ(-1, machine.findFull(Key("#a$", 10), out, matched));
  EXPECT_EQ(-1, machine.findPartial(Key("#a$", 20), out, matched));
  EXPECT_EQ(-1, machine.size(matched));
  EXPECT_EQ(Answer(4, Value(4, 4)), Answer(matched, out));  // untouched
  EXPECT_EQ(-1, machine.clearCache());
}

TEST(Machine, ConstructZeroZeroGivesSixStatesAndAOneEntryCache) {
  KeyedMachine machine;
  machine.construct(0, 0);
  int size = -1;
  ASSERT_EQ(0, machine.size(size));
  EXPECT_EQ(0, size);
  EXPECT_EQ(6, machine.automaton()->capacity());
  Find(machine, "#a$");
  Find(machine, "#b$");
  EXPECT_EQ(1u, machine.cache()->listSize());
}

TEST(Machine, FullAndPartialAnswersAreCachedApart) {
  KeyedMachine machine;
  machine.construct(16, 10);
  ASSERT_EQ(0, machine.put(Key("#*.b.c$11", 12345), 5));  // the sub-key plays no part
  EXPECT_EQ(Answer(1, Value()), Find(machine, "#x.b.c$11"));
  EXPECT_EQ(Answer(7, Value(9, 5)), Find(machine, "#x.b.c$11", 20));
  std::vector<Key> cached;
  machine.cache()->forEach([&cached](const auto& n) { cached.emplace_back(n.key, n.subKey); });
  EXPECT_EQ((std::vector<Key>{{"#x.b.c$11", 20}, {"#x.b.c$11", 10}}), cached);
}

TEST(Machine, CachedAnswerSurvivesLaterPutUntilCleared) {
  KeyedMachine machine;
  machine.construct(16, 10);
  EXPECT_EQ(Answer(0, Value()), Find(machine, "#ab$"));  // a non-match is cached too
  ASSERT_EQ(0, machine.put(Key("#ab$", 10), 4));
  EXPECT_EQ(Answer(0, Value()), Find(machine, "#ab$"));
  EXPECT_EQ(0, machine.clearCache());
  EXPECT_EQ(Answer(4, Value(4, 4)), Find(machine, "#ab$"));
}

}  // namespace
