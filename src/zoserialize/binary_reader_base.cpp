#include <array>
#include <bit>

#include <zocore/error_composer.h>
#include <zocore/throw_error.h>
#include <zoserialize/binary_reader_base.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/copy_value.h>
#include <zoserialize/impl/integer_form.h>

namespace zoserialize {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/binary_reader_base.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

[[noreturn, gnu::cold]] void fail(zocore::ErrorCode const& code, char const* message,
                                  char const* function) {
  zocore::throw_error(code, message, here(function));
}

using EToken = Reader::EToken;

// next_token() by tag byte.
constexpr auto kTokenTable = [] {
  std::array<EToken, 256> t{};
  constexpr EToken kByPrefix[10] = {
      EToken::Null,   EToken::Boolean, EToken::SignedInteger, EToken::UnsignedInteger,
      EToken::Double, EToken::String,  EToken::AbsoluteTime,  EToken::RelativeTime,
      EToken::Uuid,   EToken::Binary};
  for (unsigned tag = 0; tag < 256; ++tag) {
    unsigned const prefix = tag >> 4;
    unsigned const nibble = tag & 15;
    if (prefix < 10) {
      t[tag] = kByPrefix[prefix];
    } else if (prefix == 0xA) {
      t[tag] = nibble == 0xE   ? EToken::SequenceSeparator
               : nibble == 0xF ? EToken::SequenceEnd
                               : EToken::SequenceStart;
    } else if (prefix == 0xB) {
      t[tag] = (nibble == 0 || (nibble >= 4 && nibble <= 7)) ? EToken::MarkerStart
               : nibble == 0xF                               ? EToken::MarkerEnd
                                                             : EToken::Unknown;
    } else {
      t[tag] = EToken::Unknown;
    }
  }
  return t;
}();

// Payload bytes of the fixed-size forms, by tag; 0xFF marks tags that are not scalar values
// with a fixed payload (strings, binaries, sequences, markers, reserved and invalid tags).
constexpr unsigned char kNoFixedForm = 0xFF;
constexpr auto kFixedPayload = [] {
  std::array<unsigned char, 256> t{};
  for (auto& v : t)
    v = kNoFixedForm;
  t[0x00] = 0;
  t[0x10] = t[0x11] = 0;
  t[0x20] = t[0x21] = t[0x22] = 0;
  t[0x30] = t[0x31] = 0;
  for (unsigned n = 4; n <= 10; ++n)
    t[0x20 + n] = t[0x30 + n] = static_cast<unsigned char>(1u << (n - 4));
  t[0x40] = t[0x41] = t[0x42] = 0;
  t[0x44] = 2, t[0x45] = 3, t[0x46] = 4, t[0x47] = 8;
  for (unsigned p : {0x60u, 0x70u}) {
    t[p] = t[p + 1] = 0;
    t[p + 4] = 4;
    t[p + 5] = 8;
  }
  t[0x80] = 0;
  t[0x81] = 16;
  return t;
}();

constexpr std::uint64_t kMaxSize32 = 0xFFFFFFFFu;

[[noreturn, gnu::cold]] void throw_value_too_wide(unsigned expected_bytes, unsigned actual_bytes,
                                                  char const* function) {
  // The same text for signed and unsigned values.
  zocore::ErrorComposer(
      "Number of bits required to represent marshaled signed number exceeds expected number of "
      "bits.  Expected={@expectedBits}bits, Actual={@actualBits}bits")
      .add("expectedBits", expected_bytes * 8)
      .add("actualBits", actual_bytes * 8)
      .throw_with_nested_errno(error::zoserialize_reader_data_type_range, here(function), 34);
}

[[noreturn, gnu::cold]] void throw_quadruple_unsupported(char const* function) {
  fail(error::zoserialize_reader_unsupported,
       "Reading of quadruple IEEE-754 marshaled representation not yet supported", function);
}

[[noreturn, gnu::cold]] void throw_unknown_prefix(int tag, char const* function) {
  zocore::ErrorComposer(
      "Current tag has unknown type prefix.  Actual={@actualType} (ActualTag={@actualTag})")
      .add("actualType", impl::type_prefix_name(tag))
      .add("actualTag", tag)
      .throw_error(error::zoserialize_reader_data_type, here(function));
}

[[noreturn, gnu::cold]] void throw_expecting_tag(char const* function) {
  fail(error::zoserialize_reader_eof, "Unexpected end of data, expecting tag", function);
}

[[noreturn, gnu::cold]] void throw_sequence_error(zocore::ErrorCode const& code,
                                                  char const* message, unsigned count_hint,
                                                  unsigned elements, unsigned params) {
  zocore::ErrorComposer composer(message);
  if (params > 0) composer.add("countHint", count_hint);
  if (params > 1) composer.add("elementCount", elements);
  composer.throw_error(code, here("zoserialize::BinaryReaderBase::read_sequence_next()"));
}

[[noreturn, gnu::cold]] void throw_type_mismatch(int expected_prefix, unsigned tag,
                                                 char const* function) {
  zocore::ErrorComposer(
      "Current tag has unexpected type prefix.  Expected={@expectedType}, "
      "Actual={@actualType} (ActualTag={@actualTag})")
      .add("expectedType", impl::type_prefix_name(expected_prefix))
      .add("actualType", impl::type_prefix_name(static_cast<int>(tag)))
      .add("actualTag", tag)
      .throw_error(error::zoserialize_reader_data_type_mismatch, here(function));
}

[[noreturn, gnu::cold]] void throw_too_large_size() {
  zocore::throw_with_nested_errno(
      error::zoserialize_reader_data_type_range,
      "Marshaled object exceeds 4GB size, which is not supported on 32-bit machines",
      here("zoserialize::BinaryReaderBase::read_size()"), 34);
}

[[noreturn, gnu::cold]] void throw_string_beyond_data(unsigned length, unsigned remaining) {
  zocore::ErrorComposer(
      "Invalid string length: number of bytes remaining in stream is smaller than string "
      "length: StringSize={@expected}, BytesRemaining={@remaining}")
      .add("expected", length)
      .add("remaining", remaining)
      .throw_error(error::zoserialize_reader_data_size,
                   here("zoserialize::BinaryReaderBase::read_large_string_aux()"));
}

// Bytes of a minimal form of v, at least 1 for a value other than 0 (which fits anywhere).
unsigned significant_bytes(std::uint64_t v, bool is_signed) {
  unsigned char image[8];
  impl::store_big_endian(v, image);
  unsigned const n = is_signed ? impl::minimal_signed_form(image, 8).length
                               : impl::minimal_unsigned_form(image, 8).length;
  return n == 0 && v != 0 ? 1 : n;
}

// Scopes open while skipping or copying: sequences and markers, innermost last. Held in a
// string so that ordinary nesting depths need no allocation.
constexpr char kOpenSequence = 'S';
constexpr char kOpenMarker = 'M';

}  // namespace

BinaryReaderBase::BinaryReaderBase() = default;
BinaryReaderBase::~BinaryReaderBase() = default;

void BinaryReaderBase::swap(BinaryReaderBase& other) noexcept {
  Reader::swap(other);
  sequences_.swap(other.sequences_);
  std::swap(in_cur_, other.in_cur_);
  std::swap(in_end_, other.in_end_);
  std::swap(current_tag_, other.current_tag_);
}

// ---- Checked transfers and tags ------------------------------------------------------------

void BinaryReaderBase::read_checked_slow(void* data, unsigned size) {
  unsigned const got = impl_read(data, size);
  if (got < size) throw_eof_error(size, got);
}

void BinaryReaderBase::skip_checked_slow(unsigned size) {
  unsigned const got = impl_skip(size);
  if (got < size) throw_eof_error(size, got);
}

int BinaryReaderBase::take_tag(bool available, int prefix, char const* eof_message,
                               char const* function) {
  if (!available) fail(error::zoserialize_reader_eof, eof_message, function);
  unsigned char const tag = *in_cur_;
  if ((tag & 0xF0) != prefix) throw_type_mismatch(prefix, tag, function);
  ++in_cur_;
  current_tag_ = tag;
  return tag & 0x0F;
}

void BinaryReaderBase::throw_eof_error(unsigned expected, unsigned actual) {
  zocore::ErrorComposer(
      "End of data reached reading from source.  ExpectedBytes={@expected}, ReadBytes={@actual}")
      .add("expected", expected)
      .add("actual", actual)
      .throw_error(error::zoserialize_reader_eof,
                   here("zoserialize::BinaryReaderBase::throw_eof_error()"));
}

void BinaryReaderBase::throw_unexpected_tag(char const* function) {
  impl_throw_unexpected_tag(here(function));
  // Reached only if a concrete reader's hook returned: report the tag the same way.
  throw_unexpected_tag_value(here(function));
}

void BinaryReaderBase::throw_unexpected_tag_value(SourceLocation const& location) const {
  zocore::ErrorComposer("Tag has unexpected value.  Type={@tagType}, Value={@tagValue}")
      .add("tagType", impl::type_prefix_name(static_cast<int>(current_tag_)))
      .add("tagValue", unsigned{current_tag_})
      .throw_error(error::zoserialize_reader_data_type, location);
}

void BinaryReaderBase::throw_marker_overrun(std::uint64_t marker_end, std::uint64_t position,
                                            char const* function) {
  zocore::ErrorComposer(
      "Marker size mismatch; reader has already passed calculated marker end.  "
      "MarkerEnd={@markerEndPos}, ReaderPos={@readerPos}")
      .add("markerEndPos", static_cast<unsigned long long>(marker_end))
      .add("readerPos", static_cast<unsigned long long>(position))
      .throw_error(error::zoserialize_reader_marker_overrun, here(function));
}

unsigned BinaryReaderBase::read_size(unsigned n) {
  unsigned const bytes = 1u << n;
  std::uint64_t value;
  if (window_size() >= 8) [[likely]] {
    // One load whatever the width (every payload's header goes through here).
    value = impl::load_big_endian<std::uint64_t>(in_cur_) >> (64 - 8 * bytes);
    in_cur_ += bytes;
  } else {
    unsigned char field[8];
    impl_read_checked(field, bytes);
    value = impl::load_unsigned(field, bytes);
  }
  if (value > kMaxSize32) [[unlikely]]
    throw_too_large_size();
  return static_cast<unsigned>(value);
}

// ---- Tokens and scalars --------------------------------------------------------------------

Reader::EToken BinaryReaderBase::next_token() {
  int const tag = peek_next_tag();
  if (tag < 0) return EToken::Eof;
  return kTokenTable[static_cast<unsigned>(tag)];
}

void BinaryReaderBase::read_null() {
  if (read_tag_check_type(0x00) != 0)
    throw_unexpected_tag("zoserialize::BinaryReaderBase::read_null()");
}

bool BinaryReaderBase::try_read_null() {
  int const tag = peek_next_tag();
  if (tag < 0 || (tag & 0xF0) != 0x00) return false;
  read_null();
  return true;
}

bool BinaryReaderBase::read_bool() {
  return decode_bool();
}

bool BinaryReaderBase::read_bool_slow() {
  int const nibble = read_tag_check_type(0x10);
  if (nibble > 1) throw_unexpected_tag("zoserialize::BinaryReaderBase::read_bool()");
  return nibble == 1;
}

void BinaryReaderBase::read_integer_payload(unsigned char* out, unsigned size, unsigned width,
                                            bool is_signed, char const* function) {
  if (width == size) {
    impl_read_checked(out, size);
    return;
  }
  unsigned char scratch[64];
  impl_read_checked(scratch, width);
  if (width < size) {
    unsigned char const fill = (is_signed && (scratch[0] & 0x80)) ? 0xFF : 0x00;
    std::memset(out, fill, size - width);
    std::memcpy(out + size - width, scratch, width);
    return;
  }
  unsigned const significant = is_signed ? impl::minimal_signed_form(scratch, width).length
                                         : impl::minimal_unsigned_form(scratch, width).length;
  if (significant > size) throw_value_too_wide(size, significant, function);
  std::memcpy(out, scratch + width - size, size);
}

std::uint64_t BinaryReaderBase::read_integer_value(bool is_signed, unsigned size,
                                                   char const* function) {
  unsigned const nibble = static_cast<unsigned>(read_tag_check_type(is_signed ? 0x20 : 0x30));
  unsigned char element[kMaxInlineElement] = {static_cast<unsigned char>(current_tag_)};
  std::uint64_t v = 0;
  unsigned length = 0;
  if (nibble >= 4 && nibble <= 7) impl_read_checked(element + 1, 1u << (nibble - 4));
  if (!(is_signed ? decode_integer_at<true>(element, v, length)
                  : decode_integer_at<false>(element, v, length))) {
    if (nibble < 8 || nibble > 10) throw_unexpected_tag(function);
    // 16 to 64 bytes of payload: narrowed to the image, which must hold the value.
    unsigned char image[8];
    read_integer_payload(image, size, 1u << (nibble - 4), is_signed, function);
    return is_signed ? static_cast<std::uint64_t>(impl::load_signed(image, size))
                     : impl::load_unsigned(image, size);
  }
  // Whether v fits `size` bytes: as two's complement, or unsigned.
  bool fits = size >= 8 || v == 0;
  if (!fits && size != 0) {
    std::uint64_t const half = std::uint64_t{1} << (8 * size - 1);
    fits = is_signed ? v + half < 2 * half : v < 2 * half;
  }
  if (!fits) throw_value_too_wide(size, significant_bytes(v, is_signed), function);
  return v;
}

void BinaryReaderBase::read_integer_image(void* data, unsigned size, bool is_signed,
                                          char const* function) {
  auto* out = static_cast<unsigned char*>(data);
  if (size <= 8) {
    std::uint64_t v = read_integer_value(is_signed, size, function);
    for (unsigned i = size; i-- > 0; v >>= 8)
      out[i] = static_cast<unsigned char>(v);
    return;
  }
  unsigned const nibble = static_cast<unsigned>(read_tag_check_type(is_signed ? 0x20 : 0x30));
  if (nibble <= 2 && (is_signed || nibble < 2)) {
    std::memset(out, nibble == 2 ? 0xFF : 0x00, size);
    if (nibble == 1) out[size - 1] = 0x01;
    return;
  }
  if (nibble < 4 || nibble > 10) throw_unexpected_tag(function);
  read_integer_payload(out, size, 1u << (nibble - 4), is_signed, function);
}

void BinaryReaderBase::read_int_big_endian(void* data, unsigned size) {
  read_integer_image(data, size, true, kSignedFunction);
}

void BinaryReaderBase::read_uint_big_endian(void* data, unsigned size) {
  read_integer_image(data, size, false, kUnsignedFunction);
}

double BinaryReaderBase::read_double() {
  return decode_double();
}

double BinaryReaderBase::read_double_slow() {
  static constexpr char kFunction[] = "zoserialize::BinaryReaderBase::read_double()";
  unsigned const nibble = static_cast<unsigned>(read_tag_check_type(0x40));
  if (nibble >= 8 && nibble <= 11) throw_quadruple_unsupported(kFunction);
  if (nibble == 3 || nibble > 7) throw_unexpected_tag(kFunction);
  unsigned char element[kMaxInlineElement] = {static_cast<unsigned char>(current_tag_)};
  impl_read_checked(element + 1, kFixedPayload[current_tag_]);
  unsigned length;
  return decode_double_at(element, length);
}

std::int64_t BinaryReaderBase::read_time(int prefix, char const* function) {
  unsigned char field[8];
  switch (read_tag_check_type(prefix)) {
    case impl::kNibbleTimeZero:
      return 0;
    case impl::kNibbleTimeInfinite:
      return INT64_MAX;
    case impl::kNibbleTime32:
      impl_read_checked(field, 4);
      return impl::load_signed(field, 4);
    case impl::kNibbleTime64:
      impl_read_checked(field, 8);
      return impl::load_signed(field, 8);
    default:
      throw_unexpected_tag(function);
  }
}

AbsoluteTime BinaryReaderBase::read_absolute_time() {
  return AbsoluteTime(read_time(0x60, "zoserialize::BinaryReaderBase::read_absolute_time()"));
}

RelativeTime BinaryReaderBase::read_relative_time() {
  return RelativeTime(read_time(0x70, "zoserialize::BinaryReaderBase::read_relative_time()"));
}

Uuid BinaryReaderBase::read_uuid() {
  switch (read_tag_check_type(0x80)) {
    case 0:
      return Uuid();
    case 1: {
      unsigned char bytes[Uuid::kBinarySize];
      impl_read_checked(bytes, Uuid::kBinarySize);
      return Uuid::from_binary(bytes);
    }
    default:
      throw_unexpected_tag("zoserialize::BinaryReaderBase::read_uuid()");
  }
}

// ---- Strings and binaries ------------------------------------------------------------------

BinaryReaderBase::PayloadHeader BinaryReaderBase::read_payload_header(int prefix,
                                                                      char const* function) {
  unsigned const nibble = static_cast<unsigned>(read_tag_check_type(prefix));
  if (nibble < 8) return {nibble, false};
  if (nibble <= impl::kNibbleLength4) return {read_size(nibble - impl::kNibbleLength1), false};
  if (nibble > impl::kNibbleFirstChunk2) throw_unexpected_tag(function);
  return {read_size(nibble - impl::kNibbleFirstChunk1), true};
}

bool BinaryReaderBase::read_next_chunk_header(int prefix, unsigned& length, char const* function) {
  unsigned const nibble = static_cast<unsigned>(read_tag_check_type(prefix));
  if (nibble == impl::kNibbleChunkEnd) return false;
  if (nibble != impl::kNibbleNextChunk1 && nibble != impl::kNibbleNextChunk2) {
    throw_unexpected_tag(function);
  }
  length = read_size(nibble - impl::kNibbleNextChunk1);
  return true;
}

void BinaryReaderBase::read_string_slow(std::string& out) {
  static constexpr char kFunction[] = "zoserialize::BinaryReaderBase::read_large_string_aux()";
  PayloadHeader const header = read_payload_header(0x50, kFunction);
  out.clear();
  if (!header.chunked) {
    unsigned const length = header.length;
    // Lengths in a field of their own are checked before anything is read.
    if ((current_tag_ & 0x0F) >= impl::kNibbleLength1) check_string_length(length);
    // Grown as the bytes arrive, so a length that lies costs no more memory than the data.
    constexpr unsigned kStep = 1u << 16;
    unsigned done = 0;
    while (done < length) {
      unsigned const n = length - done < kStep ? length - done : kStep;
      out.resize(done + n);
      unsigned got = n;
      if (n <= window_size()) {
        std::memcpy(out.data() + done, in_cur_, n);
        in_cur_ += n;
      } else {
        got = impl_read(out.data() + done, n);
      }
      // Reported against the whole string, not the step.
      if (got < n) throw_eof_error(length, done + got);
      done += n;
    }
    return;
  }
  // Chunked: the chunks are appended until the end tag.
  unsigned length = header.length;
  do {
    if (length > impl::kMaxStringByValue - out.size()) {
      throw_string_too_large(
          "String is too large to read by value, it must be read as stream.  "
          "Size={@actualSize}, MaxSize={@maxSize}",
          out.size() + length);
    }
    std::size_t const at = out.size();
    out.resize(at + length);
    impl_read_checked(out.data() + at, length);
  } while (read_next_chunk_header(0x50, length, kFunction));
}

void BinaryReaderBase::check_string_length(unsigned length) {
  unsigned const remaining = impl_bytes_remaining();
  if (remaining != IReadStream::kUnknownSize && remaining < length) [[unlikely]]
    throw_string_beyond_data(length, remaining);
  if (length > impl::kMaxStringByValue) {
    throw_string_too_large(
        "String is too large to read by value, it must be read as stream.  "
        "ActualSize={@actualSize}, MaxSize={@maxSize}",
        length);
  }
}

void BinaryReaderBase::throw_string_too_large(char const* message, std::uint64_t size) {
  zocore::ErrorComposer(message)
      .add("actualSize", static_cast<unsigned long long>(size))
      .add("maxSize", impl::kMaxStringByValue)
      .throw_error(error::zoserialize_reader_data_string_size,
                   here("zoserialize::BinaryReaderBase::read_large_string_aux()"));
}

void BinaryReaderBase::read_string(std::string& out) {
  read_string_value(out);
}

std::string BinaryReaderBase::read_string() {
  std::string out;
  read_string_value(out);
  return out;
}

void BinaryReaderBase::read_string(SourceString& out) {
  std::string text;
  read_string_value(text);
  out = SourceString(std::string_view(text));
}

void BinaryReaderBase::skip_binary_aux(int prefix, unsigned nibble) {
  static constexpr char kFunction[] = "zoserialize::BinaryReaderBase::skip_binary_aux()";
  if (nibble < 8) {
    impl_skip_checked(nibble);
    return;
  }
  if (nibble <= impl::kNibbleLength4) {
    impl_skip_checked(read_size(nibble - impl::kNibbleLength1));
    return;
  }
  if (nibble > impl::kNibbleFirstChunk2) throw_unexpected_tag(kFunction);
  unsigned length = read_size(nibble - impl::kNibbleFirstChunk1);
  do {
    impl_skip_checked(length);
  } while (read_next_chunk_header(prefix, length, kFunction));
}

// ---- Sequences -----------------------------------------------------------------------------

unsigned BinaryReaderBase::read_sequence_start_slow() {
  unsigned const nibble = static_cast<unsigned>(read_tag_check_type(0xA0));
  unsigned hint;
  if (nibble < 8) {
    hint = nibble;
  } else if (nibble <= 0xB) {
    // An 8-byte hint (nibble B) is accepted although writers never produce it.
    hint = read_size(nibble - 8);
  } else {
    throw_unexpected_tag("zoserialize::BinaryReaderBase::read_sequence_start()");
  }
  sequences_.push_back({hint, 0});
  return hint;
}

bool BinaryReaderBase::read_sequence_next_slow() {
  if (sequences_.empty()) [[unlikely]] {
    throw_sequence_error(error::zoserialize_reader_sequence_nesting,
                         "Attempt to advance to next element in sequence but no sequence is open",
                         0, 0, 0);
  }
  SequenceEntry& top = sequences_.back();
  if (top.elements == 0) {
    int const tag = peek_next_tag();
    if (tag < 0) [[unlikely]] {
      throw_sequence_error(error::zoserialize_reader_eof, "End of data reached in sequence", 0, 0,
                           0);
    }
    if (tag != impl::kTagSequenceEnd) {
      ++top.elements;
      return true;
    }
    read_tag_check_type(0xA0);
    unsigned const hint = top.count_hint;
    sequences_.pop_back();
    if (hint != 0) [[unlikely]] {
      throw_sequence_error(error::zoserialize_reader_sequence_element_count,
                           "Count hint of sequence does not match number of elements in "
                           "sequence.  CountHint={@countHint}, ElementCount={@elementCount}",
                           hint, 0, 2);
    }
    return false;
  }
  unsigned const nibble = static_cast<unsigned>(read_tag_check_type(0xA0));
  if (nibble == (impl::kTagSequenceSeparator & 0x0F)) {
    if (top.count_hint != 0 && top.elements >= top.count_hint) [[unlikely]] {
      throw_sequence_error(error::zoserialize_reader_sequence_element_count,
                           "Expecting end of sequence but found separator.  CountHint={@countHint}",
                           top.count_hint, 0, 1);
    }
    ++top.elements;
    return true;
  }
  if (nibble == (impl::kTagSequenceEnd & 0x0F)) {
    SequenceEntry const closed = top;
    sequences_.pop_back();
    if (closed.count_hint != 0 && closed.count_hint != closed.elements) [[unlikely]] {
      throw_sequence_error(error::zoserialize_reader_sequence_element_count,
                           "Premature end of sequence, expecting separator.  "
                           "CountHint={@countHint}, ElementCount={@elementCount}",
                           closed.count_hint, closed.elements, 2);
    }
    return false;
  }
  throw_sequence_error(error::zoserialize_reader_sequence_unexpected,
                       "Unexpected sequence start element (expecting separator or end)", 0, 0, 0);
}

// ---- Markers -------------------------------------------------------------------------------

unsigned BinaryReaderBase::read_marker_start_tag() {
  unsigned const nibble = static_cast<unsigned>(read_tag_check_type(0xB0));
  if (nibble == 0) return 0;
  if (nibble < 4 || nibble > 7) {
    throw_unexpected_tag("zoserialize::BinaryReaderBase::read_marker_start_tag()");
  }
  return read_size(nibble - 4);
}

void BinaryReaderBase::finish_marker_end(bool sized, char const* function) {
  if (!sized) {
    skip_to_marker_end_tag();
  } else if (peek_next_tag() != impl::kTagMarkerEnd) [[unlikely]] {
    fail(error::zoserialize_reader_marker_size,
         "Inconsistent marker size: no end tag at end position", function);
  }
  read_tag_check_type(0xB0);
}

void BinaryReaderBase::skip_to_marker_end_tag() {
  while (!marker_end_is_next_or_fail(true,
                                     "zoserialize::BinaryReaderBase::skip_to_marker_end_tag()")) {
    skip_element();
  }
}

void BinaryReaderBase::throw_no_marker_open(char const* function) {
  fail(error::zoserialize_reader_marker_mismatch, "No markers are currently open", function);
}

void BinaryReaderBase::throw_eof_in_marker(char const* function) {
  fail(error::zoserialize_reader_eof, "Unexpected end of data in marker, expecting marker end tag",
       function);
}

// ---- Skipping and copying ------------------------------------------------------------------

void BinaryReaderBase::skip_element() {
  static constexpr char kFunction[] = "zoserialize::BinaryReaderBase::skip_element()";
  std::string open;  // scopes entered by this call, innermost last
  do {
    int const tag = peek_next_tag();
    if (tag < 0) throw_expecting_tag(kFunction);
    int const prefix = tag & 0xF0;
    unsigned const fixed = kFixedPayload[static_cast<unsigned>(tag)];
    if (fixed != kNoFixedForm) {
      read_tag_check_type(prefix);
      impl_skip_checked(fixed);
      continue;
    }
    switch (prefix) {
      case 0x00:
      case 0x10:
      case 0x20:
      case 0x30:
      case 0x60:
      case 0x70:
      case 0x80:
        read_tag_check_type(prefix);
        throw_unexpected_tag(kFunction);
      case 0x40:
        read_tag_check_type(prefix);
        if ((tag & 0x0F) >= 8 && (tag & 0x0F) <= 11) throw_quadruple_unsupported(kFunction);
        throw_unexpected_tag(kFunction);
      case 0x50:
      case 0x90:
        skip_binary_aux(prefix, static_cast<unsigned>(read_tag_check_type(prefix)));
        break;
      case 0xA0:
        if (tag == impl::kTagSequenceSeparator || tag == impl::kTagSequenceEnd) {
          read_tag_check_type(prefix);
          if (open.empty() || open.back() != kOpenSequence) throw_unexpected_tag(kFunction);
          if (tag == impl::kTagSequenceEnd) open.pop_back();
          break;
        }
        {
          unsigned const nibble = static_cast<unsigned>(read_tag_check_type(prefix));
          if (nibble >= 8) {
            if (nibble > 0xB) throw_unexpected_tag(kFunction);
            read_size(nibble - 8);
          }
        }
        open.push_back(kOpenSequence);
        break;
      case 0xB0:
        if (tag == impl::kTagMarkerEnd) {
          read_tag_check_type(prefix);
          if (open.empty() || open.back() != kOpenMarker) throw_unexpected_tag(kFunction);
          open.pop_back();
          break;
        }
        read_marker_start_tag();
        open.push_back(kOpenMarker);
        break;
      default:
        throw_unknown_prefix(tag, kFunction);
    }
  } while (!open.empty());
}

void BinaryReaderBase::copy_scalar(EToken token, Writer& writer) {
  if (token != EToken::SignedInteger && token != EToken::UnsignedInteger) {
    impl::copy_plain_value(*this, token, writer);
    return;
  }
  // Read at the payload's own width: the writer shortens it again to the same form.
  unsigned const fixed = kFixedPayload[static_cast<unsigned>(peek_next_tag())];
  unsigned const width = (fixed == kNoFixedForm || fixed == 0) ? 1 : fixed;
  unsigned char image[64];
  if (token == EToken::SignedInteger) {
    read_int_big_endian(image, width);
    writer.write_int_big_endian(image, width);
  } else {
    read_uint_big_endian(image, width);
    writer.write_uint_big_endian(image, width);
  }
}

void BinaryReaderBase::read_copy(Writer& writer) {
  static constexpr char kFunction[] = "zoserialize::BinaryReaderBase::read_copy()";
  // Open scopes, innermost last: a sequence entry also records whether an element was copied
  // already (then the next one needs a separator).
  std::string open;
  constexpr char kSequenceFirst = 's';
  for (;;) {
    if (!open.empty()) {
      char& top = open.back();
      if (top == kOpenMarker) {
        if (read_marker_is_end()) {
          read_marker_end();
          writer.write_marker_end();
          open.pop_back();
          if (open.empty()) return;
          continue;
        }
      } else {
        if (!read_sequence_next()) {
          writer.write_sequence_end();
          open.pop_back();
          if (open.empty()) return;
          continue;
        }
        if (top == kOpenSequence) writer.write_sequence_separator();
        top = kOpenSequence;
      }
    }
    EToken const token = next_token();
    switch (token) {
      case EToken::Eof:
        throw_expecting_tag(kFunction);
      case EToken::SequenceStart: {
        unsigned const hint = read_sequence_start();
        if (hint != 0) {
          writer.write_sequence_start(hint);
        } else {
          writer.write_sequence_start();
        }
        open.push_back(kSequenceFirst);
        continue;
      }
      case EToken::MarkerStart:
        read_marker_start();
        writer.write_marker_start();
        open.push_back(kOpenMarker);
        continue;
      case EToken::SequenceSeparator:
      case EToken::SequenceEnd:
      case EToken::MarkerEnd:
        read_tag_check_type(peek_next_tag() & 0xF0);
        throw_unexpected_tag(kFunction);
      case EToken::Unknown: {
        int const tag = peek_next_tag();
        if ((tag & 0xF0) >= 0xC0) throw_unknown_prefix(tag, kFunction);
        read_tag_check_type(tag & 0xF0);
        throw_unexpected_tag(kFunction);
      }
      default:
        copy_scalar(token, writer);
        break;
    }
    if (open.empty()) return;
  }
}

}  // namespace zoserialize
