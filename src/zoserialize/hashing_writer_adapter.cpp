#include <utility>

#include <zocore/error_composer.h>
#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/hashing_writer_adapter.h>
#include <zoserialize/impl/hash_feed.h>

namespace zoserialize {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/hashing_writer_adapter.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

using impl::EHashCode;

[[noreturn, gnu::cold]] void throw_integer_too_long(char const* function, unsigned size) {
  zocore::ErrorComposer(
      "Integer too long to hash: its minimal form exceeds 255 bytes.  Size={@size}")
      .add("size", size)
      .throw_error(error::zoserialize_writer_data_range, here(function));
}

// Large enough that skipping a long source costs few calls, small enough for the stack.
constexpr unsigned kSkipBlock = 8192;

}  // namespace

// ---- Payload streams ---------------------------------------------------------------------------

// The value stream handed out by write_string_stream() and write_binary(): forwards to the
// wrapped writer's stream and hashes what passes. Open while it holds the feed.
class HashingWriterAdapter::WriteStreamAdapter final
    : public zocore::RefCounted<zocore::AtomicRefCount>,
      public IWriteStream {
 public:
  void open(impl::HashFeed* feed, InterfacePtr<IWriteStream> inner) noexcept {
    feed_ = feed;
    inner_ = std::move(inner);
    count_ = 0;
  }
  bool is_open() const noexcept { return feed_ != nullptr; }

  void write(void const* data, unsigned size) override {
    if (feed_ == nullptr) [[unlikely]]
      throw_closed();
    if (inner_) inner_->write(data, size);
    feed_->put_bytes(data, size);
    count_ += size;
  }
  void close() override {
    if (feed_ != nullptr) finish();
  }

  // Ends the value: the wrapped writer's stream first, then the count trailer. The stream is
  // detached before anything can throw, so a failure does not leave it open.
  void finish() {
    impl::HashFeed* const feed = std::exchange(feed_, nullptr);
    InterfacePtr<IWriteStream> const inner = std::move(inner_);
    if (inner) inner->close();
    feed->put_u64(count_);
  }
  // The adapter goes away: later writes fail, nothing more is hashed.
  void abandon() noexcept {
    feed_ = nullptr;
    inner_.reset();
  }

 private:
  [[noreturn, gnu::cold]] static void throw_closed() {
    zocore::throw_error(error::zoserialize_writer_state, "Stream has already been closed",
                        here("zoserialize::HashingWriterAdapter::WriteStreamAdapter::write()"));
  }

  impl::HashFeed* feed_ = nullptr;
  InterfacePtr<IWriteStream> inner_;
  std::uint64_t count_ = 0;
};

// The source of write_string_stream(IReadStream&) and write_binary(IReadStream&) as the wrapped
// writer sees it: every byte it reads or skips is hashed. Lives for one call.
class HashingWriterAdapter::ReadStreamAdapter final : public IReadStream {
 public:
  ReadStreamAdapter(IReadStream& source, impl::HashFeed& feed) noexcept
      : source_(source), feed_(feed) {}

  unsigned read(void* buffer, unsigned size) override {
    unsigned const n = source_.read(buffer, size);
    feed_.put_bytes(buffer, n);
    count_ += n;
    if (n < size) ended_ = true;
    return n;
  }
  // Skipped bytes are part of the value: they are read and hashed.
  unsigned skip(unsigned size) override {
    unsigned char block[kSkipBlock];
    unsigned done = 0;
    while (done < size) {
      unsigned const want = size - done < kSkipBlock ? size - done : kSkipBlock;
      unsigned const n = read(block, want);
      done += n;
      if (n < want) break;
    }
    return done;
  }
  unsigned bytes_remaining() const override { return source_.bytes_remaining(); }

  // Hashes what the wrapped writer left unread (all of it when there is none), so that the
  // record holds the whole value.
  void drain() {
    while (!ended_)
      skip(0x80000000u);
  }
  std::uint64_t count() const noexcept { return count_; }

 private:
  IReadStream& source_;
  impl::HashFeed& feed_;
  std::uint64_t count_ = 0;
  bool ended_ = false;
};

// ---- Adapter -----------------------------------------------------------------------------------

HashingWriterAdapter::HashingWriterAdapter(Writer& writer, InterfacePtr<IWriteStream> sink)
    : writer_(&writer), feed_(std::make_unique<impl::HashFeed>(std::move(sink))) {}

HashingWriterAdapter::HashingWriterAdapter(InterfacePtr<IWriteStream> sink)
    : writer_(nullptr), feed_(std::make_unique<impl::HashFeed>(std::move(sink))) {}

HashingWriterAdapter::~HashingWriterAdapter() {
  if (stream_) stream_->abandon();
}

std::uint64_t HashingWriterAdapter::bytes_hashed() const noexcept {
  return feed_->count();
}

void HashingWriterAdapter::close_payload_stream() {
  if (stream_ && stream_->is_open()) [[unlikely]]
    stream_->finish();
}

InterfacePtr<IWriteStream> HashingWriterAdapter::open_payload_stream(bool is_string) {
  close_payload_stream();
  InterfacePtr<IWriteStream> inner;
  if (writer_ != nullptr)
    inner = is_string ? writer_->write_string_stream() : writer_->write_binary();
  feed_->put_code(is_string ? EHashCode::String : EHashCode::Binary);
  // No allocation per value once the caller lets go of the previous stream.
  if (!stream_ || !stream_->is_unique()) stream_ = zocore::make_ref_counted<WriteStreamAdapter>();
  stream_->open(feed_.get(), std::move(inner));
  return InterfacePtr<IWriteStream>(stream_);
}

void HashingWriterAdapter::write_from_source(IReadStream& source, bool is_string) {
  close_payload_stream();
  feed_->put_code(is_string ? EHashCode::String : EHashCode::Binary);
  ReadStreamAdapter adapter(source, *feed_);
  if (writer_ != nullptr) {
    if (is_string) {
      writer_->write_string_stream(adapter);
    } else {
      writer_->write_binary(adapter);
    }
  }
  adapter.drain();
  feed_->put_u64(adapter.count());
}

void HashingWriterAdapter::close() {
  close_payload_stream();
  writer_ = nullptr;
  feed_->finish();
}

void HashingWriterAdapter::flush() {
  close_payload_stream();
  if (writer_ != nullptr) writer_->flush();
  feed_->drain();
}

void HashingWriterAdapter::write_null() {
  close_payload_stream();
  if (writer_ != nullptr) writer_->write_null();
  feed_->put_code(EHashCode::Null);
}

void HashingWriterAdapter::write_bool(bool value) {
  close_payload_stream();
  if (writer_ != nullptr) writer_->write_bool(value);
  feed_->put_bool(value);
}

void HashingWriterAdapter::write_int_big_endian(void const* data, unsigned size) {
  close_payload_stream();
  auto const* image = static_cast<unsigned char const*>(data);
  impl::SignedForm const form = impl::minimal_signed_form(image, size);
  if (form.length > impl::kMaxHashedIntegerBytes) [[unlikely]]
    throw_integer_too_long("zoserialize::HashingWriterAdapter::write_int_big_endian()",
                           form.length);
  if (writer_ != nullptr) writer_->write_int_big_endian(data, size);
  feed_->put_signed(image, form);
}

void HashingWriterAdapter::write_uint_big_endian(void const* data, unsigned size) {
  close_payload_stream();
  auto const* image = static_cast<unsigned char const*>(data);
  impl::UnsignedForm const form = impl::minimal_unsigned_form(image, size);
  if (form.length > impl::kMaxHashedIntegerBytes) [[unlikely]]
    throw_integer_too_long("zoserialize::HashingWriterAdapter::write_uint_big_endian()",
                           form.length);
  if (writer_ != nullptr) writer_->write_uint_big_endian(data, size);
  feed_->put_unsigned(image, form);
}

void HashingWriterAdapter::write_double(double value) {
  close_payload_stream();
  if (writer_ != nullptr) writer_->write_double(value);
  feed_->put_double(value);
}

void HashingWriterAdapter::write_string(char const* data, unsigned size) {
  close_payload_stream();
  if (writer_ != nullptr) writer_->write_string(data, size);
  feed_->put_payload(EHashCode::String, data, size);
}

InterfacePtr<IWriteStream> HashingWriterAdapter::write_string_stream() {
  return open_payload_stream(true);
}

void HashingWriterAdapter::write_string_stream(IReadStream& source) {
  write_from_source(source, true);
}

void HashingWriterAdapter::write_absolute_time(AbsoluteTime const& value) {
  close_payload_stream();
  if (writer_ != nullptr) writer_->write_absolute_time(value);
  feed_->put_time(EHashCode::AbsoluteTime, value.count());
}

void HashingWriterAdapter::write_relative_time(RelativeTime const& value) {
  close_payload_stream();
  if (writer_ != nullptr) writer_->write_relative_time(value);
  feed_->put_time(EHashCode::RelativeTime, value.count());
}

void HashingWriterAdapter::write_uuid(Uuid const& value) {
  close_payload_stream();
  if (writer_ != nullptr) writer_->write_uuid(value);
  feed_->put_uuid(value);
}

InterfacePtr<IWriteStream> HashingWriterAdapter::write_binary() {
  return open_payload_stream(false);
}

void HashingWriterAdapter::write_binary(IReadStream& source) {
  write_from_source(source, false);
}

void HashingWriterAdapter::write_binary(void const* data, unsigned size) {
  close_payload_stream();
  if (writer_ != nullptr) writer_->write_binary(data, size);
  feed_->put_payload(EHashCode::Binary, data, size);
}

void HashingWriterAdapter::write_sequence_start(unsigned count_hint) {
  close_payload_stream();
  if (writer_ != nullptr) writer_->write_sequence_start(count_hint);
  feed_->put_code(EHashCode::SequenceStart);
}

void HashingWriterAdapter::write_sequence_start() {
  close_payload_stream();
  if (writer_ != nullptr) writer_->write_sequence_start();
  feed_->put_code(EHashCode::SequenceStart);
}

void HashingWriterAdapter::write_sequence_separator() {
  close_payload_stream();
  if (writer_ != nullptr) writer_->write_sequence_separator();
  feed_->put_code(EHashCode::SequenceNext);
}

void HashingWriterAdapter::write_sequence_end() {
  close_payload_stream();
  if (writer_ != nullptr) writer_->write_sequence_end();
  feed_->put_code(EHashCode::SequenceEnd);
}

void HashingWriterAdapter::write_marker_start() {
  close_payload_stream();
  if (writer_ != nullptr) writer_->write_marker_start();
  feed_->put_code(EHashCode::MarkerStart);
}

void HashingWriterAdapter::write_marker_end() {
  close_payload_stream();
  if (writer_ != nullptr) writer_->write_marker_end();
  feed_->put_code(EHashCode::MarkerEnd);
}

}  // namespace zoserialize
