// A std::ostream over a core output stream.
#pragma once

#include <ostream>
#include <streambuf>

#include <zocore/stream.h>
#include <zoserialize/export.h>

namespace zoserialize {
namespace impl {

// The stream buffer of StringOStream. It shares the sink and collects output in a 256-character
// buffer whose put area covers the first 255, so that overflow() can always store its character
// before writing the buffer out. Writes of more than 256 characters go straight to the sink after
// what was buffered. There is no sync: buffered characters reach the sink when the buffer fills,
// on a large write, or at close() and destruction.
//
// overflow() stores its argument without comparing it with end-of-file, so overflow(EOF) writes
// the byte 0xFF. After close() every write throws error::zoserialize_stream. One thread at a
// time.
class ZOSERIALIZE_API StringOStreamBuf : public std::streambuf {
 public:
  static constexpr unsigned kBufferSize = 256;

  // Shares `sink`, which must not be null.
  explicit StringOStreamBuf(zocore::InterfacePtr<zocore::IWriteStream> sink);
  StringOStreamBuf(StringOStreamBuf const&) = delete;
  StringOStreamBuf& operator=(StringOStreamBuf const&) = delete;
  // Closes; an error of the sink is swallowed here (call close() to see it).
  ~StringOStreamBuf() override;

  // Writes what is buffered, then releases the sink (also when the write throws). Later calls
  // do nothing.
  void close();

 protected:
  int_type overflow(int_type c) override;
  std::streamsize xsputn(char_type const* s, std::streamsize n) override;

 private:
  void write_buffer();

  zocore::InterfacePtr<zocore::IWriteStream> sink_;
  char buffer_[kBufferSize] = {};
};

}  // namespace impl

// A std::ostream that writes to a core IWriteStream, sharing it; for code written against the
// standard streams. flush() does not reach the sink; close() or destruction does. Errors of the
// sink, and the closed-stream error, surface as the standard stream's exception mask decides.
class ZOSERIALIZE_API StringOStream : public std::ostream {
 public:
  explicit StringOStream(zocore::InterfacePtr<zocore::IWriteStream> sink);
  ~StringOStream() override;

  // Writes what is buffered and releases the sink; throws the sink's error.
  void close() { buf_.close(); }

 private:
  impl::StringOStreamBuf buf_;
};

}  // namespace zoserialize
