// The shared vocabulary and the logging conventions.
#include <android/log.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "api/constants.h"
#include "api/log.h"
#include "testing/log_capture.h"

namespace {

using tpa::testing::LogCapture;
using tpa::testing::LogRecord;

TEST(Constants, ErrorCodesHaveTheirExactValues) {
  using namespace tpa::error;
  EXPECT_EQ(0, TPA_ERROR_NONE);
  EXPECT_EQ(-1, TPA_ERROR_OOM);
  EXPECT_EQ(-2, TPA_ERROR_ARRAY_OUT_OF_INDEX);
  EXPECT_EQ(-3, TPA_ERROR_SA_INVALID_CAPACITTY);
  EXPECT_EQ(-4, TPA_ERROR_JSON_PARSE_MISMATCH);
  EXPECT_EQ(-5, TPA_ERROR_KEY_NOT_FOUND);
  EXPECT_EQ(-6, TPA_ERROR_JSON_FILE_NOT_FOUND);
  EXPECT_STREQ("TPA_ERROR_SA_INVALID_CAPACITTY", name(-3));
  EXPECT_STREQ("TPA_ERROR_UNKNOWN", name(7));
}

TEST(Constants, SentinelsKindsAndDefaults) {
  EXPECT_EQ('#', tpa::sigma::sentinel::PRECEDING_SYMBOL);
  EXPECT_EQ('$', tpa::sigma::sentinel::SUCCEEDING_SYMBOL);
  EXPECT_STREQ("#LAMBDA-APP", tpa::sigma::sentinel::LAMBDA_STRING);
  EXPECT_EQ(11u, std::strlen(tpa::sigma::sentinel::LAMBDA_STRING));
  EXPECT_EQ(10, tpa::machine::kFullKey);
  EXPECT_EQ(20, tpa::machine::kPartialKey);
  EXPECT_EQ(-1, tpa::fsa::SA_DEFAULT_USER_DEFINED_VALUE);
  EXPECT_EQ(1, tpa::mapper::TPA_DECISION_INCLUDE);
  EXPECT_EQ(0, tpa::mapper::TPA_DECISION_EXCLUDE);
  EXPECT_EQ(1u, sizeof tpa::mapper::TPA_DECISION_INCLUDE);
  EXPECT_EQ(0, tpa::mapper::TPA_RULE_NUMBER_ZERO);
  EXPECT_EQ(-1, tpa::mapper::MAP_DEFAULT_DOMAIN_VALUE);
}

TEST(Log, ReportSignsWithTheSourceBaseNameWithoutExtension) {
  LogCapture capture;
  tpa::log::report("src/json/json_object.cc", 56, "set_key", "current key must be empty");
  ASSERT_EQ(1u, capture.records().size());
  EXPECT_EQ((LogRecord{6, "TarnPatternAnalyzer",
                       "[json_object] [56] [set_key] Reason: [current key must be empty]"}),
            capture.records()[0]);
}

TEST(Log, SourceNameHandlesBarePathsAndTruncates) {
  char out[8];
  EXPECT_STREQ("json", tpa::log::sourceName("json.cc", out, sizeof out));
  EXPECT_STREQ("noext", tpa::log::sourceName("/a/b/noext", out, sizeof out));
  EXPECT_STREQ("abcdefg", tpa::log::sourceName("abcdefghij.cc", out, sizeof out));
}

TEST(Log, LogMessageWritesExactlyTheFormattedTextToStdout) {
  ::testing::internal::CaptureStdout();
  int written = LOG_message(123, "ignored", "value=%d text=%s", 42, "x");
  std::fflush(stdout);
  EXPECT_EQ("value=42 text=x", ::testing::internal::GetCapturedStdout());
  EXPECT_EQ(15, written);
}

TEST(Log, DebugTracesAreSeenOnceThePriorityIsLowered) {
  LogCapture capture;
  __android_log_print(tpa::log::kDebug, tpa::log::kNativeTag, "process Id is %d", 7);
  EXPECT_EQ((LogRecord{3, "tarnnwfilternativehandler", "process Id is 7"}), capture.records().at(0));
}

}  // namespace
