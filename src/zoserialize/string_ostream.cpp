#include <algorithm>
#include <utility>

#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/string_ostream.h>

namespace zoserialize {
namespace impl {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/string_ostream.cpp $";
// Direct writes are cut into pieces the 32-bit size of IWriteStream::write can carry.
constexpr std::streamsize kMaxDirectWrite = 0x40000000;

[[noreturn, gnu::cold, gnu::noinline]] void throw_closed(char const* function,
                                                         unsigned line = __builtin_LINE()) {
  zocore::throw_error(error::zoserialize_stream, "Attempt to write into a closed StringOStream",
                      {function, kModuleId, line});
}

}  // namespace

// A null sink behaves as a closed one: no put area, so the first character reaches overflow().
StringOStreamBuf::StringOStreamBuf(zocore::InterfacePtr<zocore::IWriteStream> sink)
    : sink_(std::move(sink)) {
  if (sink_) setp(buffer_, buffer_ + kBufferSize - 1);
}

StringOStreamBuf::~StringOStreamBuf() {
  try {
    close();
  } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor must not throw
  }
}

void StringOStreamBuf::close() {
  if (!sink_) return;
  struct Release {
    StringOStreamBuf* self;
    ~Release() {
      self->sink_.reset();
      self->setp(nullptr, nullptr);
    }
  } const release{this};
  write_buffer();
}

void StringOStreamBuf::write_buffer() {
  if (pptr() != pbase()) sink_->write(pbase(), static_cast<unsigned>(pptr() - pbase()));
  setp(buffer_, buffer_ + kBufferSize - 1);
}

// The put area stops one character short of the buffer, so `c` always has room.
StringOStreamBuf::int_type StringOStreamBuf::overflow(int_type c) {
  if (!sink_) throw_closed("zoserialize::impl::StringOStreamBuf::overflow()");
  char* const at = pptr();
  *at = traits_type::to_char_type(c);
  pbump(1);
  write_buffer();
  return traits_type::to_int_type(*at);
}

std::streamsize StringOStreamBuf::xsputn(char_type const* s, std::streamsize n) {
  if (!sink_) throw_closed("zoserialize::impl::StringOStreamBuf::xsputn()");
  if (n <= static_cast<std::streamsize>(kBufferSize)) return std::streambuf::xsputn(s, n);
  write_buffer();
  for (std::streamsize done = 0; done < n;) {
    auto const piece = static_cast<unsigned>(std::min(n - done, kMaxDirectWrite));
    sink_->write(s + done, piece);
    done += piece;
  }
  return n;
}

}  // namespace impl

StringOStream::StringOStream(zocore::InterfacePtr<zocore::IWriteStream> sink)
    : std::ostream(nullptr), buf_(std::move(sink)) {
  rdbuf(&buf_);
}

StringOStream::~StringOStream() = default;

}  // namespace zoserialize
