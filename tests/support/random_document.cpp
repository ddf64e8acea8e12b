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
  enum class EMode { kWrite, kRead, kReplay };

  explicit Generator(std::uint64_t seed) : shape_(seed), reading_(seed ^ 0x5DEECE66Dull) {}

  std::vector<std::size_t> write(Writer& writer, std::function<std::size_t()> const& written) {
    mode_ = EMode::kWrite;
    writer_ = &writer;
    std::vector<std::size_t> ends;
    unsigned const n = 1 + below(12);
    for (unsigned i = 0; i < n; ++i) {
      element(0);
      writer.flush();
      ends.push_back(written());
    }
    return ends;
  }

  void read(Reader& reader) {
    mode_ = EMode::kRead;
    reader_ = &reader;
    unsigned const n = 1 + below(12);
    for (unsigned i = 0; i < n; ++i)
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

  std::size_t payload_length() {
    switch (below(5)) {
      case 0:
        return below(8);
      case 1:
        return 8 + below(300);
      case 2:
        return 3900 + below(600);  // around one chunk
      case 3:
        return below(4) == 0 ? 8000 + below(5000) : below(40);
      default:
        return below(40);
    }
  }

  void element(int depth) {
    unsigned kind = below(kKinds);
    if (budget_ == 0) {
      kind = kNull;
    } else {
      --budget_;
    }
    if (depth >= 5 && (kind == kSequence || kind == kMarker)) kind = kNull;
    switch (kind) {
      case kNull:
        scalar(
            EToken::Null, [&] { writer_->write_null(); }, [&] { reader_->read_null(); });
        break;
      case kBool: {
        bool const v = coin();
        scalar(
            EToken::Boolean, [&] { writer_->write_bool(v); },
            [&] { EXPECT_EQ(reader_->read_bool(), v); });
        break;
      }
      case kInt:
      case kUint: {
        bool const is_signed = kind == kInt;
        unsigned const width = 1 + below(64);
        unsigned const significant = below(std::min(width, is_signed ? 64u : 63u) + 1);
        char const fill = is_signed && coin() ? '\xFF' : '\0';
        std::string const image =
            std::string(width - significant, fill) + random_bytes(significant);
        scalar(
            is_signed ? EToken::SignedInteger : EToken::UnsignedInteger,
            [&] {
              if (is_signed) {
                writer_->write_int_big_endian(image.data(), width);
              } else {
                writer_->write_uint_big_endian(image.data(), width);
              }
            },
            [&] {
              std::string got(width, '?');
              if (is_signed) {
                reader_->read_int_big_endian(got.data(), width);
              } else {
                reader_->read_uint_big_endian(got.data(), width);
              }
              EXPECT_EQ(hex(got), hex(image));
            });
        break;
      }
      case kDouble: {
        std::uint64_t bits = shape_();
        switch (below(5)) {
          case 0:
            bits &= 0xFFFFFFFF00000000ull;
            break;
          case 1:
            bits &= 0xFFFF000000000000ull;
            break;
          case 2:
            bits &= 0xFFFFFF0000000000ull;
            break;
          case 3: {
            std::uint64_t const special[] = {0,
                                             0x8000000000000000ull,
                                             0x3FF0000000000000ull,
                                             0xBFF0000000000000ull,
                                             0x7FF0000000000000ull,
                                             0x0000000000000001ull};
            bits = special[below(6)];
            break;
          }
          default:
            break;
        }
        // A NaN equals nothing, so a document holding one never compares equal.
        if ((bits & 0x7FF0000000000000ull) == 0x7FF0000000000000ull) bits &= 0xFFF0000000000000ull;
        scalar(
            EToken::Double, [&] { writer_->write_double(std::bit_cast<double>(bits)); },
            [&] { EXPECT_EQ(std::bit_cast<std::uint64_t>(reader_->read_double()), bits); });
        break;
      }
      case kString:
      case kStringStream:
      case kBinary:
      case kBinaryStream:
      case kFromStream:
        payload(kind);
        break;
      case kAbsoluteTime:
      case kRelativeTime: {
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
        bool const absolute = kind == kAbsoluteTime;
        scalar(
            absolute ? EToken::AbsoluteTime : EToken::RelativeTime,
            [&] {
              if (absolute) {
                writer_->write_absolute_time(zoserialize::AbsoluteTime(count));
              } else {
                writer_->write_relative_time(zoserialize::RelativeTime(count));
              }
            },
            [&] {
              EXPECT_EQ(absolute ? reader_->read_absolute_time().count()
                                 : reader_->read_relative_time().count(),
                        count);
            });
        break;
      }
      case kUuid: {
        std::string const raw = coin() ? std::string(16, '\0') : random_bytes(16);
        auto const id =
            zoserialize::Uuid::from_binary(reinterpret_cast<unsigned char const*>(raw.data()));
        scalar(
            EToken::Uuid, [&] { writer_->write_uuid(id); },
            [&] { EXPECT_EQ(reader_->read_uuid(), id); });
        break;
      }
      case kSequence:
        sequence(depth);
        break;
      case kMarker:
        marker(depth);
        break;
      default:
        break;
    }
  }

  template <class W, class R>
  void scalar(EToken token, W const& write, R const& read) {
    if (mode_ == EMode::kWrite) {
      write();
    } else if (mode_ == EMode::kRead) {
      EXPECT_EQ(reader_->next_token(), token);
      read();
    }
  }

  void payload(unsigned kind) {
    bool const is_string =
        kind == kString || kind == kStringStream || (kind == kFromStream && coin());
    std::size_t const length = payload_length();
    std::string const data =
        is_string ? golden_text(length) : pattern_string(shape_() % 1000, length);
    std::vector<unsigned> pieces;  // pieces below one chunk keep the chunking canonical
    bool known_size = true;
    if (kind == kStringStream || kind == kBinaryStream) {
      for (std::size_t done = 0; done < data.size();) {
        unsigned const piece =
            std::min<unsigned>(1 + below(4095), static_cast<unsigned>(data.size() - done));
        pieces.push_back(piece);
        done += piece;
      }
    }
    if (kind == kFromStream) known_size = coin();
    if (mode_ == EMode::kWrite) {
      if (kind == kString) {
        writer_->write_string(data.data(), static_cast<unsigned>(data.size()));
      } else if (kind == kBinary) {
        writer_->write_binary(data.data(), static_cast<unsigned>(data.size()));
      } else if (kind == kFromStream) {
        ByteSource source(data);
        if (!known_size) source.unknown_size();
        if (is_string) {
          writer_->write_string_stream(source);
        } else {
          writer_->write_binary(source);
        }
      } else {
        auto const stream = is_string ? writer_->write_string_stream() : writer_->write_binary();
        std::size_t at = 0;
        for (unsigned piece : pieces) {
          stream->write(data.data() + at, piece);
          at += piece;
        }
      }
      return;
    }
    if (mode_ != EMode::kRead) return;
    EXPECT_EQ(reader_->next_token(), is_string ? EToken::String : EToken::Binary);
    if (is_string && read_choice(2) == 0) {
      EXPECT_TRUE(reader_->read_string() == data);
      return;
    }
    auto const stream = is_string ? reader_->read_string_stream() : reader_->read_binary();
    std::string got;
    for (;;) {
      unsigned const piece = 1 + read_choice(read_choice(2) == 0 ? 16 : 9000);
      std::string block(piece, '\0');
      unsigned const n = stream->read(block.data(), piece);
      got.append(block.data(), n);
      if (n < piece) break;
      if (read_choice(8) == 0 && got.size() < data.size()) {
        // Leave the rest for the next element to skip.
        EXPECT_TRUE(data.compare(0, got.size(), got) == 0);
        return;
      }
    }
    EXPECT_TRUE(got == data) << got.size() << " of " << data.size() << " bytes";
  }

  void sequence(int depth) {
    unsigned const count = below(4) == 0 ? below(200) : below(5);
    unsigned const form = below(3);  // no hint, exact hint, hint 0
    unsigned const hint = form == 1 ? count : 0;
    if (mode_ == EMode::kWrite) {
      if (form == 0) {
        writer_->write_sequence_start();
      } else {
        writer_->write_sequence_start(hint);
      }
    } else if (mode_ == EMode::kRead) {
      EXPECT_EQ(reader_->next_token(), EToken::SequenceStart);
      EXPECT_EQ(reader_->read_sequence_start(), hint);
    }
    for (unsigned i = 0; i < count; ++i) {
      if (mode_ == EMode::kWrite && i != 0) writer_->write_sequence_separator();
      if (mode_ == EMode::kRead) {
        EXPECT_TRUE(reader_->read_sequence_next());
      }
      element(depth + 1);
    }
    if (mode_ == EMode::kWrite) writer_->write_sequence_end();
    if (mode_ == EMode::kRead) {
      EXPECT_FALSE(reader_->read_sequence_next());
    }
  }

  void marker(int depth) {
    unsigned const count = below(5);
    EMode const outer = mode_;
    if (outer == EMode::kWrite) writer_->write_marker_start();
    if (outer == EMode::kRead) {
      EXPECT_EQ(reader_->next_token(), EToken::MarkerStart);
      reader_->read_marker_start();
    }
    for (unsigned i = 0; i < count; ++i) {
      if (mode_ == EMode::kRead) {
        EXPECT_FALSE(reader_->read_marker_is_end());
        // An older reader knows fewer fields: the marker end skips the rest.
        if (read_choice(6) == 0) mode_ = EMode::kReplay;
      }
      element(depth + 1);
    }
    mode_ = outer;
    if (outer == EMode::kWrite) writer_->write_marker_end();
    if (outer == EMode::kRead) reader_->read_marker_end();
  }

  std::mt19937_64 shape_;
  std::mt19937_64 reading_;
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
