#include "Kel/Ptr.h"

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>
#include <unordered_set>

namespace {

using Kel::Ptr;

// Counts how often it was destroyed.
struct Object : Kel::Referenced {
  explicit Object(int& destructions) : destroyed(destructions) {}
  virtual ~Object() { ++destroyed; }
  int& destroyed;
};
struct Derived final : Object {
  using Object::Object;
  int extra = 7;
};
struct Unrelated final : Object {
  using Object::Object;
};

// Every case holds with plain and with atomic counts.
class PtrTest : public testing::TestWithParam<bool> {
 protected:
  PtrTest() { Kel::threadSafePointersIs(GetParam()); }
  ~PtrTest() override { Kel::threadSafePointersIs(false); }
  Ptr<Object> object() { return Kel::make<Object>(destroyed); }

  int destroyed = 0;
};
INSTANTIATE_TEST_SUITE_P(Counts, PtrTest, testing::Bool(),
                         [](const auto& which) { return which.param ? "Atomic" : "Plain"; });

TEST(PtrSwitchTest, CountsArePlainUnlessSwitched) {
  EXPECT_FALSE(Kel::threadSafePointers());
  Kel::threadSafePointersIs(true);
  EXPECT_TRUE(Kel::threadSafePointers());
  Kel::threadSafePointersIs(false);
  EXPECT_FALSE(Kel::threadSafePointers());
}

TEST_P(PtrTest, TheObjectGoesWithItsLastPointer) {
  Ptr<Object> first = object();
  Ptr<Object> second = first;
  EXPECT_EQ(first->references(), 2U);
  first = nullptr;
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(second->references(), 1U);
  second = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST_P(PtrTest, NoneIsFalseAndEqualToNull) {
  const Ptr<Object> none;
  const Ptr<Object> null = nullptr;
  EXPECT_FALSE(none);
  EXPECT_TRUE(none == nullptr);
  EXPECT_TRUE(none == null);
  EXPECT_EQ(none.get(), nullptr);
  const Ptr<Object> some = object();
  EXPECT_TRUE(some);
  EXPECT_FALSE(some == nullptr);
  EXPECT_FALSE(some == none);
}

TEST_P(PtrTest, MovingCountsNothing) {
  Ptr<Object> first = object();
  const Ptr<Object> second = std::move(first);
  EXPECT_EQ(second->references(), 1U);
  EXPECT_EQ(first.get(), nullptr);  // NOLINT: that it is empty is the point
}

TEST_P(PtrTest, AssigningToItselfKeepsTheObject) {
  Ptr<Object> pointer = object();
  const Ptr<Object>& same = pointer;
  pointer = same;
  EXPECT_EQ(pointer->references(), 1U);
  EXPECT_EQ(destroyed, 0);
}

TEST_P(PtrTest, AReadOnlyPointerSharesTheCount) {
  const Ptr<Object> writable = object();
  const Ptr<const Object> readOnly = writable;
  EXPECT_EQ(readOnly->references(), 2U);
  EXPECT_TRUE(readOnly == writable);
  static_assert(!std::is_convertible_v<Ptr<const Object>, Ptr<Object>>);
}

TEST_P(PtrTest, ABasePointerDestroysTheWholeObject) {
  Ptr<Object> base = Kel::make<Derived>(destroyed);
  EXPECT_EQ(base->references(), 1U);
  base = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST_P(PtrTest, ACastFindsTheTypeOrNone) {
  const Ptr<Object> base = Kel::make<Derived>(destroyed);
  const Ptr<Derived> derived = Kel::ptrCast<Derived>(base);
  ASSERT_TRUE(derived);
  EXPECT_EQ(derived->extra, 7);
  EXPECT_EQ(base->references(), 2U);
  EXPECT_FALSE(Kel::ptrCast<Unrelated>(base));
  EXPECT_FALSE(Kel::ptrCast<Derived>(Ptr<Object>()));
}

TEST_P(PtrTest, AReferenceCanBeGivenAwayAndTakenOver) {
  Ptr<Object> pointer = object();
  Object* raw = pointer.detach();
  EXPECT_FALSE(pointer);
  EXPECT_EQ(raw->references(), 1U);
  const auto again = Ptr<Object>::adopt(raw);
  EXPECT_EQ(again->references(), 1U);
}

TEST_P(PtrTest, APointerToTheSameObjectHashesAlike) {
  const Ptr<Object> first = object();
  const Ptr<Object> other = object();
  std::unordered_set<Ptr<Object>> set{first, first, other};
  EXPECT_EQ(set.size(), 2U);
  EXPECT_TRUE(set.contains(first));
}

// A destructor that hands the object to something that keeps and drops a pointer must not run twice.
TEST_P(PtrTest, ADestructorMayPointToItsOwnObject) {
  struct Selfish final : Object {
    using Object::Object;
    ~Selfish() override {
      const Ptr<Object> self(this);
      const Ptr<Object> copy = self;
    }
  };
  auto selfish = Kel::make<Selfish>(destroyed);
  selfish = nullptr;
  EXPECT_EQ(destroyed, 1);
}

// Assigning drops the old object last: its destructor sees the pointer with its new value.
TEST_P(PtrTest, TheOldObjectDiesAfterTheAssignment) {
  struct Watcher final : Object {
    Watcher(int& destructions, const Ptr<Object>& where, Object*& what)
        : Object(destructions), watched(where), seen(what) {}
    ~Watcher() override { seen = watched.get(); }
    const Ptr<Object>& watched;
    Object*& seen;
  };
  Object* seen = nullptr;
  Ptr<Object> pointer;
  pointer = Kel::make<Watcher>(destroyed, pointer, seen);
  const Ptr<Object> next = object();
  pointer = next;
  EXPECT_EQ(seen, next.get());
}

}  // namespace
