#include <gtest/gtest.h>

#include <string>

#include "LoginStorage/storage/RefCountPtr.h"
#include "support/TestItem.h"

using testsupport::Events;
using testsupport::TestItem;
using VelLogin::IStorable;
using VelLogin::RefCountPtr;
using Strings = std::vector<std::string>;

namespace {

// A factory in the style callers write: a new object or nothing.
RefCountPtr<IStorable> make(const std::string& key, Events* events) {
  if (key.empty()) return nullptr;
  return new TestItem(key, events);
}

TEST(RefCountPtrTest, CopiesAndAssignmentsShareOneObjectAndTheLastDeletesIt) {
  Events events;
  auto* object = new TestItem("k", &events);
  {
    RefCountPtr<TestItem> first(object);
    {
      RefCountPtr<IStorable> second = first;  // a base pointer shares the counter
      EXPECT_TRUE(second.get() == object && first.getCount() == 2 && first == second);
      EXPECT_FALSE(first != second || second == RefCountPtr<IStorable>());
    }
    EXPECT_EQ(first.getCount(), 1u);
    EXPECT_EQ(first->getKey() + ", " + (*first).toString(), "k, item k");
    EXPECT_TRUE(events.empty());
  }
  EXPECT_EQ(events, Strings{"~k"});
  RefCountPtr<IStorable> made = make("m", &events), none = make("", &events);
  EXPECT_TRUE(made != nullptr && nullptr != made && none == nullptr && nullptr == none);
  EXPECT_FALSE(made == nullptr || nullptr == made || none != nullptr || nullptr != none);
  EXPECT_TRUE(made.getCount() == 1 && none.getCount() == 1 && !none && none.isNull());
  // Assignment releases the old object and shares the new.
  events.clear();
  RefCountPtr<IStorable> target = make("old", &events), source = make("new", &events);
  RefCountPtr<IStorable>& alias = source;
  source = alias;  // self-assignment leaves the count alone
  EXPECT_EQ(source.getCount(), 1u);
  target = source;
  EXPECT_EQ(events, Strings{"~old"});
  EXPECT_TRUE(source.getCount() == 2 && target.get() == source.get());
  // Sharing a counter already shared: both keep one share each.
  RefCountPtr<IStorable> third(source);
  target = third;
  EXPECT_EQ(source.getCount(), 3u);
}

// A list node that holds the only share of the next node.
class Node : public TestItem {
 public:
  Node(const std::string& key, Events* events, RefCountPtr<Node> following)
      : TestItem(key, events), next(following) {}
  RefCountPtr<Node> next;
};

TEST(RefCountPtrTest, AssigningFromInsideTheObjectItReleasesIsSafe) {
  Events events;
  RefCountPtr<Node> n(new Node("head", &events, new Node("tail", &events, nullptr)));
  n = n->next;  // n holds the last share of the head, whose member is the source
  EXPECT_EQ(events, Strings{"~head"});
  ASSERT_TRUE(!n.isNull() && n.getCount() == 1);
  n = n->next;  // onto the tail's null pointer: a counter shared with nobody alive
  EXPECT_EQ(events, (Strings{"~head", "~tail"}));
  EXPECT_TRUE(n.isNull() && n.getCount() == 1);
}

TEST(RefCountPtrTest, ExplicitReleaseGivesUpOneShareOnce) {
  Events events;
  RefCountPtr<IStorable> empty;
  EXPECT_EQ(empty.getCount(), 1u);  // a null pointer owns a counter too
  empty.release();
  empty.release();  // counter gone: nothing happens
  EXPECT_EQ(empty.getCount(), 0u);
  {
    RefCountPtr<IStorable> first = make("k", &events);
    // A second pointer that gives up its share explicitly. It keeps pointing
    // at the object afterwards, so it must not be destroyed again: its
    // storage is freed without running the destructor.
    auto* second = new RefCountPtr<IStorable>(first);
    second->release();
    EXPECT_TRUE(first.getCount() == 1 && second->get() == first.get());
    ::operator delete(static_cast<void*>(second));
    EXPECT_TRUE(events.empty());
    first.release();
    EXPECT_EQ(events, Strings{"~k"});
    EXPECT_TRUE(first.isNull() && first.getCount() == 0);
    // A copy of a released pointer is a null pointer with a counter of its own.
    RefCountPtr<IStorable> copy(first);
    EXPECT_TRUE(copy.isNull() && copy.getCount() == 1);
  }
  EXPECT_EQ(events, Strings{"~k"});
}

}  // namespace
