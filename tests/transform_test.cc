// Key framing for the keyed machines, against what a string stream writes.
#include "mapper/transform.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <random>
#include <sstream>
#include <string>

namespace {

// Random names of any bytes (sentinels included), any rule number, any flag
// (1 a quarter of the time), with the extreme numbers first; the *Into
// variants write the same bytes over a reused buffer.
TEST(Transform, MatchesStreamOutputOnRandomInput) {
  std::mt19937 rng(11);
  std::string out = "stale content";
  for (int i = 0; i < 2000; ++i) {
    std::string name(rng() % 12, ' ');
    for (char& ch : name) ch = static_cast<char>(rng() % 256);
    const int rule = i == 0 ? INT_MIN : i == 1 ? INT_MAX : i == 2 ? 0 : static_cast<int>(rng());
    const auto flag = static_cast<std::uint8_t>(rng() % 4 == 0 ? 1 : rng());
    std::ostringstream stream;
    stream << '#' << name << '$' << rule << (flag == 1);
    tpa::mapper::transformDomainInto(out, name, rule, flag);
    ASSERT_EQ(stream.str(), out);
    ASSERT_EQ(out, tpa::mapper::transformDomain(name, rule, flag));
    tpa::mapper::tansformAppInto(out, name);
    ASSERT_EQ("#" + name + "$", out);
    ASSERT_EQ(out, tpa::mapper::tansformApp(name));
  }
}

}  // namespace
