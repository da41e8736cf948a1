// The keyed machine: missing parts, cached answers per (string, kind), and
// answers that outlive later puts until the cache is cleared; a machine
// through its life, keyed then frozen, answering alike.
#include "machine/machine.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <tuple>
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

// Keyed, then frozen: every lookup, the whole-key test and the size answer
// alike; the cache goes with the keyed form, and nothing more is put.
TEST(Machine, FrozenAnswersAsKeyed) {
  tpa::machine::Machine machine;
  machine.construct(64, 4);
  for (const auto& [key, value] : {std::pair{"#a.b$11", 1}, {"#*.b$11", 2}, {"#b$00", 3}}) {
    ASSERT_EQ(0, machine.put(Key(key, 10), value));
  }
  const auto answers = [&machine] {
    std::vector<std::tuple<int, int, Value, bool>> out;
    for (const char* q : {"#a.b$11", "#x.b$11", "#b$00", "b$0", "", "#zz$"}) {
      Value full, partial, whole;
      int f = 0, p = 0;
      bool isWhole = false;
      EXPECT_EQ(0, machine.findFull(Key(q, 10), full, f));
      EXPECT_EQ(0, machine.findPartial(Key(q, 20), partial, p));
      EXPECT_EQ(0, machine.findWhole(Key(q, 10), whole, isWhole));
      out.emplace_back(f, p, full, isWhole);
      out.emplace_back(f, p, partial, isWhole);
      if (isWhole) out.emplace_back(f, p, whole, isWhole);
    }
    int size = 0;
    EXPECT_EQ(0, machine.size(size));
    out.emplace_back(size, 0, Value(), false);
    return out;
  };
  const auto keyed = answers();
  ASSERT_NE(nullptr, machine.keyed());
  ASSERT_TRUE(machine.freeze());
  EXPECT_EQ(nullptr, machine.keyed());
  ASSERT_NE(nullptr, machine.frozen());
  EXPECT_EQ(keyed, answers());
  EXPECT_EQ(-2, machine.put(Key("#c$11", 10), 4));
  EXPECT_EQ(0, machine.clearCache());
}

// occurs says whether a text stands anywhere in the keys put one after
// another, keyed and frozen alike: checked against a search of that text.
TEST(Machine, OccursFindsEveryPieceOfTheKeysInARowKeyedAndFrozen) {
  std::mt19937 random(7);
  const auto word = [&random](std::size_t most) {
    std::string w(random() % most, ' ');
    for (char& c : w) c = "ab#$"[random() % 4];
    return w;
  };
  for (int round = 0; round < 20; ++round) {
    tpa::machine::Machine machine;
    machine.construct(256, 4);
    std::string text;
    for (int k = 0; k < 6; ++k) {
      const std::string key = word(8);
      ASSERT_EQ(0, machine.put(Key(key, 10), k));
      text += key;
    }
    std::vector<std::string> probes;
    for (int p = 0; p < 60; ++p) probes.push_back(word(6));
    for (int p = 0; p < 20 && !text.empty(); ++p) {
      const std::size_t at = random() % text.size();
      probes.push_back(text.substr(at, random() % (text.size() - at + 1)));
    }
    for (const bool frozen : {false, true}) {
      if (frozen) {
        ASSERT_TRUE(machine.freeze());
      }
      for (const std::string& probe : probes) {
        EXPECT_EQ(text.find(probe) != std::string::npos, machine.occurs(probe))
            << text << " / " << probe << (frozen ? " frozen" : " keyed");
      }
    }
  }
  EXPECT_FALSE(tpa::machine::Machine().occurs("a"));
}

}  // namespace
