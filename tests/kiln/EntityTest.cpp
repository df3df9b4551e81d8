// Generated entities: reactors, the accessors of each kind of attribute, and
// the JSON form of entities and directories (what is written, what is read
// back, and a bad document: an error naming the place, and no change).
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Kiln/Dir.h"
#include "kiln/TestTypes.h"

namespace {

using Kiln::Json;
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
  EXPECT_TRUE(w->members().empty());
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

TEST(Directory, notifiesPerNameAndReadsBackNestedDirectories) {
  auto dir = Kiln::newPtr<Kiln::Dir>("switches");
  class DirLog : public Kiln::Dir::NotifieeConst {
   public:
    Seen seen;
    void onEntityPtr(const Kiln::Name& n) override { seen.push_back(n.stringValue()); }
  } log;
  log.notifierIs(dir);
  auto w = dir->createEntity<Widget>("sw1");
  EXPECT_EQ(dir->createEntity<Widget>("sw1"), w);
  dir->createEntity<Kiln::Dir>("sub")->createEntity<Widget>("w")->countIs(2);
  const Json j = dir->toJson();
  EXPECT_EQ(j["sub"]["@type"], "Kiln::Dir");
  auto copy = Kiln::newPtr<Kiln::Dir>("copy");
  copy->assignJson(j);
  EXPECT_EQ(copy->toJson(), j);

  const std::pair<const char*, const char*> cases[] = {
      {R"({"sub": {"@type": "Kiln::Dir", "x": {"@type": 1}}})", "sub/x: \"@type\" must be a string"},
      {R"({"@type": "KilnTest::Widget"})", "@type: directory is of type Kiln::Dir, not \"KilnTest::Widget\""},
  };
  for (const auto& [json, error] : cases) EXPECT_EQ(errorOf(*dir, json), error) << json;
  EXPECT_EQ(dir->toJson(), j);

  dir->entryTypeIs(&Widget::typeInfo_);
  dir->assignJson(Json::parse(R"({"sw1": {"count": 1}, "sw2": {}})"));
  EXPECT_EQ(dir->entityPtr<Widget>("sw1"), w);  // kept, and brought to the document in place
  EXPECT_EQ(w->count(), 1u);
  EXPECT_TRUE(dir->deleteEntity("sw2"));
  EXPECT_FALSE(dir->deleteEntity("sw2"));
  EXPECT_EQ(log.seen, (Seen{"sw1", "sub", "sub", "sw2", "sw2"}));
}

}  // namespace
