#include <gtest/gtest.h>

#include <string>

#include "LoginStorage/LoginStorage.h"

using VelLogin::IStorable;
using VelLogin::RefCountPtr;

namespace {

// A storable that counts its destructions.
class Counted : public IStorable {
 public:
  explicit Counted(int* destroyed) : m_destroyed(destroyed) {}
  ~Counted() override { ++*m_destroyed; }
  std::string getKey() const override { return "counted"; }
  bool serialize(char*&, unsigned&) override { return false; }
  std::string toString() const override { return "Counted"; }

 private:
  int* m_destroyed;
};

class Derived : public Counted {
 public:
  using Counted::Counted;
};

TEST(RefCountPtrTest, NullPointerOwnsACounterOfOne) {
  RefCountPtr<IStorable> empty;
  EXPECT_TRUE(empty.isNull());
  EXPECT_FALSE(empty);
  EXPECT_EQ(empty.get(), nullptr);
  EXPECT_EQ(empty.getCount(), 1u);
  empty.release();
  EXPECT_EQ(empty.getCount(), 0u);
  empty.release();  // counter gone: nothing happens
  EXPECT_EQ(empty.getCount(), 0u);
}

TEST(RefCountPtrTest, CopiesShareOneObjectAndTheLastDeletesIt) {
  int destroyed = 0;
  auto* object = new Derived(&destroyed);
  {
    RefCountPtr<Derived> first(object);
    EXPECT_EQ(first.getCount(), 1u);
    {
      RefCountPtr<IStorable> second = first;  // a base pointer shares the counter
      EXPECT_EQ(second.get(), object);
      EXPECT_EQ(first.getCount(), 2u);
      EXPECT_TRUE(first == second);
      EXPECT_FALSE(first != second);
      EXPECT_TRUE(second != RefCountPtr<IStorable>());
    }
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(first.getCount(), 1u);
    EXPECT_EQ(first->getKey(), "counted");
    EXPECT_EQ((*first).toString(), "Counted");
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(RefCountPtrTest, AssignmentReleasesTheOldObjectAndSharesTheNew) {
  int destroyedOld = 0;
  int destroyedNew = 0;
  RefCountPtr<IStorable> target(new Counted(&destroyedOld));
  RefCountPtr<IStorable> source(new Counted(&destroyedNew));
  RefCountPtr<IStorable>& alias = source;
  source = alias;  // self-assignment leaves the count alone
  EXPECT_EQ(source.getCount(), 1u);
  target = source;
  EXPECT_EQ(destroyedOld, 1);
  EXPECT_EQ(destroyedNew, 0);
  EXPECT_EQ(source.getCount(), 2u);
  EXPECT_EQ(target.get(), source.get());

  // Sharing a counter already shared: both keep one share each.
  RefCountPtr<IStorable> third(source);
  target = third;
  EXPECT_EQ(source.getCount(), 3u);
}

// A list node that holds the only share of the next node.
class Node : public Counted {
 public:
  Node(int* destroyed, RefCountPtr<Node> following) : Counted(destroyed), next(following) {}
  RefCountPtr<Node> next;
};

TEST(RefCountPtrTest, AssigningFromInsideTheObjectItReleasesIsSafe) {
  int destroyed = 0;
  RefCountPtr<Node> n(new Node(&destroyed, RefCountPtr<Node>(new Node(&destroyed, nullptr))));
  // n holds the last share of the head, whose member is the source.
  n = n->next;
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(n.getCount(), 1u);
  ASSERT_FALSE(n.isNull());
  n = n->next;  // onto the tail's null pointer: a counter shared with nobody alive
  EXPECT_EQ(destroyed, 2);
  EXPECT_TRUE(n.isNull());
  EXPECT_EQ(n.getCount(), 1u);
}

TEST(RefCountPtrTest, ExplicitReleaseOfTheLastShareDeletesOnceOnly) {
  int destroyed = 0;
  {
    RefCountPtr<IStorable> pointer(new Counted(&destroyed));
    pointer.release();
    EXPECT_EQ(destroyed, 1);
    EXPECT_TRUE(pointer.isNull());
    EXPECT_EQ(pointer.getCount(), 0u);

    // A copy of a released pointer is a null pointer with a counter of its own.
    RefCountPtr<IStorable> copy(pointer);
    EXPECT_TRUE(copy.isNull());
    EXPECT_EQ(copy.getCount(), 1u);
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(RefCountPtrTest, ReleaseOfOneOfTwoSharesKeepsTheObject) {
  int destroyed = 0;
  RefCountPtr<IStorable> first(new Counted(&destroyed));
  // A second pointer that gives up its share explicitly. It keeps pointing at
  // the object afterwards, so it must not be destroyed again: its storage is
  // freed without running the destructor.
  auto* second = new RefCountPtr<IStorable>(first);
  second->release();
  EXPECT_EQ(first.getCount(), 1u);
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(second->get(), first.get());
  ::operator delete(static_cast<void*>(second));

  first.release();
  EXPECT_EQ(destroyed, 1);
}

// A factory in the style callers write: a new object or nothing.
RefCountPtr<IStorable> makeCounted(int* destroyed, bool make) {
  if (!make) return nullptr;
  return new Counted(destroyed);
}

TEST(RefCountPtrTest, FactoriesReturnRawObjectsOrNullAndCompareWithNull) {
  int destroyed = 0;
  {
    RefCountPtr<IStorable> made = makeCounted(&destroyed, true);
    RefCountPtr<IStorable> none = makeCounted(&destroyed, false);
    EXPECT_TRUE(made != nullptr && nullptr != made && none == nullptr && nullptr == none);
    EXPECT_FALSE(made == nullptr || nullptr == made || none != nullptr || nullptr != none);
    EXPECT_EQ(made.getCount(), 1u);
    EXPECT_EQ(none.getCount(), 1u);
  }
  EXPECT_EQ(destroyed, 1);
}

}  // namespace
