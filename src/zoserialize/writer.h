// The abstract writing archive.
#pragma once

#include <cstring>
#include <string>
#include <string_view>

#include <zocore/absolute_time.h>
#include <zocore/relative_time.h>
#include <zocore/source_location.h>
#include <zocore/source_string.h>
#include <zocore/stream.h>
#include <zocore/string_key.h>
#include <zocore/uuid.h>
#include <zocore/uuid_key.h>
#include <zoserialize/export.h>

namespace zoserialize {

using zocore::AbsoluteTime;
using zocore::InterfacePtr;
using zocore::IReadStream;
using zocore::IWriteStream;
using zocore::RelativeTime;
using zocore::SourceLocation;
using zocore::SourceString;
using zocore::StringKey;
using zocore::Uuid;
using zocore::UuidKey;

// Writer is the abstract writing archive. Its virtual core has one operation per element of the
// data model; every concrete format (binary, memory, text, XML, trace, hashing) implements that
// core, and the non-virtual typed front end below maps C++ types onto it: integers are handed
// over as big-endian images of their full width, floats widened to double, wide strings converted
// to UTF-8.
//
// Strings and binaries can also be written through a returned stream; that value ends with the
// next element, flush() or close(). At most one such stream is open at a time.
//
// A writer is used by one thread at a time. Failures are thrown as zocore::ErrorException with
// the codes of <zoserialize/error_codes.h>; nothing written before a failure is rolled back.
class ZOSERIALIZE_API Writer {
 public:
  Writer() = default;
  // Writers hold no data of their own at this level: copying copies nothing.
  Writer(Writer const&) noexcept {}
  Writer& operator=(Writer const&) noexcept { return *this; }

  // Finishes the archive. The base does nothing.
  virtual void close();
  // Pushes buffered output on. The base does nothing.
  virtual void flush();
  virtual void write_null() = 0;
  virtual void write_bool(bool value) = 0;
  // A signed integer given as a big-endian two's-complement image of `size` bytes.
  virtual void write_int_big_endian(void const* data, unsigned size) = 0;
  // An unsigned integer given as a big-endian image of `size` bytes.
  virtual void write_uint_big_endian(void const* data, unsigned size) = 0;
  virtual void write_double(double value) = 0;
  // A string of `size` bytes of UTF-8.
  virtual void write_string(char const* data, unsigned size) = 0;
  // A string whose bytes the caller writes into the returned stream.
  virtual InterfacePtr<IWriteStream> write_string_stream() = 0;
  // A string taken from `source` up to its end; `source` is only borrowed.
  virtual void write_string_stream(IReadStream& source) = 0;
  virtual void write_absolute_time(AbsoluteTime const& value) = 0;
  virtual void write_relative_time(RelativeTime const& value) = 0;
  virtual void write_uuid(Uuid const& value) = 0;
  // A binary value whose bytes the caller writes into the returned stream.
  virtual InterfacePtr<IWriteStream> write_binary() = 0;
  // A binary value taken from `source` up to its end; `source` is only borrowed.
  virtual void write_binary(IReadStream& source) = 0;
  virtual void write_binary(void const* data, unsigned size) = 0;
  // A sequence of exactly `count_hint` elements (0: no hint).
  virtual void write_sequence_start(unsigned count_hint) = 0;
  virtual void write_sequence_start() = 0;
  // Stands between two elements of the innermost sequence.
  virtual void write_sequence_separator() = 0;
  virtual void write_sequence_end() = 0;
  // Opens a marker: a nested scope that a reader can skip as a whole, so that older readers can
  // ignore what newer writers append.
  virtual void write_marker_start() = 0;
  virtual void write_marker_end() = 0;
  virtual ~Writer();

  // ---- Typed front end -------------------------------------------------------------------
  // char counts as signed whatever the platform's char signedness. long and unsigned long are
  // written at their full width (8 bytes on LP64 Linux), so no value is ever cut.

  Writer& operator<<(bool v) { return write_bool(v), *this; }
  Writer& operator<<(char v) { return write_int8(v), *this; }
  Writer& operator<<(signed char v) { return write_int8(static_cast<char>(v)), *this; }
  Writer& operator<<(unsigned char v) { return write_uint8(v), *this; }
  // Wide characters would silently become 4-byte integers; write them as strings instead.
  Writer& operator<<(wchar_t) = delete;
  Writer& operator<<(char8_t) = delete;
  Writer& operator<<(char16_t) = delete;
  Writer& operator<<(char32_t) = delete;
  Writer& operator<<(short v) { return write_int16(v), *this; }
  Writer& operator<<(unsigned short v) { return write_uint16(v), *this; }
  Writer& operator<<(int v) { return write_int32(v), *this; }
  Writer& operator<<(unsigned int v) { return write_uint32(v), *this; }
  Writer& operator<<(long v) { return write_long(v), *this; }
  Writer& operator<<(unsigned long v) { return write_ulong(v), *this; }
  Writer& operator<<(long long v) { return write_int64(v), *this; }
  Writer& operator<<(unsigned long long v) { return write_uint64(v), *this; }
  Writer& operator<<(float v) { return write_float(v), *this; }
  Writer& operator<<(double v) { return write_double(v), *this; }
  // `text` must not be null.
  Writer& operator<<(char const* text) { return write_string(text), *this; }
  Writer& operator<<(std::string const& s) {
    return write_string(s.data(), size_of(s.size())), *this;
  }
  Writer& operator<<(std::string_view s) {
    return write_string(s.data(), size_of(s.size())), *this;
  }
  Writer& operator<<(SourceString const& s) { return write_string(s.data(), s.size()), *this; }
  Writer& operator<<(wchar_t const* text) { return write_string(text), *this; }
  Writer& operator<<(std::wstring const& s) {
    return write_string(s.data(), size_of(s.size())), *this;
  }
  Writer& operator<<(StringKey const& key) { return write_string_key(key), *this; }
  Writer& operator<<(UuidKey const& key) { return write_uuid_key(key), *this; }
  Writer& operator<<(Uuid const& v) { return write_uuid(v), *this; }
  Writer& operator<<(AbsoluteTime const& v) { return write_absolute_time(v), *this; }
  Writer& operator<<(RelativeTime const& v) { return write_relative_time(v), *this; }
  // A marker holding the function name, the file name and the line (4-byte unsigned).
  Writer& operator<<(SourceLocation const& location);

  void write_int8(char v) { write_signed(static_cast<signed char>(v)); }
  void write_uint8(unsigned char v) { write_unsigned(v); }
  void write_int16(short v) { write_signed(v); }
  void write_uint16(unsigned short v) { write_unsigned(v); }
  void write_int32(int v) { write_signed(v); }
  void write_int(int v) { write_signed(v); }
  void write_long(long v) { write_signed(v); }
  void write_uint32(unsigned v) { write_unsigned(v); }
  void write_uint(unsigned v) { write_unsigned(v); }
  void write_ulong(unsigned long v) { write_unsigned(v); }
  void write_int64(long long v) { write_signed(v); }
  void write_uint64(unsigned long long v) { write_unsigned(v); }
  // Widened exactly to binary64: 0.1f is written as 0x3FB99999A0000000.
  void write_float(float v) { write_double(static_cast<double>(v)); }
  // The text up to its terminating 0 byte; `text` must not be null.
  void write_string(char const* text) { write_string(text, size_of(std::strlen(text))); }
  // Wide text (UTF-16, or UTF-32 on Linux) converted to UTF-8.
  void write_string(wchar_t const* text);
  void write_string(wchar_t const* text, unsigned count);
  void write_string_key(StringKey const& key);
  void write_uuid_key(UuidKey const& key) { write_uuid(key.uuid()); }

 protected:
  // A length as the 32-bit size of the core interface; a larger value fails with
  // error::zoserialize_writer_data_range (it must be written through a stream).
  static unsigned size_of(std::size_t n) {
    if (n > 0xFFFFFFFFu) [[unlikely]]
      throw_too_large(n);
    return static_cast<unsigned>(n);
  }
  [[noreturn]] static void throw_too_large(std::size_t n);

 private:
  // The value as a big-endian image of `size` bytes (its type's width), to the core.
  void write_signed_image(long long v, unsigned size);
  void write_unsigned_image(unsigned long long v, unsigned size);
  template <class T>
  void write_signed(T v) {
    write_signed_image(v, sizeof(T));
  }
  template <class T>
  void write_unsigned(T v) {
    write_unsigned_image(v, sizeof(T));
  }
};

// Scope guard for a marker: the constructor writes the marker start, close() or the destructor
// the marker end. The writer is borrowed and must outlive the guard. The destructor swallows
// errors, so leaving a scope by an exception never throws again.
class ZOSERIALIZE_API WriteMarker {
 public:
  explicit WriteMarker(Writer& writer);
  WriteMarker(WriteMarker const&) = delete;
  WriteMarker& operator=(WriteMarker const&) = delete;
  ~WriteMarker();

  // Writes the marker end once; later calls do nothing.
  void close();

 private:
  Writer* writer_;
};

}  // namespace zoserialize
