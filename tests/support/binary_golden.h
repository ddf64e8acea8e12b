// Golden vectors of the tagged binary encoding, shared by the tests of every archive that writes
// or reads it. Rows talk only to Writer& and Reader&, so one table checks any archive pair.
#pragma once

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <zocore/error_code.h>
#include <zoserialize/reader.h>
#include <zoserialize/writer.h>

namespace zotest {

struct BinaryGoldenCase {
  // How a reader's read_copy() of the bytes into a binary writer relates to the bytes.
  enum class ECopy {
    kIdentical,   // the copy has exactly these bytes
    kEquivalent,  // the copy reads back equal (read_compare_equal_all) but is encoded differently
    kNone,  // not applicable (a string that is not UTF-8: copying streams it, which validates)
  };

  std::string name;  // a valid test name
  // Empty for forms that no writer produces (sized markers, non-minimal forms): read-only rows.
  std::function<void(zoserialize::Writer&)> write;
  std::string bytes;
  // Reads the element(s) back with gtest assertions and leaves the reader after the last one.
  std::function<void(zoserialize::Reader&)> read;
  ECopy copy = ECopy::kIdentical;
  std::size_t elements = 1;  // top-level elements in `bytes` (skip_element calls to the end)
  bool self_equal = true;    // false when the bytes hold a NaN, which equals nothing
};

// Every row; built once, valid for the life of the program.
std::vector<BinaryGoldenCase> const& binary_golden_cases();
// The rows that have a write function.
std::vector<BinaryGoldenCase> binary_golden_written_cases();

// gtest prints a row by its name (the byte strings can be hundreds of kilobytes).
void PrintTo(BinaryGoldenCase const& row, std::ostream* os);

// Well-formed UTF-8 of exactly `size` bytes mixing 1- to 4-byte characters, so that chunk and
// buffer boundaries fall inside characters.
std::string golden_text(std::size_t size);

// Reads a whole payload stream (read_string_stream() / read_binary()) in blocks of `block`.
std::string read_all(zoserialize::IReadStream& stream, unsigned block = 4096);

// Bytes from hex text in which "FF*15" stands for 15 bytes 0xFF.
std::string unhex(std::string_view hex);

// Runs reader operations named by space-separated tokens: n read_null, N try_read_null, b
// read_bool, i read_int32, u read_uint32, d read_double, s read_string, a read_absolute_time, R
// read_relative_time, g read_uuid, [ read_sequence_start, > read_sequence_next, L the rest of a
// sequence (read_sequence_next and skip_element until the end), { read_marker_start,
// ? read_marker_is_end, } read_marker_end, k skip_element, c read_copy, t next_token, e is_eof,
// X close; S and B open read_string_stream and read_binary, a stream that r<n> reads n bytes from,
// x<n> skips n bytes of, q asks bytes_remaining of and C closes. A leading ! means: must fail.
void run_reader_ops(zoserialize::Reader& reader, std::string_view ops);

// Runs `fn`, which must fail with the code and message (ZO_EXPECT_ERROR), then checks the
// failure's parameters ("name=value ...", errno=<n> for the nested errno) and, when given, the
// raising function without "zoserialize::".
void expect_error_details(std::function<void()> const& fn, zocore::ErrorCode const& code,
                          std::string_view message, std::string_view params = "",
                          std::string_view function = "");

// A reader's input (hex for unhex(); a leading '?' makes its size unknown) and the operations on
// it, of which the last must fail as told (see expect_error_details).
struct ReaderFailure {
  char const* bytes;
  char const* ops;
  zocore::ErrorCode const* code;
  char const* message;
  char const* params = "";
  char const* function = "";
};

// Runs the case on the reader that `make` builds over the bytes (of known size or not).
void expect_failure(ReaderFailure const& c, std::function<std::unique_ptr<zoserialize::Reader>(
                                                std::string bytes, bool known_size)> const& make);

}  // namespace zotest
