#include <ostream>
#include <string>

#include <zocore/error_composer.h>
#include <zocore/streamers.h>
#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/chunked_payload.h>
#include <zoserialize/impl/utf8_validating_stream.h>
#include <zoserialize/memory_reader.h>
#include <zoserialize/memory_writer.h>

namespace zoserialize {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/memory_reader.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

[[noreturn, gnu::cold]] void fail(zocore::ErrorCode const& code, char const* message,
                                  char const* function) {
  zocore::throw_error(code, message, here(function));
}

constexpr int kStringPrefix = impl::prefix_value(impl::ETypePrefix::String);
constexpr int kBinaryPrefix = impl::prefix_value(impl::ETypePrefix::Binary);

// Validates [cursor, cursor + length) of `list` as the next piece of a UTF-8 text.
void validate_range(MemoryListBaseType const& list, MemoryListCursor const& cursor, unsigned length,
                    impl::Utf8CarryValidator& validator) {
  for (SegmentReadIterator piece(ConstMemoryListPtr(&list), cursor, length); !piece.at_end();
       piece.next()) {
    validator.feed(piece.data(), piece.size());
  }
}

[[noreturn, gnu::cold]] void throw_beyond_data(char const* message, unsigned expected,
                                               unsigned remaining, char const* function) {
  zocore::ErrorComposer(message)
      .add("expected", expected)
      .add("remaining", remaining)
      .throw_error(error::zoserialize_reader_data_size, here(function));
}

[[noreturn, gnu::cold]] void throw_marker_beyond_data(std::uint64_t end, unsigned size) {
  zocore::ErrorComposer("Remaining data no sufficient for expected size of marker")
      .add("markerEndPos", static_cast<unsigned long long>(end))
      .add("streamSize", size)
      .throw_error(error::zoserialize_reader_eof,
                   here("zoserialize::MemoryReader::read_marker_end()"));
}

}  // namespace

// ---- Payload streams -----------------------------------------------------------------------

// A plain payload: a range of the list, read through the stream's own cursor.
class MemoryReader::BinaryStreamImpl final : public IReadStream,
                                             public zocore::RefCounted<zocore::AtomicRefCount> {
 public:
  BinaryStreamImpl(ConstMemoryListPtr list, MemoryListCursor const& cursor, unsigned length)
      : list_(std::move(list)), cursor_(cursor), remaining_(length) {}

  // Serves the next payload: only for a stream nobody but its reader holds any more.
  void reopen(ConstMemoryListPtr const& list, MemoryListCursor const& cursor, unsigned length) {
    if (list_ != list) list_ = list;
    cursor_ = cursor;
    remaining_ = length;
  }

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
// chunk sequence before handing the stream out; a header that is not what it checked fails all
// the same.
class MemoryReader::BinaryStreamChunkedImpl final
    : public IReadStream,
      public zocore::RefCounted<zocore::AtomicRefCount> {
 public:
  BinaryStreamChunkedImpl(ConstMemoryListPtr list, MemoryListCursor const& cursor,
                          unsigned first_chunk, int prefix)
      : list_(std::move(list)), cursor_(cursor), payload_(first_chunk, prefix) {}

  unsigned read(void* data, unsigned size) override {
    return transfer(static_cast<unsigned char*>(data), size);
  }
  unsigned skip(unsigned size) override { return transfer(nullptr, size); }
  unsigned bytes_remaining() const override { return kUnknownSize; }
  void close() override { payload_.close(); }

 private:
  // The list from the stream's own cursor.
  struct Source {
    BinaryStreamChunkedImpl& stream;
    void read(void* data, unsigned size) {
      unsigned const got =
          stream.list_->read_at_cursor(stream.cursor_, static_cast<char*>(data), size);
      if (got < size) throw_eof_error(size, got);
    }
    void skip(unsigned size) {
      unsigned const got = stream.list_->cursor_advance(stream.cursor_, size);
      if (got < size) throw_eof_error(size, got);
    }
  };

  unsigned transfer(unsigned char* dest, unsigned size) {
    Source source{*this};
    return payload_.transfer(source, dest, size,
                             "zoserialize::MemoryReader::BinaryStreamChunkedImpl::next_chunk()");
  }

  ConstMemoryListPtr list_;
  MemoryListCursor cursor_;
  impl::ChunkedPayload payload_;
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
    fail(error::zoserialize_reader,
         "Cannot assign to a reader that has open read marker or sequences",
         "zoserialize::MemoryReader::operator=()");
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
  if (in_cur_ != in_end_) {
    // Still inside the cursor's segment: the window stays as it is.
    cursor_.offset += n;
    cursor_.position += n;
    mark_ = in_cur_;
    return;
  }
  list_->cursor_advance(cursor_, n);
  open_window();
}

void MemoryReader::advance(unsigned n) {
  if (n < window_size()) {
    in_cur_ += n;
    return;
  }
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
  bool const available = remaining() != 0;
  if (available) sync();
  return take_tag(available, prefix, "Unable to read tag byte, reader at end of memory list",
                  "zoserialize::MemoryReader::impl_read_tag_check_type()");
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

void MemoryReader::check_blob_length(unsigned length) const {
  if (length > remaining()) [[unlikely]] {
    throw_beyond_data(
        "Invalid blob length or truncated stream: number of bytes remaining in "
        "stream is smaller than size of blob.  Expected={@expected}, "
        "BytesRemaining={@remaining}",
        length, remaining(), "zoserialize::MemoryReader::checked_calc_binary_block_size()");
  }
}

InterfacePtr<IReadStream> MemoryReader::read_payload_stream(int prefix) {
  static constexpr char kFunction[] = "zoserialize::MemoryReader::read_payload_stream()";
  bool const is_string = prefix == kStringPrefix;
  PayloadHeader const header = read_payload_header(prefix, kFunction);
  impl::Utf8CarryValidator validator;
  if (!header.chunked) {
    check_blob_length(header.length);
    sync();
    if (is_string) {
      validate_range(*list_, cursor_, header.length, validator);
      validator.finish();
    }
    if (spare_ && spare_->is_unique()) {
      // The last payload's stream, which its caller has released: no allocation per payload.
      spare_->reopen(list_, cursor_, header.length);
    } else {
      spare_ = zocore::make_ref_counted<BinaryStreamImpl>(list_, cursor_, header.length);
    }
    advance(header.length);
    return InterfacePtr<IReadStream>(spare_);
  }
  sync();
  MemoryListCursor const first = cursor_;
  // The whole chunk sequence is checked (and a string validated) before the stream is handed out.
  unsigned length = header.length;
  do {
    if (is_string && length <= remaining()) {
      sync();
      validate_range(*list_, cursor_, length, validator);
    }
    impl_skip_checked(length);
  } while (read_next_chunk_header(prefix, length, kFunction));
  validator.finish();
  return InterfacePtr<IReadStream>(
      zocore::make_ref_counted<BinaryStreamChunkedImpl>(list_, first, header.length, prefix));
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
  PayloadHeader const header = read_payload_header(kBinaryPrefix, kFunction);
  if (!header.chunked) {
    check_blob_length(header.length);
    append_range(header.length);
    return;
  }
  unsigned length = header.length;
  do {
    if (length > remaining()) throw_eof_error(length, remaining());
    append_range(length);
  } while (read_next_chunk_header(kBinaryPrefix, length, kFunction));
}

MemoryListPtr MemoryReader::read_binary_as_memory_list() {
  MemoryListPtr list = MemoryList::create();
  read_binary_append_memory_list(list);
  return list;
}

// ---- Markers -------------------------------------------------------------------------------

void MemoryReader::read_marker_start_slow() {
  unsigned const size = read_marker_start_tag();
  if (size > remaining()) [[unlikely]] {
    throw_beyond_data(
        "Invalid marker size or truncated stream: number of bytes remaining in "
        "stream is smaller than size of marker.  Expected={@expected}, "
        "BytesRemaining={@remaining}",
        size, remaining(), "zoserialize::MemoryReader::read_marker_start()");
  }
  markers_.push_back({position(), size});
}

bool MemoryReader::read_marker_is_end() {
  return marker_end_is_next(!markers_.empty(), "zoserialize::MemoryReader::read_marker_is_end()");
}

void MemoryReader::read_marker_end_slow() {
  static constexpr char kFunction[] = "zoserialize::MemoryReader::read_marker_end()";
  bool sized = false;
  if (!marker_end_is_next_or_fail(!markers_.empty(), kFunction)) {
    MarkerRecord const record = markers_.back();
    sized = record.size != 0;
    if (sized) {
      std::uint64_t const end = std::uint64_t{record.start} + record.size;
      if (position() > end) throw_marker_overrun(end, position(), kFunction);
      if (end > size()) throw_marker_beyond_data(end, size());
      // Unlike the stream reader, the skip goes to the end the marker declared, from wherever
      // the reader stands.
      advance(static_cast<unsigned>(end) - position());
    }
  }
  finish_marker_end(sized, kFunction);
  markers_.pop_back();
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
