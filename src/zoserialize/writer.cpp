#include <cwchar>
#include <limits>
#include <string>

#include <zocore/error_composer.h>
#include <zocore/wide_string.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/byte_order.h>
#include <zoserialize/writer.h>

namespace zoserialize {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/writer.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

}  // namespace

Writer::~Writer() = default;

void Writer::close() {}

void Writer::flush() {}

void Writer::throw_too_large(std::size_t n) {
  zocore::ErrorComposer(
      "Value is too large to be written whole; write it through a stream.  Size={@size}")
      .add("size", static_cast<unsigned long long>(n))
      .throw_error(error::zoserialize_writer_data_range, here("zoserialize::Writer::size_of()"));
}

void Writer::write_signed_image(long long v, unsigned size) {
  unsigned char image[8];
  impl::store_big_endian(v, image);
  write_int_big_endian(image + 8 - size, size);
}

void Writer::write_unsigned_image(unsigned long long v, unsigned size) {
  unsigned char image[8];
  impl::store_big_endian(v, image);
  write_uint_big_endian(image + 8 - size, size);
}

Writer& Writer::operator<<(SourceLocation const& location) {
  write_marker_start();
  write_string(location.function().data(), location.function().size());
  write_string(location.file().data(), location.file().size());
  write_uint32(location.line());
  write_marker_end();
  return *this;
}

void Writer::write_string(wchar_t const* text) {
  write_string(text, size_of(std::wcslen(text)));
}

void Writer::write_string(wchar_t const* text, unsigned count) {
  std::string const utf8 = zocore::to_string(text, count);
  write_string(utf8.data(), size_of(utf8.size()));
}

void Writer::write_string_key(StringKey const& key) {
  std::string_view const text = key.value();
  write_string(text.data(), size_of(text.size()));
}

WriteMarker::WriteMarker(Writer& writer) : writer_(&writer) {
  writer.write_marker_start();
}

WriteMarker::~WriteMarker() {
  try {
    close();
  } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor must not throw
  }
}

void WriteMarker::close() {
  if (Writer* const w = std::exchange(writer_, nullptr)) w->write_marker_end();
}

}  // namespace zoserialize
