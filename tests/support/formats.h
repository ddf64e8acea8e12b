// Every archive format that can both write and read, for round-trip tests that must hold in all
// of them. A format that lands adds itself to formats() and every such test covers it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <zoserialize/reader.h>
#include <zoserialize/writer.h>

namespace zotest {

struct Format {
  std::string name;  // a valid test name: "Binary", "Memory", ...
  // Runs `fn` on a fresh writer of the format, closes the writer and returns the archive's bytes.
  std::function<std::string(std::function<void(zoserialize::Writer&)> const&)> write;
  // A reader over a copy of `bytes`; it owns everything it reads from.
  std::function<std::shared_ptr<zoserialize::Reader>(std::string bytes)> read;
};

std::vector<Format> const& formats();

// gtest prints a format by its name.
void PrintTo(Format const& format, std::ostream* os);

}  // namespace zotest
