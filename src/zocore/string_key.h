// Interned string keys.
#pragma once

#include <zocore/export.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace zocore {

// A StringKey is a handle to one entry of a process-wide registry of strings: equal texts give
// the same entry, so keys compare and hash by identity. Entries live until the process ends.
// Interning is thread-safe; a key itself is a pointer and can be copied freely.
class ZOCORE_API StringKey {
 public:
  StringKey() noexcept;  // the empty key
  static StringKey token_from_string(char const* text, unsigned size);
  static StringKey token_from_string(std::string_view text) {
    return token_from_string(text.data(), static_cast<unsigned>(text.size()));
  }

  // The key's text (0-terminated; valid for the life of the process).
  std::string_view value() const noexcept;
  char const* c_str() const noexcept;
  unsigned size() const noexcept;
  bool empty() const noexcept { return size() == 0; }

  friend bool operator==(StringKey a, StringKey b) noexcept { return a.entry_ == b.entry_; }
  std::size_t hash() const noexcept;

  struct Entry;

 private:
  explicit StringKey(Entry const* entry) noexcept : entry_(entry) {}
  Entry const* entry_;
};

}  // namespace zocore
