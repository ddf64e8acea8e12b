// Interned UUID keys.
#pragma once

#include <zocore/export.h>
#include <zocore/uuid.h>

#include <cstddef>

namespace zocore {

// Like StringKey, for UUIDs: equal UUIDs give the same registry entry. Thread-safe.
class ZOCORE_API UuidKey {
 public:
  UuidKey() noexcept;  // the key of the null UUID
  explicit UuidKey(Uuid const& uuid);

  Uuid const& uuid() const noexcept;

  friend bool operator==(UuidKey a, UuidKey b) noexcept { return a.entry_ == b.entry_; }
  std::size_t hash() const noexcept;

 private:
  Uuid const* entry_;
};

}  // namespace zocore
