#include <utility>

#include <zocore/error_composer.h>
#include <zouri/error_codes.h>
#include <zouri/uri.h>

namespace zouri {
namespace {

constexpr char kModuleId[] = "$Id: src/zouri/uri.cpp $";

[[noreturn, gnu::cold, gnu::noinline]] void throw_kind(char const* message,
                                                       UriReference const& reference,
                                                       char const* function, unsigned line) {
  zocore::ErrorComposer(message)
      .add("text", reference.text())
      .throw_error(error::zouri_kind, {function, kModuleId, line});
}

}  // namespace

Uri::Uri(UriReference reference) : reference_(std::move(reference)) {
  if (reference_.has_fragment()) {
    throw_kind("URI reference with fragment is not a URI.  Text={@text}", reference_,
               "zouri::Uri::Uri()", __builtin_LINE());
  }
}

AbsoluteUri::AbsoluteUri(UriReference reference) : Uri(std::move(reference)) {
  if (!reference_.is_absolute()) {
    throw_kind("Relative URI is not an absolute URI.  Text={@text}", reference_,
               "zouri::AbsoluteUri::AbsoluteUri()", __builtin_LINE());
  }
}

RelativeUri::RelativeUri(UriReference reference) : Uri(std::move(reference)) {
  if (reference_.is_absolute()) {
    throw_kind("Absolute URI is not a relative URI.  Text={@text}", reference_,
               "zouri::RelativeUri::RelativeUri()", __builtin_LINE());
  }
}

}  // namespace zouri
