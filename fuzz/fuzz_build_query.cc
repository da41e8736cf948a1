// Build, then query, through the facade. The input is split (FuzzedDataProvider
// strings) into a rules text and up to 16 (application, destination) pairs.
// An analyzer holding known rules rebuilds from the fuzzed text; then:
// - build returns a tpa::error code, or throws one of the two documented
//   address exceptions for a text with a '/' in it;
// - after a failed build (or a throw) the old rules still answer, unchanged;
// - a decision is include or exclude, and asking again (from the cache, in
//   the other order) gives the same decision and value.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_support.h"
#include "tpa/api/analyzer.h"
#include "tpa/api/constants.h"

namespace {

using tpa::fuzz::check;

constexpr char kKnownRules[] =
    R"([{"match_apps": ["com.example.mail"], "include": ["*.example.com", "10.0.0.0/8"],)"
    R"( "exclude": ["ads.example.com", "2001:db8::/32"], "id": "7"}, {"include": ["x.test"]}])";

struct Answer {
  int decision;
  int value;
  bool operator==(const Answer& o) const { return decision == o.decision && value == o.value; }
};

std::vector<Answer> ask(tpa::api::TarnPatternAnalyzer& analyzer,
                        const std::vector<std::pair<std::string, std::string>>& queries) {
  std::vector<Answer> answers;
  for (const auto& [app, destination] : queries) {
    Answer a{0, -12345};
    a.decision = analyzer.query(app, destination, a.value);
    answers.push_back(a);
  }
  return answers;
}

void checkStable(tpa::api::TarnPatternAnalyzer& analyzer,
                 std::vector<std::pair<std::string, std::string>> queries,
                 const std::string& rules) {
  const std::vector<Answer> first = ask(analyzer, queries);
  for (const Answer& a : first)
    check(a.decision == 0 || a.decision == 1, "decision is 0 or 1", rules);
  std::vector<std::pair<std::string, std::string>> reversed(queries.rbegin(), queries.rend());
  std::vector<Answer> again = ask(analyzer, reversed);
  check(std::vector<Answer>(again.rbegin(), again.rend()) == first, "cached answers agree", rules);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tpa::fuzz::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const std::string rules = input.ConsumeRandomLengthString();
  if (tpa::fuzz::tooManyRules(rules)) return 0;
  std::vector<std::pair<std::string, std::string>> queries;
  while (input.remaining_bytes() > 0 && queries.size() < 16) {
    std::string app = input.ConsumeRandomLengthString();
    queries.emplace_back(std::move(app), input.ConsumeRandomLengthString());
  }
  tpa::api::TarnPatternAnalyzer analyzer;
  check(analyzer.build(kKnownRules, false) == 0, "known rules build", rules);
  const std::vector<Answer> before = ask(analyzer, queries);
  int code = 1;  // 1: the build threw
  try {
    code = analyzer.build(rules, false);
  } catch (const std::out_of_range&) {
    check(tpa::fuzz::mayThrowAddressException(rules), "out_of_range without a network", rules);
  } catch (const std::invalid_argument&) {
    check(tpa::fuzz::mayThrowAddressException(rules), "invalid_argument without a network", rules);
  }
  check(code <= 1 && code >= tpa::error::TPA_ERROR_JSON_FILE_NOT_FOUND, "build returns a code",
        rules);
  if (code != 0) check(ask(analyzer, queries) == before, "old rules keep answering", rules);
  checkStable(analyzer, queries, rules);
  return 0;
}
