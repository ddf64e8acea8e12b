#include <zocore/throw_error.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/error_codes.h>

namespace zoserialize {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/binary_writer.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

[[noreturn, gnu::cold]] void fail(zocore::ErrorCode const& code, char const* message,
                                  char const* function) {
  zocore::throw_error(code, message, here(function));
}

}  // namespace

// The output window is the free part of the buffer except its last byte:
// [buffer + buffered, buffer + capacity - 1). The buffered count is therefore out_cur_ - buffer_.
// The window never fills the buffer: the byte or piece that fills it passes through the hooks,
// which write a full buffer to the stream at once, exactly when the unwindowed writer would.
// Without a buffer or a stream the window is empty, so every byte reaches the hooks, which write
// through or report the closed writer.

BinaryWriter::BinaryWriter(InterfacePtr<IWriteStream> stream, unsigned buffer_size)
    : stream_(std::move(stream)), capacity_(stream_ ? buffer_size : 0) {
  if (capacity_ != 0) buffer_ = std::make_unique<unsigned char[]>(capacity_);
  reset_window();
}

BinaryWriter::~BinaryWriter() {
  try {
    close();       // NOLINT(clang-analyzer-optin.cplusplus.VirtualCall): this class's own close()
  } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor must not throw
  }
}

void BinaryWriter::reset_window() noexcept {
  unsigned char* const start = buffer_.get();
  set_window(start, (stream_ && buffer_) ? start + capacity_ - 1 : start);
}

void BinaryWriter::throw_closed_error() {
  fail(error::zoserialize_writer_closed, "Cannot write to BinaryWriter, it has already been closed",
       "zoserialize::BinaryWriter::impl_write()");
}

void BinaryWriter::write_to_stream(void const* data, unsigned size) {
  try {
    stream_->write(data, size);
  } catch (...) {
    // Whatever the stream took of these bytes, the rest is lost: the output is incomplete.
    mark_output_failed();
    throw;
  }
}

void BinaryWriter::flush_buffer() {
  unsigned const n = buffered();
  if (n == 0) return;
  // Empty the buffer before writing: if the stream throws, the bytes are not written twice.
  out_cur_ = buffer_.get();
  write_to_stream(buffer_.get(), n);
}

void BinaryWriter::impl_write_byte(unsigned char byte) {
  if (!stream_) throw_closed_error();
  if (!buffer_) {
    write_to_stream(&byte, 1);
    return;
  }
  // Only the buffer's last free byte is outside the window: this byte fills the buffer.
  *out_cur_++ = byte;
  if (buffered() == capacity_) flush_buffer();
}

void BinaryWriter::impl_write(void const* data, unsigned size) {
  if (!stream_) throw_closed_error();
  if (!buffer_) {
    write_to_stream(data, size);
    return;
  }
  auto const* p = static_cast<unsigned char const*>(data);
  if (buffered() == 0 && size >= capacity_) {
    write_to_stream(p, size);
    return;
  }
  unsigned const room = capacity_ - buffered();
  unsigned const n = size < room ? size : room;
  std::memcpy(out_cur_, p, n);
  out_cur_ += n;
  p += n;
  size -= n;
  if (buffered() == capacity_) flush_buffer();
  if (size >= capacity_) {
    write_to_stream(p, size);
  } else if (size != 0) {
    std::memcpy(out_cur_, p, size);
    out_cur_ += size;
  }
}

void BinaryWriter::flush() {
  BinaryWriterBase::flush();
  if (stream_) flush_buffer();
}

void BinaryWriter::close() {
  flush();  // NOLINT(clang-analyzer-optin.cplusplus.VirtualCall): also from the destructor
  if (open_markers() != 0) {
    fail(error::zoserialize_writer_marker_nesting,
         "Attempt to close writer but there are marker that are still open",
         "zoserialize::BinaryWriter::close()");
  }
  BinaryWriterBase::close();
  stream_.reset();
  reset_window();
}

InterfacePtr<IWriteStream> BinaryWriter::write_string_stream() {
  if (!stream_) throw_closed_error();
  return BinaryWriterBase::write_string_stream();
}

InterfacePtr<IWriteStream> BinaryWriter::write_binary() {
  if (!stream_) throw_closed_error();
  return BinaryWriterBase::write_binary();
}

}  // namespace zoserialize
