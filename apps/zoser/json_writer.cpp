#include "json_writer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <utility>

#include <rapidjson/writer.h>

#include <zocore/base64.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/scope_stack.h>
#include <zoserialize/impl/value_stream_base.h>

#include "values.h"

namespace zoser {

namespace {

namespace zs = zoserialize;

constexpr char kModuleId[] = "$Id: apps/zoser/json_writer.cpp $";

constexpr unsigned kEscapePiece = 8192;       // escaped, at most 6 * 8192 + 2 characters
constexpr unsigned kBase64Piece = 3 * 16384;  // 65,536 characters of base64
constexpr std::size_t kCapacity = std::size_t{64} << 10;  // holds either piece after a drain

// The output stream RapidJSON writes into: a buffer handed to the sink when full. One byte in
// front of the buffer is never sent, so that a string piece can be escaped by RapidJSON with its
// opening quote landing there (see Impl::escape).
class Out {
 public:
  using Ch = char;

  explicit Out(zocore::InterfacePtr<zocore::IWriteStream> sink)
      : sink_(std::move(sink)), data_(new char[kCapacity + 1]) {
    cur = begin();
  }

  void Put(char c) {
    if (cur == end()) [[unlikely]]
      drain();
    *cur++ = c;
  }
  // RapidJSON calls this when the root value ends; close() drains explicitly.
  void Flush() noexcept {}

  // Makes room for `n` more characters (n <= kCapacity).
  void reserve(std::size_t n) {
    if (static_cast<std::size_t>(end() - cur) < n) drain();
  }
  void drain() {
    auto const n = static_cast<unsigned>(cur - begin());
    cur = begin();  // emptied first: a sink that fails does not get the text again
    if (n != 0) sink_->write(begin(), n);
  }
  void release() noexcept { sink_.reset(); }

  char* cur = nullptr;  // the next free character

 private:
  char* begin() const noexcept { return data_.get() + 1; }
  char* end() const noexcept { return data_.get() + 1 + kCapacity; }

  zocore::InterfacePtr<zocore::IWriteStream> sink_;
  std::unique_ptr<char[]> data_;
};

// RapidJSON's writer, with its string escaping reachable for pieces of a longer string.
class Json : public rapidjson::Writer<Out> {
 public:
  explicit Json(Out& out) : rapidjson::Writer<Out>(out) {}
  // `"`, the escaped text, `"`.
  void quoted_escaped(char const* text, unsigned size) { WriteString(text, size); }
};

// Entry flags of an open sequence: its current item holds a value; an {"also": ...} object is
// open around the value being written.
constexpr std::uint8_t kHasValue = 1;
constexpr std::uint8_t kAlsoOpen = 2;

zs::impl::ScopeMessages const kScopeMessages = {
    "zoser::JsonWriter::write_sequence_separator()",
    "zoser::JsonWriter::write_sequence_end()",
    "zoser::JsonWriter::write_marker_end()",
    "zoser::JsonWriter::close()",
    "Attempt to add sequence separator and no sequence is open at top of stack",
    "Attempt to close sequence and no sequence is open or on top of stack",
    "Attempt to close marker and no marker is open or on top of stack",
    "Attempt to close writer but there are sequences and/or markers that are still open",
    &zs::error::zoserialize_writer_sequence_nesting,
    true,
};

[[noreturn, gnu::cold]] void throw_closed(char const* function) {
  zocore::throw_error(zs::error::zoserialize_writer_closed, "JsonWriter has already been closed",
                      zocore::SourceLocation(function, kModuleId, __LINE__));
}

}  // namespace

struct JsonWriter::Impl {
  explicit Impl(zocore::InterfacePtr<zocore::IWriteStream> sink) : out(std::move(sink)), json(out) {
    json.StartArray();
  }

  // The value just written is complete: close an {"also": ...} around it and note that the
  // current item of the enclosing sequence holds a value.
  void end_value() {
    if (scopes.empty()) return;
    zs::impl::ScopeStack::Entry& top = scopes.top();
    if (top.kind != zs::impl::ScopeStack::EKind::Sequence) return;
    if (top.flags & kAlsoOpen) json.EndObject();
    top.flags = kHasValue;
  }
  void empty_item() {
    json.StartObject();
    json.Key("item", 4);
    json.StartArray();
    json.EndArray();
    json.EndObject();
  }
  void tagged(std::string const& text) {
    json.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    end_value();
  }

  // Escapes `size` bytes into the output as part of an open string. RapidJSON writes each piece
  // as a quoted string; its opening quote goes over the byte before the piece (restored after)
  // and its closing quote is dropped, so nothing is copied twice.
  void escape(char const* text, std::size_t size) {
    while (size != 0) {
      auto const n = static_cast<unsigned>(std::min<std::size_t>(size, kEscapePiece));
      out.reserve(2 + 6 * std::size_t{n});
      char* const at = out.cur;
      char const saved = at[-1];
      out.cur = at - 1;
      json.quoted_escaped(text, n);
      at[-1] = saved;
      --out.cur;
      text += n;
      size -= n;
    }
  }
  // A piece of a string that arrives in pieces: the first non-empty one opens the string,
  // doubling a leading "$".
  void string_piece(char const* text, std::size_t size) {
    if (size == 0) return;
    if (!string_open) {
      if (text[0] == '$') {
        json.RawValue("\"$", 2, rapidjson::kStringType);
      } else {
        json.RawValue("\"", 1, rapidjson::kStringType);
      }
      string_open = true;
    }
    escape(text, size);
  }
  void string_end() {
    if (string_open) {
      out.Put('"');
    } else {
      json.String("", 0);
    }
    string_open = false;
    end_value();
  }

  void binary_begin() { json.RawValue("\"$binary:", 9, rapidjson::kStringType); }
  // Base64 of `size` bytes; every piece but the last is a multiple of 3 bytes, so the text has
  // padding only at its end.
  void base64(unsigned char const* data, std::size_t size) {
    while (size != 0) {
      std::size_t const n = std::min<std::size_t>(size, kBase64Piece);
      out.reserve(zocore::base64_encoded_size(n));
      out.cur += zocore::base64_encode(data, n, out.cur);
      data += n;
      size -= n;
    }
  }
  void binary_end() {
    out.Put('"');
    end_value();
  }

  Out out;
  Json json;
  zs::impl::ScopeStack scopes;
  bool closed = false;
  bool string_open = false;                  // a streamed string's opening quote is out
  std::unique_ptr<unsigned char[]> scratch;  // binaries read from a source, allocated once
  zs::impl::ValueStreamSlot slot;
};

class JsonWriter::StringStream final : public zs::impl::BufferedValueStream<4096, 1> {
 public:
  StringStream(zs::impl::ValueStreamSlot& slot, Impl& impl) noexcept
      : BufferedValueStream(slot, "zoser::JsonWriter::StringStream::write()"), impl_(impl) {}

 protected:
  void emit_block(unsigned char const* data, unsigned size) override {
    impl_.string_piece(reinterpret_cast<char const*>(data), size);
  }
  void emit_final(unsigned char const* rest, unsigned size) override {
    impl_.string_piece(reinterpret_cast<char const*>(rest), size);
    impl_.string_end();
  }

 private:
  Impl& impl_;
};

class JsonWriter::BinaryStream final : public zs::impl::BufferedValueStream<3 * 4096, 3> {
 public:
  BinaryStream(zs::impl::ValueStreamSlot& slot, Impl& impl) noexcept
      : BufferedValueStream(slot, "zoser::JsonWriter::BinaryStream::write()"), impl_(impl) {}

 protected:
  void emit_block(unsigned char const* data, unsigned size) override { impl_.base64(data, size); }
  void emit_final(unsigned char const* rest, unsigned size) override {
    impl_.base64(rest, size);
    impl_.binary_end();
  }

 private:
  Impl& impl_;
};

JsonWriter::JsonWriter(zocore::InterfacePtr<zocore::IWriteStream> sink)
    : impl_(std::make_unique<Impl>(std::move(sink))) {}

JsonWriter::~JsonWriter() {
  try {
    close();
  } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor reports nothing
  }
}

JsonWriter::Impl& JsonWriter::open(char const* function) {
  if (impl_->closed) [[unlikely]]
    throw_closed(function);
  return *impl_;
}

JsonWriter::Impl& JsonWriter::begin_value(char const* function) {
  Impl& c = open(function);
  c.slot.finish();
  if (!c.scopes.empty()) {
    zs::impl::ScopeStack::Entry& top = c.scopes.top();
    if (top.kind == zs::impl::ScopeStack::EKind::Sequence && (top.flags & kHasValue)) {
      c.json.StartObject();
      c.json.Key("also", 4);
      top.flags |= kAlsoOpen;
    }
  }
  return c;
}

void JsonWriter::close() {
  if (impl_->closed) return;
  Impl& c = *impl_;
  c.slot.finish();
  c.scopes.check_all_closed(kScopeMessages);
  c.json.EndArray();
  c.out.Put('\n');
  c.out.drain();
  c.out.release();
  c.closed = true;
}

void JsonWriter::flush() {
  Impl& c = open("zoser::JsonWriter::flush()");
  c.slot.finish();
  c.out.drain();
}

void JsonWriter::write_null() {
  Impl& c = begin_value("zoser::JsonWriter::write_null()");
  c.json.Null();
  c.end_value();
}

void JsonWriter::write_bool(bool value) {
  Impl& c = begin_value("zoser::JsonWriter::write_bool()");
  c.json.Bool(value);
  c.end_value();
}

void JsonWriter::write_int_big_endian(void const* data, unsigned size) {
  Impl& c = begin_value("zoser::JsonWriter::write_int_big_endian()");
  auto const* const image = static_cast<unsigned char const*>(data);
  std::int64_t value = 0;
  if (image_to_int64(image, size, &value)) {
    c.json.Int64(value);
    c.end_value();
  } else {
    c.tagged("$int:" + image_to_decimal(image, size, true));
  }
}

void JsonWriter::write_uint_big_endian(void const* data, unsigned size) {
  Impl& c = begin_value("zoser::JsonWriter::write_uint_big_endian()");
  auto const* const image = static_cast<unsigned char const*>(data);
  std::uint64_t value = 0;
  if (image_to_uint64(image, size, &value)) {
    c.json.Uint64(value);
    c.end_value();
  } else {
    c.tagged("$uint:" + image_to_decimal(image, size, false));
  }
}

void JsonWriter::write_double(double value) {
  Impl& c = begin_value("zoser::JsonWriter::write_double()");
  if (std::isfinite(value)) {
    c.json.Double(value);
    c.end_value();
  } else {
    c.tagged("$double:" + double_text(value));
  }
}

void JsonWriter::write_string(char const* data, unsigned size) {
  Impl& c = begin_value("zoser::JsonWriter::write_string()");
  if (size != 0 && data[0] == '$') {
    c.string_piece(data, size);
    c.string_end();
  } else {
    c.json.String(data, size);
    c.end_value();
  }
}

zocore::InterfacePtr<zocore::IWriteStream> JsonWriter::write_string_stream() {
  Impl& c = begin_value("zoser::JsonWriter::write_string_stream()");
  return c.slot.open(zocore::make_ref_counted<StringStream>(c.slot, c));
}

void JsonWriter::write_string_stream(zocore::IReadStream& source) {
  Impl& c = begin_value("zoser::JsonWriter::write_string_stream()");
  char piece[kEscapePiece];
  for (;;) {
    unsigned const n = source.read(piece, sizeof piece);
    c.string_piece(piece, n);
    if (n < sizeof piece) break;
  }
  c.string_end();
}

void JsonWriter::write_absolute_time(zocore::AbsoluteTime const& value) {
  Impl& c = begin_value("zoser::JsonWriter::write_absolute_time()");
  c.tagged("$time:" + (value.is_infinite() ? std::string("inf") : value.as_string()));
}

void JsonWriter::write_relative_time(zocore::RelativeTime const& value) {
  Impl& c = begin_value("zoser::JsonWriter::write_relative_time()");
  c.tagged("$reltime:" + value.as_string());
}

void JsonWriter::write_uuid(zocore::Uuid const& value) {
  Impl& c = begin_value("zoser::JsonWriter::write_uuid()");
  c.tagged("$uuid:" + value.as_string());
}

zocore::InterfacePtr<zocore::IWriteStream> JsonWriter::write_binary() {
  Impl& c = begin_value("zoser::JsonWriter::write_binary()");
  c.binary_begin();
  return c.slot.open(zocore::make_ref_counted<BinaryStream>(c.slot, c));
}

void JsonWriter::write_binary(zocore::IReadStream& source) {
  Impl& c = begin_value("zoser::JsonWriter::write_binary()");
  c.binary_begin();
  if (!c.scratch) c.scratch = std::make_unique<unsigned char[]>(kBase64Piece);
  for (;;) {
    unsigned const n = source.read(c.scratch.get(), kBase64Piece);
    c.base64(c.scratch.get(), n);
    if (n < kBase64Piece) break;
  }
  c.binary_end();
}

void JsonWriter::write_binary(void const* data, unsigned size) {
  Impl& c = begin_value("zoser::JsonWriter::write_binary()");
  c.binary_begin();
  c.base64(static_cast<unsigned char const*>(data), size);
  c.binary_end();
}

void JsonWriter::write_sequence_start(unsigned count_hint) {
  Impl& c = begin_value("zoser::JsonWriter::write_sequence_start()");
  c.json.StartArray();
  c.scopes.push_sequence(count_hint);
}

void JsonWriter::write_sequence_start() {
  write_sequence_start(0);
}

void JsonWriter::write_sequence_separator() {
  Impl& c = open("zoser::JsonWriter::write_sequence_separator()");
  c.slot.finish();
  zs::impl::ScopeStack::Entry& top = c.scopes.add_separator(kScopeMessages);
  if (!(top.flags & kHasValue)) c.empty_item();
  top.flags = 0;
}

void JsonWriter::write_sequence_end() {
  Impl& c = open("zoser::JsonWriter::write_sequence_end()");
  c.slot.finish();
  if (c.scopes.empty() || c.scopes.top().kind != zs::impl::ScopeStack::EKind::Sequence)
    c.scopes.end_sequence(kScopeMessages);  // fails: no sequence on top
  zs::impl::ScopeStack::Entry const& top = c.scopes.top();
  if (top.separators != 0 && !(top.flags & kHasValue)) c.empty_item();
  c.json.EndArray();
  // The sequence is closed even when its count check fails, so the enclosing item is told.
  try {
    c.scopes.end_sequence(kScopeMessages);
  } catch (...) {
    c.end_value();
    throw;
  }
  c.end_value();
}

void JsonWriter::write_marker_start() {
  Impl& c = begin_value("zoser::JsonWriter::write_marker_start()");
  c.json.StartObject();
  c.json.Key("marker", 6);
  c.json.StartArray();
  c.scopes.push_marker();
}

void JsonWriter::write_marker_end() {
  Impl& c = open("zoser::JsonWriter::write_marker_end()");
  c.slot.finish();
  if (c.scopes.empty()) c.scopes.end_any(kScopeMessages);  // fails: nothing open
  zs::impl::ScopeStack::Entry const top = c.scopes.top();
  if (top.kind == zs::impl::ScopeStack::EKind::Sequence) {
    if (top.separators != 0 && !(top.flags & kHasValue)) c.empty_item();
    c.json.EndArray();
  } else {
    c.json.EndArray();
    c.json.EndObject();
  }
  c.scopes.end_any(kScopeMessages);
  c.end_value();
}

}  // namespace zoser
