#include <atomic>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <zocore/atomic_ref_count.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>

namespace {

using zocore::RefCountPtr;

// Counts destroy() calls and destructions in counters owned by the test.
class Tracked : public zocore::RefCounted<zocore::AtomicRefCount> {
 public:
  Tracked(std::atomic<int>* destroys, std::atomic<int>* deletes)
      : destroys_(destroys), deletes_(deletes) {}
  Tracked(Tracked const& other) = default;
  ~Tracked() override { ++*deletes_; }

  int value = 0;

 protected:
  void destroy() override {
    ++*destroys_;
    RefCounted::destroy();
  }

 private:
  std::atomic<int>* destroys_;
  std::atomic<int>* deletes_;
};

class Derived : public Tracked {
 public:
  using Tracked::Tracked;
};

// destroy() that recycles instead of deleting, as the memory pools do.
class Recycled : public zocore::RefCounted<zocore::AtomicRefCount> {
 public:
  int destroys = 0;

 protected:
  void destroy() override { ++destroys; }
};

class RefCountPtrTest : public ::testing::Test {
 protected:
  Tracked* make() { return new Tracked(&destroys_, &deletes_); }
  Derived* make_derived() { return new Derived(&destroys_, &deletes_); }

  std::atomic<int> destroys_{0};
  std::atomic<int> deletes_{0};
};

TEST_F(RefCountPtrTest, CountFollowsCopiesAndDestroyRunsOnceAtZero) {
  Tracked* const raw = make();
  EXPECT_EQ(raw->ref_count(), 0u);
  {
    RefCountPtr<Tracked> const a(raw);
    EXPECT_EQ(raw->ref_count(), 1u);
    EXPECT_TRUE(raw->is_unique());
    {
      RefCountPtr<Tracked> const b(a);  // NOLINT(performance-unnecessary-copy-initialization)
      RefCountPtr<Tracked> c;
      c = b;
      EXPECT_EQ(raw->ref_count(), 3u);
      EXPECT_FALSE(raw->is_unique());
    }
    EXPECT_EQ(raw->ref_count(), 1u);
    EXPECT_EQ(destroys_, 0);
  }
  EXPECT_EQ(destroys_, 1);
  EXPECT_EQ(deletes_, 1);
}

TEST_F(RefCountPtrTest, MovingTransfersTheReference) {
  RefCountPtr<Tracked> a(make());
  Tracked* const raw = a.get();
  RefCountPtr<Tracked> b(std::move(a));
  EXPECT_FALSE(a);  // NOLINT(bugprone-use-after-move): moved-from is empty by contract
  EXPECT_EQ(b.get(), raw);
  EXPECT_EQ(raw->ref_count(), 1u);

  RefCountPtr<Tracked> c(make());
  c = std::move(b);  // drops c's old object
  EXPECT_EQ(c.get(), raw);
  EXPECT_EQ(raw->ref_count(), 1u);
  EXPECT_EQ(destroys_, 1);
  c = nullptr;
  EXPECT_EQ(destroys_, 2);
  EXPECT_EQ(deletes_, 2);
}

TEST_F(RefCountPtrTest, SelfAssignmentKeepsTheObject) {
  RefCountPtr<Tracked> a(make());
  RefCountPtr<Tracked>& alias = a;
  a = alias;
  EXPECT_EQ(a->ref_count(), 1u);
  a = std::move(alias);
  ASSERT_TRUE(a);
  EXPECT_EQ(a->ref_count(), 1u);
  EXPECT_EQ(destroys_, 0);
}

TEST_F(RefCountPtrTest, ResetDropsTheOldReferenceAndTakesANewOne) {
  RefCountPtr<Tracked> a(make());
  Tracked* const second = make();
  a.reset(second);
  EXPECT_EQ(destroys_, 1);
  EXPECT_EQ(a.get(), second);
  EXPECT_EQ(second->ref_count(), 1u);
  a.reset();
  EXPECT_FALSE(a);
  EXPECT_EQ(destroys_, 2);
}

TEST_F(RefCountPtrTest, ConvertingConstructionFromDerived) {
  RefCountPtr<Derived> derived(make_derived());
  RefCountPtr<Tracked> const shared(derived);
  EXPECT_EQ(shared.get(), derived.get());
  EXPECT_EQ(derived->ref_count(), 2u);

  Derived* const raw = derived.get();
  RefCountPtr<Tracked const> const moved(std::move(derived));
  EXPECT_FALSE(derived);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(moved.get(), raw);
  EXPECT_EQ(raw->ref_count(), 2u);

  static_assert(std::is_convertible_v<RefCountPtr<Derived>, RefCountPtr<Tracked const>>);
  static_assert(!std::is_convertible_v<RefCountPtr<Tracked>, RefCountPtr<Derived>>);
  static_assert(!std::is_convertible_v<Tracked*, RefCountPtr<Tracked>>);
}

TEST_F(RefCountPtrTest, DetachAndAdoptHandOverWithoutCounting) {
  RefCountPtr<Tracked> a(make());
  Tracked* const raw = a.detach();
  EXPECT_FALSE(a);
  EXPECT_EQ(raw->ref_count(), 1u);
  EXPECT_EQ(destroys_, 0);
  {
    auto const adopted = RefCountPtr<Tracked>::adopt(raw);
    EXPECT_EQ(raw->ref_count(), 1u);
  }
  EXPECT_EQ(destroys_, 1);
  EXPECT_EQ(deletes_, 1);
}

TEST_F(RefCountPtrTest, MakeAndCastHelpers) {
  auto const made = zocore::make_ref_counted<Derived>(&destroys_, &deletes_);
  EXPECT_EQ(made->ref_count(), 1u);
  RefCountPtr<Tracked> const base = made;
  auto const back = zocore::static_pointer_cast<Derived>(base);
  EXPECT_EQ(back.get(), made.get());
  EXPECT_EQ(made->ref_count(), 3u);
}

TEST_F(RefCountPtrTest, ComparisonAndAccess) {
  RefCountPtr<Tracked> const a(make());
  RefCountPtr<Tracked> const b(a);  // NOLINT(performance-unnecessary-copy-initialization)
  RefCountPtr<Tracked> const c(make());
  RefCountPtr<Tracked> const empty;
  EXPECT_EQ(a, b);
  EXPECT_NE(a, c);
  EXPECT_EQ(empty, nullptr);
  EXPECT_NE(a, nullptr);
  a->value = 5;
  EXPECT_EQ((*b).value, 5);
  EXPECT_FALSE(empty);
  EXPECT_EQ(empty.get(), nullptr);
}

TEST_F(RefCountPtrTest, CopyingAnObjectDoesNotCopyItsCount) {
  RefCountPtr<Tracked> const a(make());
  RefCountPtr<Tracked> const b(a);  // NOLINT(performance-unnecessary-copy-initialization)
  RefCountPtr<Tracked> const copy(new Tracked(*a));
  EXPECT_EQ(copy->ref_count(), 1u);
  EXPECT_EQ(a->ref_count(), 2u);
}

TEST(RefCountedTest, RecyclingDestroyRunsOncePerLastRelease) {
  Recycled object;
  {
    RefCountPtr<Recycled> const a(&object);
    RefCountPtr<Recycled> const b(a);  // NOLINT(performance-unnecessary-copy-initialization)
  }
  EXPECT_EQ(object.destroys, 1);
  EXPECT_EQ(object.ref_count(), 0u);
  // A recycled object starts again from a count of zero.
  { RefCountPtr<Recycled> const again(&object); }
  EXPECT_EQ(object.destroys, 2);
}

TEST(RefCountPtrThreadsTest, ConcurrentCopiesDestroyExactlyOnce) {
  std::atomic<int> destroys{0};
  std::atomic<int> deletes{0};
  constexpr int kThreads = 4;
  constexpr int kRounds = 20000;
  for (int trial = 0; trial < 5; ++trial) {
    RefCountPtr<Tracked> shared(new Tracked(&destroys, &deletes));
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    std::vector<RefCountPtr<Tracked>> seeds(kThreads, shared);
    shared.reset();
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([seed = std::move(seeds[t])]() mutable {
        for (int i = 0; i < kRounds; ++i) {
          RefCountPtr<Tracked> copy(seed);
          RefCountPtr<Tracked> moved(std::move(copy));
        }
        seed.reset();  // the last of the four threads to get here destroys the object
      });
    }
    for (std::thread& thread : threads)
      thread.join();
    EXPECT_EQ(destroys, trial + 1);
    EXPECT_EQ(deletes, trial + 1);
  }
}

}  // namespace
