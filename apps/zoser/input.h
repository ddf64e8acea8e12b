// An input file or standard input, with its first bytes kept for format detection.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <zocore/ref_count_ptr.h>
#include <zocore/stream.h>

#include "progress.h"

namespace zoser {

// Input opens a file, or standard input for the name "-", and hands a reader one stream over
// it. Format detection may look at the first bytes first (peek()); they are kept in a buffer and
// delivered again at the start of the stream, so detection consumes nothing, not even from a
// pipe. The stream counts the bytes it delivers (the "total bytes" of stats, the progress line).
// Memory use is the peek buffer, whatever the input's size. One thread at a time.
class Input {
 public:
  static constexpr std::size_t kPeekSize = 64 * 1024;

  // Opens `name`; failures are the core's ("Cannot open file '{@path}' for reading",
  // error::zocore_errno with the errno record nested).
  explicit Input(std::string name);
  Input(Input const&) = delete;
  Input& operator=(Input const&) = delete;
  ~Input();

  // The name as given ("-" for standard input): what messages and hash lines show.
  std::string const& name() const noexcept { return name_; }
  bool is_stdin() const noexcept { return name_ == "-"; }

  // The first kPeekSize bytes (fewer when the input is shorter), read on the first call.
  std::string_view peek();
  // True when the input is known to end within the peeked bytes (a peek that filled the whole
  // buffer cannot tell). Only meaningful after peek().
  bool peek_is_whole() const noexcept { return peek_whole_; }

  // The stream a reader reads: the peeked bytes, then the rest of the input. Shared with the
  // caller; every call returns the same stream.
  zocore::InterfacePtr<zocore::IReadStream> stream();
  // Bytes the stream has delivered or skipped so far.
  std::uint64_t bytes_read() const noexcept;

  // Shows a progress line while the stream is read (see Progress); the size of a regular file
  // gives the percentage.
  void show_progress(Progress::EMode mode);
  // Ends the progress line, if any.
  void finish_progress() noexcept;

  class ReplayStream;

 private:
  std::string name_;
  std::uint64_t size_ = 0;  // of a regular file, else 0
  zocore::RefCountPtr<ReplayStream> stream_;
  std::unique_ptr<Progress> progress_;
  bool peeked_ = false;
  bool peek_whole_ = false;
};

}  // namespace zoser
