#include <cstdint>
#include <cstring>
#include <random>
#include <string_view>

#include <zocore/core_errors.h>
#include <zocore/error_composer.h>
#include <zocore/uuid.h>

namespace zocore {
namespace {

constexpr char kModuleId[] = "$Id: src/zocore/uuid.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

constexpr unsigned kHyphenatedSize = 36;
constexpr unsigned kCompactSize = 32;
constexpr char kHexDigits[] = "0123456789abcdef";

constexpr bool is_hyphen_position(unsigned i) noexcept {
  return i == 8 || i == 13 || i == 18 || i == 23;
}

int hex_value(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool parse(char const* text, unsigned size, std::array<unsigned char, 16>* bytes) noexcept {
  if (size != kHyphenatedSize && size != kCompactSize) return false;
  bool const hyphenated = size == kHyphenatedSize;
  unsigned pos = 0;
  for (unsigned char& byte : *bytes) {
    if (hyphenated && is_hyphen_position(pos)) {
      if (text[pos] != '-') return false;
      ++pos;
    }
    int const high = hex_value(text[pos]);
    int const low = hex_value(text[pos + 1]);
    if (high < 0 || low < 0) return false;
    byte = static_cast<unsigned char>(high << 4 | low);
    pos += 2;
  }
  return true;
}

[[noreturn, gnu::cold]] void throw_invalid_text(char const* text, unsigned size) {
  ErrorComposer("Invalid UUID text: \"{@text}\"")
      .add("text", size == 0 ? std::string_view() : std::string_view(text, size))
      .throw_error(error::zocore_format, here("zocore::Uuid::from_string()"));
}

// The finaliser of MurmurHash3: every input bit affects every output bit.
constexpr std::uint64_t mix(std::uint64_t h) noexcept {
  h ^= h >> 33;
  h *= 0xFF51AFD7ED558CCDULL;
  h ^= h >> 33;
  h *= 0xC4CEB9FE1A85EC53ULL;
  h ^= h >> 33;
  return h;
}

// One generator per thread: no lock on the path, and each is seeded from the system's entropy
// source on first use so that threads never share a sequence.
std::mt19937_64& thread_generator() {
  thread_local std::mt19937_64 generator = [] {
    std::random_device device;
    std::seed_seq seeds{device(), device(), device(), device(),
                        device(), device(), device(), device()};
    return std::mt19937_64(seeds);
  }();
  return generator;
}

}  // namespace

Uuid Uuid::from_binary(unsigned char const* data) noexcept {
  Uuid result;
  std::memcpy(result.bytes_.data(), data, kBinarySize);
  return result;
}

Uuid Uuid::from_string(char const* text, unsigned size) {
  Uuid result;
  if (!parse(text, size, &result.bytes_)) throw_invalid_text(text, size);
  return result;
}

bool Uuid::from_string_nothrow(char const* text, unsigned size, Uuid* out) noexcept {
  std::array<unsigned char, 16> bytes{};
  if (!parse(text, size, &bytes)) return false;
  out->bytes_ = bytes;
  return true;
}

Uuid Uuid::create_random() {
  std::mt19937_64& generator = thread_generator();
  std::uint64_t const words[2] = {generator(), generator()};
  Uuid result;
  std::memcpy(result.bytes_.data(), words, kBinarySize);
  result.bytes_[6] = static_cast<unsigned char>((result.bytes_[6] & 0x0F) | 0x40);  // version 4
  result.bytes_[8] = static_cast<unsigned char>((result.bytes_[8] & 0x3F) | 0x80);  // RFC 4122
  return result;
}

bool Uuid::is_null() const noexcept {
  for (unsigned char const byte : bytes_) {
    if (byte != 0) return false;
  }
  return true;
}

unsigned Uuid::write_binary(unsigned char* out) const noexcept {
  std::memcpy(out, bytes_.data(), kBinarySize);
  return kBinarySize;
}

std::string Uuid::as_string(EFormat format) const {
  bool const hyphenated = format == kHyphenated;
  std::string text(hyphenated ? kHyphenatedSize : kCompactSize, '-');
  unsigned pos = 0;
  for (unsigned char const byte : bytes_) {
    if (hyphenated && is_hyphen_position(pos)) ++pos;
    text[pos] = kHexDigits[byte >> 4];
    text[pos + 1] = kHexDigits[byte & 0x0F];
    pos += 2;
  }
  return text;
}

std::size_t UuidHash::operator()(Uuid const& u) const noexcept {
  std::uint64_t words[2];
  std::memcpy(words, u.bytes().data(), sizeof words);
  // Random UUIDs are already uniform, but structured ones (sequential, time-based) differ in a
  // few bytes only, so each half goes through a full mix before the next is folded in.
  return static_cast<std::size_t>(mix(mix(words[0]) ^ words[1]));
}

}  // namespace zocore
