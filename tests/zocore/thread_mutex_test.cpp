#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <zocore/thread_mutex.h>

namespace {

using zocore::ThreadMutex;
using zocore::ThreadMutexGuard;

// A guard that kept the lock past its scope would block the other thread forever.
TEST(ThreadMutexTest, AcquireReleaseAndGuardFreeTheLock) {
  ThreadMutex mutex;
  ASSERT_EQ(mutex.acquire(), 0);
  mutex.release();
  { ThreadMutexGuard const guard(mutex); }
  int result = -2;
  std::thread([&] {
    result = mutex.acquire();
    if (result == 0) mutex.release();
  }).join();
  EXPECT_EQ(result, 0);
}

TEST(ThreadMutexThreadsTest, IncrementsUnderTheMutexAreNotLost) {
  ThreadMutex mutex;
  long counter = 0;  // deliberately not atomic: only the mutex protects it
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50000; ++i) {
        ThreadMutexGuard const guard(mutex);
        ++counter;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(counter, 4 * 50000L);
}

}  // namespace
