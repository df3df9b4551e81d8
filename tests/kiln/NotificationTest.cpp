// Reference counting, reactors and the accessors generated for each kind of
// attribute.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kiln/TestTypes.h"

namespace {

using KilnTest::Leaf;
using KilnTest::Widget;

// Records every callback it receives, in order.
class WidgetLog : public Widget::NotifieeConst {
 public:
  std::vector<std::string> seen;
  void onCount() override { seen.push_back("count"); }
  void onLabel() override { seen.push_back("label"); }
  void onScores(const Kiln::String& k) override { seen.push_back("scores:" + k.stringValue()); }
  void onMembers(const std::int32_t& k) override { seen.push_back("members:" + std::to_string(k)); }
  void onLeaves(const std::uint32_t& k) override { seen.push_back("leaves:" + std::to_string(k)); }
  void onIndex(const Kiln::String& k) override { seen.push_back("index:" + k.stringValue()); }
  void onInner() override { seen.push_back("inner"); }
};

class Tracked : public Kiln::PtrInterface {
 public:
  explicit Tracked(bool* gone) : gone_(gone) {}
  ~Tracked() override { *gone_ = true; }

 private:
  bool* gone_;
};

TEST(Ptr, countsReferencesAndDeletesOnTheLast) {
  bool gone = false;
  {
    Kiln::Ptr<Tracked> a = Kiln::newPtr<Tracked>(&gone);
    Kiln::Ptr<const Tracked> b = a;  // const view shares the count
    EXPECT_EQ(a->references(), 2u);
    a = nullptr;
    EXPECT_FALSE(gone);
    EXPECT_EQ(b->references(), 1u);
  }
  EXPECT_TRUE(gone);

  Kiln::Ptr<Kiln::Entity> e = Kiln::newPtr<Leaf>(3u);
  EXPECT_EQ(Kiln::dynamicPtrCast<Leaf>(e)->id(), 3u);
  EXPECT_FALSE(Kiln::dynamicPtrCast<Widget>(e));
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
  EXPECT_EQ(log.seen, (std::vector<std::string>{"scores:a", "members:4"}));

  log.seen.clear();
  w->countIs(6);
  w->scoresIs("a", 2);
  EXPECT_TRUE(w->scoresDel("a"));
  EXPECT_FALSE(w->scoresDel("a"));
  w->membersIs(4, false);
  EXPECT_EQ(log.seen, (std::vector<std::string>{"count", "scores:a", "scores:a", "members:4"}));
}

TEST(Notification, nullAttachmentReceivesNothingAndLaterAttachmentIsAFirst) {
  auto w = Kiln::newPtr<Widget>();
  WidgetLog log;
  log.notifierIs(nullptr);
  w->countIs(1);
  EXPECT_TRUE(log.seen.empty());
  log.notifierIs(w);
  w->countIs(2);
  EXPECT_EQ(log.seen, std::vector<std::string>{"count"});
  EXPECT_EQ(log.notifier(), w);
  EXPECT_EQ(w->notifieeCount(), 1u);
  log.notifierIs(nullptr);
  EXPECT_EQ(w->notifieeCount(), 0u);
}

TEST(Notification, inactiveReactorReceivesNothingUntilReactivated) {
  auto w = Kiln::newPtr<Widget>();
  WidgetLog log;
  log.notifierIs(w);
  log.hasNotificationActiveIs(false);
  w->countIs(9);
  EXPECT_TRUE(log.seen.empty());
  log.hasNotificationActiveIs(true);
  w->labelIs("x");
  EXPECT_EQ(log.seen, std::vector<std::string>{"label"});
}

// Detaches another reactor, and drops the last outside reference to the
// notifier, from inside a callback.
class Meddler : public Widget::NotifieeConst {
 public:
  WidgetLog* victim = nullptr;
  Kiln::Ptr<Widget>* owner = nullptr;
  int calls = 0;
  void onCount() override {
    ++calls;
    if (victim) victim->notifierIs(nullptr);
    if (owner) *owner = nullptr;
  }
};

TEST(Notification, walkSurvivesDetachmentAndLossOfTheNotifier) {
  auto w = Kiln::newPtr<Widget>();
  Meddler meddler;
  WidgetLog later;
  meddler.notifierIs(w);
  later.notifierIs(w);
  meddler.victim = &later;
  meddler.owner = &w;
  Widget* raw = w.get();
  raw->countIs(7);  // only the reactors keep the widget alive now
  EXPECT_EQ(meddler.calls, 1);
  EXPECT_TRUE(later.seen.empty());
  EXPECT_EQ(raw->count(), 7u);
  EXPECT_EQ(raw->notifieeCount(), 1u);
}

TEST(Notification, reactorAttachedDuringAWalkHearsOnlyLaterChanges) {
  auto w = Kiln::newPtr<Widget>();
  WidgetLog late;
  class Attacher : public Widget::NotifieeConst {
   public:
    WidgetLog* late = nullptr;
    void onCount() override { late->notifierIs(notifier()); }
  } attacher;
  attacher.late = &late;
  attacher.notifierIs(w);
  w->countIs(1);
  EXPECT_TRUE(late.seen.empty());
  w->countIs(2);
  EXPECT_EQ(late.seen, std::vector<std::string>{"count"});
}

TEST(Collections, iterateInTheirStatedOrderAndDefaultAbsentMembers) {
  auto w = Kiln::newPtr<Widget>();
  for (auto name : {"delta", "alpha", "charlie", "bravo"}) w->scoresIs(name, 1);
  std::vector<std::string> order;
  for (const auto& [k, v] : w->scores()) order.push_back(k.stringValue());
  EXPECT_EQ(order, (std::vector<std::string>{"alpha", "bravo", "charlie", "delta"}));
  EXPECT_EQ(w->scores("zulu"), 0u);
  EXPECT_EQ(w->unordered(42), KilnTest::Pair());

  for (int m : {5, -3, 0}) w->membersIs(m);
  EXPECT_EQ(std::vector<int>(w->members().begin(), w->members().end()), (std::vector<int>{-3, 0, 5}));
  EXPECT_TRUE(w->members(0));
  EXPECT_FALSE(w->members(1));
}

TEST(Collections, ownedEntitiesAreCreatedOnceAndIndexesShareThem) {
  auto w = Kiln::newPtr<Widget>();
  WidgetLog log;
  log.notifierIs(w);
  auto leaf = w->leavesIs(3);
  EXPECT_EQ(w->leavesIs(3), leaf);
  EXPECT_EQ(leaf->parent(), w.get());
  w->indexIs("three", leaf);
  w->indexIs("three", leaf);
  EXPECT_EQ(w->index("three"), leaf);
  EXPECT_FALSE(w->leaves(4));

  auto removed = w->leavesDel(3);
  EXPECT_EQ(removed, leaf);
  EXPECT_TRUE(removed->deleted());
  EXPECT_EQ(removed->parent(), nullptr);
  EXPECT_FALSE(w->leavesDel(3));
  EXPECT_EQ(w->index("three"), leaf);  // an index is kept by its writer, not by the owner
  EXPECT_EQ(log.seen, (std::vector<std::string>{"leaves:3", "index:three", "leaves:3"}));
}

TEST(Collections, delAllNotifiesEachMember) {
  auto w = Kiln::newPtr<Widget>();
  w->membersIs(1);
  w->membersIs(2);
  w->leavesIs(10);
  WidgetLog log;
  log.notifierIs(w);
  w->membersDelAll();
  w->leavesDelAll();
  EXPECT_TRUE(w->members().empty());
  EXPECT_EQ(log.seen, (std::vector<std::string>{"members:1", "members:2", "leaves:10"}));
}

TEST(Collections, childIsReplacedOnlyForANewName) {
  auto w = Kiln::newPtr<Widget>();
  WidgetLog log;
  log.notifierIs(w);
  auto first = w->innerIs("one");
  EXPECT_EQ(w->innerIs("one"), first);
  auto second = w->innerIs("two");
  EXPECT_NE(first, second);
  EXPECT_TRUE(first->deleted());
  w->innerDel();
  w->innerDel();
  EXPECT_FALSE(w->inner());
  EXPECT_EQ(log.seen, (std::vector<std::string>{"inner", "inner", "inner"}));
  EXPECT_EQ(w->handWritten(), 10);
}

TEST(Singleton, isCreatedOnceAndFoundByName) {
  EXPECT_FALSE(Kiln::Entity::singletonExists("testWidget"));
  auto a = Kiln::Entity::singletonIs<Widget>("testWidget");
  auto b = Kiln::Entity::singletonIs<Widget>("testWidget");
  EXPECT_EQ(a, b);
  EXPECT_EQ(Kiln::Entity::singleton<Widget>("testWidget"), a);
  EXPECT_EQ(a->name(), "testWidget");
  Kiln::Entity::singletonDel("testWidget");
  EXPECT_FALSE(Kiln::Entity::singletonExists("testWidget"));
  EXPECT_FALSE(Kiln::Entity::singleton<Widget>("testWidget"));
}

}  // namespace
