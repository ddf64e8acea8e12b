// Memory lists for tests: bytes cut into segments at chosen places, lists of tiny chunks.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <zoserialize/memory_list.h>

namespace zotest {

std::string bytes_of(zoserialize::MemoryListBaseType const& list);
// The chunks of the list's segments, in order.
std::vector<void const*> chunks_of(zoserialize::MemoryListBaseType const& list);

// `data` in heap chunks of exactly the given sizes (the last size repeats; 0 counts as 1): every
// piece boundary is a segment boundary with no room behind.
zoserialize::MemoryListPtr list_in_pieces(std::string_view data,
                                          std::vector<std::size_t> const& sizes);
// `data` appended to `list` (null: a fresh MemoryList).
zoserialize::MemoryListPtr list_of(std::string_view data, zoserialize::MemoryListPtr list = {});
// An empty list whose factory makes heap chunks of `chunk_size` (1, 3, 7 or 64) bytes, whatever the
// request.
zoserialize::MemoryListPtr tiny_chunk_list(unsigned chunk_size);

// Layouts putting seams everywhere: one segment, pooled chunks, irregular pieces, 64-byte chunks;
// unless `large` (hundreds of kilobytes), also 1- and 3-byte chunks and tiny pieces.
struct ListLayout {
  std::string name;
  std::function<zoserialize::MemoryListPtr(std::string_view)> make;
};
std::vector<ListLayout> const& list_layouts(bool large = false);

}  // namespace zotest
