#include <string>
#include <utility>

#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/marshal_uri.h>

namespace zoserialize {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/marshal_uri.cpp $";

[[noreturn, gnu::cold, gnu::noinline]] void throw_mismatch(char const* message,
                                                           char const* function,
                                                           unsigned line = __builtin_LINE()) {
  zocore::throw_error(error::zoserialize_reader_data_type_mismatch, message,
                      {function, kModuleId, line});
}

}  // namespace

void write_uri(Writer& writer, zouri::Uri const& uri) {
  write_uri(writer, uri.reference());
}

void write_uri(Writer& writer, zouri::UriReference const& reference) {
  std::string_view const text = reference.text();
  writer.write_string(text.data(), static_cast<unsigned>(text.size()));
}

zouri::UriReference read_uri(Reader& reader) {
  std::string const text = reader.read_string();
  return {text.data(), static_cast<unsigned>(text.size())};
}

Reader& operator>>(Reader& reader, zouri::Uri& uri) {
  static constexpr char kFunction[] = "zoserialize::operator>>(zouri::Uri&)";
  zouri::UriReference reference = read_uri(reader);
  if (reference.has_fragment())
    throw_mismatch("Attempt to unmarshal URI reference with fragment as URI", kFunction);
  uri = zouri::Uri(std::move(reference));
  return reader;
}

Reader& operator>>(Reader& reader, zouri::AbsoluteUri& uri) {
  static constexpr char kFunction[] = "zoserialize::operator>>(zouri::AbsoluteUri&)";
  zouri::UriReference reference = read_uri(reader);
  if (reference.has_fragment())
    throw_mismatch("Attempt to unmarshal URI reference with fragment as absolute URI", kFunction);
  if (!reference.is_absolute())
    throw_mismatch("Attempt to unmarshal relative URI as absolute URI", kFunction);
  uri = zouri::AbsoluteUri(std::move(reference));
  return reader;
}

Reader& operator>>(Reader& reader, zouri::RelativeUri& uri) {
  static constexpr char kFunction[] = "zoserialize::operator>>(zouri::RelativeUri&)";
  zouri::UriReference reference = read_uri(reader);
  if (reference.has_fragment())
    throw_mismatch("Attempt to unmarshal URI reference with fragment as relative URI", kFunction);
  if (reference.is_absolute())
    throw_mismatch("Attempt to unmarshal absolute URI as relative URI", kFunction);
  uri = zouri::RelativeUri(std::move(reference));
  return reader;
}

}  // namespace zoserialize
