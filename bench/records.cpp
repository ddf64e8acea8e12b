#include "records.h"

namespace zobench {
namespace {

// splitmix64: tiny, fast, and its output is fixed by its definition alone.
class Random {
 public:
  explicit Random(std::uint64_t seed) noexcept : state_(seed) {}

  std::uint64_t next() noexcept {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  // Uniform enough in [lo, hi] for sizes and small ranges (the modulo bias is irrelevant here).
  std::uint64_t between(std::uint64_t lo, std::uint64_t hi) noexcept {
    return lo + next() % (hi - lo + 1);
  }
  bool coin() noexcept { return (next() & 1) != 0; }

 private:
  std::uint64_t state_;
};

constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";

std::string ascii(Random& rng, std::size_t min, std::size_t max) {
  std::string s(rng.between(min, max), ' ');
  for (char& c : s)
    c = kAlphabet[rng.next() % (sizeof kAlphabet - 1)];
  return s;
}

// Small, medium and large magnitudes in equal parts, each with either sign, so that the
// integer encodings of both formats get every width.
std::int64_t mixed_id(Random& rng) {
  std::uint64_t magnitude = 0;
  switch (rng.next() % 4) {
    case 0:  // fits a single tag or one payload byte
      magnitude = rng.between(0, 120);
      break;
    case 1:  // two to four bytes
      magnitude = rng.between(1000, 2'000'000);
      break;
    case 2:  // five to eight bytes
      magnitude = rng.between(10'000'000'000ull, 1'000'000'000'000'000ull);
      break;
    default:  // anything
      return static_cast<std::int64_t>(rng.next());
  }
  auto const v = static_cast<std::int64_t>(magnitude);
  return rng.coin() ? -v : v;
}

}  // namespace

std::vector<Record> generate_records(std::size_t count, std::uint64_t seed) {
  Random rng(seed);
  std::vector<Record> records(count);
  for (Record& r : records) {
    r.id = mixed_id(rng);
    r.flag = rng.coin();
    // A value in [-1000, 1000) with a full 53-bit mantissa, as measurements tend to have.
    r.score = static_cast<double>(rng.next() >> 11) * 0x1p-53 * 2000.0 - 1000.0;
    r.name = ascii(rng, 5, 20);
    r.tags.resize(rng.between(0, 5));
    for (std::string& tag : r.tags)
      tag = ascii(rng, 2, 8);
    r.blob.resize(rng.between(0, 64));
    for (char& b : r.blob)
      b = static_cast<char>(rng.next());
    r.nested.a = static_cast<std::int32_t>(static_cast<std::uint32_t>(rng.next()));
    r.nested.b = static_cast<std::int32_t>(rng.between(0, 1000)) - 500;
    r.nested.label = ascii(rng, 3, 12);
  }
  return records;
}

std::vector<Record> const& standard_records() {
  static std::vector<Record> const records = generate_records(kRecordCount, kRecordSeed);
  return records;
}

bool read_blob(zocore::IReadStream& stream, std::vector<char>& out) {
  unsigned const announced = stream.bytes_remaining();
  if (announced != zocore::IReadStream::kUnknownSize) {
    out.resize(announced);
    return stream.read(out.data(), announced) == announced;
  }
  // A chunked value: its size shows only at its end.
  out.clear();
  char piece[4096];
  unsigned got = 0;
  do {
    got = stream.read(piece, sizeof piece);
    out.insert(out.end(), piece, piece + got);
  } while (got == sizeof piece);
  return true;
}

namespace {

template <class Buffer>
void encode_msgpack_into(std::span<Record const> records, Buffer& out) {
  msgpack::packer<Buffer> pk(out);
  pk.pack_array(static_cast<std::uint32_t>(records.size()));
  for (Record const& r : records) {
    pk.pack_array(7);
    pk.pack_int64(r.id);
    pk.pack(r.flag);
    pk.pack_double(r.score);
    pk.pack_str(static_cast<std::uint32_t>(r.name.size()));
    pk.pack_str_body(r.name.data(), static_cast<std::uint32_t>(r.name.size()));
    pk.pack_array(static_cast<std::uint32_t>(r.tags.size()));
    for (std::string const& tag : r.tags) {
      pk.pack_str(static_cast<std::uint32_t>(tag.size()));
      pk.pack_str_body(tag.data(), static_cast<std::uint32_t>(tag.size()));
    }
    pk.pack_bin(static_cast<std::uint32_t>(r.blob.size()));
    pk.pack_bin_body(r.blob.data(), static_cast<std::uint32_t>(r.blob.size()));
    pk.pack_array(3);
    pk.pack_int32(r.nested.a);
    pk.pack_int32(r.nested.b);
    pk.pack_str(static_cast<std::uint32_t>(r.nested.label.size()));
    pk.pack_str_body(r.nested.label.data(), static_cast<std::uint32_t>(r.nested.label.size()));
  }
}

}  // namespace

void msgpack_encode(std::span<Record const> records, msgpack::sbuffer& out) {
  encode_msgpack_into(records, out);
}

void msgpack_encode(std::span<Record const> records, msgpack::vrefbuffer& out) {
  encode_msgpack_into(records, out);
}

std::string encode_msgpack(std::span<Record const> records) {
  msgpack::sbuffer buffer;
  msgpack_encode(records, buffer);
  return {buffer.data(), buffer.size()};
}

}  // namespace zobench
