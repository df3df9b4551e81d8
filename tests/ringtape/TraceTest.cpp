// Which traces go where: level specifications and the variables that give
// them, the stream line, evaluation only when a trace goes somewhere, and
// the block timer on simulated time.
#include <gtest/gtest.h>

#include <regex>
#include <utility>

#include "Kiln/String.h"
#include "RingTape/Levels.h"
#include "RingTapeTest.h"

namespace {

using RingTape::LevelSpec;
using Lines = std::vector<std::string>;

RINGTAPE_HANDLE("VgwTraceTest");

TEST(Levels, FirstMatchingEntryDecidesAndItemsCombine) {
  const std::tuple<const char*, const char*, RingTape::LevelMask> cases[] = {
      {"VgwRemoteHost/0-6,VgwRoot/*,Vgw*/0", "VgwRemoteHost", 0x7f},
      {"VgwRemoteHost/0-6,VgwRoot/*,Vgw*/0", "VgwRoot", RingTape::allLevels},
      {"VgwRemoteHost/0-6,VgwRoot/*,Vgw*/0", "VgwRoo", 0x1},
      {"VgwRemoteHost/0-6,VgwRoot/*,Vgw*/0", "Vgw", 0x1},
      {"VgwRemoteHost/0-6,VgwRoot/*,Vgw*/0", "Ledger", 0},
      {" A / 0+5-6 + 9 , B/none , C , Ns:x.y-z_1/3, * / 2 ", "A", 0x1 | 0x60 | 0x200},
      {" A / 0+5-6 + 9 , B/none , C , Ns:x.y-z_1/3, * / 2 ", "B", 0},
      {" A / 0+5-6 + 9 , B/none , C , Ns:x.y-z_1/3, * / 2 ", "C", RingTape::allLevels},
      {" A / 0+5-6 + 9 , B/none , C , Ns:x.y-z_1/3, * / 2 ", "Ns:x.y-z_1", 0x8},
      {" A / 0+5-6 + 9 , B/none , C , Ns:x.y-z_1/3, * / 2 ", "Other", 0x4},
      {"  ", "A", 0},
  };
  for (const auto& [text, handle, levels] : cases) {
    std::string error;
    const auto spec = LevelSpec::parse(text, &error);
    ASSERT_TRUE(spec) << text << ": " << error;
    EXPECT_EQ(spec->levelsFor(handle), levels) << text << " for " << handle;
  }
}

TEST(Levels, MalformedTextNamesTheFault) {
  const std::pair<const char*, const char*> cases[] = {
      {"VgwRoot/12", "level \"12\" is not a digit"},
      {"VgwRoot/6-3", "runs backwards"},
      {"VgwRoot/", "level \"\" is not a digit"},
      {"VgwRoot/1+", "level \"\" is not a digit"},
      {"VgwRoot/a-b", "level \"a-b\""},
      {"VgwRoot/1-2-3", "level \"1-2-3\""},
      {"A/1,,B/2", "empty entry"},
      {"A/1,", "empty entry"},
      {"/3", "has no handle name"},
      {"Vg*x/1", "handle pattern \"Vg*x\""},
      {"Vgw Root/1", "handle pattern \"Vgw Root\""},
      {"**/1", "handle pattern \"**\""},
  };
  for (const auto& [text, fault] : cases) {
    std::string error;
    EXPECT_FALSE(LevelSpec::parse(text, &error)) << text;
    EXPECT_NE(error.find(fault), std::string::npos) << text << " gave: " << error;
  }
}

class Trace : public RingTapeTest {
 protected:
  Lines streamed() const {
    Lines lines;
    std::istringstream in(captured.str());
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
};

int evaluations = 0;
int counted() { return ++evaluations; }

TEST_F(Trace, VariablesSelectLevelsPerHandleAndAMalformedOneWarnsAndKeepsTheDefault) {
  EXPECT_EQ(ringTapeHandle_.streamLevels(), 0);
  EXPECT_EQ(ringTapeHandle_.ringLevels(), 0x7f);
  levelsAre("VgwTraceTest/5-6", "Other/*,VgwTrace*/0+9");
  EXPECT_EQ(ringTapeHandle_.streamLevels(), 0x60);
  EXPECT_EQ(ringTapeHandle_.ringLevels(), 0x201);
  // A handle built later gets the levels in force.
  RingTape::Handle late("Other");
  EXPECT_EQ(late.streamLevels(), 0);
  EXPECT_EQ(late.ringLevels(), RingTape::allLevels);
  EXPECT_TRUE(captured.str().empty());

  levelsAre("VgwTraceTest/0-12", "VgwTraceTest/x");
  EXPECT_EQ(ringTapeHandle_.streamLevels(), 0);
  EXPECT_EQ(ringTapeHandle_.ringLevels(), 0x7f);
  const std::string fault = "is not a digit 0-9, a range such as 0-6, '*' or 'none'; using ";
  EXPECT_EQ(streamed(), (Lines{"ringtape: ignoring VGW_TRACE=\"VgwTraceTest/0-12\": entry \"VgwTraceTest/0-12\": "
                               "level \"0-12\" " + fault + "no levels",
                               "ringtape: ignoring VGW_RINGTAPE_LEVELS=\"VgwTraceTest/x\": entry \"VgwTraceTest/x\": "
                               "level \"x\" " + fault + "\"*/0-6\""}));
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
  VGW_TRACE_RING(5, "ring only");
  EXPECT_EQ(evaluations, 3);
  EXPECT_EQ(messagesOf(readBack()), (Lines{"value 2", "value 3", "ring only"}));
  const Lines lines = streamed();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(lines[0].ends_with(" value 1"));
  EXPECT_TRUE(lines[1].ends_with(" value 3"));

  // Closing the ring stops ring writes.
  const std::string path = RingTape::ringPath();
  RingTape::close();
  EXPECT_FALSE(RingTape::isOpen());
  EXPECT_FALSE(VGW_TRACE_ENABLED(6));
  VGW_TRACE(6, "lost " << counted());
  EXPECT_EQ(evaluations, 3);
  EXPECT_EQ(readBack(path).size(), 3u);
}

TEST_F(Trace, StreamLineCarriesHandleLevelAndPlaceAndKeepsWordsAsGiven) {
  levelsAre("VgwTraceTest/*", "");
  const int line = __LINE__ + 1;
  VGW_TRACE(6, " Add ErrorStatusSm for " << Kiln::String("sw1"));
  VGW_TRACE(0, "can't create tapeLockFilePath. check log file permission\n");
  VGW_TRACE(9, "pair " << std::pair<int, int>(4, 2).first);
  const std::string time = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)";
  const std::string place = " TraceTest.cpp:";
  EXPECT_TRUE(std::regex_match(
      captured.str(),
      std::regex(time + " VgwTraceTest 6" + place + std::to_string(line) + "  Add ErrorStatusSm for sw1\n" + time +
                 " VgwTraceTest 0" + place + std::to_string(line + 1) +
                 " can't create tapeLockFilePath. check log file permission\n" + time + " VgwTraceTest 9" + place +
                 std::to_string(line + 2) + " pair 4\n")))
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
  const Lines lines = streamed();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_TRUE(lines[0].ends_with(" describing 10")) << lines[0];
  EXPECT_TRUE(lines[1].ends_with(" ff described 10 10")) << lines[1];
  EXPECT_TRUE(lines[2].ends_with(" 255 0.333333")) << lines[2];
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
  EXPECT_EQ(captured.str().substr(captured.str().find(" handleRefresh")), " handleRefresh took 12.500 ms\n");
}

}  // namespace
