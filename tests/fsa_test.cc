// The suffix automaton: construction limits, lookups, the wildcard walk, and
// model checks against brute force and against the std::map transition store.
#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>
#include <vector>

#include "api/constants.h"
#include "api/log.h"
#include "fsa/map_transitions.h"
#include "fsa/suffix_automaton.h"
#include "testing/log_capture.h"

namespace {

using tpa::fsa::SAStateValue;
using tpa::testing::LogCapture;
using tpa::testing::LogRecord;
using Automaton = tpa::fsa::SuffixAutomaton<int>;
using Reference = tpa::fsa::SuffixAutomaton<int, tpa::fsa::MapTransitions>;
using Value = SAStateValue<int>;

constexpr int kFatal = 7;
constexpr int kError = 6;
const char* const kTag = "tarn_patteren_analyzer.so";

// An automaton sized for `n` characters holding `keys` with values 1, 2, ...
template <typename A = Automaton>
void build(A& sa, const std::vector<std::string>& keys, int n) {
  sa.construct(n);
  int value = 1;
  for (const auto& key : keys) ASSERT_EQ(0, sa.add(key, value++)) << key;
}

TEST(SuffixAutomaton, DefaultValueIsZeroAndMinusOne) {
  EXPECT_EQ(Value(0, -1), Value());
  EXPECT_EQ(0, Value().storedKeyLength());
  EXPECT_EQ(-1, Value().userDefinedValue());
}

TEST(SuffixAutomaton, ConstructRaisesSmallLengthsToThree) {
  const struct { int n, capacity; } cases[] = {{-4, 6}, {0, 6}, {1, 6}, {2, 4}, {3, 6}, {50, 100}};
  for (const auto& c : cases) {
    Automaton sa;
    sa.construct(c.n);
    EXPECT_EQ(c.capacity, sa.capacity()) << c.n;
    EXPECT_EQ(0, sa.size());
  }
}

TEST(SuffixAutomaton, LengthBeyondCountableStatesAllocatesNothing) {
  Automaton sa;
  sa.construct(INT_MAX);
  EXPECT_FALSE(sa.allocated());
  LogCapture capture;
  EXPECT_EQ(-1, sa.add("#a$", 1));
  EXPECT_EQ(1u, capture.records().size());
}

TEST(SuffixAutomaton, CapacityHoldsAllButOneState) {
  for (int n : {0, 2, 7}) {
    Automaton sa;
    sa.construct(n);
    const int fit = sa.capacity() - 1;  // distinct characters: no clones
    for (int i = 0; i < fit; ++i) ASSERT_EQ(0, sa.extend(static_cast<char>('a' + i), Value()));
    LogCapture capture;
    EXPECT_EQ(-2, sa.extend('z', Value()));
    EXPECT_EQ(1u, capture.records().size());
  }
}

TEST(SuffixAutomaton, OverflowLogsFatalAndEveryLaterExtendFails) {
  Automaton sa;
  sa.construct(2);  // 4 states
  ASSERT_EQ(0, sa.add("abc", 9));
  LogCapture capture;
  EXPECT_EQ(tpa::error::TPA_ERROR_ARRAY_OUT_OF_INDEX, sa.extend('d', Value()));
  EXPECT_EQ(-2, sa.add("a", 1));  // 'a' would need no new clone, yet fails too
  const std::vector<LogRecord> expected = {
      {kFatal, kTag, "[FATAL] [SA] cur [4] is out of bounds. Allocated: [4] \n"},
      {kFatal, kTag, "[FATAL] [SA] cur [5] is out of bounds. Allocated: [4] \n"},
  };
  EXPECT_EQ(expected, capture.records());
  EXPECT_EQ(5, sa.size());  // count advanced on each failure
  Value out;
  EXPECT_EQ(3, sa.tryFindFull("abc", out));
  EXPECT_EQ(Value(3, 9), out);
}

TEST(SuffixAutomaton, CloneOverflowLogsTheClonedIndexAndKeepsLookupsSafe) {
  Automaton sa;
  sa.construct(2);  // 4 states: a=1, b=2, the second b needs state 3 and a clone 4
  ASSERT_EQ(0, sa.add("ab", 5));
  LogCapture capture;
  EXPECT_EQ(-2, sa.extend('b', Value(3, 6)));
  EXPECT_EQ(-2, sa.extend('c', Value()));
  const std::vector<LogRecord> expected = {
      {kFatal, kTag, "[FATAL] [SA] cloned [4] is out of bounds. Allocated: [4] \n"},
      {kFatal, kTag, "[FATAL] [SA] cur [5] is out of bounds. Allocated: [4] \n"},
  };
  EXPECT_EQ(expected, capture.records());
  EXPECT_EQ(2, sa.last());  // last was not moved
  // The half-made state is reachable ("abb") and has no link; lookups through
  // it stay within the automaton.
  Value out;
  EXPECT_EQ(3, sa.tryFindFull("abb", out));
  EXPECT_EQ(Value(3, 6), out);
  EXPECT_EQ(0, sa.tryFindPartial("abbz", out));
  EXPECT_EQ(1, sa.tryFindPartial("abba", out));
}

TEST(SuffixAutomaton, AddBeforeConstructLogsAndFails) {
  Automaton sa;
  LogCapture capture;
  EXPECT_EQ(tpa::error::TPA_ERROR_OOM, sa.add("#a$", 1));
  const std::vector<LogRecord> expected = {
      {kError, kTag, "[SA] states_ array is not allocated. \n"}};
  EXPECT_EQ(expected, capture.records());
  Value out(7, 7);
  EXPECT_EQ(0, sa.tryFindFull("#a$", out));
  EXPECT_EQ(Value(), out);
  EXPECT_EQ(0, sa.tryFindPartial("#a$", out));
  EXPECT_EQ(INT_MIN, sa.tryFindPartial("", out));
}

TEST(SuffixAutomaton, EmptyKeyChangesNothing) {
  Automaton sa;
  sa.construct(4);
  EXPECT_EQ(0, sa.add("", 3));
  EXPECT_EQ(0, sa.size());
  Value out(5, 5);
  EXPECT_EQ(0, sa.tryFindFull("", out));
  EXPECT_EQ(Value(0, -1), out);
  EXPECT_EQ(INT_MIN, sa.tryFindPartial("", out));
}

TEST(SuffixAutomaton, KeyThatPrefixesALaterKeyKeepsItsValue) {
  Automaton sa;
  build(sa, {"#a$", "#ab$"}, 7);
  Value out;
  EXPECT_EQ(3, sa.tryFindFull("#a$", out));
  EXPECT_EQ(Value(3, 1), out);
  EXPECT_EQ(4, sa.tryFindFull("#ab$", out));
  EXPECT_EQ(Value(4, 2), out);
  EXPECT_EQ(2, sa.tryFindFull("#ac$", out));  // stops after "#a", a plain state
  EXPECT_EQ(Value(), out);
}

TEST(SuffixAutomaton, LookupAcrossTheBorderOfTwoKeysEndsNowhere) {
  Automaton sa;
  build(sa, {"#ab$", "#cd$"}, 8);
  Value out;
  EXPECT_EQ(4, sa.tryFindFull("b$#c", out));
  EXPECT_EQ(Value(), out);
}

TEST(SuffixAutomaton, CloneOfAKeyEndCarriesThatKeysValue) {
  Automaton sa;
  build(sa, {"#xa$", "#a$"}, 7);
  Value out;
  EXPECT_EQ(3, sa.tryFindFull("#a$", out));
  EXPECT_EQ(Value(3, 2), out);
  // "a$" ends in the clone of the end of "#xa$".
  EXPECT_EQ(2, sa.tryFindFull("a$", out));
  EXPECT_EQ(Value(4, 1), out);
}

TEST(SuffixAutomaton, WildcardKeyAnswersALongerNameOnly) {
  Automaton sa;
  build(sa, {"#*.b.c$11"}, 9);
  Value out;
  EXPECT_EQ(7, sa.tryFindPartial("#x.b.c$11", out));  // ".b.c$11"
  EXPECT_EQ(Value(9, 1), out);
  EXPECT_EQ(6, sa.tryFindPartial("#b.c$11", out));  // "b.c$11", but no "*b"
  EXPECT_EQ(Value(), out);
}

TEST(SuffixAutomaton, PartialWithoutWildcardGivesLongestSuffixAndNoValue) {
  Automaton sa;
  build(sa, {"#abc$11"}, 7);
  Value out(1, 1);
  EXPECT_EQ(5, sa.tryFindPartial("#zbc$11", out));
  EXPECT_EQ(Value(), out);
  EXPECT_EQ(7, sa.tryFindPartial("#abc$11", out));
  EXPECT_EQ(Value(), out);
  EXPECT_EQ(0, sa.tryFindPartial("#abc$1q", out));
}

TEST(SuffixAutomaton, TransitionsAreOrderedByUnsignedByte) {
  Automaton sa;
  const std::string key = {'\x7f', '\xff', 'a', '\x80', '\x01', '*', 'A'};
  build(sa, {key}, static_cast<int>(key.size()));
  std::vector<int> labels;
  sa.transitions().forEach(0, [&labels](unsigned char c, int) { labels.push_back(c); });
  EXPECT_EQ((std::vector<int>{0x01, '*', 'A', 'a', 0x7f, 0x80, 0xff}), labels);
  Value out;
  EXPECT_EQ(3, sa.tryFindFull(std::string("\xff"
                                          "a\x80"),
                              out));
}

// --- model checks -----------------------------------------------------------

std::string randomString(std::mt19937& rng, const std::string& alphabet, int maxLength) {
  std::uniform_int_distribution<int> length(0, maxLength);
  std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
  std::string s(static_cast<std::size_t>(length(rng)), ' ');
  for (char& c : s) c = alphabet[pick(rng)];
  return s;
}

int longestPrefixIn(const std::string& text, const std::string& q) {
  int l = 0;
  while (l < static_cast<int>(q.size()) && text.find(q.substr(0, l + 1)) != std::string::npos) ++l;
  return l;
}

int longestSuffixIn(const std::string& text, const std::string& q) {
  if (q.empty()) return INT_MIN;
  int l = 0;
  while (l < static_cast<int>(q.size()) &&
         text.find(q.substr(q.size() - l - 1)) != std::string::npos) {
    ++l;
  }
  return l;
}

void checkAgainstBruteForce(const std::string& alphabet, unsigned seed) {
  std::mt19937 rng(seed);
  for (int round = 0; round < 40; ++round) {
    std::vector<std::string> keys;
    std::string text;
    const int keyCount = 1 + static_cast<int>(rng() % 12);
    for (int i = 0; i < keyCount; ++i) {
      keys.push_back("#" + randomString(rng, alphabet, 10) + "$");
      text += keys.back();
    }
    Automaton sa;
    Reference reference;
    build(sa, keys, static_cast<int>(text.size()));
    build(reference, keys, static_cast<int>(text.size()));
    ASSERT_EQ(reference.size(), sa.size());
    for (int i = 0; i < 60; ++i) {
      std::string q = randomString(rng, alphabet + "#$", 12);
      if (i % 3 == 0 && !text.empty()) {  // a piece of the text, often across borders
        const std::size_t from = rng() % text.size();
        q = text.substr(from, rng() % 14) + q.substr(0, q.size() % 3);
      }
      Value full, fullRef, partial, partialRef;
      const int f = sa.tryFindFull(q, full);
      EXPECT_EQ(longestPrefixIn(text, q), f) << text << " / " << q;
      EXPECT_EQ(reference.tryFindFull(q, fullRef), f);
      EXPECT_EQ(fullRef, full) << q;
      const int p = sa.tryFindPartial(q, partial);
      EXPECT_EQ(longestSuffixIn(text, q), p) << text << " / " << q;
      EXPECT_EQ(reference.tryFindPartial(q, partialRef), p);
      EXPECT_EQ(partialRef, partial) << q;
    }
    for (std::size_t k = 0; k < keys.size(); ++k) {  // every key reads whole
      Value out;
      EXPECT_EQ(static_cast<int>(keys[k].size()), sa.tryFindFull(keys[k], out));
    }
  }
}

TEST(SuffixAutomaton, AgreesWithBruteForceOnSmallAlphabet) { checkAgainstBruteForce("ab*.", 1); }

TEST(SuffixAutomaton, AgreesWithBruteForceOnWideAlphabet) {
  std::string bytes;
  for (int c = 1; c < 256; c += 3) bytes.push_back(static_cast<char>(c));
  checkAgainstBruteForce(bytes, 2);
}

TEST(SuffixAutomaton, StateWithEveryByteValue) {
  std::string key;
  for (int c = 0; c < 256; ++c) key.push_back(static_cast<char>(255 - c));
  Automaton sa;
  Reference reference;
  build(sa, {key, key}, 2 * 256);
  build(reference, {key, key}, 2 * 256);
  EXPECT_EQ(256, sa.transitions().size(0));
  for (int c = 0; c < 256; ++c) {
    const std::string q = key.substr(static_cast<std::size_t>(c), 3);
    Value out, outRef;
    EXPECT_EQ(static_cast<int>(q.size()), sa.tryFindFull(q, out));
    EXPECT_EQ(reference.tryFindFull(q, outRef), sa.tryFindFull(q, out));
    EXPECT_EQ(outRef, out);
  }
}

TEST(SuffixAutomaton, RawPointerOverloadsMatchStringOnes) {
  Automaton sa;
  build(sa, {"#*.b$01", "#a.b$01"}, 14);
  const std::string q = "#z.b$01";
  Value a, b;
  EXPECT_EQ(sa.tryFindPartial(q, a), sa.tryFindPartial(q.data(), q.size(), b));
  EXPECT_EQ(a, b);
  EXPECT_EQ(sa.tryFindFull(q, a), sa.tryFindFull(q.data(), q.size(), b));
  EXPECT_EQ(a, b);
}

}  // namespace
