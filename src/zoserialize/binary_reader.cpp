#include <zocore/error_composer.h>
#include <zocore/throw_error.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/chunked_payload.h>
#include <zoserialize/impl/utf8_validating_stream.h>

namespace zoserialize {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/binary_reader.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

[[noreturn, gnu::cold]] void fail(zocore::ErrorCode const& code, char const* message,
                                  char const* function) {
  zocore::throw_error(code, message, here(function));
}

[[noreturn, gnu::cold]] void throw_detached(char const* function) {
  fail(error::zoserialize_reader_state, "Reader has already been detached from stream", function);
}

[[noreturn, gnu::cold]] void throw_skipped_past_end(std::uint64_t marker_end,
                                                    std::uint64_t position) {
  zocore::ErrorComposer("End of data reached skipping to end of marker")
      .add("markerEndPos", static_cast<unsigned long long>(marker_end))
      .add("streamSize", static_cast<unsigned long long>(position))
      .throw_error(error::zoserialize_reader_eof,
                   here("zoserialize::BinaryReader::read_marker_end()"));
}

}  // namespace

// ---- Payload streams -----------------------------------------------------------------------

// A payload stream reads through its reader. The reader holds a reference to the stream it
// handed out last and detaches it (consuming its unread rest) before it reads anything else.
class BinaryReader::BinaryStreamImplBase : public IReadStream,
                                           public zocore::RefCounted<zocore::AtomicRefCount> {
 public:
  explicit BinaryStreamImplBase(BinaryReader* reader) noexcept : reader_(reader) {}

  // Forgets the reader without consuming anything.
  void abandon() noexcept { reader_ = nullptr; }
  // False once the stream was closed (by its holder or by the reader) or abandoned.
  bool attached() const noexcept { return reader_ != nullptr; }

 protected:
  BinaryReader& reader(char const* function) const {
    if (!reader_) throw_detached(function);
    return *reader_;
  }
  // Reads exactly `size` bytes of payload or raises the end-of-data failure.
  void read_exactly(void* data, unsigned size, char const* function) {
    unsigned const got = reader(function).read_aux(data, size);
    if (got < size) throw_eof_error(size, got);
  }
  void skip_exactly(unsigned size, char const* function) {
    unsigned const got = reader(function).skip_aux(size);
    if (got < size) throw_eof_error(size, got);
  }

  BinaryReader* reader_;  // null once detached
};

class BinaryReader::BinaryStreamImpl : public BinaryStreamImplBase {
 public:
  BinaryStreamImpl(BinaryReader* reader, unsigned length) noexcept
      : BinaryStreamImplBase(reader), remaining_(length) {}

  // Serves the next payload: only for a stream nobody but its reader holds any more.
  void reopen(BinaryReader* reader, unsigned length) noexcept {
    reader_ = reader;
    remaining_ = length;
  }

  unsigned read(void* data, unsigned size) override {
    static constexpr char kFunction[] = "zoserialize::BinaryReader::BinaryStreamImpl::read()";
    reader(kFunction);
    unsigned const m = size < remaining_ ? size : remaining_;
    read_exactly(data, m, kFunction);
    remaining_ -= m;
    return m;
  }

  unsigned skip(unsigned size) override {
    static constexpr char kFunction[] = "zoserialize::BinaryReader::BinaryStreamImpl::skip()";
    reader(kFunction);
    unsigned const m = size < remaining_ ? size : remaining_;
    skip_exactly(m, kFunction);
    remaining_ -= m;
    return m;
  }

  unsigned bytes_remaining() const override {
    reader("zoserialize::BinaryReader::BinaryStreamImpl::bytes_remaining()");
    return remaining_;
  }

  void close() override {
    reader("zoserialize::BinaryReader::BinaryStreamImpl::close()");
    if (remaining_ != 0) skip(remaining_);
    reader_ = nullptr;
  }

 private:
  unsigned remaining_;
};

class BinaryReader::BinaryStreamChunkedImpl : public BinaryStreamImplBase {
 public:
  BinaryStreamChunkedImpl(BinaryReader* reader, unsigned first_chunk, int prefix) noexcept
      : BinaryStreamImplBase(reader), payload_(first_chunk, prefix) {}

  unsigned read(void* data, unsigned size) override {
    return transfer(static_cast<unsigned char*>(data), size,
                    "zoserialize::BinaryReader::BinaryStreamChunkedImpl::read()");
  }

  unsigned skip(unsigned size) override {
    return transfer(nullptr, size, "zoserialize::BinaryReader::BinaryStreamChunkedImpl::skip()");
  }

  unsigned bytes_remaining() const override {
    reader("zoserialize::BinaryReader::BinaryStreamChunkedImpl::bytes_remaining()");
    return kUnknownSize;
  }

  void close() override {
    reader("zoserialize::BinaryReader::BinaryStreamChunkedImpl::close()");
    constexpr unsigned kStep = 0x1000000;
    while (skip(kStep) == kStep) {
    }
    reader_ = nullptr;
  }

 private:
  // The encoding as the reader delivers it, through `function` (the stream's operation).
  struct Source {
    BinaryStreamChunkedImpl& stream;
    char const* function;
    void read(void* data, unsigned size) { stream.read_exactly(data, size, function); }
    void skip(unsigned size) { stream.skip_exactly(size, function); }
  };

  unsigned transfer(unsigned char* dest, unsigned size, char const* function) {
    reader(function);
    Source source{*this, function};
    return payload_.transfer(source, dest, size,
                             "zoserialize::BinaryReader::BinaryStreamChunkedImpl::next_chunk()");
  }

  impl::ChunkedPayload payload_;
};

// ---- Reader --------------------------------------------------------------------------------

// The input window is [in_cur_, buffer + valid) while no payload stream is out; the cursor is
// in_cur_ itself. consumed_ + (in_cur_ - mark_) is the position.

BinaryReader::BinaryReader(InterfacePtr<IReadStream> source, unsigned buffer_size)
    : source_(std::move(source)), capacity_(buffer_size < 1 ? 1 : buffer_size) {
  if (!source_) {
    zocore::throw_with_nested_errno(error::zoserialize_reader, "NULL source stream specified",
                                    here("zoserialize::BinaryReader::BinaryReader()"), 22);
  }
  buffer_ = std::make_unique<unsigned char[]>(capacity_);
  // valid == cursor == capacity: the first access refills.
  valid_ = capacity_;
  in_cur_ = in_end_ = mark_ = buffer_.get() + capacity_;
}

BinaryReader::~BinaryReader() {
  // A stream still held by a caller must fail cleanly rather than reach a destroyed reader.
  if (current_stream_) current_stream_->abandon();
}

void BinaryReader::throw_closed_error() {
  fail(error::zoserialize_reader_closed,
       "Cannot read from reader after it has been closed (source stream detached)",
       "zoserialize::BinaryReader::throw_closed_error()");
}

void BinaryReader::open_window() const noexcept {
  in_end_ = current_stream_ ? in_cur_ : buffer_.get() + valid_;
}

void BinaryReader::refill() const {
  throw_if_closed();
  // The consumed part of the old buffer is accounted for before the source is asked: if the
  // read throws, the position must not count it again at the next refill.
  consumed_ += static_cast<std::uint64_t>(in_cur_ - mark_);
  mark_ = in_cur_;
  unsigned const got = source_->read(buffer_.get(), capacity_);
  valid_ = got < capacity_ ? got : capacity_;
  in_cur_ = mark_ = buffer_.get();
  open_window();
}

bool BinaryReader::ensure_byte() const {
  if (buffered() != 0) return true;
  if (valid_ == 0) return false;
  refill();
  return valid_ != 0;
}

bool BinaryReader::is_eof() const {
  return !ensure_byte();
}

unsigned BinaryReader::read_aux(void* data, unsigned size) {
  auto* dest = static_cast<unsigned char*>(data);
  unsigned const first = size < buffered() ? size : buffered();
  if (first != 0) std::memcpy(dest, in_cur_, first);
  in_cur_ += first;
  // While a payload stream is out the window is empty at the cursor; the cursor moved, so the
  // window must follow before anything else can return or throw.
  open_window();
  unsigned done = first;
  unsigned const wanted = size - first;
  if (wanted == 0) return done;
  if (valid_ == 0) return done;  // the source has ended
  if (wanted < capacity_) {
    refill();
    unsigned const n = wanted < valid_ ? wanted : valid_;
    std::memcpy(dest + done, in_cur_, n);
    in_cur_ += n;
    done += n;
  } else {
    throw_if_closed();
    unsigned const got = source_->read(dest + done, wanted);
    consumed_ += got;
    done += got < wanted ? got : wanted;
  }
  open_window();
  return done;
}

unsigned BinaryReader::skip_aux(unsigned size) {
  unsigned const first = size < buffered() ? size : buffered();
  in_cur_ += first;
  open_window();
  unsigned const rest = size - first;
  if (rest == 0) return first;
  throw_if_closed();
  unsigned got = source_->skip(rest);
  if (got > rest) got = rest;
  consumed_ += got;
  return first + got;
}

unsigned BinaryReader::impl_read(void* data, unsigned size) {
  return read_aux(data, size);
}

unsigned BinaryReader::impl_skip(unsigned size) {
  return skip_aux(size);
}

unsigned BinaryReader::impl_bytes_remaining() const {
  throw_if_closed();
  unsigned const source_remaining = source_->bytes_remaining();
  if (source_remaining == IReadStream::kUnknownSize) return source_remaining;
  std::uint64_t const total = std::uint64_t{source_remaining} + buffered();
  return total >= IReadStream::kUnknownSize ? IReadStream::kUnknownSize
                                            : static_cast<unsigned>(total);
}

int BinaryReader::impl_peek_next_tag() {
  prepare_next();
  if (!ensure_byte()) return -1;
  return *in_cur_;
}

int BinaryReader::impl_read_tag_check_type(int prefix) {
  prepare_next();
  return take_tag(ensure_byte(), prefix, "Unable to read tag byte, reader is EOF",
                  "zoserialize::BinaryReader::impl_read_tag_check_type()");
}

void BinaryReader::impl_throw_unexpected_tag(SourceLocation const& location) {
  throw_unexpected_tag_value(location);
}

void BinaryReader::detach_from_binary_stream() {
  zocore::RefCountPtr<BinaryStreamImplBase> const stream = std::move(current_stream_);
  // Whether or not finishing it succeeds, the stream is detached afterwards.
  struct Detach {
    BinaryReader* reader;
    BinaryStreamImplBase* stream;
    ~Detach() {
      stream->abandon();
      reader->open_window();
    }
  } const detach{this, stream.get()};
  // Consumes the unread rest of the payload (validating a string's rest), unless its holder
  // closed it already.
  if (stream->attached()) stream->close();
}

InterfacePtr<IReadStream> BinaryReader::create_payload_stream(int prefix) {
  PayloadHeader const header =
      read_payload_header(prefix, "zoserialize::BinaryReader::create_payload_stream()");
  zocore::RefCountPtr<BinaryStreamImplBase> stream;
  bool const is_string = prefix == impl::prefix_value(impl::ETypePrefix::String);
  if (!header.chunked) {
    if (is_string) {
      stream.reset(new impl::Utf8ValidatingStreamImpl<BinaryStreamImpl>(this, header.length));
    } else if (spare_ && spare_->is_unique()) {
      // The last binary's stream, which its caller has released: no allocation per payload.
      spare_->reopen(this, header.length);
      stream = spare_;
    } else {
      spare_.reset(new BinaryStreamImpl(this, header.length));
      stream = spare_;
    }
  } else if (is_string) {
    stream.reset(
        new impl::Utf8ValidatingStreamImpl<BinaryStreamChunkedImpl>(this, header.length, prefix));
  } else {
    stream.reset(new BinaryStreamChunkedImpl(this, header.length, prefix));
  }
  current_stream_ = stream;
  // Every access now goes through the hooks, which finish this stream first.
  open_window();
  IReadStream* const iface = stream.get();
  return InterfacePtr<IReadStream>(iface, std::move(stream));
}

InterfacePtr<IReadStream> BinaryReader::read_string_stream() {
  return create_payload_stream(impl::prefix_value(impl::ETypePrefix::String));
}

InterfacePtr<IReadStream> BinaryReader::read_binary() {
  return create_payload_stream(impl::prefix_value(impl::ETypePrefix::Binary));
}

// ---- Markers -------------------------------------------------------------------------------

void BinaryReader::read_marker_start_slow() {
  prepare_next();
  std::uint64_t const start = position();
  unsigned const size = read_marker_start_tag();
  markers_.push_back({start, start + size});
}

bool BinaryReader::read_marker_is_end() {
  return marker_end_is_next(!markers_.empty(), "zoserialize::BinaryReader::read_marker_is_end()");
}

void BinaryReader::read_marker_end_slow() {
  static constexpr char kFunction[] = "zoserialize::BinaryReader::read_marker_end()";
  bool sized = false;
  if (!marker_end_is_next_or_fail(!markers_.empty(), kFunction)) {
    MarkerRecord const record = markers_.back();
    sized = record.start < record.end;
    if (sized) {
      if (position() > record.end) throw_marker_overrun(record.end, position(), kFunction);
      // The whole declared size is skipped from the current position (not end - position):
      // exact when nothing of the marker was read, which is how markers are skipped.
      auto const size = static_cast<unsigned>(record.end - record.start);
      if (impl_skip(size) < size) throw_skipped_past_end(record.end, position());
    }
  }
  finish_marker_end(sized, kFunction);
  markers_.pop_back();
}

void BinaryReader::close() {
  if (!markers_.empty()) {
    fail(error::zoserialize_reader_marker_nesting, "Attempt to close reader with open markers",
         "zoserialize::BinaryReader::close()");
  }
  Reader::close();
  prepare_next();
  source_.reset();
}

}  // namespace zoserialize
