// The progress line shown on standard error while a long input is read.
#pragma once

#include <cstdint>
#include <string>

namespace zoser {

// Progress prints "zoser: FILE: 1.2 GiB of 4.0 GiB (30%), 210 MiB/s" on standard error,
// rewriting the line in place (carriage return) at most four times a second, and clears it at
// finish(). In automatic mode it appears only once the work has taken more than a second, so
// quick runs print nothing; forced mode (--progress) shows it from the start and also on a
// standard error that is not a terminal. The clock is looked at once per MiB read, so the cost
// on the reading path is one comparison per call.
class Progress {
 public:
  enum class EMode { kOff, kAuto, kForced };

  // `total` is the input's size when known, else 0.
  Progress(std::string label, std::uint64_t total, EMode mode);
  Progress(Progress const&) = delete;
  Progress& operator=(Progress const&) = delete;
  ~Progress();

  // The mode the options ask for: off with --quiet; forced with --progress; otherwise automatic
  // when standard error is a terminal, off when it is not.
  static EMode mode_for(bool quiet, bool forced) noexcept;

  // `done` bytes have been read so far.
  void update(std::uint64_t done) {
    if (done >= next_check_) [[unlikely]]
      check(done);
  }
  // Clears the line if one was shown; a forced line is shown once more with `done` and ended
  // with a newline instead, so that logs keep it. The destructor finishes with the last count
  // seen.
  void finish(std::uint64_t done) noexcept;

 private:
  void check(std::uint64_t done);
  void show(std::uint64_t done, double seconds);

  std::string label_;
  std::uint64_t total_;
  EMode mode_;
  std::uint64_t next_check_;
  std::int64_t start_ns_;
  std::int64_t last_shown_ns_ = 0;
  bool shown_ = false;
  bool finished_ = false;
  std::uint64_t last_done_ = 0;
};

// "512 B", "1.5 KiB", "12.0 MiB", "3.2 GiB".
std::string format_size(std::uint64_t bytes);

}  // namespace zoser
