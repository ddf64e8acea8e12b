#include <algorithm>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/script.h>
#include <support/test_streams.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/error_codes.h>

namespace {

namespace error = zoserialize::error;
using zocore::RefCountPtr;
using zoserialize::BinaryWriter;
using zoserialize::InterfacePtr;
using zoserialize::IWriteStream;
using zoserialize::Writer;
using zotest::RecordingSink;

constexpr char kClosed[] = "Cannot write to BinaryWriter, it has already been closed";

RefCountPtr<RecordingSink> make_sink() {
  return zocore::make_ref_counted<RecordingSink>();
}

std::vector<std::string> hex_writes(RecordingSink const& sink) {
  std::vector<std::string> out;
  for (std::string const& w : sink.writes())
    out.push_back(zotest::hex(w));
  return out;
}

std::string raised_in(zotest::ErrorPtr const& info) {
  return info ? std::string(info->location().function().view()) : "<nothing raised>";
}

// The output buffering exactly as the contract states it, every byte passing through the hooks.
// BinaryWriter must cut its output into the very same stream writes, at the same moments.
class ReferenceWriter final : public zoserialize::BinaryWriterBase {
 public:
  ReferenceWriter(RefCountPtr<RecordingSink> sink, unsigned capacity)
      : sink_(std::move(sink)), capacity_(capacity) {}

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
  void impl_write_byte(unsigned char byte) override { impl_write(&byte, 1); }
  void impl_write(void const* data, unsigned size) override {
    auto const* p = static_cast<char const*>(data);
    if (capacity_ == 0 || (buffer_.empty() && size >= capacity_)) return sink_->write(p, size);
    unsigned const n = std::min<unsigned>(size, capacity_ - static_cast<unsigned>(buffer_.size()));
    buffer_.append(p, n);
    if (buffer_.size() == capacity_) write_buffer();
    if (size - n >= capacity_) return sink_->write(p + n, size - n);
    buffer_.append(p + n, size - n);
  }

 private:
  void write_buffer() {
    std::string const out = std::move(buffer_);
    buffer_.clear();
    if (!out.empty()) sink_->write(out.data(), static_cast<unsigned>(out.size()));
  }

  RefCountPtr<RecordingSink> sink_;
  unsigned capacity_;
  std::string buffer_;
};

// A script run step by step against BinaryWriter and the model: after every step both sinks must
// hold the same writes, so a full buffer reaches the stream exactly when the contract says.
TEST(BinaryWriterTest, EveryStepReachesTheStreamWhenTheContractSays) {
  std::string const text = zotest::golden_text(20000);
  std::string const data = zotest::pattern_string(0, 70000);
  auto const from = [&](Writer& w, std::size_t n, bool known) {
    zotest::ByteSource source(data.substr(0, n));
    if (!known) source.unknown_size();
    w.write_binary(source);
  };
  using Stream = InterfacePtr<IWriteStream>;
  std::vector<std::function<void(Writer&, Stream&)>> const script = {
      [](Writer& w, Stream&) {
        w << true << 100000 << 'x' << 0.1 << zoserialize::AbsoluteTime(1LL << 31);
      },
      [&](Writer& w, Stream&) { w << std::string("abc") << text.substr(0, 40); },
      [&](Writer& w, Stream&) { w.write_binary(data.data(), 300); },
      [](Writer& w, Stream&) { w.write_sequence_start(); },
      [&](Writer& w, Stream& value) { value = w.write_binary(); },
      [&](Writer&, Stream& value) { value->write(data.data(), 10); },
      [&](Writer&, Stream& value) { value->write(data.data(), 5000); },
      [&](Writer&, Stream& value) { value->write(data.data(), 3); },
      [](Writer& w, Stream&) { w.write_sequence_separator(); },
      [&](Writer& w, Stream& value) { value = w.write_string_stream(); },
      [&](Writer&, Stream& value) {
        for (std::size_t at = 0; at < 4100; at += 100)
          value->write(text.data() + at, 100);
      },
      [](Writer& w, Stream&) { w.flush(); },
      [](Writer& w, Stream&) { w.write_sequence_separator(); },
      [](Writer& w, Stream&) { w.write_marker_start(); },
      [](Writer& w, Stream&) { w << true << true << true << true << true << true << true; },
      [](Writer& w, Stream&) { w.write_marker_end(); },
      [](Writer& w, Stream&) { w.write_sequence_separator(); },
      [&](Writer& w, Stream&) { w << text; },
      [](Writer& w, Stream&) { w.write_sequence_end(); },
      [&](Writer& w, Stream& value) { value = w.write_binary(); },
      [&](Writer&, Stream& value) { value->write(data.data(), 70000); },
      [&](Writer& w, Stream&) { from(w, 5000, true); },
      [&](Writer& w, Stream&) { from(w, 9000, false); },
      [](Writer& w, Stream&) { w.close(); },
  };
  for (unsigned buffer : {0u, 1u, 2u, 3u, 5u, 7u, 13u, 16u, 64u, 255u, 4096u, 16384u}) {
    auto const sink = make_sink();
    auto const reference = make_sink();
    BinaryWriter writer(sink, buffer);
    ReferenceWriter model(reference, buffer);
    Stream streams[2];
    for (std::size_t i = 0; i < script.size(); ++i) {
      script[i](writer, streams[0]);
      script[i](model, streams[1]);
      ASSERT_EQ(sink->write_sizes(), reference->write_sizes())
          << "buffer " << buffer << ", step " << i;
    }
    EXPECT_TRUE(sink->bytes() == reference->bytes()) << "buffer " << buffer;
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

// ---- Closing ----------------------------------------------------------------------------------

TEST(BinaryWriterTest, CloseAndTheDestructorWriteEverythingAndReleaseTheStream) {
  for (bool destroy : {false, true}) {
    auto const sink = make_sink();
    InterfacePtr<IWriteStream> stream;
    {
      BinaryWriter writer(sink, 64);
      writer << 5;
      stream = writer.write_binary();
      stream->write("ab", 2);
      EXPECT_EQ(sink->ref_count(), 2u);
      if (!destroy) {
        writer.close();
        EXPECT_EQ(sink->ref_count(), 1u);
        writer.close();  // again: nothing to do
        writer.flush();
      }
    }
    EXPECT_EQ(hex_writes(*sink), std::vector<std::string>{"24 05 92 61 62"});
    EXPECT_EQ(sink->ref_count(), 1u);
    ZO_EXPECT_ERROR(stream->write("c", 1), error::zoserialize_writer_state,
                    "Binary stream writer object has already been closed");
  }
}

TEST(BinaryWriterTest, CloseChecksMarkersBeforeSequencesAfterFlushing) {
  auto const sink = make_sink();
  {
    BinaryWriter writer(sink, 64);
    writer.write_marker_start();
    writer.write_sequence_start(2);
    writer << 1;
    EXPECT_EQ(writer.open_markers(), 1u);
    auto info = ZO_EXPECT_ERROR(writer.close(), error::zoserialize_writer_marker_nesting,
                                "Attempt to close writer but there are marker that are still open");
    EXPECT_EQ(raised_in(info), "zoserialize::BinaryWriter::close()");
    EXPECT_EQ(zotest::hex(sink->bytes()), "B0 A2 21");
    writer.write_marker_end();  // interleaving is not checked
    info = ZO_EXPECT_ERROR(writer.write_marker_end(), error::zoserialize_writer_marker_nesting,
                           "Attempt to close marker and none is open");
    EXPECT_EQ(raised_in(info), "zoserialize::BinaryWriter::write_marker_end()");
    info = ZO_EXPECT_ERROR(writer.close(), error::zoserialize_writer_sequence_nesting,
                           "Attempt to close writer that has open sequences");
    EXPECT_EQ(raised_in(info), "zoserialize::BinaryWriterBase::close()");
    EXPECT_EQ(sink->ref_count(), 2u) << "a failed close keeps the stream";
    writer.write_sequence_separator();
    writer << 2;
    writer.write_sequence_end();
    writer.write_marker_start();
    writer << true;
  }  // the destructor swallows the failure of the open marker
  EXPECT_EQ(zotest::hex(sink->bytes()), "B0 A2 21 BF AE 24 02 AF B0 11");
}

// Every operation that emits bytes fails once the writer has no stream: after close() and when it
// was built without one. The failure leaves nothing open that would make close() fail.
TEST(BinaryWriterTest, EveryWriteFailsOnceClosed) {
  std::string const large = zotest::golden_text(70000);
  unsigned char const image[20] = {1};
  std::function<void(Writer&)> const ops[] = {
      [](Writer& w) { w.write_null(); },
      [&](Writer& w) { w.write_int_big_endian(image, 20); },
      [&](Writer& w) { w << large; },
      [](Writer& w) { w.write_string_stream(*zocore::make_ref_counted<zotest::ByteSource>("a")); },
      [](Writer& w) { w << zoserialize::RelativeTime(5) << zoserialize::Uuid(); },
      [](Writer& w) { w.write_marker_start(); },
      [](Writer& w) { w.write_binary(); },
  };
  for (auto const& op : ops) {
    for (unsigned buffer : {0u, 1u, 64u}) {
      auto const sink = make_sink();
      BinaryWriter closed(sink, buffer);
      closed.write_null();
      closed.close();
      BinaryWriter without(nullptr, buffer);
      for (BinaryWriter* writer : {&closed, &without}) {
        auto const info = ZO_EXPECT_ERROR(op(*writer), error::zoserialize_writer_closed, kClosed);
        EXPECT_EQ(raised_in(info), "zoserialize::BinaryWriter::impl_write()");
        writer->flush();
        writer->close();
      }
      EXPECT_EQ(zotest::hex(sink->bytes()), "00");
    }
  }
}

// Once the stream has failed, the output lacks bytes it had accepted: every later operation,
// close() and a held value stream included, refuses instead of reporting success.
TEST(BinaryWriterTest, StreamFailureLeavesTheWriterFailed) {
  constexpr char kIncomplete[] =
      "Writer output is incomplete: its output stream or a source failed in the middle of an "
      "element, so nothing more can be written";
  auto const sink = make_sink();
  sink->fail_at_write(0);
  BinaryWriter writer(sink, 4);
  auto const value = writer.write_binary();
  value->write("abc", 3);
  ZO_EXPECT_ERROR(writer.write_null(), zotest::test_stream_error, "Injected sink failure");
  ZO_EXPECT_ERROR(writer << true, zoserialize::error::zoserialize_writer_state, kIncomplete);
  ZO_EXPECT_ERROR(value->write("d", 1), zoserialize::error::zoserialize_writer_state,
                  "Binary stream writer object has already been closed");
  ZO_EXPECT_ERROR(writer.close(), zoserialize::error::zoserialize_writer_state, kIncomplete);
  EXPECT_TRUE(sink->writes().empty());
}

// A source that throws after the value's header went out leaves the writer failed; one that
// throws before anything of the value was written leaves it usable.
TEST(BinaryWriterTest, SourceFailureFailsTheWriterOnlyOnceTheValueHasBegun) {
  for (bool const known_size : {true, false}) {
    SCOPED_TRACE(known_size ? "size announced" : "size unknown");
    auto const sink = make_sink();
    BinaryWriter writer(sink, 0);
    zotest::ByteSource source(std::string(5000, 'x'));
    source.fail_at_call(known_size ? 1 : 0);
    if (!known_size) source.unknown_size();
    ZO_EXPECT_ERROR(writer.write_binary(source), zotest::test_stream_error,
                    "Injected source failure");
    if (known_size) {
      ZO_EXPECT_ERROR(writer.write_null(), error::zoserialize_writer_state,
                      "Writer output is incomplete: its output stream or a source failed in the "
                      "middle of an element, so nothing more can be written");
    } else {
      writer.write_null();
      writer.close();
      EXPECT_EQ(sink->bytes(), zotest::bytes("00"));
    }
  }
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
      batch.push_back(i % 2 ? writer.write_binary() : writer.write_string_stream());
      batch.back()->write("ab", 2);
      expected += zotest::bytes(i % 2 ? "92 61 62" : "52 61 62");
      if (batch.size() < 50) continue;
      if (releaser.joinable()) releaser.join();
      releaser = std::thread([held = std::move(batch)]() mutable { held.clear(); });
      batch.clear();
    }
    if (releaser.joinable()) releaser.join();
    writer.close();
  }
  EXPECT_TRUE(sink->bytes() == expected);
}

}  // namespace
