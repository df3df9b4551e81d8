#include <gtest/gtest.h>

#include <regex>
#include <utility>

#include "Kiln/String.h"
#include "RingTapeTest.h"

namespace {

RINGTAPE_HANDLE("VgwTraceTest");

class Trace : public RingTapeTest {};

int evaluations = 0;
int counted() { return ++evaluations; }

std::vector<std::string> messagesOf(const std::vector<RingTape::Record>& records) {
  std::vector<std::string> messages;
  for (const auto& record : records) messages.push_back(record.message);
  return messages;
}

TEST_F(Trace, StreamIsEvaluatedOnlyForAnEnabledOpenTape) {
  levelsAre("VgwTraceTest/5", "VgwTraceTest/5-6");
  evaluations = 0;
  VGW_TRACE(6, "value " << counted());  // ring selected, but not open yet
  VGW_TRACE(7, "value " << counted());
  VGW_TRACE_RING(5, "value " << counted());
  EXPECT_FALSE(VGW_TRACE_ENABLED(6));
  EXPECT_EQ(evaluations, 0);
  VGW_TRACE(5, "value " << counted());
  EXPECT_EQ(evaluations, 1);

  ASSERT_TRUE(openRing());
  EXPECT_TRUE(VGW_TRACE_ENABLED(6));
  VGW_TRACE(6, "value " << counted());
  VGW_TRACE(5, "value " << counted());  // two tapes, one evaluation
  VGW_TRACE(7, "value " << counted());
  EXPECT_EQ(evaluations, 3);
  EXPECT_EQ(messagesOf(readBack()), (std::vector<std::string>{"value 2", "value 3"}));
  std::istringstream lines(captured.str());
  std::vector<std::string> streamed;
  for (std::string line; std::getline(lines, line);) streamed.push_back(line);
  ASSERT_EQ(streamed.size(), 2u);
  EXPECT_TRUE(streamed[0].ends_with(" value 1"));
  EXPECT_TRUE(streamed[1].ends_with(" value 3"));
}

TEST_F(Trace, StreamLineCarriesHandleLevelAndPlaceAndKeepsWordsAsGiven) {
  levelsAre("VgwTraceTest/*", "");
  const int line = __LINE__ + 1;
  VGW_TRACE(6, " Add ErrorStatusSm for " << Kiln::String("sw1"));
  VGW_TRACE(0, "can't create tapeLockFilePath. check log file permission\n");
  VGW_TRACE(9, "pair " << std::pair<int, int>(4, 2).first);
  const std::string time = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)";
  const std::string place = "TraceTest.cpp:";
  EXPECT_TRUE(std::regex_match(
      captured.str(),
      std::regex(time + " VgwTraceTest 6 " + place + std::to_string(line) +
                 "  Add ErrorStatusSm for sw1\n" + time + " VgwTraceTest 0 " + place +
                 std::to_string(line + 1) +
                 " can't create tapeLockFilePath. check log file permission\n" + time +
                 " VgwTraceTest 9 " + place + std::to_string(line + 2) + " pair 4\n")))
      << captured.str();
}

std::string describedWithTrace(int value) {
  VGW_TRACE(7, "describing " << value);
  return "described " + std::to_string(value);
}

TEST_F(Trace, TraceInsideATraceAndFormattingDoNotLeak) {
  levelsAre("VgwTraceTest/6-7", "");
  VGW_TRACE(6, std::hex << 255 << " " << describedWithTrace(10) << " " << 16);
  VGW_TRACE(6, 255 << " " << 1.0 / 3);
  std::istringstream lines(captured.str());
  std::vector<std::string> streamed;
  for (std::string line; std::getline(lines, line);) streamed.push_back(line);
  ASSERT_EQ(streamed.size(), 3u);
  EXPECT_TRUE(streamed[0].ends_with(" describing 10")) << streamed[0];
  EXPECT_TRUE(streamed[1].ends_with(" ff described 10 10")) << streamed[1];
  EXPECT_TRUE(streamed[2].ends_with(" 255 0.333333")) << streamed[2];
}

TEST_F(Trace, RingOnlyTraceStaysOffTheStream) {
  levelsAre("*", "*");
  ASSERT_TRUE(openRing());
  VGW_TRACE_RING(6, "Config: " << false << ". Waiting to die.");
  EXPECT_TRUE(captured.str().empty());
  const auto records = readBack();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].message, "Config: 0. Waiting to die.");
  EXPECT_EQ(records[0].handle, "VgwTraceTest");
  EXPECT_EQ(records[0].file, "TraceTest.cpp");
  EXPECT_EQ(records[0].level, 6);
}

TEST_F(Trace, ClosingTheRingStopsRingWrites) {
  levelsAre("", "*");
  ASSERT_TRUE(openRing());
  const std::string path = RingTape::ringPath();
  VGW_TRACE(3, "kept");
  RingTape::close();
  EXPECT_FALSE(RingTape::isOpen());
  EXPECT_FALSE(VGW_TRACE_ENABLED(3));
  evaluations = 0;
  VGW_TRACE(3, "lost " << counted());
  EXPECT_EQ(evaluations, 0);
  EXPECT_EQ(messagesOf(readBack(path)), std::vector<std::string>{"kept"});
}

TEST_F(Trace, BlockTimerTracesElapsedTimeAtScopeEnd) {
  Kiln::SimulatedTimeSource clock;
  Kiln::System::timeSourceIs(&clock);
  levelsAre("VgwTraceTest/5", "");
  {
    VGW_TRACE_BLOCK_TIME(5, "handleRefresh");
    clock.advance(0.0125);
    EXPECT_TRUE(captured.str().empty());
  }
  {
    VGW_TRACE_BLOCK_TIME(6, "handleQuiet");
    clock.advance(1.0);
  }
  EXPECT_TRUE(captured.str().ends_with(" handleRefresh took 12.500 ms\n")) << captured.str();
  EXPECT_EQ(captured.str().find("handleQuiet"), std::string::npos);
}

}  // namespace
