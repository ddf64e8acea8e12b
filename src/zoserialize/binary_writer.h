// Binary writer over an output stream.
#pragma once

#include <memory>

#include <zocore/stream.h>
#include <zoserialize/binary_writer_base.h>
#include <zoserialize/export.h>

namespace zoserialize {

// BinaryWriter writes the binary encoding to an IWriteStream through an optional output buffer.
// Markers are written without a size (a stream cannot go back to fill one in); readers find their
// end by walking the elements.
//
// Buffering: with a buffer, small pieces are gathered and the stream sees writes of the buffer's
// size; a piece at least as large as the buffer goes to the stream directly. With buffer size 0
// every tag and payload is its own stream write.
//
// After a successful close() the writer releases its stream; later writes fail with
// error::zoserialize_writer_closed. The destructor closes (swallowing errors). One thread at a
// time.
class ZOSERIALIZE_API BinaryWriter final : public BinaryWriterBase {
 public:
  using BinaryWriterBase::write_binary;
  using BinaryWriterBase::write_string_stream;

  static constexpr unsigned kDefaultBufferSize = 16384;

  // Shares `stream`. A null stream gives a writer on which every write fails as closed.
  explicit BinaryWriter(InterfacePtr<IWriteStream> stream,
                        unsigned buffer_size = kDefaultBufferSize);
  ~BinaryWriter() override;

  // Writes the buffered bytes and the end of an open value stream, then checks that no marker
  // and no sequence is open (markers first), then releases the stream.
  void close() override;
  // Finishes an open value stream and writes the buffered bytes to the stream.
  void flush() override;
  // A closed writer (or one without a stream) refuses a value stream at once rather than
  // failing later in whatever operation finishes it.
  InterfacePtr<IWriteStream> write_string_stream() override;
  InterfacePtr<IWriteStream> write_binary() override;
  void write_marker_start() override { start_counted_marker(); }
  void write_marker_end() override {
    end_counted_marker("zoserialize::BinaryWriter::write_marker_end()");
  }

 protected:
  void impl_write_byte(unsigned char byte) override;
  void impl_write(void const* data, unsigned size) override;

 private:
  [[noreturn]] static void throw_closed_error();
  void flush_buffer();
  // stream_->write(), marking the output failed when the stream throws.
  void write_to_stream(void const* data, unsigned size);
  unsigned buffered() const noexcept { return static_cast<unsigned>(out_cur_ - buffer_.get()); }
  void reset_window() noexcept;

  InterfacePtr<IWriteStream> stream_;
  std::unique_ptr<unsigned char[]> buffer_;
  unsigned capacity_;
};

}  // namespace zoserialize
