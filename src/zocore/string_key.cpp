#include <cstdint>
#include <cstring>
#include <limits>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <unordered_map>

#include <zocore/core_errors.h>
#include <zocore/error_composer.h>
#include <zocore/string_key.h>

namespace zocore {

// One interned text. The characters follow the entry in the same allocation, 0-terminated.
struct StringKey::Entry {
  char const* text;
  unsigned size;
};

namespace {

constexpr char kModuleId[] = "$Id: src/zocore/string_key.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

constinit StringKey::Entry const kEmptyEntry{"", 0};

[[noreturn, gnu::cold]] void throw_too_long(std::size_t size) {
  ErrorComposer("String key of {@size} bytes is too long")
      .add("size", static_cast<unsigned long long>(size))
      .throw_error(error::zocore_range, here("zocore::StringKey::token_from_string()"));
}

// Entries are never freed, so the views that key the map stay valid and a key can be used
// from any thread at any time, including during static destruction. For the same reason the
// registry itself is never destroyed (it also keeps the entries reachable for leak checkers).
class Registry {
 public:
  static Registry& instance() {
    static Registry* const registry = new Registry;
    return *registry;
  }

  StringKey::Entry const* intern(std::string_view text) {
    {
      std::shared_lock const lock(mutex_);
      auto const found = entries_.find(text);
      if (found != entries_.end()) return found->second;
    }
    std::unique_lock const lock(mutex_);
    // Another thread may have added the text between the two locks.
    auto const found = entries_.find(text);
    if (found != entries_.end()) return found->second;
    StringKey::Entry* const entry = create_entry(text);
    try {
      entries_.emplace(std::string_view(entry->text, entry->size), entry);
    } catch (...) {
      ::operator delete(entry);
      throw;
    }
    return entry;
  }

 private:
  Registry() = default;

  static StringKey::Entry* create_entry(std::string_view text) {
    void* const block = ::operator new(sizeof(StringKey::Entry) + text.size() + 1);
    char* const chars = static_cast<char*>(block) + sizeof(StringKey::Entry);
    std::memcpy(chars, text.data(), text.size());
    chars[text.size()] = '\0';
    return new (block) StringKey::Entry{chars, static_cast<unsigned>(text.size())};
  }

  std::shared_mutex mutex_;
  std::unordered_map<std::string_view, StringKey::Entry const*> entries_;
};

}  // namespace

StringKey::StringKey() noexcept : entry_(&kEmptyEntry) {}

StringKey StringKey::token_from_string(char const* text, unsigned size) {
  if (size == 0) return StringKey();
  return StringKey(Registry::instance().intern(std::string_view(text, size)));
}

StringKey StringKey::token_from_string(std::string_view text) {
  if (text.size() > std::numeric_limits<unsigned>::max()) throw_too_long(text.size());
  return token_from_string(text.data(), static_cast<unsigned>(text.size()));
}

std::string_view StringKey::value() const noexcept {
  return {entry_->text, entry_->size};
}

char const* StringKey::c_str() const noexcept {
  return entry_->text;
}

unsigned StringKey::size() const noexcept {
  return entry_->size;
}

std::size_t StringKey::hash() const noexcept {
  // Entries are heap blocks, so the low bits of the address carry little; the finaliser of
  // MurmurHash3 spreads the rest over the whole word.
  auto h = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(entry_));
  h ^= h >> 33;
  h *= 0xFF51AFD7ED558CCDULL;
  h ^= h >> 33;
  h *= 0xC4CEB9FE1A85EC53ULL;
  h ^= h >> 33;
  return static_cast<std::size_t>(h);
}

}  // namespace zocore
