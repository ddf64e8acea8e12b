// A parsed URI reference (RFC 3986): an absolute URI, a relative reference, either with or
// without a fragment.
#pragma once

#include <string_view>

#include <zocore/ref_count_ptr.h>
#include <zouri/export.h>

namespace zouri {

// The text of a URI reference, checked by liburiparser when it is built and kept exactly as given
// (no normalisation). The text is immutable and shared: copies of a reference, and the Uri
// objects made from it, point to one reference-counted buffer (atomic count, so copies may live on
// different threads). Copying costs one atomic increment; parsing costs one allocation.
//
// The default reference is the empty text, a valid relative reference (the current document).
class ZOURI_API UriReference {
 public:
  UriReference() noexcept;
  // Parses the `size` bytes at `text` (copied; may be null when `size` is 0). Text liburiparser
  // refuses throws error::zouri_syntax, "Malformed URI reference at position {@position}.
  // Text={@text}", with the byte offset liburiparser stopped at and the whole text.
  UriReference(char const* text, unsigned size);
  // The text up to its 0 byte.
  explicit UriReference(char const* text);
  UriReference(UriReference const& other) noexcept;
  UriReference(UriReference&& other) noexcept;
  UriReference& operator=(UriReference const& other) noexcept;
  UriReference& operator=(UriReference&& other) noexcept;
  ~UriReference();

  // Valid while this reference or a copy of it lives.
  std::string_view text() const noexcept;
  // The text as a C string (0-terminated; a URI text cannot contain a 0 byte).
  char const* c_str() const noexcept;
  bool empty() const noexcept { return text().empty(); }
  // Whether a "#" fragment is present, also an empty one ("a#").
  bool has_fragment() const noexcept { return fragment_; }
  // Whether the reference has a scheme ("tel:123", not "//host/a" or "/a/b").
  bool is_absolute() const noexcept { return absolute_; }

  // Equal texts, byte for byte.
  friend bool operator==(UriReference const& a, UriReference const& b) noexcept {
    return a.text() == b.text();
  }

 private:
  struct Text;
  zocore::RefCountPtr<Text const> text_;
  bool absolute_ = false;
  bool fragment_ = false;
};

}  // namespace zouri
