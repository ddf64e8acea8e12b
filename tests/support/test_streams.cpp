#include <algorithm>
#include <array>
#include <cstring>
#include <ostream>

#include <support/test_streams.h>
#include <zocore/throw_error.h>

namespace zotest {
namespace {

constexpr char kModuleId[] = "$Id: tests/support/test_streams.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

constexpr std::size_t kPeriod = 65521;

// The pattern twice over, so that any run of up to one period is a single memcpy.
struct PatternTable {
  std::array<unsigned char, 2 * kPeriod> bytes{};
  PatternTable() noexcept {
    std::uint32_t x = 0x9E3779B9u;
    for (std::size_t i = 0; i < kPeriod; ++i) {
      x = x * 1664525u + 1013904223u;  // LCG: cheap, and no short cycles within a period
      bytes[i] = bytes[i + kPeriod] = static_cast<unsigned char>(x >> 24);
    }
  }
};

PatternTable const& table() noexcept {
  static PatternTable const t;
  return t;
}

}  // namespace

// NOLINTNEXTLINE(cert-err58-cpp): constant-initialised, nothing runs at load
constinit zocore::ErrorCode const test_stream_error("error.zotest.test_stream", true);

// ---- Pattern ----------------------------------------------------------------------------------

unsigned char pattern_byte(std::uint64_t offset) noexcept {
  return table().bytes[offset % kPeriod];
}

void pattern_fill(std::uint64_t offset, void* out, std::size_t size) noexcept {
  auto* p = static_cast<unsigned char*>(out);
  std::size_t phase = offset % kPeriod;
  while (size != 0) {
    std::size_t const n = std::min(size, kPeriod);
    std::memcpy(p, table().bytes.data() + phase, n);
    p += n;
    size -= n;
    phase = (phase + n) % kPeriod;
  }
}

std::size_t pattern_mismatch(std::uint64_t offset, void const* data, std::size_t size) noexcept {
  auto const* p = static_cast<unsigned char const*>(data);
  std::size_t phase = offset % kPeriod;
  std::size_t done = 0;
  while (done < size) {
    std::size_t const n = std::min(size - done, kPeriod);
    unsigned char const* expected = table().bytes.data() + phase;
    if (std::memcmp(p + done, expected, n) != 0) {
      for (std::size_t i = 0; i < n; ++i) {
        if (p[done + i] != expected[i]) return done + i;
      }
    }
    done += n;
    phase = (phase + n) % kPeriod;
  }
  return size;
}

std::string pattern_string(std::uint64_t offset, std::size_t size) {
  std::string out(size, '\0');
  pattern_fill(offset, out.data(), size);
  return out;
}

// ---- ByteSource -------------------------------------------------------------------------------

std::size_t ByteSource::available() const noexcept {
  std::size_t const end = std::min(data_.size(), limit_);
  return end > pos_ ? end - pos_ : 0;
}

unsigned ByteSource::transfer(void* buffer, unsigned size, bool skip) {
  if (ended_) ++calls_after_end_;
  if (calls_.size() == fail_at_) {
    calls_.push_back({skip, size, 0});
    zocore::throw_error(test_stream_error, "Injected source failure",
                        here("zotest::ByteSource::transfer()"));
  }
  auto const n = static_cast<unsigned>(std::min<std::size_t>(size, available()));
  if (!skip && n != 0) std::memcpy(buffer, data_.data() + pos_, n);
  pos_ += n;
  if (n == 0 && size != 0) ended_ = true;
  calls_.push_back({skip, size, n});
  return n;
}

std::ostream& operator<<(std::ostream& os, ByteSource::Call const& call) {
  return os << (call.skip ? "skip(" : "read(") << call.requested << ")=" << call.returned;
}

unsigned ByteSource::read(void* buffer, unsigned size) {
  return transfer(buffer, size, false);
}

unsigned ByteSource::skip(unsigned size) {
  return transfer(nullptr, size, true);
}

unsigned ByteSource::bytes_remaining() const {
  if (unknown_size_) return kUnknownSize;
  if (has_announced_) return announced_;
  std::size_t const n = available();
  return n >= kUnknownSize ? kUnknownSize : static_cast<unsigned>(n);
}

// ---- RecordingSink ----------------------------------------------------------------------------

void RecordingSink::write(void const* data, unsigned size) {
  if (calls_++ == fail_at_) {
    zocore::throw_error(test_stream_error, "Injected sink failure",
                        here("zotest::RecordingSink::write()"));
  }
  writes_.emplace_back(static_cast<char const*>(data), size);
}

std::vector<unsigned> RecordingSink::write_sizes() const {
  std::vector<unsigned> sizes;
  sizes.reserve(writes_.size());
  for (std::string const& w : writes_)
    sizes.push_back(static_cast<unsigned>(w.size()));
  return sizes;
}

std::string RecordingSink::bytes() const {
  std::string out;
  for (std::string const& w : writes_)
    out += w;
  return out;
}

// ---- PatternSource ----------------------------------------------------------------------------

unsigned PatternSource::read(void* buffer, unsigned size) {
  ++reads_;
  auto const n = static_cast<unsigned>(std::min<std::uint64_t>(size, total_ - pos_));
  pattern_fill(pos_, buffer, n);
  pos_ += n;
  return n;
}

unsigned PatternSource::skip(unsigned size) {
  auto const n = static_cast<unsigned>(std::min<std::uint64_t>(size, total_ - pos_));
  pos_ += n;
  return n;
}

unsigned PatternSource::bytes_remaining() const {
  std::uint64_t const left = total_ - pos_;
  if (!report_size_ || left >= kUnknownSize) return kUnknownSize;
  return static_cast<unsigned>(left);
}

// ---- ChunkedPatternSource ---------------------------------------------------------------------

ChunkedPatternSource::ChunkedPatternSource(unsigned char prefix, std::uint64_t total,
                                           unsigned chunk_size) noexcept
    : prefix_(prefix), total_(total), chunk_size_(chunk_size) {
  start_chunk();
}

void ChunkedPatternSource::start_chunk() {
  header_done_ = 0;
  if (payload_pos_ >= total_) {
    header_size_ = 0;
    chunk_left_ = 0;
    return;
  }
  auto const size =
      static_cast<unsigned>(std::min<std::uint64_t>(chunk_size_, total_ - payload_pos_));
  bool const first = payload_pos_ == 0;
  if (size < 256) {
    header_[0] = static_cast<unsigned char>(prefix_ | (first ? 0xB : 0xD));
    header_[1] = static_cast<unsigned char>(size);
    header_size_ = 2;
  } else {
    header_[0] = static_cast<unsigned char>(prefix_ | (first ? 0xC : 0xE));
    header_[1] = static_cast<unsigned char>(size >> 8);
    header_[2] = static_cast<unsigned char>(size);
    header_size_ = 3;
  }
  chunk_left_ = size;
}

unsigned ChunkedPatternSource::read(void* buffer, unsigned size) {
  auto* out = static_cast<unsigned char*>(buffer);
  unsigned done = 0;
  while (done < size) {
    if (header_done_ < header_size_) {
      unsigned const n = std::min(size - done, header_size_ - header_done_);
      if (out) std::memcpy(out + done, header_ + header_done_, n);
      header_done_ += n;
      done += n;
    } else if (chunk_left_ != 0) {
      unsigned const n = std::min(size - done, chunk_left_);
      if (out) pattern_fill(payload_pos_, out + done, n);
      payload_pos_ += n;
      chunk_left_ -= n;
      done += n;
      if (chunk_left_ == 0) start_chunk();
    } else if (!end_tag_done_) {
      if (out) out[done] = static_cast<unsigned char>(prefix_ | 0xF);
      end_tag_done_ = true;
      ++done;
    } else {
      break;
    }
  }
  pos_ += done;
  return done;
}

unsigned ChunkedPatternSource::skip(unsigned size) {
  return read(nullptr, size);
}

// ---- CheckingSink -----------------------------------------------------------------------------

CheckingSink::CheckingSink(zocore::InterfacePtr<zocore::IReadStream> expected)
    : expected_(std::move(expected)) {}

void CheckingSink::write(void const* data, unsigned size) {
  ++writes_;
  largest_ = std::max(largest_, size);
  if (scratch_.size() < size) scratch_.resize(size);
  unsigned const got = expected_->read(scratch_.data(), size);
  if (!mismatch_) {
    if (std::memcmp(scratch_.data(), data, got) != 0) {
      auto const* p = static_cast<unsigned char const*>(data);
      unsigned i = 0;
      while (p[i] == scratch_[i])
        ++i;
      mismatch_ = true;
      mismatch_at_ = written_ + i;
    } else if (got < size) {
      mismatch_ = true;  // written past the expected end
      mismatch_at_ = written_ + got;
    }
  }
  written_ += size;
}

bool CheckingSink::expected_exhausted() {
  unsigned char probe;
  return expected_->read(&probe, 1) == 0;
}

}  // namespace zotest
