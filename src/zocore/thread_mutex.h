// Process-local mutex with the acquire/release interface the framework uses.
#pragma once

#include <mutex>

#include <zocore/export.h>

namespace zocore {

// Wraps std::mutex. acquire() returns 0 on success and -1 when the lock could not be taken (the
// caller then proceeds unlocked and must not call release()).
class ZOCORE_API ThreadMutex {
 public:
  ThreadMutex() = default;
  ThreadMutex(ThreadMutex const&) = delete;
  ThreadMutex& operator=(ThreadMutex const&) = delete;

  int acquire() noexcept;
  void release() noexcept;

 private:
  std::mutex mutex_;
};

// Holds a ThreadMutex for one scope; skips the release when the acquire failed.
class ThreadMutexGuard {
 public:
  explicit ThreadMutexGuard(ThreadMutex& mutex) noexcept
      : mutex_(mutex), locked_(mutex.acquire() == 0) {}
  ThreadMutexGuard(ThreadMutexGuard const&) = delete;
  ThreadMutexGuard& operator=(ThreadMutexGuard const&) = delete;
  ~ThreadMutexGuard() {
    if (locked_) mutex_.release();
  }

 private:
  ThreadMutex& mutex_;
  bool locked_;
};

}  // namespace zocore
