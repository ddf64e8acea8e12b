#include <cstring>
#include <new>
#include <string>
#include <typeinfo>
#include <utility>

#include <uriparser/Uri.h>

#include <zocore/atomic_ref_count.h>
#include <zocore/error_composer.h>
#include <zocore/numeric.h>
#include <zocore/ref_counted.h>
#include <zouri/error_codes.h>
#include <zouri/uri_reference.h>

namespace zouri {
namespace {

constexpr char kModuleId[] = "$Id: src/zouri/uri_reference.cpp $";

[[noreturn, gnu::cold, gnu::noinline]] void throw_malformed(char const* text, unsigned size,
                                                            unsigned position) {
  zocore::ErrorComposer("Malformed URI reference at position {@position}.  Text={@text}")
      .add("position", position)
      .add("text", std::string_view(text, size))
      .throw_error(error::zouri_syntax,
                   {"zouri::UriReference::UriReference()", kModuleId, __builtin_LINE()});
}

unsigned checked_length(char const* text) {
  std::size_t const length = std::strlen(text);
  if (length > 0xFFFFFFFFu) [[unlikely]]
    zocore::impl::safe_cast_throw_value_truncated(typeid(unsigned), length);
  return static_cast<unsigned>(length);
}

}  // namespace

struct UriReference::Text : zocore::RefCounted<zocore::AtomicRefCount> {
  explicit Text(std::string_view text) : value(text) {}
  std::string value;
};

UriReference::UriReference() noexcept = default;

UriReference::UriReference(char const* text, unsigned size) {
  static char const kEmpty[] = "";
  if (size == 0) text = kEmpty;
  UriUriA uri;
  char const* error_at = nullptr;
  int const result = uriParseSingleUriExA(&uri, text, text + size, &error_at);
  if (result == URI_ERROR_MALLOC) throw std::bad_alloc();
  if (result != URI_SUCCESS) {
    unsigned const position =
        error_at ? static_cast<unsigned>(error_at - text) : size;  // never null for a syntax error
    throw_malformed(text, size, position);
  }
  absolute_ = uri.scheme.first != nullptr;
  fragment_ = uri.fragment.first != nullptr;
  uriFreeUriMembersA(&uri);
  if (size != 0) text_ = zocore::make_ref_counted<Text const>(std::string_view(text, size));
}

UriReference::UriReference(char const* text) : UriReference(text, checked_length(text)) {}

UriReference::UriReference(UriReference const& other) noexcept = default;
UriReference::UriReference(UriReference&& other) noexcept
    : text_(std::move(other.text_)),
      absolute_(std::exchange(other.absolute_, false)),
      fragment_(std::exchange(other.fragment_, false)) {}
UriReference& UriReference::operator=(UriReference const& other) noexcept = default;
UriReference& UriReference::operator=(UriReference&& other) noexcept {
  text_ = std::move(other.text_);
  absolute_ = std::exchange(other.absolute_, false);
  fragment_ = std::exchange(other.fragment_, false);
  return *this;
}
UriReference::~UriReference() = default;

std::string_view UriReference::text() const noexcept {
  return text_ ? std::string_view(text_->value) : std::string_view();
}

char const* UriReference::c_str() const noexcept {
  return text_ ? text_->value.c_str() : "";
}

}  // namespace zouri
