// An interface pointer paired with the reference that keeps its implementation alive.
#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

#include <zocore/atomic_ref_count.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>

namespace zocore {

// InterfacePtr<I> hands out an interface (I*) of a reference-counted object together with one
// reference to that object (Owner). It is how streams travel between archives and callers: the
// interface is what the caller uses, the owner keeps the implementing object alive. Copying
// shares the reference; an empty InterfacePtr holds neither.
template <class I, class Owner = RefCountPtr<RefCounted<AtomicRefCount>>>
class InterfacePtr {
 public:
  using interface_type = I;
  using owner_type = Owner;

  constexpr InterfacePtr() noexcept = default;
  constexpr InterfacePtr(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor)

  // From a reference-counted implementation: T derives from I and from the owner's counted base.
  template <class T, class = std::enable_if_t<std::is_convertible_v<T*, I*> &&
                                              std::is_convertible_v<RefCountPtr<T>, Owner>>>
  InterfacePtr(RefCountPtr<T> const& impl) noexcept  // NOLINT(google-explicit-constructor)
      : iface_(impl.get()), owner_(impl) {}

  // An interface and the reference that keeps it alive; both must refer to the same object.
  InterfacePtr(I* iface, Owner owner) noexcept : iface_(iface), owner_(std::move(owner)) {}

  InterfacePtr(InterfacePtr const&) = default;
  InterfacePtr(InterfacePtr&& other) noexcept
      : iface_(std::exchange(other.iface_, nullptr)), owner_(std::move(other.owner_)) {}
  InterfacePtr& operator=(InterfacePtr const&) = default;
  InterfacePtr& operator=(InterfacePtr&& other) noexcept {
    iface_ = std::exchange(other.iface_, nullptr);
    owner_ = std::move(other.owner_);
    return *this;
  }
  ~InterfacePtr() = default;

  void reset() noexcept {
    iface_ = nullptr;
    owner_ = Owner();
  }

  I* get() const noexcept { return iface_; }
  I& operator*() const noexcept { return *iface_; }
  I* operator->() const noexcept { return iface_; }
  explicit operator bool() const noexcept { return iface_ != nullptr; }
  Owner const& owner() const noexcept { return owner_; }

  void swap(InterfacePtr& other) noexcept {
    std::swap(iface_, other.iface_);
    owner_.swap(other.owner_);
  }

 private:
  I* iface_ = nullptr;
  Owner owner_;
};

}  // namespace zocore
