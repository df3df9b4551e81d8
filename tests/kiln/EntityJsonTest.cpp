// The JSON form of entities, values and directories: what is written, what
// is read back, and what a bad document does (an error naming the place,
// and no change).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kiln/Dir.h"
#include "kiln/TestTypes.h"

namespace {

using Kiln::Json;
using KilnTest::Widget;

class WidgetLog : public Widget::NotifieeConst {
 public:
  std::vector<std::string> seen;
  void onCount() override { seen.push_back("count"); }
  void onLabel() override { seen.push_back("label"); }
  void onScores(const Kiln::String& k) override { seen.push_back("scores:" + k.stringValue()); }
  void onLeaves(const std::uint32_t& k) override { seen.push_back("leaves:" + std::to_string(k)); }
};

std::string errorOf(Kiln::Entity& e, const Json& j) {
  try {
    e.assignJson(j);
  } catch (const Kiln::JsonError& err) {
    return err.what();
  }
  return "no error";
}

TEST(EntityJson, writesEveryAttributeUnderItsName) {
  auto w = Kiln::newPtr<Widget>();
  w->labelIs("edge");
  w->shadeIs(KilnTest::Color::blue);
  w->scoresIs("b", 2);
  w->membersIs(-1);
  w->leavesIs(7)->weightIs(3);
  auto leaf = w->leavesIs(8);
  w->indexIs("eight", leaf);
  w->innerIs("in")->countIs(1);
  w->hiddenIs(99);
  KilnTest::Pair p(4, "four");
  p.tagsIs(12, true);
  w->unorderedIs(1, p);

  const Json j = w->toJson();
  EXPECT_EQ(j["count"], 5);
  EXPECT_EQ(j["label"], "edge");
  EXPECT_EQ(j["shade"], "blue");
  EXPECT_EQ(j["scores"], Json::parse(R"({"b": 2})"));
  EXPECT_EQ(j["members"], Json::parse(R"({"-1": true})"));
  EXPECT_EQ(j["leaves"]["7"], Json::parse(R"({"id": 7, "weight": 3, "color": "red"})"));
  EXPECT_EQ(j["index"], Json::parse(R"({"eight": "8"})"));
  EXPECT_EQ(j["inner"]["count"], 1);
  EXPECT_EQ(j["unordered"]["1"], Json::parse(R"({"left": 4, "right": "four", "tags": {"12": true}})"));
  EXPECT_FALSE(j.contains("hidden"));
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

  auto target = Kiln::newPtr<Widget>();
  target->scoresIs("a", 1);
  target->scoresIs("z", 26);
  WidgetLog log;
  log.notifierIs(target);
  target->assignJson(j);
  EXPECT_EQ(target->index().size(), 0u);  // an index read back is ignored: its writer keeps it
  j["index"] = Json::object();
  EXPECT_EQ(target->toJson(), j);
  EXPECT_EQ(log.seen, (std::vector<std::string>{"label", "scores:z", "scores:b", "leaves:1"}));

  log.seen.clear();
  target->assignJson(j);
  EXPECT_TRUE(log.seen.empty());
}

TEST(EntityJson, absentAttributesReturnToTheirDefaults) {
  auto w = Kiln::newPtr<Widget>();
  w->countIs(77);
  w->scoresIs("gone", 1);
  w->assignJson(Json::parse(R"({"label": "only"})"));
  EXPECT_EQ(w->count(), 5u);
  EXPECT_TRUE(w->scores().empty());
  EXPECT_EQ(w->label(), "only");
}

TEST(EntityJson, badDocumentsNameTheProblemAndChangeNothing) {
  auto w = Kiln::newPtr<Widget>();
  w->countIs(1);
  w->scoresIs("keep", 1);
  const Json before = w->toJson();

  EXPECT_EQ(errorOf(*w, Json::parse(R"({"count": 2, "colour": 1})")), "colour: no such attribute in KilnTest::Widget");
  EXPECT_EQ(errorOf(*w, Json::parse(R"({"count": "two"})")), "count: expected an integer, got the string \"two\"");
  EXPECT_EQ(errorOf(*w, Json::parse(R"({"count": 4294967296})")), "count: integer 4294967296 out of range 0..4294967295");
  EXPECT_EQ(errorOf(*w, Json::parse(R"({"count": -1})")), "count: integer -1 out of range 0..4294967295");
  EXPECT_EQ(errorOf(*w, Json::parse(R"({"shade": "mauve"})")), "shade: unknown enumerator \"mauve\"");
  EXPECT_EQ(errorOf(*w, Json::parse(R"({"members": {"x": true}})")),
            "members/x: bad key: expected an integer in range, got \"x\"");
  EXPECT_EQ(errorOf(*w, Json::parse(R"({"leaves": {"3": {"id": 4}}})")),
            "leaves/3/id: is the key 3 and cannot be changed to 4");
  EXPECT_EQ(errorOf(*w, Json::parse(R"({"leaves": {"3": {"weight": true}}})")),
            "leaves/3/weight: expected an integer, got true");
  EXPECT_EQ(errorOf(*w, Json::parse(R"({"hidden": 1})")), "hidden: no such attribute in KilnTest::Widget");
  EXPECT_EQ(errorOf(*w, Json::parse(R"({"pair": {"left": 1, "middle": 2}})")),
            "pair/middle: no such field in KilnTest::Pair");
  EXPECT_EQ(errorOf(*w, Json::parse("[]")), "expected an object, got an array");
  EXPECT_EQ(w->toJson(), before);
}

TEST(EntityJson, indexMembersCannotBeWritten) {
  auto w = Kiln::newPtr<Widget>();
  const Kiln::AttrInfo* index = Widget::typeInfo_.attr("index");
  EXPECT_THROW(index->memberAssignJson(*w, "a", Json("1")), Kiln::JsonError);
  EXPECT_THROW(index->memberDel(*w, "a"), Kiln::JsonError);
  const Kiln::AttrInfo* scores = Widget::typeInfo_.attr("scores");
  scores->memberAssignJson(*w, "a", Json(3));
  EXPECT_EQ(w->scores("a"), 3u);
  Json out;
  EXPECT_TRUE(scores->memberToJson(*w, "a", out));
  EXPECT_EQ(out, 3);
  EXPECT_TRUE(scores->memberDel(*w, "a"));
  EXPECT_FALSE(scores->memberToJson(*w, "a", out));
}

TEST(EntityJson, enumeratorsReadByNameOrNumber) {
  auto leaf = Kiln::newPtr<KilnTest::Leaf>(1u);
  leaf->assignJson(Json::parse(R"({"color": 7})"));
  EXPECT_EQ(leaf->color(), KilnTest::Color::blue);
  EXPECT_EQ(errorOf(*leaf, Json::parse(R"({"color": 3})")), "color: no enumerator with value 3");
  std::ostringstream os;
  os << KilnTest::Color::green;
  EXPECT_EQ(os.str(), "green");
}

TEST(ValueTypes, compareOrderHashAndPrint) {
  KilnTest::Pair a(1, "x");
  KilnTest::Pair b(1, "y");
  KilnTest::Pair a2(1, "x");
  EXPECT_EQ(a, a2);
  EXPECT_NE(a, b);
  EXPECT_TRUE(a < b);
  EXPECT_FALSE(b < a);
  EXPECT_EQ(std::hash<KilnTest::Pair>{}(a), std::hash<KilnTest::Pair>{}(a2));
  a2.tagsIs(1, true);
  EXPECT_NE(a, a2);
  std::ostringstream os;
  os << a2;
  EXPECT_EQ(os.str(), "Value('KilnTest::Pair', ** {'left': 1, 'right': x, 'tags': {\"1\":true}})");
  EXPECT_EQ(KilnTest::Pair::fromJson(a2.toJson()), a2);
}

TEST(PartialRows, cloneAndCompareSkipAttributesMarkedAbsent) {
  // The row type has no partial-row base here; the records alone are checked.
  const Kiln::AttrInfo* name = KilnTest::Row::typeInfo_.attr("name");
  const Kiln::AttrInfo* ports = KilnTest::Row::typeInfo_.attr("ports");
  const Kiln::AttrInfo* always = KilnTest::Row::typeInfo_.attr("always");
  ASSERT_TRUE(name && ports && always);
  EXPECT_STREQ(name->partialName, "name");
  EXPECT_STREQ(ports->partialName, "portList");
  EXPECT_EQ(always->partialName, nullptr);

  auto a = Kiln::newPtr<KilnTest::Row>(1u);
  auto b = Kiln::newPtr<KilnTest::Row>(2u);
  a->portsIs(4);
  EXPECT_FALSE(ports->equal(*a, *b));
  ports->assignFrom(*b, *a);
  EXPECT_TRUE(ports->equal(*a, *b));
  EXPECT_EQ(b->identityText(), "2");
}

TEST(Directory, holdsTypedEntriesAndReadsThemFromJson) {
  auto dir = Kiln::newPtr<Kiln::Dir>("switches");
  class DirLog : public Kiln::Dir::NotifieeConst {
   public:
    std::vector<std::string> seen;
    void onEntityPtr(const Kiln::Name& n) override { seen.push_back(n.stringValue()); }
  } log;
  log.notifierIs(dir);
  auto w = dir->createEntity<Widget>("sw1");
  EXPECT_EQ(dir->createEntity<Widget>("sw1"), w);
  EXPECT_EQ(dir->entityPtr<Widget>("sw1"), w);
  EXPECT_FALSE(dir->entityPtr("sw2"));
  w->countIs(3);

  Json j = dir->toJson();
  EXPECT_EQ(j["sw1"]["@type"], "KilnTest::Widget");
  j["sw2"] = Json::parse(R"({"@type": "KilnTest::Widget", "label": "second"})");
  dir->assignJson(j);
  EXPECT_EQ(dir->entityPtr<Widget>("sw1"), w);
  EXPECT_EQ(dir->entityPtr<Widget>("sw2")->label(), "second");

  EXPECT_EQ(errorOf(*dir, Json::parse(R"({"sw3": {"label": "x"}})")),
            "sw3: needs an \"@type\" member naming its entity type");
  EXPECT_EQ(errorOf(*dir, Json::parse(R"({"sw3": {"@type": "No::Such"}})")), "sw3: unknown entity type \"No::Such\"");
  EXPECT_EQ(dir->entityPtr().size(), 2u);

  dir->entryTypeIs(&Widget::typeInfo_);
  dir->assignJson(Json::parse(R"({"sw3": {"count": 1}})"));
  EXPECT_EQ(dir->entityPtr().size(), 1u);
  EXPECT_TRUE(dir->deleteEntity("sw3"));
  EXPECT_FALSE(dir->deleteEntity("sw3"));
  EXPECT_EQ(log.seen, (std::vector<std::string>{"sw1", "sw2", "sw1", "sw2", "sw3", "sw3"}));
}

TEST(Directory, readsBackDirectoriesNestedInIt) {
  auto dir = Kiln::newPtr<Kiln::Dir>("top");
  dir->createEntity<Kiln::Dir>("sub")->createEntity<Widget>("w")->countIs(2);
  const Json j = dir->toJson();
  EXPECT_EQ(j["sub"]["@type"], "Kiln::Dir");

  auto copy = Kiln::newPtr<Kiln::Dir>("copy");
  copy->assignJson(j);
  EXPECT_EQ(copy->toJson(), j);
  EXPECT_EQ(copy->entityPtr<Kiln::Dir>("sub")->entityPtr<Widget>("w")->count(), 2u);
  EXPECT_EQ(errorOf(*copy, Json::parse(R"({"sub": {"@type": "Kiln::Dir", "x": {"@type": 1}}})")),
            "sub/x: \"@type\" must be a string");
  EXPECT_EQ(errorOf(*copy, Json::parse(R"({"@type": "KilnTest::Widget"})")),
            "@type: directory is of type Kiln::Dir, not \"KilnTest::Widget\"");
  EXPECT_EQ(copy->toJson(), j);
}

TEST(TypeRegistry, findsGeneratedTypesByName) {
  const Kiln::TypeInfo* t = Kiln::TypeInfo::find("KilnTest::Widget");
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t, &Widget::typeInfo_);
  EXPECT_TRUE(t->isA(Kiln::Entity::typeInfo_));
  EXPECT_EQ(Kiln::TypeInfo::find("KilnTest::Nope"), nullptr);
  auto made = t->create("made");
  EXPECT_EQ(made->name(), "made");
  EXPECT_EQ(KilnTest::Leaf::typeInfo_.create, nullptr);  // needs its key
}

}  // namespace
