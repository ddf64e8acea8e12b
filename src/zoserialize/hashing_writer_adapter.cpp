#include <utility>

#include <zocore/error_composer.h>
#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/hashing_writer_adapter.h>
#include <zoserialize/impl/integer_form.h>

namespace zoserialize {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/hashing_writer_adapter.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

using ECode = HashRecord::ECode;

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
// wrapped writer's stream and hashes what passes. Open while it holds the record.
class HashingWriterAdapter::WriteStreamAdapter final
    : public zocore::RefCounted<zocore::AtomicRefCount>,
      public IWriteStream {
 public:
  // `open` is the adapter's flag of an open value, cleared when the value ends.
  void open(HashRecord* record, InterfacePtr<IWriteStream> inner, bool* open) noexcept {
    record_ = record;
    inner_ = std::move(inner);
    count_ = 0;
    open_ = open;
    *open_ = true;
  }

  void write(void const* data, unsigned size) override {
    if (record_ == nullptr) [[unlikely]]
      throw_closed();
    if (inner_) inner_->write(data, size);
    record_->put_bytes(data, size);
    count_ += size;
  }
  void close() override {
    if (record_ != nullptr) finish();
  }

  // Ends the value: the wrapped writer's stream first, then the count trailer. The stream is
  // detached before anything can throw, so a failure does not leave it open.
  void finish() {
    HashRecord* const record = std::exchange(record_, nullptr);
    *std::exchange(open_, nullptr) = false;
    InterfacePtr<IWriteStream> const inner = std::move(inner_);
    if (inner) inner->close();
    record->put_u64(count_);
  }
  // The adapter goes away: later writes fail, nothing more is hashed.
  void abandon() noexcept {
    record_ = nullptr;
    open_ = nullptr;
    inner_.reset();
  }

 private:
  [[noreturn, gnu::cold]] static void throw_closed() {
    zocore::throw_error(error::zoserialize_writer_state, "Stream has already been closed",
                        here("zoserialize::HashingWriterAdapter::WriteStreamAdapter::write()"));
  }

  HashRecord* record_ = nullptr;
  bool* open_ = nullptr;
  InterfacePtr<IWriteStream> inner_;
  std::uint64_t count_ = 0;
};

// The source of write_string_stream(IReadStream&) and write_binary(IReadStream&) as the wrapped
// writer sees it: every byte it reads or skips is hashed. Lives for one call.
class HashingWriterAdapter::ReadStreamAdapter final : public IReadStream {
 public:
  ReadStreamAdapter(IReadStream& source, HashRecord& record) noexcept
      : source_(source), record_(record) {}

  unsigned read(void* buffer, unsigned size) override {
    unsigned const n = source_.read(buffer, size);
    record_.put_bytes(buffer, n);
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
  HashRecord& record_;
  std::uint64_t count_ = 0;
  bool ended_ = false;
};

// ---- Adapter -----------------------------------------------------------------------------------

HashingWriterAdapter::HashingWriterAdapter(Writer& writer, InterfacePtr<IWriteStream> sink)
    : writer_(&writer), record_(std::move(sink)) {}

HashingWriterAdapter::HashingWriterAdapter(InterfacePtr<IWriteStream> sink)
    : writer_(nullptr), record_(std::move(sink)) {}

HashingWriterAdapter::~HashingWriterAdapter() {
  if (stream_) stream_->abandon();
}

void HashingWriterAdapter::finish_payload_stream() {
  stream_->finish();
}

InterfacePtr<IWriteStream> HashingWriterAdapter::open_payload_stream(bool is_string) {
  close_payload_stream();
  InterfacePtr<IWriteStream> inner;
  if (writer_ != nullptr)
    inner = is_string ? writer_->write_string_stream() : writer_->write_binary();
  record_.put_code(is_string ? ECode::String : ECode::Binary);
  // No allocation per value once the caller lets go of the previous stream.
  if (!stream_ || !stream_->is_unique()) stream_ = zocore::make_ref_counted<WriteStreamAdapter>();
  stream_->open(&record_, std::move(inner), &payload_open_);
  return InterfacePtr<IWriteStream>(stream_);
}

void HashingWriterAdapter::write_from_source(IReadStream& source, bool is_string) {
  close_payload_stream();
  record_.put_code(is_string ? ECode::String : ECode::Binary);
  ReadStreamAdapter adapter(source, record_);
  if (writer_ != nullptr) {
    if (is_string) {
      writer_->write_string_stream(adapter);
    } else {
      writer_->write_binary(adapter);
    }
  }
  adapter.drain();
  record_.put_u64(adapter.count());
}

void HashingWriterAdapter::close() {
  close_payload_stream();
  writer_ = nullptr;
  record_.finish();
}

void HashingWriterAdapter::flush() {
  close_payload_stream();
  if (writer_ != nullptr) writer_->flush();
  record_.drain();
}

InterfacePtr<IWriteStream> HashingWriterAdapter::write_string_stream() {
  return open_payload_stream(true);
}

void HashingWriterAdapter::write_string_stream(IReadStream& source) {
  write_from_source(source, true);
}

InterfacePtr<IWriteStream> HashingWriterAdapter::write_binary() {
  return open_payload_stream(false);
}

void HashingWriterAdapter::write_binary(IReadStream& source) {
  write_from_source(source, false);
}

void HashingWriterAdapter::write_wide_integer(void const* data, unsigned size, bool is_signed) {
  close_payload_stream();
  auto const* image = static_cast<unsigned char const*>(data);
  if (is_signed) {
    impl::SignedForm const form = impl::minimal_signed_form(image, size);
    if (form.length > HashRecord::kMaxIntegerBytes) [[unlikely]] {
      throw_integer_too_long("zoserialize::HashingWriterAdapter::write_int_big_endian()",
                             form.length);
    }
    if (writer_ != nullptr) writer_->write_int_big_endian(data, size);
    if (form.length == 0) return record_.put_signed(form.sign == 0 ? 0 : -1);
    record_.put_integer(HashRecord::ECode::SignedInteger, image + form.offset, form.length);
    return;
  }
  impl::UnsignedForm const form = impl::minimal_unsigned_form(image, size);
  if (form.length > HashRecord::kMaxIntegerBytes) [[unlikely]] {
    throw_integer_too_long("zoserialize::HashingWriterAdapter::write_uint_big_endian()",
                           form.length);
  }
  if (writer_ != nullptr) writer_->write_uint_big_endian(data, size);
  record_.put_integer(HashRecord::ECode::UnsignedInteger, image + form.offset, form.length);
}

}  // namespace zoserialize
