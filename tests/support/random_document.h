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
// checked with gtest assertions. Documents nest the golden rows of every element kind and form
// (payloads whole, in pieces or from input streams, chunked ones among them) at random in
// sequences with and without count hints and in markers. The reading side alone chooses to skip
// elements and the rest of a marker.
class RandomDocument {
 public:
  explicit RandomDocument(std::uint64_t seed);
  ~RandomDocument();
  RandomDocument(RandomDocument const&) = delete;
  RandomDocument& operator=(RandomDocument const&) = delete;

  // Writes the document, flushing after each top-level element; returns `written()` (the bytes
  // produced so far) at each of those points.
  std::vector<std::size_t> write(zoserialize::Writer& writer,
                                 std::function<std::size_t()> const& written);
  // Reads the document back, checking every value, and expects the end of the data after it.
  void read(zoserialize::Reader& reader);

 private:
  class Generator;
  std::unique_ptr<Generator> generator_;
};

}  // namespace zotest
