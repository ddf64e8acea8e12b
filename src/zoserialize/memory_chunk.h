// Reference-counted fixed-size storage blocks for memory lists, recycled through process-wide
// size-class pools.
#pragma once

#include <cstddef>
#include <cstdint>

#include <zocore/atomic_ref_count.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zoserialize/export.h>

namespace zoserialize {

class MemoryChunkTestPeer;

// A block of `size()` bytes of storage owned by reference counting. Memory lists keep their
// bytes in chunks and share them freely between lists; whoever wants to write into a chunk must
// hold the only reference (`is_unique()`) or copy it first with clone_range(). Chunks are handed
// out as RefCountPtr; the last release calls destroy(), which concrete chunks use to return
// themselves to a pool. The reference count is atomic, so a chunk may be released on any
// thread, but its bytes are not locked: a shared chunk is read-only by convention.
template <class Char, class Counter>
class ZOSERIALIZE_API MemoryChunkBase : public zocore::RefCounted<Counter> {
 public:
  using value_type = Char;

  // Copies `length` bytes starting at `offset` (0xFFFFFFFF: to the end) into the start of a new
  // chunk of the same kind. An offset at or beyond the end copies nothing. The new chunk has the
  // full size of its kind whatever was copied.
  virtual zocore::RefCountPtr<MemoryChunkBase> clone_range(unsigned offset,
                                                           unsigned length) const = 0;

  Char* data() noexcept { return data_; }
  Char const* data() const noexcept { return data_; }
  unsigned size() const noexcept { return size_; }

 protected:
  // `data` must stay valid for the chunk's lifetime; derived chunks point it at their storage.
  MemoryChunkBase(Char* data, unsigned size) noexcept : data_(data), size_(size) {}
  MemoryChunkBase(MemoryChunkBase const&) = delete;
  MemoryChunkBase& operator=(MemoryChunkBase const&) = delete;
  ~MemoryChunkBase() override = default;

 private:
  Char* data_;
  std::uint32_t size_;
};

extern template class ZOSERIALIZE_API MemoryChunkBase<char, zocore::AtomicRefCount>;

using MemoryChunk = MemoryChunkBase<char, zocore::AtomicRefCount>;
using MemoryChunkPtr = zocore::RefCountPtr<MemoryChunk>;

// Returns a chunk for a request of `size` bytes: 1024 bytes for requests up to 1024, 4096 up to
// 4096, 16384 up to 16384 and 65536 for anything larger. The size is a hint; callers must use the
// chunk's own size(), which is smaller than a request above 65536. The bytes are not initialised:
// a recycled chunk keeps those of its previous use, a fresh one holds whatever its memory held.
// Thread-safe.
ZOSERIALIZE_API MemoryChunkPtr create_memory_chunk(unsigned size);

namespace impl {

// A chunk of exactly `size` bytes (zeroed) from the heap, never pooled. For the rare copy that
// must be contiguous and is larger than any pooled chunk.
ZOSERIALIZE_API MemoryChunkPtr create_heap_memory_chunk(unsigned size);

// A pooled chunk class: Size bytes of storage inside the object, followed by two guard words.
// Up to Count idle chunks of the class are kept in a process-wide last-in-first-out free list;
// a chunk whose guard words were overwritten (a buffer overrun) is deleted instead of pooled.
// The pool functions are defined in memory_chunk.cpp, for the four classes create_memory_chunk
// uses.
template <unsigned Size, unsigned Count>
class ZOSERIALIZE_API MemoryChunkImpl final : public MemoryChunk {
 public:
  static constexpr std::uint32_t kGuardWord0 = 0x55AACC33U;
  static constexpr std::uint32_t kGuardWord1 = 0xDEADBEEFU;
  static constexpr unsigned kSize = Size;
  static constexpr unsigned kCount = Count;

  // A chunk of this class: the most recently pooled one, or a new one.
  static MemoryChunkPtr create();

  MemoryChunkPtr clone_range(unsigned offset, unsigned length) const override;

 protected:
  void destroy() override;

 private:
  friend class ::zoserialize::MemoryChunkTestPeer;

  MemoryChunkImpl() noexcept;
  ~MemoryChunkImpl() override;

  // Pools the chunk unless the pool is shut down or full; false when it was refused.
  bool offer_to_pool() noexcept;
  bool guards_intact() const noexcept {
    return guard_[0] == kGuardWord0 && guard_[1] == kGuardWord1;
  }

  static std::size_t pooled_count() noexcept;
  static bool is_pooled(MemoryChunk const* chunk) noexcept;

  // Not zeroed: a chunk's bytes are read only after they were written (a list zeroes what its
  // resize exposes), and a list written in pieces of 64 KiB would otherwise touch every fresh
  // page twice.
  char storage_[Size];  // NOLINT(cppcoreguidelines-pro-type-member-init)
  std::uint32_t guard_[2];
};

extern template class ZOSERIALIZE_API MemoryChunkImpl<1024, 512>;
extern template class ZOSERIALIZE_API MemoryChunkImpl<4096, 128>;
extern template class ZOSERIALIZE_API MemoryChunkImpl<16384, 64>;
extern template class ZOSERIALIZE_API MemoryChunkImpl<65536, 32>;

}  // namespace impl

}  // namespace zoserialize
