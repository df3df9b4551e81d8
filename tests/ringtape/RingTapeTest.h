// Shared by the trace tests: every test starts from a clean environment,
// with its own ring directory and a captured trace stream.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "Kiln/System.h"
#include "RingTape/RingTape.h"

inline constexpr RingTape::LevelSizes agentSizes{32, 32, 32, 32, 32, 512, 512, 512, 128, 128};

class RingTapeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* variable : {"VGW_TRACE", "VGW_RINGTAPE_LEVELS", "RINGTAPE_DISABLE"}) {
      unsetenv(variable);
    }
    char dirTemplate[] = "/tmp/ringtape-test-XXXXXX";
    ASSERT_NE(mkdtemp(dirTemplate), nullptr);
    dir = dirTemplate;
    setenv("RINGTAPEDIR", dir.c_str(), 1);
    RingTape::streamIs(&captured);
    RingTape::reloadLevels();
  }

  void TearDown() override {
    RingTape::close();
    RingTape::streamIs(nullptr);
    Kiln::System::timeSourceIs(nullptr);
    std::filesystem::remove_all(dir);
  }

  static bool openRing(const char* name = "Test-%d.tape",
                       const RingTape::LevelSizes& sizes = agentSizes,
                       std::uint32_t maxMessageBytes = 512, bool keepPrevious = false,
                       const char* linkName = nullptr, int keepOldTapes = 0,
                       int maxAgeHours = 24) {
    return RingTape::initialize(name, sizes, linkName, keepOldTapes, maxAgeHours,
                                RingTape::ThreadingMode::singleThreaded, keepPrevious,
                                maxMessageBytes);
  }

  static std::vector<RingTape::Record> readBack(const std::string& path = RingTape::ringPath()) {
    std::string error;
    auto contents = RingTape::readRingFile(path, &error);
    EXPECT_TRUE(contents) << error;
    return contents ? contents->records : std::vector<RingTape::Record>{};
  }
  static std::vector<std::string> messagesOf(const std::vector<RingTape::Record>& records) {
    std::vector<std::string> messages;
    for (const auto& record : records) messages.push_back(record.message);
    return messages;
  }

  static void levelsAre(const char* stream, const char* ring) {
    setenv("VGW_TRACE", stream, 1);
    setenv("VGW_RINGTAPE_LEVELS", ring, 1);
    RingTape::reloadLevels();
  }

  std::string dir;
  std::ostringstream captured;
};
