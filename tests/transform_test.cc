// Key framing for the keyed machines.
#include "mapper/transform.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <random>
#include <sstream>
#include <string>

#include "api/constants.h"

namespace {

using tpa::mapper::tansformApp;
using tpa::mapper::transformDomain;

TEST(Transform, FramesApplicationsAsTheyAre) {
  EXPECT_EQ("#com.example.mail$", tansformApp("com.example.mail"));
  EXPECT_EQ("##LAMBDA-APP$", tansformApp(tpa::sigma::sentinel::LAMBDA_STRING));
  EXPECT_EQ("#$", tansformApp(""));
  EXPECT_EQ("#a#b$ c $", tansformApp("a#b$ c "));  // nothing escaped or trimmed
}

// The flag is written '1' exactly when it is 1.
TEST(Transform, FramesDomainsWithRuleNumberAndListFlag) {
  // clang-format off
  const struct { const char* domain; int rule, flag; const char* key; } cases[] = {
      {"cdn.shop.test", 3, 1, "#cdn.shop.test$31"}, {"cdn.shop.test", 3, 0, "#cdn.shop.test$30"},
      {"*.shop.test", 12, 1, "#*.shop.test$121"}, {"cdn.shop.test", 0, 1, "#cdn.shop.test$01"},
      {"x", -5, 2, "#x$-50"}, {"", 0, 0, "#$00"}, {"d", 7, 255, "#d$70"}, {"#$", 1, 1, "##$$11"},
      {"d", INT_MAX, 1, "#d$21474836471"}, {"d", INT_MIN, 0, "#d$-21474836480"}};
  // clang-format on
  for (const auto& c : cases) {
    EXPECT_EQ(c.key, transformDomain(c.domain, c.rule, static_cast<std::uint8_t>(c.flag)));
  }
}

// Against what a string stream writes for the sentinels, name, number and
// flag; the *Into variants write the same bytes over a reused buffer.
TEST(Transform, MatchesStreamOutputOnRandomInput) {
  std::mt19937 rng(11);
  std::string out = "stale content";
  for (int i = 0; i < 2000; ++i) {
    std::string name(rng() % 12, ' ');
    for (char& ch : name) ch = static_cast<char>(rng() % 256);
    const int rule = static_cast<int>(rng());
    const auto flag = static_cast<std::uint8_t>(rng() % 4 == 0 ? 1 : rng());
    std::ostringstream stream;
    stream << '#' << name << '$' << rule << (flag == 1);
    tpa::mapper::transformDomainInto(out, name, rule, flag);
    ASSERT_EQ(stream.str(), out);
    ASSERT_EQ(out, transformDomain(name, rule, flag));
    tpa::mapper::tansformAppInto(out, name);
    ASSERT_EQ("#" + name + "$", out);
  }
}

}  // namespace
