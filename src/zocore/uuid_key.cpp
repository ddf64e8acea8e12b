#include <mutex>
#include <shared_mutex>
#include <unordered_set>

#include <zocore/uuid_key.h>

namespace zocore {
namespace {

constinit Uuid const kNullEntry{};

// Nodes of an unordered_set never move, so the address of an element is a stable entry. The
// registry is never destroyed: keys stay valid during static destruction and the entries stay
// reachable for leak checkers.
class Registry {
 public:
  static Registry& instance() {
    static Registry* const registry = new Registry;
    return *registry;
  }

  Uuid const* intern(Uuid const& uuid) {
    {
      std::shared_lock const lock(mutex_);
      auto const found = entries_.find(uuid);
      if (found != entries_.end()) return &*found;
    }
    std::unique_lock const lock(mutex_);
    return &*entries_.insert(uuid).first;
  }

 private:
  Registry() = default;

  std::shared_mutex mutex_;
  std::unordered_set<Uuid, UuidHash> entries_;
};

}  // namespace

UuidKey::UuidKey() noexcept : entry_(&kNullEntry) {}

UuidKey::UuidKey(Uuid const& uuid)
    : entry_(uuid.is_null() ? &kNullEntry : Registry::instance().intern(uuid)) {}

Uuid const& UuidKey::uuid() const noexcept {
  return *entry_;
}

std::size_t UuidKey::hash() const noexcept {
  return UuidHash()(*entry_);
}

}  // namespace zocore
