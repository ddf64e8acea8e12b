// Segmented, copy-on-write byte lists over shared memory chunks.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>

#include <zocore/atomic_ref_count.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zoserialize/export.h>
#include <zoserialize/memory_chunk.h>
#include <zoserialize/memory_segment.h>

namespace zoserialize {

class MemoryListTestPeer;

// Prints a list's layout for diagnostics.
class ZOSERIALIZE_API IMemoryListTrace {
 public:
  // Level 0: total size, write position and segment count; level 1 adds one line per segment;
  // level 2 also a hex dump of each segment's bytes. No trailing newline.
  virtual void write_trace(std::ostream& os, int level) const = 0;

 protected:
  IMemoryListTrace() = default;
  IMemoryListTrace(IMemoryListTrace const&) = default;
  IMemoryListTrace& operator=(IMemoryListTrace const&) = default;
  virtual ~IMemoryListTrace() = default;
};

namespace impl {

// std::range_error("zoserialize::MemoryList: Invalid element offset").
[[noreturn]] ZOSERIALIZE_API void throw_memory_list_range_error();
// std::length_error("zoserialize::MemoryList: Size limit exceeded"): a list holds at most
// 0xFFFFFFFE bytes, so that every size and position fits 32 bits and 0xFFFFFFFF stays free to
// mean "to the end".
[[noreturn]] ZOSERIALIZE_API void throw_memory_list_length_error();
// std::logic_error("zoserialize::MemoryList: Chunk factory returned no storage").
[[noreturn]] ZOSERIALIZE_API void throw_memory_list_chunk_error();

// Pieces of IMemoryListTrace::write_trace, kept out of line so the header needs no <ostream>.
ZOSERIALIZE_API void write_memory_list_trace_header(std::ostream& os, unsigned total_size,
                                                    unsigned write_position,
                                                    unsigned segment_count);
ZOSERIALIZE_API void write_memory_list_trace_segment(std::ostream& os, unsigned index,
                                                     unsigned position, unsigned size,
                                                     unsigned first, void const* data,
                                                     void const* chunk, unsigned chunk_size,
                                                     bool dump);

}  // namespace impl

// A growable byte sequence stored as an ordered array of segments, each a slice of a
// reference-counted chunk. Copying, slicing and concatenating lists share chunks; a write into
// a chunk that another holder also references first copies that chunk (copy-on-write by the
// chunk's reference count), so bytes seen by another list never change.
//
// The list object itself is not copied on write: whoever modifies a list must be its only holder
// (ref_count() == 1) or work on shallow_clone() instead; the memory writer does exactly that.
// One thread at a time per list object; lists on different threads may share chunks.
//
// Sizes and positions are 32-bit; a list holds at most kMaxSize bytes and growing beyond throws
// std::length_error. Positions beyond the end are clamped, except element_at(), which throws.
// 0xFFFFFFFF as a length means "to the end". Up to 16 segments cost no allocation. Pointers
// returned by the *_ptr_* functions and cursors stay valid until the list is next modified. Byte
// pointers passed in must not point into this list's own storage.
template <class Segment, class ChunkFactory, class Counter, class SegmentArray>
class ZOSERIALIZE_API MemoryListBase : public zocore::RefCounted<Counter>, public IMemoryListTrace {
 public:
  using segment_type = Segment;
  using segment_array_type = SegmentArray;
  using chunk_type = typename Segment::chunk_type;
  using ChunkPtr = typename Segment::ChunkPtr;
  using chunk_factory_type = ChunkFactory;
  using value_type = typename Segment::value_type;
  using iterator = typename SegmentArray::iterator;
  using const_iterator = typename SegmentArray::const_iterator;
  using Ptr = zocore::RefCountPtr<MemoryListBase>;
  using ConstPtr = zocore::RefCountPtr<MemoryListBase const>;

  static constexpr unsigned npos = 0xFFFFFFFFU;
  static constexpr unsigned kMaxSize = 0xFFFFFFFEU;

  // A read position: the segment holding the byte, the offset inside it and the absolute
  // position. Cursors are kept normalised: either the segment holds the byte (offset < its
  // size) or the cursor is the end cursor (end(), 0, size()).
  struct Cursor {
    const_iterator segment = nullptr;
    std::uint32_t offset = 0;
    std::uint32_t position = 0;
  };

  class LinearReader;
  class SegmentReadIterator;

  MemoryListBase(MemoryListBase const&) = delete;
  MemoryListBase& operator=(MemoryListBase const&) = delete;

  // ---- New lists

  // A new empty list of the same concrete kind with the same chunk factory.
  virtual Ptr create_empty() const = 0;
  // Replaces this list's contents by `other`'s segments (sharing the chunks), its size, chunk
  // factory and write position.
  virtual void copy_from(MemoryListBase const& other);

  // The bytes [cursor, cursor + length) (clipped to the end) as a new list sharing the chunks.
  Ptr sublist(Cursor const& cursor, unsigned length = npos) const;
  Ptr sublist(unsigned pos, unsigned length = npos) const;
  // A new list object with the same segments and write position; chunks are shared.
  Ptr shallow_clone() const;
  // A new list holding a copy of [pos, pos + length) in chunks of its own.
  Ptr deep_clone(unsigned pos = 0, unsigned length = npos) const;

  // ---- Size and segments

  unsigned size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  unsigned segment_count() const noexcept { return segments_.size(); }
  const_iterator begin() const noexcept { return segments_.begin(); }
  const_iterator end() const noexcept { return segments_.end(); }
  ChunkFactory chunk_factory() const noexcept { return factory_; }
  // The room behind the last segment inside its chunk (0 without segments).
  unsigned remaining_space_last_chunk() const noexcept {
    return segments_.empty() ? 0 : segments_.back().space_remaining();
  }
  unsigned calculate_size() const noexcept;
  bool validate_size() const noexcept { return calculate_size() == size_; }

  // ---- Appending (each leaves the write cursor at the end)

  // Fills the free room of the last chunk, then adds chunks from the factory, each requested
  // with max(bytes left, current size) so that requests grow with the list.
  void append(value_type const* p, unsigned n);
  // [offset, offset + length) of the chunk (length npos or too large: to its end), shared.
  void append(ChunkPtr const& chunk, unsigned offset = 0, unsigned length = npos);
  // A copy of the segment (sharing its chunk) unless it is empty.
  void append(Segment const& segment);
  void append(MemoryListBase const& list) { append_list(list); }
  void append(MemoryListBase const& list, Cursor const& cursor, unsigned length) {
    append_list(list, cursor, length);
  }

  // Appends `list`'s bytes from the cursor (length npos or too large: to its end) sharing its
  // chunks. `list` may be this list. The cursor must belong to `list`.
  void append_list(MemoryListBase const& list);
  void append_list(MemoryListBase const& list, Cursor const& cursor, unsigned length = npos);
  void append_list(MemoryListBase const& list, unsigned pos, unsigned length = npos);

  // As append_list, but copies the bytes into this list's own chunks.
  void append_defragmented(MemoryListBase const& list, unsigned pos = 0, unsigned length = npos);
  void append_list_defragmented(MemoryListBase const& list, Cursor const& cursor,
                                unsigned length = npos);

  // Appends one byte: in place when the last chunk has room, else through append().
  void push_back(value_type c) {
    if (!segments_.empty() && size_ != kMaxSize && segments_.back().push_back(c)) {
      ++size_;
      write_cursor_to_end();
      return;
    }
    push_back_slow(c);
  }

  // The append window for a writer's inline fast path: makes sure the list ends in a segment
  // whose chunk is private and has free room behind it (adding a chunk from the factory with a
  // request of max(min_request, size()) when there is none) and returns the address behind the
  // last byte, with the free room in *avail. Bytes placed there become part of the list with
  // commit_append_write(). Nothing else may change the list in between. `avail` must not be
  // null.
  value_type* get_append_write_ptr(unsigned* avail, unsigned min_request = 1) {
    if (!segments_.empty()) {
      Segment& last = segments_.back();
      unsigned const room = std::min(last.space_remaining(), kMaxSize - size_);
      if (room != 0 && !last.is_shared()) {
        *avail = room;
        return last.chunk()->data() + last.last();
      }
    }
    return get_append_write_ptr_slow(avail, min_request);
  }

  // Adds the first n bytes of the append window (n <= the room returned) to the list.
  void commit_append_write(unsigned n) noexcept {
    if (segments_.empty()) return;
    Segment& last = segments_.back();
    n = std::min({n, last.space_remaining(), kMaxSize - size_});
    last.commit_append_write(n);
    size_ += n;
    if (last.empty()) drop_empty_tail();
    write_cursor_to_end();
  }

  void finalize_append() noexcept { write_cursor_to_end(); }

  // ---- Writing at the write cursor

  // Overwrites bytes from the write cursor (copying shared chunks first) and appends what goes
  // beyond the end; the cursor ends behind the last byte written.
  void write(value_type const* p, unsigned n);

  // Writes src's bytes [pos, pos + length) (clipped to src's end) at the write cursor, copying
  // them. `src` may be this list (overlapping ranges are safe); a null src writes nothing.
  void write_defragmented(MemoryListBase const& src, unsigned pos = 0, unsigned length = npos);
  void write_defragmented(MemoryListBase const* src, unsigned pos = 0, unsigned length = npos) {
    if (src) write_defragmented(*src, pos, length);
  }
  void write_list_defragmented(MemoryListBase const& src, Cursor const& cursor,
                               unsigned length = npos);
  void write_list_defragmented(MemoryListBase const* src, Cursor const& cursor,
                               unsigned length = npos) {
    if (src) write_list_defragmented(*src, cursor, length);
  }

  // Places the write cursor at pos (clamped to the size); returns the position taken.
  unsigned write_seek(unsigned pos);
  unsigned get_write_position() const noexcept { return write_.position; }

  // Overwrites existing bytes from pos, never growing the list; returns the count written.
  unsigned overwrite_at(unsigned pos, value_type const* p, unsigned n);
  // The byte at pos for overwriting, its segment's chunk made private first, with the bytes
  // that follow it in the segment in *avail; null and 0 at the end.
  value_type* writable_ptr_at(unsigned pos, unsigned* avail);

  // ---- Shrinking and resizing

  // Drops the first n bytes; the write position moves down by n (not below 0).
  void erase_front(unsigned n);
  // Growing exposes zero bytes (chunks hold whatever was written last, or nothing written at
  // all); the write position is kept. Shrinking moves a write position beyond the new end to the
  // end.
  void resize(unsigned size);
  // resize(size), or for npos: extends the last segment over all free room of its chunk (zeroed).
  void resize_to_chunk_boundary(unsigned size);
  void clear() noexcept;

  // ---- Reading

  // Copies up to n bytes from pos; returns the count.
  unsigned read_at(unsigned pos, value_type* out, unsigned n) const;
  // Throws std::range_error for a position outside the list.
  value_type element_at(unsigned pos) const;
  // The byte at pos and the count of bytes behind it in its segment; null and 0 at the end.
  value_type const* readable_ptr_at(unsigned pos, unsigned* avail) const;
  // The range (clipped to the end) as one segment: shared when it lies in one segment, else a
  // contiguous copy in a new chunk. The cursor form advances the cursor past the range.
  Segment get_range_as_segment(unsigned pos, unsigned length) const;
  Segment get_range_at_cursor_as_segment(Cursor& cursor, unsigned length) const;
  // The segment holding pos and the offset in it; (end(), 0) for pos >= size().
  const_iterator calculate_segment_offset(unsigned pos, unsigned* offset) const noexcept;
  // The absolute position of (segment, offset); size() for end().
  unsigned calculate_position(const_iterator segment, unsigned offset) const noexcept;

  // ---- Read cursors (read-only; any number may exist)

  Cursor begin_cursor() const noexcept {
    Cursor c{segments_.begin(), 0, 0};
    skip_empty_segments(c);
    return c;
  }
  Cursor end_cursor() const noexcept { return {segments_.end(), 0, size_}; }
  Cursor cursor_at(unsigned pos) const noexcept {
    Cursor c;
    set_read_cursor_to_pos(c, pos);
    return c;
  }
  void set_read_cursor_to_pos(Cursor& cursor, unsigned pos) const noexcept {
    pos = std::min(pos, size_);
    unsigned offset = 0;
    cursor.segment = calculate_segment_offset(pos, &offset);
    cursor.offset = offset;
    cursor.position = pos;
  }
  void set_read_cursor_to_end(Cursor& cursor) const noexcept { cursor = end_cursor(); }
  bool is_eof(Cursor const& cursor) const noexcept { return cursor.segment == segments_.end(); }
  // True when the cursor is a normalised cursor of this list at a consistent position.
  bool is_valid_cursor(Cursor const& cursor) const noexcept;

  // The contiguous bytes at the cursor up to its segment's end; null and 0 at the end.
  value_type const* readable_at_cursor(Cursor const& cursor, unsigned* avail) const noexcept {
    if (cursor.segment == segments_.end()) {
      *avail = 0;
      return nullptr;
    }
    *avail = cursor.segment->size() - cursor.offset;
    return cursor.segment->data() + cursor.offset;
  }

  // Copies up to n bytes from the cursor across segments and advances it; returns the count.
  unsigned read_at_cursor(Cursor& cursor, value_type* out, unsigned n) const noexcept;

  // Moves the cursor by up to n bytes; returns the count.
  unsigned cursor_advance(Cursor& cursor, unsigned n) const noexcept;
  // Moves the cursor by one byte (not past the end).
  void cursor_advance(Cursor& cursor) const noexcept {
    if (cursor.segment == segments_.end()) return;
    ++cursor.position;
    if (++cursor.offset == cursor.segment->size()) {
      ++cursor.segment;
      cursor.offset = 0;
      skip_empty_segments(cursor);
    }
  }

  // ---- Sequential readers (each holds a reference to this list)

  LinearReader reader() const { return LinearReader(ConstPtr(this)); }
  LinearReader reader(unsigned pos, unsigned length = npos) const {
    return LinearReader(ConstPtr(this), pos, length);
  }
  SegmentReadIterator segment_read_iterator() const { return SegmentReadIterator(ConstPtr(this)); }
  SegmentReadIterator segment_read_iterator(Cursor const& cursor, unsigned length = npos) const {
    return SegmentReadIterator(ConstPtr(this), cursor, length);
  }

  void write_trace(std::ostream& os, int level) const override;

 protected:
  explicit MemoryListBase(ChunkFactory factory) noexcept : factory_(factory) {}
  ~MemoryListBase() override = default;

  void set_chunk_factory(ChunkFactory factory) noexcept { factory_ = factory; }
  unsigned segment_capacity() const noexcept { return segments_.capacity(); }

 private:
  friend class ::zoserialize::MemoryListTestPeer;

  // The write cursor counts segments by index so that it survives the growth of the segment
  // array; an index equal to the segment count stands for the end.
  struct WriteCursor {
    std::uint32_t index = 0;
    std::uint32_t offset = 0;
    std::uint32_t position = 0;
  };

  iterator mutable_iterator(const_iterator it) noexcept {
    return segments_.begin() + (it - segments_.begin());
  }
  void write_cursor_to_end() noexcept { write_ = {segments_.size(), 0, size_}; }
  // Moves the cursor by up to n bytes, copying them to `out` unless it is null.
  unsigned walk_cursor(Cursor& cursor, value_type* out, unsigned n) const noexcept;
  void skip_empty_segments(Cursor& cursor) const noexcept {
    while (cursor.segment != segments_.end() && cursor.offset >= cursor.segment->size()) {
      ++cursor.segment;
      cursor.offset = 0;
    }
  }
  void check_growth(unsigned n) const {
    if (n > kMaxSize - size_) impl::throw_memory_list_length_error();
  }
  // A trailing empty segment only exists between get_append_write_ptr and its commit.
  void drop_empty_tail() noexcept {
    if (!segments_.empty() && segments_.back().empty()) {
      segments_.pop_back();
      if (write_.index > segments_.size()) write_cursor_to_end();
    }
  }

  ChunkPtr new_chunk(unsigned request) const;
  void push_back_slow(value_type c);
  value_type* get_append_write_ptr_slow(unsigned* avail, unsigned min_request);
  // Appends n bytes from the cursor of another list, sharing the chunks.
  void append_segments(Cursor const& cursor, unsigned n);
  void append_copy(MemoryListBase const& list, Cursor cursor, unsigned n);

  SegmentArray segments_;
  std::uint32_t size_ = 0;
  WriteCursor write_;
  ChunkFactory factory_;
};

// Sequential reader over the window [start, start + length) of a list. Holds a reference to
// the list, which must not be modified while the reader is used. Cheap to copy.
template <class Segment, class ChunkFactory, class Counter, class SegmentArray>
class MemoryListBase<Segment, ChunkFactory, Counter, SegmentArray>::LinearReader {
 public:
  LinearReader() noexcept = default;
  explicit LinearReader(ConstPtr list, unsigned start = 0, unsigned length = npos) noexcept
      : list_(std::move(list)) {
    if (!list_) return;
    start_ = std::min(start, list_->size());
    end_ = start_ + std::min(length, list_->size() - start_);
    list_->set_read_cursor_to_pos(cursor_, start_);
  }

  ConstPtr const& list() const noexcept { return list_; }
  // Relative to the window's start.
  unsigned position() const noexcept { return cursor_.position - start_; }
  unsigned size() const noexcept { return end_ - start_; }
  unsigned remaining() const noexcept { return end_ - cursor_.position; }
  bool is_eof() const noexcept { return cursor_.position >= end_; }
  // Absolute positions in the list.
  unsigned start() const noexcept { return start_; }
  unsigned end_position() const noexcept { return end_; }
  Cursor const& cursor() const noexcept { return cursor_; }

  // The bytes at the position up to the end of its segment (and of the window).
  value_type const* contiguous(unsigned* avail) const noexcept {
    if (is_eof()) {
      *avail = 0;
      return nullptr;
    }
    value_type const* p = list_->readable_at_cursor(cursor_, avail);
    *avail = std::min(*avail, remaining());
    return p;
  }

  // The byte at the position, or -1 at the end.
  int peek() const noexcept {
    if (is_eof()) return -1;
    return static_cast<unsigned char>(cursor_.segment->data()[cursor_.offset]);
  }

  unsigned read(void* out, unsigned n) noexcept {
    n = std::min(n, remaining());
    if (n == 0) return 0;
    return list_->read_at_cursor(cursor_, static_cast<value_type*>(out), n);
  }

  unsigned skip(unsigned n) noexcept {
    n = std::min(n, remaining());
    if (n == 0) return 0;
    return list_->cursor_advance(cursor_, n);
  }

  // Moves to a position relative to the window's start (clamped to the window).
  void seek(unsigned position) noexcept {
    if (list_) list_->set_read_cursor_to_pos(cursor_, start_ + std::min(position, size()));
  }

  // The rest of the window, segment by segment.
  SegmentReadIterator segments() const {
    return list_ ? SegmentReadIterator(list_, cursor_, remaining()) : SegmentReadIterator();
  }

 private:
  ConstPtr list_;
  Cursor cursor_;
  std::uint32_t start_ = 0;
  std::uint32_t end_ = 0;
};

// Walks a range of a list one contiguous piece at a time: data() and size() describe the
// current piece (the rest of a segment, cut at the range's end), next() moves to the next one.
// Holds a reference to the list, which must not be modified meanwhile.
template <class Segment, class ChunkFactory, class Counter, class SegmentArray>
class MemoryListBase<Segment, ChunkFactory, Counter, SegmentArray>::SegmentReadIterator {
 public:
  SegmentReadIterator() noexcept = default;
  explicit SegmentReadIterator(ConstPtr list, unsigned pos = 0, unsigned length = npos) noexcept
      : list_(std::move(list)) {
    if (!list_) return;
    list_->set_read_cursor_to_pos(cursor_, pos);
    end_ = cursor_.position + std::min(length, list_->size() - cursor_.position);
  }
  // The cursor must belong to `list`.
  SegmentReadIterator(ConstPtr list, Cursor const& cursor, unsigned length = npos) noexcept
      : list_(std::move(list)), cursor_(cursor) {
    if (!list_) return;
    end_ = cursor_.position + std::min(length, list_->size() - cursor_.position);
  }

  bool at_end() const noexcept { return cursor_.position >= end_; }
  value_type const* data() const noexcept {
    return at_end() ? nullptr : cursor_.segment->data() + cursor_.offset;
  }
  unsigned size() const noexcept {
    return at_end() ? 0
                    : std::min(cursor_.segment->size() - cursor_.offset, end_ - cursor_.position);
  }
  // Absolute position of data() in the list.
  unsigned position() const noexcept { return cursor_.position; }
  unsigned end_position() const noexcept { return end_; }
  Cursor const& cursor() const noexcept { return cursor_; }
  ConstPtr const& list() const noexcept { return list_; }

  void next() noexcept {
    if (!at_end()) list_->cursor_advance(cursor_, size());
  }
  SegmentReadIterator& operator++() noexcept {
    next();
    return *this;
  }

 private:
  ConstPtr list_;
  Cursor cursor_;
  std::uint32_t end_ = 0;
};

// The out-of-line members are defined in impl/memory_list_impl.h, which only memory_list.cpp
// includes: the template is instantiated there, once, for MemoryList.

// ---- The list used throughout the library

using MemoryChunkFactory = MemoryChunkPtr (*)(unsigned);
using MemoryListBaseType = MemoryListBase<MemoryChunkSegment, MemoryChunkFactory,
                                          zocore::AtomicRefCount, MemoryChunkSegmentArray>;
extern template class ZOSERIALIZE_API MemoryListBase<
    MemoryChunkSegment, MemoryChunkFactory, zocore::AtomicRefCount, MemoryChunkSegmentArray>;

using MemoryListPtr = zocore::RefCountPtr<MemoryListBaseType>;
using ConstMemoryListPtr = zocore::RefCountPtr<MemoryListBaseType const>;
using MemoryListCursor = MemoryListBaseType::Cursor;
using LinearReader = MemoryListBaseType::LinearReader;
using SegmentReadIterator = MemoryListBaseType::SegmentReadIterator;

// The concrete list: chunks from a factory (create_memory_chunk unless told otherwise) and list
// objects recycled through a process-wide pool of up to 128 idle lists. A released list is
// cleared (its chunks go back to their pools) and kept with its segment storage, unless that
// storage grew beyond 64 segments. Creating and releasing lists is thread-safe.
class ZOSERIALIZE_API MemoryList final : public MemoryListBaseType {
 public:
  static constexpr unsigned kPoolCapacity = 128;
  static constexpr unsigned kMaxPooledSegmentCapacity = 64;

  static MemoryListPtr create();
  // A list of `size` bytes whose contents are whatever its chunks held.
  static MemoryListPtr create(unsigned size);
  // A list taking its chunks from `factory` (lists created from it inherit the factory).
  static MemoryListPtr create_with_factory(MemoryChunkFactory factory);

  MemoryListPtr create_empty() const override;

 protected:
  void destroy() override;

 private:
  friend class ::zoserialize::MemoryListTestPeer;

  explicit MemoryList(MemoryChunkFactory factory) noexcept;
  ~MemoryList() override;

  static std::size_t pooled_count() noexcept;
  // Compares addresses only: `list` may point to a deleted list.
  static bool is_pooled(MemoryListBaseType const* list) noexcept;
};

}  // namespace zoserialize
