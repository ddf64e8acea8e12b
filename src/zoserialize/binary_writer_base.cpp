#include <bit>
#include <cstdint>

#include <zocore/error_composer.h>
#include <zocore/throw_error.h>
#include <zoserialize/binary_writer_base.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/integer_form.h>
#include <zoserialize/impl/output_failure.h>

namespace zoserialize {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/binary_writer_base.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

[[noreturn, gnu::cold]] void fail(zocore::ErrorCode const& code, char const* message,
                                  char const* function) {
  zocore::throw_error(code, message, here(function));
}

constexpr unsigned char tag_of(impl::ETypePrefix prefix, unsigned nibble) {
  return static_cast<unsigned char>(static_cast<unsigned>(prefix) | nibble);
}

// The largest minimal form the format carries: 64 bytes (512 bits).
constexpr unsigned kMaxIntegerBytes = 64;

// Payload widths for the value nibbles 4..10 of integers.
constexpr unsigned width_nibble(unsigned length) {
  return length <= 1    ? 4
         : length <= 2  ? 5
         : length <= 4  ? 6
         : length <= 8  ? 7
         : length <= 16 ? 8
         : length <= 32 ? 9
                        : 10;
}

[[noreturn]] void throw_integer_too_wide(bool is_signed, unsigned significant_bytes) {
  zocore::ErrorComposer(
      is_signed ? "Minimum number of bits required to represent the signed integer exceeds "
                  "supported maximum.  Max={@maxBits}bits, Given={@actualBits}bits"
                : "Minimum number of bits required to represent the unsigned integer exceeds "
                  "supported maximum.  Max={@maxBits}bits, Given={@actualBits}bits")
      .add("maxBits", kMaxIntegerBytes * 8)
      .add("actualBits", significant_bytes * 8)
      .throw_error(error::zoserialize_writer_data_range,
                   here(is_signed ? "zoserialize::BinaryWriterBase::write_int_big_endian()"
                                  : "zoserialize::BinaryWriterBase::write_uint_big_endian()"));
}

// A source that delivered more than it announced (`more`), or less.
[[noreturn, gnu::cold]] void throw_source_size(unsigned announced, unsigned read, bool more) {
  zocore::ErrorComposer composer(
      more ? "IReadStream returns more data than the announced {@expected} bytes"
           : "Early EOS in IReadStream.  Expected {@expected} bytes, read {@read} bytes");
  composer.add("expected", announced);
  if (!more) composer.add("read", read);
  composer.throw_error(error::zoserialize_writer_data_size,
                       here("zoserialize::BinaryWriterBase::write_binary_aux()"));
}

// A marker size field wider than 8 bytes (`bytes` 0), or one too narrow for `size`.
[[noreturn, gnu::cold]] void throw_marker_field(unsigned size, unsigned bytes) {
  static constexpr char kFunction[] = "zoserialize::BinaryWriterBase::write_marker_start_tag()";
  if (bytes == 0) {
    zocore::throw_with_nested_errno(error::zoserialize_writer_data_range,
                                    "Field size must be less than or equal to 8 (64-bit field)",
                                    here(kFunction), 22);
  }
  zocore::ErrorComposer("Marker size value ({@size}) exceeds bit size of field ({@fieldSize})")
      .add("size", size)
      .add("fieldSize", bytes * 8)
      .throw_with_nested_errno(error::zoserialize_writer_data_range, here(kFunction), 22);
}

}  // namespace

// ---- Value stream ---------------------------------------------------------------------------

// Full buffers go out as chunks of 0x1000 bytes; a write of a buffer's worth or more into an
// empty buffer goes out directly, in chunks of at most 65535 bytes. A value that never filled the
// buffer is written whole, so short streamed values look exactly like values written whole.
class BinaryWriterBase::BinaryStreamImpl final
    : public impl::BufferedValueStream<impl::kStreamChunkSize, 1> {
 public:
  BinaryStreamImpl(BinaryWriterBase& writer, ETypePrefix prefix) noexcept
      : BufferedValueStream(writer.stream_slot_,
                            "zoserialize::BinaryWriterBase::BinaryStreamImpl::write()"),
        writer_(writer),
        prefix_(prefix) {}

 private:
  void emit_block(unsigned char const* data, unsigned size) override {
    while (size != 0) {
      unsigned const piece = size < impl::kMaxChunkSize ? size : impl::kMaxChunkSize;
      writer_.write_chunk(prefix_, first_, data, piece);
      first_ = false;
      data += piece;
      size -= piece;
    }
  }

  void emit_final(unsigned char const* rest, unsigned size) override {
    if (first_) {
      writer_.write_binary_aux(prefix_, rest, size);
      return;
    }
    if (size != 0) writer_.write_chunk(prefix_, false, rest, size);
    writer_.write_chunk_end(prefix_);
  }

  BinaryWriterBase& writer_;
  ETypePrefix prefix_;
  bool first_ = true;  // no chunk emitted yet
};

// ---- Writer ---------------------------------------------------------------------------------

impl::ScopeMessages const BinaryWriterBase::kScopeMessages = {
    "zoserialize::BinaryWriterBase::write_sequence_separator()",
    "zoserialize::BinaryWriterBase::write_sequence_end()",
    // Unused: marker ends are refused by end_counted_marker with the concrete writer's name.
    "zoserialize::BinaryWriterBase::write_marker_end()", "zoserialize::BinaryWriterBase::close()",
    "Attempt to add sequence separator and no sequence is open",
    "Attempt to close sequence and none is open", "Attempt to close marker and none is open",
    "Attempt to close writer that has open sequences", &error::zoserialize_writer_marker_nesting,
    false,  // Added reports the separators written, not the elements
};

BinaryWriterBase::BinaryWriterBase() = default;

// A caller may still hold the value stream; the slot abandons it, so that it fails from now on
// rather than reach a destroyed writer. Finishing it here would call the concrete writer's hooks,
// which are gone.
BinaryWriterBase::~BinaryWriterBase() = default;

void BinaryWriterBase::close() {
  finalize_previous_element();
  sequences_.check_closed(kScopeMessages);
}

void BinaryWriterBase::settle() {
  if ((pending_ & kOutputFailed) != 0) {
    impl::throw_output_incomplete("zoserialize::BinaryWriterBase::finalize_previous_element()");
  }
  finalize_binary_writer_stream();
}

void BinaryWriterBase::mark_output_failed() noexcept {
  pending_ |= kOutputFailed;
  update_fast_end();
  stream_slot_.abandon();
}

unsigned BinaryWriterBase::read_source(IReadStream& source, void* dest, unsigned size,
                                       bool element_begun) {
  try {
    return source.read(dest, size);
  } catch (...) {
    if (element_begun) mark_output_failed();
    throw;
  }
}

void BinaryWriterBase::flush() {
  finalize_previous_element();
}

void BinaryWriterBase::write_bool(bool value) {
  encode_bool(value);
}

void BinaryWriterBase::encode_tag_slow(unsigned char tag) {
  finalize_previous_element();
  emit_byte(tag);
}

void BinaryWriterBase::start_counted_marker_slow() {
  finalize_previous_element();
  write_marker_start_tag();
  ++open_markers_;
}

void BinaryWriterBase::end_counted_marker_slow(char const* function) {
  finalize_previous_element();
  if (open_markers_ == 0) [[unlikely]]
    throw_no_marker_to_close(function);
  --open_markers_;
  write_marker_end_tag();
}

void BinaryWriterBase::encode_payload_slow(unsigned char tag, void const* data, std::size_t size) {
  unsigned const checked = size_of(size);
  finalize_previous_element();
  write_binary_aux(static_cast<ETypePrefix>(tag), data, checked);
}

void BinaryWriterBase::write_int_big_endian(void const* data, unsigned size) {
  auto const* image = static_cast<unsigned char const*>(data);
  if (size > 8) [[unlikely]] {
    finalize_previous_element();
    write_signed_wide(image, size);
    return;
  }
  encode_signed(impl::load_signed(image, size));
}

void BinaryWriterBase::emit_element(unsigned char const* element, unsigned char const* end) {
  // The tag and the payload go out as two pieces, as every tagged element does on this path.
  emit_tagged(element[0], element + 1, static_cast<unsigned>(end - element - 1));
}

void BinaryWriterBase::encode_signed_slow(std::int64_t v) {
  finalize_previous_element();
  unsigned char element[kMaxInlineElement];
  emit_element(element, put_signed(element, v));
}

void BinaryWriterBase::encode_unsigned_slow(std::uint64_t v) {
  finalize_previous_element();
  unsigned char element[kMaxInlineElement];
  emit_element(element, put_unsigned(element, v));
}

void BinaryWriterBase::encode_double_slow(double v) {
  finalize_previous_element();
  unsigned char element[kMaxInlineElement];
  emit_element(element, put_double(element, v));
}

void BinaryWriterBase::write_signed_wide(unsigned char const* image, unsigned size) {
  impl::SignedForm const form = impl::minimal_signed_form(image, size);
  if (form.length == 0) {
    emit_byte(form.sign == 0 ? 0x20 : 0x22);
    return;
  }
  if (form.length == 1 && image[form.offset] == 0x01) {
    emit_byte(0x21);
    return;
  }
  if (form.length > kMaxIntegerBytes) throw_integer_too_wide(true, form.length);
  unsigned const nibble = width_nibble(form.length);
  unsigned const width = 1u << (nibble - 4);
  unsigned char payload[kMaxIntegerBytes];
  // Sign-extend to the width; an image at least that wide already holds the extension bytes.
  std::memset(payload, form.sign, width - form.length);
  std::memcpy(payload + width - form.length, image + form.offset, form.length);
  emit_tagged(static_cast<unsigned char>(0x20 | nibble), payload, width);
}

void BinaryWriterBase::write_uint_big_endian(void const* data, unsigned size) {
  auto const* image = static_cast<unsigned char const*>(data);
  if (size > 8) [[unlikely]] {
    finalize_previous_element();
    write_unsigned_wide(image, size);
    return;
  }
  encode_unsigned(impl::load_unsigned(image, size));
}

void BinaryWriterBase::write_unsigned_wide(unsigned char const* image, unsigned size) {
  impl::UnsignedForm const form = impl::minimal_unsigned_form(image, size);
  if (form.length == 0) {
    emit_byte(0x30);
    return;
  }
  if (form.length == 1 && image[form.offset] == 0x01) {
    emit_byte(0x31);
    return;
  }
  // One byte tighter than the signed limit: a 64-byte value with a non-zero top byte is refused.
  if (form.length >= kMaxIntegerBytes) throw_integer_too_wide(false, form.length);
  unsigned const nibble = width_nibble(form.length);
  unsigned const width = 1u << (nibble - 4);
  unsigned char payload[kMaxIntegerBytes];
  std::memset(payload, 0, width - form.length);
  std::memcpy(payload + width - form.length, image + form.offset, form.length);
  emit_tagged(static_cast<unsigned char>(0x30 | nibble), payload, width);
}

void BinaryWriterBase::write_double(double value) {
  encode_double(value);
}

void BinaryWriterBase::write_string(char const* data, unsigned size) {
  encode_string(data, size);
}

InterfacePtr<IWriteStream> BinaryWriterBase::write_string_stream() {
  return create_binary_write_stream(ETypePrefix::String);
}

void BinaryWriterBase::write_string_stream(IReadStream& source) {
  finalize_previous_element();
  write_binary_aux(ETypePrefix::String, source);
}

void BinaryWriterBase::write_time(ETypePrefix prefix, std::int64_t count) {
  if (count == INT64_MAX) {
    emit_byte(tag_of(prefix, impl::kNibbleTimeInfinite));
  } else if (count == 0) {
    emit_byte(tag_of(prefix, impl::kNibbleTimeZero));
  } else if (count >= INT32_MIN && count <= INT32_MAX) {
    unsigned char payload[4];
    impl::store_big_endian(static_cast<std::int32_t>(count), payload);
    emit_tagged(tag_of(prefix, impl::kNibbleTime32), payload, 4);
  } else {
    unsigned char payload[8];
    impl::store_big_endian(count, payload);
    emit_tagged(tag_of(prefix, impl::kNibbleTime64), payload, 8);
  }
}

void BinaryWriterBase::write_absolute_time(AbsoluteTime const& value) {
  finalize_previous_element();
  write_time(ETypePrefix::AbsoluteTime, value.count());
}

void BinaryWriterBase::write_relative_time(RelativeTime const& value) {
  finalize_previous_element();
  write_time(ETypePrefix::RelativeTime, value.count());
}

void BinaryWriterBase::write_uuid(Uuid const& value) {
  finalize_previous_element();
  if (value.is_null()) {
    emit_byte(0x80);
    return;
  }
  unsigned char payload[Uuid::kBinarySize];
  value.write_binary(payload);
  emit_tagged(0x81, payload, Uuid::kBinarySize);
}

InterfacePtr<IWriteStream> BinaryWriterBase::write_binary() {
  return create_binary_write_stream(ETypePrefix::Binary);
}

void BinaryWriterBase::write_binary(IReadStream& source) {
  finalize_previous_element();
  write_binary_aux(ETypePrefix::Binary, source);
}

void BinaryWriterBase::write_sequence_start_slow(unsigned count_hint) {
  finalize_previous_element();
  if (count_hint < 8) {
    emit_byte(static_cast<unsigned char>(0xA0 | count_hint));
  } else if (count_hint <= 0xFF) {
    unsigned char const field = static_cast<unsigned char>(count_hint);
    emit_tagged(0xA8, &field, 1);
  } else if (count_hint <= 0xFFFF) {
    unsigned char field[2];
    impl::store_big_endian(static_cast<std::uint16_t>(count_hint), field);
    emit_tagged(0xA9, field, 2);
  } else {
    unsigned char field[4];
    impl::store_big_endian(count_hint, field);
    emit_tagged(0xAA, field, 4);
  }
  sequences_.start(count_hint);
}

void BinaryWriterBase::write_sequence_start() {
  write_sequence_start(0);
}

void BinaryWriterBase::write_sequence_separator_slow() {
  finalize_previous_element();
  sequences_.add_separator(kScopeMessages);
  emit_byte(impl::kTagSequenceSeparator);
}

void BinaryWriterBase::write_sequence_end_slow() {
  finalize_previous_element();
  // The sequence counts as closed even when the count check fails.
  sequences_.end(kScopeMessages);
  emit_byte(impl::kTagSequenceEnd);
}

void BinaryWriterBase::throw_no_marker_to_close(char const* function) {
  fail(error::zoserialize_writer_marker_nesting, "Attempt to close marker and none is open",
       function);
}

// ---- Protected helpers ----------------------------------------------------------------------

void BinaryWriterBase::write_binary_tag_aux(ETypePrefix prefix, unsigned length) {
  unsigned char field[4];
  if (length < 8) {
    emit_byte(tag_of(prefix, length));
  } else if (length <= 0xFF) {
    field[0] = static_cast<unsigned char>(length);
    emit_tagged(tag_of(prefix, impl::kNibbleLength1), field, 1);
  } else if (length <= 0xFFFF) {
    impl::store_big_endian(static_cast<std::uint16_t>(length), field);
    emit_tagged(tag_of(prefix, impl::kNibbleLength2), field, 2);
  } else {
    impl::store_big_endian(length, field);
    emit_tagged(tag_of(prefix, impl::kNibbleLength4), field, 4);
  }
}

void BinaryWriterBase::write_binary_aux(ETypePrefix prefix, void const* data, unsigned size) {
  write_binary_tag_aux(prefix, size);
  emit(data, size);
}

void BinaryWriterBase::write_chunk(ETypePrefix prefix, bool first, void const* data,
                                   unsigned size) {
  unsigned char field[2];
  if (size <= 0xFF) {
    field[0] = static_cast<unsigned char>(size);
    emit_tagged(tag_of(prefix, first ? impl::kNibbleFirstChunk1 : impl::kNibbleNextChunk1), field,
                1);
  } else {
    impl::store_big_endian(static_cast<std::uint16_t>(size), field);
    emit_tagged(tag_of(prefix, first ? impl::kNibbleFirstChunk2 : impl::kNibbleNextChunk2), field,
                2);
  }
  emit(data, size);
}

void BinaryWriterBase::write_chunk_end(ETypePrefix prefix) {
  emit_byte(tag_of(prefix, impl::kNibbleChunkEnd));
}

void BinaryWriterBase::write_binary_aux(ETypePrefix prefix, IReadStream& source) {
  unsigned char block[impl::kStreamChunkSize];
  unsigned const announced = source.bytes_remaining();
  if (announced == IReadStream::kUnknownSize) {
    unsigned got = read_source(source, block, impl::kStreamChunkSize, false);
    if (got < impl::kStreamChunkSize) {
      write_binary_aux(prefix, block, got);
      return;
    }
    write_chunk(prefix, true, block, got);
    while ((got = read_source(source, block, impl::kStreamChunkSize, true)) != 0) {
      write_chunk(prefix, false, block, got);
    }
    write_chunk_end(prefix);
    return;
  }
  write_binary_tag_aux(prefix, announced);
  if (announced == 0) return;
  unsigned total = 0;
  for (;;) {
    // Read straight into the output window when it has room: no intermediate copy. The bytes
    // only count as written once out_cur_ moves past them.
    bool const direct = window_room() >= impl::kStreamChunkSize;
    unsigned char* const dest = direct ? out_cur_ : block;
    unsigned const got = read_source(source, dest, impl::kStreamChunkSize, true);
    if (got == 0) break;
    if (got > announced - total) [[unlikely]]
      throw_source_size(announced, 0, true);
    if (direct) {
      out_cur_ += got;
    } else {
      emit(block, got);
    }
    total += got;
  }
  if (total != announced) [[unlikely]]
    throw_source_size(announced, total, false);
}

void BinaryWriterBase::write_marker_start_tag(unsigned size, unsigned field_size) {
  unsigned bytes;
  if (field_size == 0) {
    if (size == 0) {
      emit_byte(impl::kTagMarkerStart);
      return;
    }
    bytes = size <= 0xFF ? 1 : size <= 0xFFFF ? 2 : 4;
  } else {
    if (field_size > 8) [[unlikely]]
      throw_marker_field(0, 0);
    bytes = field_size <= 1 ? 1 : field_size <= 2 ? 2 : field_size <= 4 ? 4 : 8;
    // The limit is 2 to the power of the field's width in bytes, not in bits: only small sizes
    // pass. Callers use a fixed field only with size 0 and the shortest form otherwise.
    if (static_cast<std::uint64_t>(size) >= (std::uint64_t{1} << bytes)) [[unlikely]]
      throw_marker_field(size, bytes);
  }
  unsigned char field[8];
  impl::store_big_endian(static_cast<std::uint64_t>(size), field);
  unsigned const nibble = bytes == 1 ? 4 : bytes == 2 ? 5 : bytes == 4 ? 6 : 7;
  emit_tagged(static_cast<unsigned char>(0xB0 | nibble), field + 8 - bytes, bytes);
}

InterfacePtr<IWriteStream> BinaryWriterBase::create_binary_write_stream(ETypePrefix prefix) {
  finalize_previous_element();
  pending_ |= kStreamOpen;
  update_fast_end();
  return stream_slot_.open(zocore::make_ref_counted<BinaryStreamImpl>(*this, prefix));
}

void BinaryWriterBase::finalize_binary_writer_stream() {
  pending_ &= static_cast<std::uint8_t>(~kStreamOpen);
  update_fast_end();
  stream_slot_.finish();
}

}  // namespace zoserialize
