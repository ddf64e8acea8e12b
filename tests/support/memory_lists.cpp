#include <algorithm>
#include <cstring>

#include <support/memory_lists.h>
#include <zoserialize/memory_chunk.h>

namespace zotest {

using zoserialize::MemoryList;
using zoserialize::MemoryListPtr;

std::string bytes_of(zoserialize::MemoryListBaseType const& list) {
  std::string out(list.size(), '\0');
  out.resize(list.read_at(0, out.data(), list.size()));
  return out;
}

std::vector<void const*> chunks_of(zoserialize::MemoryListBaseType const& list) {
  std::vector<void const*> out;
  for (auto const& segment : list)
    out.push_back(segment.chunk().get());
  return out;
}

MemoryListPtr list_in_pieces(std::string_view data, std::vector<std::size_t> const& sizes) {
  MemoryListPtr list = MemoryList::create();
  for (std::size_t at = 0, index = 0; at < data.size(); index += index + 1 < sizes.size()) {
    auto const n =
        static_cast<unsigned>(std::min(std::max<std::size_t>(sizes[index], 1), data.size() - at));
    auto chunk = zoserialize::impl::create_heap_memory_chunk(n);
    std::memcpy(chunk->data(), data.data() + at, n);
    list->append(chunk, 0, n);
    at += n;
  }
  return list;
}

MemoryListPtr list_of(std::string_view data, MemoryListPtr list) {
  if (!list) list = MemoryList::create();
  list->append(data.data(), static_cast<unsigned>(data.size()));
  return list;
}

template <unsigned N>
zoserialize::MemoryChunkPtr heap_chunk_of(unsigned /*request*/) {
  return zoserialize::impl::create_heap_memory_chunk(N);
}

MemoryListPtr tiny_chunk_list(unsigned chunk_size) {
  return MemoryList::create_with_factory(chunk_size == 1   ? &heap_chunk_of<1>
                                         : chunk_size == 3 ? &heap_chunk_of<3>
                                         : chunk_size == 7 ? &heap_chunk_of<7>
                                                           : &heap_chunk_of<64>);
}

std::vector<ListLayout> const& list_layouts(bool large) {
  static std::vector<ListLayout> const all = {
      {"OneSegment", [](std::string_view d) { return list_in_pieces(d, {d.size()}); }},
      {"Pooled", [](std::string_view d) { return list_of(d); }},
      {"Irregular",
       [](std::string_view d) {
         return list_in_pieces(d, {1, 4, 2, 9, 100, 4093, 65536});
       }},
      {"Chunks64", [](std::string_view d) { return list_of(d, tiny_chunk_list(64)); }},
      {"Chunks1", [](std::string_view d) { return list_of(d, tiny_chunk_list(1)); }},
      {"Chunks3", [](std::string_view d) { return list_of(d, tiny_chunk_list(3)); }},
      {"Pieces2", [](std::string_view d) { return list_in_pieces(d, {2}); }},
      {"Pieces7", [](std::string_view d) { return list_in_pieces(d, {7}); }},
  };
  static std::vector<ListLayout> const affordable(all.begin(), all.begin() + 4);
  return large ? affordable : all;
}

}  // namespace zotest
