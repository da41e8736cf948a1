// The suffix automaton: limits and their messages, the values lookups report, and model checks
// against brute force, the std::map store, the literal matching-statistics wildcard search and
// the frozen form.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "fsa/key_index.h"
#include "fsa/map_transitions.h"
#include "fsa/open_table.h"
#include "fsa/suffix_automaton.h"
#include "fsa/suffix_sort.h"
#include "machine/frozen_machine.h"
#include "testing/log_capture.h"

namespace {

using namespace tpa::testing;  // LogCapture, LogRecord
using Automaton = tpa::fsa::SuffixAutomaton<int>;
using Reference = tpa::fsa::SuffixAutomaton<int, tpa::fsa::MapTransitions>;
using Value = tpa::fsa::SAStateValue<int>;

const char* const kTag = "tarn_patteren_analyzer.so";

// An automaton and the frozen form it hands over, read as a built machine
// reads it: through the frozen form once there is one, else online.
struct Built {
  Automaton sa;
  std::optional<tpa::machine::FrozenMachine> frozen;

  bool freeze() {
    if (auto form = sa.freeze()) frozen.emplace(std::move(form), sa.size());
    return frozen.has_value();
  }
  int finish(std::size_t& keysPut) {
    std::unique_ptr<tpa::fsa::FrozenAutomaton> form;
    const int result = sa.finish(keysPut, form);
    if (form) frozen.emplace(std::move(form), sa.size());
    return result;
  }
  int tryFindFull(const std::string& q, Value& out) const {
    return frozen ? frozen->tryFindFull(q, out) : sa.tryFindFull(q, out);
  }
  int tryFindPartial(const std::string& q, Value& out) const {
    return frozen ? frozen->tryFindPartial(q, out) : sa.tryFindPartial(q, out);
  }
  bool findWholeKey(const std::string& q, Value& out) const {
    if (!frozen) return sa.findWholeKey(q, out);
    bool whole = false;
    EXPECT_EQ(0, frozen->findWhole({q, 10}, out, whole));
    return whole;
  }
  bool mayFindWildcard(const std::string& q) const { return !frozen || frozen->mayFindWildcard(q); }
};

TEST(SuffixAutomaton, ConstructRaisesSmallLengthsToThree) {
  for (const auto& [n, capacity] : {std::pair{-4, 6}, {0, 6}, {1, 6}, {2, 4}, {3, 6}, {50, 100}}) {
    Automaton sa;
    sa.construct(n);
    EXPECT_EQ(capacity, sa.capacity()) << n;
  }
  Automaton huge, none;
  huge.construct(INT_MAX);  // states beyond an int: nothing allocated
  EXPECT_FALSE(huge.allocated());
  LogCapture capture;
  EXPECT_EQ(-1, none.add("#a$", 1));
  EXPECT_EQ((std::vector<LogRecord>{{6, kTag, "[SA] states_ array is not allocated. \n"}}),
            capture.records());
  Value out;
  // Lookups answer as on an empty automaton.
  EXPECT_EQ((std::vector<int>{0, 0, INT_MIN, 0}),
            (std::vector<int>{none.tryFindPartial("#a$", out), none.tryFindPartial("a", out),
                              none.tryFindPartial("", out), none.tryFindFull("#a$", out)}));
}

TEST(SuffixAutomaton, OverflowLogsFatalAndEveryLaterExtendFails) {
  Automaton sa, cloned;
  sa.construct(2);  // 4 states: 3 characters fit
  cloned.construct(2);
  ASSERT_EQ(0, sa.add("abc", 9));
  ASSERT_EQ(0, cloned.add("ab", 5));  // a second b needs state 3 and a clone 4
  LogCapture capture;
  EXPECT_EQ(-2, sa.extend('d', Value()));
  EXPECT_EQ(-2, sa.add("a", 1));  // 'a' would need no new state, yet fails too
  EXPECT_EQ(-2, cloned.extend('b', Value(3, 6)));
  EXPECT_EQ((std::vector<LogRecord>{
                {7, kTag, "[FATAL] [SA] cur [4] is out of bounds. Allocated: [4] \n"},
                {7, kTag, "[FATAL] [SA] cur [5] is out of bounds. Allocated: [4] \n"},
                {7, kTag, "[FATAL] [SA] cloned [4] is out of bounds. Allocated: [4] \n"}}),
            capture.records());
  EXPECT_EQ(5, sa.size());  // count advanced on each failure
  EXPECT_EQ(2, cloned.last());
  Value out;  // the half-made state is reachable and has no link
  EXPECT_EQ(3, cloned.tryFindFull("abb", out));
  EXPECT_EQ(Value(3, 6), out);
  // Read from the start, every second b falls back from the half-made state.
  EXPECT_EQ(1, cloned.tryFindPartial(std::string(17, 'b'), out));
}

TEST(SuffixAutomaton, LookupTable) {
  using Keys = std::vector<std::string>;
  const std::tuple<Keys, std::string, bool, int, Value> cases[] = {
      {{"#a$", "#ab$"}, "#a$", false, 3, Value(3, 1)},     // a key prefixing a later key
      {{"#ab$", "#cd$"}, "b$#c", false, 4, Value()},       // across the border of two keys
      {{"#xa$", "#a$"}, "a$", false, 2, Value(4, 1)},      // a clone of a key end
      {{"#*.b.c$11"}, "#x.b.c$11", true, 7, Value(9, 1)},  // the wildcard walk
      {{"#*.b.c$11"}, "#b.c$11", true, 6, Value()},        // no "*b": the '*' state
      {{"#abc$11"}, "#zbc$11", true, 5, Value()},          // no wildcard at all
      {{"#*.b$01"}, "", true, INT_MIN, Value()},
  };
  for (const auto& [keys, query, partial, read, value] : cases) {
    for (const bool freeze : {false, true}) {
      Built sa;
      sa.sa.construct(20);
      for (std::size_t k = 0; k < keys.size(); ++k) ASSERT_EQ(0, sa.sa.add(keys[k], 1 + k));
      ASSERT_EQ(freeze, freeze && sa.freeze());
      Value out(5, 5);
      EXPECT_EQ(read, partial ? sa.tryFindPartial(query, out) : sa.tryFindFull(query, out))
          << query << freeze;
      EXPECT_EQ(value, out) << query << freeze;
    }
  }
}

// How much of q's start (or end) occurs in the text, read by brute force.
int longestIn(const std::string& text, const std::string& q, bool suffix) {
  int l = 0;
  while (l < static_cast<int>(q.size()) &&
         text.find(suffix ? q.substr(q.size() - l - 1) : q.substr(0, l + 1)) != std::string::npos)
    ++l;
  return suffix && q.empty() ? INT_MIN : l;
}

// The wildcard search read literally: best and bestEnd reset at every fallback; the '*' walk.
int literalPartial(const Automaton& sa, const std::string& key, Value& out) {
  const auto step = [&](int s, char c) { return sa.step(s, static_cast<unsigned char>(c)); };
  int s = 0, l = 0, best = INT_MIN, bestEnd = INT_MIN;
  for (int i = 0; i < static_cast<int>(key.size()); ++i) {
    while (s != 0 && step(s, key[i]) < 0) {
      best = bestEnd = INT_MIN;
      s = sa.stateAt(s).link() < 0 ? 0 : sa.stateAt(s).link();
      l = sa.stateAt(s).length();
    }
    if (const int next = step(s, key[i]); next >= 0) s = next, ++l;
    if (l >= best) best = l, bestEnd = i;
  }
  int next = step(0, '*');
  if (next < 0) return out = sa.stateAt(0).value(), best;
  for (long long j = 1LL + bestEnd - best; next >= 0; ++j) {
    s = next;
    next = j < static_cast<long long>(key.size()) ? step(s, key[j]) : -1;
  }
  return out = sa.stateAt(s).value(), best;
}

// A frozen online automaton and the one made from its text answer q alike.
void expectSameLookups(const Built& online, const Built& direct, const std::string& q) {
  Value a, b;
  ASSERT_EQ(online.tryFindFull(q, a), direct.tryFindFull(q, b)) << q;
  ASSERT_EQ(a, b) << q;
  ASSERT_EQ(online.tryFindPartial(q, a), direct.tryFindPartial(q, b)) << q;
  ASSERT_EQ(a, b) << q;
  ASSERT_EQ(online.findWholeKey(q, a), direct.findWholeKey(q, b)) << q;
}

// Random keys (a third wildcards), queries and pieces of the text; room < 1 breaks the automaton.
void checkRandom(const std::string& alphabet, unsigned seed, double room) {
  std::mt19937 rng(seed);
  std::string wide = "#";  // "xa" before 20 labels, then in a new context: a wide state cloned
  for (char c = 'A'; c < 'U'; ++c) wide += std::string("xa") + c;
  auto random = [&](int max) {
    std::string s(rng() % (max + 1), ' ');
    for (char& c : s) c = alphabet[rng() % alphabet.size()];
    return s;
  };
  for (int round = 0; round < 60; ++round) {
    std::vector<std::string> keys = {wide + "ya$"};
    std::string text = keys[0];
    for (int i = 1 + rng() % 12; i > 0; --i) {
      const std::string& earlier = keys[rng() % keys.size()];
      switch (rng() % 6) {
        case 0: text += keys.emplace_back(earlier); break;  // again, with another value
        case 1: text += keys.emplace_back(earlier.substr(rng() % earlier.size())); break;
        default: text += keys.emplace_back((rng() % 3 ? "#" : "#*.") + random(40) + "$" + random(1));
      }
    }
    Automaton sa;
    Built frozen, direct;
    Reference reference;
    const int length = static_cast<int>(text.size() * room);
    sa.construct(length);
    frozen.sa.construct(length);
    reference.construct(length);
    direct.sa.construct(length, tpa::fsa::Construction::kFromText);
    std::vector<LogRecord> failed;  // what the online automaton logs when it first fails
    std::size_t firstFailure = keys.size();
    for (std::size_t k = 0; k < keys.size(); ++k) {
      ASSERT_EQ(0, direct.sa.add(keys[k], k));
      LogCapture quiet;
      ASSERT_EQ(reference.add(keys[k], k), sa.add(keys[k], k));
      LogCapture capture;
      if (frozen.sa.add(keys[k], k) != 0 && firstFailure == keys.size()) {
        firstFailure = k, failed = capture.records();
      }
    }
    // A broken automaton stays online; either way it answers as before.
    ASSERT_EQ(sa.size() < sa.capacity(), frozen.freeze());
    {
      LogCapture quiet;
      ASSERT_EQ(-2, frozen.sa.add("a", 1));
    }
    // Made from the text it has the online states, or fails as the online one first did.
    {
      LogCapture capture;
      std::size_t keysPut = 0;
      const int result = direct.finish(keysPut);
      ASSERT_EQ(firstFailure == keys.size() ? 0 : -2, result) << text;
      ASSERT_EQ(failed, capture.records()) << text;
      if (result != 0) {
        ASSERT_EQ(firstFailure, keysPut) << text;
      } else {
        ASSERT_EQ(sa.size(), direct.sa.size()) << text;
      }
    }
    LogCapture quiet;
    for (int i = 0; i < 80; ++i) {
      std::string q = random(45);
      if (i % 2 == 0) q = text.substr(rng() % text.size(), rng() % 45) + q.substr(0, q.size() % 4);
      if (i % 16 == 1) q = text.substr(rng() % text.size(), 200) + q.substr(0, q.size() % 4);  // long suffixes
      if (i % 4 == 3) q = keys[rng() % keys.size()];  // a stored key, maybe shadowed
      Value full, fullRef, partial, literal;
      const int f = sa.tryFindFull(q, full), p = sa.tryFindPartial(q, partial);
      ASSERT_EQ(reference.tryFindFull(q, fullRef), f) << q;
      ASSERT_EQ(fullRef, full) << q;
      ASSERT_EQ(literalPartial(sa, q, literal), p) << text << " / " << q;
      ASSERT_EQ(literal, partial) << text << " / " << q;
      Value frozenFull, frozenPartial;
      ASSERT_EQ(f, frozen.tryFindFull(q, frozenFull)) << text << " / " << q;
      if (direct.frozen) {
        ASSERT_NO_FATAL_FAILURE(expectSameLookups(frozen, direct, q)) << text;
        ASSERT_EQ(frozen.mayFindWildcard(q), direct.mayFindWildcard(q)) << q;
      }
      ASSERT_EQ(full, frozenFull) << text << " / " << q;
      ASSERT_EQ(p, frozen.tryFindPartial(q, frozenPartial)) << text << " / " << q;
      ASSERT_EQ(partial, frozenPartial) << text << " / " << q;
      // The decision's shortcuts: a stored key found whole, and wildcards ruled out.
      Value whole, frozenWhole;
      const bool isWhole = sa.findWholeKey(q, whole);
      ASSERT_EQ(isWhole, !q.empty() && f == static_cast<int>(q.size()) &&
                             full.storedKeyLength() == f) << q;
      ASSERT_EQ(isWhole, frozen.findWholeKey(q, frozenWhole)) << text << " / " << q;
      if (isWhole) {
        ASSERT_EQ(full, frozenWhole) << text << " / " << q;
      }
      if (!frozen.mayFindWildcard(q)) {
        ASSERT_LE(partial.storedKeyLength(), std::max(p, 0)) << text << " / " << q;
      }
      if (room < 1) continue;
      ASSERT_EQ(longestIn(text, q, false), f) << text << " / " << q;
      ASSERT_EQ(longestIn(text, q, true), p) << text << " / " << q;
    }
  }
}

TEST(SuffixAutomaton, AgreesWithModelsOnRandomKeys) {
  std::string bytes;
  for (int c = 0; c < 256; ++c) bytes.push_back(static_cast<char>(c));
  checkRandom("ab.#$*", 1, 1.0);
  checkRandom(bytes, 2, 1.0);  // wide states: binary search, runs of every size
  checkRandom("ab.", 3, 0.6);  // automata broken by a failed extend
}

// Values given by extend alone, not by add: a value without a key length, and key ends; made
// from the text, every lookup of every piece of the text answers as online.
TEST(SuffixAutomaton, FromTextTakesTheValuesThatExtendGives) {
  const std::string text = "#ab$#*b$ab#ab$";
  const std::vector<Value> values = {Value(), Value(), Value(0, 7), Value(4, 1), Value(), Value(),
                                     Value(), Value(4, 2), Value(), Value(), Value(),
                                     Value(),  Value(), Value(4, 3)};
  Built online, direct;
  online.sa.construct(static_cast<int>(text.size()));
  direct.sa.construct(static_cast<int>(text.size()), tpa::fsa::Construction::kFromText);
  for (std::size_t i = 0; i < text.size(); ++i) {
    ASSERT_EQ(0, online.sa.extend(text[i], values[i]));
    ASSERT_EQ(0, direct.sa.extend(text[i], values[i]));
  }
  std::size_t keysPut = 0;
  ASSERT_TRUE(online.freeze());
  ASSERT_EQ(0, direct.finish(keysPut));
  ASSERT_EQ(online.sa.size(), direct.sa.size());
  for (std::size_t from = 0; from < text.size(); ++from) {
    for (std::size_t to = from; to <= text.size(); ++to) {
      const std::string q = text.substr(from, to - from) + (to % 3 == 0 ? "x" : "");
      ASSERT_NO_FATAL_FAILURE(expectSameLookups(online, direct, q));
    }
  }
}

// Neighbouring suffixes that share 255 characters or more, states followed by 255 characters or
// more (every byte after "#w", and after "w", a clone), and runs: made from the text, the
// automaton answers as the online one on pieces of the text.
TEST(SuffixAutomaton, FromTextAgreesPastByteSizedLengthsAndCounts) {
  std::string longKey = "#";
  for (int i = 0; i < 300; ++i) longKey += static_cast<char>('a' + i % 7 + (i % 61 == 0));
  // The runs end many clones together.
  std::vector<std::string> keys = {"#xw$", longKey + "$", "#*." + longKey + "$",
                                   longKey.substr(40) + "$", std::string(300, 'a') + "$",
                                   "#" + std::string(200, 'a') + "b$"};
  for (int c = 0; c < 256; ++c) keys.push_back(std::string("#w") + static_cast<char>(c) + "$");
  std::string text;
  for (const std::string& k : keys) text += k;
  Built online, direct;
  online.sa.construct(static_cast<int>(text.size()));
  direct.sa.construct(static_cast<int>(text.size()), tpa::fsa::Construction::kFromText);
  for (std::size_t k = 0; k < keys.size(); ++k) {
    ASSERT_EQ(0, online.sa.add(keys[k], static_cast<int>(k)));
    ASSERT_EQ(0, direct.sa.add(keys[k], static_cast<int>(k)));
  }
  std::size_t keysPut = 0;
  ASSERT_TRUE(online.freeze());
  ASSERT_EQ(0, direct.finish(keysPut));
  ASSERT_EQ(online.sa.size(), direct.sa.size());
  std::mt19937 rng(4);
  for (int i = 0; i < 3000; ++i) {
    const std::string q = text.substr(rng() % text.size(), rng() % 400) + (i % 3 ? "" : "w");
    ASSERT_NO_FATAL_FAILURE(expectSameLookups(online, direct, q));
  }
}

// Every byte of a key takes part in its hash, whatever its place (the words
// and the last few bytes gathered apart), and so does where a pair of pieces
// is split.
TEST(OpenTable, HashReadsEveryByteAndTheSplitOfAPair) {
  using tpa::fsa::hashBytes;
  for (std::size_t n = 1; n <= 40; ++n) {
    std::string key(n, 'a');
    const std::uint64_t h = hashBytes(key.data(), n);
    for (std::size_t i = 0; i < n; ++i) {
      key[i] = 'b';
      EXPECT_NE(h, hashBytes(key.data(), n)) << n << " " << i;
      key[i] = 'a';
    }
    EXPECT_NE(h, hashBytes(key.data(), n - 1)) << n;  // a shorter key of the same bytes
    for (std::size_t split = 0; split < n; ++split) {
      const auto pair = [&key](std::size_t at) {
        return hashBytes(key.data() + at, key.size() - at, hashBytes(key.data(), at));
      };
      EXPECT_NE(pair(split), pair(split + 1)) << n << " " << split;
    }
  }
}

// The suffix array and the LCP lengths against sorting and comparing by hand, on strings made
// of runs and repeats (every LMS pattern of SA-IS) as well as random ones.
TEST(SuffixSort, AgreesWithSortingOnRandomStrings) {
  std::mt19937 rng(7);
  for (int round = 0; round < 400; ++round) {
    std::string s;
    const int alphabet = 1 + static_cast<int>(rng() % (round % 3 == 0 ? 2 : 5));
    const bool large = round >= 390;  // reduced strings long enough to recurse again
    // Every fifth string mixes the byte values at both ends of the range.
    const std::string extremes("\x00\x01\x7f\x80\xfe\xff", 6);
    for (int i = static_cast<int>(rng() % (large ? 2000 : 60)); i > 0; --i) {
      s.push_back(round % 5 == 4 ? extremes[rng() % extremes.size()]
                                 : static_cast<char>('a' + rng() % alphabet));
      if (rng() % 4 == 0 && s.size() < (large ? 4000u : 100u)) s += s.substr(rng() % s.size());
    }
    if (round == 1) s.assign(1, '\xff');
    const auto* bytes = reinterpret_cast<const unsigned char*>(s.data());
    const std::vector<std::int32_t> sa = tpa::fsa::suffixArray(bytes, static_cast<int>(s.size()));
    std::vector<std::int32_t> expected(s.size());
    for (std::size_t i = 0; i < s.size(); ++i) expected[i] = static_cast<std::int32_t>(i);
    const auto suffix = [&](std::int32_t i) {
      return std::string(s, static_cast<std::size_t>(i), std::string::npos);
    };
    std::sort(expected.begin(), expected.end(), [&](std::int32_t a, std::int32_t b) {
      return std::lexicographical_compare(s.begin() + a, s.end(), s.begin() + b, s.end(),
                                          [](char x, char y) {
                                            return static_cast<unsigned char>(x) <
                                                   static_cast<unsigned char>(y);
                                          });
    });
    ASSERT_EQ(expected, sa) << s;
    const std::vector<std::int32_t> plcp = tpa::fsa::prefixLcp(bytes, sa);
    for (std::size_t j = 0; j < sa.size(); ++j) {
      std::int32_t l = 0;
      if (j > 0) {
        const std::string a = suffix(sa[j - 1]), b = suffix(sa[j]);
        while (l < static_cast<int>(std::min(a.size(), b.size())) && a[l] == b[l]) ++l;
      }
      ASSERT_EQ(l, plcp[static_cast<std::size_t>(sa[j])]) << s << " at " << j;
    }
  }
}

// The wildcard filter against the tails listed by hand: every piece of a query that is a tail is
// found (none is ever missed), hardly any query without one passes, and the longest tail ending a
// query is the one listed. Short and long tails, many per anchor and per length, stars in a row.
TEST(WildcardTails, AgreesWithTheTailsListedByHand) {
  std::mt19937 rng(13);
  int passedWithout = 0, without = 0;
  for (int round = 0; round < 300; ++round) {
    const std::string alphabet = round % 2 ? "ab.$1" : "a*b.$01";
    auto random = [&](int max) {
      std::string s(rng() % (max + 1), ' ');
      for (char& c : s) c = alphabet[rng() % alphabet.size()];
      return s;
    };
    std::string text;
    std::vector<tpa::fsa::StoredKey> keys;
    std::set<std::string> tails;
    const std::string shared = "." + random(3) + "$" + random(2) + "1";  // one anchor, many tails
    for (int i = 1 + static_cast<int>(rng() % (round % 5 == 4 ? 80 : 30)); i > 0; --i) {
      std::string key = (rng() % 4 ? "#" : "") + random(12);
      if (round % 5 == 4) {  // dozens of tails of one length and anchor
        key += "*" + random(40).substr(0, 4) + random(4).substr(0, 4 - rng() % 2) + shared;
      } else {
        if (rng() % 2) key += "*" + random(round % 3 == 0 ? 2 : 30);
        if (rng() % 3 == 0) key += shared;
      }
      text += key;
      keys.push_back(
          {static_cast<std::int32_t>(text.size()) - 1, static_cast<std::int32_t>(key.size())});
      for (std::size_t p = 0; p + 1 < key.size(); ++p) {
        if (key[p] == '*') tails.insert(key.substr(p + 1));
      }
    }
    tpa::fsa::WildcardTails filter;
    filter.build(reinterpret_cast<const unsigned char*>(text.data()), keys);
    for (int i = 0; i < 200; ++i) {
      std::string q = random(40);
      if (i % 2) q = text.substr(rng() % text.size(), rng() % 60) + q.substr(0, q.size() % 5);
      bool any = false;
      int longest = 0;
      for (const std::string& t : tails) {
        any = any || q.find(t) != std::string::npos;
        if (t.size() <= q.size() && q.compare(q.size() - t.size(), t.size(), t) == 0) {
          longest = std::max(longest, static_cast<int>(t.size()));
        }
      }
      const bool passed = filter.anyPieceIsTail(q.data(), static_cast<int>(q.size()));
      if (any) {
        ASSERT_TRUE(passed) << text << " / " << q;
      }
      if (!any) {
        ++without;
        passedWithout += passed;
      }
      std::int32_t end = -1;
      ASSERT_EQ(longest, filter.longestTailSuffix(q.data(), static_cast<int>(q.size()), end))
          << text << " / " << q;
      if (longest > 0) {  // and where it stands in the text
        ASSERT_EQ(q.substr(q.size() - longest), text.substr(end + 1 - longest, longest)) << q;
      }
    }
  }
  // Passes without a tail come only from running out of budget on long runs of anchors.
  EXPECT_LT(passedWithout * 100, without) << passedWithout << " of " << without;
}

}  // namespace
