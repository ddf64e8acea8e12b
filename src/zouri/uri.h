// The URI kinds: a URI (no fragment), an absolute URI (with a scheme), a relative reference.
#pragma once

#include <string_view>

#include <zouri/export.h>
#include <zouri/uri_reference.h>

namespace zouri {

// A URI reference without a fragment, absolute or relative. Built from a UriReference (sharing
// its text) or by parsing; a reference with a fragment throws error::zouri_kind, "URI reference
// with fragment is not a URI.  Text={@text}". A Uri converts to the UriReference it holds.
// Default-constructed URIs of every kind are empty (text ""), placeholders to be assigned.
class ZOURI_API Uri {
 public:
  Uri() noexcept = default;
  explicit Uri(UriReference reference);
  // Parses the `size` bytes at `text` as a UriReference, then checks as above.
  Uri(char const* text, unsigned size) : Uri(UriReference(text, size)) {}
  explicit Uri(char const* text) : Uri(UriReference(text)) {}

  UriReference const& reference() const noexcept { return reference_; }
  operator UriReference const&() const noexcept { return reference_; }  // NOLINT: is-a
  std::string_view text() const noexcept { return reference_.text(); }
  char const* c_str() const noexcept { return reference_.c_str(); }
  bool empty() const noexcept { return reference_.empty(); }
  bool is_absolute() const noexcept { return reference_.is_absolute(); }

  friend bool operator==(Uri const& a, Uri const& b) noexcept {
    return a.reference_ == b.reference_;
  }

 protected:
  UriReference reference_;
};

// A URI with a scheme and without a fragment. A relative reference throws error::zouri_kind,
// "Relative URI is not an absolute URI.  Text={@text}" (after the fragment check of Uri). The
// default AbsoluteUri is empty and therefore not absolute until assigned.
class ZOURI_API AbsoluteUri : public Uri {
 public:
  AbsoluteUri() noexcept = default;
  explicit AbsoluteUri(UriReference reference);
  AbsoluteUri(char const* text, unsigned size) : AbsoluteUri(UriReference(text, size)) {}
  explicit AbsoluteUri(char const* text) : AbsoluteUri(UriReference(text)) {}
};

// A relative reference ("/a/b", "//host/x", "../y?q", "") without a fragment. A reference with a
// scheme throws error::zouri_kind, "Absolute URI is not a relative URI.  Text={@text}" (after the
// fragment check of Uri).
class ZOURI_API RelativeUri : public Uri {
 public:
  RelativeUri() noexcept = default;
  explicit RelativeUri(UriReference reference);
  RelativeUri(char const* text, unsigned size) : RelativeUri(UriReference(text, size)) {}
  explicit RelativeUri(char const* text) : RelativeUri(UriReference(text)) {}
};

}  // namespace zouri
