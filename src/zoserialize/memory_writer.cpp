#include <cstring>

#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/memory_reader.h>
#include <zoserialize/memory_writer.h>

namespace zoserialize {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/memory_writer.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

[[noreturn, gnu::cold]] void fail(zocore::ErrorCode const& code, char const* message,
                                  char const* function) {
  zocore::throw_error(code, message, here(function));
}

}  // namespace

// The output window is the free room of the list's last chunk, open only while the writer is
// the sole holder of the list and of that chunk. Bytes placed in it join the list when the
// window is synced; every operation that lets anybody else see or share the list syncs and
// closes the window first, so nobody ever observes a list whose bytes are still being written.

MemoryWriter::MemoryWriter() : list_(MemoryList::create()) {}

MemoryWriter::MemoryWriter(MemoryListPtr list) : list_(std::move(list)) {
  if (!list_) {
    list_ = MemoryList::create();
    return;
  }
  unsigned const position = list_->get_write_position();
  if (position == list_->size()) return;
  if (list_->is_unique()) {
    list_->resize(position);
  } else {
    list_ = list_->sublist(0, position);
  }
}

MemoryWriter::~MemoryWriter() {
  drop_window();
}

void MemoryWriter::throw_closed_error() {
  fail(error::zoserialize_writer_closed, "Cannot write to MemoryWriter, it has already been closed",
       "zoserialize::MemoryWriter::impl_write()");
}

void MemoryWriter::sync_window() noexcept {
  auto const n = static_cast<unsigned>(out_cur_ - window_start_);
  if (n != 0) {
    list_->commit_append_write(n);
    window_start_ = out_cur_;
  }
}

void MemoryWriter::drop_window() noexcept {
  if (window_end() == nullptr) return;  // no window: nothing to fold in
  sync_window();
  set_window(nullptr, nullptr);
  window_start_ = nullptr;
}

bool MemoryWriter::last_chunk_is_shared() const noexcept {
  return list_->remaining_space_last_chunk() != 0 && list_->end()[-1].is_shared();
}

void MemoryWriter::append_to_new_chunk(unsigned char const* data, unsigned size) {
  {
    MemoryChunkPtr chunk = list_->chunk_factory()(size > list_->size() ? size : list_->size());
    if (chunk && chunk->size() != 0) {
      unsigned const n = size < chunk->size() ? size : chunk->size();
      std::memcpy(chunk->data(), data, n);
      list_->append(chunk, 0, n);
      data += n;
      size -= n;
    }
  }  // the list now holds the new chunk's only reference
  list_->append(reinterpret_cast<char const*>(data), size);
}

void MemoryWriter::open_window() {
  if (!list_->is_unique() || list_->remaining_space_last_chunk() == 0 || last_chunk_is_shared()) {
    return;
  }
  unsigned avail = 0;
  auto* const p = reinterpret_cast<unsigned char*>(list_->get_append_write_ptr(&avail, 1));
  window_start_ = p;
  set_window(p, p + avail);
}

void MemoryWriter::make_unique_for_write() {
  if (!list_->is_unique()) clone_for_write_aux();
}

void MemoryWriter::clone_for_write_aux() {
  list_ = list_->shallow_clone();
}

void MemoryWriter::impl_write_byte(unsigned char byte) {
  impl_write(&byte, 1);
}

void MemoryWriter::impl_write(void const* data, unsigned size) {
  if (!list_ || closed_) throw_closed_error();
  drop_window();
  try {
    make_unique_for_write();
    if (last_chunk_is_shared()) [[unlikely]] {
      append_to_new_chunk(static_cast<unsigned char const*>(data), size);
    } else {
      list_->append(static_cast<char const*>(data), size);
    }
  } catch (...) {
    // The list refused to grow (its size limit, or no memory) in the middle of an element: what
    // it holds cannot be read back.
    mark_output_failed();
    throw;
  }
  open_window();
}

// A value stream is refused at once by a closed writer: handed out, it could only fail later,
// in whatever operation finishes it (clear(), reader(), ...), which must work on a closed writer.
InterfacePtr<IWriteStream> MemoryWriter::write_string_stream() {
  if (!list_ || closed_) throw_closed_error();
  return BinaryWriterBase::write_string_stream();
}

InterfacePtr<IWriteStream> MemoryWriter::write_binary() {
  if (!list_ || closed_) throw_closed_error();
  return BinaryWriterBase::write_binary();
}

void MemoryWriter::flush() {
  BinaryWriterBase::flush();
  if (list_) sync_window();
}

void MemoryWriter::close() {
  if (open_markers() != 0) {
    fail(error::zoserialize_writer_marker_nesting, "Attempt to close writer that has open markers",
         "zoserialize::MemoryWriter::close()");
  }
  BinaryWriterBase::close();
  if (list_) drop_window();
  closed_ = true;
}

MemoryListPtr MemoryWriter::close_and_detach_memory_list() {
  close();
  return std::move(list_);
}

void MemoryWriter::clear() {
  finalize_previous_element();
  if (!is_complete()) {
    fail(error::zoserialize_writer_incomplete,
         "Cannot clear writer when there are open sequences or markers",
         "zoserialize::MemoryWriter::clear()");
  }
  if (!list_) {
    list_ = MemoryList::create();
  } else {
    drop_window();
    if (!list_->empty()) {
      if (list_->is_unique()) {
        list_->clear();
      } else {
        list_ = MemoryList::create();
      }
    }
  }
  closed_ = false;
}

MemoryListPtr MemoryWriter::memory_list() {
  if (list_) drop_window();
  return list_;
}

LinearReader MemoryWriter::create_raw_reader() const {
  // Finishing the open value and folding the output window into the list leave the written
  // content as it is. A writer defined const has neither (both need non-const calls), so
  // nothing is written to it then.
  auto& self = const_cast<MemoryWriter&>(*this);
  self.finalize_previous_element();
  if (!is_complete()) {
    fail(error::zoserialize_writer_incomplete,
         "Cannot create reader from a writer while it has open sequences or markers",
         "zoserialize::MemoryWriter::create_raw_reader()");
  }
  if (!list_) return LinearReader();
  self.drop_window();
  return list_->reader();
}

MemoryReader MemoryWriter::reader() {
  finalize_previous_element();
  if (!list_) return MemoryReader(ConstMemoryListPtr(MemoryList::create()));
  drop_window();
  return MemoryReader(ConstMemoryListPtr(list_));
}

void MemoryWriter::append_embedded(MemoryListBaseType const& list, MemoryListCursor const& from,
                                   unsigned length) {
  // Pieces that fit the free room behind the last segment are copied there; from the first piece
  // that does not fit on, everything is shared. A shared last chunk offers no room: filling it
  // would first copy it.
  unsigned room = 0;
  if (!list_->empty()) {
    auto const& last = list_->end()[-1];
    if (!last.is_shared()) room = list_->remaining_space_last_chunk();
  }
  SegmentReadIterator piece(ConstMemoryListPtr(&list), from, length);
  while (!piece.at_end() && piece.size() <= room) {
    list_->append(piece.data(), piece.size());
    room -= piece.size();
    piece.next();
  }
  if (!piece.at_end()) {
    list_->append_list(list, piece.cursor(), piece.end_position() - piece.position());
  }
}

void MemoryWriter::write_memory_list_as_binary(MemoryListBaseType const& list) {
  finalize_previous_element();
  if (!list_ || closed_) throw_closed_error();
  unsigned const size = list.size();
  write_binary_tag_aux(ETypePrefix::Binary, size);
  if (size == 0) return;
  drop_window();
  // The writer's own list is embedded from a snapshot: it is about to grow.
  ConstMemoryListPtr const source(&list == list_.get() ? list_->shallow_clone()
                                                       : ConstMemoryListPtr(&list));
  make_unique_for_write();
  append_embedded(*source, source->begin_cursor(), size);
}

void MemoryWriter::write_memory_list_as_binary(ConstMemoryListPtr const& list) {
  if (!list) {
    finalize_previous_element();
    if (!list_ || closed_) throw_closed_error();
    write_binary_tag_aux(ETypePrefix::Binary, 0);
    return;
  }
  write_memory_list_as_binary(*list);
}

void MemoryWriter::write_memory_reader(MemoryReader const& reader) {
  finalize_previous_element();
  if (!list_ || closed_) throw_closed_error();
  unsigned const size = reader.size() - reader.position();
  write_marker_start_tag(size, 0);
  if (size != 0) {
    drop_window();
    ConstMemoryListPtr const& source = reader.memory_list();
    MemoryListCursor const from = reader.cursor();
    make_unique_for_write();
    append_embedded(*source, from, size);
  }
  write_marker_end_tag();
}

}  // namespace zoserialize
