#include <cstring>
#include <ostream>

#include <zocore/error_composer.h>
#include <zocore/throw_error.h>
#include <zocore/wide_string.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/integer_form.h>
#include <zoserialize/reader.h>

namespace zoserialize {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/reader.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

constexpr double kFloatMax = 3.4028234663852886e+38;
constexpr unsigned kCompareBlock = 4096;
constexpr unsigned kIntegerImage = 128;

char const* const kTokenNames[] = {
    "EOF",           "Unknown",           "Null",        "Boolean",
    "SignedInteger", "UnsignedInteger",   "Double",      "String",
    "AbsoluteTime",  "RelativeTime",      "Uuid",        "Binary",
    "SequenceStart", "SequenceSeparator", "SequenceEnd", "MarkerStart",
    "MarkerEnd"};

// Reads both payload streams block by block; equal when every block matches.
bool compare_streams(InterfacePtr<IReadStream> const& a, InterfacePtr<IReadStream> const& b) {
  unsigned char block_a[kCompareBlock];
  unsigned char block_b[kCompareBlock];
  for (;;) {
    unsigned const na = a->read(block_a, kCompareBlock);
    unsigned const nb = b->read(block_b, kCompareBlock);
    if (na != nb || std::memcmp(block_a, block_b, na) != 0) return false;
    if (na == 0) return true;
  }
}

bool compare_integers(Reader& a, Reader& b, bool is_signed) {
  unsigned char image_a[kIntegerImage];
  unsigned char image_b[kIntegerImage];
  if (is_signed) {
    a.read_int_big_endian(image_a, kIntegerImage);
    b.read_int_big_endian(image_b, kIntegerImage);
  } else {
    a.read_uint_big_endian(image_a, kIntegerImage);
    b.read_uint_big_endian(image_b, kIntegerImage);
  }
  return std::memcmp(image_a, image_b, kIntegerImage) == 0;
}

bool is_sequence_boundary(Reader::EToken t) {
  return t == Reader::EToken::SequenceSeparator || t == Reader::EToken::SequenceEnd;
}

}  // namespace

Reader::~Reader() = default;

void Reader::close() {}

void Reader::read_copy_all(Writer& writer) {
  while (!is_eof())
    read_copy(writer);
}

float Reader::read_float() {
  double const value = read_double();
  // Written so that a NaN fails the test too.
  if (!(value >= -kFloatMax && value <= kFloatMax)) {
    zocore::ErrorComposer(
        "Read floating point value exceeeds range for 'float' data type.  Value={@value}, "
        "Range=({@minValue}, {@maxValue})")
        .add("value", value)
        .add("minValue", -kFloatMax)
        .add("maxValue", kFloatMax)
        .throw_error(error::zoserialize_reader_data_type_range,
                     here("zoserialize::Reader::read_float()"));
  }
  return static_cast<float>(value);
}

long long Reader::read_signed_image(unsigned size) {
  unsigned char image[8];
  read_int_big_endian(image, size);
  return impl::load_signed(image, size);
}

unsigned long long Reader::read_unsigned_image(unsigned size) {
  unsigned char image[8];
  read_uint_big_endian(image, size);
  return impl::load_unsigned(image, size);
}

StringKey Reader::read_string_key() {
  std::string const text = read_string();
  return StringKey::token_from_string(text);
}

Reader& Reader::operator>>(std::wstring& v) {
  std::string const text = read_string();
  v = zocore::to_wstring(text);
  return *this;
}

Reader& Reader::operator>>(SourceLocation& v) {
  read_marker_start();
  SourceString function;
  SourceString file;
  read_string(function);
  read_string(file);
  unsigned const line = read_uint32();
  read_marker_end();
  v = SourceLocation(std::move(function), std::move(file), line);
  return *this;
}

bool Reader::read_compare_equal(Reader& a, Reader& b) {
  static constexpr char kFunction[] = "zoserialize::Reader::read_compare_equal()";
  // Scopes open in both readers, innermost last, walked without recursion so that deeply nested
  // input cannot exhaust the stack: 's' a sequence before read_sequence_next, 'S' a sequence
  // between its boundaries, 'M' a marker.
  std::string open;
  bool at_element = true;
  for (;;) {
    if (at_element) {
      at_element = false;
      EToken const token = a.next_token();
      if (token != b.next_token()) return false;
      switch (token) {
        case EToken::Eof:
          break;
        case EToken::Null:
          a.read_null();
          b.read_null();
          break;
        case EToken::Boolean:
          if (a.read_bool() != b.read_bool()) return false;
          break;
        case EToken::SignedInteger:
        case EToken::UnsignedInteger:
          if (!compare_integers(a, b, token == EToken::SignedInteger)) return false;
          break;
        case EToken::Double:
          if (!(a.read_double() == b.read_double())) return false;
          break;
        case EToken::String: {
          // Both streams are opened before either is read: a reader may finish its previous
          // stream when the next is requested.
          auto const sa = a.read_string_stream();
          auto const sb = b.read_string_stream();
          if (!compare_streams(sa, sb)) return false;
          break;
        }
        case EToken::Binary: {
          auto const sa = a.read_binary();
          auto const sb = b.read_binary();
          if (!compare_streams(sa, sb)) return false;
          break;
        }
        case EToken::AbsoluteTime:
          if (a.read_absolute_time() != b.read_absolute_time()) return false;
          break;
        case EToken::RelativeTime:
          if (a.read_relative_time() != b.read_relative_time()) return false;
          break;
        case EToken::Uuid:
          if (a.read_uuid() != b.read_uuid()) return false;
          break;
        case EToken::SequenceStart:
          a.read_sequence_start();
          b.read_sequence_start();
          open.push_back('s');
          break;
        case EToken::MarkerStart:
          a.read_marker_start();
          b.read_marker_start();
          open.push_back('M');
          break;
        case EToken::SequenceSeparator:
        case EToken::SequenceEnd:
          zocore::throw_error(error::zoserialize_reader_sequence_nesting,
                              "Dangling sequence that was not opened in this method",
                              here(kFunction));
        case EToken::MarkerEnd:
          zocore::throw_error(error::zoserialize_reader_marker_nesting,
                              "Dangling end of marker that was not opened in this method",
                              here(kFunction));
        case EToken::Unknown:
        default:
          zocore::ErrorComposer("Invalid/unhandled reader state for comparison.  Token: {@token}")
              .add("token", token_name(token))
              .throw_error(error::zoserialize_reader_state, here(kFunction));
      }
    }
    if (open.empty()) return true;
    char& top = open.back();
    if (top == 's') {
      bool const more = a.read_sequence_next();
      if (more != b.read_sequence_next()) return false;
      if (!more) {
        open.pop_back();
        continue;
      }
      top = 'S';
    }
    if (top == 'S') {
      // Elements are compared one by one until both readers stand on a separator or the end.
      EToken const ta = a.next_token();
      if (ta != b.next_token()) return false;
      if (is_sequence_boundary(ta)) {
        top = 's';
        continue;
      }
      // Input that ends inside the sequence cannot compare equal; comparing two ended readers
      // consumes nothing, so going on would never end.
      if (ta == EToken::Eof) return false;
      at_element = true;
      continue;
    }
    if (a.read_marker_is_end()) {
      if (!b.read_marker_is_end()) return false;
      a.read_marker_end();
      b.read_marker_end();
      open.pop_back();
      continue;
    }
    if (b.read_marker_is_end()) return false;
    // As for sequences: a reader that does not see the marker's end at the end of its input must
    // not make the comparison loop forever.
    if (a.next_token() == EToken::Eof) return false;
    at_element = true;
  }
}

bool Reader::read_compare_equal_all(Reader& a, Reader& b) {
  while (!a.is_eof() && !b.is_eof()) {
    if (!read_compare_equal(a, b)) return false;
  }
  return a.is_eof() && b.is_eof();
}

std::string token_name(Reader::EToken token) {
  int const value = static_cast<int>(token);
  if (value >= -1 && value <= 15) return kTokenNames[value + 1];
  return "##UNKNOWN(" + std::to_string(value) + ")##";
}

std::ostream& operator<<(std::ostream& os, Reader::EToken token) {
  return os << token_name(token);
}

ReadMarker::ReadMarker(Reader& reader) : reader_(&reader) {
  reader.read_marker_start();
}

ReadMarker::~ReadMarker() {
  try {
    close();
  } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor must not throw
  }
}

bool ReadMarker::is_end() const {
  return reader_ ? reader_->read_marker_is_end() : false;
}

void ReadMarker::close() {
  if (Reader* const r = std::exchange(reader_, nullptr)) r->read_marker_end();
}

}  // namespace zoserialize
