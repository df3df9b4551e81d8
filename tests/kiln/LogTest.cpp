// Log lines: the text of each argument, what keeps a line one line, and rate
// limits per handle and per key on simulated time.
#include "Kiln/Log.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>

#include "Kiln/String.h"
#include "Kiln/System.h"

namespace {

using Kiln::LogHandle;
using Kiln::LogSeverity;
using Lines = std::vector<std::string>;

LogHandle unlimitedHandle("KXT_TEST_UNLIMITED", LogSeverity::warning, "[ %s ]: %s: %s", "", "", 0.0, 1.0, 0);
LogHandle quietHandle("KXT_TEST_QUIET", LogSeverity::informational, "Value %s is 100%% %s", "", "", 0.0, 1.0, 0);

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Kiln::logSyslogIs(false);
    Kiln::logStreamIs(&captured);
    Kiln::System::timeSourceIs(&clock);
  }
  void TearDown() override {
    Kiln::logStreamIs(nullptr);
    Kiln::System::timeSourceIs(nullptr);
  }
  Lines lines() const {
    Lines result;
    std::istringstream in(captured.str());
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
  }
  // The message part of each emitted line.
  Lines messages() const {
    Lines result;
    for (const std::string& line : lines()) result.push_back(line.substr(line.find(": ") + 2));
    return result;
  }

  std::ostringstream captured;
  Kiln::SimulatedTimeSource clock;
};

TEST_F(LogTest, ArgumentsAreFormattedEscapedAndCountedAgainstThePlaceholders) {
  Kiln::log(unlimitedHandle, Kiln::String("sw1"), 42, "creation failed");
  Kiln::log(quietHandle, 7.5, true);
  Kiln::log(unlimitedHandle, static_cast<const char*>(nullptr), "a%sb", "c");
  Kiln::log(unlimitedHandle, "sw\n1", "tab\there", std::string("nul\0bell\x07", 9));
  Kiln::log(unlimitedHandle, "sw1");
  Kiln::log(unlimitedHandle, "a", "b", "c", "d", 5);
  Kiln::log(unlimitedHandle);
  EXPECT_EQ(messages(), (Lines{"[ sw1 ]: 42: creation failed",
                               "Value 7.5 is 100% true",
                               "[ (null) ]: a%sb: c",
                               R"([ sw\n1 ]: tab\there: nul\x00bell\x07)",
                               "[ sw1 ]: <missing>: <missing>",
                               "[ a ]: b: c <extra: d, 5>",
                               "[ <missing> ]: <missing>: <missing>"}));
  EXPECT_EQ(unlimitedHandle.placeholderCount(), 3u);
  EXPECT_EQ(quietHandle.placeholderCount(), 2u);
  // A zero interval never suppresses.
  for (int i = 0; i < 50; ++i) Kiln::log(unlimitedHandle, "sw1", "lr", i);
  EXPECT_EQ(lines().size(), 57u);
}

TEST_F(LogTest, LineCarriesTimeIdentifierAndSeverity) {
  Kiln::log(quietHandle, 1, "done");
  ASSERT_EQ(lines().size(), 1u);
  EXPECT_TRUE(std::regex_match(lines()[0], std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z )"
                                                      R"(KXT_TEST_QUIET informational: Value 1 is 100% done)")))
      << lines()[0];
}

TEST_F(LogTest, BurstThenOneMessagePerRefillOnSimulatedTime) {
  // Two messages at once, then one more every 5 seconds.
  LogHandle limited("KXT_TEST_LIMITED", LogSeverity::error, "event %s", "", "", 10.0, 2.0, 0);
  for (int i = 1; i <= 4; ++i) Kiln::log(limited, i);
  clock.advance(4.9);
  Kiln::log(limited, 5);
  clock.advance(0.1);
  Kiln::log(limited, 6);
  Kiln::log(limited, 7);
  clock.advance(100.0);
  for (int i = 8; i <= 10; ++i) Kiln::log(limited, i);
  EXPECT_EQ(messages(), (Lines{"event 1", "event 2", "event 6 (3 similar messages suppressed)",
                               "event 8 (1 similar messages suppressed)", "event 9"}));
}

TEST_F(LogTest, RateKeyArgumentsLimitEachKeyApart) {
  LogHandle perSwitch("KXT_TEST_PER_SWITCH", LogSeverity::warning, "[ %s ]: %s", "", "", 60.0, 1.0, 1);
  Kiln::log(perSwitch, "sw1", "a");
  Kiln::log(perSwitch, "sw1", "b");
  Kiln::log(perSwitch, "sw2", "c");
  Kiln::log(perSwitch, "sw2", "d");
  EXPECT_EQ(messages(), (Lines{"[ sw1 ]: a", "[ sw2 ]: c"}));

  std::uint64_t suppressed = 99;
  Kiln::LogString args;
  args.append("sw1");
  EXPECT_FALSE(perSwitch.okToLog(args, &suppressed));
  clock.advance(60.0);
  EXPECT_TRUE(perSwitch.okToLog(args, &suppressed));
  EXPECT_EQ(suppressed, 2u);
}

TEST_F(LogTest, ManyIdleKeysAreForgottenWithoutLosingCounts) {
  LogHandle perKey("KXT_TEST_MANY_KEYS", LogSeverity::warning, "%s", "", "", 1.0, 1.0, 1);
  for (int i = 0; i < 1000; ++i) Kiln::log(perKey, i);
  Kiln::log(perKey, 0);  // refused, and remembered as such
  clock.advance(2.0);
  for (int i = 1000; i < 2000; ++i) Kiln::log(perKey, i);
  clock.advance(1.0);
  Kiln::log(perKey, 0);
  EXPECT_EQ(lines().size(), 2001u);
  EXPECT_EQ(messages().back(), "0 (1 similar messages suppressed)");
}

TEST(LogWallTime, UtcWithMicrosecondsRounded) {
  EXPECT_EQ(Kiln::wallTimeText(0.0), "1970-01-01T00:00:00.000000Z");
  EXPECT_EQ(Kiln::wallTimeText(1700000000.25), "2023-11-14T22:13:20.250000Z");
  EXPECT_EQ(Kiln::wallTimeText(59.9999996), "1970-01-01T00:01:00.000000Z");
}

}  // namespace
