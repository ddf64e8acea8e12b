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

// A gtest assertion as a plain call, so that it can stand in an if without braces.
template <class A, class B>
void expect_eq(A const& got, B const& want) {
  EXPECT_EQ(got, want);
}

class RandomDocument::Generator {
 public:
  // kSkip walks the structure without touching the reader: the part of a marker that an older
  // reader leaves to read_marker_end.
  enum class EMode { kWrite, kRead, kSkip };

  explicit Generator(std::uint64_t seed) : shape_(seed), reading_(seed ^ 0x5DEECE66Dull) {}

  std::vector<std::size_t> write(Writer& writer, std::function<std::size_t()> const& written) {
    writer_ = &writer;
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
    reader_ = &reader;
    for (unsigned n = 1 + below(12); n > 0; --n)
      element(0);
    // Also finishes a payload stream that was left half read.
    EXPECT_EQ(reader.next_token(), EToken::Eof);
  }

 private:
  enum EKind {
    kNull,
    kBool,
    kInt,
    kUint,
    kDouble,
    kString,
    kStringStream,
    kBinary,
    kBinaryStream,
    kFromStream,
    kAbsoluteTime,
    kRelativeTime,
    kUuid,
    kSequence,
    kMarker,
    kKinds
  };

  unsigned below(unsigned n) { return static_cast<unsigned>(shape_() % n); }
  bool coin() { return (shape_() & 1) != 0; }
  unsigned read_choice(unsigned n) { return static_cast<unsigned>(reading_() % n); }

  std::string random_bytes(std::size_t n) {
    std::string out(n, '\0');
    for (char& c : out)
      c = static_cast<char>(shape_());
    return out;
  }

  // Lengths around the seams: inline, 1-byte, around one 4096-byte chunk, several chunks.
  std::size_t payload_length() {
    switch (below(5)) {
      case 0:
        return below(8);
      case 1:
        return 8 + below(300);
      case 2:
        return 3900 + below(600);
      case 3:
        return below(4) == 0 ? 8000 + below(5000) : below(40);
      default:
        return below(40);
    }
  }

  // Writes with `write`, or checks the next token and reads with `read`.
  template <class W, class R>
  void scalar(EToken token, W const& write, R const& read) {
    if (mode_ == EMode::kWrite) write();
    if (mode_ != EMode::kRead) return;
    EXPECT_EQ(reader_->next_token(), token);
    read();
  }

  void element(int depth) {
    unsigned kind = below(kKinds);
    if (budget_ == 0) kind = kNull;
    if (budget_ != 0) --budget_;
    if (depth >= 5 && (kind == kSequence || kind == kMarker)) kind = kNull;
    if (kind == kNull)
      scalar(
          EToken::Null, [&] { writer_->write_null(); }, [&] { reader_->read_null(); });
    if (kind == kBool) {
      bool const v = coin();
      scalar(
          EToken::Boolean, [&] { writer_->write_bool(v); },
          [&] { EXPECT_EQ(reader_->read_bool(), v); });
    }
    if (kind == kInt || kind == kUint) integer(kind == kInt);
    if (kind == kDouble) dbl();
    if (kind >= kString && kind <= kFromStream) payload(kind);
    if (kind == kAbsoluteTime || kind == kRelativeTime) time(kind == kAbsoluteTime);
    if (kind == kUuid) {
      std::string const raw = coin() ? std::string(16, '\0') : random_bytes(16);
      auto const id =
          zoserialize::Uuid::from_binary(reinterpret_cast<unsigned char const*>(raw.data()));
      scalar(
          EToken::Uuid, [&] { writer_->write_uuid(id); },
          [&] { EXPECT_EQ(reader_->read_uuid(), id); });
    }
    if (kind == kSequence) sequence(depth);
    if (kind == kMarker) marker(depth);
  }

  // Images of 1 to 64 bytes whose significant part is shorter, sign- or zero-filled.
  void integer(bool is_signed) {
    unsigned const width = 1 + below(64);
    unsigned const significant = below(std::min(width, is_signed ? 64u : 63u) + 1);
    char const fill = is_signed && coin() ? '\xFF' : '\0';
    std::string const image = std::string(width - significant, fill) + random_bytes(significant);
    scalar(
        is_signed ? EToken::SignedInteger : EToken::UnsignedInteger,
        [&] {
          is_signed ? writer_->write_int_big_endian(image.data(), width)
                    : writer_->write_uint_big_endian(image.data(), width);
        },
        [&] {
          std::string got(width, '?');
          is_signed ? reader_->read_int_big_endian(got.data(), width)
                    : reader_->read_uint_big_endian(got.data(), width);
          EXPECT_EQ(hex(got), hex(image));
        });
  }

  // Bit patterns that take every float form: 2, 3, 4 and 8 payload bytes and the special values.
  void dbl() {
    std::uint64_t bits = shape_();
    std::uint64_t const masks[] = {0xFFFFFFFF00000000ull, 0xFFFF000000000000ull,
                                   0xFFFFFF0000000000ull};
    std::uint64_t const special[] = {0,
                                     0x8000000000000000ull,
                                     0x3FF0000000000000ull,
                                     0xBFF0000000000000ull,
                                     0x7FF0000000000000ull,
                                     1};
    unsigned const form = below(5);
    if (form < 3) bits &= masks[form];
    if (form == 3) bits = special[below(6)];
    // A NaN equals nothing, so a document holding one would never compare equal.
    if ((bits & 0x7FF0000000000000ull) == 0x7FF0000000000000ull) bits &= 0xFFF0000000000000ull;
    scalar(
        EToken::Double, [&] { writer_->write_double(std::bit_cast<double>(bits)); },
        [&] { EXPECT_EQ(std::bit_cast<std::uint64_t>(reader_->read_double()), bits); });
  }

  void time(bool absolute) {
    std::int64_t const special[] = {0,
                                    std::numeric_limits<std::int64_t>::max(),
                                    std::numeric_limits<std::int64_t>::min(),
                                    -1,
                                    1,
                                    0x7FFFFFFF,
                                    -0x80000000LL,
                                    0x80000000LL,
                                    -0x80000001LL};
    std::int64_t const count = coin() ? special[below(9)] : static_cast<std::int64_t>(shape_());
    scalar(
        absolute ? EToken::AbsoluteTime : EToken::RelativeTime,
        [&] {
          absolute ? writer_->write_absolute_time(zoserialize::AbsoluteTime(count))
                   : writer_->write_relative_time(zoserialize::RelativeTime(count));
        },
        [&] {
          EXPECT_EQ(absolute ? reader_->read_absolute_time().count()
                             : reader_->read_relative_time().count(),
                    count);
        });
  }

  void payload(unsigned kind) {
    bool const is_string =
        kind == kString || kind == kStringStream || (kind == kFromStream && coin());
    std::size_t const length = payload_length();
    std::string const data =
        is_string ? golden_text(length) : pattern_string(shape_() % 1000, length);
    std::vector<unsigned> pieces;  // below one chunk, so that the chunking stays canonical
    for (std::size_t done = 0;
         (kind == kStringStream || kind == kBinaryStream) && done < data.size();) {
      pieces.push_back(
          std::min<unsigned>(1 + below(4095), static_cast<unsigned>(data.size() - done)));
      done += pieces.back();
    }
    bool const known_size = kind == kFromStream && coin();
    if (mode_ == EMode::kWrite) {
      auto const size = static_cast<unsigned>(data.size());
      if (kind == kString) writer_->write_string(data.data(), size);
      if (kind == kBinary) writer_->write_binary(data.data(), size);
      if (kind == kFromStream) {
        ByteSource source(data);
        if (!known_size) source.unknown_size();
        is_string ? writer_->write_string_stream(source) : writer_->write_binary(source);
      }
      if (kind != kStringStream && kind != kBinaryStream) return;
      auto const stream = is_string ? writer_->write_string_stream() : writer_->write_binary();
      std::size_t at = 0;
      for (unsigned const piece : pieces) {
        stream->write(data.data() + at, piece);
        at += piece;
      }
      return;
    }
    if (mode_ != EMode::kRead) return;
    EXPECT_EQ(reader_->next_token(), is_string ? EToken::String : EToken::Binary);
    if (is_string && read_choice(2) == 0) {
      EXPECT_TRUE(reader_->read_string() == data);
      return;
    }
    // Odd pieces; now and then the rest is left for the next element to skip.
    auto const stream = is_string ? reader_->read_string_stream() : reader_->read_binary();
    std::string got;
    for (;;) {
      unsigned const piece = 1 + read_choice(read_choice(2) == 0 ? 16 : 9000);
      std::string block(piece, '\0');
      unsigned const n = stream->read(block.data(), piece);
      got.append(block.data(), n);
      if (n < piece) break;
      if (read_choice(8) == 0 && got.size() < data.size()) {
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
    if (mode_ == EMode::kWrite)
      form == 0 ? writer_->write_sequence_start() : writer_->write_sequence_start(hint);
    if (mode_ == EMode::kRead) expect_eq(reader_->next_token(), EToken::SequenceStart);
    if (mode_ == EMode::kRead) expect_eq(reader_->read_sequence_start(), hint);
    for (unsigned i = 0; i < count; ++i) {
      if (mode_ == EMode::kWrite && i != 0) writer_->write_sequence_separator();
      if (mode_ == EMode::kRead) expect_eq(reader_->read_sequence_next(), true);
      element(depth + 1);
    }
    if (mode_ == EMode::kWrite) writer_->write_sequence_end();
    if (mode_ == EMode::kRead) expect_eq(reader_->read_sequence_next(), false);
  }

  void marker(int depth) {
    EMode const outer = mode_;
    if (outer == EMode::kWrite) writer_->write_marker_start();
    if (outer == EMode::kRead) expect_eq(reader_->next_token(), EToken::MarkerStart);
    if (outer == EMode::kRead) reader_->read_marker_start();
    for (unsigned n = below(5); n > 0; --n) {
      if (mode_ == EMode::kRead) expect_eq(reader_->read_marker_is_end(), false);
      // An older reader knows fewer fields: the marker end skips the rest.
      if (mode_ == EMode::kRead && read_choice(6) == 0) mode_ = EMode::kSkip;
      element(depth + 1);
    }
    mode_ = outer;
    if (outer == EMode::kWrite) writer_->write_marker_end();
    if (outer == EMode::kRead) reader_->read_marker_end();
  }

  std::mt19937_64 shape_;    // structure: the same in every mode
  std::mt19937_64 reading_;  // choices only the reading side makes
  EMode mode_ = EMode::kWrite;
  unsigned budget_ = 300;  // elements with content; the rest are nulls
  Writer* writer_ = nullptr;
  Reader* reader_ = nullptr;
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
