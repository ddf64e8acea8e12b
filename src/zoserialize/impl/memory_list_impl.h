// The out-of-line members of MemoryListBase: representation, not contract. Only memory_list.cpp
// includes this header, to instantiate the template once for MemoryList.
#pragma once

#include <algorithm>
#include <cstring>
#include <ostream>

#include <zoserialize/memory_list.h>

namespace zoserialize {

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::copy_from(MemoryListBase const& other) {
  if (&other == this) return;
  segments_.clear();
  size_ = 0;
  write_ = {};
  segments_.append(other.segments_.begin(), other.segments_.end());
  size_ = other.size_;
  factory_ = other.factory_;
  write_seek(other.write_.position);
}

template <class S, class F, class C, class A>
auto MemoryListBase<S, F, C, A>::sublist(Cursor const& cursor, unsigned length) const -> Ptr {
  Ptr list = create_empty();
  list->append_list(*this, cursor, length);
  return list;
}

template <class S, class F, class C, class A>
auto MemoryListBase<S, F, C, A>::sublist(unsigned pos, unsigned length) const -> Ptr {
  return sublist(cursor_at(pos), length);
}

template <class S, class F, class C, class A>
auto MemoryListBase<S, F, C, A>::shallow_clone() const -> Ptr {
  Ptr list = create_empty();
  list->copy_from(*this);
  return list;
}

template <class S, class F, class C, class A>
auto MemoryListBase<S, F, C, A>::deep_clone(unsigned pos, unsigned length) const -> Ptr {
  Ptr list = create_empty();
  list->append_defragmented(*this, pos, length);
  return list;
}

template <class S, class F, class C, class A>
unsigned MemoryListBase<S, F, C, A>::calculate_size() const noexcept {
  unsigned total = 0;
  for (S const& segment : segments_)
    total += segment.size();
  return total;
}

template <class S, class F, class C, class A>
auto MemoryListBase<S, F, C, A>::new_chunk(unsigned request) const -> ChunkPtr {
  ChunkPtr chunk = factory_(request);
  if (!chunk || chunk->size() == 0) impl::throw_memory_list_chunk_error();
  return chunk;
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::append(value_type const* p, unsigned n) {
  if (n != 0) {
    check_growth(n);
    if (!segments_.empty()) {
      unsigned const taken = segments_.back().append(p, n);
      size_ += taken;
      p += taken;
      n -= taken;
    }
    while (n != 0) {
      ChunkPtr chunk = new_chunk(std::max(n, size_));
      unsigned const m = std::min(n, chunk->size());
      std::memcpy(chunk->data(), p, m);
      drop_empty_tail();
      segments_.push_back(S(std::move(chunk), 0, m));
      size_ += m;
      p += m;
      n -= m;
    }
  }
  write_cursor_to_end();
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::append(ChunkPtr const& chunk, unsigned offset, unsigned length) {
  if (chunk && offset < chunk->size()) {
    unsigned const n = std::min(length, chunk->size() - offset);
    if (n != 0) {
      check_growth(n);
      drop_empty_tail();
      segments_.push_back(S(chunk, offset, n));
      size_ += n;
    }
  }
  write_cursor_to_end();
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::append(S const& segment) {
  if (!segment.empty()) {
    check_growth(segment.size());
    drop_empty_tail();
    segments_.push_back(segment);
    size_ += segment.size();
  }
  write_cursor_to_end();
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::append_list(MemoryListBase const& list) {
  append_list(list, list.begin_cursor(), npos);
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::append_list(MemoryListBase const& list, unsigned pos,
                                             unsigned length) {
  append_list(list, list.cursor_at(pos), length);
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::append_list(MemoryListBase const& list, Cursor const& cursor,
                                             unsigned length) {
  unsigned const n = std::min(length, list.size_ - cursor.position);
  if (n != 0) {
    if (&list == this) {
      // The segment array grows while it is read; take the range as a list of its own first.
      Ptr const part = sublist(cursor, n);
      append_segments(part->begin_cursor(), n);
    } else {
      append_segments(cursor, n);
    }
  }
  write_cursor_to_end();
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::append_segments(Cursor const& cursor, unsigned n) {
  check_growth(n);
  drop_empty_tail();
  const_iterator segment = cursor.segment;
  unsigned offset = cursor.offset;
  while (n != 0) {
    unsigned const take = std::min(n, segment->size() - offset);
    if (take != 0) {
      segments_.push_back(S(*segment, offset, take));
      size_ += take;
      n -= take;
    }
    ++segment;
    offset = 0;
  }
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::append_defragmented(MemoryListBase const& list, unsigned pos,
                                                     unsigned length) {
  append_list_defragmented(list, list.cursor_at(pos), length);
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::append_list_defragmented(MemoryListBase const& list,
                                                          Cursor const& cursor, unsigned length) {
  unsigned const n = std::min(length, list.size_ - cursor.position);
  if (n != 0) {
    if (&list == this) {
      Ptr const part = sublist(cursor, n);
      append_copy(*part, part->begin_cursor(), n);
    } else {
      append_copy(list, cursor, n);
    }
  }
  write_cursor_to_end();
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::append_copy(MemoryListBase const& list, Cursor cursor,
                                             unsigned n) {
  check_growth(n);
  while (n != 0) {
    unsigned room = 0;
    value_type* const out = get_append_write_ptr(&room, n);
    unsigned const copied = list.read_at_cursor(cursor, out, std::min(room, n));
    commit_append_write(copied);
    n -= copied;
  }
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::push_back_slow(value_type c) {
  append(&c, 1);
}

template <class S, class F, class C, class A>
auto MemoryListBase<S, F, C, A>::get_append_write_ptr_slow(unsigned* avail, unsigned min_request)
    -> value_type* {
  check_growth(1);
  unsigned room = 0;
  value_type* p = nullptr;
  if (!segments_.empty() && segments_.back().space_remaining() != 0) {
    p = segments_.back().get_append_write_ptr(&room);
  }
  if (room == 0) {
    ChunkPtr chunk = new_chunk(std::max(min_request, size_));
    drop_empty_tail();
    segments_.push_back(S(std::move(chunk), 0, 0));
    p = segments_.back().get_append_write_ptr(&room);
  }
  *avail = std::min(room, kMaxSize - size_);
  return p;
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::write(value_type const* p, unsigned n) {
  if (n == 0) return;
  unsigned index = write_.index;
  unsigned offset = write_.offset;
  unsigned position = write_.position;
  while (n != 0 && position < size_ && index < segments_.size()) {
    S& segment = segments_[index];
    if (offset < segment.size()) {
      unsigned const m = std::min(n, segment.size() - offset);
      std::memcpy(segment.get_inplace_write_ptr(offset), p, m);
      p += m;
      n -= m;
      position += m;
      offset += m;
    }
    if (offset >= segment.size()) {
      ++index;
      offset = 0;
    }
  }
  write_ = {index, offset, position};
  if (n != 0) append(p, n);
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::write_defragmented(MemoryListBase const& src, unsigned pos,
                                                    unsigned length) {
  write_list_defragmented(src, src.cursor_at(pos), length);
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::write_list_defragmented(MemoryListBase const& src,
                                                         Cursor const& cursor, unsigned length) {
  unsigned n = std::min(length, src.size_ - cursor.position);
  if (n == 0) return;
  if (&src == this) {
    // Writing changes the bytes being read; read from a snapshot that shares the chunks (the
    // writes then copy them).
    Ptr const part = sublist(cursor, n);
    write_list_defragmented(*part, part->begin_cursor(), n);
    return;
  }
  Cursor from = cursor;
  while (n != 0) {
    if (write_.position == size_) {
      append_list_defragmented(src, from, n);
      return;
    }
    unsigned avail = 0;
    value_type const* piece = src.readable_at_cursor(from, &avail);
    unsigned const m = std::min({avail, n, size_ - write_.position});
    write(piece, m);
    src.cursor_advance(from, m);
    n -= m;
  }
}

template <class S, class F, class C, class A>
unsigned MemoryListBase<S, F, C, A>::write_seek(unsigned pos) {
  if (pos >= size_) {
    write_cursor_to_end();
    return size_;
  }
  unsigned offset = 0;
  const_iterator const segment = calculate_segment_offset(pos, &offset);
  write_ = {static_cast<std::uint32_t>(segment - segments_.begin()), offset, pos};
  return pos;
}

template <class S, class F, class C, class A>
unsigned MemoryListBase<S, F, C, A>::overwrite_at(unsigned pos, value_type const* p, unsigned n) {
  if (pos >= size_) return 0;
  n = std::min(n, size_ - pos);
  unsigned offset = 0;
  iterator segment = mutable_iterator(calculate_segment_offset(pos, &offset));
  unsigned left = n;
  while (left != 0) {
    unsigned const m = segment->overwrite(offset, p, left);
    p += m;
    left -= m;
    ++segment;
    offset = 0;
  }
  return n;
}

template <class S, class F, class C, class A>
auto MemoryListBase<S, F, C, A>::writable_ptr_at(unsigned pos, unsigned* avail) -> value_type* {
  unsigned offset = 0;
  const_iterator const segment = calculate_segment_offset(pos, &offset);
  if (segment == segments_.end()) {
    *avail = 0;
    return nullptr;
  }
  *avail = segment->size() - offset;
  return mutable_iterator(segment)->get_inplace_write_ptr(offset);
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::erase_front(unsigned n) {
  if (n == 0) return;
  if (n >= size_) {
    clear();
    return;
  }
  unsigned const old_position = write_.position;
  unsigned offset = 0;
  iterator const segment = mutable_iterator(calculate_segment_offset(n, &offset));
  *segment = segment->subsegment(offset, npos);
  segments_.erase(segments_.begin(), segment);
  size_ -= n;
  write_seek(old_position >= n ? old_position - n : 0);
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::resize(unsigned size) {
  if (size > size_) {
    check_growth(size - size_);
    unsigned const old_position = write_.position;
    unsigned missing = size - size_;
    if (!segments_.empty() && segments_.back().space_remaining() != 0) {
      // A shared last chunk is copied first: its room may be claimed by the other holders.
      S& last = segments_.back();
      unsigned room = 0;
      value_type* const exposed = last.get_append_write_ptr(&room);
      unsigned const m = std::min(room, missing);
      std::memset(exposed, 0, m);
      last.commit_append_write(m);
      size_ += m;
      missing -= m;
    }
    while (missing != 0) {
      ChunkPtr chunk = new_chunk(missing);
      unsigned const m = std::min(missing, chunk->size());
      std::memset(chunk->data(), 0, m);
      drop_empty_tail();
      segments_.push_back(S(std::move(chunk), 0, m));
      size_ += m;
      missing -= m;
    }
    write_seek(old_position);
  } else if (size == 0) {
    clear();
  } else if (size < size_) {
    unsigned const old_position = write_.position;
    unsigned offset = 0;
    iterator segment = mutable_iterator(calculate_segment_offset(size, &offset));
    if (offset != 0) {
      segment->size(offset);
      ++segment;
    }
    segments_.erase(segment, segments_.end());
    size_ = size;
    if (old_position >= size) write_cursor_to_end();
  }
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::resize_to_chunk_boundary(unsigned size) {
  if (size != npos) {
    resize(size);
    return;
  }
  if (segments_.empty() || segments_.back().space_remaining() == 0) return;
  unsigned const old_position = write_.position;
  S& last = segments_.back();
  unsigned room = 0;
  value_type* const exposed = last.get_append_write_ptr(&room);
  room = std::min(room, kMaxSize - size_);
  std::memset(exposed, 0, room);
  last.commit_append_write(room);
  size_ += room;
  write_seek(old_position);
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::clear() noexcept {
  segments_.clear();
  size_ = 0;
  write_ = {};
}

template <class S, class F, class C, class A>
unsigned MemoryListBase<S, F, C, A>::read_at(unsigned pos, value_type* out, unsigned n) const {
  Cursor cursor = cursor_at(pos);
  return read_at_cursor(cursor, out, n);
}

template <class S, class F, class C, class A>
auto MemoryListBase<S, F, C, A>::element_at(unsigned pos) const -> value_type {
  if (pos >= size_) impl::throw_memory_list_range_error();
  unsigned offset = 0;
  const_iterator const segment = calculate_segment_offset(pos, &offset);
  return segment->data()[offset];
}

template <class S, class F, class C, class A>
auto MemoryListBase<S, F, C, A>::readable_ptr_at(unsigned pos, unsigned* avail) const
    -> value_type const* {
  return readable_at_cursor(cursor_at(pos), avail);
}

template <class S, class F, class C, class A>
S MemoryListBase<S, F, C, A>::get_range_as_segment(unsigned pos, unsigned length) const {
  Cursor cursor = cursor_at(pos);
  return get_range_at_cursor_as_segment(cursor, length);
}

template <class S, class F, class C, class A>
S MemoryListBase<S, F, C, A>::get_range_at_cursor_as_segment(Cursor& cursor,
                                                             unsigned length) const {
  unsigned const n = std::min(length, size_ - cursor.position);
  if (n == 0) return {};
  if (cursor.segment->size() - cursor.offset >= n) {
    S shared(*cursor.segment, cursor.offset, n);
    cursor_advance(cursor, n);
    return shared;
  }
  ChunkPtr chunk = new_chunk(n);
  // The factory's chunks may be smaller than the range; a contiguous copy must still fit.
  if (chunk->size() < n) chunk = impl::create_heap_memory_chunk(n);
  read_at_cursor(cursor, chunk->data(), n);
  return S(std::move(chunk), 0, n);
}

template <class S, class F, class C, class A>
auto MemoryListBase<S, F, C, A>::calculate_segment_offset(unsigned pos,
                                                          unsigned* offset) const noexcept
    -> const_iterator {
  *offset = 0;
  if (pos >= size_) return segments_.end();
  if (pos < size_ / 2) {
    for (const_iterator it = segments_.begin();; ++it) {
      if (pos < it->size()) {
        *offset = pos;
        return it;
      }
      pos -= it->size();
    }
  }
  // Positions in the back half are found from the end.
  unsigned start = size_;
  for (const_iterator it = segments_.end(); it != segments_.begin();) {
    --it;
    start -= it->size();
    if (pos >= start && it->size() != 0) {
      *offset = pos - start;
      return it;
    }
  }
  return segments_.end();  // unreachable while the size is consistent
}

template <class S, class F, class C, class A>
unsigned MemoryListBase<S, F, C, A>::calculate_position(const_iterator segment,
                                                        unsigned offset) const noexcept {
  if (segment == segments_.end()) return size_;
  unsigned position = 0;
  for (const_iterator it = segments_.begin(); it != segment; ++it)
    position += it->size();
  return position + offset;
}

template <class S, class F, class C, class A>
bool MemoryListBase<S, F, C, A>::is_valid_cursor(Cursor const& cursor) const noexcept {
  if (cursor.segment == segments_.end()) return cursor.offset == 0 && cursor.position == size_;
  // std::less: the cursor may point into another list's array.
  std::less<const_iterator> const before;
  if (before(cursor.segment, segments_.begin()) || !before(cursor.segment, segments_.end())) {
    return false;
  }
  if (cursor.offset >= cursor.segment->size()) return false;
  return calculate_position(cursor.segment, cursor.offset) == cursor.position;
}

template <class S, class F, class C, class A>
unsigned MemoryListBase<S, F, C, A>::read_at_cursor(Cursor& cursor, value_type* out,
                                                    unsigned n) const noexcept {
  return walk_cursor(cursor, out, n);
}

template <class S, class F, class C, class A>
unsigned MemoryListBase<S, F, C, A>::cursor_advance(Cursor& cursor, unsigned n) const noexcept {
  return walk_cursor(cursor, nullptr, n);
}

template <class S, class F, class C, class A>
unsigned MemoryListBase<S, F, C, A>::walk_cursor(Cursor& cursor, value_type* out,
                                                 unsigned n) const noexcept {
  n = std::min(n, size_ - cursor.position);
  unsigned left = n;
  while (left != 0) {
    unsigned const m = std::min(left, cursor.segment->size() - cursor.offset);
    if (out) {
      cursor.segment->copy_to(cursor.offset, out, m);
      out += m;
    }
    left -= m;
    cursor.offset += m;
    if (cursor.offset >= cursor.segment->size()) {
      ++cursor.segment;
      cursor.offset = 0;
    }
  }
  cursor.position += n;
  skip_empty_segments(cursor);
  return n;
}

template <class S, class F, class C, class A>
void MemoryListBase<S, F, C, A>::write_trace(std::ostream& os, int level) const {
  impl::write_memory_list_trace_header(os, size_, write_.position, segments_.size());
  if (level != 1 && level != 2) return;
  unsigned position = 0;
  unsigned index = 0;
  for (S const& segment : segments_) {
    chunk_type const* const chunk = segment.chunk().get();
    impl::write_memory_list_trace_segment(os, index, position, segment.size(), segment.first(),
                                          segment.data(), chunk, chunk ? chunk->size() : 0,
                                          level == 2);
    position += segment.size();
    ++index;
  }
}

}  // namespace zoserialize
