#include "RingTape/Levels.h"

#include <gtest/gtest.h>

#include "RingTapeTest.h"

namespace {

using RingTape::LevelMask;
using RingTape::LevelSpec;

LevelSpec parsed(const char* text) {
  std::string error;
  auto spec = LevelSpec::parse(text, &error);
  EXPECT_TRUE(spec) << text << ": " << error;
  return spec.value_or(LevelSpec());
}

TEST(Levels, FirstMatchingEntryDecides) {
  const LevelSpec spec = parsed("VgwRemoteHost/0-6,VgwRoot/*,Vgw*/0");
  EXPECT_EQ(spec.levelsFor("VgwRemoteHost"), 0x7f);
  EXPECT_EQ(spec.levelsFor("VgwRoot"), RingTape::allLevels);
  EXPECT_EQ(spec.levelsFor("VgwInventory"), 0x1);
  EXPECT_EQ(spec.levelsFor("Vgw"), 0x1);
  EXPECT_EQ(spec.levelsFor("VgwRoo"), 0x1);
  EXPECT_EQ(spec.levelsFor("Ledger"), 0);
}

TEST(Levels, ItemsCombineAndBlanksAreIgnored) {
  const LevelSpec spec = parsed(" A / 0+5-6 + 9 , B/none , C , Ns:x.y-z_1/3, * / 2 ");
  EXPECT_EQ(spec.levelsFor("A"), LevelMask(0x1 | 0x60 | 0x200));
  EXPECT_EQ(spec.levelsFor("B"), 0);
  EXPECT_EQ(spec.levelsFor("C"), RingTape::allLevels);
  EXPECT_EQ(spec.levelsFor("Ns:x.y-z_1"), 0x8);
  EXPECT_EQ(spec.levelsFor("Other"), 0x4);
  EXPECT_EQ(parsed("").levelsFor("A"), 0);
  EXPECT_EQ(parsed("  ").levelsFor("A"), 0);
}

TEST(Levels, MalformedTextNamesTheFault) {
  const struct {
    const char* text;
    const char* fault;
  } cases[] = {
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
  for (const auto& c : cases) {
    std::string error;
    EXPECT_FALSE(LevelSpec::parse(c.text, &error)) << c.text;
    EXPECT_NE(error.find(c.fault), std::string::npos) << c.text << " gave: " << error;
  }
}

RINGTAPE_HANDLE("VgwLevelsTest");

class LevelsFromEnvironment : public RingTapeTest {};

TEST_F(LevelsFromEnvironment, DefaultsAreNothingToStreamAndZeroToSixToRing) {
  EXPECT_EQ(ringTapeHandle_.streamLevels(), 0);
  EXPECT_EQ(ringTapeHandle_.ringLevels(), 0x7f);
  EXPECT_TRUE(captured.str().empty());
}

TEST_F(LevelsFromEnvironment, VariablesSelectPerHandle) {
  levelsAre("VgwLevelsTest/5-6", "Other/*,VgwLevels*/0+9");
  EXPECT_EQ(ringTapeHandle_.streamLevels(), 0x60);
  EXPECT_EQ(ringTapeHandle_.ringLevels(), 0x201);

  // A handle built later gets the levels in force.
  RingTape::Handle late("Other");
  EXPECT_EQ(late.streamLevels(), 0);
  EXPECT_EQ(late.ringLevels(), RingTape::allLevels);
}

TEST_F(LevelsFromEnvironment, MalformedVariableWarnsOnceAndKeepsDefault) {
  levelsAre("VgwLevelsTest/0-12", "VgwLevelsTest/x");
  EXPECT_EQ(ringTapeHandle_.streamLevels(), 0);
  EXPECT_EQ(ringTapeHandle_.ringLevels(), 0x7f);
  EXPECT_EQ(captured.str(),
            "ringtape: ignoring VGW_TRACE=\"VgwLevelsTest/0-12\": entry \"VgwLevelsTest/0-12\": "
            "level \"0-12\" is not a digit 0-9, a range such as 0-6, '*' or 'none'; using no "
            "levels\n"
            "ringtape: ignoring VGW_RINGTAPE_LEVELS=\"VgwLevelsTest/x\": entry "
            "\"VgwLevelsTest/x\": level \"x\" is not a digit 0-9, a range such as 0-6, '*' or "
            "'none'; using \"*/0-6\"\n");
}

}  // namespace
