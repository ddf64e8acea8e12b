// Memory lists for tests: bytes cut into segments at chosen places, lists whose chunk factory
// hands out tiny chunks, and the byte contents of a list.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <zoserialize/memory_list.h>

namespace zotest {

// Every byte of `list`, in order.
std::string bytes_of(zoserialize::MemoryListBaseType const& list);

// A list holding `data` cut into pieces of the given sizes (the last size repeats until the data
// is used up; a size of 0 counts as 1). Each piece lives in a heap chunk of its own of exactly its
// size, so no segment has room behind it and every piece boundary is a segment boundary.
zoserialize::MemoryListPtr list_in_pieces(std::string_view data,
                                          std::vector<std::size_t> const& sizes);
// `data` as two segments, [0, cut) and [cut, size); a cut at 0 or at the end gives one segment.
zoserialize::MemoryListPtr list_cut_at(std::string_view data, std::size_t cut);
// `data` appended to a fresh MemoryList: segments as the pooled chunks make them.
zoserialize::MemoryListPtr list_of(std::string_view data);

// An empty list whose chunk factory hands out heap chunks of exactly `chunk_size` bytes, whatever
// the request (chunk_size one of 1, 2, 3, 7, 64). Lists derived from it (clones, sublists) keep
// the factory, so whatever is appended to them spreads over chunks of that size.
zoserialize::MemoryListPtr tiny_chunk_list(unsigned chunk_size);

// A way to lay out bytes as a list, for running reader tests over every kind of seam.
struct ListLayout {
  std::string name;
  std::function<zoserialize::MemoryListPtr(std::string_view)> make;
};
// One segment; pieces of 1, 2, 3 and 7 bytes; 1-byte and 3-byte chunks with room behind the
// last segment; irregular pieces (1, 4, 2, 9, 1, 100, 3, ...).
std::vector<ListLayout> const& list_layouts();
// The layouts that stay affordable for payloads of hundreds of kilobytes.
std::vector<ListLayout> const& large_list_layouts();

}  // namespace zotest
