// Golden vectors of the tagged binary encoding, shared by every test of an archive that writes or
// reads it (stream writer and reader, memory writer and reader). Rows talk only to Writer& and
// Reader&, so the same table checks any archive pair: the writer must produce exactly the bytes,
// the reader must read them back as the row says.
#pragma once

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include <zoserialize/reader.h>
#include <zoserialize/writer.h>

namespace zotest {

struct BinaryGoldenCase {
  // How a reader's read_copy() of the bytes into a binary writer relates to the bytes.
  enum class ECopy {
    kIdentical,   // the copy has exactly these bytes
    kEquivalent,  // the copy reads back equal (read_compare_equal_all) but is encoded differently
    kNone,        // read_copy is not applicable (a string that is not UTF-8: copying streams it)
  };

  // A valid test name (letters, digits, underscores).
  std::string name;
  // Writes the element(s) through the Writer interface. Empty for forms that no writer produces
  // (sized markers, non-minimal integers and lengths, 1-byte first chunks, 8-byte count hints):
  // those rows are read-only.
  std::function<void(zoserialize::Writer&)> write;
  // The exact encoding.
  std::string bytes;
  // Reads the element(s) back in order and checks them with gtest assertions. It leaves the
  // reader after the last element; the caller checks that the reader is then at its end.
  std::function<void(zoserialize::Reader&)> read;
  ECopy copy = ECopy::kIdentical;
  // Number of top-level elements in `bytes` (skip_element calls to reach the end).
  std::size_t elements = 1;
  // Whether Reader::read_compare_equal_all finds the bytes equal to themselves: not when they
  // hold a NaN, which equals nothing.
  bool self_equal = true;
};

// Every row. Built once; the reference stays valid for the life of the program.
std::vector<BinaryGoldenCase> const& binary_golden_cases();
// The rows that have a write function.
std::vector<BinaryGoldenCase> binary_golden_written_cases();

// gtest prints a row by its name (the byte strings can be hundreds of kilobytes).
void PrintTo(BinaryGoldenCase const& row, std::ostream* os);

// Well-formed UTF-8 text of exactly `size` bytes that mixes 1- to 4-byte characters, so that
// chunk and buffer boundaries fall inside multi-byte characters.
std::string golden_text(std::size_t size);

// Reads a whole payload stream (read_string_stream() / read_binary()) in blocks of `block`.
std::string read_all(zoserialize::IReadStream& stream, unsigned block = 4096);

}  // namespace zotest
