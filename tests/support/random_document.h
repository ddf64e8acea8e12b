// Random element trees for round-trip property tests of any Writer/Reader pair.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <zoserialize/reader.h>
#include <zoserialize/writer.h>

namespace zotest {

// One random document, generated twice from the same seed: once written, once read back and
// checked with gtest assertions. Documents mix every element kind: integers of any width, doubles
// with special bit patterns, strings and binaries whole, streamed in pieces or taken from input
// streams (some long enough to be chunked), times, UUIDs, sequences with and without count hints
// and nested markers. Structure decisions come from one generator, so both runs take the same
// ones; choices that only the reading side makes (read by value or as a stream, piece sizes,
// skipping the rest of a marker, leaving a payload stream half read) come from a second one,
// which the writing side never touches.
class RandomDocument {
 public:
  explicit RandomDocument(std::uint64_t seed);
  ~RandomDocument();
  RandomDocument(RandomDocument const&) = delete;
  RandomDocument& operator=(RandomDocument const&) = delete;

  // Writes the document. After each top-level element the writer is flushed and `written()`
  // (the number of bytes the writer has produced so far) is recorded; returns those offsets.
  std::vector<std::size_t> write(zoserialize::Writer& writer,
                                 std::function<std::size_t()> const& written);
  // Reads the document back, checking every value, and expects the end of the data after it.
  void read(zoserialize::Reader& reader);

 private:
  class Generator;
  std::unique_ptr<Generator> generator_;
};

}  // namespace zotest
