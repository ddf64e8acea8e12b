// A binary and a string of more than 4 GiB each through XmlWriter's value streams into an ostream,
// and back through an XmlReader over an IReadStream. The payloads and the document are generated
// and checked on the fly, so memory use must stay flat however much passes through.
#include <algorithm>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/large_streams.h>
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
using zotest::kLargeTotal;

// The document XmlWriter must produce, without layout, for the payloads of
// zotest::write_large_payloads: both in base64 (a streamed string this long is base64).
class ExpectedXml final : public zotest::StagedSource {
  bool stage(std::string& out) override {
    out.clear();
    if (phase_ == 0) {
      out = std::string(zotest::kXmlRoot) + "<Binary encoding=\"base64\">";
      phase_ = 1;
    } else if (phase_ == 1 || phase_ == 3) {
      auto const n = static_cast<unsigned>(
          std::min<std::uint64_t>(std::uint64_t{3 * 4096}, kLargeTotal - offset_));
      block_.resize(n);
      if (phase_ == 1) {
        zotest::pattern_fill(offset_, block_.data(), n);
      } else {
        zotest::printable_fill(offset_, block_.data(), n);
      }
      zotest::append_base64(out, block_, true);
      offset_ += n;
      if (offset_ == kLargeTotal) ++phase_, offset_ = 0;
    } else if (phase_ == 2) {
      out = "</Binary><String encoding=\"base64\">";
      phase_ = 3;
    } else if (phase_ == 4) {
      out = "</String></Serialized>";
      phase_ = 5;
    }
    return !out.empty();
  }

  int phase_ = 0;
  std::uint64_t offset_ = 0;
  std::string block_;
};

using XmlStreamLargeTest = zotest::FlatMemoryTest;

TEST_F(XmlStreamLargeTest, WriterStreamsMoreThan4GiB) {
  auto const sink =
      zocore::make_ref_counted<zotest::CheckingSink>(zocore::make_ref_counted<ExpectedXml>());
  {
    zoserialize::StringOStream os{InterfacePtr<IWriteStream>(sink)};
    zoserialize::XmlWriter writer(os, "", "");
    zotest::write_large_payloads(writer);
    writer.close();
    os.flush();
  }
  EXPECT_TRUE(sink->matches()) << "first difference at " << sink->mismatch_offset();
  EXPECT_TRUE(sink->expected_exhausted());
}

TEST_F(XmlStreamLargeTest, ReaderStreamsMoreThan4GiB) {
  zoserialize::XmlReader reader(InterfacePtr<IReadStream>(zocore::make_ref_counted<ExpectedXml>()));
  zotest::read_large_payloads(reader);
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
