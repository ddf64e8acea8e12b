// A slice of a memory chunk, and the small-buffer array of slices a memory list is made of.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include <zoserialize/export.h>
#include <zoserialize/memory_chunk.h>

namespace zoserialize {

// A run of bytes inside one chunk: [first, first + size) of the chunk's storage. Segments share
// their chunk by reference; the room behind a segment's end inside its chunk may be appended to
// only while the segment holds the only reference to the chunk. Every operation that writes
// first replaces a shared chunk by a private copy of the segment's bytes (copy-on-write), so a
// segment never changes bytes another holder can see. Not thread-safe; the chunk's reference
// count is, so segments sharing a chunk may live on different threads.
template <class Chunk>
class MemorySegment {
 public:
  using chunk_type = Chunk;
  using ChunkPtr = zocore::RefCountPtr<Chunk>;
  using value_type = typename Chunk::value_type;

  // "To the end" as a length.
  static constexpr unsigned npos = 0xFFFFFFFFU;

  MemorySegment() noexcept = default;

  // The whole chunk (may be null: an empty segment). Shares the reference.
  explicit MemorySegment(ChunkPtr chunk) noexcept
      : chunk_(std::move(chunk)), size_(chunk_ ? chunk_->size() : 0) {}

  // [first, first + size) of the chunk; a first beyond the chunk is clamped to its end, a size
  // of npos or one reaching beyond the chunk means up to the chunk's end.
  MemorySegment(ChunkPtr chunk, unsigned first, unsigned size) noexcept : chunk_(std::move(chunk)) {
    unsigned const capacity = chunk_ ? chunk_->size() : 0;
    first_ = std::min(first, capacity);
    size_ = std::min(size, capacity - first_);
  }

  // [offset, offset + length) of `other` (clamped to it), sharing its chunk.
  MemorySegment(MemorySegment const& other, unsigned offset, unsigned length) noexcept
      : chunk_(other.chunk_) {
    offset = std::min(offset, other.size_);
    first_ = other.first_ + offset;
    size_ = std::min(length, other.size_ - offset);
  }

  MemorySegment(MemorySegment const&) noexcept = default;
  MemorySegment(MemorySegment&& other) noexcept
      : chunk_(std::move(other.chunk_)),
        first_(std::exchange(other.first_, 0)),
        size_(std::exchange(other.size_, 0)) {}
  MemorySegment& operator=(MemorySegment const&) noexcept = default;
  MemorySegment& operator=(MemorySegment&& other) noexcept {
    MemorySegment(std::move(other)).swap(*this);
    return *this;
  }
  ~MemorySegment() = default;

  ChunkPtr const& chunk() const noexcept { return chunk_; }
  unsigned first() const noexcept { return first_; }
  unsigned size() const noexcept { return size_; }
  // One past the segment's last byte, as an offset in the chunk.
  unsigned last() const noexcept { return first_ + size_; }
  bool empty() const noexcept { return size_ == 0; }
  value_type const* data() const noexcept { return chunk_ ? chunk_->data() + first_ : nullptr; }

  // Room behind the segment's end inside its chunk.
  unsigned space_remaining() const noexcept { return chunk_ ? chunk_->size() - last() : 0; }
  // True when another holder shares the chunk, so writing needs a private copy first.
  bool is_shared() const noexcept { return chunk_ && !chunk_->is_unique(); }

  // Shortens or lengthens the segment inside its chunk (clamped to the chunk). Lengthening
  // exposes the chunk's bytes behind the end as they are.
  void size(unsigned n) noexcept { size_ = std::min(n, chunk_ ? chunk_->size() - first_ : 0U); }

  void clear() noexcept {
    chunk_ = nullptr;
    first_ = 0;
    size_ = 0;
  }

  void swap(MemorySegment& other) noexcept {
    chunk_.swap(other.chunk_);
    std::swap(first_, other.first_);
    std::swap(size_, other.size_);
  }

  // Copies as much of [p, p + n) as fits behind the end into the chunk; returns the count.
  unsigned append(value_type const* p, unsigned n) {
    unsigned m = std::min(n, space_remaining());
    if (m == 0) return 0;
    if (is_shared()) {
      clone_for_write();
      m = std::min(n, space_remaining());
    }
    std::memcpy(chunk_->data() + last(), p, m);
    size_ += m;
    return m;
  }

  // The free room behind the end, made private first: the address of its first byte, with its
  // length in *avail (when given). Bytes placed there become part of the segment through
  // commit_append_write().
  value_type* get_append_write_ptr(unsigned* avail) {
    if (is_shared()) clone_for_write();
    if (avail) *avail = space_remaining();
    return chunk_ ? chunk_->data() + last() : nullptr;
  }

  void commit_append_write(unsigned n) noexcept { size_ += std::min(n, space_remaining()); }

  // Address of the byte at `offset` for overwriting, after making the chunk private; null when
  // the offset is outside the segment.
  value_type* get_inplace_write_ptr(unsigned offset) {
    if (offset >= size_) return nullptr;
    if (is_shared()) clone_for_write();
    return chunk_->data() + first_ + offset;
  }

  // As above for the n bytes from `offset`; null unless they all lie inside the segment.
  value_type* get_inplace_write_ptr(unsigned offset, unsigned n) {
    if (offset > size_ || n > size_ - offset || n == 0) return nullptr;
    return get_inplace_write_ptr(offset);
  }

  // Overwrites bytes from `offset` up to the segment's end at most; returns the count.
  unsigned overwrite(unsigned offset, value_type const* p, unsigned n) {
    if (offset >= size_) return 0;
    n = std::min(n, size_ - offset);
    if (n != 0) std::memcpy(get_inplace_write_ptr(offset), p, n);
    return n;
  }

  // Appends one byte when the chunk has room behind the end.
  bool push_back(value_type c) {
    if (space_remaining() == 0) return false;
    if (is_shared()) clone_for_write();
    chunk_->data()[last()] = c;
    ++size_;
    return true;
  }

  unsigned copy_to(value_type* out, unsigned n) const noexcept { return copy_to(0, out, n); }

  unsigned copy_to(unsigned offset, value_type* out, unsigned n) const noexcept {
    if (offset >= size_) return 0;
    n = std::min(n, size_ - offset);
    if (n != 0) std::memcpy(out, data() + offset, n);
    return n;
  }

  // Shares the chunk; a length of npos means to the end.
  MemorySegment subsegment(unsigned offset, unsigned length) const noexcept {
    return MemorySegment(*this, offset, length);
  }

  // The same bytes in a chunk of their own.
  MemorySegment deep_clone() const {
    if (!chunk_) return {};
    return MemorySegment(chunk_->clone_range(first_, size_), 0, size_);
  }

 private:
  // Replaces the shared chunk by a private copy of this segment's bytes, which then start at 0.
  void clone_for_write() {
    chunk_ = ChunkPtr(chunk_->clone_range(first_, size_));
    first_ = 0;
  }

  ChunkPtr chunk_;
  std::uint32_t first_ = 0;
  std::uint32_t size_ = 0;
};

// A vector of segments with room for N of them inside the object, so a list of up to N segments
// costs no allocation. Beyond that the capacity doubles (N, 2N, 4N, ...). Iterators are plain
// pointers and are invalidated by any growth. clear() keeps the storage.
template <class Segment, class Allocator, unsigned N>
class MemorySegmentArray {
 public:
  using value_type = Segment;
  using iterator = Segment*;
  using const_iterator = Segment const*;
  using allocator_type = Allocator;

  // The inline storage is raw memory; segments are constructed in it as they are added.
  MemorySegmentArray() noexcept  // NOLINT(cppcoreguidelines-pro-type-member-init)
      : cap_end_(inline_begin() + N), begin_(inline_begin()), end_(inline_begin()) {}
  MemorySegmentArray(MemorySegmentArray const&) = delete;
  MemorySegmentArray& operator=(MemorySegmentArray const&) = delete;

  ~MemorySegmentArray() {
    clear();
    release_storage();
  }

  iterator begin() noexcept { return begin_; }
  iterator end() noexcept { return end_; }
  const_iterator begin() const noexcept { return begin_; }
  const_iterator end() const noexcept { return end_; }
  unsigned size() const noexcept { return static_cast<unsigned>(end_ - begin_); }
  unsigned capacity() const noexcept { return static_cast<unsigned>(cap_end_ - begin_); }
  bool empty() const noexcept { return begin_ == end_; }
  bool uses_static_buf() const noexcept { return begin_ == inline_begin(); }

  Segment& operator[](unsigned i) noexcept { return begin_[i]; }
  Segment const& operator[](unsigned i) const noexcept { return begin_[i]; }
  Segment& back() noexcept { return end_[-1]; }
  Segment const& back() const noexcept { return end_[-1]; }

  void push_back(Segment const& segment) {
    if (end_ == cap_end_) {
      Segment copy(segment);  // `segment` may live in the storage about to move
      alloc_grow(1);
      ::new (static_cast<void*>(end_)) Segment(std::move(copy));
    } else {
      ::new (static_cast<void*>(end_)) Segment(segment);
    }
    ++end_;
  }

  void push_back(Segment&& segment) {
    if (end_ == cap_end_) {
      Segment moved(std::move(segment));
      alloc_grow(1);
      ::new (static_cast<void*>(end_)) Segment(std::move(moved));
    } else {
      ::new (static_cast<void*>(end_)) Segment(std::move(segment));
    }
    ++end_;
  }

  void push_back(typename Segment::ChunkPtr chunk) { push_back(Segment(std::move(chunk))); }

  void push_back(typename Segment::ChunkPtr chunk, unsigned first, unsigned size) {
    push_back(Segment(std::move(chunk), first, size));
  }

  // Appends copies of [first, last), which may lie in this array.
  void append(const_iterator first, const_iterator last) {
    auto const n = static_cast<unsigned>(last - first);
    if (n > static_cast<unsigned>(cap_end_ - end_)) {
      bool const inside = first >= begin_ && first < end_;
      std::ptrdiff_t const index = first - begin_;
      alloc_grow(n);
      if (inside) first = begin_ + index;
    }
    for (unsigned i = 0; i < n; ++i, ++end_)
      ::new (static_cast<void*>(end_)) Segment(first[i]);
  }

  // Removes [first, last); returns the position that followed the removed range.
  iterator erase(iterator first, iterator last) noexcept {
    if (first == last) return first;
    iterator const new_end = std::move(last, end_, first);
    std::destroy(new_end, end_);
    end_ = new_end;
    return first;
  }

  void pop_back() noexcept {
    --end_;
    std::destroy_at(end_);
  }

  void clear() noexcept {
    std::destroy(begin_, end_);
    end_ = begin_;
  }

  // Makes room for n more segments: doubles the capacity until it is at least the old capacity
  // plus n, moves the segments over and frees the old storage unless it was the inline one.
  void alloc_grow(unsigned n) {
    std::size_t const old_capacity = capacity();
    std::size_t new_capacity = old_capacity;
    while (new_capacity < old_capacity + n)
      new_capacity *= 2;
    Segment* const storage = Traits::allocate(alloc_, new_capacity);
    Segment* out = storage;
    for (Segment* p = begin_; p != end_; ++p, ++out) {
      ::new (static_cast<void*>(out)) Segment(std::move(*p));
      std::destroy_at(p);
    }
    release_storage();
    begin_ = storage;
    end_ = out;
    cap_end_ = storage + new_capacity;
  }

 private:
  using Traits = std::allocator_traits<Allocator>;
  static_assert(N > 0, "the inline storage must hold at least one segment");
  static_assert(std::is_nothrow_move_constructible_v<Segment>);

  Segment* inline_begin() noexcept { return reinterpret_cast<Segment*>(inline_storage_); }
  Segment const* inline_begin() const noexcept {
    return reinterpret_cast<Segment const*>(inline_storage_);
  }

  void release_storage() noexcept {
    if (!uses_static_buf()) Traits::deallocate(alloc_, begin_, capacity());
  }

  Segment* cap_end_;
  Segment* begin_;
  Segment* end_;
  alignas(Segment) unsigned char inline_storage_[N * sizeof(Segment)];
  [[no_unique_address]] Allocator alloc_;
};

extern template class ZOSERIALIZE_API MemorySegment<MemoryChunk>;
using MemoryChunkSegment = MemorySegment<MemoryChunk>;
using MemoryChunkSegmentArray =
    MemorySegmentArray<MemoryChunkSegment, std::allocator<MemoryChunkSegment>, 16>;
extern template class ZOSERIALIZE_API
    MemorySegmentArray<MemoryChunkSegment, std::allocator<MemoryChunkSegment>, 16>;

}  // namespace zoserialize
