#include "qvx/support/env.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/env_guard.h"
#include "tests/support/log_capture.h"

namespace qvx {
namespace {

using test::EnvGuard;
using test::LogCapture;
using test::LogMessage;
using Messages = std::vector<LogMessage>;

TEST(Getenv, PrefixedVariableIsUsed) {
  const EnvGuard prefixed("QVX_TEST_NAME", "one");
  const EnvGuard alias("TEST_NAME", nullptr);
  const LogCapture log;
  EXPECT_STREQ(qvx_getenv("QVX_TEST_NAME"), "one");
  EXPECT_EQ(log.messages(), (Messages{{7, "[qvx_getenv] Using 'QVX_TEST_NAME'='one'"}}));
}

TEST(Getenv, AliasIsUsedWithoutPrefixedVariable) {
  const EnvGuard prefixed("QVX_TEST_NAME", nullptr);
  const EnvGuard alias("TEST_NAME", "two");
  const LogCapture log;
  EXPECT_STREQ(qvx_getenv("QVX_TEST_NAME"), "two");
  EXPECT_EQ(log.messages(), (Messages{{7, "[qvx_getenv] Using 'TEST_NAME'='two'"}}));
}

TEST(Getenv, NoVariableGivesNull) {
  const EnvGuard prefixed("QVX_TEST_NAME", nullptr);
  const EnvGuard alias("TEST_NAME", nullptr);
  const LogCapture log;
  EXPECT_EQ(qvx_getenv("QVX_TEST_NAME"), nullptr);
  EXPECT_EQ(log.messages(), (Messages{{7, "[qvx_getenv] No value for 'QVX_TEST_NAME' or 'TEST_NAME'"}}));
}

TEST(Getenv, DifferentValuesAreAConflictThatThePrefixedOneWins) {
  const EnvGuard prefixed("QVX_TEST_NAME", "one");
  const EnvGuard alias("TEST_NAME", "two");
  const LogCapture log;
  EXPECT_STREQ(qvx_getenv("QVX_TEST_NAME"), "one");
  EXPECT_EQ(log.messages(), (Messages{{4,
                                       "[qvx_getenv] Environment variables conflict - QVX_TEST_NAME=one and "
                                       "TEST_NAME=two. Using QVX_TEST_NAME"},
                                      {7, "[qvx_getenv] Using 'QVX_TEST_NAME'='one'"}}));
}

TEST(Getenv, EqualValuesAreNoConflict) {
  const EnvGuard prefixed("QVX_TEST_NAME", "one");
  const EnvGuard alias("TEST_NAME", "one");
  const LogCapture log;
  EXPECT_STREQ(qvx_getenv("QVX_TEST_NAME"), "one");
  EXPECT_EQ(log.messages(), (Messages{{7, "[qvx_getenv] Using 'QVX_TEST_NAME'='one'"}}));
}

TEST(Getenv, EmptyPrefixedValueWins) {
  const EnvGuard prefixed("QVX_TEST_NAME", "");
  const EnvGuard alias("TEST_NAME", "two");
  const LogCapture log;
  EXPECT_STREQ(qvx_getenv("QVX_TEST_NAME"), "");
  EXPECT_EQ(log.texts(4).size(), 1U);
}

TEST(TrueSwitch, FirstCharacterDecides) {
  for (const char* const value : {"1", "10", "t", "True", "TRUE", "y", "Yes", "yellow"})
    EXPECT_TRUE(is_true_switch(value)) << value;
  for (const char* const value : {"", "0", "2", "on", "false", "no", " 1"})
    EXPECT_FALSE(is_true_switch(value)) << value;
  EXPECT_FALSE(is_true_switch(nullptr));
}

}  // namespace
}  // namespace qvx
