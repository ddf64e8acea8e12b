// Thread-safe reference counter used by every reference-counted object of the framework.
#pragma once

#include <atomic>

namespace zocore {

// A counter whose increment and decrement are atomic, so the last reference to an object may be
// dropped on any thread. Increments are relaxed (taking a reference needs no ordering); the
// decrement is acquire-release so that everything written through the object happens before its
// destruction.
class AtomicRefCount {
 public:
  constexpr AtomicRefCount() noexcept = default;
  AtomicRefCount(AtomicRefCount const&) = delete;
  AtomicRefCount& operator=(AtomicRefCount const&) = delete;

  void increment() noexcept { count_.fetch_add(1, std::memory_order_relaxed); }

  // Returns true when the count reached zero.
  bool decrement() noexcept { return count_.fetch_sub(1, std::memory_order_acq_rel) == 1; }

  // The current count. Exact only while no other thread changes it; a value of 1 seen by the
  // sole holder stays 1 (nobody else can take a reference), which is what copy-on-write needs.
  unsigned value() const noexcept { return count_.load(std::memory_order_acquire); }

 private:
  std::atomic<unsigned> count_{0};
};

}  // namespace zocore
