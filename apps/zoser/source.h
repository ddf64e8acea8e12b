// An input opened for reading: the file, its format (given or detected) and a reader over it.
#pragma once

#include <memory>
#include <string>

#include <zocore/error_info.h>
#include <zoserialize/reader.h>

#include "formats.h"
#include "input.h"
#include "progress.h"

namespace zoser {

// Source opens `name` ("-": standard input), takes `format` or, when it is null, detects the
// format (detect_input_format), and builds the format's reader over the input's stream. Failures of
// any of these steps are thrown. Afterwards describe() turns a failure raised while reading into
// the tool's error line, with the place in the input.
class Source {
 public:
  Source(std::string const& name, Format const* format, Progress::EMode progress);
  Source(Source const&) = delete;
  Source& operator=(Source const&) = delete;
  ~Source();
  // The same, but a failure to open is printed as the tool's error line for `name` and gives
  // null instead of an exception.
  static std::unique_ptr<Source> open(std::string const& name, Format const* format,
                                      Progress::EMode progress);

  std::string const& name() const noexcept { return input_->name(); }
  Format const& format() const noexcept { return *format_; }
  zoserialize::Reader& reader() noexcept { return *reader_; }
  Input& input() noexcept { return *input_; }

  // Where `failure` happened in this input ("byte 12", "line 3, column 7"), or empty.
  std::string place(zocore::ErrorInfo const& failure);
  // Prints `failure` as "zoser: NAME: PLACE: MESSAGE [code]" on standard error.
  void report(zocore::ErrorInfo const& failure);

 private:
  std::unique_ptr<Input> input_;
  Format const* format_ = nullptr;
  std::unique_ptr<zoserialize::Reader> reader_;
};

}  // namespace zoser
