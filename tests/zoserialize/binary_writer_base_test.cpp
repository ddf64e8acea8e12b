#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/script.h>
#include <support/test_streams.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/binary_writer_base.h>
#include <zoserialize/error_codes.h>

namespace {

namespace error = zoserialize::error;
using zotest::ByteSource;
using zotest::expect_error_details;
using zotest::hex;

constexpr char kStreamClosed[] = "Binary stream writer object has already been closed";

// A writer over BinaryWriterBase that lends the encoder no output window: every byte goes through
// the hooks, into a string. The stream writer's tests cover the windows.
class StringWriter final : public zoserialize::BinaryWriterBase {
 public:
  void write_marker_start() override {
    finalize_previous_element();
    write_marker_start_tag();
  }
  void write_marker_end() override {
    finalize_previous_element();
    write_marker_end_tag();
  }
  using BinaryWriterBase::write_binary_tag_aux;
  using BinaryWriterBase::write_marker_start_tag;
  std::string hex_bytes() const { return hex(bytes); }
  std::string bytes;

 protected:
  void impl_write_byte(unsigned char byte) override { bytes += static_cast<char>(byte); }
  void impl_write(void const* data, unsigned size) override {
    bytes.append(static_cast<char const*>(data), size);
  }
};

TEST(BinaryWriterBaseTest, WholeValueHeaderOfTheLargestLength) {
  StringWriter writer;
  writer.write_binary_tag_aux(zoserialize::impl::ETypePrefix::String, 0xFFFFFFFF);
  EXPECT_EQ(writer.hex_bytes(), "5A FF FF FF FF");
}

// The unsigned limit is one byte tighter than the signed one; nothing is written on refusal.
TEST(BinaryWriterBaseTest, IntegersBeyondTheLimitsAreRefused) {
  for (auto const& [is_signed, image, bits] : {std::tuple{true, "00 80 00*63", 520},
                                               {true, "FF 7F FF*63", 520},
                                               {true, "12 34*99", 800},
                                               {false, "01 00*63", 512},
                                               {false, "00 80 00*63", 512}}) {
    std::string const bytes = zotest::unhex(image);
    auto const size = static_cast<unsigned>(bytes.size());
    StringWriter writer;
    expect_error_details(
        [&, is_signed = is_signed] {
          is_signed ? writer.write_int_big_endian(bytes.data(), size)
                    : writer.write_uint_big_endian(bytes.data(), size);
        },
        error::zoserialize_writer_data_range,
        is_signed ? "Minimum number of bits required to represent the signed integer exceeds "
                    "supported maximum.  Max={@maxBits}bits, Given={@actualBits}bits"
                  : "Minimum number of bits required to represent the unsigned integer exceeds "
                    "supported maximum.  Max={@maxBits}bits, Given={@actualBits}bits",
        "maxBits=512 actualBits=" + std::to_string(bits),
        is_signed ? "BinaryWriterBase::write_int_big_endian()"
                  : "BinaryWriterBase::write_uint_big_endian()");
    EXPECT_EQ(writer.bytes, "");
  }
}

// The shortest form for field 0; a fixed field admits only sizes below 2 to the power of its
// width in bytes (bits reported on failure); a field above 8 bytes is refused.
TEST(BinaryWriterBaseTest, MarkerStartTagWritesTheFieldOrRefusesIt) {
  for (auto const& [size, field, encoding] : {std::tuple{0u, 0u, "B0"},
                                              {255u, 0u, "B4 FF"},
                                              {256u, 0u, "B5 01 00"},
                                              {65536u, 0u, "B6 00 01 00 00"},
                                              {1u, 1u, "B4 01"},
                                              {2u, 1u, "8"},
                                              {4u, 2u, "16"},
                                              {15u, 3u, "B6 00 00 00 0F"},
                                              {255u, 5u, "B7 00 00 00 00 00 00 00 FF"},
                                              {256u, 8u, "64"},
                                              {0u, 9u, ""}}) {
    SCOPED_TRACE(::testing::Message() << "size " << size << " field " << field);
    StringWriter writer;
    auto const write = [&, size = size, field = field] {
      writer.write_marker_start_tag(size, field);
    };
    if (encoding[0] == 'B') {
      write();
      EXPECT_EQ(writer.hex_bytes(), encoding);
      continue;
    }
    expect_error_details(
        write, error::zoserialize_writer_data_range,
        field > 8 ? "Field size must be less than or equal to 8 (64-bit field)"
                  : "Marker size value ({@size}) exceeds bit size of field ({@fieldSize})",
        field > 8 ? "errno=22" : "errno=22 size=" + std::to_string(size) + " fieldSize=" + encoding,
        "BinaryWriterBase::write_marker_start_tag()");
    EXPECT_EQ(writer.bytes, "");
  }
}

TEST(BinaryWriterBaseTest, SeparatorAndEndWithoutSequenceFail) {
  StringWriter writer;
  expect_error_details([&] { writer.write_sequence_separator(); },
                       error::zoserialize_writer_sequence_nesting,
                       "Attempt to add sequence separator and no sequence is open", "",
                       "BinaryWriterBase::write_sequence_separator()");
  expect_error_details(
      [&] { writer.write_sequence_end(); }, error::zoserialize_writer_sequence_nesting,
      "Attempt to close sequence and none is open", "", "BinaryWriterBase::write_sequence_end()");
  EXPECT_EQ(writer.bytes, "");
}

// A separator beyond the hint is refused and the sequence stays open; an end after another count
// is refused, reporting the separators (deliberately not the elements), and closes the sequence.
TEST(BinaryWriterBaseTest, CountHintsAreEnforced) {
  for (auto [hint, separators] : {std::pair{1u, 0u}, {3u, 2u}, {2u, 0u}, {300u, 100u}}) {
    StringWriter writer;
    writer.write_sequence_start(hint);
    writer.write_null();
    for (unsigned i = 0; i < separators; ++i) {
      writer.write_sequence_separator();
      writer.write_null();
    }
    std::string const before = writer.bytes;
    if (separators + 1 == hint) {
      expect_error_details([&] { writer.write_sequence_separator(); },
                           error::zoserialize_writer_sequence_element_count,
                           "Attempt to add more sequence elements than the count hint indicated.  "
                           "CountHint={@countHint}",
                           "countHint=" + std::to_string(hint),
                           "BinaryWriterBase::write_sequence_separator()");
      writer.write_sequence_end();
      EXPECT_EQ(writer.bytes, before + "\xAF");
      continue;
    }
    expect_error_details(
        [&] { writer.write_sequence_end(); }, error::zoserialize_writer_sequence_element_count,
        "Number of elements added to sequence does not match count hint.  "
        "CountHint={@countHint}, Added={@elementCount}",
        "countHint=" + std::to_string(hint) + " elementCount=" + std::to_string(separators),
        "BinaryWriterBase::write_sequence_end()");
    EXPECT_EQ(writer.bytes, before) << "the end tag must not be written";
    writer.close();  // the sequence counts as closed
  }
}

// A source that announces a size and delivers more or less: the header and the blocks before the
// failing one stay written.
TEST(BinaryWriterBaseTest, SourcesDeliveringAnotherSizeThanAnnouncedFail) {
  for (auto [announced, delivered, header, kept] : {std::tuple{10u, 20u, "58 0A", 0u},
                                                    {4096u, 8192u, "59 10 00", 4096u},
                                                    {5u, 0u, "55", 0u},
                                                    {5000u, 3000u, "59 13 88", 3000u},
                                                    {4097u, 4096u, "59 10 01", 4096u}}) {
    std::string const payload = zotest::golden_text(delivered);
    ByteSource source(payload);
    source.announce(announced);
    StringWriter writer;
    bool const more = delivered > announced;
    expect_error_details(
        [&] { writer.write_string_stream(source); }, error::zoserialize_writer_data_size,
        more ? "IReadStream returns more data than the announced {@expected} bytes"
             : "Early EOS in IReadStream.  Expected {@expected} bytes, read {@read} bytes",
        "expected=" + std::to_string(announced) +
            (more ? "" : " read=" + std::to_string(delivered)),
        "BinaryWriterBase::write_binary_aux()");
    EXPECT_TRUE(writer.bytes == zotest::bytes(header) + payload.substr(0, kept));
  }
}

TEST(BinaryWriterBaseTest, SourcesAreReadInBlocksOf4096UntilAReadReturnsNothing) {
  for (bool known : {true, false}) {
    ByteSource source(zotest::pattern_string(0, 9000));
    if (!known) source.unknown_size();
    StringWriter writer;
    writer.write_binary(source);
    std::vector<ByteSource::Call> const expected = {
        {false, 4096, 4096}, {false, 4096, 4096}, {false, 4096, 808}, {false, 4096, 0}};
    EXPECT_EQ(source.calls(), expected);
    EXPECT_EQ(writer.hex_bytes().substr(0, 8), known ? "99 23 28" : "9C 10 00");
  }
}

// Every operation finishes an open value stream before its own bytes; writing to the stream then
// fails. Each case runs inside a sequence: A0, the stream's 52 61 62, the operation's bytes.
TEST(BinaryWriterBaseTest, NextOperationFinishesTheValueStream) {
  using W = StringWriter&;
  unsigned char const zeros[12] = {};
  auto const close = [](W w) {
    expect_error_details([&] { w.close(); }, error::zoserialize_writer_sequence_nesting,
                         "Attempt to close writer that has open sequences", "",
                         "BinaryWriterBase::close()");
  };
  std::pair<std::function<void(W)>, char const*> const cases[] = {
      {[](W w) { w.write_null(); }, "00"},
      {[](W w) { w.write_bool(true); }, "11"},
      {[](W w) { w << 5; }, "24 05"},
      {[&](W w) { w.write_int_big_endian(zeros, 12); }, "20"},
      {[](W w) { w << 5u; }, "34 05"},
      {[&](W w) { w.write_uint_big_endian(zeros, 12); }, "30"},
      {[](W w) { w << 1.0; }, "41"},
      {[](W w) { w.write_string("c", 1); }, "51 63"},
      {[](W w) { w.write_string_stream(*zocore::make_ref_counted<ByteSource>("c")); }, "51 63"},
      {[](W w) { w.write_string_stream(); }, ""},
      {[](W w) { w << zoserialize::AbsoluteTime(0); }, "60"},
      {[](W w) { w << zoserialize::RelativeTime(0); }, "70"},
      {[](W w) { w << zoserialize::Uuid(); }, "80"},
      {[](W w) { w.write_binary("c", 1); }, "91 63"},
      {[](W w) { w.write_binary(*zocore::make_ref_counted<ByteSource>("c")); }, "91 63"},
      {[](W w) { w.write_binary(); }, ""},
      {[](W w) { w.write_sequence_start(9); }, "A8 09"},
      {[](W w) { w.write_sequence_start(); }, "A0"},
      {[](W w) { w.write_sequence_separator(); }, "AE"},
      {[](W w) { w.write_sequence_end(); }, "AF"},
      {[](W w) { w.write_marker_start(); }, "B0"},
      {[](W w) { w.flush(); }, ""},
      {close, ""},
  };
  for (auto const& [op, encoding] : cases) {
    StringWriter writer;
    writer.write_sequence_start();
    auto const stream = writer.write_string_stream();
    stream->write("ab", 2);
    op(writer);
    EXPECT_EQ(writer.hex_bytes(), hex(zotest::bytes(std::string("A0 52 61 62 ") + encoding)));
    ZO_EXPECT_ERROR(stream->write("c", 1), error::zoserialize_writer_state, kStreamClosed);
  }
}

// Closing a finished stream does nothing; a stream outliving its writer fails when written to.
TEST(BinaryWriterBaseTest, StreamsAfterTheirEnd) {
  zoserialize::InterfacePtr<zoserialize::IWriteStream> orphan;
  {
    StringWriter writer;
    auto const first = writer.write_binary();
    first->write("a", 1);
    auto const second = writer.write_binary();
    first->close();  // already finished by write_binary()
    second->write("b", 1);
    second->close();
    second->close();
    writer.write_null();
    EXPECT_EQ(writer.hex_bytes(), "91 61 91 62 00");
    orphan = writer.write_string_stream();
    orphan->write("abc", 3);
  }
  expect_error_details([&] { orphan->write("d", 1); }, error::zoserialize_writer_state,
                       kStreamClosed, "", "BinaryWriterBase::BinaryStreamImpl::write()");
  orphan->close();  // nothing to finish, no writer to reach
}

}  // namespace
