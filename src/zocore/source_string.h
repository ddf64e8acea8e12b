// Immutable string that refers to static text without copying or owns a heap copy.
#pragma once

#include <compare>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include <zocore/export.h>

namespace zocore {

// SourceString keeps either a pointer to text with static storage duration (no copy, no
// allocation; the usual case for error messages, parameter names and source locations) or its
// own heap copy. Copying a static string copies the pointer; copying an owned one copies the
// bytes. Moving never allocates. An owned copy is always followed by a 0 byte; a static text is
// followed by one when it was given whole (without a shorter size), so c_str() is a C string
// except for a static string built from part of a longer text.
class ZOCORE_API SourceString {
 public:
  constexpr SourceString() noexcept = default;

  // With is_static true the text must outlive every copy of this string (a literal); otherwise
  // it is copied.
  constexpr SourceString(char const* text, bool is_static)
      : SourceString(text, text ? length_of(text) : 0, is_static) {}
  constexpr SourceString(char const* text, unsigned size, bool is_static) {
    if (is_static || !text) {
      data_ = text ? text : "";
      size_ = text ? size : 0;
    } else {
      copy_from(text, size);
    }
  }
  explicit SourceString(std::string_view text) {
    copy_from(text.data(), checked_size(text.size()));
  }

  SourceString(SourceString const& other) : SourceString(other.data_, other.size_, !other.owned_) {}
  constexpr SourceString(SourceString&& other) noexcept
      : data_(std::exchange(other.data_, "")),
        size_(std::exchange(other.size_, 0)),
        owned_(std::exchange(other.owned_, false)) {}
  SourceString& operator=(SourceString const& other) {
    if (this != &other) SourceString(other).swap(*this);
    return *this;
  }
  SourceString& operator=(SourceString&& other) noexcept {
    SourceString(std::move(other)).swap(*this);
    return *this;
  }
  constexpr ~SourceString() {
    if (owned_) delete[] data_;
  }

  // Replaces the text, copying it unless is_static.
  void assign(char const* text, unsigned size, bool is_static) {
    SourceString(text, size, is_static).swap(*this);
  }
  void clear() noexcept { SourceString().swap(*this); }
  constexpr void swap(SourceString& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(owned_, other.owned_);
  }

  constexpr char const* c_str() const noexcept { return data_; }
  constexpr char const* data() const noexcept { return data_; }
  constexpr unsigned size() const noexcept { return size_; }
  constexpr bool empty() const noexcept { return size_ == 0; }
  constexpr bool is_static() const noexcept { return !owned_; }
  constexpr std::string_view view() const noexcept { return {data_, size_}; }
  std::string str() const { return std::string(data_, size_); }

  friend bool operator==(SourceString const& a, SourceString const& b) noexcept {
    return a.view() == b.view();
  }
  friend std::strong_ordering operator<=>(SourceString const& a, SourceString const& b) noexcept {
    return a.view() <=> b.view();
  }
  friend bool operator==(SourceString const& a, std::string_view b) noexcept {
    return a.view() == b;
  }
  friend std::strong_ordering operator<=>(SourceString const& a, std::string_view b) noexcept {
    return a.view() <=> b;
  }

 private:
  // char_traits folds the length of a literal at compile time, so building a location on a
  // success path (to hand it to a check) costs a few stores rather than two byte loops.
  static constexpr unsigned length_of(char const* text) {
    return static_cast<unsigned>(std::char_traits<char>::length(text));
  }
  static unsigned checked_size(std::size_t n);
  constexpr void copy_from(char const* text, unsigned size) {
    char* p = new char[size + 1u];
    for (unsigned i = 0; i < size; ++i)
      p[i] = text[i];
    p[size] = 0;
    data_ = p;
    size_ = size;
    owned_ = true;
  }

  char const* data_ = "";
  unsigned size_ = 0;
  bool owned_ = false;
};

inline void swap(SourceString& a, SourceString& b) noexcept {
  a.swap(b);
}

}  // namespace zocore
