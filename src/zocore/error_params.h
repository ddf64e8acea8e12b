// Named parameters of an error.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include <zocore/export.h>
#include <zocore/source_string.h>

namespace zocore {

// An ordered map from parameter name to value text. Numbers are stored as their decimal text.
// Setting a name again replaces its value. Iteration is in ascending name order.
class ZOCORE_API ErrorParams {
 public:
  using Map = std::map<SourceString, std::string, std::less<>>;
  using const_iterator = Map::const_iterator;

  ErrorParams() = default;

  // `name` is normally a literal; pass a SourceString to store a name read at run time.
  ErrorParams& set(char const* name, std::string_view value);
  // A null `value` is stored as empty text.
  ErrorParams& set(char const* name, char const* value) {
    return set(name, value ? std::string_view(value) : std::string_view());
  }
  ErrorParams& set(char const* name, std::string const& value) {
    return set(name, std::string_view(value));
  }
  ErrorParams& set(char const* name, int value);
  ErrorParams& set(char const* name, unsigned value);
  ErrorParams& set(char const* name, long value);
  ErrorParams& set(char const* name, unsigned long value);
  ErrorParams& set(char const* name, long long value);
  ErrorParams& set(char const* name, unsigned long long value);
  // The shortest text that reads back as the same double ("0.1", "3.5e+38", "inf", "nan").
  ErrorParams& set(char const* name, double value);
  ErrorParams& set(SourceString name, std::string value);

  // The value of `name`, or null.
  std::string const* find(std::string_view name) const;

  bool empty() const noexcept { return map_.empty(); }
  std::size_t size() const noexcept { return map_.size(); }
  const_iterator begin() const noexcept { return map_.begin(); }
  const_iterator end() const noexcept { return map_.end(); }
  void clear() noexcept { map_.clear(); }
  void swap(ErrorParams& other) noexcept { map_.swap(other.map_); }

  friend bool operator==(ErrorParams const&, ErrorParams const&) = default;

 private:
  Map map_;
};

}  // namespace zocore
