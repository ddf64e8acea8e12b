#include <algorithm>
#include <cstring>
#include <utility>

#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/string_istream.h>

namespace zoserialize {
namespace impl {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/string_istream.cpp $";
// Direct reads are cut into pieces the 32-bit size of IReadStream::read can carry.
constexpr std::streamsize kMaxDirectRead = 0x40000000;

// The functions named are those of the output buffer: kept so, as logs and callers know them.
[[noreturn, gnu::cold, gnu::noinline]] void throw_closed(char const* message, char const* function,
                                                         unsigned line = __builtin_LINE()) {
  zocore::throw_error(error::zoserialize_stream, message, {function, kModuleId, line});
}

}  // namespace

// A null source behaves as a closed one.
StringIStreamBuf::StringIStreamBuf(zocore::InterfacePtr<zocore::IReadStream> source)
    : source_(std::move(source)) {
  setg(block(), block(), block());
}

StringIStreamBuf::~StringIStreamBuf() = default;

void StringIStreamBuf::close() noexcept {
  source_.reset();
}

std::streamsize StringIStreamBuf::showmanyc() {
  if (!source_) {
    throw_closed("Attempt to access a closed StringIStream",
                 "zoserialize::impl::StringOStreamBuf::showmanyc()");
  }
  return egptr() - gptr();
}

StringIStreamBuf::int_type StringIStreamBuf::underflow() {
  if (!source_) {
    throw_closed("Attempt to read from a closed StringIStream",
                 "zoserialize::impl::StringOStreamBuf::underflow()");
  }
  if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
  if (eof_) return traits_type::eof();
  unsigned const got = source_->read(block(), kBlockSize);
  if (got == 0) {
    eof_ = true;
    return traits_type::eof();
  }
  setg(block(), block(), block() + got);
  return traits_type::to_int_type(*gptr());
}

std::streamsize StringIStreamBuf::xsgetn(char_type* s, std::streamsize n) {
  if (!source_) {
    throw_closed("Attempt to read from a closed StringIStream",
                 "zoserialize::impl::StringOStreamBuf::xsgetn()");
  }
  std::streamsize const buffered = egptr() - gptr();
  if (n <= buffered + static_cast<std::streamsize>(sizeof buffer_))
    return std::streambuf::xsgetn(s, n);
  std::memcpy(s, gptr(), static_cast<std::size_t>(buffered));
  setg(block(), block(), block());
  std::streamsize done = buffered;
  while (!eof_ && done < n) {
    auto const want = static_cast<unsigned>(std::min(n - done, kMaxDirectRead));
    unsigned const got = source_->read(s + done, want);
    done += got;
    // A short read is the source's end: it is not asked again.
    if (got < want) eof_ = true;
  }
  return done;
}

StringIStreamBuf::int_type StringIStreamBuf::pbackfail(int_type c) {
  if (gptr() == eback() && eback() > buffer_ && !traits_type::eq_int_type(c, traits_type::eof())) {
    char* const front = eback() - 1;
    *front = traits_type::to_char_type(c);
    setg(front, front, egptr());
    return c;
  }
  return traits_type::eof();
}

}  // namespace impl

StringIStream::StringIStream(zocore::InterfacePtr<zocore::IReadStream> source)
    : std::istream(nullptr), buf_(std::move(source)) {
  rdbuf(&buf_);
}

StringIStream::~StringIStream() = default;

}  // namespace zoserialize
