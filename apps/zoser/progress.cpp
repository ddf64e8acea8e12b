#include "progress.h"

#include <cerrno>
#include <cstdio>
#include <utility>

#include <time.h>
#include <unistd.h>

namespace zoser {

namespace {

constexpr std::uint64_t kCheckEvery = std::uint64_t{1} << 20;
constexpr std::int64_t kDelayNs = 1'000'000'000;
constexpr std::int64_t kIntervalNs = 250'000'000;

std::int64_t now_ns() noexcept {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

void put_stderr(std::string const& text) noexcept {
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t const n = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

}  // namespace

std::string format_size(std::uint64_t bytes) {
  static constexpr char const* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes) / 1024.0;
  std::size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < std::size(kUnits)) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

Progress::Progress(std::string label, std::uint64_t total, EMode mode)
    : label_(std::move(label)),
      total_(total),
      mode_(mode),
      next_check_(mode == EMode::kOff ? UINT64_MAX : 0),
      start_ns_(mode == EMode::kOff ? 0 : now_ns()) {}

Progress::~Progress() {
  finish(last_done_);
}

Progress::EMode Progress::mode_for(bool quiet, bool forced) noexcept {
  if (quiet) return EMode::kOff;
  if (forced) return EMode::kForced;
  return ::isatty(STDERR_FILENO) ? EMode::kAuto : EMode::kOff;
}

void Progress::check(std::uint64_t done) {
  next_check_ = done + kCheckEvery;
  last_done_ = done;
  std::int64_t const now = now_ns();
  std::int64_t const elapsed = now - start_ns_;
  if (mode_ == EMode::kAuto && elapsed < kDelayNs) return;
  if (shown_ && now - last_shown_ns_ < kIntervalNs) return;
  last_shown_ns_ = now;
  show(done, static_cast<double>(elapsed) / 1e9);
}

void Progress::show(std::uint64_t done, double seconds) {
  std::string line = "\rzoser: ";
  line.append(label_).append(": ").append(format_size(done));
  if (total_ != 0 && done <= total_) {
    char percent[16];
    std::snprintf(percent, sizeof percent, " (%u%%)", static_cast<unsigned>(done * 100 / total_));
    line.append(" of ").append(format_size(total_)).append(percent);
  }
  if (seconds > 0) {
    line.append(", ")
        .append(format_size(static_cast<std::uint64_t>(static_cast<double>(done) / seconds)))
        .append("/s");
  }
  line.append("\033[K");  // erase what a longer earlier line left behind
  put_stderr(line);
  shown_ = true;
}

void Progress::finish(std::uint64_t done) noexcept {
  if (finished_) return;
  finished_ = true;
  if (mode_ == EMode::kForced) {
    try {
      std::int64_t const elapsed = now_ns() - start_ns_;
      show(done, static_cast<double>(elapsed) / 1e9);
    } catch (...) {  // NOLINT(bugprone-empty-catch): a progress line is not worth a failure
    }
    put_stderr("\n");
  } else if (shown_) {
    put_stderr("\r\033[K");
  }
}

}  // namespace zoser
