// A binary and a string of more than 4 GiB each through XmlWriter's value streams into an ostream,
// and back through an XmlReader over an IReadStream. The payloads and the document are generated
// and checked on the fly, so memory use must stay flat however much passes through.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <support/error_matchers.h>
#include <support/test_streams.h>
#include <support/xml_golden.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/string_ostream.h>
#include <zoserialize/xml_reader.h>
#include <zoserialize/xml_writer.h>

namespace {

using zoserialize::InterfacePtr;
using zoserialize::IReadStream;
using zoserialize::IWriteStream;

constexpr std::uint64_t kTotal = (std::uint64_t{4} << 30) + 4099;  // past every 32-bit count
constexpr unsigned kPiece = 1u << 20;

long peak_rss_kib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// The string's bytes: printable ASCII made from the pattern (a streamed string this long is
// base64 in the document, so any valid UTF-8 would do).
void string_fill(std::uint64_t offset, char* out, std::size_t size) {
  zotest::pattern_fill(offset, out, size);
  for (std::size_t i = 0; i < size; ++i)
    out[i] = static_cast<char>(0x20 + static_cast<unsigned char>(out[i]) % 95);
}

// The document XmlWriter must produce, without layout, for the binary [0, kTotal) of the pattern
// followed by the string [0, kTotal) of string_fill: both in base64, encoded here group by group,
// independently of the codecs under test.
class ExpectedXml final : public zocore::RefCounted<zocore::AtomicRefCount>, public IReadStream {
 public:
  unsigned read(void* buffer, unsigned size) override {
    auto* out = static_cast<char*>(buffer);
    unsigned done = 0;
    while (done < size) {
      if (at_ == staged_.size() && !stage()) break;
      auto const n =
          static_cast<unsigned>(std::min<std::size_t>(size - done, staged_.size() - at_));
      std::copy_n(staged_.data() + at_, n, out + done);
      at_ += n;
      done += n;
    }
    return done;
  }
  unsigned skip(unsigned) override { return 0; }
  unsigned bytes_remaining() const override { return kUnknownSize; }

 private:
  // Stages the next piece of text; false at its end.
  bool stage() {
    static constexpr char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    staged_.clear();
    at_ = 0;
    if (phase_ == 0) {
      staged_ = std::string(zotest::kXmlRoot) + "<Binary encoding=\"base64\">";
      phase_ = 1;
    } else if (phase_ == 1 || phase_ == 3) {
      auto const n = static_cast<unsigned>(std::min<std::uint64_t>(3 * 4096, kTotal - offset_));
      block_.resize(n);
      if (phase_ == 1) {
        zotest::pattern_fill(offset_, block_.data(), n);
      } else {
        string_fill(offset_, block_.data(), n);
      }
      for (unsigned i = 0; i < n; i += 3) {
        unsigned const left = n - i;
        std::uint32_t v = std::uint32_t{static_cast<unsigned char>(block_[i])} << 16;
        if (left > 1) v |= std::uint32_t{static_cast<unsigned char>(block_[i + 1])} << 8;
        if (left > 2) v |= static_cast<unsigned char>(block_[i + 2]);
        staged_ += kAlphabet[v >> 18];
        staged_ += kAlphabet[(v >> 12) & 63];
        staged_ += left > 1 ? kAlphabet[(v >> 6) & 63] : '=';
        staged_ += left > 2 ? kAlphabet[v & 63] : '=';
      }
      offset_ += n;
      if (offset_ == kTotal) ++phase_, offset_ = 0;
    } else if (phase_ == 2) {
      staged_ = "</Binary><String encoding=\"base64\">";
      phase_ = 3;
    } else if (phase_ == 4) {
      staged_ = "</String></Serialized>";
      phase_ = 5;
    }
    return !staged_.empty();
  }

  int phase_ = 0;
  std::uint64_t offset_ = 0;
  std::string block_;
  std::string staged_;
  std::size_t at_ = 0;
};

class XmlStreamLargeTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_LT(peak_rss_kib() - rss_before_, 64L * 1024) << "KiB"; }
  long rss_before_ = peak_rss_kib();
};

TEST_F(XmlStreamLargeTest, WriterStreamsMoreThan4GiB) {
  auto const sink =
      zocore::make_ref_counted<zotest::CheckingSink>(zocore::make_ref_counted<ExpectedXml>());
  {
    zoserialize::StringOStream os{InterfacePtr<IWriteStream>(sink)};
    zoserialize::XmlWriter writer(os, "", "");
    std::vector<char> piece(kPiece);
    InterfacePtr<IWriteStream> const binary = writer.write_binary();
    for (std::uint64_t done = 0; done < kTotal; done += kPiece) {
      auto const n = static_cast<unsigned>(std::min<std::uint64_t>(kPiece, kTotal - done));
      zotest::pattern_fill(done, piece.data(), n);
      binary->write(piece.data(), n);
    }
    InterfacePtr<IWriteStream> const string = writer.write_string_stream();
    for (std::uint64_t done = 0; done < kTotal; done += kPiece) {
      auto const n = static_cast<unsigned>(std::min<std::uint64_t>(kPiece, kTotal - done));
      string_fill(done, piece.data(), n);
      string->write(piece.data(), n);
    }
    writer.close();
    os.flush();
  }
  EXPECT_TRUE(sink->matches()) << "first difference at " << sink->mismatch_offset();
  EXPECT_TRUE(sink->expected_exhausted());
}

TEST_F(XmlStreamLargeTest, ReaderStreamsMoreThan4GiB) {
  zoserialize::XmlReader reader(InterfacePtr<IReadStream>(zocore::make_ref_counted<ExpectedXml>()));
  std::vector<char> block(kPiece);
  std::vector<char> want(kPiece);
  for (bool binary : {true, false}) {
    InterfacePtr<IReadStream> const stream =
        binary ? reader.read_binary() : reader.read_string_stream();
    std::uint64_t done = 0;
    for (unsigned n = kPiece; n == kPiece; done += n) {
      n = stream->read(block.data(), kPiece);
      if (binary) {
        std::size_t const bad = zotest::pattern_mismatch(done, block.data(), n);
        ASSERT_EQ(bad, n) << "binary differs at offset " << done + bad;
      } else {
        string_fill(done, want.data(), n);
        ASSERT_TRUE(std::equal(block.begin(), block.begin() + n, want.begin()))
            << "string differs in the piece at " << done;
      }
    }
    EXPECT_EQ(done, kTotal);
  }
  EXPECT_TRUE(reader.is_eof());
}

// Read by value, a string longer than the limit fails, plain or in base64; read as a stream it
// reads whole. The limit itself reads.
TEST(XmlStringLimitTest, LongerStringsReadOnlyAsStreams) {
  constexpr std::size_t kMax = zoserialize::XmlReader::kMaxStringByValue;
  auto const open = [](std::string const& document) {
    return std::make_unique<zoserialize::XmlReader>(
        InterfacePtr<IReadStream>(zocore::make_ref_counted<zocore::MemoryReadStream>(document)));
  };
  std::string const plain =
      zotest::xml_document("<String>" + std::string(kMax + 1, 'a') + "</String>");
  std::string const base64 = zotest::xml_document(
      "<String encoding=\"base64\">" + std::string((kMax + 3) / 3 * 4, 'Q') + "</String>");
  for (std::string const* document : {&plain, &base64}) {
    auto const info = ZO_EXPECT_ERROR(open(*document)->read_string(),
                                      zoserialize::error::zoserialize_reader_data_string_size,
                                      "String is too large to be read by value, it must be read "
                                      "as stream.  MaxSize={@maxSize}");
    EXPECT_EQ(zotest::param(info, "maxSize"), "134217728");
  }
  EXPECT_EQ(zotest::read_all(*open(plain)->read_string_stream(), 1 << 20).size(), kMax + 1);
  EXPECT_EQ(open(zotest::xml_document("<String>" + std::string(kMax, 'a') + "</String>"))
                ->read_string()
                .size(),
            kMax);
}

}  // namespace
