// The shared vocabulary and the logging conventions.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "api/constants.h"
#include "api/log.h"
#include "testing/log_capture.h"

namespace {

TEST(Constants, HaveTheirExactValues) {
  using namespace tpa::error;
  using namespace tpa::log;
  using namespace tpa::mapper;
  EXPECT_EQ(
      (std::vector<int>{0, -1, -2, -3, -4, -5, -6, '#', '$', 10, 20, -1, 1, 0, 0, -1}),
      (std::vector<int>{
          TPA_ERROR_NONE, TPA_ERROR_OOM, TPA_ERROR_ARRAY_OUT_OF_INDEX,
          TPA_ERROR_SA_INVALID_CAPACITTY, TPA_ERROR_JSON_PARSE_MISMATCH, TPA_ERROR_KEY_NOT_FOUND,
          TPA_ERROR_JSON_FILE_NOT_FOUND, tpa::sigma::sentinel::PRECEDING_SYMBOL,
          tpa::sigma::sentinel::SUCCEEDING_SYMBOL, tpa::machine::kFullKey,
          tpa::machine::kPartialKey, tpa::fsa::SA_DEFAULT_USER_DEFINED_VALUE, TPA_DECISION_INCLUDE,
          TPA_DECISION_EXCLUDE, TPA_RULE_NUMBER_ZERO, MAP_DEFAULT_DOMAIN_VALUE}));
  EXPECT_EQ(std::string("#LAMBDA-APP"), tpa::sigma::sentinel::LAMBDA_STRING);
  EXPECT_STREQ("TPA_ERROR_SA_INVALID_CAPACITTY", name(-3));
  EXPECT_STREQ("TPA_ERROR_UNKNOWN", name(7));
  EXPECT_EQ((std::vector<std::string>{"tarn_patteren_analyzer.so", "TarnPatternAnalyzer",
                                      "tarnnwfilternativehandler", "JNIHelp"}),
            (std::vector<std::string>{kEngineTag, kReportTag, kNativeTag, kJniHelpTag}));
  EXPECT_EQ((std::vector<int>{3, 6, 7}), (std::vector<int>{kDebug, kError, kFatal}));
}

TEST(Log, ReportSignsWithTheSourceBaseNameWithoutExtension) {
  tpa::testing::LogCapture capture;
  tpa::log::report("src/json/json_object.cc", 56, "set_key", "current key must be empty");
  EXPECT_EQ((std::vector<tpa::testing::LogRecord>{
                {6, "TarnPatternAnalyzer",
                 "[json_object] [56] [set_key] Reason: [current key must be empty]"}}),
            capture.records());
}

TEST(Log, LogMessageWritesExactlyTheFormattedTextToStdout) {
  ::testing::internal::CaptureStdout();
  const int written = LOG_message(123, "ignored", "value=%d text=%s", 42, "x");
  std::fflush(stdout);
  EXPECT_EQ("value=42 text=x", ::testing::internal::GetCapturedStdout());
  EXPECT_EQ(15, written);
}

}  // namespace
