#include <algorithm>
#include <array>
#include <cstring>
#include <ostream>

#include <support/test_streams.h>
#include <zocore/throw_error.h>

namespace zotest {
namespace {

constexpr std::size_t kPeriod = 65521;

// The pattern twice over, so that any run of up to one period is a single memcpy.
std::array<unsigned char, 2 * kPeriod> const& table() noexcept {
  static auto const bytes = [] {
    std::array<unsigned char, 2 * kPeriod> out{};
    std::uint32_t x = 0x9E3779B9u;
    for (std::size_t i = 0; i < kPeriod; ++i) {
      x = x * 1664525u + 1013904223u;
      out[i] = out[i + kPeriod] = static_cast<unsigned char>(x >> 24);
    }
    return out;
  }();
  return bytes;
}

[[noreturn]] void inject(char const* message, char const* function) {
  zocore::throw_error(test_stream_error, message,
                      {function, "$Id: tests/support/test_streams.cpp $", __builtin_LINE()});
}

}  // namespace

// NOLINTNEXTLINE(cert-err58-cpp): constant-initialised, nothing runs at load
constinit zocore::ErrorCode const test_stream_error("error.zotest.test_stream", true);

void pattern_fill(std::uint64_t offset, void* out, std::size_t size) noexcept {
  auto* p = static_cast<unsigned char*>(out);
  for (std::size_t n = 0; size != 0; p += n, size -= n, offset += n) {
    n = std::min(size, kPeriod);
    std::memcpy(p, table().data() + offset % kPeriod, n);
  }
}

std::size_t pattern_mismatch(std::uint64_t offset, void const* data, std::size_t size) noexcept {
  auto const* p = static_cast<unsigned char const*>(data);
  for (std::size_t done = 0, n = 0; done < size; done += n) {
    n = std::min(size - done, kPeriod);
    unsigned char const* want = table().data() + (offset + done) % kPeriod;
    if (std::memcmp(p + done, want, n) != 0)
      return done +
             static_cast<std::size_t>(std::mismatch(p + done, p + done + n, want).first - p - done);
  }
  return size;
}

std::string pattern_string(std::uint64_t offset, std::size_t size) {
  std::string out(size, '\0');
  pattern_fill(offset, out.data(), size);
  return out;
}

unsigned ByteSource::transfer(void* buffer, unsigned size, bool skip) {
  calls_after_end_ += ended_;
  if (calls_.size() == fail_at_) {
    calls_.push_back({skip, size, 0});
    inject("Injected source failure", "zotest::ByteSource::transfer()");
  }
  auto const n = static_cast<unsigned>(std::min<std::size_t>(size, end() - std::min(end(), pos_)));
  if (!skip && n != 0) std::memcpy(buffer, data_.data() + pos_, n);
  pos_ += n;
  ended_ = ended_ || (n == 0 && size != 0);
  calls_.push_back({skip, size, n});
  return n;
}

std::ostream& operator<<(std::ostream& os, ByteSource::Call const& call) {
  return os << (call.skip ? "skip(" : "read(") << call.requested << ")=" << call.returned;
}

unsigned ByteSource::bytes_remaining() const {
  if (unknown_size_) return kUnknownSize;
  if (announced_ >= 0) return static_cast<unsigned>(announced_);
  return static_cast<unsigned>(std::min<std::size_t>(end() - std::min(end(), pos_), kUnknownSize));
}

void RecordingSink::write(void const* data, unsigned size) {
  if (writes_.size() == fail_at_) {
    fail_at_ = std::numeric_limits<std::size_t>::max();
    inject("Injected sink failure", "zotest::RecordingSink::write()");
  }
  writes_.emplace_back(static_cast<char const*>(data), size);
}

std::vector<unsigned> RecordingSink::write_sizes() const {
  std::vector<unsigned> sizes;
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

unsigned PatternSource::read(void* buffer, unsigned size) {
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
  return static_cast<unsigned>(std::min<std::uint64_t>(total_ - pos_, kUnknownSize));
}

unsigned ChunkedPatternSource::read(void* buffer, unsigned size) {
  auto* out = static_cast<unsigned char*>(buffer);
  unsigned done = 0;
  while (done < size) {
    if (header_.empty() && chunk_left_ == 0) {
      if (payload_pos_ == total_ && end_tag_done_) break;
      auto const n =
          static_cast<unsigned>(std::min<std::uint64_t>(chunk_size_, total_ - payload_pos_));
      // The tag, then a 1-byte length below 256, else 2 bytes; after the last chunk the end tag.
      unsigned const nibble = n == 0 ? 0xF : (payload_pos_ == 0 ? 0xB : 0xD) + (n < 256 ? 0 : 1);
      header_ = std::string(1, static_cast<char>(prefix_ | nibble));
      if (n >= 256) header_ += static_cast<char>(n >> 8);
      if (n != 0) header_ += static_cast<char>(n & 0xFF);
      end_tag_done_ = n == 0;
      chunk_left_ = n;
    }
    unsigned n = std::min<unsigned>(size - done, static_cast<unsigned>(header_.size()));
    if (out && n != 0) std::memcpy(out + done, header_.data(), n);
    header_.erase(0, n);
    if (n == 0) {
      n = std::min(size - done, chunk_left_);
      if (out) pattern_fill(payload_pos_, out + done, n);
      payload_pos_ += n;
      chunk_left_ -= n;
    }
    done += n;
  }
  return done;
}

void CheckingSink::write(void const* data, unsigned size) {
  largest_ = std::max(largest_, size);
  if (scratch_.size() < size) scratch_.resize(size);
  unsigned const got = expected_->read(scratch_.data(), size);
  auto const* p = static_cast<unsigned char const*>(data);
  unsigned const same = static_cast<unsigned>(std::mismatch(p, p + got, scratch_.data()).first - p);
  if (!mismatch_ && (same < size)) {
    mismatch_ = true;
    mismatch_at_ = written_ + same;
  }
  written_ += size;
}

bool CheckingSink::expected_exhausted() {
  unsigned char probe;
  return expected_->read(&probe, 1) == 0;
}

}  // namespace zotest
