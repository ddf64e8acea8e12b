#include <algorithm>
#include <bit>
#include <limits>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include <support/binary_golden.h>
#include <support/hex_bytes.h>
#include <support/random_document.h>
#include <support/test_streams.h>

namespace zotest {

using zoserialize::Reader;
using zoserialize::Writer;
using EToken = Reader::EToken;

class RandomDocument::Generator {
 public:
  // kSkip walks the structure without touching the reader: the part of a marker that an older
  // reader leaves to read_marker_end.
  enum class EMode { kWrite, kRead, kSkip };

  explicit Generator(std::uint64_t seed) : shape_(seed), reading_(seed ^ 0x5DEECE66Dull) {}

  std::vector<std::size_t> write(Writer& writer, std::function<std::size_t()> const& written) {
    w_ = &writer;
    std::vector<std::size_t> ends;
    for (unsigned n = 1 + below(12); n > 0; --n) {
      element(0);
      writer.flush();
      ends.push_back(written());
    }
    return ends;
  }

  void read(Reader& reader) {
    mode_ = EMode::kRead;
    r_ = &reader;
    for (unsigned n = 1 + below(12); n > 0; --n)
      element(0);
    EXPECT_EQ(reader.next_token(), EToken::Eof);  // also finishes a half-read payload stream
  }

 private:
  enum EKind {
    kNull,
    kBool,
    kInt,
    kUint,
    kDouble,
    kPayload,
    kTime = kPayload + 5,
    kUuid = kTime + 2,
    kSequence,
    kMarker,
    kKinds
  };

  unsigned below(unsigned n) { return static_cast<unsigned>(shape_() % n); }
  unsigned read_choice(unsigned n) { return static_cast<unsigned>(reading_() % n); }
  std::string random_bytes(std::size_t n) {
    std::string out(n, '\0');
    for (char& c : out)
      c = static_cast<char>(shape_());
    return out;
  }

  // Writes with `write`, or checks the next token and reads with `read`.
  template <class W, class R>
  void scalar(EToken token, W const& write, R const& read) {
    if (mode_ == EMode::kWrite) write();
    if (mode_ != EMode::kRead) return;
    EXPECT_EQ(r_->next_token(), token);
    read();
  }

  void element(int depth) {
    unsigned kind = budget_ == 0 ? 0u : below(kKinds);
    budget_ -= budget_ != 0;
    if (depth >= 5 && kind >= kSequence) kind = kNull;
    if (kind == kNull)
      scalar(
          EToken::Null, [&] { w_->write_null(); }, [&] { r_->read_null(); });
    if (kind == kBool) {
      bool const v = below(2) != 0;
      scalar(
          EToken::Boolean, [&] { w_->write_bool(v); }, [&] { EXPECT_EQ(r_->read_bool(), v); });
    }
    if (kind == kInt || kind == kUint) integer(kind == kInt);
    if (kind == kDouble) dbl();
    if (kind >= kPayload && kind < kTime) payload(kind - kPayload);
    if (kind == kTime || kind == kTime + 1) time(kind == kTime);
    if (kind == kUuid) {
      std::string const raw = below(2) ? std::string(16, '\0') : random_bytes(16);
      auto const id =
          zoserialize::Uuid::from_binary(reinterpret_cast<unsigned char const*>(raw.data()));
      scalar(
          EToken::Uuid, [&] { w_->write_uuid(id); }, [&] { EXPECT_EQ(r_->read_uuid(), id); });
    }
    if (kind == kSequence) sequence(depth);
    if (kind == kMarker) marker(depth);
  }

  // Images of 1 to 64 bytes whose significant part is shorter, sign- or zero-filled.
  void integer(bool is_signed) {
    unsigned const width = 1 + below(64);
    unsigned const significant = below(std::min(width, is_signed ? 64u : 63u) + 1);
    char const fill = is_signed && below(2) ? '\xFF' : '\0';
    std::string const image = std::string(width - significant, fill) + random_bytes(significant);
    scalar(
        is_signed ? EToken::SignedInteger : EToken::UnsignedInteger,
        [&] {
          is_signed ? w_->write_int_big_endian(image.data(), width)
                    : w_->write_uint_big_endian(image.data(), width);
        },
        [&] {
          std::string got(width, '?');
          is_signed ? r_->read_int_big_endian(got.data(), width)
                    : r_->read_uint_big_endian(got.data(), width);
          EXPECT_EQ(hex(got), hex(image));
        });
  }

  // Bit patterns that take every float form: 2, 3, 4 and 8 payload bytes and the special values.
  void dbl() {
    std::uint64_t const masks[] = {0xFFFFFFFF00000000ull, 0xFFFF000000000000ull,
                                   0xFFFFFF0000000000ull, ~0ull};
    std::uint64_t const special[] = {0,
                                     0x8000000000000000ull,
                                     0x3FF0000000000000ull,
                                     0xBFF0000000000000ull,
                                     0x7FF0000000000000ull,
                                     1};
    unsigned const form = below(5);
    std::uint64_t bits = form < 4 ? shape_() & masks[form] : special[below(6)];
    // A NaN equals nothing, so a document holding one would never compare equal.
    if ((bits & 0x7FF0000000000000ull) == 0x7FF0000000000000ull) bits &= 0xFFF0000000000000ull;
    scalar(
        EToken::Double, [&] { w_->write_double(std::bit_cast<double>(bits)); },
        [&] { EXPECT_EQ(std::bit_cast<std::uint64_t>(r_->read_double()), bits); });
  }

  void time(bool absolute) {
    using Limits = std::numeric_limits<std::int64_t>;
    std::int64_t const special[] = {0,          Limits::max(), Limits::min(), -1,
                                    0x7FFFFFFF, -0x80000000LL, 0x80000000LL,  -0x80000001LL};
    auto const count = below(2) ? special[below(8)] : static_cast<std::int64_t>(shape_());
    scalar(
        absolute ? EToken::AbsoluteTime : EToken::RelativeTime,
        [&] {
          absolute ? w_->write_absolute_time(zoserialize::AbsoluteTime(count))
                   : w_->write_relative_time(zoserialize::RelativeTime(count));
        },
        [&] {
          EXPECT_EQ(absolute ? r_->read_absolute_time().count() : r_->read_relative_time().count(),
                    count);
        });
  }

  // Whole, through a value stream in pieces below one chunk (so that the chunking stays
  // canonical), or from an input stream of known or unknown size; lengths around the seams.
  void payload(unsigned how) {
    enum { kWhole, kStream, kSource };
    unsigned const kinds[] = {kWhole, kStream, kWhole, kStream, kSource};
    unsigned const kind = kinds[how];
    bool const is_string = how < 2 || (kind == kSource && below(2));
    std::size_t const lengths[] = {below(8), 8 + below(300), 3900 + below(600),
                                   below(4) == 0 ? 8000 + below(5000) : below(40)};
    std::size_t const length = lengths[below(4)];
    std::string const data =
        is_string ? golden_text(length) : pattern_string(shape_() % 1000, length);
    std::vector<unsigned> pieces;
    for (std::size_t done = 0; kind == kStream && done < data.size(); done += pieces.back())
      pieces.push_back(
          std::min<unsigned>(1 + below(4095), static_cast<unsigned>(data.size() - done)));
    bool const known_size = kind == kSource && below(2);
    if (mode_ == EMode::kWrite) {
      auto const size = static_cast<unsigned>(data.size());
      if (kind == kWhole)
        is_string ? w_->write_string(data.data(), size) : w_->write_binary(data.data(), size);
      if (kind == kSource) {
        ByteSource source(data);
        if (!known_size) source.unknown_size();
        is_string ? w_->write_string_stream(source) : w_->write_binary(source);
      }
      if (kind != kStream) return;
      auto const stream = is_string ? w_->write_string_stream() : w_->write_binary();
      std::size_t at = 0;
      for (unsigned const piece : pieces) {
        stream->write(data.data() + at, piece);
        at += piece;
      }
      return;
    }
    if (mode_ != EMode::kRead) return;
    EXPECT_EQ(r_->next_token(), is_string ? EToken::String : EToken::Binary);
    if (is_string && read_choice(2) == 0) {
      EXPECT_TRUE(r_->read_string() == data);
      return;
    }
    // Odd pieces; now and then the rest is left for the next element to skip.
    auto const stream = is_string ? r_->read_string_stream() : r_->read_binary();
    std::string got;
    for (unsigned n = 1, piece = 1; n == piece;) {
      piece = 1 + read_choice(read_choice(2) == 0 ? 16 : 9000);
      std::string block(piece, '\0');
      n = stream->read(block.data(), piece);
      got.append(block.data(), n);
      if (n == piece && read_choice(8) == 0 && got.size() < data.size()) {
        EXPECT_TRUE(data.compare(0, got.size(), got) == 0);
        return;
      }
    }
    EXPECT_TRUE(got == data) << got.size() << " of " << data.size() << " bytes";
  }

  // Without hint, with the exact hint, or with hint 0.
  void sequence(int depth) {
    unsigned const count = below(4) == 0 ? below(200) : below(5);
    unsigned const form = below(3);
    unsigned const hint = form == 1 ? count : 0;
    bool const reading = mode_ == EMode::kRead;
    if (mode_ == EMode::kWrite)
      form == 0 ? w_->write_sequence_start() : w_->write_sequence_start(hint);
    if (reading) {
      EXPECT_EQ(r_->next_token(), EToken::SequenceStart);
      EXPECT_EQ(r_->read_sequence_start(), hint);
    }
    for (unsigned i = 0; i < count; ++i) {
      if (mode_ == EMode::kWrite && i != 0) w_->write_sequence_separator();
      if (reading) {
        EXPECT_TRUE(r_->read_sequence_next());
      }
      element(depth + 1);
    }
    if (mode_ == EMode::kWrite) w_->write_sequence_end();
    if (reading) {
      EXPECT_FALSE(r_->read_sequence_next());
    }
  }

  void marker(int depth) {
    EMode const outer = mode_;
    if (outer == EMode::kWrite) w_->write_marker_start();
    if (outer == EMode::kRead) {
      EXPECT_EQ(r_->next_token(), EToken::MarkerStart);
      r_->read_marker_start();
    }
    for (unsigned n = below(5); n > 0; --n) {
      if (mode_ == EMode::kRead) {
        EXPECT_FALSE(r_->read_marker_is_end());
      }
      // An older reader knows fewer fields: the marker end skips the rest.
      if (mode_ == EMode::kRead && read_choice(6) == 0) mode_ = EMode::kSkip;
      element(depth + 1);
    }
    mode_ = outer;
    if (outer == EMode::kWrite) w_->write_marker_end();
    if (outer == EMode::kRead) r_->read_marker_end();
  }

  std::mt19937_64 shape_;    // structure: the same in every mode
  std::mt19937_64 reading_;  // choices only the reading side makes
  EMode mode_ = EMode::kWrite;
  unsigned budget_ = 300;  // elements with content; the rest are nulls
  Writer* w_ = nullptr;
  Reader* r_ = nullptr;
};

RandomDocument::RandomDocument(std::uint64_t seed)
    : generator_(std::make_unique<Generator>(seed)) {}

RandomDocument::~RandomDocument() = default;

std::vector<std::size_t> RandomDocument::write(Writer& writer,
                                               std::function<std::size_t()> const& written) {
  return generator_->write(writer, written);
}

void RandomDocument::read(Reader& reader) {
  generator_->read(reader);
}

}  // namespace zotest
