// The open sequences and markers of a writer, with the checks every format applies to them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

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
  // Removes the innermost scope and returns it; the stack must not be empty.
  Entry pop() noexcept { return entries_[--size_]; }
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

  friend class SequenceCounter;
};

// SequenceCounter keeps the open sequences of a writer that counts its markers apart (the binary
// writers) and applies the independent checks to them, raising ScopeStack's failures. A separator
// is one element among many in the hot loop of a writer: the innermost sequence lives in two
// fields, so that its check is one compare and a decrement, and only the enclosing sequences wait
// in a ScopeStack.
class ZOSERIALIZE_API SequenceCounter {
 public:
  bool empty() const noexcept { return depth_ == 0; }

  void start(unsigned count_hint) {
    if (depth_ != 0) save_innermost();
    ++depth_;
    hint_ = count_hint;
    left_ = count_hint != 0 ? count_hint : kUnhinted;
  }

  // True when a separator passes the checks: a sequence is open and its hint allows one more.
  bool separator_allowed() const noexcept { return left_ > 1; }
  // Counts a separator that separator_allowed() passed.
  void count_separator() noexcept { --left_; }
  // Counts a separator, or raises why it is refused.
  void add_separator(ScopeMessages const& m) {
    if (!separator_allowed()) [[unlikely]]
      refuse_separator(m);
    count_separator();
  }

  // True when the innermost sequence may end: it holds as many elements as its hint says, or it
  // has none.
  bool end_allowed() const noexcept { return left_ == 1 || left_ > kMaxHinted; }
  // Ends the innermost sequence, which end_allowed() passed.
  void end_checked() noexcept {
    if (--depth_ != 0) {
      restore_innermost();
    } else {
      hint_ = 0;
      left_ = 0;
    }
  }
  // Ends the innermost sequence, then checks its count against the hint, so the sequence counts
  // as closed even when that check fails.
  void end(ScopeMessages const& m);

  // Fails while a sequence is open.
  void check_closed(ScopeMessages const& m) const {
    if (depth_ != 0) [[unlikely]]
      ScopeStack::throw_close_with_open_scopes(m);
  }

 private:
  // left_ of a sequence without a count hint; it only ever counts down from here.
  static constexpr std::uint64_t kUnhinted = std::uint64_t{1} << 63;
  static constexpr std::uint64_t kMaxHinted = 0xFFFFFFFF;

  void save_innermost() {
    outer_.push_sequence(hint_);
    outer_.top().separators = hint_ != 0 ? hint_ - static_cast<unsigned>(left_) : 0;
  }
  void restore_innermost() noexcept {
    ScopeStack::Entry const e = outer_.pop();
    hint_ = e.count_hint;
    left_ = e.count_hint != 0 ? e.count_hint - e.separators : kUnhinted;
  }
  [[noreturn]] void refuse_separator(ScopeMessages const& m) const;

  // The innermost sequence: its count hint, and the separators it still allows plus one
  // (kUnhinted and below without a hint, 0 when no sequence is open). The hint's last element
  // leaves 1; a separator needs more.
  std::uint64_t left_ = 0;
  unsigned hint_ = 0;
  unsigned depth_ = 0;  // open sequences, the innermost included
  ScopeStack outer_;    // the sequences around the innermost one
};

// The readers' stack of open markers: a push is a compare and a store. Storage only grows (out
// of line) and is reused after pops, so a reader that opens a marker per record makes no call
// for it. T is trivially copyable.
template <class T>
class PodStack {
 public:
  bool empty() const noexcept { return size_ == 0; }
  std::size_t size() const noexcept { return size_; }
  T const& back() const noexcept { return items_[size_ - 1]; }
  void push_back(T const& value) {
    if (size_ < items_.size()) [[likely]] {
      items_[size_] = value;
    } else {
      grow(value);
    }
    ++size_;
  }
  void pop_back() noexcept { --size_; }
  void clear() noexcept { size_ = 0; }
  void swap(PodStack& other) noexcept {
    items_.swap(other.items_);
    std::swap(size_, other.size_);
  }

 private:
  [[gnu::noinline]] void grow(T const& value) { items_.push_back(value); }

  std::vector<T> items_;  // items_[0, size_) are the open entries, innermost last
  std::size_t size_ = 0;
};

}  // namespace zoserialize::impl
