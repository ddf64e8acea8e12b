#include <thread>

#include <gtest/gtest.h>

#include <zocore/atomic_ref_count.h>
#include <zocore/interface_ptr.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zocore/stream.h>
#include <zocore/thread_mutex.h>

namespace {

using zocore::InterfacePtr;
using zocore::IReadStream;
using zocore::IWriteStream;
using zocore::RefCountPtr;
using Counted = zocore::RefCounted<zocore::AtomicRefCount>;

std::atomic<int> g_deletes{0};

struct Tracked : Counted {
  Tracked() = default;
  Tracked(Tracked const&) = default;
  ~Tracked() override { ++g_deletes; }
};
struct Derived : Tracked {};

// The counted base last, so that neither interface pointer coincides with the owner's.
struct Pipe : IReadStream, IWriteStream, Tracked {
  unsigned read(void*, unsigned) override { return 0; }
  unsigned skip(unsigned) override { return 0; }
  unsigned bytes_remaining() const override { return written; }
  void write(void const*, unsigned size) override { written += size; }
  unsigned written = 0;
};

static_assert(std::is_convertible_v<RefCountPtr<Derived>, RefCountPtr<Tracked const>>);
static_assert(!std::is_convertible_v<RefCountPtr<Tracked>, RefCountPtr<Derived>>);
static_assert(!std::is_convertible_v<Tracked*, RefCountPtr<Tracked>>);
static_assert(!std::is_constructible_v<InterfacePtr<IWriteStream>, RefCountPtr<Tracked>>);

TEST(RefCountPtrTest, CountsCopiesMovesAndSelfAssignmentAndDeletesOnce) {
  g_deletes = 0;
  auto* const raw = new Tracked;
  EXPECT_EQ(raw->ref_count(), 0u);
  RefCountPtr<Tracked> a(raw);
  EXPECT_TRUE(raw->is_unique());
  {
    RefCountPtr<Tracked> const b(a);  // NOLINT(performance-unnecessary-copy-initialization)
    RefCountPtr<Tracked> c(new Tracked(*a));
    EXPECT_EQ(c->ref_count(), 1u);  // the count is not copied
    c = b;                          // drops the copy
    EXPECT_EQ(raw->ref_count(), 3u);
    EXPECT_FALSE(raw->is_unique());
    EXPECT_EQ(g_deletes, 1);
  }
  RefCountPtr<Tracked> c(new Tracked);
  c = std::move(a);  // drops c's old object
  EXPECT_FALSE(a);   // NOLINT(bugprone-use-after-move): moved-from is empty by contract
  EXPECT_EQ(c.get(), raw);
  RefCountPtr<Tracked>& alias = c;
  c = alias;
  c = std::move(alias);
  EXPECT_EQ(raw->ref_count(), 1u);
  EXPECT_EQ(g_deletes, 2);
  Tracked* const detached = c.detach();
  c.reset(new Tracked);
  c = RefCountPtr<Tracked>::adopt(detached);  // drops the reset object, takes over the count
  EXPECT_EQ(detached->ref_count(), 1u);
  EXPECT_EQ(g_deletes, 3);
  RefCountPtr<Derived> derived = zocore::make_ref_counted<Derived>();
  RefCountPtr<Tracked> const shared(derived);
  EXPECT_EQ(zocore::static_pointer_cast<Derived>(shared), derived);
  RefCountPtr<Tracked const> const moved(std::move(derived));
  EXPECT_FALSE(derived);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(moved->ref_count(), 2u);
  c = nullptr;
  EXPECT_EQ(g_deletes, 4);
}

// The interface pointers are adjusted to the object's bases, and the owner keeps it alive.
TEST(RefCountPtrTest, InterfacePtrSharesTheObjectUntilTheLastOwnerGoes) {
  g_deletes = 0;
  InterfacePtr<IReadStream> reader;
  InterfacePtr<IWriteStream> writer;
  {
    RefCountPtr<Pipe> const pipe(new Pipe);
    reader = pipe;
    writer = InterfacePtr<IWriteStream>(pipe.get(), pipe);
    EXPECT_EQ(reader.owner().get(), static_cast<Counted*>(pipe.get()));
  }
  writer->write("abc", 3);
  EXPECT_EQ(reader->bytes_remaining(), 3u);
  InterfacePtr<IReadStream> copy(reader);
  InterfacePtr<IReadStream> moved(std::move(copy));
  EXPECT_FALSE(copy || copy.owner());  // NOLINT(bugprone-use-after-move): moved-from is empty
  copy = moved;
  InterfacePtr<IReadStream>& alias = moved;
  moved = std::move(alias);
  EXPECT_EQ(moved.get(), reader.get());
  EXPECT_EQ(moved.owner()->ref_count(), 4u);
  writer.reset();
  reader = nullptr;
  copy = std::move(moved);
  EXPECT_EQ(g_deletes, 0);
  copy = nullptr;
  EXPECT_EQ(g_deletes, 1);
}

// Copies race on one count, and a counter that only the mutex protects must lose no increment.
TEST(RefCountPtrThreadsTest, ConcurrentCopiesDeleteOnceAndTheMutexExcludes) {
  g_deletes = 0;
  zocore::ThreadMutex mutex;
  long counter = 0;
  for (int trial = 1; trial <= 5; ++trial) {
    std::vector<RefCountPtr<Tracked>> seeds(4, RefCountPtr<Tracked>(new Tracked));
    {
      std::vector<std::jthread> threads;
      for (RefCountPtr<Tracked>& seed : seeds) {
        threads.emplace_back([&mutex, &counter, seed = std::move(seed)]() mutable {
          for (int i = 0; i < 20000; ++i) {
            RefCountPtr<Tracked> copy(seed);
            RefCountPtr<Tracked> const moved(std::move(copy));
            zocore::ThreadMutexGuard const guard(mutex);
            ++counter;
          }
          seed.reset();  // the last thread to get here deletes the object
        });
      }
    }
    EXPECT_EQ(g_deletes, trial);
  }
  EXPECT_EQ(counter, 5 * 4 * 20000L);
  ASSERT_EQ(mutex.acquire(), 0);  // and the guards released it
  mutex.release();
}

}  // namespace
