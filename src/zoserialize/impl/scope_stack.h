// The open sequences and markers of a writer, with the checks every format applies to them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include <zocore/error_code.h>
#include <zoserialize/export.h>

namespace zoserialize::impl {

// What a writer says when its caller misuses scopes. Each writer keeps one constant instance:
// the formats differ in wording, in the code of a marker end without a marker, and in whether a
// count mismatch reports the separators or the elements added.
struct ScopeMessages {
  // The operations named in the errors' locations.
  char const* separator_function;
  char const* sequence_end_function;
  char const* marker_end_function;  // unused by the independent checks (see end_innermost_marker)
  char const* close_function;
  // The texts of the nesting failures (the two count-hint failures read the same everywhere).
  char const* separator_without_sequence;
  char const* end_without_sequence;
  char const* marker_end_without_marker;
  char const* close_with_open_scopes;
  zocore::ErrorCode const* marker_end_code;
  // True: the count mismatch's elementCount is the number of elements (separators + 1); false:
  // the number of separators.
  bool added_counts_elements;
};

// ScopeStack is one stack of kind-tagged entries, newest on top. Two sets of checks sit on it:
//
// - nested (text, XML and trace writers): a separator or sequence end needs a sequence on top;
//   a marker end pops whatever is on top, so a sequence left open is closed by it without
//   complaint (deliberately loose);
// - independent (binary writers): sequences and markers are checked apart, as if kept in two
//   stacks, so a separator counts for the innermost sequence even inside a marker, and a marker
//   end closes the innermost marker even when a sequence is open inside it.
//
// A count hint of 0 means none; a hint n allows n - 1 separators. Every check raises through
// cold out-of-line functions with the writer's own texts.
class ZOSERIALIZE_API ScopeStack {
 public:
  enum class EKind : std::uint8_t { Sequence = 1, Marker = 2 };

  struct Entry {
    EKind kind;
    std::uint8_t flags;  // the writer's own state of the scope (the XML writer's open Item)
    unsigned count_hint;
    unsigned separators;
  };

  ScopeStack() = default;
  ScopeStack(ScopeStack const& other);
  ScopeStack& operator=(ScopeStack const& other);
  ScopeStack(ScopeStack&&) noexcept = default;
  ScopeStack& operator=(ScopeStack&&) noexcept = default;
  ~ScopeStack() = default;

  bool empty() const noexcept { return size_ == 0; }
  std::size_t depth() const noexcept { return size_; }
  // Entries of each kind, counted when asked (at close, not per element).
  unsigned open_sequences() const noexcept { return count(EKind::Sequence); }
  unsigned open_markers() const noexcept { return count(EKind::Marker); }
  // The innermost scope; the stack must not be empty.
  Entry& top() noexcept { return entries_[size_ - 1]; }
  Entry const& top() const noexcept { return entries_[size_ - 1]; }

  void push_sequence(unsigned count_hint) { push({EKind::Sequence, 0, count_hint, 0}); }
  void push_marker() { push({EKind::Marker, 0, 0, 0}); }
  void clear() noexcept { size_ = 0; }

  // ---- Nested checks ----
  // Counts a separator in the sequence on top and returns it.
  Entry& add_separator(ScopeMessages const& m) {
    if (!on_top(EKind::Sequence)) [[unlikely]]
      throw_separator_without_sequence(m);
    count_separator(top(), m);
    return top();
  }
  // Pops the sequence on top and returns it; then checks its count against the hint, so the
  // sequence counts as closed even when that check fails.
  Entry end_sequence(ScopeMessages const& m) {
    if (!on_top(EKind::Sequence)) [[unlikely]]
      throw_end_without_sequence(m);
    Entry const top = pop();
    check_count(top, m);
    return top;
  }
  // Pops whatever is on top and returns it.
  Entry end_any(ScopeMessages const& m) {
    if (size_ == 0) [[unlikely]]
      throw_marker_end_without_marker(m);
    return pop();
  }
  // Fails while any scope is open.
  void check_all_closed(ScopeMessages const& m) const {
    if (size_ != 0) [[unlikely]]
      throw_close_with_open_scopes(m);
  }

  // ---- Independent checks ----
  void add_separator_to_innermost_sequence(ScopeMessages const& m) {
    Entry* const e = on_top(EKind::Sequence) ? &top() : find_innermost(EKind::Sequence);
    if (e == nullptr) [[unlikely]]
      throw_separator_without_sequence(m);
    count_separator(*e, m);
  }
  void end_innermost_sequence(ScopeMessages const& m) {
    if (on_top(EKind::Sequence)) [[likely]] {
      check_count(pop(), m);
      return;
    }
    Entry* const e = find_innermost(EKind::Sequence);
    if (e == nullptr) [[unlikely]]
      throw_end_without_sequence(m);
    check_count(remove(*e), m);
  }
  // Closes the innermost marker; false when no marker is open (nothing changes then).
  bool end_innermost_marker() noexcept {
    if (on_top(EKind::Marker)) [[likely]] {
      --size_;
      return true;
    }
    Entry* const e = find_innermost(EKind::Marker);
    if (e == nullptr) return false;
    remove(*e);
    return true;
  }
  // Fails while a sequence is open (markers are the concrete writers' business).
  void check_sequences_closed(ScopeMessages const& m) const {
    if (open_sequences() != 0) [[unlikely]]
      throw_close_with_open_scopes(m);
  }

 private:
  // Growth is out of line, so that a push inlines to a compare and a store.
  void push(Entry e) {
    if (size_ == capacity_) [[unlikely]]
      grow();
    entries_[size_++] = e;
  }
  Entry pop() noexcept { return entries_[--size_]; }
  void grow();
  unsigned count(EKind kind) const noexcept;
  static void count_separator(Entry& e, ScopeMessages const& m) {
    if (e.count_hint != 0 && e.separators >= e.count_hint - 1) [[unlikely]]
      throw_too_many_elements(m, e.count_hint);
    ++e.separators;
  }
  static void check_count(Entry const& e, ScopeMessages const& m) {
    if (e.count_hint != 0 && e.separators != e.count_hint - 1) [[unlikely]]
      throw_count_mismatch(m, e);
  }
  bool on_top(EKind kind) const noexcept { return size_ != 0 && top().kind == kind; }
  // Slow paths of the independent checks, when the scope meant is not on top: the innermost
  // entry of that kind (null when none), and its removal from the middle of the stack.
  Entry* find_innermost(EKind kind) noexcept;
  Entry remove(Entry& e) noexcept;

  [[noreturn]] static void throw_separator_without_sequence(ScopeMessages const& m);
  [[noreturn]] static void throw_end_without_sequence(ScopeMessages const& m);
  [[noreturn]] static void throw_marker_end_without_marker(ScopeMessages const& m);
  [[noreturn]] static void throw_close_with_open_scopes(ScopeMessages const& m);
  [[noreturn]] static void throw_too_many_elements(ScopeMessages const& m, unsigned count_hint);
  [[noreturn]] static void throw_count_mismatch(ScopeMessages const& m, Entry const& e);

  std::unique_ptr<Entry[]> entries_;
  unsigned size_ = 0;
  unsigned capacity_ = 0;
};

}  // namespace zoserialize::impl
