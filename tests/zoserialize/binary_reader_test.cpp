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

// ---- Failures ---------------------------------------------------------------------------------

// Every operation that moves to the next element detaches a half-read stream after consuming its
// rest; the stream then fails whatever is asked of it.
TEST(BinaryReaderTest, MovingOnDetachesAHalfReadStream) {
  for (std::string const move_on : {"t", "N", "k e", "{ b }", "!B", "c", "X"}) {
    for (std::string const tail : {".r1", ".x1", ".q", ".c"}) {
      bool const read = tail == ".r1";
      zotest::expect_failure(*reader_hex("55 61 62 63 64 65 B0 11 BF", 3),
                             "S .r2 " + move_on + " " + tail,
                             {&error::zoserialize_reader_state, kDetached, "",
                              read ? "BinaryReader::BinaryStreamImpl::read()" : ""});
      zotest::expect_failure(*reader_hex("9B 02 01 02 9D 01 03 9F B0 11 BF", 3),
                             "B .r2 " + move_on + " " + tail,
                             {&error::zoserialize_reader_state, kDetached, "",
                              read ? "BinaryReader::BinaryStreamChunkedImpl::read()" : ""});
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
