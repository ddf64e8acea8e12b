#include <array>

#include <zoserialize/impl/base64_decoder.h>

namespace zoserialize::impl {
namespace {

constexpr std::uint8_t kInvalid = 0xFF;
constexpr std::uint8_t kSpace = 0xFE;
constexpr std::uint8_t kPad = 0xFD;

constexpr std::array<std::uint8_t, 256> make_table() {
  constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::array<std::uint8_t, 256> t{};
  t.fill(kInvalid);
  for (unsigned i = 0; i < 64; ++i)
    t[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
  t[' '] = t['\t'] = t['\n'] = t['\r'] = kSpace;
  t['='] = kPad;
  return t;
}
constexpr std::array<std::uint8_t, 256> kTable = make_table();

void put_group(unsigned char* out, std::uint32_t v) noexcept {
  out[0] = static_cast<unsigned char>(v >> 16);
  out[1] = static_cast<unsigned char>(v >> 8);
  out[2] = static_cast<unsigned char>(v);
}

}  // namespace

bool Base64Decoder::feed(char const* text, std::size_t size, unsigned char* out,
                         std::size_t& produced) noexcept {
  unsigned char* const start = out;
  auto const* p = reinterpret_cast<unsigned char const*>(text);
  auto const* const end = p + size;
  while (p != end) {
    // Whole groups while they are plain base64.
    if (sextets_ == 0 && padding_ == 0) {
      while (end - p >= 4) {
        std::uint32_t const a = kTable[p[0]];
        std::uint32_t const b = kTable[p[1]];
        std::uint32_t const c = kTable[p[2]];
        std::uint32_t const d = kTable[p[3]];
        if ((a | b | c | d) >= 64) break;
        put_group(out, a << 18 | b << 12 | c << 6 | d);
        out += 3;
        p += 4;
        offset_ += 4;
      }
      if (p == end) break;
    }
    std::uint8_t const v = kTable[*p];
    if (v < 64) {
      if (padding_ != 0 || done_) {
        produced = static_cast<std::size_t>(out - start);
        return fail(offset_);
      }
      group_ = group_ << 6 | v;
      last_offset_ = offset_;
      if (++sextets_ == 4) {
        put_group(out, group_);
        out += 3;
        group_ = 0;
        sextets_ = 0;
      }
    } else if (v == kPad) {
      // Padding completes a final group of two or three characters.
      if (done_ || sextets_ < 2 || sextets_ + padding_ == 4) {
        produced = static_cast<std::size_t>(out - start);
        return fail(offset_);
      }
      if (sextets_ + ++padding_ == 4) {
        if (!put_last_group(out)) {
          produced = static_cast<std::size_t>(out - start);
          return false;
        }
        done_ = true;
      }
    } else if (v != kSpace) {
      produced = static_cast<std::size_t>(out - start);
      return fail(offset_);
    }
    ++p;
    ++offset_;
  }
  produced = static_cast<std::size_t>(out - start);
  return true;
}

bool Base64Decoder::finish(unsigned char* out, std::size_t& produced) noexcept {
  produced = 0;
  if (done_ || sextets_ == 0) return true;
  // One character is not even a byte; a padding that was begun must be completed.
  if (sextets_ == 1 || padding_ != 0) return fail(offset_);
  unsigned char* o = out;
  if (!put_last_group(o)) return false;
  produced = static_cast<std::size_t>(o - out);
  return true;
}

bool Base64Decoder::put_last_group(unsigned char*& out) noexcept {
  if (sextets_ == 2) {
    if ((group_ & 0x0F) != 0) return fail(last_offset_);
    *out++ = static_cast<unsigned char>(group_ >> 4);
  } else {
    if ((group_ & 0x03) != 0) return fail(last_offset_);
    *out++ = static_cast<unsigned char>(group_ >> 10);
    *out++ = static_cast<unsigned char>(group_ >> 2);
  }
  group_ = 0;
  sextets_ = 0;
  return true;
}

}  // namespace zoserialize::impl
