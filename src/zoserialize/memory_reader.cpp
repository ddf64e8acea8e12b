#include <ostream>
#include <string>

#include <zocore/error_composer.h>
#include <zocore/streamers.h>
#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/integer_form.h>
#include <zoserialize/impl/utf8_validating_stream.h>
#include <zoserialize/memory_reader.h>
#include <zoserialize/memory_writer.h>

namespace zoserialize {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/memory_reader.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

constexpr int kStringPrefix = impl::prefix_value(impl::ETypePrefix::String);
constexpr int kBinaryPrefix = impl::prefix_value(impl::ETypePrefix::Binary);
constexpr int kMarkerPrefix = impl::prefix_value(impl::ETypePrefix::Marker);

// Validates [cursor, cursor + length) of `list` as the next piece of a UTF-8 text.
void validate_range(MemoryListBaseType const& list, MemoryListCursor const& cursor, unsigned length,
                    impl::Utf8CarryValidator& validator) {
  for (SegmentReadIterator piece(ConstMemoryListPtr(&list), cursor, length); !piece.at_end();
       piece.next()) {
    validator.feed(piece.data(), piece.size());
  }
}

}  // namespace

// ---- Payload streams -----------------------------------------------------------------------

// A plain payload: a range of the list, read through the stream's own cursor.
class MemoryReader::BinaryStreamImpl final : public IReadStream,
                                             public zocore::RefCounted<zocore::AtomicRefCount> {
 public:
  BinaryStreamImpl(ConstMemoryListPtr list, MemoryListCursor const& cursor, unsigned length)
      : list_(std::move(list)), cursor_(cursor), remaining_(length) {}

  unsigned read(void* data, unsigned size) override {
    unsigned const n = size < remaining_ ? size : remaining_;
    if (n == 0) return 0;
    list_->read_at_cursor(cursor_, static_cast<char*>(data), n);
    remaining_ -= n;
    return n;
  }

  unsigned skip(unsigned size) override {
    unsigned const n = size < remaining_ ? size : remaining_;
    if (n == 0) return 0;
    list_->cursor_advance(cursor_, n);
    remaining_ -= n;
    return n;
  }

  unsigned bytes_remaining() const override { return remaining_; }

  void close() override { remaining_ = 0; }

 private:
  ConstMemoryListPtr list_;
  MemoryListCursor cursor_;
  unsigned remaining_;
};

// A chunked payload: the stream walks the chunk headers itself. The reader checked the whole
// chunk sequence before handing the stream out.
class MemoryReader::BinaryStreamChunkedImpl final
    : public IReadStream,
      public zocore::RefCounted<zocore::AtomicRefCount> {
 public:
  BinaryStreamChunkedImpl(ConstMemoryListPtr list, MemoryListCursor const& cursor,
                          unsigned first_chunk, int prefix)
      : list_(std::move(list)), cursor_(cursor), remaining_(first_chunk), prefix_(prefix) {}

  unsigned read(void* data, unsigned size) override {
    return transfer(static_cast<char*>(data), size);
  }
  unsigned skip(unsigned size) override { return transfer(nullptr, size); }
  unsigned bytes_remaining() const override { return kUnknownSize; }
  void close() override { ended_ = true; }

 private:
  unsigned transfer(char* dest, unsigned size) {
    unsigned total = 0;
    while (size != 0 && !ended_) {
      if (remaining_ == 0) {
        next_chunk();
        continue;
      }
      unsigned const n = size < remaining_ ? size : remaining_;
      if (dest) {
        list_->read_at_cursor(cursor_, dest + total, n);
      } else {
        list_->cursor_advance(cursor_, n);
      }
      remaining_ -= n;
      size -= n;
      total += n;
    }
    return total;
  }

  void next_chunk() {
    unsigned char header[3] = {};
    if (list_->read_at_cursor(cursor_, reinterpret_cast<char*>(header), 1) != 1 ||
        (header[0] & 0xF0) != prefix_) {
      ended_ = true;  // cannot happen for a checked chunk sequence; ends the value safely
      return;
    }
    switch (header[0] & 0x0F) {
      case impl::kNibbleNextChunk1:
        list_->read_at_cursor(cursor_, reinterpret_cast<char*>(header + 1), 1);
        remaining_ = header[1];
        break;
      case impl::kNibbleNextChunk2:
        list_->read_at_cursor(cursor_, reinterpret_cast<char*>(header + 1), 2);
        remaining_ = impl::load_unsigned(header + 1, 2);
        break;
      default:
        ended_ = true;
        break;
    }
  }

  ConstMemoryListPtr list_;
  MemoryListCursor cursor_;
  unsigned remaining_;  // bytes left in the current chunk
  int prefix_;
  bool ended_ = false;
};

// ---- Construction, copying -----------------------------------------------------------------

MemoryReader::MemoryReader(ConstMemoryListPtr list)
    : MemoryReader(std::move(list), 0, MemoryListBaseType::npos) {}

MemoryReader::MemoryReader(ConstMemoryListPtr list, unsigned start, unsigned length)
    : list_(list ? std::move(list) : ConstMemoryListPtr(MemoryList::create())) {
  start_ = start < list_->size() ? start : list_->size();
  unsigned const available = list_->size() - start_;
  end_ = start_ + (length < available ? length : available);
  list_->set_read_cursor_to_pos(cursor_, start_);
  open_window();
}

MemoryReader::MemoryReader(MemoryWriter& writer) : MemoryReader(writer.reader()) {}

MemoryReader::MemoryReader(MemoryReader const& other) : BinaryReaderBase() {
  copy_state_from(other);
  markers_ = other.markers_;
  copy_sequences_from(other);
}

MemoryReader::MemoryReader(MemoryReader&& other) noexcept : BinaryReaderBase() {
  swap(other);
}

MemoryReader& MemoryReader::operator=(MemoryReader const& other) {
  if (this == &other) return *this;
  if (!markers_.empty() || has_open_sequences()) {
    zocore::throw_error(error::zoserialize_reader,
                        "Cannot assign to a reader that has open read marker or sequences",
                        here("zoserialize::MemoryReader::operator=()"));
  }
  copy_state_from(other);
  return *this;
}

MemoryReader::~MemoryReader() = default;

void MemoryReader::copy_state_from(MemoryReader const& other) {
  other.sync();
  list_ = other.list_ ? other.list_ : ConstMemoryListPtr(MemoryList::create());
  cursor_ = other.cursor_;
  start_ = other.start_;
  end_ = other.end_;
  current_tag_ = other.current_tag_;
  open_window();
}

MemoryReader MemoryReader::clone(bool with_scopes) const {
  MemoryReader copy(*this);
  if (!with_scopes) {
    copy.markers_.clear();
    copy.clear_sequences();
  }
  return copy;
}

void MemoryReader::swap(MemoryReader& other) noexcept {
  BinaryReaderBase::swap(other);
  list_.swap(other.list_);
  std::swap(cursor_, other.cursor_);
  std::swap(mark_, other.mark_);
  std::swap(start_, other.start_);
  std::swap(end_, other.end_);
  markers_.swap(other.markers_);
}

// ---- Window and hooks ----------------------------------------------------------------------

// The input window is the rest of the cursor's segment, cut at the end of the range; mark_ is
// where cursor_ stands, so the position is cursor_.position + (in_cur_ - mark_).

void MemoryReader::open_window() const noexcept {
  unsigned avail = 0;
  auto const* p =
      reinterpret_cast<unsigned char const*>(list_->readable_at_cursor(cursor_, &avail));
  unsigned const limit = end_ > cursor_.position ? end_ - cursor_.position : 0;
  if (avail > limit) avail = limit;
  in_cur_ = mark_ = p;
  in_end_ = p + avail;
}

void MemoryReader::sync() const noexcept {
  auto const n = static_cast<unsigned>(in_cur_ - mark_);
  if (n == 0) return;
  list_->cursor_advance(cursor_, n);
  open_window();
}

void MemoryReader::advance(unsigned n) {
  sync();
  list_->cursor_advance(cursor_, n);
  open_window();
}

MemoryListCursor MemoryReader::cursor() const noexcept {
  sync();
  return cursor_;
}

SegmentReadIterator MemoryReader::segment_iterator() const {
  sync();
  return SegmentReadIterator(list_, cursor_, end_ - cursor_.position);
}

bool MemoryReader::is_eof() const {
  return absolute_position() >= end_;
}

int MemoryReader::impl_peek_next_tag() {
  if (remaining() == 0) return -1;
  sync();
  return *in_cur_;
}

int MemoryReader::impl_read_tag_check_type(int prefix) {
  if (remaining() == 0) {
    zocore::throw_error(error::zoserialize_reader_eof,
                        "Unable to read tag byte, reader at end of memory list",
                        here("zoserialize::MemoryReader::impl_read_tag_check_type()"));
  }
  sync();
  unsigned char const tag = *in_cur_;
  if ((tag & 0xF0) != prefix) {
    throw_type_mismatch(prefix, tag, here("zoserialize::MemoryReader::impl_read_tag_check_type()"));
  }
  ++in_cur_;
  current_tag_ = tag;
  return tag & 0x0F;
}

unsigned MemoryReader::impl_read(void* data, unsigned size) {
  sync();
  unsigned const n = size < remaining() ? size : remaining();
  if (n != 0) list_->read_at_cursor(cursor_, static_cast<char*>(data), n);
  open_window();
  return n;
}

unsigned MemoryReader::impl_skip(unsigned size) {
  unsigned const n = size < remaining() ? size : remaining();
  advance(n);
  return n;
}

unsigned MemoryReader::impl_bytes_remaining() const {
  return remaining();
}

void MemoryReader::impl_throw_unexpected_tag(SourceLocation const& location) {
  throw_unexpected_tag_value(location);
}

// ---- Payloads ------------------------------------------------------------------------------

unsigned MemoryReader::checked_calc_binary_block_size(int nibble) {
  unsigned length;
  if (nibble < 8) {
    length = static_cast<unsigned>(nibble);
  } else if (nibble <= static_cast<int>(impl::kNibbleLength4)) {
    length = read_size(static_cast<unsigned>(nibble) - impl::kNibbleLength1);
  } else {
    throw_unexpected_tag(here("zoserialize::MemoryReader::checked_calc_binary_block_size()"));
  }
  if (length > remaining()) {
    zocore::ErrorComposer(
        "Invalid blob length or truncated stream: number of bytes remaining in stream is smaller "
        "than size of blob.  Expected={@expected}, BytesRemaining={@remaining}")
        .add("expected", length)
        .add("remaining", remaining())
        .throw_error(error::zoserialize_reader_data_size,
                     here("zoserialize::MemoryReader::checked_calc_binary_block_size()"));
  }
  return length;
}

InterfacePtr<IReadStream> MemoryReader::read_payload_stream(int prefix) {
  static constexpr char kFunction[] = "zoserialize::MemoryReader::read_payload_stream()";
  bool const is_string = prefix == kStringPrefix;
  int const nibble = read_tag_check_type(prefix);
  impl::Utf8CarryValidator validator;
  if (nibble <= static_cast<int>(impl::kNibbleLength4)) {
    unsigned const length = checked_calc_binary_block_size(nibble);
    sync();
    if (is_string) {
      validate_range(*list_, cursor_, length, validator);
      validator.finish();
    }
    auto stream = zocore::make_ref_counted<BinaryStreamImpl>(list_, cursor_, length);
    advance(length);
    return InterfacePtr<IReadStream>(stream);
  }
  if (nibble > static_cast<int>(impl::kNibbleFirstChunk2)) throw_unexpected_tag(here(kFunction));
  unsigned length = read_size(static_cast<unsigned>(nibble) - impl::kNibbleFirstChunk1);
  sync();
  MemoryListCursor const first = cursor_;
  unsigned const first_length = length;
  // The whole chunk sequence is checked (and a string validated) before the stream is handed out.
  for (;;) {
    if (is_string && length <= remaining()) {
      sync();
      validate_range(*list_, cursor_, length, validator);
    }
    impl_skip_checked(length);
    int const next = read_tag_check_type(prefix);
    if (next == static_cast<int>(impl::kNibbleChunkEnd)) break;
    if (next != static_cast<int>(impl::kNibbleNextChunk1) &&
        next != static_cast<int>(impl::kNibbleNextChunk2)) {
      throw_unexpected_tag(here(kFunction));
    }
    length = read_size(static_cast<unsigned>(next) - impl::kNibbleNextChunk1);
  }
  validator.finish();
  return InterfacePtr<IReadStream>(
      zocore::make_ref_counted<BinaryStreamChunkedImpl>(list_, first, first_length, prefix));
}

InterfacePtr<IReadStream> MemoryReader::read_string_stream() {
  return read_payload_stream(kStringPrefix);
}

InterfacePtr<IReadStream> MemoryReader::read_binary() {
  return read_payload_stream(kBinaryPrefix);
}

void MemoryReader::read_binary_append_memory_list(MemoryListPtr const& list) {
  static constexpr char kFunction[] = "zoserialize::MemoryReader::read_binary_append_memory_list()";
  if (!list) {
    zocore::throw_with_nested_errno(error::zoserialize_reader, "NULL pMemoryList argument",
                                    here(kFunction), 22);
  }
  // The list being read must not change under the reader, nor under the payload streams and
  // copies that share its cursors: appending to it could move its segment array.
  if (list.get() == list_.get()) {
    zocore::throw_with_nested_errno(error::zoserialize_reader,
                                    "Cannot append a payload to the memory list that is being read",
                                    here(kFunction), 22);
  }
  auto const append_range = [&](unsigned length) {
    sync();
    list->append_list(*list_, cursor_, length);
    advance(length);
  };
  int const nibble = read_tag_check_type(kBinaryPrefix);
  if (nibble <= static_cast<int>(impl::kNibbleLength4)) {
    append_range(checked_calc_binary_block_size(nibble));
    return;
  }
  if (nibble > static_cast<int>(impl::kNibbleFirstChunk2)) throw_unexpected_tag(here(kFunction));
  unsigned length = read_size(static_cast<unsigned>(nibble) - impl::kNibbleFirstChunk1);
  for (;;) {
    if (length > remaining()) throw_eof_error(length, remaining());
    append_range(length);
    int const next = read_tag_check_type(kBinaryPrefix);
    if (next == static_cast<int>(impl::kNibbleChunkEnd)) return;
    if (next != static_cast<int>(impl::kNibbleNextChunk1) &&
        next != static_cast<int>(impl::kNibbleNextChunk2)) {
      throw_unexpected_tag(here(kFunction));
    }
    length = read_size(static_cast<unsigned>(next) - impl::kNibbleNextChunk1);
  }
}

MemoryListPtr MemoryReader::read_binary_as_memory_list() {
  MemoryListPtr list = MemoryList::create();
  read_binary_append_memory_list(list);
  return list;
}

// ---- Markers -------------------------------------------------------------------------------

void MemoryReader::read_marker_start() {
  unsigned const size = read_marker_start_tag();
  if (size > remaining()) {
    zocore::ErrorComposer(
        "Invalid marker size or truncated stream: number of bytes remaining in stream is smaller "
        "than size of marker.  Expected={@expected}, BytesRemaining={@remaining}")
        .add("expected", size)
        .add("remaining", remaining())
        .throw_error(error::zoserialize_reader_data_size,
                     here("zoserialize::MemoryReader::read_marker_start()"));
  }
  markers_.push_back({position(), size});
}

bool MemoryReader::read_marker_is_end() {
  return marker_end_is_next(!markers_.empty(),
                            here("zoserialize::MemoryReader::read_marker_is_end()"));
}

void MemoryReader::read_marker_end() {
  static constexpr char kFunction[] = "zoserialize::MemoryReader::read_marker_end()";
  if (!marker_end_is_next_or_fail(!markers_.empty(), here(kFunction))) {
    MarkerRecord const record = markers_.back();
    if (record.size != 0) {
      std::uint64_t const end = std::uint64_t{record.start} + record.size;
      if (position() > end) throw_marker_overrun(end, position(), here(kFunction));
      if (end > size()) {
        zocore::ErrorComposer("Remaining data no sufficient for expected size of marker")
            .add("markerEndPos", static_cast<unsigned long long>(end))
            .add("streamSize", size())
            .throw_error(error::zoserialize_reader_eof, here(kFunction));
      }
      // Unlike the stream reader, the skip goes to the end the marker declared, from wherever
      // the reader stands.
      advance(static_cast<unsigned>(end) - position());
      if (peek_next_tag() != impl::kTagMarkerEnd) throw_inconsistent_marker_size(here(kFunction));
    } else {
      skip_to_marker_end_tag();
    }
  }
  markers_.pop_back();
  read_tag_check_type(kMarkerPrefix);
}

MemoryReader MemoryReader::read_memory_reader() {
  read_marker_start();
  unsigned const contents = position();
  read_marker_end();
  // The contents without the 1-byte end tag.
  return MemoryReader(list_, start_ + contents, position() - contents - 1);
}

// ---- Trace ---------------------------------------------------------------------------------

std::ostream& operator<<(std::ostream& os, MemoryReader::Trace const& trace) {
  MemoryReader const& r = trace.reader;
  // Numbers are formatted here, not by the stream: a caller's std::hex must neither change the
  // trace nor be reset by it.
  static constexpr char kDigits[] = "0123456789abcdef";
  unsigned const current = r.current_tag_;
  char const tag[] = {kDigits[current >> 4U], kDigits[current & 0x0FU], '\0'};
  os << "MemoryReader: position=" << std::to_string(r.position())
     << ", size=" << std::to_string(r.size())
     << ", openMarkers=" << std::to_string(r.markers_.size())
     << ", openSequences=" << zocore::streamers::Boolean{r.has_open_sequences()}
     << ", currentTag=0x" << tag;
  unsigned const shown = r.size() - r.position() < 16 ? r.size() - r.position() : 16;
  if (shown != 0) {
    char bytes[16];
    r.list_->read_at(r.absolute_position(), bytes, shown);
    os << "\n";
    zocore::streamers::render_hex_dump(os, bytes, shown, r.position(), "  ");
  }
  return os;
}

}  // namespace zoserialize
