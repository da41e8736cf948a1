// Key framing for the keyed machines.
#include "mapper/transform.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "api/constants.h"

namespace {

using tpa::mapper::tansformApp;
using tpa::mapper::transformDomain;

TEST(Transform, FramesApplications) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"com.example.mail", "#com.example.mail$"},
      {tpa::sigma::sentinel::LAMBDA_STRING, "##LAMBDA-APP$"},
      {"", "#$"},
      {"a#b$c", "#a#b$c$"},
      {" padded ", "# padded $"}};
  for (const auto& [app, key] : cases) EXPECT_EQ(key, tansformApp(app)) << app;
}

TEST(Transform, FramesDomainsWithRuleNumberAndListFlag) {
  struct Case {
    std::string domain;
    int rule;
    std::uint8_t flag;
    std::string key;
  };
  const std::vector<Case> cases = {{"cdn.shop.test", 3, 1, "#cdn.shop.test$31"},
                                   {"cdn.shop.test", 3, 0, "#cdn.shop.test$30"},
                                   {"*.shop.test", 12, 1, "#*.shop.test$121"},
                                   {"cdn.shop.test", 0, 1, "#cdn.shop.test$01"},
                                   {"x", -5, 2, "#x$-50"},
                                   {"", 0, 0, "#$00"},
                                   {"d", 7, 255, "#d$70"},
                                   {"d", INT_MAX, 1, "#d$21474836471"},
                                   {"d", INT_MIN, 1, "#d$-21474836481"},
                                   {"a$1#", 1, 1, "#a$1#$11"}};
  for (const auto& c : cases) EXPECT_EQ(c.key, transformDomain(c.domain, c.rule, c.flag)) << c.key;
}

// What a string stream writes, character by character as the keys are defined.
std::string streamDomainKey(const std::string& domain, int rule, std::uint8_t flag) {
  std::ostringstream stream;
  stream << '#' << domain << '$' << rule << (flag == 1);
  return stream.str();
}

TEST(Transform, IntoVariantsMatchStreamOutputOnRandomInput) {
  std::mt19937 rng(11);
  std::string out = "stale content";
  for (int i = 0; i < 2000; ++i) {
    std::string name(rng() % 12, ' ');
    for (char& ch : name) ch = static_cast<char>(rng() % 256);
    const int rule = static_cast<int>(rng());
    const auto flag = static_cast<std::uint8_t>(rng() % 4 == 0 ? 1 : rng());
    tpa::mapper::transformDomainInto(out, name, rule, flag);
    ASSERT_EQ(streamDomainKey(name, rule, flag), out);
    ASSERT_EQ(out, transformDomain(name, rule, flag));
    tpa::mapper::tansformAppInto(out, name);
    ASSERT_EQ("#" + name + "$", out);
  }
}

}  // namespace
