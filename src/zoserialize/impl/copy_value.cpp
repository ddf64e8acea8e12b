#include <zoserialize/impl/copy_value.h>

namespace zoserialize::impl {

bool copy_plain_value(Reader& reader, Reader::EToken token, Writer& writer) {
  using EToken = Reader::EToken;
  switch (token) {
    case EToken::Null:
      reader.read_null();
      writer.write_null();
      return true;
    case EToken::Boolean:
      writer.write_bool(reader.read_bool());
      return true;
    case EToken::Double:
      writer.write_double(reader.read_double());
      return true;
    case EToken::AbsoluteTime:
      writer.write_absolute_time(reader.read_absolute_time());
      return true;
    case EToken::RelativeTime:
      writer.write_relative_time(reader.read_relative_time());
      return true;
    case EToken::Uuid:
      writer.write_uuid(reader.read_uuid());
      return true;
    case EToken::String: {
      InterfacePtr<IReadStream> const stream = reader.read_string_stream();
      writer.write_string_stream(*stream);
      stream->close();
      return true;
    }
    case EToken::Binary: {
      InterfacePtr<IReadStream> const stream = reader.read_binary();
      writer.write_binary(*stream);
      stream->close();
      return true;
    }
    default:
      return false;
  }
}

}  // namespace zoserialize::impl
