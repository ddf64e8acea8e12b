// The text format's grammar as rows: the calls a writer gets and the text TextWriter makes of
// them. The writer's tests write each row; the reader's tests read each text back and compare it,
// element by element, with the binary rendering of the same calls.
#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include <zoserialize/writer.h>

namespace zotest {

struct TextRow {
  std::string name;  // a valid test name
  std::function<void(zoserialize::Writer&)> write;
  std::string text;
  // False for forms that only the reader accepts: `write` then gives the equal value that the
  // writer renders differently (its text is what a copy of `text` produces).
  bool written = true;
  bool self_equal = true;  // false when it holds a NaN, which equals nothing
};

// Every row; built once, valid for the life of the program.
std::vector<TextRow> const& text_rows();

// gtest prints a row by its name.
void PrintTo(TextRow const& row, std::ostream* os);

// The worked example of the format's documentation: a marker holding a sequence of three, then a
// double, an absolute and a relative time, a binary, a null UUID and an unsigned integer.
void write_worked_example(zoserialize::Writer& w);

}  // namespace zotest
