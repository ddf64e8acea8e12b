#include <utility>

#include <zocore/error_composer.h>
#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/hashing_reader_adapter.h>
#include <zoserialize/impl/integer_form.h>

namespace zoserialize {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/hashing_reader_adapter.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

using ECode = HashRecord::ECode;
using EToken = Reader::EToken;

constexpr unsigned kSkipBlock = 8192;
// Integers are walked at the width read_compare_equal uses, wider than any archive's integers.
constexpr unsigned kWalkImage = 128;

}  // namespace

// ---- Payload stream ----------------------------------------------------------------------------

// The stream handed out by read_string_stream() and read_binary(): reads the wrapped reader's
// stream and hashes exactly what it delivers or skips. Open while it holds the record.
class HashingReaderAdapter::ReadStreamAdapter final
    : public zocore::RefCounted<zocore::AtomicRefCount>,
      public IReadStream {
 public:
  // `open` is the adapter's flag of an open value, cleared when the value ends.
  void open(HashRecord* record, InterfacePtr<IReadStream> inner, bool* open) noexcept {
    record_ = record;
    inner_ = std::move(inner);
    count_ = 0;
    ended_ = false;
    open_ = open;
    *open_ = true;
  }

  unsigned read(void* buffer, unsigned size) override {
    if (record_ == nullptr) [[unlikely]]
      throw_closed("zoserialize::HashingReaderAdapter::ReadStreamAdapter::read()");
    return transfer(*record_, inner_, buffer, size);
  }
  // Skipped bytes are part of the value: they are read and hashed.
  unsigned skip(unsigned size) override {
    if (record_ == nullptr) [[unlikely]]
      throw_closed("zoserialize::HashingReaderAdapter::ReadStreamAdapter::skip()");
    return skip_through(*record_, inner_, size);
  }
  unsigned bytes_remaining() const override {
    if (record_ == nullptr) [[unlikely]]
      throw_closed("zoserialize::HashingReaderAdapter::ReadStreamAdapter::bytes_remaining()");
    return inner_ ? inner_->bytes_remaining() : 0;
  }
  void close() override {
    if (record_ != nullptr) finish();
  }

  // Reads and hashes the rest, then the count trailer, and lets the inner stream go. Detached
  // first, so that a failure on the way does not leave the stream open.
  void finish() {
    HashRecord& record = *std::exchange(record_, nullptr);
    *std::exchange(open_, nullptr) = false;
    InterfacePtr<IReadStream> const inner = std::move(inner_);
    while (!ended_)
      skip_through(record, inner, 0x80000000u);
    record.put_u64(count_);
    if (inner) inner->close();
  }
  // The adapter goes away: later calls fail, nothing more is hashed.
  void abandon() noexcept {
    record_ = nullptr;
    open_ = nullptr;
    inner_.reset();
  }

 private:
  unsigned transfer(HashRecord& record, InterfacePtr<IReadStream> const& inner, void* buffer,
                    unsigned size) {
    unsigned const n = inner ? inner->read(buffer, size) : 0;
    record.put_bytes(buffer, n);
    count_ += n;
    if (n < size) ended_ = true;
    return n;
  }
  unsigned skip_through(HashRecord& record, InterfacePtr<IReadStream> const& inner, unsigned size) {
    unsigned char block[kSkipBlock];
    unsigned done = 0;
    while (done < size) {
      unsigned const want = size - done < kSkipBlock ? size - done : kSkipBlock;
      unsigned const n = transfer(record, inner, block, want);
      done += n;
      if (n < want) break;
    }
    return done;
  }
  // The writer's code on the reader side, as the other readers' payload streams have it.
  [[noreturn, gnu::cold]] static void throw_closed(char const* function) {
    zocore::throw_error(error::zoserialize_writer_state,
                        "Binary stream reader object has already been closed", here(function));
  }

  HashRecord* record_ = nullptr;
  bool* open_ = nullptr;
  InterfacePtr<IReadStream> inner_;
  std::uint64_t count_ = 0;
  bool ended_ = false;
};

// ---- Adapter -----------------------------------------------------------------------------------

HashingReaderAdapter::HashingReaderAdapter(Reader& reader, InterfacePtr<IWriteStream> sink)
    : reader_(&reader), record_(std::move(sink)) {}

HashingReaderAdapter::~HashingReaderAdapter() {
  if (stream_) stream_->abandon();
}

void HashingReaderAdapter::throw_closed() {
  zocore::throw_error(error::zoserialize_reader_closed,
                      "HashingReaderAdapter has already been closed",
                      here("zoserialize::HashingReaderAdapter::finalize_previous()"));
}

void HashingReaderAdapter::settle() const {
  if (reader_ == nullptr) throw_closed();
  stream_->finish();
}

void HashingReaderAdapter::hash_wide_integer(void const* data, unsigned size, bool is_signed) {
  auto const* image = static_cast<unsigned char const*>(data);
  unsigned offset = 0;
  unsigned length = 0;
  if (is_signed) {
    impl::SignedForm const form = impl::minimal_signed_form(image, size);
    if (form.length == 0) return record_.put_signed(form.sign == 0 ? 0 : -1);
    offset = form.offset;
    length = form.length;
  } else {
    impl::UnsignedForm const form = impl::minimal_unsigned_form(image, size);
    offset = form.offset;
    length = form.length;
  }
  if (length > HashRecord::kMaxIntegerBytes) {
    zocore::ErrorComposer(
        "Integer too long to hash: its minimal form exceeds 255 bytes.  Size={@size}")
        .add("size", length)
        .throw_error(error::zoserialize_reader_data_type_range,
                     here(is_signed ? "zoserialize::HashingReaderAdapter::read_int_big_endian()"
                                    : "zoserialize::HashingReaderAdapter::read_uint_big_endian()"));
  }
  record_.put_integer(is_signed ? ECode::SignedInteger : ECode::UnsignedInteger, image + offset,
                      length);
}

InterfacePtr<IReadStream> HashingReaderAdapter::open_payload_stream(bool is_string) {
  finalize_previous();
  InterfacePtr<IReadStream> inner =
      is_string ? reader_->read_string_stream() : reader_->read_binary();
  record_.put_code(is_string ? ECode::String : ECode::Binary);
  // No allocation per value once the caller lets go of the previous stream.
  if (!stream_ || !stream_->is_unique()) stream_ = zocore::make_ref_counted<ReadStreamAdapter>();
  stream_->open(&record_, std::move(inner), &payload_open_);
  return InterfacePtr<IReadStream>(stream_);
}

void HashingReaderAdapter::close() {
  if (reader_ == nullptr) return;
  if (payload_open_) stream_->finish();
  reader_ = nullptr;
  scopes_.clear();
  record_.finish();
}

bool HashingReaderAdapter::is_eof() const {
  finalize_previous();
  return reader_->is_eof();
}

Reader::EToken HashingReaderAdapter::next_token() {
  finalize_previous();
  return reader_->next_token();
}

void HashingReaderAdapter::skip_element() {
  finalize_previous();
  walk(nullptr);
}

void HashingReaderAdapter::read_null() {
  finalize_previous();
  reader_->read_null();
  record_.put_code(ECode::Null);
}

bool HashingReaderAdapter::try_read_null() {
  finalize_previous();
  bool const found = reader_->try_read_null();
  if (found) record_.put_code(ECode::Null);
  return found;
}

bool HashingReaderAdapter::read_bool() {
  finalize_previous();
  bool const value = reader_->read_bool();
  record_.put_bool(value);
  return value;
}

void HashingReaderAdapter::read_int_big_endian(void* data, unsigned size) {
  finalize_previous();
  reader_->read_int_big_endian(data, size);
  auto const* image = static_cast<unsigned char const*>(data);
  if (size > 8) [[unlikely]]
    return hash_wide_integer(data, size, true);
  record_.put_signed(impl::load_signed(image, size));
}

void HashingReaderAdapter::read_uint_big_endian(void* data, unsigned size) {
  finalize_previous();
  reader_->read_uint_big_endian(data, size);
  auto const* image = static_cast<unsigned char const*>(data);
  if (size > 8) [[unlikely]]
    return hash_wide_integer(data, size, false);
  record_.put_unsigned(impl::load_unsigned(image, size));
}

double HashingReaderAdapter::read_double() {
  finalize_previous();
  double const value = reader_->read_double();
  record_.put_double(value);
  return value;
}

void HashingReaderAdapter::read_string(SourceString& out) {
  finalize_previous();
  reader_->read_string(out);
  record_.put_payload(ECode::String, out.data(), out.size());
}

void HashingReaderAdapter::read_string(std::string& out) {
  finalize_previous();
  reader_->read_string(out);
  record_.put_payload(ECode::String, out.data(), out.size());
}

std::string HashingReaderAdapter::read_string() {
  finalize_previous();
  std::string value = reader_->read_string();
  record_.put_payload(ECode::String, value.data(), value.size());
  return value;
}

InterfacePtr<IReadStream> HashingReaderAdapter::read_string_stream() {
  return open_payload_stream(true);
}

AbsoluteTime HashingReaderAdapter::read_absolute_time() {
  finalize_previous();
  AbsoluteTime const value = reader_->read_absolute_time();
  record_.put_time(ECode::AbsoluteTime, value.count());
  return value;
}

RelativeTime HashingReaderAdapter::read_relative_time() {
  finalize_previous();
  RelativeTime const value = reader_->read_relative_time();
  record_.put_time(ECode::RelativeTime, value.count());
  return value;
}

Uuid HashingReaderAdapter::read_uuid() {
  finalize_previous();
  Uuid const value = reader_->read_uuid();
  record_.put_uuid(value);
  return value;
}

InterfacePtr<IReadStream> HashingReaderAdapter::read_binary() {
  return open_payload_stream(false);
}

unsigned HashingReaderAdapter::read_sequence_start() {
  finalize_previous();
  unsigned const hint = reader_->read_sequence_start();
  scopes_.push_back(kSequenceBeforeFirst);
  record_.put_code(ECode::SequenceStart);
  return hint;
}

// The writer hashes a separator between elements, none before the first: so does the reader,
// whose read_sequence_next also announces the first element.
bool HashingReaderAdapter::read_sequence_next() {
  finalize_previous();
  bool const more = reader_->read_sequence_next();
  // The innermost sequence is nearly always on top.
  std::size_t const at = !scopes_.empty() && scopes_.back() != kMarker
                             ? scopes_.size() - 1
                             : scopes_.find_last_not_of(static_cast<char>(kMarker));
  bool const first = at != std::string::npos && scopes_[at] == kSequenceBeforeFirst;
  if (more) {
    if (!first) record_.put_code(ECode::SequenceSeparator);
    if (at != std::string::npos) scopes_[at] = kSequence;
  } else {
    record_.put_code(ECode::SequenceEnd);
    if (at != std::string::npos) scopes_.erase(at, 1);
  }
  return more;
}

void HashingReaderAdapter::read_marker_start() {
  finalize_previous();
  reader_->read_marker_start();
  scopes_.push_back(kMarker);
  record_.put_code(ECode::MarkerStart);
}

bool HashingReaderAdapter::read_marker_is_end() {
  finalize_previous();
  return reader_->read_marker_is_end();
}

// What the wrapped reader would skip is read through the adapter instead, so it is hashed: the
// sequences left open inside the marker, then its remaining elements.
void HashingReaderAdapter::read_marker_end() {
  finalize_previous();
  std::size_t const marker = scopes_.rfind(static_cast<char>(kMarker));
  if (marker != std::string::npos) {
    while (scopes_.size() > marker + 1)
      finish_sequence();
  }
  while (!read_marker_is_end())
    walk(nullptr);
  reader_->read_marker_end();
  if (marker != std::string::npos) scopes_.resize(marker);
  record_.put_code(ECode::MarkerEnd);
}

void HashingReaderAdapter::finish_sequence() {
  if (scopes_.back() == kSequence) {
    // An element announced by read_sequence_next but not read yet comes before the separator.
    EToken const token = next_token();
    if (token != EToken::SequenceSeparator && token != EToken::SequenceEnd) walk(nullptr);
  }
  while (read_sequence_next())
    walk(nullptr);
}

void HashingReaderAdapter::read_copy(Writer& writer) {
  finalize_previous();
  walk(&writer);
}

// Iterative, so that deeply nested input cannot exhaust the stack: the adapter's own scope list
// tells where the walk stands.
void HashingReaderAdapter::walk(Writer* writer) {
  std::size_t const base = scopes_.size();
  do {
    if (scopes_.size() > base) {
      char const top = scopes_.back();
      if (top == kMarker) {
        if (read_marker_is_end()) {
          read_marker_end();
          if (writer != nullptr) writer->write_marker_end();
          continue;
        }
      } else {
        if (!read_sequence_next()) {
          if (writer != nullptr) writer->write_sequence_end();
          continue;
        }
        if (top == kSequence && writer != nullptr) writer->write_sequence_separator();
      }
    }
    EToken const token = next_token();
    if (token == EToken::SequenceStart) {
      unsigned const hint = read_sequence_start();
      if (writer == nullptr) continue;
      if (hint != 0) {
        writer->write_sequence_start(hint);
      } else {
        writer->write_sequence_start();
      }
    } else if (token == EToken::MarkerStart) {
      read_marker_start();
      if (writer != nullptr) writer->write_marker_start();
    } else {
      walk_scalar(token, writer);
    }
  } while (scopes_.size() > base);
}

void HashingReaderAdapter::walk_scalar(EToken token, Writer* writer) {
  switch (token) {
    case EToken::Null:
      read_null();
      if (writer != nullptr) writer->write_null();
      return;
    case EToken::Boolean: {
      bool const value = read_bool();
      if (writer != nullptr) writer->write_bool(value);
      return;
    }
    case EToken::SignedInteger:
    case EToken::UnsignedInteger: {
      unsigned char image[kWalkImage];
      if (token == EToken::SignedInteger) {
        read_int_big_endian(image, kWalkImage);
        if (writer != nullptr) writer->write_int_big_endian(image, kWalkImage);
      } else {
        read_uint_big_endian(image, kWalkImage);
        if (writer != nullptr) writer->write_uint_big_endian(image, kWalkImage);
      }
      return;
    }
    case EToken::Double: {
      double const value = read_double();
      if (writer != nullptr) writer->write_double(value);
      return;
    }
    case EToken::String:
    case EToken::Binary: {
      bool const is_string = token == EToken::String;
      InterfacePtr<IReadStream> const stream = is_string ? read_string_stream() : read_binary();
      if (writer != nullptr) {
        if (is_string) {
          writer->write_string_stream(*stream);
        } else {
          writer->write_binary(*stream);
        }
      }
      stream->close();
      return;
    }
    case EToken::AbsoluteTime: {
      AbsoluteTime const value = read_absolute_time();
      if (writer != nullptr) writer->write_absolute_time(value);
      return;
    }
    case EToken::RelativeTime: {
      RelativeTime const value = read_relative_time();
      if (writer != nullptr) writer->write_relative_time(value);
      return;
    }
    case EToken::Uuid: {
      Uuid const value = read_uuid();
      if (writer != nullptr) writer->write_uuid(value);
      return;
    }
    default:
      // The end of the input, a separator or end where an element belongs, or a token the
      // adapter does not know: the wrapped reader reports it in its own terms.
      if (writer != nullptr) {
        reader_->read_copy(*writer);
      } else {
        reader_->skip_element();
      }
      return;
  }
}

}  // namespace zoserialize
