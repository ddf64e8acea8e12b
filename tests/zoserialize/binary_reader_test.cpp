#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/random_document.h>
#include <support/script.h>
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
using zoserialize::BinaryReader;
using zoserialize::InterfacePtr;
using zoserialize::IReadStream;
using zoserialize::Reader;
using zotest::ByteSource;
using Call = ByteSource::Call;
using EToken = Reader::EToken;

constexpr char kDetached[] = "Reader has already been detached from stream";
constexpr char kUtf8Error[] = "Invalid UTF-8 sequence at offset {@offset}";
constexpr char kEof[] =
    "End of data reached reading from source.  ExpectedBytes={@expected}, ReadBytes={@actual}";

zocore::RefCountPtr<ByteSource> source_of(std::string bytes, bool known_size = true) {
  auto source = zocore::make_ref_counted<ByteSource>(std::move(bytes));
  if (!known_size) source->unknown_size();
  return source;
}

std::unique_ptr<BinaryReader> reader_of(std::string bytes, unsigned buffer = 4096) {
  return std::make_unique<BinaryReader>(source_of(std::move(bytes)), buffer);
}

std::unique_ptr<BinaryReader> reader_hex(std::string_view hex, unsigned buffer = 4096) {
  return reader_of(zotest::unhex(hex), buffer);
}

Call r(unsigned requested, unsigned returned) {
  return {false, requested, returned};
}

// Everything read through the reader, copied into a binary writer.
std::string copy_all(Reader& reader, unsigned writer_buffer = 4096) {
  auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  {
    zoserialize::BinaryWriter writer(sink, writer_buffer);
    reader.read_copy_all(writer);
  }
  return sink->str();
}

// ---- Failures ---------------------------------------------------------------------------------

TEST(BinaryReaderTest, MalformedInputAndMisuseFail) {
  zotest::expect_error_details([] { BinaryReader reader(nullptr); }, error::zoserialize_reader,
                               "NULL source stream specified", "errno=22",
                               "BinaryReader::BinaryReader()");
  constexpr char kNoTagByte[] = "Unable to read tag byte, reader is EOF";
  constexpr char kUnexpected[] = "Tag has unexpected value.  Type={@tagType}, Value={@tagValue}";
  constexpr char kChunkTag[] =
      "Unexpected tag.  Expecting chunk continuation or end tag.  Type={@tagType}, "
      "Value={@tagValue}";
  constexpr char kNoMarker[] = "No markers are currently open";
  constexpr char kNoEndTag[] = "Unexpected end of data in marker, expecting marker end tag";
  constexpr char kOverrun[] =
      "Marker size mismatch; reader has already passed calculated marker end.  "
      "MarkerEnd={@markerEndPos}, ReaderPos={@readerPos}";
  constexpr char kSize[] = "Inconsistent marker size: no end tag at end position";
  constexpr char kClosed[] =
      "Cannot read from reader after it has been closed (source stream detached)";
  auto const& eof = error::zoserialize_reader_eof;
  auto const& type = error::zoserialize_reader_data_type;
  auto const& utf8 = zocore::error::zocore_utf8;
  auto const& closed = error::zoserialize_reader_closed;
  zotest::ReaderFailure const cases[] = {
      {"00", "n n", &eof, kNoTagByte, "", "BinaryReader::impl_read_tag_check_type()"},
      {"", "S", &eof, kNoTagByte},
      // Payload streams: tags without a length form, chunks of another type or form, chunks and
      // text that end early, invalid text wherever it is read (a read of exactly the rest is not
      // short), streams used once detached.
      {"5D 00", "S", &type, kUnexpected, "tagType=String tagValue=93",
       "BinaryReader::create_payload_stream()"},
      {"5F", "S", &type, kUnexpected, "tagValue=95"},
      {"9D 00", "B", &type, kUnexpected, "tagType=Binary tagValue=157"},
      {"5B 01 61 9D 01 62 5F", "S .r4", &error::zoserialize_reader_data_type_mismatch,
       "Invalid tag in chunked element.  Expected={@expectedType}, Actual={@actualType} "
       "(ActualTag={@actualTag})",
       "expectedType=String actualType=Binary actualTag=157",
       "BinaryReader::BinaryStreamChunkedImpl::next_chunk()"},
      // The parameters carry other names than the placeholders.
      {"9B 01 61 9C 00 01 62 9F", "B .r4", &type, kChunkTag,
       "type=Binary value=156 tagType=<missing> tagValue=<missing>"},
      {"9B 01 61 95 62 9F", "B .r4", &type, kChunkTag, "type=Binary value=149"},
      {"9B 02 61", "B .r8", &eof, kEof, "expected=2 actual=1"},
      {"9B 01 61 9D", "B .r8", &eof, kEof, "expected=1 actual=0"},
      {"9C 00 05 61 62 63", "B .r8", &eof, kEof, "expected=5 actual=3"},
      {"53 61 E2 82", "S .r3 .r1", &utf8, kUtf8Error},
      {"53 61 E2 82", "S .r3 .c", &utf8, kUtf8Error},
      {"53 61 FF 62", "S .r3", &utf8, kUtf8Error, "offset=1"},
      {"53 FF 61 62", "S .x3", &utf8, kUtf8Error},
      {"53 61 FF 62 00", "S .r1 n", &utf8, kUtf8Error},
      {"53 61 FF 62 00", "S .r1 !n .r1", &error::zoserialize_reader_state, kDetached},
      {"95 61 62 63 64 65", "B .c .c", &error::zoserialize_reader_state, kDetached},
      {"B0 53 61 62 63 BF", "{ S .r1 ? .r1", &error::zoserialize_reader_state, kDetached},
      // Markers: none open; no end tag; the declared size passed, too large or missing the tag.
      {"BF", "?", &error::zoserialize_reader_marker_mismatch, kNoMarker, "",
       "BinaryReader::read_marker_is_end()"},
      {"BF", "}", &error::zoserialize_reader_marker_mismatch, kNoMarker, "",
       "BinaryReader::read_marker_end()"},
      {"B0", "{ }", &eof, kNoEndTag, "", "BinaryReader::read_marker_end()"},
      {"B0 11 A0 AF", "{ }", &eof, kNoEndTag, "", "BinaryReaderBase::skip_to_marker_end_tag()"},
      {"B4 03 11 21 21 BF", "{ k k }", &error::zoserialize_reader_marker_overrun, kOverrun,
       "markerEndPos=3 readerPos=4", "BinaryReader::read_marker_end()"},
      // The declared end counts from the start tag: a marker smaller than its header is passed.
      {"B4 01 11 BF", "{ }", &error::zoserialize_reader_marker_overrun, kOverrun,
       "markerEndPos=1 readerPos=2"},
      {"B4 10 11", "{ }", &eof, "End of data reached skipping to end of marker",
       "markerEndPos=16 streamSize=3", "BinaryReader::read_marker_end()"},
      {"B4 02 11 20 21 BF", "{ }", &error::zoserialize_reader_marker_size, kSize, "",
       "BinaryReader::read_marker_end()"},
      {"B4 02 25 00 80 BF", "{ }", &error::zoserialize_reader_marker_size, kSize},
      // Closing: refused while markers are open; afterwards nothing reaches the source.
      {"B0 B0 11 BF BF", "{ { X", &error::zoserialize_reader_marker_nesting,
       "Attempt to close reader with open markers", "", "BinaryReader::close()"},
      {"00", "n X n", &closed, kClosed, "", "BinaryReader::throw_closed_error()"},
      {"00", "n X e", &closed, kClosed},
      {"00", "n X B", &closed, kClosed},
  };
  for (zotest::ReaderFailure const& c : cases) {
    for (unsigned buffer : {1u, 4096u})
      zotest::expect_failure(c,
                             [&](std::string b, bool) { return reader_of(std::move(b), buffer); });
  }
}

// Every operation that moves to the next element detaches a half-read stream after consuming its
// rest; the stream then fails whatever is asked of it.
TEST(BinaryReaderTest, MovingOnDetachesAHalfReadStream) {
  for (std::string const move_on : {"t", "N", "k e", "{ b }", "!B", "c", "X"}) {
    for (std::string const tail : {".r1", ".x1", ".q", ".c"}) {
      zotest::expect_failure(
          {"55 61 62 63 64 65 B0 11 BF", ("S .r2 " + move_on + " " + tail).c_str(),
           &error::zoserialize_reader_state, kDetached, "",
           tail == ".r1" ? "BinaryReader::BinaryStreamImpl::read()" : ""},
          [](std::string b, bool) { return reader_of(std::move(b), 3); });
      zotest::expect_failure(
          {"9B 02 01 02 9D 01 03 9F B0 11 BF", ("B .r2 " + move_on + " " + tail).c_str(),
           &error::zoserialize_reader_state, kDetached, "",
           tail == ".r1" ? "BinaryReader::BinaryStreamChunkedImpl::read()" : ""},
          [](std::string b, bool) { return reader_of(std::move(b), 3); });
    }
  }
}

// ---- The read-ahead buffer and the source -----------------------------------------------------

TEST(BinaryReaderTest, BufferSizesAndTheSourceTraffic) {
  // Nothing is read before the first access; size 0 behaves as 1.
  auto source = source_of(zotest::bytes("53 61 62 63"));
  BinaryReader zero(source, 0);
  EXPECT_TRUE(source->calls().empty());
  EXPECT_EQ(zero.read_string(), "abc");
  EXPECT_TRUE(zero.is_eof());
  EXPECT_EQ(source->calls(), (std::vector<Call>{r(1, 1), r(3, 3), r(1, 0)}));
  EXPECT_EQ(BinaryReader::kDefaultBufferSize, 16384u);
  source = source_of(zotest::bytes("00"));
  BinaryReader(source).read_null();
  EXPECT_EQ(source->calls(), std::vector<Call>{r(16384, 1)});
  // Once the source has ended it is not asked again, also by a payload cut short.
  struct Ended {
    char const* hex;
    char const* ops;
    std::vector<Call> calls;
  };
  for (Ended const& c : {Ended{"", "e e t N !n !s !B !{ !k", {r(4, 0)}},
                         Ended{"00", "n e e t N !n !s !B !{ !k", {r(4, 1), r(4, 0)}},
                         Ended{"53 61", "S .r1 !.r1 !.r1", {r(4, 2), r(4, 0)}}}) {
    source = source_of(zotest::bytes(c.hex));
    BinaryReader reader(source, 4);
    zotest::run_ops(reader, c.ops);
    EXPECT_EQ(source->calls(), c.calls) << c.ops;
  }
  // Refills of the capacity, requests of at least the capacity straight from the source, skips
  // of what the buffer does not hold.
  std::string const ten = zotest::bytes("9A 00 00 00 0A") + "0123456789";
  std::string const text = zotest::bytes("5A 00 00 00 0A") + "0123456789";
  struct Case {
    std::string encoding;  // an element, then a null
    unsigned buffer;
    char const* ops;
    std::vector<Call> calls;
  };
  Case const cases[] = {
      {ten, 4, "B .r10", {r(4, 4), r(4, 4), r(7, 7), r(4, 1), r(4, 0)}},
      {ten, 4, "B .x10", {r(4, 4), r(4, 4), {true, 7, 7}, r(4, 1), r(4, 0)}},
      {text, 8, "s", {r(8, 8), r(8, 8), r(8, 0)}},
      {zotest::unhex("99 01 00 78*256"),
       16,
       "k",
       {r(16, 16), {true, 243, 243}, r(16, 1), r(16, 0)}},
  };
  for (Case const& c : cases) {
    source = source_of(c.encoding + '\0');
    BinaryReader reader(source, c.buffer);
    zotest::run_ops(reader, c.ops);
    EXPECT_EQ(reader.position(), c.encoding.size());
    reader.read_null();
    EXPECT_TRUE(reader.is_eof());
    EXPECT_EQ(source->calls(), c.calls) << c.ops;
  }
  // A failing source leaves the position.
  source = source_of(zotest::bytes("00 00 00"));
  source->fail_at_call(1);
  BinaryReader reader(source, 2);
  zotest::run_ops(reader, "n n");
  ZO_EXPECT_ERROR(reader.read_null(), zotest::test_stream_error, "Injected source failure");
  EXPECT_EQ(reader.position(), 2u);
  zotest::run_ops(reader, "n");
  EXPECT_TRUE(reader.is_eof());
}

// ---- Payload streams and markers ----------------------------------------------------------------

TEST(BinaryReaderTest, PayloadStreamsCountDown) {
  // A binary of 5 inline bytes; a chunked one of 3, 0 and 2 bytes, whose size is unknown.
  auto reader = reader_hex("95 01 02 03 04 05 9B 03 01 02 03 9D 00 9E 00 02 04 05 9F 00", 1);
  auto stream = reader->read_binary();
  char out[16];
  EXPECT_EQ(stream->bytes_remaining(), 5u);
  EXPECT_EQ(stream->read(out, 2), 2u);
  EXPECT_EQ(stream->bytes_remaining(), 3u);
  EXPECT_EQ(stream->read(out, 10), 3u);
  EXPECT_EQ(zotest::hex(std::string(out, 3)), "03 04 05");
  EXPECT_EQ(stream->bytes_remaining(), 0u);
  EXPECT_EQ(stream->read(out, 1) + stream->skip(1), 0u);
  stream = reader->read_binary();
  EXPECT_EQ(stream->bytes_remaining(), IReadStream::kUnknownSize);
  EXPECT_EQ(stream->skip(4), 4u);
  EXPECT_EQ(stream->read(out, 8), 1u);
  EXPECT_EQ(out[0], '\x05');
  EXPECT_EQ(stream->read(out, 8), 0u);
  zotest::run_ops(*reader, "n e");
}

TEST(BinaryReaderTest, StreamsStayAttachedUntilTheReaderMovesOn) {
  // is_eof does not detach; a stream's own close consumes the rest and detaches it; a stream
  // outliving its reader is detached.
  auto reader = reader_hex("53 61 62 63", 2);
  auto stream = reader->read_string_stream();
  char buffer[3];
  EXPECT_EQ(stream->read(buffer, 1), 1u);
  EXPECT_FALSE(reader->is_eof());
  EXPECT_EQ(stream->read(buffer, 3), 2u);
  EXPECT_EQ(std::string(buffer, 2), "bc");
  EXPECT_TRUE(reader->is_eof());
  std::string const payload = zotest::pattern_string(0, 100000);
  auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  {
    zoserialize::BinaryWriter writer(sink);
    writer.write_binary()->write(payload.data(), 100000);
    writer.write_binary(payload.data(), 70000);
    writer << true;
  }
  reader = reader_of(sink->str(), 100);
  for (int i = 0; i < 2; ++i) {
    stream = reader->read_binary();
    EXPECT_EQ(stream->read(buffer, 3), 3u);
    EXPECT_EQ(std::string(buffer, 3), payload.substr(0, 3));
    stream->close();
  }
  EXPECT_TRUE(reader->read_bool());
  stream = reader_hex("55 61 62 63 64 65")->read_string_stream();
  ZO_EXPECT_ERROR(stream->read(buffer, 1), error::zoserialize_reader_state, kDetached);
  ZO_EXPECT_ERROR(stream->close(), error::zoserialize_reader_state, kDetached);
}

TEST(BinaryReaderTest, CharactersSplitAcrossReadsAndChunksValidate) {
  std::string const text = "a\xC3\xA9\xE2\x82\xAC";  // 1, 2 and 3 bytes
  for (unsigned first = 0; first <= text.size(); ++first) {
    for (unsigned buffer : {1u, 4096u}) {
      auto const reader = reader_of(zotest::bytes("56") + text, buffer);
      auto const stream = reader->read_string_stream();
      std::string got(text.size(), '\0');
      EXPECT_EQ(stream->read(got.data(), first), first);
      EXPECT_EQ(stream->read(got.data() + first, 6 - first), 6 - first);
      EXPECT_EQ(stream->read(got.data(), 1), 0u);
      EXPECT_EQ(got, text);
      stream->close();
    }
  }
  auto const reader = reader_hex("5B 02 E2 82 5D 01 AC 5F 5B 01 E2 5D 00 5E 00 02 82 AC 5F", 1);
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(zotest::read_all(*reader->read_string_stream(), 1), "\xE2\x82\xAC");
}

// read_marker_end skips a sized marker by its whole declared size, counted from the current
// position whatever was read of it; close() with markers open changes nothing.
TEST(BinaryReaderTest, MarkerEndSkipsTheDeclaredSizeFromTheCurrentPosition) {
  for (unsigned buffer : {1u, 4096u}) {
    auto reader = reader_hex("B4 03 11 20 21 BF BF", buffer);
    zotest::run_ops(*reader, "{ b }");  // lands on the second BF
    EXPECT_TRUE(reader->is_eof());
    reader = reader_hex("B4 02 52 BF BF BF", buffer);
    zotest::run_ops(*reader, "{ } t");  // a lying size may hit a payload byte
    EXPECT_EQ(reader->position(), 5u);
    EXPECT_EQ(reader->next_token(), EToken::MarkerEnd);
  }
  for (unsigned buffer : {0u, 1u, 5u, 100u, 4096u}) {
    auto const reader = reader_hex("B5 01 2F 59 01 2C 61*300 BF 11", buffer);
    zotest::run_ops(*reader, "{ ? } b e");
    EXPECT_TRUE(reader->is_eof());
  }
  auto const source = source_of(zotest::bytes("B0 B0 11 BF BF 00"));
  BinaryReader reader(source, 1);
  zotest::run_ops(reader, "{ { !X b } !X }");
  EXPECT_EQ(source->ref_count(), 2u);
  reader.close();
  reader.close();  // again: nothing left to do
  EXPECT_EQ(source->ref_count(), 1u);
  EXPECT_EQ(source->position(), 5u);
}

// ---- Round trips and threads ------------------------------------------------------------------

TEST(BinaryReaderTest, RandomDocumentsRoundTrip) {
  std::mt19937 buffers(20240611);
  unsigned const writer_buffers[] = {0, 1, 7, 4096, 16384};
  for (std::uint64_t seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    std::vector<std::size_t> ends;
    {
      zoserialize::BinaryWriter writer(sink, writer_buffers[buffers() % 5]);
      ends = zotest::RandomDocument(seed).write(writer, [&] { return sink->str().size(); });
    }
    std::string const bytes = sink->str();
    for (unsigned buffer : {0u, 1u, 7u, 4096u}) {
      SCOPED_TRACE(::testing::Message() << "read buffer " << buffer);
      auto reader = reader_of(bytes, buffer);
      zotest::RandomDocument(seed).read(*reader);
      EXPECT_TRUE(reader->is_eof());
      std::string const copy = copy_all(*reader_of(bytes, buffer), writer_buffers[buffers() % 5]);
      EXPECT_TRUE(copy == bytes) << "copy differs: " << copy.size() << " vs " << bytes.size();
      EXPECT_TRUE(Reader::read_compare_equal_all(*reader_of(bytes, buffer), *reader_of(copy, 3)));
      reader = reader_of(bytes, buffer);
      for (std::size_t end : ends) {
        reader->skip_element();
        EXPECT_EQ(reader->position(), end);
      }
      EXPECT_TRUE(reader->is_eof());
    }
  }
}

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
    batch.push_back(i % 2 ? reader->read_binary() : reader->read_string_stream());
    char c;
    ASSERT_EQ(batch.back()->read(&c, 1), 1u);
    if (batch.size() < 50) continue;
    if (releaser.joinable()) releaser.join();
    releaser = std::thread([held = std::move(batch)]() mutable { held.clear(); });
    batch.clear();
  }
  if (releaser.joinable()) releaser.join();
  EXPECT_EQ(reader->next_token(), EToken::Eof);
}

}  // namespace
