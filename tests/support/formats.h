// Every archive format that can both write and read, for round-trip tests that must hold in all
// of them. A format that lands adds itself to formats() and every such test covers it, the
// golden suite included (see support/golden.h).
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <support/golden.h>
#include <support/script.h>
#include <zoserialize/reader.h>
#include <zoserialize/writer.h>

namespace zotest {

// The static type a script is run with: Writer& / Reader&, or the concrete archive type, whose
// typed front end may be a shadow of its own (an inline fast path).
enum class EPath { kInterface, kConcrete };

struct Format {
  using WriteFn = std::function<std::string(std::function<void(zoserialize::Writer&)> const&)>;
  using ReadFn = std::function<std::shared_ptr<zoserialize::Reader>(std::string bytes)>;
  using SeamFn =
      std::function<std::shared_ptr<zoserialize::Reader>(std::string bytes, std::size_t seam)>;

  std::string name;  // a valid test name: "Binary", "Memory", ...
  // Runs `fn` on a fresh writer of the format, closes the writer and returns the archive's bytes.
  WriteFn write;
  // A reader over a copy of `bytes`; it owns everything it reads from.
  ReadFn read;

  // The format's golden column; null until it has one.
  GoldenColumn const* column = nullptr;
  // Further writers and readers of the format (buffer sizes, list layouts, ...): the golden suite
  // runs every row through each. `write` and `read` come first.
  std::vector<std::pair<std::string, WriteFn>> writers;
  std::vector<std::pair<std::string, ReadFn>> readers;
  // A reader whose input has a seam at `seam` (a refill, a segment boundary).
  SeamFn read_with_seam;
  // Whether the concrete types have a typed front end of their own; the golden suite then runs
  // the rows with both static types.
  bool own_front_end = false;
  // Whether a proper prefix of a rendering always lacks part of its last element. Not so in the
  // text format, where a prefix of a number or a time is a shorter one.
  bool prefix_is_incomplete = true;
  // Write or read a script with the static type asked for; the writer and reader passed in are
  // the format's own.
  std::function<void(zoserialize::Writer&, Script const&, EPath)> write_script;
  std::function<void(zoserialize::Reader&, Script const&, EPath)> read_script;
};

// A format whose writers are W and readers R: write_script / read_script run with either static
// type (own_front_end tells whether that makes a difference).
template <class W, class R>
Format make_format(std::string name, Format::WriteFn write, Format::ReadFn read,
                   bool own_front_end = false) {
  Format f;
  f.name = std::move(name);
  f.write = std::move(write);
  f.read = std::move(read);
  f.writers.emplace_back("Default", f.write);
  f.readers.emplace_back("Default", f.read);
  f.own_front_end = own_front_end;
  f.write_script = [](zoserialize::Writer& w, Script const& s, EPath path) {
    if (path == EPath::kConcrete) return zotest::write_script(dynamic_cast<W&>(w), s);
    zotest::write_script(w, s);
  };
  f.read_script = [](zoserialize::Reader& r, Script const& s, EPath path) {
    if (path == EPath::kConcrete) return zotest::read_script(dynamic_cast<R&>(r), s);
    zotest::read_script(r, s);
  };
  f.read_with_seam = [read = f.read](std::string bytes, std::size_t) {
    return read(std::move(bytes));
  };
  return f;
}

std::vector<Format> const& formats();

// gtest prints a format by its name.
void PrintTo(Format const& format, std::ostream* os);

}  // namespace zotest
