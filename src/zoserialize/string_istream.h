// A std::istream over a core input stream.
#pragma once

#include <istream>
#include <streambuf>

#include <zocore/stream.h>
#include <zoserialize/export.h>

namespace zoserialize {
namespace impl {

// The stream buffer of StringIStream. It shares the source and reads it in blocks of 1,024
// bytes into a get area that follows 8 reserved characters, so that up to 8 characters can be
// put back in front of a freshly read block. A bulk read larger than the buffered characters plus
// the whole buffer goes straight from the source into the caller's memory. Once the source has
// reported its end (a read that delivered nothing, or a direct read that came up short) it is not
// asked again.
//
// close() releases the source. Characters already buffered stay available to the inline paths of
// std::streambuf (sgetc, sbumpc), but every call that reaches this class (underflow, xsgetn,
// showmanyc) then throws error::zoserialize_stream. One thread at a time.
class ZOSERIALIZE_API StringIStreamBuf : public std::streambuf {
 public:
  static constexpr unsigned putbackReserved = 8;
  static constexpr unsigned kBlockSize = 1024;

  // Shares `source`, which must not be null.
  explicit StringIStreamBuf(zocore::InterfacePtr<zocore::IReadStream> source);
  StringIStreamBuf(StringIStreamBuf const&) = delete;
  StringIStreamBuf& operator=(StringIStreamBuf const&) = delete;
  ~StringIStreamBuf() override;

  void close() noexcept;

 protected:
  std::streamsize showmanyc() override;
  int_type underflow() override;
  std::streamsize xsgetn(char_type* s, std::streamsize n) override;
  int_type pbackfail(int_type c) override;

 private:
  char* block() noexcept { return buffer_ + putbackReserved; }

  zocore::InterfacePtr<zocore::IReadStream> source_;
  bool eof_ = false;
  char buffer_[putbackReserved + kBlockSize] = {};
};

}  // namespace impl

// A std::istream that reads a core IReadStream, sharing it; for code written against the
// standard streams. Errors of the source, and the closed-stream error, surface as the standard
// stream's exception mask decides (by default: badbit set, nothing thrown).
class ZOSERIALIZE_API StringIStream : public std::istream {
 public:
  explicit StringIStream(zocore::InterfacePtr<zocore::IReadStream> source);
  ~StringIStream() override;

  // Releases the source; see impl::StringIStreamBuf::close().
  void close() noexcept { buf_.close(); }

 private:
  impl::StringIStreamBuf buf_;
};

}  // namespace zoserialize
