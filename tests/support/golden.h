// Golden rows: what every archive format must write and read back, stated once for all formats.
//
// A row is a script (support/script.h): the calls a writer gets and the reads that must give the
// same elements back. It says nothing about any format's bytes. Each format keeps its expected
// renderings in a column of its own: a table from row name to the bytes (or text) that its
// writer produces for that row.
//
// Adding a format's column (text, XML, ...):
//  1. In the format's own file (tests/support/<format>_golden.cpp, or tests/zoserialize/), build a
//     GoldenColumn: column.add(row, rendering) for every row of golden_rows(); column.absent(row)
//     for a row the format cannot carry (say why in a comment); column.add_read_only(...) for
//     forms that only the format's reader accepts (longer forms than its writer picks, ...).
//  2. Add the format to zotest::formats() (tests/support/formats.cpp) with make_format<Writer,
//     Reader>(...), pointing at the column.
// That is all: the golden suite (tests/zoserialize/golden_test.cpp) runs every row against every
// format of formats() that has a column, through each of its writers and readers (buffer sizes,
// list layouts) and both static types (the concrete archive type and Writer& / Reader&); it reads
// every proper prefix and a reader with a seam at every position; it skips, copies and compares
// the rows; and it fails when a column lacks a row or names one that does not exist.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <support/script.h>

namespace zotest {

struct GoldenRow {
  std::string name;  // a valid test name
  Script script;
  std::size_t elements;  // top-level elements (skip_element calls to the end)
  bool self_equal;       // false when it holds a NaN, which equals nothing
  std::size_t payload;   // the largest payload, in bytes
  // Every string in it is UTF-8; copying and comparing (which read strings as checked streams)
  // refuse a row that is not.
  bool valid_text;
};

// The doubles of the rows Double_<name>, by their bits: 16 upper-case hex digits.
struct GoldenDouble {
  char const* name;
  char const* bits;
};
std::vector<GoldenDouble> const& golden_doubles();

// Every written row; built once, valid for the life of the program.
std::vector<GoldenRow> const& golden_rows();
GoldenRow const* find_golden_row(std::string_view name);

// How a reader's read_copy() of a rendering into the same format's writer relates to it.
enum class ECopy {
  kIdentical,   // the copy is exactly the rendering
  kEquivalent,  // it compares equal (read_compare_equal_all) but is rendered differently
};

struct GoldenRendering {
  std::string bytes;
  ECopy copy = ECopy::kIdentical;
};

class GoldenColumn {
 public:
  void add(std::string const& row, std::string bytes, ECopy copy = ECopy::kIdentical);
  void absent(std::string const& row);
  // A form no writer of the format produces, read as `script` tells.
  void add_read_only(std::string const& name, std::string bytes, std::string_view script);

  // Null for a row the format does not carry (or does not know).
  GoldenRendering const* find(std::string_view row) const;
  bool knows(std::string_view row) const { return entries_.find(row) != entries_.end(); }
  std::vector<std::string> names() const;
  std::vector<GoldenRow> const& read_only() const noexcept { return read_only_; }

 private:
  std::map<std::string, std::optional<GoldenRendering>, std::less<>> entries_;
  std::vector<GoldenRow> read_only_;
};

}  // namespace zotest
