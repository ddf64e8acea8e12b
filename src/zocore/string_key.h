// Interned string keys.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include <zocore/export.h>

namespace zocore {

// A StringKey is a handle to one entry of a process-wide registry of strings: equal texts give
// the same entry, so keys compare and hash by identity. Entries live until the process ends.
// Interning is thread-safe: looking up a text that is already registered takes a shared lock
// and allocates nothing; a new text takes the exclusive lock and one allocation. A key itself is
// a pointer and can be copied freely. The hash is that of the entry, so it differs between runs.
class ZOCORE_API StringKey {
 public:
  StringKey() noexcept;  // the empty key; no registry access
  // The key of the `size` bytes at `text` (copied on first use; any bytes, including 0).
  // `text` may be null when `size` is 0.
  static StringKey token_from_string(char const* text, unsigned size);
  // Throws error::zocore_range for a text longer than the 32-bit size of a key.
  static StringKey token_from_string(std::string_view text);

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

template <>
struct std::hash<zocore::StringKey> {
  std::size_t operator()(zocore::StringKey key) const noexcept { return key.hash(); }
};
