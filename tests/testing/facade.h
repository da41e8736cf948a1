// Test helper for the facade's tests: a query's decision and value as one
// comparable pair, and a small document whose answers the tests check before
// and after what they do to an analyzer. Header only; what it asks is the
// caller's analyzer, so it is as thread-safe as that.
#ifndef TPA_TESTS_TESTING_FACADE_H_
#define TPA_TESTS_TESTING_FACADE_H_

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "api/diagnostics.h"
#include "mapper/trace.h"
#include "tpa/api/analyzer.h"

namespace tpa::testing {

using Answer = std::pair<int, int>;  // decision (1 include, 0 exclude) and value
constexpr int kUntouched = 12345;    // the value of a query that set none
const Answer kNoRule{0, -1};

// Asks through the traced entry point only when a trace is wanted.
template <typename Analyzer>
Answer ask(Analyzer& analyzer, const std::string& app, const std::string& destination,
           mapper::QueryTrace* trace = nullptr) {
  int value = kUntouched;
  const int decision = trace ? api::Inspect::query(analyzer, app, destination, value, trace)
                             : analyzer.query(app, destination, value);
  return {decision, value};
}

// Rule 1 belongs to com.example.mail (id 7): a domain, a wildcard and an IPv4
// network; the any-application rule has id 9.
constexpr char kExample[] =
    R"([{"match_apps": ["com.example.mail"], "include": ["cdn.shop.test", "*.img.test",)"
    R"( "10.0.0.0/8"], "exclude": ["ads.other.test"], "id": "7"}, {"match_apps": ["#LAMBDA-APP"],)"
    R"( "include": ["none.invalid"], "exclude": ["ads.shop.test"], "id": "9"}])";

// The example's answers: rule 1 first, then the fallback to rule 0, then the default.
inline void expectExampleAnswers(api::TarnPatternAnalyzer& analyzer) {
  // clang-format off
  const struct { const char* app; const char* destination; Answer expected; } cases[] = {
      {"com.example.mail", "cdn.shop.test", {1, 7}}, {"com.example.mail", "a.img.test", {1, 7}},
      {"com.example.mail", "10.20.30.40", {1, 7}},   {"com.example.mail", "ads.other.test", {0, 7}},
      {"com.example.mail", "ads.shop.test", {0, 9}}, {"com.example.mail", "none.invalid", {1, 9}},
      {"org.unknown.app", "none.invalid", {1, 9}},   {"org.unknown.app", "cdn.shop.test", kNoRule},
      {"org.unknown.app", "unlisted.test", kNoRule}};
  // clang-format on
  for (const auto& c : cases)
    EXPECT_EQ(c.expected, ask(analyzer, c.app, c.destination)) << c.app << " " << c.destination;
}

}  // namespace tpa::testing

#endif  // TPA_TESTS_TESTING_FACADE_H_
