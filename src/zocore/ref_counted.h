// Intrusive reference counting base.
#pragma once

#include <zocore/atomic_ref_count.h>

namespace zocore {

// Base of every reference-counted object. A new object starts with a count of 0; the first
// RefCountPtr that adopts it raises the count to 1. When the count returns to 0 the virtual
// destroy() runs, which deletes the object unless a derived class recycles it (the memory pools
// do). Copying a reference-counted object never copies its count.
template <class Counter>
class RefCounted {
 public:
  void add_ref() const noexcept { count_.increment(); }

  void release() const noexcept {
    if (count_.decrement()) const_cast<RefCounted*>(this)->destroy();
  }

  unsigned ref_count() const noexcept { return count_.value(); }

  // True when the caller holds the only reference: the object may be modified in place.
  bool is_unique() const noexcept { return count_.value() == 1; }

 protected:
  RefCounted() noexcept = default;
  RefCounted(RefCounted const&) noexcept {}
  RefCounted& operator=(RefCounted const&) noexcept { return *this; }
  virtual ~RefCounted() = default;

  // Called once the last reference is gone. The default deletes the object.
  virtual void destroy() { delete this; }

 private:
  mutable Counter count_;
};

}  // namespace zocore
