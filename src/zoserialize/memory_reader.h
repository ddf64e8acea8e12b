// Binary reader over a memory list.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <vector>

#include <zoserialize/binary_reader_base.h>
#include <zoserialize/export.h>
#include <zoserialize/impl/scope_stack.h>
#include <zoserialize/memory_list.h>

namespace zoserialize {

class MemoryReaderTestPeer;
class MemoryWriter;

// MemoryReader decodes the binary encoding from a memory list, which it never modifies. Because
// the whole input is in memory, every declared length is checked against the bytes that remain
// before anything is read, and payloads are never copied to be handed out: payload streams and
// lists returned by this reader share the list's chunks. Payload streams hold their own
// reference to the list and their own position, so they stay valid after the reader moves on or
// is destroyed. read_string_stream() validates the whole string as UTF-8 before it returns.
//
// The contents of a marker can be taken as a reader of their own (read_memory_reader) and
// forwarded with MemoryWriter::write_memory_reader without re-encoding.
//
// One thread at a time per reader; several readers and streams may read the same list on
// different threads.
class ZOSERIALIZE_API MemoryReader final : public BinaryReaderBase {
 public:
  // Reads `list` from its start (a null list reads as empty).
  explicit MemoryReader(ConstMemoryListPtr list);
  // Reads what `writer` has written so far (MemoryWriter::reader()).
  explicit MemoryReader(MemoryWriter& writer);
  // A reader positioned like `other`, with its open sequences and markers.
  MemoryReader(MemoryReader const& other);
  MemoryReader(MemoryReader&& other) noexcept;
  // Allowed only while this reader has no open sequence and no open marker: copies the list, the
  // position and the current tag (not the scopes of `other`).
  MemoryReader& operator=(MemoryReader const& other);
  ~MemoryReader() override;

  // A copy positioned like this reader; with `with_scopes` it also takes over the open
  // sequences and markers (so it can finish reading them), else it starts with none.
  MemoryReader clone(bool with_scopes) const;
  void swap(MemoryReader& other) noexcept;

  bool is_eof() const override;
  InterfacePtr<IReadStream> read_string_stream() override;
  InterfacePtr<IReadStream> read_binary() override;
  // Inline for the unsized markers that writers produce; the rest is out of line.
  void read_marker_start() override;
  bool read_marker_is_end() override;
  void read_marker_end() override;

  // Reads a Binary element and appends its payload to `list` by reference (no copy). A null
  // list, or the list this reader reads, fails with error::zoserialize_reader (errno 22) before
  // anything is read.
  void read_binary_append_memory_list(MemoryListPtr const& list);
  // Reads a Binary element as a new list sharing the payload's chunks.
  MemoryListPtr read_binary_as_memory_list();
  // Reads one marker and returns a reader over its contents (without its end tag).
  MemoryReader read_memory_reader();

  // Position and size within the range this reader reads (the whole list, or a marker's contents
  // for readers from read_memory_reader).
  unsigned position() const noexcept { return absolute_position() - start_; }
  unsigned size() const noexcept { return end_ - start_; }
  ConstMemoryListPtr const& memory_list() const noexcept { return list_; }
  // A list cursor at the current position.
  MemoryListCursor cursor() const noexcept;
  // The rest of the range, segment by segment.
  SegmentReadIterator segment_iterator() const;

  // Prints the reader's state: position, size, open markers and sequences, the next bytes.
  struct ZOSERIALIZE_API Trace {
    MemoryReader const& reader;
  };

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
    std::uint32_t start;  // position just behind the marker start tag
    std::uint32_t size;   // declared size; 0: none
  };

  // A reader over [start, start + length) of `list`, used for marker contents.
  MemoryReader(ConstMemoryListPtr list, unsigned start, unsigned length);

  unsigned absolute_position() const noexcept {
    return cursor_.position + static_cast<unsigned>(in_cur_ - mark_);
  }
  unsigned remaining() const noexcept { return end_ - absolute_position(); }
  // Folds what the decoder consumed from the input window into the cursor.
  void sync() const noexcept;
  // Points the input window at the bytes behind the cursor (up to its segment's and the range's
  // end).
  void open_window() const noexcept;
  void advance(unsigned n);
  void read_marker_start_slow();
  void read_marker_end_slow();
  // A plain payload's length against the bytes that remain, before anything of it is read.
  void check_blob_length(unsigned length) const;
  // Reads the tag and the plain length of a payload, or walks its chunks; returns the range.
  InterfacePtr<IReadStream> read_payload_stream(int prefix);
  void copy_state_from(MemoryReader const& other);

  ConstMemoryListPtr list_;
  mutable MemoryListCursor cursor_;
  mutable unsigned char const* mark_ = nullptr;  // where the window stood when cursor_ was synced
  std::uint32_t start_ = 0;                      // range in the list
  std::uint32_t end_ = 0;
  impl::PodStack<MarkerRecord> markers_;  // innermost last
  // The last plain payload's stream, for reuse; not copied with the reader.
  zocore::RefCountPtr<BinaryStreamImpl> spare_;

  friend ZOSERIALIZE_API std::ostream& operator<<(std::ostream& os, Trace const& trace);
  friend class MemoryReaderTestPeer;
};

ZOSERIALIZE_API std::ostream& operator<<(std::ostream& os, MemoryReader::Trace const& trace);

[[gnu::always_inline]] inline void MemoryReader::read_marker_start() {
  if (in_cur_ != in_end_ && *in_cur_ == impl::kTagMarkerStart) [[likely]] {
    current_tag_ = *in_cur_++;
    markers_.push_back({position(), 0});
    return;
  }
  read_marker_start_slow();
}

inline void MemoryReader::read_marker_end() {
  if (!markers_.empty() && in_cur_ != in_end_ && *in_cur_ == impl::kTagMarkerEnd) [[likely]] {
    current_tag_ = *in_cur_++;
    markers_.pop_back();
    return;
  }
  read_marker_end_slow();
}

}  // namespace zoserialize
