// URIs as data-model elements.
#pragma once

#include <zoserialize/export.h>
#include <zoserialize/reader.h>
#include <zoserialize/writer.h>
#include <zouri/uri.h>
#include <zouri/uri_reference.h>

// A URI travels as one String holding its text exactly as the URI object has it; so a URI
// written by one format is read by any other, and a plain string can be read as a URI.
namespace zoserialize {

ZOSERIALIZE_API void write_uri(Writer& writer, zouri::Uri const& uri);
ZOSERIALIZE_API void write_uri(Writer& writer, zouri::UriReference const& reference);

// Reads a String and parses it; text that is not a URI reference throws the parser's
// error::zouri_syntax.
ZOSERIALIZE_API zouri::UriReference read_uri(Reader& reader);

// read_uri, then the kind check; each failure throws error::zoserialize_reader_data_type_mismatch
// and leaves `uri` unchanged. A fragment is checked first: "Attempt to unmarshal URI reference
// with fragment as URI" (as absolute URI, as relative URI); then "Attempt to unmarshal relative
// URI as absolute URI" or "Attempt to unmarshal absolute URI as relative URI".
ZOSERIALIZE_API Reader& operator>>(Reader& reader, zouri::Uri& uri);
ZOSERIALIZE_API Reader& operator>>(Reader& reader, zouri::AbsoluteUri& uri);
ZOSERIALIZE_API Reader& operator>>(Reader& reader, zouri::RelativeUri& uri);

// The matching writes, so that `writer << uri` mirrors `reader >> uri`.
inline Writer& operator<<(Writer& writer, zouri::Uri const& uri) {
  write_uri(writer, uri);
  return writer;
}
inline Writer& operator<<(Writer& writer, zouri::UriReference const& reference) {
  write_uri(writer, reference);
  return writer;
}

}  // namespace zoserialize
