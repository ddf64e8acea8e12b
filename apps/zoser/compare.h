// Element-by-element comparison of two archives, reporting where they first differ.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <zoserialize/reader.h>

namespace zoser {

// Compares what `a` and `b` hold, element by element, to the end of both, and returns the first
// difference as "PATH: A != B" (for example "/2/marker/3: SignedInteger 5 != SignedInteger 6"),
// or nothing when they are equal. Equality is the canonical hash's: count hints are not
// compared, doubles compare by their bits with every NaN alike (so -0 differs from 0), strings
// and binaries byte by byte, in blocks, in constant memory.
//
// PATH names the element: "/N" is the N-th top-level element (from 0); inside a marker
// "/marker/N" follows, inside a sequence "/sequence/N" for its N-th item, with ".K" added for
// the K-th value of an item that holds more than one (K from 1). Values show as their kind and
// value: "String \"abc\"", "Binary 6869" (hex), or "String (70000 bytes)" when longer than 64
// bytes; a scope's end as "MarkerEnd", "SequenceEnd", "SequenceSeparator", the end of the input as
// "EOF". Two long payloads that differ add ", first difference at byte N".
//
// Nesting is walked with an explicit stack, so depth costs no recursion. Errors of the readers
// are thrown; failing_side() then tells which one (0 for a, 1 for b).
class Comparison {
 public:
  Comparison(zoserialize::Reader& a, zoserialize::Reader& b);
  ~Comparison();
  Comparison(Comparison const&) = delete;
  Comparison& operator=(Comparison const&) = delete;

  std::optional<std::string> run();
  int failing_side() const noexcept { return side_; }

 private:
  struct Frame;
  class Payloads;

  zoserialize::Reader& A() noexcept { return side_ = 0, a_; }
  zoserialize::Reader& B() noexcept { return side_ = 1, b_; }
  zoserialize::Reader& on(int side) noexcept { return side == 0 ? A() : B(); }
  // Reads the next element of one side (or looks at its token, for a scope's end) and says
  // what it is. `nested`: inside a sequence or marker, where the end of the input is an error.
  std::string describe(int side, bool nested);
  // Compares the two scalar elements with token `token`; an empty result means equal.
  std::string compare_scalars(zoserialize::Reader::EToken token);
  std::string compare_payloads(bool binary);

  zoserialize::Reader& a_;
  zoserialize::Reader& b_;
  int side_ = 0;
  std::unique_ptr<Payloads> payloads_;
};

}  // namespace zoser
