#include <zoserialize/impl/binary_encoding.h>

namespace zoserialize::impl {

char const* type_prefix_name(int tag_or_prefix) noexcept {
  static char const* const kNames[16] = {
      "Null",         "Boolean",      "SignedInteger", "UnsignedInteger", "IEEE754",  "String",
      "AbsoluteTime", "RelativeTime", "Uuid",          "Binary",          "Sequence", "Marker",
      "ReservedC",    "ReservedD",    "ReservedE",     "ReservedF"};
  if (tag_or_prefix < 0 || tag_or_prefix > 0xFF) return "##UNKNOWN##";
  return kNames[tag_or_prefix >> 4];
}

}  // namespace zoserialize::impl
