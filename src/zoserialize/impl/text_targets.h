// The character targets of TextWriter and its line-wrapping adapter.
#pragma once

#include <iosfwd>
#include <string>

#include <zocore/atomic_ref_count.h>
#include <zocore/ref_counted.h>
#include <zoserialize/export.h>
#include <zoserialize/text_writer.h>

namespace zoserialize::impl {

// Each target derives from its counted base first: GCC 12 at -O3 otherwise reports the delete of
// a devirtualised object at a base offset as freeing a non-heap pointer.

// Appends to an ostream it borrows. The ostream's state is not checked; exceptions it was told
// to throw pass through.
class ZOSERIALIZE_API TextTargetImplOstreamRef final
    : public zocore::RefCounted<zocore::AtomicRefCount>,
      public TextWriter::ITextTarget {
 public:
  explicit TextTargetImplOstreamRef(std::ostream& out) noexcept : out_(out) {}
  void put(char c) override;
  void write(char const* data, unsigned length) override;

 private:
  std::ostream& out_;
};

// Appends to a string it borrows.
class ZOSERIALIZE_API TextTargetImplStringRef final
    : public zocore::RefCounted<zocore::AtomicRefCount>,
      public TextWriter::ITextTarget {
 public:
  explicit TextTargetImplStringRef(std::string& out) noexcept : out_(out) {}
  void put(char c) override { out_.push_back(c); }
  void write(char const* data, unsigned length) override { out_.append(data, length); }

  std::string& string() const noexcept { return out_; }

 private:
  std::string& out_;
};

// Writes to a stream it shares: one stream write per call, so a character costs a write of one
// byte (the writer hands over whole elements where it can).
class ZOSERIALIZE_API TextTargetImplWriteStream final
    : public zocore::RefCounted<zocore::AtomicRefCount>,
      public TextWriter::ITextTarget {
 public:
  explicit TextTargetImplWriteStream(InterfacePtr<IWriteStream> stream) noexcept
      : stream_(std::move(stream)) {}
  void put(char c) override { stream_->write(&c, 1); }
  void write(char const* data, unsigned length) override { stream_->write(data, length); }

 private:
  InterfacePtr<IWriteStream> stream_;
};

// Cuts what passes through it into lines of exactly W = max(line_width, 4) characters (the last
// line may be shorter), ended by LF or CR LF, on the target it wraps (shared). A space must never
// start or end a line, since mail and editors drop such spaces: a space at column 0 is written
// as `~20`, and a space at the last column as `~`, the line break, then `20`. Spaces only occur
// inside strings, where `~20` is the escaped space and the reader skips line breaks even between
// `~` and its digits. The output does not depend on how the text is split into calls.
class ZOSERIALIZE_API LineWidthAdapter final : public zocore::RefCounted<zocore::AtomicRefCount>,
                                               public TextWriter::ITextTarget {
 public:
  LineWidthAdapter(InterfacePtr<TextWriter::ITextTarget> target, unsigned line_width,
                   bool crlf) noexcept
      : target_(std::move(target)),
        last_column_((line_width < 4 ? 4 : line_width) - 1),
        crlf_(crlf) {}

  void put(char c) override;
  void write(char const* data, unsigned length) override;

  unsigned column() const noexcept { return column_; }

 private:
  void line_break();
  // The character that falls on the last column, followed by the line break.
  void put_last(char c);

  InterfacePtr<TextWriter::ITextTarget> target_;
  unsigned column_ = 0;
  unsigned last_column_;
  bool crlf_;
};

}  // namespace zoserialize::impl
