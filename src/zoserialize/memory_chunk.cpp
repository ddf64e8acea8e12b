#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include <zocore/thread_mutex.h>
#include <zoserialize/memory_chunk.h>

namespace zoserialize {

template class MemoryChunkBase<char, zocore::AtomicRefCount>;

namespace impl {
namespace {

// Set when a pool is destroyed at unload. It lives outside the pool object and is trivially
// destructible, so a chunk released after the pool is gone can still read it safely and will
// be deleted instead of touching the dead pool.
template <unsigned Size, unsigned Count>
constinit std::atomic<bool> g_pool_shut_down{false};

// The idle chunks of one size class. The mutex is held only for one push or pop.
template <unsigned Size, unsigned Count>
class ChunkPool {
 public:
  ChunkPool() { free_.reserve(Count); }
  ChunkPool(ChunkPool const&) = delete;
  ChunkPool& operator=(ChunkPool const&) = delete;

  ~ChunkPool() {
    std::vector<MemoryChunkPtr> idle;
    {
      zocore::ThreadMutexGuard lock(mutex_);
      g_pool_shut_down<Size, Count>.store(true, std::memory_order_release);
      idle.swap(free_);
    }
    // `idle` goes out of scope here: every release finds the pool shut down and deletes.
  }

  MemoryChunkPtr take() noexcept {
    zocore::ThreadMutexGuard lock(mutex_);
    if (free_.empty()) return {};
    MemoryChunkPtr chunk = std::move(free_.back());
    free_.pop_back();
    return chunk;
  }

  // Takes a reference to `chunk` (its count goes from 0 back to 1) unless the pool is full.
  bool put(MemoryChunk* chunk) noexcept {
    zocore::ThreadMutexGuard lock(mutex_);
    if (g_pool_shut_down<Size, Count>.load(std::memory_order_relaxed) || free_.size() >= Count) {
      return false;
    }
    // Cannot allocate: the storage was reserved for Count entries.
    free_.emplace_back(chunk);
    return true;
  }

  std::size_t size() noexcept {
    zocore::ThreadMutexGuard lock(mutex_);
    return free_.size();
  }

  bool contains(MemoryChunk const* chunk) noexcept {
    zocore::ThreadMutexGuard lock(mutex_);
    for (MemoryChunkPtr const& p : free_) {
      if (p.get() == chunk) return true;
    }
    return false;
  }

 private:
  zocore::ThreadMutex mutex_;
  std::vector<MemoryChunkPtr> free_;
};

// Built on first use, so no other static initialiser can see it unconstructed; a chunk can only
// exist after its pool was built, so pooled chunks never outlive the pool.
template <unsigned Size, unsigned Count>
ChunkPool<Size, Count>& pool() {
  static ChunkPool<Size, Count> instance;
  return instance;
}

// A chunk with exactly the requested amount of heap storage; never pooled.
class HeapMemoryChunk final : public MemoryChunk {
 public:
  static MemoryChunkPtr create(unsigned size) {
    std::unique_ptr<char[]> storage(new char[size]());
    char* data = storage.get();
    return MemoryChunkPtr(new HeapMemoryChunk(data, size, std::move(storage)));
  }

  MemoryChunkPtr clone_range(unsigned offset, unsigned length) const override {
    MemoryChunkPtr copy = create(size());
    if (offset < size()) {
      unsigned const n = std::min(length, size() - offset);
      std::memcpy(copy->data(), data() + offset, n);
    }
    return copy;
  }

 private:
  HeapMemoryChunk(char* data, unsigned size, std::unique_ptr<char[]> storage) noexcept
      : MemoryChunk(data, size), storage_(std::move(storage)) {}
  ~HeapMemoryChunk() override = default;

  std::unique_ptr<char[]> storage_;
};

}  // namespace

MemoryChunkPtr create_heap_memory_chunk(unsigned size) {
  return HeapMemoryChunk::create(size);
}

template <unsigned Size, unsigned Count>
MemoryChunkImpl<Size, Count>::MemoryChunkImpl() noexcept
    : MemoryChunk(storage_, Size), guard_{kGuardWord0, kGuardWord1} {}

template <unsigned Size, unsigned Count>
MemoryChunkImpl<Size, Count>::~MemoryChunkImpl() = default;

template <unsigned Size, unsigned Count>
MemoryChunkPtr MemoryChunkImpl<Size, Count>::create() {
  if (!g_pool_shut_down<Size, Count>.load(std::memory_order_acquire)) {
    if (MemoryChunkPtr chunk = pool<Size, Count>().take()) return chunk;
  }
  return MemoryChunkPtr(new MemoryChunkImpl);
}

template <unsigned Size, unsigned Count>
MemoryChunkPtr MemoryChunkImpl<Size, Count>::clone_range(unsigned offset, unsigned length) const {
  MemoryChunkPtr copy = create();
  if (offset < Size) {
    unsigned const n = std::min(length, Size - offset);
    std::memcpy(copy->data(), storage_ + offset, n);
  }
  return copy;
}

template <unsigned Size, unsigned Count>
void MemoryChunkImpl<Size, Count>::destroy() {
  // An overwritten guard means somebody wrote past the storage; such a chunk must not be
  // handed out again.
  if (!guards_intact() || !offer_to_pool()) MemoryChunk::destroy();
}

template <unsigned Size, unsigned Count>
bool MemoryChunkImpl<Size, Count>::offer_to_pool() noexcept {
  if (g_pool_shut_down<Size, Count>.load(std::memory_order_acquire)) return false;
  return pool<Size, Count>().put(this);
}

template <unsigned Size, unsigned Count>
std::size_t MemoryChunkImpl<Size, Count>::pooled_count() noexcept {
  return pool<Size, Count>().size();
}

template <unsigned Size, unsigned Count>
bool MemoryChunkImpl<Size, Count>::is_pooled(MemoryChunk const* chunk) noexcept {
  return pool<Size, Count>().contains(chunk);
}

template class MemoryChunkImpl<1024, 512>;
template class MemoryChunkImpl<4096, 128>;
template class MemoryChunkImpl<16384, 64>;
template class MemoryChunkImpl<65536, 32>;

}  // namespace impl

MemoryChunkPtr create_memory_chunk(unsigned size) {
  if (size <= 1024) return impl::MemoryChunkImpl<1024, 512>::create();
  if (size <= 4096) return impl::MemoryChunkImpl<4096, 128>::create();
  if (size <= 16384) return impl::MemoryChunkImpl<16384, 64>::create();
  return impl::MemoryChunkImpl<65536, 32>::create();
}

}  // namespace zoserialize
