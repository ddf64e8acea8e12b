#include <algorithm>
#include <bit>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <support/binary_golden.h>
#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/random_document.h>
#include <support/recording_writer.h>
#include <support/test_streams.h>
#include <zocore/core_errors.h>
#include <zocore/error_exception.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/error_codes.h>

namespace {

namespace error = zoserialize::error;
using zocore::RefCountPtr;
using zoserialize::BinaryReader;
using zoserialize::BinaryWriter;
using zoserialize::InterfacePtr;
using zoserialize::IReadStream;
using zoserialize::Reader;
using zotest::ByteSource;
using Call = ByteSource::Call;
using EToken = Reader::EToken;

constexpr unsigned kReadBuffers[] = {0, 1, 2, 3, 7, 16, 4096, 16384};

RefCountPtr<ByteSource> source_of(std::string bytes) {
  return zocore::make_ref_counted<ByteSource>(std::move(bytes));
}

std::unique_ptr<BinaryReader> reader_of(std::string bytes, unsigned buffer = 4096) {
  return std::make_unique<BinaryReader>(source_of(std::move(bytes)), buffer);
}

std::unique_ptr<BinaryReader> reader_of_hex(std::string_view hex, unsigned buffer = 4096) {
  return reader_of(zotest::bytes(hex), buffer);
}

Call r(unsigned requested, unsigned returned) {
  return {false, requested, returned};
}
Call s(unsigned requested, unsigned returned) {
  return {true, requested, returned};
}

constexpr char kDetached[] = "Reader has already been detached from stream";
constexpr char kClosed[] =
    "Cannot read from reader after it has been closed (source stream detached)";

// Everything read through the reader goes into a binary writer.
std::string copy_all(Reader& reader, unsigned writer_buffer = 4096) {
  auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  {
    BinaryWriter writer(sink, writer_buffer);
    reader.read_copy_all(writer);
    writer.close();
  }
  return sink->str();
}

// True when `e` belongs to the archive's or the UTF-8 checker's failures.
bool is_reader_failure(zocore::ErrorException const& e) {
  auto const& code = e.info()->code();
  return code.is_a(error::zoserialize) || code == zocore::error::zocore_utf8;
}

// ---- Golden vectors
// -------------------------------------------------------------------------------

class BinaryReaderGoldenTest : public ::testing::TestWithParam<zotest::BinaryGoldenCase> {};

TEST_P(BinaryReaderGoldenTest, ReadsTheRowAtEveryBufferSize) {
  zotest::BinaryGoldenCase const& row = GetParam();
  for (unsigned buffer : kReadBuffers) {
    for (bool known_size : {true, false}) {
      SCOPED_TRACE(::testing::Message()
                   << "buffer " << buffer << (known_size ? "" : ", unknown size"));
      auto const source = source_of(row.bytes);
      if (!known_size) source->unknown_size();
      BinaryReader reader(source, buffer);
      row.read(reader);
      EXPECT_TRUE(reader.is_eof());
      EXPECT_EQ(reader.position(), row.bytes.size());
      EXPECT_EQ(source->calls_after_end(), 0u) << "the source was asked again after its end";
    }
  }
}

TEST_P(BinaryReaderGoldenTest, SkipElementLandsAtTheEnd) {
  zotest::BinaryGoldenCase const& row = GetParam();
  for (unsigned buffer : {1u, 7u, 4096u}) {
    auto const reader = reader_of(row.bytes, buffer);
    std::size_t skipped = 0;
    while (!reader->is_eof()) {
      reader->skip_element();
      ++skipped;
    }
    EXPECT_EQ(skipped, row.elements) << "buffer " << buffer;
    EXPECT_EQ(reader->position(), row.bytes.size());
  }
}

TEST_P(BinaryReaderGoldenTest, CopyReadsBackEqual) {
  zotest::BinaryGoldenCase const& row = GetParam();
  if (row.copy == zotest::BinaryGoldenCase::ECopy::kNone) GTEST_SKIP() << "not copyable";
  for (unsigned buffer : {1u, 4096u}) {
    SCOPED_TRACE(::testing::Message() << "buffer " << buffer);
    auto const reader = reader_of(row.bytes, buffer);
    std::string const copy = copy_all(*reader, buffer == 1 ? 0 : 16384);
    if (row.copy == zotest::BinaryGoldenCase::ECopy::kIdentical) {
      EXPECT_TRUE(copy == row.bytes) << zotest::hex(copy.substr(0, 64));
    }
    auto const original = reader_of(row.bytes, buffer);
    auto const copied = reader_of(copy, 7);
    EXPECT_EQ(Reader::read_compare_equal_all(*original, *copied), row.self_equal);
  }
}

// Cut positions: every one for short rows, a spread for long ones.
std::vector<std::size_t> cuts_of(std::size_t size) {
  std::vector<std::size_t> cuts;
  if (size <= 600) {
    for (std::size_t i = 0; i < size; ++i)
      cuts.push_back(i);
    return cuts;
  }
  for (std::size_t i = 0; i < 40; ++i)
    cuts.push_back(i);
  for (std::size_t i = 40; i + 40 < size; i += 4099)
    cuts.push_back(i);
  for (std::size_t i = size - 40; i < size; ++i)
    cuts.push_back(i);
  return cuts;
}

TEST_P(BinaryReaderGoldenTest, EveryTruncationFailsCleanly) {
  zotest::BinaryGoldenCase const& row = GetParam();
  for (std::size_t cut : cuts_of(row.bytes.size())) {
    SCOPED_TRACE(::testing::Message() << "cut at " << cut);
    std::string const prefix = row.bytes.substr(0, cut);
    for (unsigned buffer : {3u, 4096u}) {
      // The row reads as if the data were complete: it must either fail with a reader error or
      // notice a value it did not expect (its own assertions are intercepted here).
      bool failed = false;
      {
        ::testing::TestPartResultArray noticed;
        ::testing::ScopedFakeTestPartResultReporter intercept(
            ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &noticed);
        auto const reader = reader_of(prefix, buffer);
        try {
          row.read(*reader);
          failed = noticed.size() != 0 || !reader->is_eof();
        } catch (zocore::ErrorException const& e) {
          failed = true;
          EXPECT_TRUE(is_reader_failure(e)) << e.what();
        }
      }
      EXPECT_TRUE(failed) << "the truncated row read back as complete";

      auto const skipper = reader_of(prefix, buffer);
      std::size_t skipped = 0;
      try {
        while (!skipper->is_eof()) {
          skipper->skip_element();
          ++skipped;
        }
        EXPECT_LT(skipped, row.elements);
      } catch (zocore::ErrorException const& e) {
        EXPECT_TRUE(is_reader_failure(e)) << e.what();
      }

      auto const copier = reader_of(prefix, buffer);
      try {
        copy_all(*copier);
      } catch (zocore::ErrorException const& e) {
        EXPECT_TRUE(is_reader_failure(e)) << e.what();
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, BinaryReaderGoldenTest,
                         ::testing::ValuesIn(zotest::binary_golden_cases()),
                         [](auto const& p) { return p.param.name; });

// ---- Construction, refills and the end of the data ---------------------------------------------

TEST(BinaryReaderTest, NullSourceIsRefused) {
  auto const info = ZO_EXPECT_ERROR(BinaryReader reader(nullptr), error::zoserialize_reader,
                                    "NULL source stream specified");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->nested_errno(), 22);
  EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryReader::BinaryReader()");
}

TEST(BinaryReaderTest, BufferSizeZeroBehavesAsOne) {
  auto const source = source_of(zotest::bytes("53 61 62 63"));
  BinaryReader reader(source, 0);
  EXPECT_EQ(reader.read_string(), "abc");
  EXPECT_TRUE(reader.is_eof());
  // One byte per refill; the payload (3 bytes >= capacity) goes straight into the string.
  EXPECT_EQ(source->calls(), (std::vector<Call>{r(1, 1), r(3, 3), r(1, 0)}));
}

TEST(BinaryReaderTest, DefaultBufferIs16384Bytes) {
  EXPECT_EQ(BinaryReader::kDefaultBufferSize, 16384u);
  auto const source = source_of(zotest::bytes("00"));
  BinaryReader reader(source);
  reader.read_null();
  EXPECT_EQ(source->calls(), std::vector<Call>{r(16384, 1)});
}

TEST(BinaryReaderTest, NothingIsReadBeforeTheFirstAccess) {
  auto const source = source_of(zotest::bytes("00"));
  BinaryReader reader(source, 4);
  EXPECT_TRUE(source->calls().empty());
  EXPECT_EQ(reader.position(), 0u);
}

TEST(BinaryReaderTest, AfterTheSourceEndedItIsNotAskedAgain) {
  auto const source = source_of(zotest::bytes("00"));
  BinaryReader reader(source, 4);
  reader.read_null();
  EXPECT_TRUE(reader.is_eof());
  EXPECT_TRUE(reader.is_eof());
  EXPECT_EQ(reader.next_token(), EToken::Eof);
  EXPECT_FALSE(reader.try_read_null());
  auto const info = ZO_EXPECT_ERROR(reader.read_null(), error::zoserialize_reader_eof,
                                    "Unable to read tag byte, reader is EOF");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(),
            "zoserialize::BinaryReader::impl_read_tag_check_type()");
  ZO_EXPECT_ERROR(reader.read_string(), error::zoserialize_reader_eof,
                  "Unable to read tag byte, reader is EOF");
  ZO_EXPECT_ERROR(reader.read_binary(), error::zoserialize_reader_eof,
                  "Unable to read tag byte, reader is EOF");
  ZO_EXPECT_ERROR(reader.read_marker_start(), error::zoserialize_reader_eof,
                  "Unable to read tag byte, reader is EOF");
  ZO_EXPECT_ERROR(reader.skip_element(), error::zoserialize_reader_eof,
                  "Unexpected end of data, expecting tag");
  EXPECT_EQ(source->calls(), (std::vector<Call>{r(4, 1), r(4, 0)}));
}

TEST(BinaryReaderTest, EmptySourceIsAtTheEnd) {
  auto const source = source_of("");
  BinaryReader reader(source, 16);
  EXPECT_TRUE(reader.is_eof());
  EXPECT_EQ(reader.next_token(), EToken::Eof);
  EXPECT_EQ(source->calls(), std::vector<Call>{r(16, 0)});
}

// The source traffic of the read-ahead algorithm: refills of the buffer's capacity, requests of
// at least the capacity straight from the source, skips of what the buffer does not hold.
TEST(BinaryReaderTest, PayloadReadBypassesTheBufferWhenLargeEnough) {
  std::string const payload = zotest::pattern_string(0, 10);
  auto const source = source_of(zotest::bytes("9A 00 00 00 0A") + payload + zotest::bytes("00"));
  BinaryReader reader(source, 4);
  auto const stream = reader.read_binary();
  EXPECT_EQ(reader.position(), 5u);
  std::string got(10, '\0');
  EXPECT_EQ(stream->read(got.data(), 10), 10u);
  EXPECT_EQ(got, payload);
  EXPECT_EQ(reader.position(), 15u);
  reader.read_null();
  EXPECT_TRUE(reader.is_eof());
  EXPECT_EQ(source->calls(), (std::vector<Call>{r(4, 4), r(4, 4), r(7, 7), r(4, 1), r(4, 0)}));
}

TEST(BinaryReaderTest, PayloadSkipSkipsWhatTheBufferDoesNotHold) {
  auto const source =
      source_of(zotest::bytes("9A 00 00 00 0A") + std::string(10, 'x') + zotest::bytes("00"));
  BinaryReader reader(source, 4);
  auto const stream = reader.read_binary();
  EXPECT_EQ(stream->skip(10), 10u);
  EXPECT_EQ(reader.position(), 15u);
  reader.read_null();
  EXPECT_TRUE(reader.is_eof());
  EXPECT_EQ(source->calls(), (std::vector<Call>{r(4, 4), r(4, 4), s(7, 7), r(4, 1), r(4, 0)}));
}

TEST(BinaryReaderTest, SkipElementSkipsLongPayloadsInTheSource) {
  auto const source =
      source_of(zotest::bytes("99 01 00") + std::string(256, 'x') + zotest::bytes("00"));
  BinaryReader reader(source, 16);
  reader.skip_element();
  EXPECT_EQ(reader.position(), 259u);
  reader.read_null();
  EXPECT_TRUE(reader.is_eof());
  EXPECT_EQ(source->calls(), (std::vector<Call>{r(16, 16), s(243, 243), r(16, 1), r(16, 0)}));
}

TEST(BinaryReaderTest, ShortRemainderIsRefilledOnce) {
  std::string const text = "0123456789";
  auto const source = source_of(zotest::bytes("5A 00 00 00 0A") + text);
  BinaryReader reader(source, 8);
  EXPECT_EQ(reader.read_string(), text);
  EXPECT_TRUE(reader.is_eof());
  EXPECT_EQ(source->calls(), (std::vector<Call>{r(8, 8), r(8, 7), r(8, 0)}));
}

TEST(BinaryReaderTest, SourceFailureDuringARefillKeepsThePosition) {
  auto const source = source_of(zotest::bytes("00 00 00"));
  source->fail_at_call(1);
  BinaryReader reader(source, 2);
  reader.read_null();
  reader.read_null();
  EXPECT_EQ(reader.position(), 2u);
  ZO_EXPECT_ERROR(reader.read_null(), zotest::test_stream_error, "Injected source failure");
  EXPECT_EQ(reader.position(), 2u);
  reader.read_null();
  EXPECT_EQ(reader.position(), 3u);
  EXPECT_TRUE(reader.is_eof());
}

TEST(BinaryReaderTest, SourceEndingEarlyEndsTheData) {
  std::string const full = zotest::bytes("53 61 62 63 11");
  for (std::size_t limit = 0; limit < full.size(); ++limit) {
    auto const source = source_of(full);
    source->limit(limit);
    BinaryReader reader(source, 2);
    try {
      EXPECT_EQ(reader.read_string(), "abc");
      EXPECT_TRUE(reader.read_bool());
      ADD_FAILURE() << "read past the end of a source limited to " << limit << " bytes";
    } catch (zocore::ErrorException const& e) {
      EXPECT_EQ(e.info()->code(), error::zoserialize_reader_eof) << e.what();
    }
  }
}

// ---- Payload streams
// ------------------------------------------------------------------------------

TEST(BinaryReaderTest, InlineBinaryStreamCountsDown) {
  auto const reader = reader_of_hex("95 01 02 03 04 05");
  auto const stream = reader->read_binary();
  EXPECT_EQ(stream->bytes_remaining(), 5u);
  char buffer[16];
  EXPECT_EQ(stream->read(buffer, 2), 2u);
  EXPECT_EQ(stream->bytes_remaining(), 3u);
  EXPECT_EQ(stream->read(buffer, 10), 3u);
  EXPECT_EQ(zotest::hex(std::string(buffer, 3)), "03 04 05");
  EXPECT_EQ(stream->bytes_remaining(), 0u);
  EXPECT_EQ(stream->read(buffer, 1), 0u);
  EXPECT_EQ(stream->skip(1), 0u);
}

TEST(BinaryReaderTest, PayloadStreamsReadInOddPieces) {
  std::string const payload = zotest::pattern_string(7, 10000);
  std::string const whole = zotest::bytes("99 27 10") + payload + zotest::bytes("11");
  std::string const chunked = zotest::bytes("9B 03") + payload.substr(0, 3) +
                              zotest::bytes("9D 00 9E 27 0D") + payload.substr(3) +
                              zotest::bytes("9F 11");
  for (std::string const& encoding : {whole, chunked}) {
    for (unsigned buffer : {1u, 7u, 4096u}) {
      auto const reader = reader_of(encoding, buffer);
      auto const stream = reader->read_binary();
      std::string got;
      unsigned const pieces[] = {1, 2, 3, 7, 4095, 4096, 4097, 13};
      for (std::size_t i = 0;; ++i) {
        unsigned const piece = pieces[i % std::size(pieces)];
        std::string block(piece, '\0');
        unsigned const n = stream->read(block.data(), piece);
        got.append(block.data(), n);
        if (n < piece) break;
      }
      EXPECT_TRUE(got == payload) << "buffer " << buffer;
      EXPECT_TRUE(reader->read_bool());
      EXPECT_TRUE(reader->is_eof());
    }
  }
}

TEST(BinaryReaderTest, ChunkedStreamConcatenatesChunksOf3And0And2Bytes) {
  auto const reader = reader_of_hex("9B 03 01 02 03 9D 00 9E 00 02 04 05 9F 00", 1);
  auto const stream = reader->read_binary();
  EXPECT_EQ(stream->bytes_remaining(), IReadStream::kUnknownSize);
  EXPECT_EQ(stream->skip(4), 4u);
  char buffer[8];
  EXPECT_EQ(stream->read(buffer, 8), 1u);
  EXPECT_EQ(buffer[0], '\x05');
  EXPECT_EQ(stream->read(buffer, 8), 0u);
  reader->read_null();
  EXPECT_TRUE(reader->is_eof());
}

// Every operation that moves to the next element detaches a half-read stream after consuming
// its rest.
struct MoveOnCase {
  char const* name;
  std::function<void(BinaryReader&)> op;
};

std::ostream& operator<<(std::ostream& os, MoveOnCase const& c) {
  return os << c.name;
}

class BinaryReaderMoveOnTest : public ::testing::TestWithParam<MoveOnCase> {};

TEST_P(BinaryReaderMoveOnTest, HalfReadStreamIsFinishedAndDetached) {
  // A whole string or a chunked binary, then a marker holding true.
  for (bool chunked : {false, true}) {
    SCOPED_TRACE(chunked ? "chunked" : "whole");
    auto const reader = reader_of_hex(
        chunked ? "9B 02 01 02 9D 01 03 9F B0 11 BF" : "55 61 62 63 64 65 B0 11 BF", 3);
    auto const stream = chunked ? reader->read_binary() : reader->read_string_stream();
    char buffer[2];
    EXPECT_EQ(stream->read(buffer, 2), 2u);
    GetParam().op(*reader);
    auto const info =
        ZO_EXPECT_ERROR(stream->read(buffer, 1), error::zoserialize_reader_state, kDetached);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->location().function().view(),
              chunked ? "zoserialize::BinaryReader::BinaryStreamChunkedImpl::read()"
                      : "zoserialize::BinaryReader::BinaryStreamImpl::read()");
    ZO_EXPECT_ERROR(stream->skip(1), error::zoserialize_reader_state, kDetached);
    ZO_EXPECT_ERROR(stream->bytes_remaining(), error::zoserialize_reader_state, kDetached);
    ZO_EXPECT_ERROR(stream->close(), error::zoserialize_reader_state, kDetached);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Operations, BinaryReaderMoveOnTest,
    ::testing::Values(
        MoveOnCase{"NextToken",
                   [](BinaryReader& r) { EXPECT_EQ(r.next_token(), EToken::MarkerStart); }},
        MoveOnCase{"TryReadNull", [](BinaryReader& r) { EXPECT_FALSE(r.try_read_null()); }},
        MoveOnCase{"SkipElement",
                   [](BinaryReader& r) {
                     r.skip_element();
                     EXPECT_TRUE(r.is_eof());
                   }},
        MoveOnCase{"TypedRead",
                   [](BinaryReader& r) {
                     r.read_marker_start();
                     EXPECT_TRUE(r.read_bool());
                     r.read_marker_end();
                   }},
        MoveOnCase{"WrongTypedRead",
                   [](BinaryReader& r) {
                     ZO_EXPECT_ERROR(r.read_binary(), error::zoserialize_reader_data_type_mismatch,
                                     "Current tag has unexpected type prefix.  "
                                     "Expected={@expectedType}, Actual={@actualType} "
                                     "(ActualTag={@actualTag})");
                   }},
        MoveOnCase{"Copy",
                   [](BinaryReader& r) {
                     zotest::RecordingWriter writer;
                     r.read_copy(writer);
                     EXPECT_EQ(writer.calls(), (std::vector<std::string>{
                                                   "marker_start", "bool true", "marker_end"}));
                   }},
        MoveOnCase{"Close", [](BinaryReader& r) { r.close(); }}),
    [](auto const& p) { return std::string(p.param.name); });

TEST(BinaryReaderTest, MarkerIsEndDetachesTheStream) {
  auto const reader = reader_of_hex("B0 53 61 62 63 BF");
  reader->read_marker_start();
  auto const stream = reader->read_string_stream();
  char c;
  EXPECT_EQ(stream->read(&c, 1), 1u);
  EXPECT_TRUE(reader->read_marker_is_end());
  ZO_EXPECT_ERROR(stream->read(&c, 1), error::zoserialize_reader_state, kDetached);
  reader->read_marker_end();
  EXPECT_TRUE(reader->is_eof());
}

TEST(BinaryReaderTest, IsEofLeavesTheStreamAttached) {
  auto const reader = reader_of_hex("53 61 62 63", 2);
  auto const stream = reader->read_string_stream();
  char buffer[3];
  EXPECT_EQ(stream->read(buffer, 1), 1u);
  EXPECT_FALSE(reader->is_eof());
  EXPECT_EQ(stream->read(buffer, 3), 2u);
  EXPECT_EQ(std::string(buffer, 2), "bc");
  EXPECT_TRUE(reader->is_eof());
}

TEST(BinaryReaderTest, StreamCloseConsumesTheRest) {
  std::string const payload = zotest::pattern_string(0, 100000);
  auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  {
    BinaryWriter writer(sink);
    writer.write_binary()->write(payload.data(), 100000);
    writer.write_binary(payload.data(), 70000);
    writer << true;
  }
  auto const reader = reader_of(sink->str(), 100);
  for (int i = 0; i < 2; ++i) {
    auto const stream = reader->read_binary();
    std::string head(10, '\0');
    EXPECT_EQ(stream->read(head.data(), 10), 10u);
    EXPECT_EQ(head, payload.substr(0, 10));
    stream->close();
    ZO_EXPECT_ERROR(stream->close(), error::zoserialize_reader_state, kDetached);
  }
  EXPECT_TRUE(reader->read_bool());
  EXPECT_TRUE(reader->is_eof());
}

TEST(BinaryReaderTest, StreamOfADestroyedReaderFails) {
  InterfacePtr<IReadStream> stream;
  {
    auto const reader = reader_of_hex("55 61 62 63 64 65");
    stream = reader->read_string_stream();
  }
  char c;
  ZO_EXPECT_ERROR(stream->read(&c, 1), error::zoserialize_reader_state, kDetached);
  ZO_EXPECT_ERROR(stream->close(), error::zoserialize_reader_state, kDetached);
}

TEST(BinaryReaderTest, PayloadTagsWithoutLengthFormAreRefused) {
  for (char const* encoding : {"5D 00", "5E 00 00", "5F", "9D 00", "9E 00 00", "9F"}) {
    auto const reader = reader_of_hex(encoding);
    auto const info =
        ZO_EXPECT_ERROR((encoding[0] == '5' ? reader->read_string_stream() : reader->read_binary()),
                        error::zoserialize_reader_data_type,
                        "Tag has unexpected value.  Type={@tagType}, Value={@tagValue}");
    ASSERT_TRUE(info);
    EXPECT_EQ(zotest::param(info, "tagValue"),
              std::to_string(static_cast<unsigned char>(zotest::bytes(encoding)[0])));
    EXPECT_EQ(info->location().function().view(),
              "zoserialize::BinaryReader::create_payload_stream()");
  }
}

TEST(BinaryReaderTest, ChunkOfAnotherTypeFails) {
  auto const reader = reader_of_hex("5B 01 61 9D 01 62 5F");
  auto const stream = reader->read_string_stream();
  char buffer[4];
  auto const info = ZO_EXPECT_ERROR(
      stream->read(buffer, 4), error::zoserialize_reader_data_type_mismatch,
      "Invalid tag in chunked element.  Expected={@expectedType}, Actual={@actualType} "
      "(ActualTag={@actualTag})");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "expectedType"), "String");
  EXPECT_EQ(zotest::param(info, "actualType"), "Binary");
  EXPECT_EQ(zotest::param(info, "actualTag"), "157");
  EXPECT_EQ(info->location().function().view(),
            "zoserialize::BinaryReader::BinaryStreamChunkedImpl::next_chunk()");
}

TEST(BinaryReaderTest, ChunkTagOtherThanContinuationOrEndFails) {
  for (char const* encoding :
       {"9B 01 61 9C 00 01 62 9F", "9B 01 61 9B 01 62 9F", "9B 01 61 95 62 9F", "9B 01 61 90 9F"}) {
    auto const reader = reader_of_hex(encoding);
    auto const stream = reader->read_binary();
    char buffer[4];
    auto const info = ZO_EXPECT_ERROR(
        stream->read(buffer, 4), error::zoserialize_reader_data_type,
        "Unexpected tag.  Expecting chunk continuation or end tag.  Type={@tagType}, "
        "Value={@tagValue}");
    ASSERT_TRUE(info);
    // The parameters carry other names than the placeholders.
    EXPECT_EQ(zotest::param(info, "type"), "Binary");
    EXPECT_EQ(zotest::param(info, "value"),
              std::to_string(static_cast<unsigned char>(zotest::bytes(encoding)[3])));
    EXPECT_EQ(zotest::param(info, "tagType"), "<missing>");
    EXPECT_EQ(zotest::param(info, "tagValue"), "<missing>");
  }
}

TEST(BinaryReaderTest, TruncatedChunksReportTheMissingBytes) {
  struct Case {
    char const* encoding;
    unsigned expected;
    unsigned actual;
  };
  for (Case const& c : {Case{"9B 02 61", 2, 1}, Case{"9B 01 61", 1, 0}, Case{"9B 01 61 9D", 1, 0},
                        Case{"9B 01 61 9E 00", 2, 1}, Case{"9C 00 05 61 62 63", 5, 3}}) {
    SCOPED_TRACE(c.encoding);
    auto const reader = reader_of_hex(c.encoding, 1);
    auto const stream = reader->read_binary();
    char buffer[8];
    auto const info = ZO_EXPECT_ERROR(stream->read(buffer, 8), error::zoserialize_reader_eof,
                                      "End of data reached reading from source.  "
                                      "ExpectedBytes={@expected}, ReadBytes={@actual}");
    EXPECT_EQ(zotest::param(info, "expected"), std::to_string(c.expected));
    EXPECT_EQ(zotest::param(info, "actual"), std::to_string(c.actual));
  }
}

// ---- UTF-8 validation of string streams
// ------------------------------------------------------------

constexpr char kUtf8Error[] = "Invalid UTF-8 sequence at offset {@offset}";

TEST(BinaryReaderTest, CharacterSplitAcrossReadsValidates) {
  // "a", U+00E9 and U+20AC: 1, 2 and 3 bytes.
  std::string const text = "a\xC3\xA9\xE2\x82\xAC";
  for (std::size_t first = 0; first <= text.size(); ++first) {
    for (unsigned buffer : {1u, 4096u}) {
      auto const reader = reader_of(zotest::bytes("56") + text, buffer);
      auto const stream = reader->read_string_stream();
      std::string got(text.size(), '\0');
      auto const n = static_cast<unsigned>(first);
      EXPECT_EQ(stream->read(got.data(), n), n);
      EXPECT_EQ(stream->read(got.data() + n, 6 - n), 6 - n);
      EXPECT_EQ(stream->read(got.data(), 1), 0u);
      EXPECT_EQ(got, text);
      stream->close();
    }
  }
}

TEST(BinaryReaderTest, CharacterSplitAcrossChunksValidates) {
  auto const reader = reader_of_hex("5B 02 E2 82 5D 01 AC 5F 5B 01 E2 5D 00 5E 00 02 82 AC 5F", 1);
  for (int i = 0; i < 2; ++i) {
    auto const stream = reader->read_string_stream();
    EXPECT_EQ(zotest::read_all(*stream, 1), "\xE2\x82\xAC");
  }
}

TEST(BinaryReaderTest, StringEndingInsideACharacterFailsAtTheShortRead) {
  std::string const encoding = zotest::bytes("53 61 E2 82");
  // A read that asks for more than is left is short: it fails at once.
  auto reader = reader_of(encoding);
  auto stream = reader->read_string_stream();
  char buffer[8];
  ZO_EXPECT_ERROR(stream->read(buffer, 8), zocore::error::zocore_utf8, kUtf8Error);
  // A read of exactly the rest is not short; the next one is.
  reader = reader_of(encoding);
  stream = reader->read_string_stream();
  EXPECT_EQ(stream->read(buffer, 3), 3u);
  ZO_EXPECT_ERROR(stream->read(buffer, 1), zocore::error::zocore_utf8, kUtf8Error);
  // close() reports the incomplete end too.
  reader = reader_of(encoding);
  stream = reader->read_string_stream();
  EXPECT_EQ(stream->read(buffer, 3), 3u);
  ZO_EXPECT_ERROR(stream->close(), zocore::error::zocore_utf8, kUtf8Error);
}

TEST(BinaryReaderTest, InvalidBytesFailWhereverTheyAreRead) {
  auto reader = reader_of_hex("53 61 FF 62");
  auto stream = reader->read_string_stream();
  char buffer[8];
  auto const info =
      ZO_EXPECT_ERROR(stream->read(buffer, 3), zocore::error::zocore_utf8, kUtf8Error);
  EXPECT_EQ(zotest::param(info, "offset"), "1");
  // Skipped bytes are validated too.
  reader = reader_of_hex("53 FF 61 62");
  stream = reader->read_string_stream();
  ZO_EXPECT_ERROR(stream->skip(3), zocore::error::zocore_utf8, kUtf8Error);
  // So is the rest that moving on consumes.
  reader = reader_of_hex("53 61 FF 62 00");
  stream = reader->read_string_stream();
  EXPECT_EQ(stream->read(buffer, 1), 1u);
  ZO_EXPECT_ERROR(reader->read_null(), zocore::error::zocore_utf8, kUtf8Error);
  ZO_EXPECT_ERROR(stream->read(buffer, 1), error::zoserialize_reader_state, kDetached);
  // Binary payloads are not text.
  reader = reader_of_hex("93 61 FF 62");
  EXPECT_EQ(zotest::read_all(*reader->read_binary()),
            "a\xFF"
            "b");
  // Nor are strings read by value.
  reader = reader_of_hex("53 61 FF 62");
  EXPECT_EQ(reader->read_string(),
            "a\xFF"
            "b");
}

// ---- Markers
// --------------------------------------------------------------------------------------

TEST(BinaryReaderTest, MarkerOperationsWithoutMarkerFail) {
  auto const reader = reader_of_hex("BF");
  auto info =
      ZO_EXPECT_ERROR(reader->read_marker_is_end(), error::zoserialize_reader_marker_mismatch,
                      "No markers are currently open");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryReader::read_marker_is_end()");
  info = ZO_EXPECT_ERROR(reader->read_marker_end(), error::zoserialize_reader_marker_mismatch,
                         "No markers are currently open");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryReader::read_marker_end()");
  EXPECT_EQ(reader->position(), 0u);
}

TEST(BinaryReaderTest, MarkerEndAtTheEndOfTheDataFails) {
  auto reader = reader_of_hex("B0");
  reader->read_marker_start();
  EXPECT_FALSE(reader->read_marker_is_end());
  auto info = ZO_EXPECT_ERROR(reader->read_marker_end(), error::zoserialize_reader_eof,
                              "Unexpected end of data in marker, expecting marker end tag");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryReader::read_marker_end()");
  // Running out while skipping the elements of an unsized marker.
  reader = reader_of_hex("B0 11 A0 AF");
  reader->read_marker_start();
  info = ZO_EXPECT_ERROR(reader->read_marker_end(), error::zoserialize_reader_eof,
                         "Unexpected end of data in marker, expecting marker end tag");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(),
            "zoserialize::BinaryReaderBase::skip_to_marker_end_tag()");
}

TEST(BinaryReaderTest, ReaderPastTheDeclaredEndFails) {
  auto reader = reader_of_hex("B4 03 11 21 21 BF");
  reader->read_marker_start();
  EXPECT_TRUE(reader->read_bool());
  EXPECT_EQ(reader->read_int32(), 1);
  auto info =
      ZO_EXPECT_ERROR(reader->read_marker_end(), error::zoserialize_reader_marker_overrun,
                      "Marker size mismatch; reader has already passed calculated marker end.  "
                      "MarkerEnd={@markerEndPos}, ReaderPos={@readerPos}");
  EXPECT_EQ(zotest::param(info, "markerEndPos"), "3");
  EXPECT_EQ(zotest::param(info, "readerPos"), "4");
  // The declared end counts from the start tag, so a marker smaller than its own header is
  // already passed when nothing of it was read.
  reader = reader_of_hex("B4 01 11 BF");
  reader->read_marker_start();
  info = ZO_EXPECT_ERROR(reader->read_marker_end(), error::zoserialize_reader_marker_overrun,
                         "Marker size mismatch; reader has already passed calculated marker "
                         "end.  MarkerEnd={@markerEndPos}, ReaderPos={@readerPos}");
  EXPECT_EQ(zotest::param(info, "markerEndPos"), "1");
  EXPECT_EQ(zotest::param(info, "readerPos"), "2");
}

TEST(BinaryReaderTest, DeclaredSizeBeyondTheDataFails) {
  auto const reader = reader_of_hex("B4 10 11", 1);
  reader->read_marker_start();
  auto const info = ZO_EXPECT_ERROR(reader->read_marker_end(), error::zoserialize_reader_eof,
                                    "End of data reached skipping to end of marker");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "markerEndPos"), "16");
  EXPECT_EQ(zotest::param(info, "streamSize"), "3");
  EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryReader::read_marker_end()");
}

TEST(BinaryReaderTest, DeclaredSizeMissingTheEndTagFails) {
  // Too small, and pointing into the middle of an element.
  for (char const* encoding :
       {"B4 02 11 20 21 BF", "B4 02 25 00 80 BF", "B5 00 04 11 20 21 22 23 BF"}) {
    for (unsigned buffer : {1u, 4096u}) {
      auto const reader = reader_of_hex(encoding, buffer);
      reader->read_marker_start();
      auto const info =
          ZO_EXPECT_ERROR(reader->read_marker_end(), error::zoserialize_reader_marker_size,
                          "Inconsistent marker size: no end tag at end position");
      ASSERT_TRUE(info);
      EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryReader::read_marker_end()");
    }
  }
}

TEST(BinaryReaderTest, DeclaredSizeIsSkippedFromTheCurrentPosition) {
  // After the first element the whole size (3) is skipped again, which lands on the second BF.
  auto const reader = reader_of_hex("B4 03 11 20 21 BF BF");
  reader->read_marker_start();
  EXPECT_TRUE(reader->read_bool());
  reader->read_marker_end();
  EXPECT_EQ(reader->position(), 7u);
  EXPECT_TRUE(reader->is_eof());
}

TEST(BinaryReaderTest, LyingSizeThatHitsAPayloadByteIsNotACrash) {
  auto const reader = reader_of_hex("B4 02 52 BF BF BF");
  reader->read_marker_start();
  reader->read_marker_end();
  EXPECT_EQ(reader->position(), 5u);
  EXPECT_EQ(reader->next_token(), EToken::MarkerEnd);
  ZO_EXPECT_ERROR(reader->skip_element(), error::zoserialize_reader_data_type,
                  "Tag has unexpected value.  Type={@tagType}, Value={@tagValue}");
}

TEST(BinaryReaderTest, SizedMarkerSkippedUnreadWithAnyBuffer) {
  std::string const content = zotest::golden_text(300);
  std::string const doc = zotest::bytes("B5 01 2F 59 01 2C") + content + zotest::bytes("BF 11");
  for (unsigned buffer : {0u, 1u, 5u, 100u, 4096u}) {
    auto const reader = reader_of(doc, buffer);
    reader->read_marker_start();
    EXPECT_FALSE(reader->read_marker_is_end());
    reader->read_marker_end();
    EXPECT_TRUE(reader->read_bool());
    EXPECT_TRUE(reader->is_eof());
  }
}

// ---- Closing
// --------------------------------------------------------------------------------------

TEST(BinaryReaderTest, CloseReleasesTheSource) {
  auto const source = source_of(zotest::bytes("00"));
  BinaryReader reader(source, 1);
  reader.read_null();
  EXPECT_EQ(source->ref_count(), 2u);
  reader.close();
  EXPECT_EQ(source->ref_count(), 1u);
  reader.close();  // again: nothing left to do
}

TEST(BinaryReaderTest, OperationsNeedingTheSourceFailAfterClose) {
  auto const source = source_of(zotest::bytes("00 00 53 61 62 63"));
  BinaryReader reader(source, 1);
  reader.read_null();
  reader.close();
  auto const info = ZO_EXPECT_ERROR(reader.read_null(), error::zoserialize_reader_closed, kClosed);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryReader::throw_closed_error()");
  ZO_EXPECT_ERROR(reader.is_eof(), error::zoserialize_reader_closed, kClosed);
  ZO_EXPECT_ERROR(reader.next_token(), error::zoserialize_reader_closed, kClosed);
  ZO_EXPECT_ERROR(reader.skip_element(), error::zoserialize_reader_closed, kClosed);
  ZO_EXPECT_ERROR(reader.read_binary(), error::zoserialize_reader_closed, kClosed);
  EXPECT_EQ(source->position(), 1u);
}

TEST(BinaryReaderTest, CloseFinishesAnOpenStream) {
  auto const source = source_of(zotest::bytes("55 61 62 63 64 65 11"));
  BinaryReader reader(source, 1);
  auto const stream = reader.read_string_stream();
  char c;
  EXPECT_EQ(stream->read(&c, 1), 1u);
  reader.close();
  EXPECT_EQ(reader.position(), 6u) << "the rest of the payload is consumed";
  ZO_EXPECT_ERROR(stream->read(&c, 1), error::zoserialize_reader_state, kDetached);
}

TEST(BinaryReaderTest, CloseWithOpenMarkersFailsAndChangesNothing) {
  auto const source = source_of(zotest::bytes("B0 B0 11 BF BF"));
  BinaryReader reader(source, 4096);
  reader.read_marker_start();
  reader.read_marker_start();
  auto const info = ZO_EXPECT_ERROR(reader.close(), error::zoserialize_reader_marker_nesting,
                                    "Attempt to close reader with open markers");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryReader::close()");
  EXPECT_EQ(source->ref_count(), 2u);
  EXPECT_TRUE(reader.read_bool());
  reader.read_marker_end();
  ZO_EXPECT_ERROR(reader.close(), error::zoserialize_reader_marker_nesting,
                  "Attempt to close reader with open markers");
  reader.read_marker_end();
  reader.close();
  EXPECT_EQ(source->ref_count(), 1u);
}

// ---- Round trips of random documents ------------------------------------------------------------

TEST(BinaryReaderTest, RandomDocumentsRoundTrip) {
  std::mt19937 buffers(20240611);
  for (std::uint64_t seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    unsigned const writer_buffers[] = {0, 1, 7, 4096, 16384};
    auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    std::vector<std::size_t> ends;
    {
      BinaryWriter writer(sink, writer_buffers[buffers() % 5]);
      ends = zotest::RandomDocument(seed).write(writer, [&] { return sink->str().size(); });
      writer.close();
    }
    std::string const bytes = sink->str();

    for (unsigned buffer : {0u, 1u, 7u, 4096u}) {
      SCOPED_TRACE(::testing::Message() << "read buffer " << buffer);
      auto reader = reader_of(bytes, buffer);
      zotest::RandomDocument(seed).read(*reader);
      EXPECT_TRUE(reader->is_eof());

      reader = reader_of(bytes, buffer);
      std::string const copy = copy_all(*reader, writer_buffers[buffers() % 5]);
      EXPECT_TRUE(copy == bytes) << "copy differs: " << copy.size() << " vs " << bytes.size();
      auto const a = reader_of(bytes, buffer);
      auto const b = reader_of(copy, 3);
      EXPECT_TRUE(Reader::read_compare_equal_all(*a, *b));

      reader = reader_of(bytes, buffer);
      for (std::size_t end : ends) {
        reader->skip_element();
        EXPECT_EQ(reader->position(), end);
      }
      EXPECT_TRUE(reader->is_eof());
    }
  }
}

// ---- Threads ------------------------------------------------------------------------------------

// Payload streams may be released on any thread: callers hand them to other threads, which drop
// them while the reader (on its own thread) detaches and releases its reference.
TEST(BinaryReaderThreadsTest, PayloadStreamsAreReleasedOnOtherThreads) {
  constexpr int kStreams = 4000;
  std::string doc;
  for (int i = 0; i < kStreams; ++i)
    doc += zotest::bytes(i % 2 ? "93 61 62 63" : "5B 01 61 5D 01 62 5F");
  auto const reader = reader_of(doc, 64);
  std::thread releaser;
  std::vector<InterfacePtr<IReadStream>> batch;
  for (int i = 0; i < kStreams; ++i) {
    auto const stream = i % 2 ? reader->read_binary() : reader->read_string_stream();
    char c;
    ASSERT_EQ(stream->read(&c, 1), 1u);
    batch.push_back(stream);
    if (batch.size() == 50) {
      if (releaser.joinable()) releaser.join();
      releaser = std::thread([held = std::move(batch)]() mutable { held.clear(); });
      batch.clear();
    }
  }
  if (releaser.joinable()) releaser.join();
  EXPECT_TRUE(reader->is_eof() || reader->next_token() == EToken::Eof);
}

}  // namespace
