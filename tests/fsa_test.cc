// The suffix automaton: construction limits and their messages, lookups, the
// wildcard walk, and model checks against brute force, the std::map store and
// a literal matching-statistics wildcard search.
#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>
#include <vector>

#include "fsa/map_transitions.h"
#include "fsa/suffix_automaton.h"
#include "testing/log_capture.h"

namespace {

using tpa::testing::LogCapture;
using tpa::testing::LogRecord;
using Automaton = tpa::fsa::SuffixAutomaton<int>;
using Reference = tpa::fsa::SuffixAutomaton<int, tpa::fsa::MapTransitions>;
using Value = tpa::fsa::SAStateValue<int>;

const char* const kTag = "tarn_patteren_analyzer.so";

// An automaton sized for `n` characters holding `keys` with values 1, 2, ...
template <typename A = Automaton>
void build(A& sa, const std::vector<std::string>& keys, int n) {
  sa.construct(n);
  int value = 1;
  for (const auto& key : keys) ASSERT_EQ(0, sa.add(key, value++)) << key;
}

TEST(SuffixAutomaton, ConstructRaisesSmallLengthsToThree) {
  const struct { int n, capacity; } cases[] = {{-4, 6}, {0, 6}, {1, 6}, {2, 4}, {3, 6}, {50, 100}};
  for (const auto& c : cases) {
    Automaton sa;
    sa.construct(c.n);
    EXPECT_EQ(c.capacity, sa.capacity()) << c.n;
    EXPECT_EQ(0, sa.size());
  }
  Automaton huge;
  huge.construct(INT_MAX);  // states beyond an int: nothing allocated
  EXPECT_FALSE(huge.allocated());
}

TEST(SuffixAutomaton, AddBeforeConstructLogsAndLookupsAnswerEmpty) {
  Automaton sa;
  LogCapture capture;
  EXPECT_EQ(-1, sa.add("#a$", 1));
  EXPECT_EQ((std::vector<LogRecord>{{6, kTag, "[SA] states_ array is not allocated. \n"}}),
            capture.records());
  Value out(7, 7);
  EXPECT_EQ(0, sa.tryFindFull("#a$", out));
  EXPECT_EQ(Value(), out);
  EXPECT_EQ(0, sa.tryFindPartial("#a$", out));
  EXPECT_EQ(INT_MIN, sa.tryFindPartial("", out));
}

TEST(SuffixAutomaton, OverflowLogsFatalAndEveryLaterExtendFails) {
  Automaton sa;
  sa.construct(2);  // 4 states: 3 characters fit
  ASSERT_EQ(0, sa.add("abc", 9));
  LogCapture capture;
  EXPECT_EQ(-2, sa.extend('d', Value()));
  EXPECT_EQ(-2, sa.add("a", 1));  // 'a' would need no new state, yet fails too
  EXPECT_EQ((std::vector<LogRecord>{
                {7, kTag, "[FATAL] [SA] cur [4] is out of bounds. Allocated: [4] \n"},
                {7, kTag, "[FATAL] [SA] cur [5] is out of bounds. Allocated: [4] \n"}}),
            capture.records());
  EXPECT_EQ(5, sa.size());  // count advanced on each failure
}

TEST(SuffixAutomaton, CloneOverflowLogsTheCloneAndKeepsLookupsSafe) {
  Automaton sa;
  sa.construct(2);  // a=1, b=2; the second b needs state 3 and a clone 4
  ASSERT_EQ(0, sa.add("ab", 5));
  LogCapture capture;
  EXPECT_EQ(-2, sa.extend('b', Value(3, 6)));
  EXPECT_EQ((std::vector<LogRecord>{
                {7, kTag, "[FATAL] [SA] cloned [4] is out of bounds. Allocated: [4] \n"}}),
            capture.records());
  EXPECT_EQ(2, sa.last());
  Value out;  // the half-made state is reachable and has no link
  EXPECT_EQ(3, sa.tryFindFull("abb", out));
  EXPECT_EQ(Value(3, 6), out);
  EXPECT_EQ(0, sa.tryFindPartial("abbz", out));
  EXPECT_EQ(1, sa.tryFindPartial("abba", out));
  // Reading every b from the start falls back from the half-made state each
  // second step; a read of only the last characters would end elsewhere.
  EXPECT_EQ(1, sa.tryFindPartial(std::string(17, 'b'), out));
}

TEST(SuffixAutomaton, LookupTable) {
  const struct {
    std::vector<std::string> keys;
    std::string query;
    bool partial;
    int read;
    Value value;
  } cases[] = {
      {{"#a$", "#ab$"}, "#a$", false, 3, Value(3, 1)},  // a key prefixing a later key
      {{"#a$", "#ab$"}, "#ac$", false, 2, Value()},
      {{"#ab$", "#cd$"}, "b$#c", false, 4, Value()},   // across the border of two keys
      {{"#xa$", "#a$"}, "a$", false, 2, Value(4, 1)},  // a clone of a key end
      {{"#a$"}, "", false, 0, Value()},
      {{"#*.b.c$11"}, "#x.b.c$11", true, 7, Value(9, 1)},  // the wildcard walk
      {{"#*.b.c$11"}, "#b.c$11", true, 6, Value()},        // no "*b": the '*' state
      {{"#abc$11"}, "#zbc$11", true, 5, Value()},          // no wildcard at all
      {{"#abc$11"}, "#abc$1q", true, 0, Value()},
      {{"#*.b$01"}, "", true, INT_MIN, Value()},
  };
  for (const auto& c : cases) {
    Automaton sa;
    build(sa, c.keys, 20);
    Value out(5, 5);
    EXPECT_EQ(c.read, c.partial ? sa.tryFindPartial(c.query, out) : sa.tryFindFull(c.query, out))
        << c.query;
    EXPECT_EQ(c.value, out) << c.query;
  }
}

// --- model checks -----------------------------------------------------------

std::string randomString(std::mt19937& rng, const std::string& alphabet, int maxLength) {
  std::string s(rng() % static_cast<unsigned>(maxLength + 1), ' ');
  for (char& c : s) c = alphabet[rng() % alphabet.size()];
  return s;
}

int longestPrefixIn(const std::string& text, const std::string& q) {
  int l = 0;
  while (l < static_cast<int>(q.size()) && text.find(q.substr(0, l + 1)) != std::string::npos) ++l;
  return l;
}

int longestSuffixIn(const std::string& text, const std::string& q) {
  int l = 0;
  while (l < static_cast<int>(q.size()) && text.find(q.substr(q.size() - l - 1)) != std::string::npos) ++l;
  return q.empty() ? INT_MIN : l;
}

// The wildcard search read literally: matching statistics over the whole key
// with best and bestEnd reset at every fallback step, then the walk behind '*'.
int literalPartial(const Automaton& sa, const std::string& key, Value& out) {
  const auto& t = sa.transitions();
  int s = 0, l = 0, best = INT_MIN, bestEnd = INT_MIN;
  for (int i = 0; i < static_cast<int>(key.size()); ++i) {
    const auto c = static_cast<unsigned char>(key[i]);
    if (s != 0) {
      while (t.find(s, c) == nullptr) {
        best = bestEnd = INT_MIN;
        s = sa.stateAt(s).link() < 0 ? 0 : sa.stateAt(s).link();
        l = sa.stateAt(s).length();
        if (s == 0) break;
      }
    }
    if (const int* next = t.find(s, c)) s = *next, ++l;
    if (l >= best) best = l, bestEnd = i;
  }
  const int* star = t.find(0, '*');
  if (star == nullptr) return out = sa.stateAt(0).value(), best;
  s = *star;
  for (long long j = static_cast<long long>(bestEnd) - best + 1; j < static_cast<long long>(key.size()); ++j) {
    const int* next = t.find(s, static_cast<unsigned char>(key[j]));
    if (next == nullptr) break;
    s = *next;
  }
  return out = sa.stateAt(s).value(), best;
}

// Random keys "#...$" (some wildcards), then random queries and pieces of the
// text. `room` below 1 leaves the automaton too small, so that it breaks.
void checkRandom(const std::string& alphabet, unsigned seed, double room) {
  std::mt19937 rng(seed);
  for (int round = 0; round < 60; ++round) {
    std::vector<std::string> keys;
    std::string text;
    for (int i = 1 + static_cast<int>(rng() % 12); i > 0; --i) {
      keys.push_back((rng() % 3 ? "#" : "#*.") + randomString(rng, alphabet, 40) + "$");
      text += keys.back();
    }
    Automaton sa;
    Reference reference;
    const int n = static_cast<int>(static_cast<double>(text.size()) * room);
    sa.construct(n);
    reference.construct(n);
    LogCapture quiet;
    for (std::size_t k = 0; k < keys.size(); ++k) {
      ASSERT_EQ(reference.add(keys[k], static_cast<int>(k)), sa.add(keys[k], static_cast<int>(k)));
    }
    for (int i = 0; i < 80; ++i) {
      std::string q = randomString(rng, alphabet + "#$*.", 45);
      if (i % 2 == 0) q = text.substr(rng() % text.size(), rng() % 45) + q.substr(0, q.size() % 4);
      Value full, fullRef, partial, literal;
      const int f = sa.tryFindFull(q, full);
      ASSERT_EQ(reference.tryFindFull(q, fullRef), f) << q;
      ASSERT_EQ(fullRef, full) << q;
      const int p = sa.tryFindPartial(q, partial);
      ASSERT_EQ(literalPartial(sa, q, literal), p) << text << " / " << q;
      ASSERT_EQ(literal, partial) << text << " / " << q;
      if (room >= 1) {
        ASSERT_EQ(longestPrefixIn(text, q), f) << text << " / " << q;
        ASSERT_EQ(longestSuffixIn(text, q), p) << text << " / " << q;
      }
    }
  }
}

TEST(SuffixAutomaton, AgreesWithModelsOnRandomKeys) {
  std::string bytes;
  for (int c = 0; c < 256; ++c) bytes.push_back(static_cast<char>(c));
  checkRandom("ab.", 1, 1.0);
  checkRandom(bytes, 2, 1.0);  // wide states: binary search, runs of every size
  checkRandom("ab.", 3, 0.6);  // automata broken by a failed extend
}

}  // namespace
