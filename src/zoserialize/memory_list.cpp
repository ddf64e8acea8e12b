#include <atomic>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <zocore/streamers.h>
#include <zocore/thread_mutex.h>
#include <zoserialize/impl/memory_list_impl.h>
#include <zoserialize/memory_list.h>

namespace zoserialize {

template class MemorySegment<MemoryChunk>;
template class MemorySegmentArray<MemoryChunkSegment, std::allocator<MemoryChunkSegment>, 16>;
template class MemoryListBase<MemoryChunkSegment, MemoryChunkFactory, zocore::AtomicRefCount,
                              MemoryChunkSegmentArray>;

namespace impl {

void throw_memory_list_range_error() {
  throw std::range_error("zoserialize::MemoryList: Invalid element offset");
}

void throw_memory_list_length_error() {
  throw std::length_error("zoserialize::MemoryList: Size limit exceeded");
}

void throw_memory_list_chunk_error() {
  throw std::logic_error("zoserialize::MemoryList: Chunk factory returned no storage");
}

// Numbers go through std::to_string so that the stream's formatting flags cannot change them.
void write_memory_list_trace_header(std::ostream& os, unsigned total_size, unsigned write_position,
                                    unsigned segment_count) {
  os << "\nTotalSize:  " << std::to_string(total_size)
     << "\nWritePos:   " << std::to_string(write_position)
     << "\nSegments:   " << std::to_string(segment_count);
}

void write_memory_list_trace_segment(std::ostream& os, unsigned index, unsigned position,
                                     unsigned size, unsigned first, void const* data,
                                     void const* chunk, unsigned chunk_size, bool dump) {
  os << "\n[" << std::to_string(index) << "] - pos=" << std::to_string(position)
     << ", size=" << std::to_string(size) << ", first=" << std::to_string(first) << ", data=";
  zocore::streamers::render_pointer(os, data);
  os << ", (Chunk: this=";
  zocore::streamers::render_pointer(os, chunk);
  os << ", size=" << std::to_string(chunk_size) << ")";
  if (dump) {
    os << '\n';
    zocore::streamers::render_hex_dump(os, data, size, position, "  ");
  }
}

}  // namespace impl

namespace {

// Outside the pool object and trivially destructible, so that a list released after the pool
// is gone (during static destruction) can still see it and is deleted instead.
constinit std::atomic<bool> g_list_pool_shut_down{false};

// Idle list objects, last in first out. Each holds one reference to its list; the mutex is held
// only for one push or pop.
class ListPool {
 public:
  ListPool() { free_.reserve(MemoryList::kPoolCapacity); }
  ListPool(ListPool const&) = delete;
  ListPool& operator=(ListPool const&) = delete;

  ~ListPool() {
    std::vector<zocore::RefCountPtr<MemoryList>> idle;
    {
      zocore::ThreadMutexGuard lock(mutex_);
      g_list_pool_shut_down.store(true, std::memory_order_release);
      idle.swap(free_);
    }
    // Releasing `idle` deletes the lists: the pool no longer takes them back.
  }

  zocore::RefCountPtr<MemoryList> take() noexcept {
    zocore::ThreadMutexGuard lock(mutex_);
    if (free_.empty()) return {};
    zocore::RefCountPtr<MemoryList> list = std::move(free_.back());
    free_.pop_back();
    return list;
  }

  bool put(MemoryList* list) noexcept {
    zocore::ThreadMutexGuard lock(mutex_);
    if (g_list_pool_shut_down.load(std::memory_order_relaxed) ||
        free_.size() >= MemoryList::kPoolCapacity) {
      return false;
    }
    free_.emplace_back(list);  // storage reserved: cannot allocate
    return true;
  }

  std::size_t size() noexcept {
    zocore::ThreadMutexGuard lock(mutex_);
    return free_.size();
  }

  bool contains(MemoryListBaseType const* list) noexcept {
    zocore::ThreadMutexGuard lock(mutex_);
    for (auto const& p : free_) {
      if (static_cast<MemoryListBaseType const*>(p.get()) == list) return true;
    }
    return false;
  }

 private:
  zocore::ThreadMutex mutex_;
  std::vector<zocore::RefCountPtr<MemoryList>> free_;
};

ListPool& list_pool() {
  static ListPool instance;
  return instance;
}

bool list_pool_open() noexcept {
  return !g_list_pool_shut_down.load(std::memory_order_acquire);
}

}  // namespace

MemoryList::MemoryList(MemoryChunkFactory factory) noexcept : MemoryListBaseType(factory) {}

MemoryList::~MemoryList() = default;

MemoryListPtr MemoryList::create() {
  return create_with_factory(&create_memory_chunk);
}

MemoryListPtr MemoryList::create(unsigned size) {
  MemoryListPtr list = create();
  list->resize(size);
  return list;
}

MemoryListPtr MemoryList::create_with_factory(MemoryChunkFactory factory) {
  if (!factory) factory = &create_memory_chunk;
  if (list_pool_open()) {
    if (zocore::RefCountPtr<MemoryList> list = list_pool().take()) {
      list->set_chunk_factory(factory);
      return list;
    }
  }
  return MemoryListPtr(new MemoryList(factory));
}

MemoryListPtr MemoryList::create_empty() const {
  return create_with_factory(chunk_factory());
}

void MemoryList::destroy() {
  clear();
  // A list whose segment storage grew large would keep that memory while idle.
  if (segment_capacity() > kMaxPooledSegmentCapacity || !list_pool_open() ||
      !list_pool().put(this)) {
    delete this;
  }
}

std::size_t MemoryList::pooled_count() noexcept {
  return list_pool().size();
}

bool MemoryList::is_pooled(MemoryListBaseType const* list) noexcept {
  return list_pool().contains(list);
}

}  // namespace zoserialize
