#include <algorithm>

#include <zocore/error_composer.h>
#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/scope_stack.h>

namespace zoserialize::impl {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/impl/scope_stack.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

}  // namespace

ScopeStack::ScopeStack(ScopeStack const& other) {
  *this = other;
}

ScopeStack& ScopeStack::operator=(ScopeStack const& other) {
  if (this == &other) return *this;
  if (capacity_ < other.size_) {
    entries_ = std::make_unique<Entry[]>(other.size_);
    capacity_ = other.size_;
  }
  std::copy_n(other.entries_.get(), other.size_, entries_.get());
  size_ = other.size_;
  return *this;
}

void ScopeStack::grow() {
  unsigned const capacity = capacity_ == 0 ? 16 : capacity_ * 2;
  auto entries = std::make_unique<Entry[]>(capacity);
  std::copy_n(entries_.get(), size_, entries.get());
  entries_ = std::move(entries);
  capacity_ = capacity;
}

ScopeStack::Entry* ScopeStack::find_innermost(EKind kind) noexcept {
  for (unsigned i = size_; i-- > 0;) {
    if (entries_[i].kind == kind) return &entries_[i];
  }
  return nullptr;
}

ScopeStack::Entry ScopeStack::remove(Entry& e) noexcept {
  Entry const copy = e;
  Entry* const end = entries_.get() + size_;
  std::copy(&e + 1, end, &e);
  --size_;
  return copy;
}

unsigned ScopeStack::count(EKind kind) const noexcept {
  unsigned n = 0;
  for (unsigned i = 0; i < size_; ++i)
    n += entries_[i].kind == kind ? 1 : 0;
  return n;
}

void SequenceCounter::end(ScopeMessages const& m) {
  if (depth_ == 0) [[unlikely]]
    ScopeStack::throw_end_without_sequence(m);
  bool const complete = end_allowed();
  ScopeStack::Entry const closed = {ScopeStack::EKind::Sequence, 0, hint_,
                                    hint_ - static_cast<unsigned>(left_)};
  end_checked();
  if (!complete) [[unlikely]]
    ScopeStack::throw_count_mismatch(m, closed);
}

void SequenceCounter::refuse_separator(ScopeMessages const& m) const {
  if (depth_ == 0) ScopeStack::throw_separator_without_sequence(m);
  ScopeStack::throw_too_many_elements(m, hint_);
}

void ScopeStack::throw_separator_without_sequence(ScopeMessages const& m) {
  zocore::throw_error(error::zoserialize_writer_sequence_nesting, m.separator_without_sequence,
                      here(m.separator_function));
}

void ScopeStack::throw_end_without_sequence(ScopeMessages const& m) {
  zocore::throw_error(error::zoserialize_writer_sequence_nesting, m.end_without_sequence,
                      here(m.sequence_end_function));
}

void ScopeStack::throw_marker_end_without_marker(ScopeMessages const& m) {
  zocore::throw_error(*m.marker_end_code, m.marker_end_without_marker, here(m.marker_end_function));
}

void ScopeStack::throw_close_with_open_scopes(ScopeMessages const& m) {
  zocore::throw_error(error::zoserialize_writer_sequence_nesting, m.close_with_open_scopes,
                      here(m.close_function));
}

void ScopeStack::throw_too_many_elements(ScopeMessages const& m, unsigned count_hint) {
  zocore::ErrorComposer(
      "Attempt to add more sequence elements than the count hint indicated.  "
      "CountHint={@countHint}")
      .add("countHint", count_hint)
      .throw_error(error::zoserialize_writer_sequence_element_count, here(m.separator_function));
}

void ScopeStack::throw_count_mismatch(ScopeMessages const& m, Entry const& e) {
  zocore::ErrorComposer(
      "Number of elements added to sequence does not match count hint.  "
      "CountHint={@countHint}, Added={@elementCount}")
      .add("countHint", e.count_hint)
      .add("elementCount", m.added_counts_elements ? e.separators + 1 : e.separators)
      .throw_error(error::zoserialize_writer_sequence_element_count, here(m.sequence_end_function));
}

}  // namespace zoserialize::impl
