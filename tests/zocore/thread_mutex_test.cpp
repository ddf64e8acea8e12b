#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <zocore/thread_mutex.h>

namespace {

using zocore::ThreadMutex;
using zocore::ThreadMutexGuard;

TEST(ThreadMutexTest, AcquireAndReleaseRepeatedly) {
  ThreadMutex mutex;
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(mutex.acquire(), 0);
    mutex.release();
  }
}

// The lock must be free again for another thread once the guard's scope ends; a guard that
// kept it would block the second thread forever.
TEST(ThreadMutexTest, GuardReleasesAtScopeEnd) {
  ThreadMutex mutex;
  { ThreadMutexGuard const guard(mutex); }
  int result = -2;
  std::thread other([&] {
    result = mutex.acquire();
    if (result == 0) mutex.release();
  });
  other.join();
  EXPECT_EQ(result, 0);
}

TEST(ThreadMutexThreadsTest, IncrementsUnderTheMutexAreNotLost) {
  ThreadMutex mutex;
  long counter = 0;  // deliberately not atomic: only the mutex protects it
  constexpr int kThreads = 4;
  constexpr int kIncrements = 50000;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kIncrements; ++i) {
        if (t % 2 == 0) {
          ThreadMutexGuard const guard(mutex);
          ++counter;
        } else {
          ASSERT_EQ(mutex.acquire(), 0);
          ++counter;
          mutex.release();
        }
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(counter, long{kThreads} * kIncrements);
}

}  // namespace
