// Binary writer into a memory list.
#pragma once

#include <zoserialize/binary_writer_base.h>
#include <zoserialize/export.h>
#include <zoserialize/memory_list.h>

namespace zoserialize {

class MemoryReader;

// MemoryWriter produces the binary encoding into a memory list instead of a stream: element bytes
// go straight into the list's chunks. Other lists and readers can be embedded by sharing their
// chunks instead of copying them, so a decoded message (or its unread rest) can be forwarded
// without re-encoding.
//
// Copy-on-write: the writer never modifies a list somebody else also holds. If the list it
// writes to is shared (for example after memory_list() was copied elsewhere), the writer first
// replaces it by a shallow clone (same segments, chunks shared). Shared chunks are never copied
// to be written into: when the last chunk is shared, new bytes start a chunk of their own.
//
// Markers started with write_marker_start() carry no size; readers find their end by walking
// the elements. The only sized markers this writer produces are those of write_memory_reader().
//
// States: open → closed (close(); writes then fail with error::zoserialize_writer_closed, the
// list stays readable) → detached (close_and_detach_memory_list()). clear() returns the writer
// to an open, empty state. One thread at a time.
class ZOSERIALIZE_API MemoryWriter final : public BinaryWriterBase {
 public:
  using BinaryWriterBase::write_binary;
  using BinaryWriterBase::write_string_stream;

  // Writes into a new list from MemoryList::create().
  MemoryWriter();
  // Continues `list` at its write position; bytes behind it are dropped from the writer's list.
  // A list the caller still holds is left unchanged (the writer works on a sublist). Null: as
  // the default constructor.
  explicit MemoryWriter(MemoryListPtr list);
  ~MemoryWriter() override;

  // Fails if markers or sequences are open; otherwise finishes an open value stream.
  void close() override;
  void flush() override;
  // Value streams; a closed writer refuses to hand one out.
  InterfacePtr<IWriteStream> write_string_stream() override;
  InterfacePtr<IWriteStream> write_binary() override;
  void write_marker_start() override { start_counted_marker(); }
  void write_marker_end() override {
    end_counted_marker("zoserialize::MemoryWriter::write_marker_end()");
  }

  // close(), then hands the list over; the writer keeps none.
  MemoryListPtr close_and_detach_memory_list();
  // Fails when sequences or markers are open (nothing changes then); otherwise empties the list
  // (or, when it is shared, starts a new one) and reopens a closed writer.
  void clear();
  // True when no marker and no sequence is open.
  using BinaryWriterBase::is_complete;
  // The list written so far (null once detached), shared with the caller: the writer copies it
  // before it writes again (copy-on-write), so the caller's list never changes. An open value
  // stream is not finished.
  MemoryListPtr memory_list();
  // A sequential reader over the list; fails when sequences or markers are open. An open value
  // stream is finished first: that changes nothing of what the writer has written.
  LinearReader create_raw_reader() const;
  // A memory reader over what has been written (an open value stream is finished first).
  MemoryReader reader();

  // Writes `list` as one Binary element. Leading segments that fit the free room of the current
  // chunk are copied (keeping small payloads contiguous); the rest is shared by reference, so the
  // cost follows the number of segments, not of bytes. Null writes an empty binary.
  void write_binary(ConstMemoryListPtr const& list) { write_memory_list_as_binary(list); }
  void write_memory_list_as_binary(ConstMemoryListPtr const& list);
  void write_memory_list_as_binary(MemoryListBaseType const& list);
  // Writes the unread rest of `reader` as one sized marker whose contents are those bytes
  // (shared like write_memory_list_as_binary), so a decoded message's rest can be forwarded.
  void write_memory_reader(MemoryReader const& reader);

 protected:
  void impl_write_byte(unsigned char byte) override;
  void impl_write(void const* data, unsigned size) override;

 private:
  [[noreturn]] static void throw_closed_error();
  // Makes the writer the list's only holder, replacing a shared list by a shallow clone.
  void make_unique_for_write();
  void clone_for_write_aux();
  // Adds the bytes placed in the output window to the list (the window stays open).
  void sync_window() noexcept;
  // sync_window(), then closes the window: the list may now be seen or shared by others.
  void drop_window() noexcept;
  // Opens the output window over the free room of the list's last chunk, when the writer is the
  // sole holder of the list and the chunk has room.
  void open_window();
  // True when the last chunk has room but is shared: writing there would first copy the last
  // segment, which is shared on purpose (an embedded list or reader, a snapshot someone holds).
  bool last_chunk_is_shared() const noexcept;
  // Appends the bytes behind a shared last chunk, starting a chunk of the writer's own.
  void append_to_new_chunk(unsigned char const* data, unsigned size);
  // Appends a range of `list` by the embedding rule: copy what fits the current chunk's free
  // room, share the rest.
  void append_embedded(MemoryListBaseType const& list, MemoryListCursor const& from,
                       unsigned length);

  MemoryListPtr list_;
  bool closed_ = false;
  unsigned char* window_start_ = nullptr;  // out_cur_ at the last sync
};

}  // namespace zoserialize
