// Interned UUID keys.
#pragma once

#include <cstddef>
#include <functional>

#include <zocore/export.h>
#include <zocore/uuid.h>

namespace zocore {

// Like StringKey, for UUIDs: equal UUIDs give the same registry entry, so keys compare by
// identity. Entries live until the process ends. Thread-safe: a registered UUID is found under a
// shared lock without allocating; a new one takes the exclusive lock and one allocation.
class ZOCORE_API UuidKey {
 public:
  UuidKey() noexcept;                  // the key of the null UUID; no registry access
  explicit UuidKey(Uuid const& uuid);  // the null UUID gives the default key

  Uuid const& uuid() const noexcept;

  friend bool operator==(UuidKey a, UuidKey b) noexcept { return a.entry_ == b.entry_; }
  std::size_t hash() const noexcept;  // UuidHash of the UUID

 private:
  Uuid const* entry_;
};

}  // namespace zocore

template <>
struct std::hash<zocore::UuidKey> {
  std::size_t operator()(zocore::UuidKey key) const noexcept { return key.hash(); }
};
