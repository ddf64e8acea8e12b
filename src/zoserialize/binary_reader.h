// Binary reader over an input stream.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <zocore/ref_count_ptr.h>
#include <zocore/stream.h>
#include <zoserialize/binary_reader_base.h>
#include <zoserialize/export.h>
#include <zoserialize/impl/scope_stack.h>

namespace zoserialize {

// BinaryReader decodes the binary encoding from an IReadStream through a read-ahead buffer.
// Requests at least as large as the buffer go from the source straight into the caller's
// memory; strings and binaries can be read as streams that pull from the reader without copying
// the payload (read_string_stream validates UTF-8 as it goes).
//
// A payload stream is valid until the reader moves on: the next element operation consumes the
// stream's unread rest and detaches it, after which every call on it fails with
// error::zoserialize_reader_state. Destroying the reader detaches it too.
//
// The source is treated as ended once a refill returns 0 bytes; it is not asked again. After
// close() the reader holds no source, and every operation that needs one fails with
// error::zoserialize_reader_closed. One thread at a time.
class ZOSERIALIZE_API BinaryReader final : public BinaryReaderBase {
 public:
  static constexpr unsigned kDefaultBufferSize = 16384;

  // Shares `source`. buffer_size below 1 is raised to 1. A null source fails with
  // error::zoserialize_reader (errno 22).
  explicit BinaryReader(InterfacePtr<IReadStream> source,
                        unsigned buffer_size = kDefaultBufferSize);
  ~BinaryReader() override;

  // Fails if markers are open (nothing changes then); otherwise finishes an open payload stream
  // and releases the source (which is not closed).
  void close() override;
  bool is_eof() const override;
  InterfacePtr<IReadStream> read_string_stream() override;
  InterfacePtr<IReadStream> read_binary() override;
  // Inline for the unsized markers that writers to streams produce; the rest is out of line.
  void read_marker_start() override;
  bool read_marker_is_end() override;
  void read_marker_end() override;

  // Bytes consumed so far.
  std::uint64_t position() const noexcept {
    return consumed_ + static_cast<std::uint64_t>(in_cur_ - mark_);
  }

  class BinaryStreamImplBase;
  class BinaryStreamImpl;
  class BinaryStreamChunkedImpl;

 protected:
  int impl_read_tag_check_type(int prefix) override;
  int impl_peek_next_tag() override;
  unsigned impl_read(void* data, unsigned size) override;
  unsigned impl_skip(unsigned size) override;
  unsigned impl_bytes_remaining() const override;
  [[noreturn]] void impl_throw_unexpected_tag(SourceLocation const& location) override;

 private:
  struct MarkerRecord {
    std::uint64_t start;  // position before the marker's start tag
    std::uint64_t end;    // start plus the declared size
  };

  unsigned buffered() const noexcept {
    return static_cast<unsigned>(buffer_.get() + valid_ - in_cur_);
  }
  // One source read into the buffer. Only called while the source has not reported its end.
  void refill() const;
  // Makes a byte available if the source can give one; false at the end of the data.
  bool ensure_byte() const;
  unsigned read_aux(void* data, unsigned size);
  unsigned skip_aux(unsigned size);
  void detach_from_binary_stream();
  void prepare_next() {
    if (current_stream_) detach_from_binary_stream();
  }
  void open_window() const noexcept;
  void read_marker_start_slow();
  void read_marker_end_slow();
  InterfacePtr<IReadStream> create_payload_stream(int prefix);
  [[noreturn]] static void throw_closed_error();
  void throw_if_closed() const {
    if (!source_) throw_closed_error();
  }

  InterfacePtr<IReadStream> source_;
  std::unique_ptr<unsigned char[]> buffer_;
  unsigned capacity_;
  mutable unsigned valid_;                // bytes the last refill delivered; 0: source ended
  mutable std::uint64_t consumed_ = 0;    // position of mark_
  mutable unsigned char const* mark_;     // where the window stood when consumed_ was last set
  impl::PodStack<MarkerRecord> markers_;  // innermost last
  zocore::RefCountPtr<BinaryStreamImplBase> current_stream_;
  zocore::RefCountPtr<BinaryStreamImpl> spare_;  // the last plain binary's stream, for reuse
};

[[gnu::always_inline]] inline void BinaryReader::read_marker_start() {
  // A byte in the window means no payload stream is open.
  if (in_cur_ != in_end_ && *in_cur_ == impl::kTagMarkerStart) [[likely]] {
    std::uint64_t const start = position();
    current_tag_ = *in_cur_++;
    markers_.push_back({start, start});
    return;
  }
  read_marker_start_slow();
}

inline void BinaryReader::read_marker_end() {
  if (!markers_.empty() && in_cur_ != in_end_ && *in_cur_ == impl::kTagMarkerEnd) [[likely]] {
    current_tag_ = *in_cur_++;
    markers_.pop_back();
    return;
  }
  read_marker_end_slow();
}

}  // namespace zoserialize
