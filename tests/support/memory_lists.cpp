#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <support/memory_lists.h>
#include <zoserialize/memory_chunk.h>

namespace zotest {

using zoserialize::MemoryChunkFactory;
using zoserialize::MemoryChunkPtr;
using zoserialize::MemoryList;
using zoserialize::MemoryListPtr;

namespace {

template <unsigned N>
MemoryChunkPtr heap_chunk_of(unsigned /*request*/) {
  return zoserialize::impl::create_heap_memory_chunk(N);
}

MemoryChunkFactory tiny_factory(unsigned chunk_size) {
  switch (chunk_size) {
    case 1:
      return &heap_chunk_of<1>;
    case 2:
      return &heap_chunk_of<2>;
    case 3:
      return &heap_chunk_of<3>;
    case 7:
      return &heap_chunk_of<7>;
    case 64:
      return &heap_chunk_of<64>;
    default:
      std::abort();  // a broken test, not a test failure
  }
}

MemoryListPtr appended_to(MemoryListPtr list, std::string_view data) {
  list->append(data.data(), static_cast<unsigned>(data.size()));
  return list;
}

}  // namespace

std::string bytes_of(zoserialize::MemoryListBaseType const& list) {
  std::string out(list.size(), '\0');
  unsigned const n = list.read_at(0, out.data(), list.size());
  out.resize(n);
  return out;
}

MemoryListPtr list_in_pieces(std::string_view data, std::vector<std::size_t> const& sizes) {
  MemoryListPtr list = MemoryList::create();
  std::size_t at = 0;
  std::size_t index = 0;
  while (at < data.size()) {
    std::size_t const want = std::max<std::size_t>(sizes.empty() ? 1 : sizes[index], 1);
    if (index + 1 < sizes.size()) ++index;
    auto const n = static_cast<unsigned>(std::min(want, data.size() - at));
    MemoryChunkPtr chunk = zoserialize::impl::create_heap_memory_chunk(n);
    std::memcpy(chunk->data(), data.data() + at, n);
    list->append(chunk, 0, n);
    at += n;
  }
  return list;
}

MemoryListPtr list_cut_at(std::string_view data, std::size_t cut) {
  if (cut == 0 || cut >= data.size()) return list_in_pieces(data, {data.size()});
  return list_in_pieces(data, {cut, data.size() - cut});
}

MemoryListPtr list_of(std::string_view data) {
  return appended_to(MemoryList::create(), data);
}

MemoryListPtr tiny_chunk_list(unsigned chunk_size) {
  return MemoryList::create_with_factory(tiny_factory(chunk_size));
}

std::vector<ListLayout> const& list_layouts() {
  static std::vector<ListLayout> const layouts = [] {
    std::vector<ListLayout> out = large_list_layouts();
    for (std::size_t piece : {1u, 2u, 3u, 7u}) {
      out.push_back({"Pieces" + std::to_string(piece),
                     [piece](std::string_view d) { return list_in_pieces(d, {piece}); }});
    }
    out.push_back(
        {"Chunks1", [](std::string_view d) { return appended_to(tiny_chunk_list(1), d); }});
    out.push_back(
        {"Chunks3", [](std::string_view d) { return appended_to(tiny_chunk_list(3), d); }});
    return out;
  }();
  return layouts;
}

std::vector<ListLayout> const& large_list_layouts() {
  static std::vector<ListLayout> const layouts = {
      {"OneSegment", [](std::string_view d) { return list_in_pieces(d, {d.size()}); }},
      {"Pooled", [](std::string_view d) { return list_of(d); }},
      {"Irregular",
       [](std::string_view d) {
         return list_in_pieces(d, {1, 4, 2, 9, 1, 100, 3, 4093, 5, 65536});
       }},
      {"Chunks64", [](std::string_view d) { return appended_to(tiny_chunk_list(64), d); }},
  };
  return layouts;
}

}  // namespace zotest
