// The trace facility: which traces go where (level specifications and the
// variables that give them), the stream line, evaluation only when a trace
// goes somewhere, the block timer; arguments kept in binary and read back as
// a std::ostream would have written them, and cut where the ring stops
// showing them; and the ring file: records read back in order, full
// regions, cuts, damage, earlier and old tapes, the dump tool.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <iomanip>
#include <limits>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Ipkit/EthAddr.h"
#include "Ipkit/IpGenAddr.h"
#include "Kiln/String.h"
#include "Kiln/System.h"
#include "RingTape/Levels.h"
#include "RingTape/RingTape.h"
#include "RingTape/TapeFiles.h"

namespace {

namespace fs = std::filesystem;
using RingTape::LevelSelection;
using Seen = std::vector<std::string>;
using namespace std::string_literals;

RINGTAPE_HANDLE("VgwTraceTest");

inline constexpr RingTape::LevelSizes agentSizes{32, 32, 32, 32, 32, 512, 512, 512, 128, 128};

// Every test starts from a clean environment, with its own ring directory and
// a captured trace stream.
class RingTapeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* variable : {"VGW_TRACE", "VGW_RINGTAPE_LEVELS", "RINGTAPE_DISABLE"}) unsetenv(variable);
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

  static bool openRing(const char* name = "Test-%d.tape", const RingTape::LevelSizes& sizes = agentSizes,
                       std::uint32_t maxMessageBytes = 512, bool keepPrevious = false, const char* link = nullptr) {
    return RingTape::initialize(name, sizes, link, 0, 24, RingTape::ThreadingMode::singleThreaded, keepPrevious,
                                maxMessageBytes);
  }

  static std::vector<RingTape::Record> readBack(const std::string& path = RingTape::ringPath()) {
    std::string error;
    auto contents = RingTape::readRingFile(path, &error);
    EXPECT_TRUE(contents) << error;
    return contents ? contents->records : std::vector<RingTape::Record>{};
  }
  static Seen messagesOf(const std::vector<RingTape::Record>& records) {
    Seen messages;
    for (const auto& record : records) messages.push_back(record.message);
    return messages;
  }
  std::string pathOf(const std::string& name) const { return dir + "/" + name; }

  Seen streamed() const {
    Seen lines;
    std::istringstream in(captured.str());
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  static void levelsAre(const char* stream, const char* ring) {
    setenv("VGW_TRACE", stream, 1);
    setenv("VGW_RINGTAPE_LEVELS", ring, 1);
    RingTape::reloadLevels();
  }

  std::string dir;
  std::ostringstream captured;
};

TEST(Levels, FirstMatchingEntryDecidesItemsCombineAndMalformedTextNamesTheFault) {
  const char* first = "VgwRemoteHost/0-6,VgwRoot/*,Vgw*/0";
  const char* items = " A / 0+5-6 + 9 , B/none , C , Ns:x.y-z_1/3, * / 2 ";
  const std::tuple<const char*, const char*, RingTape::LevelMask> cases[] = {
      {first, "VgwRemoteHost", 0x7f}, {first, "VgwRoot", RingTape::allLevels}, {first, "VgwRoo", 0x1},
      {first, "Vgw", 0x1},  {first, "Ledger", 0}, {items, "A", 0x1 | 0x60 | 0x200}, {items, "B", 0},
      {items, "C", RingTape::allLevels}, {items, "Ns:x.y-z_1", 0x8}, {items, "Other", 0x4}, {"  ", "A", 0},
  };
  for (const auto& [text, handle, levels] : cases) {
    std::string error;
    const auto selection = LevelSelection::parse(text, &error);
    ASSERT_TRUE(selection) << text << ": " << error;
    EXPECT_EQ(selection->levelsFor(handle), levels) << text << " for " << handle;
  }

  const std::pair<const char*, const char*> malformed[] = {
      {"VgwRoot/12", "level \"12\" is not a digit"}, {"VgwRoot/6-3", "runs backwards"},
      {"VgwRoot/1+", "level \"\" is not a digit"},   {"VgwRoot/1-2-3", "level \"1-2-3\""},
      {"A/1,,B/2", "empty entry"},                   {"/3", "has no handle name"},
      {"Vg*x/1", "handle pattern \"Vg*x\""},         {"**/1", "handle pattern \"**\""},
  };
  for (const auto& [text, fault] : malformed) {
    std::string error;
    EXPECT_FALSE(LevelSelection::parse(text, &error)) << text;
    EXPECT_NE(error.find(fault), std::string::npos) << text << " gave: " << error;
  }
}

using Trace = RingTapeTest;

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
  EXPECT_EQ(streamed(), (Seen{"ringtape: ignoring VGW_TRACE=\"VgwTraceTest/0-12\": entry \"VgwTraceTest/0-12\": "
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
  EXPECT_EQ(messagesOf(readBack()), (Seen{"value 2", "value 3", "ring only"}));
  const Seen lines = streamed();
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

std::string describedWithTrace(int value) {
  VGW_TRACE(7, "describing " << value);
  return "described " + std::to_string(value);
}

TEST_F(Trace, StreamLinesCarryHandleLevelAndPlaceAndNeitherNestedTracesNorFormattingLeak) {
  levelsAre("VgwTraceTest/*", "");
  const int line = __LINE__ + 1;
  VGW_TRACE(6, " Add ErrorStatusSm for " << Kiln::String("sw1"));
  VGW_TRACE(0, "can't create tapeLockFilePath. check log file permission\n");
  VGW_TRACE(9, "pair " << std::pair<int, int>(4, 2).first);
  const std::string time = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)";
  const std::string place = " RingTapeTest.cpp:";
  EXPECT_TRUE(std::regex_match(
      captured.str(),
      std::regex(time + " VgwTraceTest 6" + place + std::to_string(line) + "  Add ErrorStatusSm for sw1\n" + time +
                 " VgwTraceTest 0" + place + std::to_string(line + 1) +
                 " can't create tapeLockFilePath. check log file permission\n" + time + " VgwTraceTest 9" + place +
                 std::to_string(line + 2) + " pair 4\n")))
      << captured.str();
  captured.str("");
  VGW_TRACE(6, std::hex << 255 << " " << describedWithTrace(10) << " " << 16);
  VGW_TRACE(6, 255 << " " << 1.0 / 3);
  const Seen lines = streamed();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_TRUE(lines[0].ends_with(" describing 10")) << lines[0];
  EXPECT_TRUE(lines[1].ends_with(" ff described 10 10")) << lines[1];
  EXPECT_TRUE(lines[2].ends_with(" 255 0.333333")) << lines[2];
}

// Text through Args, and through a std::ostream, of the same statement.
struct Both {
  explicit Both(std::size_t limit = RingTape::Args::unlimited) { args.reset(limit); }
  template <class T>
  Both& operator<<(const T& value) {
    args << value;
    stream << value;
    return *this;
  }
  std::string kept() const { return RingTape::formatArgs(args.bytes()); }
  RingTape::Args args;
  std::ostringstream stream;
};

enum class Colour { red, green };
std::ostream& operator<<(std::ostream& os, Colour c) { return os << (c == Colour::red ? "red" : "green"); }

struct Pair {
  std::uint32_t high;
  std::uint32_t low;
};
// A type that writes itself in parts, and has no std::ostream form.
void ringTapeArg(RingTape::Args& args, const Pair& p) { args << p.high << ':' << p.low; }

TEST(TraceArgs, EveryKindOfValueReadsAsAStreamWritesIt) {
  const auto ip = [](const char* text) { return Ipkit::IpGenAddr::parse(text); };
  Both both;
  both << "text " << std::string("string ") << Kiln::String("kiln ") << std::string_view("view ") << 'c' << ' '
       << static_cast<unsigned char>('u') << ' ' << true << false << ' ' << 0 << ' ' << -1 << ' '
       << std::numeric_limits<std::int64_t>::min() << ' ' << std::numeric_limits<std::uint64_t>::max() << ' '
       << static_cast<short>(-300) << ' ' << 1.0 / 3 << ' ' << 2.5f << ' ' << 1e300 << ' '
       << Ipkit::EthAddr::parse("00:1c:73:ab:cd:ef") << ' ' << ip("10.0.0.1") << ' ' << ip("2001:db8::1") << ' '
       << ip("::") << " [" << Ipkit::IpGenAddr() << "] " << Colour::green << ' ' << std::pair<int, int>(4, 2).first;
  EXPECT_EQ(both.kept(), both.stream.str());
  EXPECT_FALSE(both.args.cut());

  // Formatting changed on the way holds for what follows, as on a stream.
  Both formatted;
  formatted << 255 << ' ' << std::hex << 255 << ' ' << Ipkit::EthAddr::parse("00:00:00:00:00:01") << ' ' << 16
            << std::dec << ' ' << std::setprecision(3) << 3.14159 << ' ' << std::setw(5) << 7 << '|';
  EXPECT_EQ(formatted.kept(), formatted.stream.str());

  RingTape::Args parts;
  parts.reset(RingTape::Args::unlimited);
  parts << "pair " << Pair{3, 4} << std::hex << ' ' << Pair{10, 11};
  EXPECT_EQ(RingTape::formatArgs(parts.bytes()), "pair 3:4 a:b");
  EXPECT_EQ(RingTape::formatArgs("\x01\x05"), " [unreadable]");
}

TEST(TraceArgs, WhatTheLimitCannotShowIsNotKeptAndTheCutIsSeen) {
  const std::string big(10000, 'x');
  const auto ip = Ipkit::IpGenAddr::parse("192.168.100.200");
  const std::size_t limits[] = {0, 1, 5, 16, 17, 40};
  for (const std::size_t limit : limits) {
    Both both(limit);
    both << "ab" << ip << 12345 << big << ip;
    const std::string full = both.stream.str();
    const std::string kept = both.kept();
    // A reader gets the first `limit` bytes, and sees that there was more.
    ASSERT_GT(kept.size(), limit) << limit;
    EXPECT_EQ(kept.substr(0, limit), full.substr(0, limit)) << limit;
    EXPECT_LT(both.args.bytes().size(), limit + 64) << limit;
    EXPECT_TRUE(both.args.cut()) << limit;
  }
  Both fits(40);
  fits << "ab" << ip << 12345;
  EXPECT_EQ(fits.kept(), fits.stream.str());
  EXPECT_FALSE(fits.args.cut());

  // A costly text is made only as far as it is kept.
  RingTape::Args bounded;
  bounded.reset(100);
  std::size_t asked = 0;
  bounded << "head ";
  bounded.boundedText([&](std::string& out, std::size_t wanted) {
    asked = wanted;
    out.append(std::min<std::size_t>(wanted, big.size()), 'y');
  });
  EXPECT_EQ(asked, 96u);
  EXPECT_EQ(RingTape::formatArgs(bounded.bytes()), "head " + std::string(96, 'y'));
}

TEST_F(Trace, BlockTimerTracesElapsedTimeAtScopeEnd) {
  Kiln::SimulatedTimeSource clock;
  Kiln::System::timeSourceIs(&clock);
  levelsAre("VgwTraceTest/5", "");
  {
    VGW_TRACE_BLOCK_TIME(5, "handleRefresh");
    VGW_TRACE_BLOCK_TIME(6, "handleQuiet");
    clock.advance(0.0125);
    EXPECT_TRUE(captured.str().empty());
  }
  EXPECT_EQ(captured.str().substr(captured.str().find(" handleRefresh")), " handleRefresh took 12.500 ms\n");
}

class RingFile : public RingTapeTest {
 protected:
  void SetUp() override {
    RingTapeTest::SetUp();
    levelsAre("", "*");
  }
};

const std::string ownName = "Test-" + std::to_string(getpid()) + ".tape";

void touch(const std::string& path, int hoursAgo) {
  std::ofstream(path) << "x";
  const auto when = fs::file_time_type::clock::now() - std::chrono::hours(hoursAgo);
  fs::last_write_time(path, when);
}

TEST_F(RingFile, RecordsComeBackInWritingOrderAcrossLevelsAndLongOnesAreCutAtACharacter) {
  Kiln::SimulatedTimeSource clock(500.0);
  Kiln::System::timeSourceIs(&clock);
  ASSERT_TRUE(openRing("Test-%d.tape", agentSizes, 16));
  EXPECT_EQ(RingTape::ringPath(), pathOf(ownName));
  const int line = __LINE__ + 1;
  VGW_TRACE(5, "handleEnable");
  VGW_TRACE(0, "hard error " << 7);
  clock.advance(0.25);
  VGW_TRACE(6, "Session State: " << "stateConnected");
  VGW_TRACE(6, "Session State: \xc3\xa9");  // the 'é' would straddle the cut

  std::string error;
  const auto contents = RingTape::readRingFile(RingTape::ringPath(), &error);
  ASSERT_TRUE(contents) << error;
  const auto& records = contents->records;
  EXPECT_EQ(messagesOf(records), (Seen{"handleEnable", "hard error 7", "Session State: s", "Session State: "}));
  ASSERT_EQ(records.size(), 4u);
  const int levels[] = {5, 0, 6, 6};
  const int lines[] = {line, line + 1, line + 3, line + 4};
  for (std::size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(records[i].level, levels[i]);
    EXPECT_EQ(records[i].line, lines[i]);
    EXPECT_EQ(records[i].handle, "VgwTraceTest");
    EXPECT_EQ(records[i].file, "RingTapeTest.cpp");
    EXPECT_EQ(records[i].truncated, i >= 2);
  }
  EXPECT_EQ(records[1].time, 500.0);
  EXPECT_EQ(records[2].time, 500.25);
  EXPECT_DOUBLE_EQ(contents->wallTime(500.25) - contents->wallTime(500.0), 0.25);
}

TEST_F(RingFile, FullRegionKeepsTheNewestRecordsAndSparesOtherLevels) {
  ASSERT_TRUE(openRing("Test-%d.tape", {4, 0, 0, 0, 0, 0, 4}));
  VGW_TRACE(0, "the one hard error");
  for (int i = 0; i < 1000; ++i) VGW_TRACE(6, "event " << i << std::string(i % 90, '.'));
  VGW_TRACE(5, "level without a region");

  const Seen messages = messagesOf(readBack());
  ASSERT_GT(messages.size(), 20u);
  EXPECT_EQ(messages[0], "the one hard error");
  // The survivors of level 6 are exactly the last ones written, in order.
  for (std::size_t i = 1, first = 1001 - messages.size(); i < messages.size(); ++i)
    EXPECT_EQ(messages[i], "event " + std::to_string(first + i - 1) + std::string((first + i - 1) % 90, '.'));
}

TEST_F(RingFile, ReaderSkipsADamagedRecordAndRefusesWhatIsNotARingFile) {
  ASSERT_TRUE(openRing());
  VGW_TRACE(0, "first");
  VGW_TRACE(0, "second");
  VGW_TRACE(0, "third");
  const std::string path = RingTape::ringPath();
  RingTape::close();
  {
    // Each record takes two 64-byte slots; level 0's region follows the
    // 4096-byte header. Byte 50 of a record is in its handle name.
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(4096 + 2 * 64 + 50);
    file.put('#');
  }
  EXPECT_EQ(messagesOf(readBack(path)), (Seen{"first", "third"}));

  std::string error;
  fs::resize_file(path, 4096 + 1024);
  EXPECT_FALSE(RingTape::readRingFile(path, &error));
  EXPECT_NE(error.find("lies outside the file"), std::string::npos) << error;
  EXPECT_FALSE(RingTape::readRingFile(pathOf("absent"), &error));
  EXPECT_NE(error.find("cannot open"), std::string::npos) << error;
}

TEST_F(RingFile, AnInvalidRingStaysClosedAndSaysWhy) {
  EXPECT_FALSE(openRing("Test-%d.tape", {32, 32, 32, 2}));
  setenv("RINGTAPEDIR", (dir + "/missing").c_str(), 1);
  EXPECT_FALSE(openRing());
  EXPECT_FALSE(VGW_TRACE_ENABLED(6));
  EXPECT_EQ(streamed().size(), 2u);
  EXPECT_NE(captured.str().find("level 3 size 2 KiB is outside 4 to 65536 KiB"), std::string::npos) << captured.str();
  EXPECT_NE(captured.str().find("cannot create " + dir + "/missing/"), std::string::npos) << captured.str();
}

TEST_F(RingFile, EarlierTapeIsReplacedOrSetAside) {
  ASSERT_TRUE(openRing("Fixed.tape"));
  VGW_TRACE(6, "crashed run");
  ASSERT_TRUE(openRing("Fixed.tape"));
  VGW_TRACE(6, "clean run");
  EXPECT_FALSE(fs::exists(pathOf("Fixed.tape.prev")));
  ASSERT_TRUE(openRing("Fixed.tape", agentSizes, 512, true));
  VGW_TRACE(6, "next run");
  EXPECT_EQ(messagesOf(readBack(pathOf("Fixed.tape.prev"))), Seen{"clean run"});
  EXPECT_EQ(messagesOf(readBack()), Seen{"next run"});
}

TEST_F(RingFile, OldTapesOfTheFamilyAreCleared) {
  const std::string dead = "Test-2147480000.tape";  // beyond any pid_max
  const std::string running = "Test-" + std::to_string(getppid()) + ".tape";
  const Seen kept = {running, "Test-2147480001.tape", "Test-x.tape", "Other-2147480000.tape"};
  for (const std::string& name : {dead, dead + ".prev", kept[0], kept[2], kept[3]}) touch(pathOf(name), 48);
  touch(pathOf(kept[1]), 2);  // young
  ASSERT_TRUE(openRing());
  EXPECT_FALSE(fs::exists(pathOf(dead)));
  EXPECT_FALSE(fs::exists(pathOf(dead + ".prev")));
  for (const std::string& name : kept) EXPECT_TRUE(fs::exists(pathOf(name))) << name;
}

TEST_F(RingFile, AssertionTextIsKeptAtLevelZero) {
  RingTape::recordAssertion("no ring yet", __FILE__, 1);
  ASSERT_TRUE(openRing());
  RingTape::recordAssertion("mountStatus == Ledger::mountSuccess_", "/src/Vgw/VgwAgent.cpp", 42);
  const auto records = readBack();
  ASSERT_EQ(records.size(), 1u);
  const RingTape::Record& r = records[0];
  EXPECT_EQ(std::tie(r.level, r.handle, r.file, r.line, r.message),
            std::make_tuple(0, "Assert"s, "VgwAgent.cpp"s, 42, "mountStatus == Ledger::mountSuccess_"s));
}

#ifdef RINGTAPE_DUMP_PATH
// The dump tool's exit status and output, both streams.
std::pair<int, std::string> runDump(const std::string& arguments) {
  FILE* pipe = popen((RINGTAPE_DUMP_PATH " " + arguments + " 2>&1").c_str(), "r");
  std::string output;
  char buffer[4096];
  while (std::size_t n = fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, n);
  return {WEXITSTATUS(pclose(pipe)), output};
}

TEST_F(RingFile, DumpToolPrintsRecordsOldestFirstAndRefusesBadInput) {
  ASSERT_TRUE(openRing("Test-%d.tape", agentSizes, 16));
  const int line = __LINE__ + 1;
  VGW_TRACE(6, " Del ErrorStatusSm for sw1");
  VGW_TRACE(0, "hard error");
  const std::string path = RingTape::ringPath();
  RingTape::close();

  const auto [status, output] = runDump(path);
  EXPECT_EQ(status, 0);
  const std::string time = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)";
  EXPECT_TRUE(std::regex_match(
      output, std::regex("# " + path + ": process " + std::to_string(getpid()) + ", created " + time + ", 2 records\n" +
                         time + " VgwTraceTest 6 RingTapeTest.cpp:" + std::to_string(line) +
                         "  Del ErrorStatus \\[truncated\\]\n" + time + " VgwTraceTest 0 RingTapeTest.cpp:" +
                         std::to_string(line + 1) + " hard error\n")))
      << output;
  std::ofstream(pathOf("text")) << std::string(5000, 'x');
  EXPECT_EQ(runDump(pathOf("text")), std::make_pair(1, "ringtape-dump: " + pathOf("text") + " is not a ring file\n"));
}
#endif

}  // namespace
