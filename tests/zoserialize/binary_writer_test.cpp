#include <algorithm>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <support/binary_golden.h>
#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/test_streams.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/error_codes.h>

namespace {

namespace error = zoserialize::error;
using zocore::RefCountPtr;
using zoserialize::BinaryWriter;
using zoserialize::BinaryWriterBase;
using zoserialize::InterfacePtr;
using zoserialize::IWriteStream;
using zoserialize::Writer;
using zotest::ByteSource;
using zotest::RecordingSink;

RefCountPtr<RecordingSink> make_sink() {
  return zocore::make_ref_counted<RecordingSink>();
}

std::vector<std::string> hex_writes(RecordingSink const& sink) {
  std::vector<std::string> out;
  for (std::string const& w : sink.writes())
    out.push_back(zotest::hex(w));
  return out;
}

// The output buffering of a stream writer exactly as its contract states it, with every byte
// passing through the hooks (no output window). BinaryWriter must cut its output into the very
// same stream writes, at the same moments.
class ReferenceWriter final : public BinaryWriterBase {
 public:
  ReferenceWriter(RefCountPtr<RecordingSink> sink, unsigned capacity)
      : sink_(std::move(sink)), capacity_(capacity) {}
  ~ReferenceWriter() override {
    try {
      close();
    } catch (...) {  // NOLINT(bugprone-empty-catch): mirrors the writer's destructor
    }
  }

  void close() override {
    flush();
    BinaryWriterBase::close();
  }
  void flush() override {
    BinaryWriterBase::flush();
    write_buffer();
  }
  void write_marker_start() override {
    finalize_previous_element();
    write_marker_start_tag();
  }
  void write_marker_end() override {
    finalize_previous_element();
    write_marker_end_tag();
  }

 protected:
  void impl_write_byte(unsigned char byte) override {
    if (capacity_ == 0) {
      sink_->write(&byte, 1);
      return;
    }
    buffer_.push_back(static_cast<char>(byte));
    if (buffer_.size() == capacity_) write_buffer();
  }
  void impl_write(void const* data, unsigned size) override {
    auto const* p = static_cast<char const*>(data);
    if (capacity_ == 0 || (buffer_.empty() && size >= capacity_)) {
      sink_->write(p, size);
      return;
    }
    unsigned const n = std::min<unsigned>(size, capacity_ - static_cast<unsigned>(buffer_.size()));
    buffer_.append(p, n);
    p += n;
    size -= n;
    if (buffer_.size() == capacity_) write_buffer();
    if (size >= capacity_) {
      sink_->write(p, size);
    } else {
      buffer_.append(p, size);
    }
  }

 private:
  void write_buffer() {
    if (buffer_.empty()) return;
    std::string const out = std::move(buffer_);
    buffer_.clear();
    sink_->write(out.data(), static_cast<unsigned>(out.size()));
  }

  RefCountPtr<RecordingSink> sink_;
  unsigned capacity_;
  std::string buffer_;
};

constexpr unsigned kBufferSizes[] = {0, 1, 2, 3, 7, 16, 100, 4096, 4097, 16384};

// ---- Golden vectors -----------------------------------------------------------------------------

class BinaryWriterGoldenTest : public ::testing::TestWithParam<zotest::BinaryGoldenCase> {};

TEST_P(BinaryWriterGoldenTest, WritesTheBytesInTheStreamWritesOfTheContract) {
  for (unsigned buffer : kBufferSizes) {
    SCOPED_TRACE(::testing::Message() << "buffer " << buffer);
    auto const sink = make_sink();
    auto const reference = make_sink();
    {
      BinaryWriter writer(sink, buffer);
      ReferenceWriter model(reference, buffer);
      GetParam().write(writer);
      GetParam().write(model);
      writer.close();
      model.close();
    }
    EXPECT_TRUE(sink->bytes() == GetParam().bytes)
        << "got " << zotest::hex(sink->bytes().substr(0, 64)) << "...";
    EXPECT_TRUE(sink->writes() == reference->writes())
        << sink->writes().size() << " writes, the contract has " << reference->writes().size();
  }
}

INSTANTIATE_TEST_SUITE_P(Written, BinaryWriterGoldenTest,
                         ::testing::ValuesIn(zotest::binary_golden_written_cases()),
                         [](auto const& p) { return p.param.name; });

// A script run step by step against BinaryWriter and the contract's model: after every step both
// sinks must hold the same writes, so a full buffer reaches the stream when the contract says.
struct StepContext {
  InterfacePtr<IWriteStream> stream;
};
using Step = std::function<void(Writer&, StepContext&)>;

std::vector<Step> mixed_script() {
  std::string const text40 = zotest::golden_text(40);
  std::string const text20000 = zotest::golden_text(20000);
  std::string const data = zotest::pattern_string(0, 70000);
  std::vector<Step> steps = {
      [](Writer& w, StepContext&) { w.write_null(); },
      [](Writer& w, StepContext&) { w << true; },
      [](Writer& w, StepContext&) { w << 100000; },
      [](Writer& w, StepContext&) { w << 'x'; },
      [](Writer& w, StepContext&) { w << std::string("abc"); },
      [=](Writer& w, StepContext&) { w << text40; },
      [=](Writer& w, StepContext&) { w.write_binary(data.data(), 300); },
      [](Writer& w, StepContext&) { w << 0.1; },
      [](Writer& w, StepContext&) { w << zoserialize::AbsoluteTime(1LL << 31); },
      [](Writer& w, StepContext&) { w.write_sequence_start(); },
      [](Writer& w, StepContext& c) { c.stream = w.write_binary(); },
      [=](Writer&, StepContext& c) { c.stream->write(data.data(), 10); },
      [=](Writer&, StepContext& c) { c.stream->write(data.data(), 5000); },
      [=](Writer&, StepContext& c) { c.stream->write(data.data(), 3); },
      [](Writer& w, StepContext&) { w.write_sequence_separator(); },
      [](Writer& w, StepContext& c) { c.stream = w.write_string_stream(); },
      [=](Writer&, StepContext& c) {
        for (unsigned i = 0; i < 41; ++i)
          c.stream->write(text20000.data() + std::size_t{100} * i, 100);
      },
      [](Writer& w, StepContext&) { w.flush(); },
      [](Writer& w, StepContext&) { w.write_sequence_separator(); },
      [](Writer& w, StepContext&) { w.write_marker_start(); },
      [](Writer& w, StepContext&) {
        for (int i = 0; i < 8; ++i)
          w.write_null();
      },
      [](Writer& w, StepContext&) { w.write_marker_end(); },
      [](Writer& w, StepContext&) { w.write_sequence_separator(); },
      [=](Writer& w, StepContext&) { w << text20000; },
      [](Writer& w, StepContext&) { w.write_sequence_end(); },
      [](Writer& w, StepContext& c) { c.stream = w.write_binary(); },
      [=](Writer&, StepContext& c) { c.stream->write(data.data(), 70000); },
      [=](Writer& w, StepContext&) {
        ByteSource source(data.substr(0, 5000));
        w.write_binary(source);
      },
      [=](Writer& w, StepContext&) {
        ByteSource source(data.substr(0, 9000));
        source.unknown_size();
        w.write_binary(source);
      },
      [](Writer& w, StepContext&) { w.write_null(); },
      [](Writer& w, StepContext&) { w.close(); },
  };
  return steps;
}

TEST(BinaryWriterTest, EveryStepReachesTheStreamWhenTheContractSays) {
  std::vector<unsigned> buffers;
  for (unsigned b = 0; b <= 20; ++b)
    buffers.push_back(b);
  for (unsigned b : {64u, 255u, 4096u, 16384u})
    buffers.push_back(b);
  std::vector<Step> const script = mixed_script();
  for (unsigned buffer : buffers) {
    auto const sink = make_sink();
    auto const reference = make_sink();
    BinaryWriter writer(sink, buffer);
    ReferenceWriter model(reference, buffer);
    StepContext writer_context;
    StepContext model_context;
    for (std::size_t i = 0; i < script.size(); ++i) {
      script[i](writer, writer_context);
      script[i](model, model_context);
      ASSERT_EQ(sink->write_sizes(), reference->write_sizes())
          << "buffer " << buffer << ", after step " << i;
    }
    EXPECT_EQ(sink->bytes(), reference->bytes()) << "buffer " << buffer;
  }
}

// ---- Buffering examples -------------------------------------------------------------------------

TEST(BinaryWriterTest, WithoutBufferEveryTagAndPayloadIsItsOwnWrite) {
  auto const sink = make_sink();
  BinaryWriter writer(sink, 0);
  std::string const text300 = zotest::golden_text(300);
  writer.write_null();
  writer.write_string("abc", 3);
  writer << 100000;
  writer << text300;
  writer.write_sequence_start(300);
  writer.write_string("", 0);
  std::vector<std::string> const expected = {
      "00", "53",    "61 62 63", "26", "00 01 86 A0", "59", "01 2C", zotest::hex(text300),
      "A9", "01 2C", "50"};
  EXPECT_EQ(hex_writes(*sink), expected);
}

TEST(BinaryWriterTest, ABufferOf16SplitsA40ByteString) {
  auto const sink = make_sink();
  BinaryWriter writer(sink, 16);
  std::string const text = zotest::golden_text(40);
  writer.write_string(text.data(), 40);
  // The 2-byte header and 14 bytes fill the buffer, which is written; the last 26 bytes are
  // written straight through.
  ASSERT_EQ(sink->write_sizes(), (std::vector<unsigned>{16, 26}));
  EXPECT_EQ(sink->writes()[0], zotest::bytes("58 28") + text.substr(0, 14));
  EXPECT_EQ(sink->writes()[1], text.substr(14));
  writer.flush();
  EXPECT_EQ(sink->writes().size(), 2u);
}

TEST(BinaryWriterTest, AFullBufferIsWrittenAtOnce) {
  for (unsigned buffer : {1u, 4u, 16u}) {
    auto const sink = make_sink();
    BinaryWriter writer(sink, buffer);
    for (unsigned i = 0; i + 1 < buffer; ++i)
      writer.write_null();
    EXPECT_TRUE(sink->writes().empty()) << buffer;
    writer.write_null();
    EXPECT_EQ(sink->write_sizes(), std::vector<unsigned>{buffer});
  }
}

TEST(BinaryWriterTest, DefaultBufferHolds16384Bytes) {
  EXPECT_EQ(BinaryWriter::kDefaultBufferSize, 16384u);
  auto const sink = make_sink();
  BinaryWriter writer(sink);
  for (int i = 0; i < 16383; ++i)
    writer.write_null();
  EXPECT_TRUE(sink->writes().empty());
  writer.write_null();
  EXPECT_EQ(sink->write_sizes(), std::vector<unsigned>{16384});
}

TEST(BinaryWriterTest, LargeDirectStreamWritesGoOutInChunksOfAtMost65535) {
  std::string const data = zotest::pattern_string(0, 200000);
  auto const sink = make_sink();
  BinaryWriter writer(sink, 0);
  auto const stream = writer.write_binary();
  stream->write(data.data(), 200000);
  std::vector<unsigned> const expected = {1, 2, 65535, 1, 2, 65535, 1, 2, 65535, 1, 2, 3395};
  EXPECT_EQ(sink->write_sizes(), expected);
  EXPECT_EQ(zotest::hex(sink->writes()[0] + sink->writes()[1]), "9C FF FF");
  EXPECT_EQ(zotest::hex(sink->writes()[9] + sink->writes()[10]), "9E 0D 43");
  writer.close();
  EXPECT_EQ(zotest::hex(sink->writes().back()), "9F");
}

TEST(BinaryWriterTest, FlushWritesTheFinishedValueStream) {
  auto const sink = make_sink();
  BinaryWriter writer(sink, 64);
  auto const stream = writer.write_string_stream();
  stream->write("abc", 3);
  EXPECT_TRUE(sink->writes().empty());
  writer.flush();
  EXPECT_EQ(hex_writes(*sink), std::vector<std::string>{"53 61 62 63"});
  ZO_EXPECT_ERROR(stream->write("d", 1), error::zoserialize_writer_state,
                  "Binary stream writer object has already been closed");
}

// ---- Closing
// -------------------------------------------------------------------------------------

TEST(BinaryWriterTest, CloseWritesEverythingAndReleasesTheStream) {
  auto const sink = make_sink();
  BinaryWriter writer(sink, 64);
  writer << 5;
  writer.write_string_stream()->write("ab", 2);
  EXPECT_EQ(sink->ref_count(), 2u);
  writer.close();
  EXPECT_EQ(zotest::hex(sink->bytes()), "24 05 52 61 62");
  EXPECT_EQ(sink->ref_count(), 1u);
  writer.close();  // closing again has nothing to do
  writer.flush();
}

TEST(BinaryWriterTest, DestructorCloses) {
  auto const sink = make_sink();
  InterfacePtr<IWriteStream> stream;
  {
    BinaryWriter writer(sink, 64);
    writer << 5;
    stream = writer.write_binary();
    stream->write("ab", 2);
  }
  EXPECT_EQ(zotest::hex(sink->bytes()), "24 05 92 61 62");
  EXPECT_EQ(sink->ref_count(), 1u);
  ZO_EXPECT_ERROR(stream->write("c", 1), error::zoserialize_writer_state,
                  "Binary stream writer object has already been closed");
}

TEST(BinaryWriterTest, DestructorSwallowsTheFailureOfOpenMarkers) {
  auto const sink = make_sink();
  {
    BinaryWriter writer(sink, 64);
    writer.write_marker_start();
    writer << true;
  }
  EXPECT_EQ(zotest::hex(sink->bytes()), "B0 11");
}

TEST(BinaryWriterTest, CloseWithOpenMarkerFailsBeforeSequencesAfterFlushing) {
  auto const sink = make_sink();
  BinaryWriter writer(sink, 64);
  writer.write_marker_start();
  writer.write_sequence_start();
  writer.write_null();
  EXPECT_EQ(writer.open_markers(), 1u);
  auto const info =
      ZO_EXPECT_ERROR(writer.close(), error::zoserialize_writer_marker_nesting,
                      "Attempt to close writer but there are marker that are still open");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryWriter::close()");
  EXPECT_EQ(zotest::hex(sink->bytes()), "B0 A0 00");
  // Nothing was released: the writer goes on.
  EXPECT_EQ(sink->ref_count(), 2u);
  writer.write_sequence_end();
  writer.write_marker_end();
  writer.close();
  EXPECT_EQ(zotest::hex(sink->bytes()), "B0 A0 00 AF BF");
}

TEST(BinaryWriterTest, CloseWithOpenSequenceFailsAndKeepsTheStream) {
  auto const sink = make_sink();
  BinaryWriter writer(sink, 64);
  writer.write_sequence_start(2);
  writer << 1;
  auto const info = ZO_EXPECT_ERROR(writer.close(), error::zoserialize_writer_sequence_nesting,
                                    "Attempt to close writer that has open sequences");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryWriterBase::close()");
  EXPECT_EQ(zotest::hex(sink->bytes()), "A2 21");
  writer.write_sequence_separator();
  writer << 2;
  writer.write_sequence_end();
  writer.close();
  EXPECT_EQ(zotest::hex(sink->bytes()), "A2 21 AE 24 02 AF");
}

TEST(BinaryWriterTest, MarkerEndWithoutMarkerFails) {
  auto const sink = make_sink();
  BinaryWriter writer(sink, 0);
  writer.write_marker_start();
  writer.write_marker_end();
  EXPECT_EQ(writer.open_markers(), 0u);
  auto const info =
      ZO_EXPECT_ERROR(writer.write_marker_end(), error::zoserialize_writer_marker_nesting,
                      "Attempt to close marker and none is open");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryWriter::write_marker_end()");
  EXPECT_EQ(zotest::hex(sink->bytes()), "B0 BF");
}

TEST(BinaryWriterTest, MarkersAreAlwaysWrittenWithoutSize) {
  auto const sink = make_sink();
  BinaryWriter writer(sink, 0);
  writer.write_marker_start();
  writer.write_marker_start();
  EXPECT_EQ(writer.open_markers(), 2u);
  writer << std::string("abc");
  writer.write_marker_end();
  writer.write_marker_end();
  writer.close();
  EXPECT_EQ(zotest::hex(sink->bytes()), "B0 B0 53 61 62 63 BF BF");
}

// Every operation that emits bytes fails once the writer has no stream: after close() and when
// it was built without one.
struct ClosedCase {
  char const* name;
  std::function<void(Writer&)> op;
};

std::ostream& operator<<(std::ostream& os, ClosedCase const& c) {
  return os << c.name;
}

class BinaryWriterClosedTest : public ::testing::TestWithParam<ClosedCase> {};

void expect_closed_failure(Writer& writer, ClosedCase const& c) {
  auto const info = ZO_EXPECT_ERROR(c.op(writer), error::zoserialize_writer_closed,
                                    "Cannot write to BinaryWriter, it has already been closed");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryWriter::impl_write()");
}

TEST_P(BinaryWriterClosedTest, FailsAfterClose) {
  for (unsigned buffer : {0u, 1u, 64u}) {
    auto const sink = make_sink();
    BinaryWriter writer(sink, buffer);
    writer.write_null();
    writer.close();
    expect_closed_failure(writer, GetParam());
    EXPECT_EQ(zotest::hex(sink->bytes()), "00");
  }
}

TEST_P(BinaryWriterClosedTest, FailsWithoutStream) {
  for (unsigned buffer : {0u, 64u}) {
    BinaryWriter writer(nullptr, buffer);
    expect_closed_failure(writer, GetParam());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Operations, BinaryWriterClosedTest,
    ::testing::Values(ClosedCase{"Null", [](Writer& w) { w.write_null(); }},
                      ClosedCase{"Bool", [](Writer& w) { w << false; }},
                      ClosedCase{"Int", [](Writer& w) { w << 100000; }},
                      ClosedCase{"WideInt",
                                 [](Writer& w) {
                                   unsigned char const image[20] = {1};
                                   w.write_int_big_endian(image, 20);
                                 }},
                      ClosedCase{"Uint", [](Writer& w) { w << 7u; }},
                      ClosedCase{"Double", [](Writer& w) { w << 0.1; }},
                      ClosedCase{"String", [](Writer& w) { w << std::string("abc"); }},
                      ClosedCase{"EmptyString", [](Writer& w) { w.write_string("", 0); }},
                      ClosedCase{"LargeString", [](Writer& w) { w << zotest::golden_text(70000); }},
                      ClosedCase{"StringFromStream",
                                 [](Writer& w) {
                                   ByteSource source("abc");
                                   w.write_string_stream(source);
                                 }},
                      ClosedCase{"BinaryStreamFinished",
                                 [](Writer& w) {
                                   w.write_binary()->write("abc", 3);
                                   w.flush();
                                 }},
                      ClosedCase{"BinaryStreamDirect",
                                 [](Writer& w) {
                                   std::string const data(5000, 'x');
                                   w.write_binary()->write(data.data(), 5000);
                                 }},
                      ClosedCase{"Time", [](Writer& w) { w << zoserialize::RelativeTime(5); }},
                      ClosedCase{"Uuid", [](Writer& w) { w << zoserialize::Uuid(); }},
                      ClosedCase{"SequenceStart", [](Writer& w) { w.write_sequence_start(3); }},
                      ClosedCase{"MarkerStart", [](Writer& w) { w.write_marker_start(); }}),
    [](auto const& p) { return std::string(p.param.name); });

TEST(BinaryWriterTest, ClosedWriterRefusesValueStreamsAtOnce) {
  auto const sink = make_sink();
  BinaryWriter writer(sink);
  writer.close();
  ZO_EXPECT_ERROR(writer.write_binary(), error::zoserialize_writer_closed,
                  "Cannot write to BinaryWriter, it has already been closed");
  ZO_EXPECT_ERROR(writer.write_string_stream(), error::zoserialize_writer_closed,
                  "Cannot write to BinaryWriter, it has already been closed");
  // Nothing is left open that a later flush or close would fail on.
  writer.flush();
  writer.close();
}

TEST(BinaryWriterTest, WriterWithoutStreamHasNothingToFlushOrClose) {
  BinaryWriter writer(nullptr);
  writer.flush();
  writer.close();
  writer.close();
}

TEST(BinaryWriterTest, FailedMarkerStartOnAClosedWriterCountsNoMarker) {
  BinaryWriter writer(nullptr);
  ZO_EXPECT_ERROR(writer.write_marker_start(), error::zoserialize_writer_closed,
                  "Cannot write to BinaryWriter, it has already been closed");
  EXPECT_EQ(writer.open_markers(), 0u);
  writer.close();
}

TEST(BinaryWriterTest, StreamFailureIsReportedOnceAndNothingIsWrittenTwice) {
  auto const sink = make_sink();
  sink->fail_at_write(0);
  BinaryWriter writer(sink, 4);
  writer.write_null();
  writer.write_null();
  writer.write_null();
  ZO_EXPECT_ERROR(writer.write_null(), zotest::test_stream_error, "Injected sink failure");
  writer << true;
  writer.close();
  EXPECT_EQ(hex_writes(*sink), std::vector<std::string>{"11"});
}

// Value streams may be released on any thread while the writer finishes them on its own.
TEST(BinaryWriterThreadsTest, ValueStreamsAreReleasedOnOtherThreads) {
  constexpr int kStreams = 4000;
  auto const sink = make_sink();
  std::string expected;
  {
    BinaryWriter writer(sink, 256);
    std::thread releaser;
    std::vector<InterfacePtr<IWriteStream>> batch;
    for (int i = 0; i < kStreams; ++i) {
      auto const stream = i % 2 ? writer.write_binary() : writer.write_string_stream();
      stream->write("ab", 2);
      expected += zotest::bytes(i % 2 ? "92 61 62" : "52 61 62");
      batch.push_back(stream);
      if (batch.size() == 50) {
        if (releaser.joinable()) releaser.join();
        releaser = std::thread([held = std::move(batch)]() mutable { held.clear(); });
        batch.clear();
      }
    }
    if (releaser.joinable()) releaser.join();
    writer.close();
  }
  EXPECT_TRUE(sink->bytes() == expected);
}

}  // namespace
