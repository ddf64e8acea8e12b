#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>

#include <support/memory_lists.h>
#include <support/test_streams.h>
#include <zoserialize/memory_list.h>

namespace zoserialize {

class MemoryListTestPeer {
 public:
  static std::size_t pooled() { return MemoryList::pooled_count(); }
  static bool is_pooled(MemoryListBaseType const* list) { return MemoryList::is_pooled(list); }
  static unsigned segment_capacity(MemoryListBaseType const& list) {
    return list.segment_capacity();
  }
};

namespace {

using Peer = MemoryListTestPeer;
using zotest::bytes_of;
using zotest::list_in_pieces;
using zotest::list_of;
using zotest::pattern_string;
constexpr unsigned kToEnd = 0xFFFFFFFFU;
constexpr unsigned kMaxSize = MemoryListBaseType::kMaxSize;

// Heap chunks of 1 to 23 bytes in rotation, whatever was asked: many segments, every kind of seam.
MemoryChunkPtr small_chunk_factory(unsigned) {
  static unsigned next = 0;
  next = next % 23 + 1;
  return impl::create_heap_memory_chunk(next);
}

std::vector<unsigned> g_requests;
MemoryChunkPtr recording_factory(unsigned size) {
  g_requests.push_back(size);
  return create_memory_chunk(size);
}

// Every chunk is the same one: lists reach the size limit without the memory.
MemoryChunkPtr same_chunk_factory(unsigned) {
  static MemoryChunkPtr const chunk = impl::create_heap_memory_chunk(65536);
  return chunk;
}

std::vector<unsigned> segment_sizes(MemoryListBaseType const& list) {
  std::vector<unsigned> sizes;
  for (auto const& segment : list)
    sizes.push_back(segment.size());
  return sizes;
}

template <class Exception, class F>
void expect_std_error(F const& f, char const* what) {
  try {
    f();
    ADD_FAILURE() << "no exception, expected: " << what;
  } catch (Exception const& e) {
    EXPECT_TRUE(typeid(e) == typeid(Exception) && std::string(e.what()) == what) << e.what();
  }
}

TEST(MemoryListTest, ChunkRequestsGrowWithTheList) {
  g_requests.clear();
  std::string const text = pattern_string(0, 102010);
  MemoryListPtr const list = MemoryList::create_with_factory(&recording_factory);
  list->append(text.data(), 10);
  list->append(text.data() + 10, 2000);  // 1014 fill the first chunk, 986 ask for 1024
  EXPECT_EQ(segment_sizes(*list), (std::vector<unsigned>{1024, 986}));
  list->append(text.data() + 2010, 100000);  // 38 bytes still fit the second chunk
  EXPECT_EQ(g_requests, (std::vector<unsigned>{10, 1024, 99962, 67584}));
  // resize() fills the last chunk, then asks for the missing count.
  g_requests.clear();
  MemoryListPtr const grown = list_of("abc", MemoryList::create_with_factory(&recording_factory));
  grown->resize(5000);
  EXPECT_EQ(g_requests, (std::vector<unsigned>{3, 3976}));
  EXPECT_TRUE(segment_sizes(*grown) == (std::vector<unsigned>{1024, 3976}) &&
              grown->get_write_position() == 3);
  MemoryListPtr const sized = MemoryList::create(5000);
  EXPECT_TRUE(sized->size() == 5000 && sized->get_write_position() == 0);
}

TEST(MemoryListTest, BadPositionsSizeLimitAndFactoriesWithoutStorageThrow) {
  MemoryListPtr const list = list_in_pieces("abcd", {2});
  EXPECT_EQ(list->element_at(3), 'd');
  for (unsigned pos : {4U, kToEnd, 0U}) {
    MemoryListPtr const from = pos == 0 ? MemoryList::create() : list;
    expect_std_error<std::range_error>([&] { from->element_at(pos); },
                                       "zoserialize::MemoryList: Invalid element offset");
  }
  struct Case {
    unsigned start_size;
    void (*grow)(MemoryListBaseType&);
  };
  Case const cases[] = {
      {kMaxSize - 1, [](MemoryListBaseType& l) { l.append("ab", 2); }},
      {kMaxSize, [](MemoryListBaseType& l) { l.push_back('x'); }},
      {kMaxSize - 1, [](MemoryListBaseType& l) { l.write_seek(kMaxSize - 2), l.write("abc", 3); }},
      {kMaxSize, [](MemoryListBaseType& l) { l.get_append_write_ptr(nullptr, 1); }},
      {0, [](MemoryListBaseType& l) { l.resize(kToEnd); }},
      {0x80000000U, [](MemoryListBaseType& l) { l.append_list(l); }},
      {kMaxSize - 10, [](MemoryListBaseType& l) { l.append(create_memory_chunk(1), 0, 11); }},
  };
  for (Case const& c : cases) {
    MemoryListPtr const big = MemoryList::create_with_factory(&same_chunk_factory);
    big->resize(c.start_size);
    expect_std_error<std::length_error>([&] { c.grow(*big); },
                                        "zoserialize::MemoryList: Size limit exceeded");
    EXPECT_TRUE(big->size() == c.start_size && big->validate_size());
    big->resize(kMaxSize - 1);
    big->push_back('z');  // the last byte below the limit
    EXPECT_EQ(big->element_at(kMaxSize - 1), 'z');
  }
  for (MemoryChunkFactory factory : {+[](unsigned) { return MemoryChunkPtr(); },
                                     +[](unsigned) { return impl::create_heap_memory_chunk(0); }}) {
    MemoryListPtr const empty = MemoryList::create_with_factory(factory);
    char const* const what = "zoserialize::MemoryList: Chunk factory returned no storage";
    expect_std_error<std::logic_error>([&] { empty->append("a", 1); }, what);
    expect_std_error<std::logic_error>([&] { empty->resize(5); }, what);
    EXPECT_EQ(empty->size(), 0U);
  }
}

TEST(MemoryListTest, CursorsPositionsRangesAndReaders) {
  std::string const text = "abcdefghijklmnopq";
  auto const size = static_cast<unsigned>(text.size());
  MemoryListPtr const list = list_in_pieces(text, {1, 3, 6, 1, 6});
  for (unsigned pos = 0; pos <= size + 2; ++pos) {
    unsigned offset = 99;
    auto const segment = list->calculate_segment_offset(pos, &offset);
    EXPECT_EQ(list->calculate_position(segment, offset), std::min(pos, size));
    EXPECT_TRUE(pos < size ? segment->data()[offset] == text[pos]
                           : segment == list->end() && offset == 0)
        << pos;
    MemoryListCursor cursor = list->cursor_at(pos);
    // A cursor never rests on a segment's end: it moves on to the next segment.
    EXPECT_EQ(list->cursor_advance(cursor, 1), pos < size ? 1U : 0U);
    EXPECT_TRUE(list->is_valid_cursor(cursor) && cursor.position == std::min(pos + 1, size));
  }
  unsigned avail = 7;
  EXPECT_TRUE(!list->readable_at_cursor(list->end_cursor(), &avail) && avail == 0);
  // A range inside one segment shares its chunk, else it is copied (also beyond any pooled size).
  EXPECT_EQ(list->get_range_as_segment(5, 3).chunk(), (list->begin() + 2)->chunk());
  MemoryListCursor cursor = list->cursor_at(2);
  MemoryChunkSegment const across = list->get_range_at_cursor_as_segment(cursor, 9);
  EXPECT_EQ(std::string(across.data(), across.size()), "cdefghijk");
  EXPECT_TRUE(cursor.position == 11 && across.chunk()->is_unique());
  // Readers keep their list alive and stay inside their range.
  LinearReader reader = list->sublist(0)->reader(3, 12);  // "defghijklmno"
  EXPECT_EQ(reader.skip(1), 1U);
  char const* p = reader.contiguous(&avail);
  EXPECT_EQ(std::string(p, avail), "efghij");
  reader.seek(5);
  EXPECT_TRUE(reader.start() == 3 && reader.peek() == 'i');
  std::string pieces;
  for (SegmentReadIterator it = reader.segments(); !it.at_end(); it.next())
    pieces += std::string(it.data(), it.size()) + "|";
  EXPECT_EQ(pieces, "ij|k|lmno|");
  EXPECT_EQ(reader.skip(100), 7U);
  EXPECT_TRUE(reader.is_eof() && reader.peek() == -1 && !reader.contiguous(&avail));
}

std::string address(void const* p) {
  std::ostringstream os;
  os << "0x" << std::hex << std::setw(16) << std::setfill('0')
     << reinterpret_cast<std::uintptr_t>(p);
  return os.str();
}

TEST(MemoryListTest, TracePrintsHeaderSegmentsAndDumpsByLevel) {
  MemoryChunkPtr const text = create_memory_chunk(1);
  std::memcpy(text->data(), "Hello, world!", 13);
  MemoryChunkPtr const binary = create_memory_chunk(1);
  for (int i = 0; i < 20; ++i)
    binary->data()[i] = static_cast<char>(i);
  MemoryListPtr const list = MemoryList::create();
  list->append(text, 7, 5);
  list->append(binary, 0, 20);
  list->write_seek(3);
  for (int level : {-1, 0, 1, 2, 3}) {
    std::ostringstream os;
    os << std::hex;  // the stream's formatting must not change the numbers
    list->write_trace(os, level);
    std::string expected = "\nTotalSize:  25\nWritePos:   3\nSegments:   2";
    if (level == 1 || level == 2) {
      expected += "\n[0] - pos=0, size=5, first=7, data=" + address(text->data() + 7) +
                  ", (Chunk: this=" + address(text.get()) + ", size=1024)";
      if (level == 2) expected += "\n  00000000  77 6f 72 6c 64" + std::string(36, ' ') + "|world|";
      expected += "\n[1] - pos=5, size=20, first=0, data=" + address(binary->data()) +
                  ", (Chunk: this=" + address(binary.get()) + ", size=1024)";
      if (level == 2) {
        expected +=
            "\n  00000005  00 01 02 03 04 05 06 07  08 09 0a 0b 0c 0d 0e 0f  |................|"
            "\n  00000015  10 11 12 13" +
            std::string(39, ' ') + "|....|";
      }
    }
    EXPECT_EQ(os.str(), expected) << "level " << level;
  }
}

TEST(MemoryListPoolTest, AtMost128ListsOfAtMost64SegmentsComeBackEmptyLastInFirstOut) {
  MemoryChunkPtr const chunk = create_memory_chunk(1);
  MemoryListPtr list = MemoryList::create_with_factory(&small_chunk_factory);
  list->append(chunk, 0, 100);
  MemoryListPtr const copy = list->shallow_clone();
  MemoryListBaseType const* address = list.get();
  list = nullptr;
  EXPECT_TRUE(Peer::is_pooled(address));
  EXPECT_EQ(chunk->ref_count(), 2U);  // a pooled list holds no chunks: only `copy` does
  list = MemoryList::create();
  EXPECT_EQ(list.get(), address);
  EXPECT_TRUE(list->empty() && list->segment_count() == 0 && list->get_write_position() == 0);
  EXPECT_EQ(list->chunk_factory(), &create_memory_chunk);
  EXPECT_EQ(MemoryList::create_with_factory(nullptr)->chunk_factory(), &create_memory_chunk);
  list = nullptr;
  std::vector<MemoryListPtr> lists(130);
  for (MemoryListPtr& each : lists)
    each = MemoryList::create();
  EXPECT_EQ(Peer::pooled(), 0U);
  unsigned const cases[][2] = {{1, 16}, {17, 32}, {64, 64}, {65, 128}};  // segments, capacity
  for (auto const& [segments, capacity] : cases) {
    list = std::move(lists.back());
    lists.pop_back();
    for (unsigned i = 0; i < segments; ++i)
      list->append(chunk, i, 1);
    EXPECT_EQ(Peer::segment_capacity(*list), capacity);
    address = list.get();
    list = nullptr;
    EXPECT_EQ(Peer::is_pooled(address), capacity <= 64) << segments;
  }
  EXPECT_EQ(Peer::pooled(), 3U);
  lists.clear();
  EXPECT_EQ(Peer::pooled(), 128U);
}

// ---- Model-based test: random operations on lists sharing chunks, checked against strings

struct Model {
  MemoryListPtr list;
  std::string bytes;
  unsigned write_position = 0;
};

unsigned size_of(std::string const& s) {
  return static_cast<unsigned>(s.size());
}

class ModelRun {
 public:
  ModelRun(MemoryChunkFactory factory, unsigned seed) : factory_(factory), rng_(seed) {
    for (Model& m : models_)
      m.list = MemoryList::create_with_factory(factory_);
  }

  void run(unsigned steps, unsigned max_size) {
    for (unsigned step = 0; step < steps && !::testing::Test::HasFailure(); ++step) {
      char const* const what = apply_random_operation(max_size);
      SCOPED_TRACE(::testing::Message() << "step " << step << " after " << what);
      for (Model const& m : models_) {
        ASSERT_TRUE(m.list->validate_size() && m.list->chunk_factory() == factory_);
        ASSERT_EQ(m.list->get_write_position(), m.write_position);
        ASSERT_TRUE(bytes_of(*m.list) == m.bytes);
        for (auto const& s : *m.list)
          ASSERT_TRUE(!s.empty() && s.last() <= s.chunk()->size());
      }
      for (auto const& [chunk, bytes] : loose_)
        ASSERT_EQ(std::string(chunk->data(), bytes.size()), bytes);
    }
  }

 private:
  unsigned pick(unsigned n) { return static_cast<unsigned>(rng_() % n); }
  unsigned length() {
    unsigned const limits[] = {kToEnd, 4, 40, 400, 3000};
    unsigned const limit = limits[pick(5)];
    return limit == kToEnd ? kToEnd : pick(limit);
  }
  std::string random_bytes(unsigned n) {
    std::string out(n, '\0');
    for (char& c : out)
      c = static_cast<char>(rng_());
    return out;
  }
  static std::string clipped(std::string const& bytes, unsigned pos, unsigned length) {
    return pos >= bytes.size() ? std::string() : bytes.substr(pos, length);
  }
  static void write(Model& m, std::string const& data) {
    m.bytes.replace(m.write_position, data.size(), data);
    m.write_position += size_of(data);
  }
  static void append(Model& m, std::string const& data) {
    m.bytes += data;
    m.write_position = size_of(m.bytes);
  }
  static void erase_front(Model& m, unsigned n) {
    m.list->erase_front(n);
    m.bytes.erase(0, n);
    m.write_position = m.write_position > n ? m.write_position - n : 0;
  }

  char const* apply_random_operation(unsigned max_size) {
    Model& h = models_[pick(kModels)];
    Model& src = models_[pick(kModels)];  // may be h itself
    if (size_of(h.bytes) > max_size) {
      erase_front(h, size_of(h.bytes) - max_size / 2);
      return "erase_front(bound)";
    }
    unsigned const pos = pick(size_of(src.bytes) + 4);
    unsigned const len = length();
    std::string data = clipped(src.bytes, pos, len);
    unsigned const at = pick(size_of(h.bytes) + 4);
    unsigned n = pick(4);
    switch (pick(17)) {
      case 0:
        data = random_bytes(length() % 5000);
        n % 2 ? h.list->append(data.data(), size_of(data))
              : h.list->write(data.data(), size_of(data));
        n % 2 ? append(h, data) : write(h, data);
        return "append/write";
      case 1:
        h.write_position = std::min(at, size_of(h.bytes));
        EXPECT_EQ(h.list->write_seek(at), h.write_position);
        return "write_seek";
      case 2:
        erase_front(h, pick(size_of(h.bytes) + 5));
        return "erase_front";
      case 3:  // bytes a list exposes by growing are unspecified: the model takes them over
        h.list->resize(size_of(h.bytes) + pick(700));
        h.bytes += bytes_of(*h.list).substr(h.bytes.size());
        return "resize(grow)";
      case 4:
        h.bytes.resize(pick(size_of(h.bytes) + 1));
        n % 2 ? h.list->resize(size_of(h.bytes))
              : h.list->resize_to_chunk_boundary(size_of(h.bytes));
        h.write_position = std::min(h.write_position, size_of(h.bytes));
        return "resize(shrink)";
      case 5:
        n = h.list->remaining_space_last_chunk();
        h.list->resize_to_chunk_boundary(kToEnd);
        EXPECT_TRUE(h.list->size() >= size_of(h.bytes) + n &&
                    h.list->remaining_space_last_chunk() == 0);
        h.bytes += bytes_of(*h.list).substr(h.bytes.size());
        return "resize_to_chunk_boundary";
      case 6:
        h = {n % 2 ? src.list->sublist(pos, len) : src.list->sublist(src.list->cursor_at(pos), len),
             data, size_of(data)};
        return "sublist";
      case 7:
        h = {src.list->shallow_clone(), src.bytes, src.write_position};
        return "shallow_clone";
      case 8:
        h = {src.list->deep_clone(pos, len), data, size_of(data)};
        for (auto const& segment : *h.list)
          EXPECT_TRUE(segment.chunk()->is_unique());
        return "deep_clone";
      case 9:
        n == 0   ? h.list->append_list(*src.list, pos, len)
        : n == 1 ? h.list->append(*src.list, src.list->cursor_at(pos), len)
        : n == 2 ? h.list->append_defragmented(*src.list, pos, len)
                 : h.list->append_list_defragmented(*src.list, src.list->cursor_at(pos), len);
        append(h, data);
        return "append_list";
      case 10:
        data = src.bytes;
        n % 2 ? h.list->append(*src.list) : h.list->append_defragmented(*src.list);
        append(h, data);
        return "append(whole list)";
      case 11:
        n == 0 ? h.list->write_defragmented(src.list.get(), pos, len)
        : n == 1
            ? h.list->write_list_defragmented(*src.list, src.list->cursor_at(pos), len)
            : h.list->write_defragmented(static_cast<MemoryListBaseType const*>(nullptr), pos, len);
        write(h, n > 1 ? "" : data);
        return "write_defragmented";
      case 12: {
        char* const p = h.list->get_append_write_ptr(&n, pick(5000));
        EXPECT_TRUE(n > 0 && (h.list->end() - 1)->chunk()->is_unique());
        data = random_bytes(pick(std::min(n, 600U) + 1));
        std::copy(data.begin(), data.end(), p);
        h.list->commit_append_write(size_of(data));
        append(h, data);
        return "append_window";
      }
      case 13:
        n % 2 ? h.list->clear() : h.list->resize(0);
        h = {n / 2 ? h.list : MemoryList::create_with_factory(factory_), {}, 0};
        return "clear";
      case 14:
        data = random_bytes(pick(60));
        n = at >= size_of(h.bytes) ? 0 : std::min(size_of(data), size_of(h.bytes) - at);
        EXPECT_EQ(h.list->overwrite_at(at, data.data(), size_of(data)), n);
        h.bytes.replace(std::min(at, size_of(h.bytes)), n, data.substr(0, n));
        return "overwrite_at";
      case 15: {
        // A chunk also held outside any list, appended to one: no write may reach it.
        auto& [chunk, bytes] = loose_.emplace_back(create_memory_chunk(pick(3000)), "");
        bytes = random_bytes(chunk->size());
        std::memcpy(chunk->data(), bytes.data(), bytes.size());
        n = pick(chunk->size() + 2);
        h.list->append(chunk, n, len);
        h.list->append(MemoryChunkPtr(), 0, len);  // adds nothing
        append(h, clipped(bytes, n, len));
        if (loose_.size() > 6) loose_.erase(loose_.begin() + pick(7));
        return "append(chunk)";
      }
      default:
        h.list->copy_from(*src.list);
        h = {h.list, src.bytes, src.write_position};
        return "copy_from";
    }
  }

  static constexpr unsigned kModels = 5;
  MemoryChunkFactory factory_;
  std::mt19937 rng_;
  Model models_[kModels];
  std::vector<std::pair<MemoryChunkPtr, std::string>> loose_;
};

TEST(MemoryListModelTest, RandomOperationsOnListsSharingChunks) {
  ModelRun(&create_memory_chunk, 20240601).run(20000, 40000);
  ModelRun(&small_chunk_factory, 77).run(10000, 6000);
}

// Constructed before main, so before the pools (built on first use), hence destroyed after them.
struct LateRelease {
  MemoryListPtr list;
  MemoryChunkPtr chunk;
  ~LateRelease() {
    if (list) std::fputs("released after the pools\n", stderr);
  }
} g_late_release;

TEST(MemoryListDeathTest, ListsAndChunksReleasedAfterThePoolsAreDeleted) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        g_late_release.list = list_of(pattern_string(0, 5000));
        g_late_release.chunk = create_memory_chunk(20000);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "released after the pools");
}

// Lists travel between threads through a shared queue, so list objects and chunks are released,
// pooled and taken again on every thread. A holder writes only into a list object nobody else
// holds (cloning it first), and chunks are copied on write: every holder keeps its bytes.
TEST(MemoryThreadsTest, ListsAndChunksSharedBetweenThreadsStayIntact) {
  std::mutex mutex;
  std::vector<Model> queue;
  std::atomic<int> failures{0};
  auto worker = [&](unsigned seed) {
    std::mt19937 rng(seed);
    auto pick = [&](std::size_t n) { return static_cast<unsigned>(rng() % n); };
    std::vector<Model> mine = {{list_of("seed"), "seed"}};
    for (int step = 0; step < 6000; ++step) {
      std::string const data = pattern_string(rng(), pick(5000));
      Model& m = mine[pick(mine.size())];
      unsigned const pos = pick(m.bytes.size() + 1);
      if (bytes_of(*m.list) != m.bytes || !m.list->validate_size()) ++failures;
      switch (pick(5)) {
        case 0: {  // publish a list this thread keeps holding too, or take one
          std::lock_guard<std::mutex> lock(mutex);
          pick(2) || queue.empty() ? queue.push_back(m) : mine.push_back(queue.front());
          queue.erase(queue.begin(), queue.begin() + (queue.size() > 32 || pick(2)));
          break;
        }
        case 1:
          if (!m.list->is_unique()) m.list = m.list->shallow_clone();
          m.list->write_seek(pos);
          m.list->write(data.data(), size_of(data));
          m.bytes.replace(pos, data.size(), data);
          break;
        case 2:
          mine.push_back({pick(2) ? m.list->sublist(pos, 4000) : m.list->deep_clone(pos, 4000),
                          m.bytes.substr(pos, 4000)});
          break;
        case 3:
          mine.push_back({list_of(data), data});
          break;
        default:
          if (mine.size() > 1) mine.erase(mine.begin() + pick(mine.size()));
      }
      if (mine.size() > 12) mine.erase(mine.begin());
    }
  };
  std::vector<std::thread> threads;
  for (unsigned seed = 1; seed <= 4; ++seed)
    threads.emplace_back(worker, seed);
  for (std::thread& t : threads)
    t.join();
  EXPECT_EQ(failures, 0);
}

}  // namespace
}  // namespace zoserialize
