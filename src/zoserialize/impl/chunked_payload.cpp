#include <zocore/error_composer.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/chunked_payload.h>

namespace zoserialize::impl {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/impl/chunked_payload.cpp $";

// A continuation tag of another type, or of the type but neither a continuation nor the end.
[[noreturn, gnu::cold]] void throw_chunk_tag(unsigned char tag, int prefix, char const* function) {
  zocore::SourceLocation const location(function, kModuleId, __LINE__);
  if ((tag & 0xF0) != prefix) {
    zocore::ErrorComposer(
        "Invalid tag in chunked element.  Expected={@expectedType}, Actual={@actualType} "
        "(ActualTag={@actualTag})")
        .add("expectedType", type_prefix_name(prefix))
        .add("actualType", type_prefix_name(tag))
        .add("actualTag", unsigned{tag})
        .throw_error(error::zoserialize_reader_data_type_mismatch, location);
  }
  // The parameters are named type and value, unlike the placeholders.
  zocore::ErrorComposer(
      "Unexpected tag.  Expecting chunk continuation or end tag.  Type={@tagType}, "
      "Value={@tagValue}")
      .add("type", type_prefix_name(tag))
      .add("value", unsigned{tag})
      .throw_error(error::zoserialize_reader_data_type, location);
}

}  // namespace

unsigned chunk_continuation_field(unsigned char tag, int prefix, char const* function) {
  if ((tag & 0xF0) == prefix) {
    switch (tag & 0x0F) {
      case kNibbleNextChunk1:
        return 1;
      case kNibbleNextChunk2:
        return 2;
      case kNibbleChunkEnd:
        return 0;
      default:
        break;
    }
  }
  throw_chunk_tag(tag, prefix, function);
}

}  // namespace zoserialize::impl
