// Owning pointer to an intrusively reference-counted object.
#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

namespace zocore {

// RefCountPtr<T> owns one reference to a T that derives from RefCounted<...>. Constructing it from
// a raw pointer takes a new reference (the count of a freshly created object goes from 0 to 1);
// copying takes another; destruction and reassignment drop one. Moving transfers the reference.
// Works with const T (the count is mutable).
template <class T>
class RefCountPtr {
 public:
  using element_type = T;

  constexpr RefCountPtr() noexcept = default;
  constexpr RefCountPtr(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor)

  // Takes a new reference to p (may be null).
  explicit RefCountPtr(T* p) noexcept : ptr_(p) {
    if (ptr_) ptr_->add_ref();
  }

  RefCountPtr(RefCountPtr const& other) noexcept : RefCountPtr(other.ptr_) {}
  RefCountPtr(RefCountPtr&& other) noexcept : ptr_(std::exchange(other.ptr_, nullptr)) {}

  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  RefCountPtr(RefCountPtr<U> const& other) noexcept  // NOLINT(google-explicit-constructor)
      : RefCountPtr(other.get()) {}

  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  RefCountPtr(RefCountPtr<U>&& other) noexcept  // NOLINT(google-explicit-constructor)
      : ptr_(other.detach()) {}

  ~RefCountPtr() {
    if (ptr_) ptr_->release();
  }

  RefCountPtr& operator=(RefCountPtr const& other) noexcept {
    if (this != &other) RefCountPtr(other).swap(*this);
    return *this;
  }
  RefCountPtr& operator=(RefCountPtr&& other) noexcept {
    RefCountPtr(std::move(other)).swap(*this);
    return *this;
  }
  RefCountPtr& operator=(std::nullptr_t) noexcept {
    reset();
    return *this;
  }

  // Drops the held reference and takes a new one to p.
  void reset(T* p = nullptr) noexcept { RefCountPtr(p).swap(*this); }

  // Gives up ownership without releasing: the caller now owns the reference.
  [[nodiscard]] T* detach() noexcept { return std::exchange(ptr_, nullptr); }

  // Takes over a reference the caller already owns (the count is not raised).
  static RefCountPtr adopt(T* p) noexcept {
    RefCountPtr r;
    r.ptr_ = p;
    return r;
  }

  void swap(RefCountPtr& other) noexcept { std::swap(ptr_, other.ptr_); }

  T* get() const noexcept { return ptr_; }
  T& operator*() const noexcept { return *ptr_; }
  T* operator->() const noexcept { return ptr_; }
  explicit operator bool() const noexcept { return ptr_ != nullptr; }

  friend bool operator==(RefCountPtr const& a, RefCountPtr const& b) noexcept {
    return a.ptr_ == b.ptr_;
  }
  friend bool operator==(RefCountPtr const& a, std::nullptr_t) noexcept { return !a.ptr_; }

 private:
  T* ptr_ = nullptr;
};

template <class T, class... Args>
RefCountPtr<T> make_ref_counted(Args&&... args) {
  return RefCountPtr<T>(new T(std::forward<Args>(args)...));
}

template <class T, class U>
RefCountPtr<T> static_pointer_cast(RefCountPtr<U> const& p) noexcept {
  return RefCountPtr<T>(static_cast<T*>(p.get()));
}

}  // namespace zocore
