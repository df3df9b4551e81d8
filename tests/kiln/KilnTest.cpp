// The foundation: generated entities (reactors, each kind of attribute, and
// their JSON form, with bad documents refused by name and without change); the
// event loop's turns, timers on simulated time and descriptors; and log lines
// with their rate limits.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Kiln/EventLoop.h"
#include "Kiln/Log.h"
#include "Kiln/String.h"
#include "kiln/TestTypes.h"

namespace {

using Kiln::Json;
using Kiln::LogHandle;
using Kiln::LogSeverity;
using KilnTest::Leaf;
using KilnTest::Widget;
using Seen = std::vector<std::string>;

// Records every callback it receives, in order.
class WidgetLog : public Widget::NotifieeConst {
 public:
  Seen seen;
  std::function<void()> onCountDo;
  void onCount() override {
    seen.push_back("count");
    if (onCountDo) onCountDo();
  }
  void onLabel() override { seen.push_back("label"); }
  void onScores(const Kiln::String& k) override { seen.push_back("scores:" + k.stringValue()); }
  void onMembers(const std::int32_t& k) override { seen.push_back("members:" + std::to_string(k)); }
  void onLeaves(const std::uint32_t& k) override { seen.push_back("leaves:" + std::to_string(k)); }
  void onIndex(const Kiln::String& k) override { seen.push_back("index:" + k.stringValue()); }
  void onInner() override { seen.push_back("inner"); }
};

std::string errorOf(Kiln::Entity& e, const char* json) {
  try {
    e.assignJson(Json::parse(json));
  } catch (const Kiln::JsonError& err) {
    return err.what();
  }
  return "no error";
}

TEST(Notification, equalSetNotifiesNobodyAndChangesNotifyOnce) {
  auto w = Kiln::newPtr<Widget>();
  WidgetLog log;
  log.notifierIs(w);
  w->countIs(5);  // the default
  w->labelIs("");
  w->scoresIs("a", 1);
  w->scoresIs("a", 1);
  w->membersIs(4);
  w->membersIs(4, true);
  EXPECT_EQ(log.seen, (Seen{"scores:a", "members:4"}));

  log.seen.clear();
  w->countIs(6);
  w->scoresIs("a", 2);
  EXPECT_TRUE(w->scoresDel("a"));
  EXPECT_FALSE(w->scoresDel("a"));
  w->membersIs(4, false);
  EXPECT_EQ(log.seen, (Seen{"count", "scores:a", "scores:a", "members:4"}));
}

TEST(Notification, reactorOnNullOrInactiveReceivesNothingAndALaterAttachmentIsAFirst) {
  auto w = Kiln::newPtr<Widget>();
  WidgetLog log;
  log.notifierIs(nullptr);
  w->countIs(1);
  EXPECT_TRUE(log.seen.empty());
  log.notifierIs(w);
  w->countIs(2);
  EXPECT_EQ(log.seen, Seen{"count"});
  EXPECT_EQ(w->notifieeCount(), 1u);

  log.hasNotificationActiveIs(false);
  w->countIs(9);
  EXPECT_EQ(log.seen, Seen{"count"});
  log.hasNotificationActiveIs(true);
  w->labelIs("x");
  EXPECT_EQ(log.seen, (Seen{"count", "label"}));
  log.notifierIs(nullptr);
  EXPECT_EQ(w->notifieeCount(), 0u);
}

TEST(Notification, walkSurvivesCallbacksThatDetachAttachAndDropTheNotifier) {
  auto w = Kiln::newPtr<Widget>();
  WidgetLog meddler;
  WidgetLog later;
  meddler.notifierIs(w);
  later.notifierIs(w);
  // Detaches the next reactor and drops the last outside reference.
  meddler.onCountDo = [&] {
    later.notifierIs(nullptr);
    w = nullptr;
  };
  Widget* raw = w.get();
  raw->countIs(7);  // only the reactors keep the widget alive now
  EXPECT_TRUE(later.seen.empty());
  EXPECT_EQ(raw->count(), 7u);
  EXPECT_EQ(raw->notifieeCount(), 1u);

  // A reactor attached during a walk hears only later changes.
  meddler.onCountDo = [&] { later.notifierIs(meddler.notifier()); };
  raw->countIs(8);
  EXPECT_TRUE(later.seen.empty());
  raw->countIs(9);
  EXPECT_EQ(later.seen, Seen{"count"});
  EXPECT_EQ(meddler.seen, (Seen{"count", "count", "count"}));
}

TEST(Collections, iterateInTheirStatedOrderAndDefaultAbsentMembers) {
  auto w = Kiln::newPtr<Widget>();
  for (auto name : {"delta", "alpha", "charlie", "bravo"}) w->scoresIs(name, 1);
  Seen order;
  for (const auto& [k, v] : w->scores()) order.push_back(k.stringValue());
  EXPECT_EQ(order, (Seen{"alpha", "bravo", "charlie", "delta"}));
  EXPECT_EQ(w->scores("zulu"), 0u);
  EXPECT_EQ(w->unordered(42), KilnTest::Pair());

  for (int m : {5, -3, 0}) w->membersIs(m);
  EXPECT_EQ(std::vector<int>(w->members().begin(), w->members().end()), (std::vector<int>{-3, 0, 5}));
  EXPECT_TRUE(w->members(0));
  EXPECT_FALSE(w->members(1));
}

TEST(Collections, ownedEntitiesChildrenAndIndexes) {
  auto w = Kiln::newPtr<Widget>();
  WidgetLog log;
  log.notifierIs(w);
  auto leaf = w->leavesIs(3);
  EXPECT_EQ(w->leavesIs(3), leaf);
  EXPECT_EQ(leaf->parent(), w.get());
  w->indexIs("three", leaf);
  w->indexIs("three", leaf);
  EXPECT_EQ(w->leavesDel(3), leaf);
  EXPECT_TRUE(leaf->deleted());
  EXPECT_EQ(leaf->parent(), nullptr);
  EXPECT_FALSE(w->leavesDel(3));
  EXPECT_EQ(w->index("three"), leaf);  // an index is kept by its writer, not by the owner
  EXPECT_EQ(log.seen, (Seen{"leaves:3", "index:three", "leaves:3"}));

  log.seen.clear();
  w->membersIs(1);
  w->leavesIs(10);
  w->membersDelAll();
  w->leavesDelAll();
  EXPECT_EQ(log.seen, (Seen{"members:1", "leaves:10", "members:1", "leaves:10"}));

  // A child is replaced only for a new name.
  log.seen.clear();
  auto first = w->innerIs("one");
  EXPECT_EQ(w->innerIs("one"), first);
  EXPECT_NE(w->innerIs("two"), first);
  EXPECT_TRUE(first->deleted());
  w->innerDel();
  w->innerDel();
  EXPECT_FALSE(w->inner());
  EXPECT_EQ(log.seen, (Seen{"inner", "inner", "inner"}));
}

TEST(EntityJson, writesEveryAttributeUnderItsName) {
  auto w = Kiln::newPtr<Widget>();
  w->labelIs("edge");
  w->shadeIs(KilnTest::Color::blue);
  w->scoresIs("b", 2);
  w->membersIs(-1);
  w->leavesIs(7)->weightIs(3);
  w->indexIs("eight", w->leavesIs(8));
  w->innerIs("in")->countIs(1);
  w->hiddenIs(99);
  KilnTest::Pair p(4, "four");
  p.tagsIs(12, true);
  w->unorderedIs(1, p);

  Json j = w->toJson();
  EXPECT_EQ(j["inner"]["count"], 1);
  j.erase("inner");
  EXPECT_EQ(j, Json::parse(R"({"count": 5, "label": "edge", "flag": false, "shade": "blue",
    "pair": {"left": 0, "right": "none", "tags": {}}, "scores": {"b": 2}, "members": {"-1": true},
    "leaves": {"7": {"id": 7, "weight": 3, "color": "red"}, "8": {"id": 8, "weight": 1, "color": "red"}},
    "index": {"eight": "8"}, "unordered": {"1": {"left": 4, "right": "four", "tags": {"12": true}}}})"));
}

TEST(EntityJson, readsBackWhatItWroteAndNotifiesOnlyDifferences) {
  auto source = Kiln::newPtr<Widget>();
  source->labelIs("x");
  source->scoresIs("a", 1);
  source->scoresIs("b", 2);
  source->leavesIs(1)->weightIs(9);
  source->innerIs("inner")->labelIs("deep");
  source->indexIs("one", source->leaves(1));
  Json j = source->toJson();

  // What the document leaves out returns to its default.
  auto target = Kiln::newPtr<Widget>();
  target->countIs(77);
  target->scoresIs("a", 1);
  target->scoresIs("z", 26);
  WidgetLog log;
  log.notifierIs(target);
  target->assignJson(j);
  EXPECT_EQ(target->index().size(), 0u);  // an index read back is ignored: its writer keeps it
  j["index"] = Json::object();
  EXPECT_EQ(target->toJson(), j);
  EXPECT_EQ(log.seen, (Seen{"count", "label", "scores:z", "scores:b", "leaves:1", "inner"}));

  log.seen.clear();
  target->assignJson(j);
  EXPECT_TRUE(log.seen.empty());
}

TEST(EntityJson, badDocumentsNameTheProblemAndChangeNothing) {
  auto w = Kiln::newPtr<Widget>();
  w->countIs(1);
  w->scoresIs("keep", 1);
  const Json before = w->toJson();
  const std::pair<const char*, const char*> cases[] = {
      {R"({"count": 2, "colour": 1})", "colour: no such attribute in KilnTest::Widget"},
      {R"({"count": "two"})", "count: expected an integer, got the string \"two\""},
      {R"({"count": 4294967296})", "count: integer 4294967296 out of range 0..4294967295"},
      {R"({"count": -1})", "count: integer -1 out of range 0..4294967295"},
      {R"({"shade": "mauve"})", "shade: unknown enumerator \"mauve\""},
      {R"({"shade": 3})", "shade: no enumerator with value 3"},
      {R"({"members": {"x": true}})", "members/x: bad key: expected an integer in range, got \"x\""},
      {R"({"leaves": {"3": {"id": 4}}})", "leaves/3/id: is the key 3 and cannot be changed to 4"},
      {R"({"leaves": {"3": {"weight": true}}})", "leaves/3/weight: expected an integer, got true"},
      {R"({"hidden": 1})", "hidden: no such attribute in KilnTest::Widget"},
      {R"({"pair": {"left": 1, "middle": 2}})", "pair/middle: no such field in KilnTest::Pair"},
      {"[]", "expected an object, got an array"},
  };
  for (const auto& [json, error] : cases) EXPECT_EQ(errorOf(*w, json), error) << json;
  EXPECT_EQ(w->toJson(), before);

  // An enumerator reads by number too.
  auto leaf = Kiln::newPtr<Leaf>(1u);
  leaf->assignJson(Json::parse(R"({"color": 7})"));
  EXPECT_EQ(leaf->color(), KilnTest::Color::blue);
}

// Notes "name@time" in a log when it fires.
struct Timer : Kiln::Clock::NotifieeConst {
  Timer(Seen* l, std::string n) : log(l), name(std::move(n)) {}
  void onTimeMin() override {
    log->push_back(name + "@" + std::to_string(static_cast<int>(Kiln::System::currentTime())));
    if (then) then();
  }
  Seen* log;
  std::string name;
  std::function<void()> then;
};

class EventLoopTest : public testing::Test {
 protected:
  EventLoopTest() { Kiln::System::timeSourceIs(&time); }
  ~EventLoopTest() override { Kiln::System::timeSourceIs(nullptr); }
  Kiln::EventLoop& loop() { return scoped.loop(); }
  // Runs `n` turns and gives how many entries the log has then.
  std::size_t turns(int n) {
    for (int i = 0; i < n; ++i) loop().runOnce(0);
    return log.size();
  }

  Kiln::SimulatedTimeSource time{1000.0};
  Kiln::ScopedEventLoop scoped;
  Seen log;
  Timer t{&log, "t"};
};

TEST_F(EventLoopTest, pastTimeFiresOnTheNextTurnNeverInsideTheCall) {
  t.notifierIs(loop().clock());
  t.timeMinIs(Kiln::System::currentTime() - 5);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(turns(1), 1u);
  EXPECT_EQ(log, Seen{"t@1000"});
  EXPECT_EQ(turns(1), 1u);  // fires once
}

TEST_F(EventLoopTest, whatATurnPostsOrArmsWaitsForTheNextTurn) {
  t.notifierIs(loop().clock());
  loop().post([&] {
    log.push_back("a");
    loop().post([&] { log.push_back("c"); });
    t.timeMinIs(Kiln::System::currentTime());  // before this turn's timers run
  });
  loop().post([&] { log.push_back("b"); });
  EXPECT_TRUE(log.empty());
  turns(1);
  EXPECT_EQ(log, (Seen{"a", "b"}));
  turns(1);
  EXPECT_EQ(log, (Seen{"a", "b", "c", "t@1000"}));
  // Armed again by its own callback, while the timers run.
  int rearmed = 0;
  t.then = [&] {
    if (rearmed++ < 2) t.timeMinIs(Kiln::System::currentTime());
  };
  t.timeMinIs(1000);
  EXPECT_EQ(turns(1), 5u);
  EXPECT_EQ(turns(1), 6u);
  EXPECT_EQ(turns(1), 7u);
  EXPECT_EQ(turns(1), 7u);
}

TEST_F(EventLoopTest, simulatedTimeRunsLongTimersInOrderWithoutWaiting) {
  Timer shortTimer(&log, "short");
  Timer never(&log, "never");
  Timer& reconnect = t;
  for (Timer* each : {&reconnect, &shortTimer, &never}) each->notifierIs(loop().clock());
  reconnect.then = [&] { reconnect.timeMinIs(Kiln::System::currentTime() + 15.0); };
  reconnect.timeMinIs(1015.0);
  shortTimer.timeMinIs(1020.0);
  never.timeMinIs(Kiln::plusInfinity);
  loop().advanceTo(time, 1000.0 + 3600.0);
  ASSERT_EQ(log.size(), 241u);  // every 15 s for an hour, plus the short one
  EXPECT_EQ(Seen(log.begin(), log.begin() + 3), (Seen{"t@1015", "short@1020", "t@1030"}));
  EXPECT_EQ(log.back(), "t@4600");
  EXPECT_EQ(Kiln::System::currentTime(), 4600.0);
  EXPECT_EQ(loop().nextTimerTime(), 4615.0);
}

TEST_F(EventLoopTest, timersMoveDisarmArmOnAttachmentAndDieWithTheirReactor) {
  t.timeMinIs(1005);  // not attached yet
  loop().advanceTo(time, 1010);
  EXPECT_TRUE(log.empty());
  t.notifierIs(loop().clock());
  EXPECT_EQ(turns(1), 1u);
  EXPECT_EQ(log, Seen{"t@1010"});

  t.timeMinIs(1020);
  t.timeMinIs(1030);  // a later disconnect pushes the expiry out
  loop().advanceTo(time, 1025);
  t.timeMinIs(Kiln::plusInfinity);
  loop().advanceTo(time, 2000);
  EXPECT_EQ(log.size(), 1u);
  EXPECT_EQ(loop().nextTimerTime(), Kiln::plusInfinity);
  {
    Timer gone(&log, "gone");
    gone.notifierIs(loop().clock());
    gone.timeMinIs(2001);
  }
  loop().advanceTo(time, 2100);
  EXPECT_EQ(log.size(), 1u);
}

// Reads one byte per notification.
class Reader : public Kiln::FileDescriptor::NotifieeConst {
 public:
  int reads = 0;
  std::function<void()> then;
  void onReadable() override {
    ++reads;
    const auto* fd = static_cast<const Kiln::FileDescriptor*>(notifierBase().get());
    char c;
    [[maybe_unused]] auto n = read(fd->descriptor(), &c, 1);
    if (then) then();
  }
};

struct Pipe {
  int fds[2];
  Pipe() { EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0); }
  ~Pipe() {
    close(fds[0]);
    close(fds[1]);
  }
  void put(const char* text) { ASSERT_GT(write(fds[1], text, strlen(text)), 0); }
  Kiln::Ptr<Kiln::FileDescriptor> reader() {
    auto fd = Kiln::newPtr<Kiln::FileDescriptor>("pipe");
    fd->descriptorIs(fds[0]);
    fd->notifyOnReadableIs(true);
    return fd;
  }
};

TEST_F(EventLoopTest, aDescriptorFiresEachTurnWhileReadableAndAReactorMayDropAnotherOfTheSameTurn) {
  Pipe a;
  Pipe b;
  auto fa = a.reader();
  auto fb = b.reader();
  EXPECT_TRUE(fa->nonBlockingIs(true));
  Reader ra;
  Reader rb;
  ra.notifierIs(fa);
  turns(1);
  EXPECT_EQ(ra.reads, 0);
  a.put("abc");
  turns(4);
  EXPECT_EQ(ra.reads, 3);  // one byte per turn, then quiet
  fa->notifyOnReadableIs(false);
  a.put("d");
  turns(1);
  EXPECT_EQ(ra.reads, 3);
  fa->notifyOnReadableIs(true);
  turns(1);
  EXPECT_EQ(ra.reads, 4);

  // Whichever runs first drops the other; the other must not run.
  rb.notifierIs(fb);
  ra.then = [&] {
    rb.notifierIs(nullptr);
    fb = nullptr;
  };
  rb.then = [&] {
    ra.notifierIs(nullptr);
    fa = nullptr;
  };
  a.put("x");
  b.put("y");
  turns(1);
  EXPECT_EQ(ra.reads + rb.reads, 5);
}

TEST_F(EventLoopTest, aStopFromAPostedCallEndsRunWithoutWaitingForAnEvent) {
  Pipe quiet;
  auto fd = quiet.reader();
  Reader r;
  r.notifierIs(fd);
  loop().post([&] { loop().stop(); });
  loop().run();
  EXPECT_EQ(r.reads, 0);
}

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
  // Each emitted line, or only its message part.
  Seen lines(bool messagesOnly = false) const {
    Seen result;
    std::istringstream in(captured.str());
    for (std::string line; std::getline(in, line);) result.push_back(messagesOnly ? line.substr(line.find(": ") + 2) : line);
    return result;
  }
  Seen messages() const { return lines(true); }

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
  EXPECT_EQ(messages(), (Seen{"[ sw1 ]: 42: creation failed",
                               "Value 7.5 is 100% true",
                               "[ (null) ]: a%sb: c",
                               R"([ sw\n1 ]: tab\there: nul\x00bell\x07)",
                               "[ sw1 ]: <missing>: <missing>",
                               "[ a ]: b: c <extra: d, 5>",
                               "[ <missing> ]: <missing>: <missing>"}));
  EXPECT_EQ(unlimitedHandle.placeholderCount(), 3u);
  // A line carries the time, the identifier and the severity.
  EXPECT_TRUE(std::regex_match(lines()[1], std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z )"
                                                      R"(KXT_TEST_QUIET informational: Value 7.5 is 100% true)")))
      << lines()[1];
  // A zero interval never suppresses.
  for (int i = 0; i < 50; ++i) Kiln::log(unlimitedHandle, "sw1", "lr", i);
  EXPECT_EQ(lines().size(), 57u);
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
  EXPECT_EQ(messages(), (Seen{"event 1", "event 2", "event 6 (3 similar messages suppressed)",
                               "event 8 (1 similar messages suppressed)", "event 9"}));
}

TEST_F(LogTest, RateKeyArgumentsLimitEachKeyApart) {
  LogHandle perSwitch("KXT_TEST_PER_SWITCH", LogSeverity::warning, "[ %s ]: %s", "", "", 60.0, 1.0, 1);
  Kiln::log(perSwitch, "sw1", "a");
  Kiln::log(perSwitch, "sw1", "b");
  Kiln::log(perSwitch, "sw2", "c");
  Kiln::log(perSwitch, "sw2", "d");
  clock.advance(60.0);
  Kiln::log(perSwitch, "sw1", "e");
  EXPECT_EQ(messages(), (Seen{"[ sw1 ]: a", "[ sw2 ]: c", "[ sw1 ]: e (1 similar messages suppressed)"}));
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
