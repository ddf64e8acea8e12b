// The abstract reading archive.
#pragma once

#include <iosfwd>
#include <string>

#include <zocore/absolute_time.h>
#include <zocore/relative_time.h>
#include <zocore/source_location.h>
#include <zocore/source_string.h>
#include <zocore/stream.h>
#include <zocore/string_key.h>
#include <zocore/uuid.h>
#include <zocore/uuid_key.h>
#include <zoserialize/export.h>
#include <zoserialize/writer.h>

namespace zoserialize {

using zocore::InterfacePtr;
using zocore::IReadStream;

// Reader is the abstract reading archive, the mirror of Writer. The caller asks which element
// comes next (next_token) and reads it with the matching operation, or skips it, copies it into
// any Writer, or compares it with the element of another reader. The typed front end asks the
// core for integer images of exactly the requested width; a value that does not fit is the
// concrete reader's failure.
//
// A reader is used by one thread at a time. Failures are thrown as zocore::ErrorException with
// the codes of <zoserialize/error_codes.h>.
class ZOSERIALIZE_API Reader {
 public:
  // What next_token() reports.
  enum class EToken : int {
    Eof = -1,
    Unknown = 0,
    Null = 1,
    Boolean = 2,
    SignedInteger = 3,
    UnsignedInteger = 4,
    Double = 5,
    String = 6,
    AbsoluteTime = 7,
    RelativeTime = 8,
    Uuid = 9,
    Binary = 10,
    SequenceStart = 11,
    SequenceSeparator = 12,
    SequenceEnd = 13,
    MarkerStart = 14,
    MarkerEnd = 15,
  };

  Reader() = default;
  // Readers hold no data of their own at this level: copying copies nothing.
  Reader(Reader const&) noexcept {}
  Reader& operator=(Reader const&) noexcept { return *this; }

  // The base does nothing.
  virtual void close();
  virtual bool is_eof() const = 0;
  // The kind of the next element, without consuming anything.
  virtual EToken next_token() = 0;
  // Skips one whole element (a sequence or marker with everything in it).
  virtual void skip_element() = 0;
  virtual void read_null() = 0;
  // Consumes a null if one comes next and returns true; otherwise reads nothing.
  virtual bool try_read_null() = 0;
  virtual bool read_bool() = 0;
  // Fills `data` with the big-endian two's-complement image of the value, `size` bytes wide.
  virtual void read_int_big_endian(void* data, unsigned size) = 0;
  virtual void read_uint_big_endian(void* data, unsigned size) = 0;
  virtual double read_double() = 0;
  virtual void read_string(SourceString& out) = 0;
  virtual void read_string(std::string& out) = 0;
  virtual std::string read_string() = 0;
  // The string's bytes as a stream, for values too large to hold whole.
  virtual InterfacePtr<IReadStream> read_string_stream() = 0;
  virtual AbsoluteTime read_absolute_time() = 0;
  virtual RelativeTime read_relative_time() = 0;
  virtual Uuid read_uuid() = 0;
  virtual InterfacePtr<IReadStream> read_binary() = 0;
  // Returns the count hint, 0 when none.
  virtual unsigned read_sequence_start() = 0;
  // True while another element follows; consumes the separator or the end.
  virtual bool read_sequence_next() = 0;
  virtual void read_marker_start() = 0;
  virtual bool read_marker_is_end() = 0;
  // Skips whatever is left of the innermost marker, then its end.
  virtual void read_marker_end() = 0;
  // Copies one element, recursively, into `writer`.
  virtual void read_copy(Writer& writer) = 0;
  // Copies elements until the end of the input.
  virtual void read_copy_all(Writer& writer);
  virtual ~Reader();

  // Compares one element of each reader structurally, consuming it from both. Count hints are
  // not compared; doubles compare with ==. Input that ends inside a sequence or marker compares
  // unequal. After a false result both readers stand inside the differing element: compare
  // whole archives and discard the readers afterwards.
  static bool read_compare_equal(Reader& a, Reader& b);
  // Compares element by element until either reader ends; true only if both end together.
  static bool read_compare_equal_all(Reader& a, Reader& b);

  // ---- Typed front end -------------------------------------------------------------------
  // char counts as signed; long and unsigned long are read at their full width.

  Reader& operator>>(bool& v) { return v = read_bool(), *this; }
  Reader& operator>>(char& v) { return v = read_int8(), *this; }
  Reader& operator>>(signed char& v) { return v = static_cast<signed char>(read_int8()), *this; }
  Reader& operator>>(unsigned char& v) { return v = read_uint8(), *this; }
  Reader& operator>>(short& v) { return v = read_int16(), *this; }
  Reader& operator>>(unsigned short& v) { return v = read_uint16(), *this; }
  Reader& operator>>(int& v) { return v = read_int32(), *this; }
  Reader& operator>>(unsigned int& v) { return v = read_uint32(), *this; }
  Reader& operator>>(long& v) { return v = read_long(), *this; }
  Reader& operator>>(unsigned long& v) { return v = read_ulong(), *this; }
  Reader& operator>>(long long& v) { return v = read_int64(), *this; }
  Reader& operator>>(unsigned long long& v) { return v = read_uint64(), *this; }
  Reader& operator>>(float& v) { return v = read_float(), *this; }
  Reader& operator>>(double& v) { return v = read_double(), *this; }
  Reader& operator>>(std::string& v) { return read_string(v), *this; }
  Reader& operator>>(std::wstring& v);
  Reader& operator>>(SourceString& v) { return read_string(v), *this; }
  Reader& operator>>(StringKey& v) { return v = read_string_key(), *this; }
  Reader& operator>>(UuidKey& v) { return v = read_uuid_key(), *this; }
  Reader& operator>>(Uuid& v) { return v = read_uuid(), *this; }
  Reader& operator>>(AbsoluteTime& v) { return v = read_absolute_time(), *this; }
  Reader& operator>>(RelativeTime& v) { return v = read_relative_time(), *this; }
  // Reads the marker that Writer::operator<<(SourceLocation const&) writes.
  Reader& operator>>(SourceLocation& v);

  char read_int8() { return static_cast<char>(read_signed<signed char>()); }
  unsigned char read_uint8() { return read_unsigned<unsigned char>(); }
  short read_int16() { return read_signed<short>(); }
  unsigned short read_uint16() { return read_unsigned<unsigned short>(); }
  int read_int32() { return read_signed<int>(); }
  int read_int() { return read_signed<int>(); }
  long read_long() { return read_signed<long>(); }
  unsigned read_uint32() { return read_unsigned<unsigned>(); }
  unsigned read_uint() { return read_unsigned<unsigned>(); }
  unsigned long read_ulong() { return read_unsigned<unsigned long>(); }
  long long read_int64() { return read_signed<long long>(); }
  unsigned long long read_uint64() { return read_unsigned<unsigned long long>(); }
  // Reads a double and narrows it; fails with error::zoserialize_reader_data_type_range when it
  // lies outside the finite float range (NaN and infinities included).
  float read_float();
  StringKey read_string_key();
  UuidKey read_uuid_key() { return UuidKey(read_uuid()); }

 protected:
  void swap(Reader&) noexcept {}

 private:
  // The value of a big-endian image of `size` bytes (its type's width) from the core, extended
  // to 64 bits.
  long long read_signed_image(unsigned size);
  unsigned long long read_unsigned_image(unsigned size);
  template <class T>
  T read_signed() {
    return static_cast<T>(read_signed_image(sizeof(T)));
  }
  template <class T>
  T read_unsigned() {
    return static_cast<T>(read_unsigned_image(sizeof(T)));
  }
};

// Prints the token's name ("EOF", "Null", ..., "MarkerEnd"; "##UNKNOWN(n)##" for other values).
ZOSERIALIZE_API std::ostream& operator<<(std::ostream& os, Reader::EToken token);
// The same name as text.
ZOSERIALIZE_API std::string token_name(Reader::EToken token);

// Scope guard for reading a marker: the constructor reads the marker start, close() or the
// destructor skips the rest of the marker and its end. The reader is borrowed and must outlive
// the guard. The destructor swallows errors.
class ZOSERIALIZE_API ReadMarker {
 public:
  explicit ReadMarker(Reader& reader);
  ReadMarker(ReadMarker const&) = delete;
  ReadMarker& operator=(ReadMarker const&) = delete;
  ~ReadMarker();

  // False once closed; otherwise whether the marker's end comes next.
  bool is_end() const;
  void close();

 private:
  Reader* reader_;
};

}  // namespace zoserialize
