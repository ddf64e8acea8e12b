#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/binary_golden.h>
#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/test_streams.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/binary_writer_base.h>
#include <zoserialize/error_codes.h>

namespace {

namespace error = zoserialize::error;
using zoserialize::BinaryWriterBase;
using zoserialize::Writer;
using zoserialize::impl::ETypePrefix;
using zotest::ByteSource;

// A concrete writer over BinaryWriterBase that lends the encoder an output window of a fixed
// size and collects whatever passes through the window and the hooks, in order. Window 0 means
// every byte goes through the hooks. The protected helpers are made callable for the tests.
class WindowWriter final : public BinaryWriterBase {
 public:
  explicit WindowWriter(unsigned window = 0) : window_(window), scratch_(window + 1) { reset(); }

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

  std::string bytes() {
    drain();
    return out_;
  }
  unsigned hook_calls() const noexcept { return hook_calls_; }

 protected:
  void impl_write_byte(unsigned char byte) override {
    drain();
    ++hook_calls_;
    out_.push_back(static_cast<char>(byte));
    reset();
  }
  void impl_write(void const* data, unsigned size) override {
    drain();
    ++hook_calls_;
    out_.append(static_cast<char const*>(data), size);
    reset();
  }

 private:
  void drain() {
    out_.append(reinterpret_cast<char const*>(scratch_.data()),
                static_cast<std::size_t>(out_cur_ - scratch_.data()));
    reset();
  }
  void reset() {
    out_cur_ = scratch_.data();
    out_end_ = out_cur_ + window_;
  }

  unsigned window_;
  std::vector<unsigned char> scratch_;
  std::string out_;
  unsigned hook_calls_ = 0;
};

// ---- Golden vectors through every window size ----------------------------------------------

class BinaryWriterBaseGoldenTest : public ::testing::TestWithParam<zotest::BinaryGoldenCase> {};

TEST_P(BinaryWriterBaseGoldenTest, WindowSizeNeverChangesTheBytes) {
  for (unsigned window : {0u, 1u, 2u, 3u, 5u, 8u, 17u, 4095u, 4096u, 4100u, 70000u}) {
    SCOPED_TRACE(::testing::Message() << "window " << window);
    WindowWriter writer(window);
    GetParam().write(writer);
    writer.close();
    EXPECT_EQ(writer.bytes() == GetParam().bytes, true)
        << "got " << zotest::hex(writer.bytes().substr(0, 64)) << "...";
  }
}

INSTANTIATE_TEST_SUITE_P(Written, BinaryWriterBaseGoldenTest,
                         ::testing::ValuesIn(zotest::binary_golden_written_cases()),
                         [](auto const& p) { return p.param.name; });

TEST(BinaryWriterBaseTest, WindowLargeEnoughTakesTheFastPathOnly) {
  WindowWriter writer(64);
  writer << 100000 << true << 2.0;
  writer.write_string("abc", 3);
  EXPECT_EQ(writer.hook_calls(), 0u);
  EXPECT_EQ(zotest::hex(writer.bytes()), "26 00 01 86 A0 11 44 40 00 53 61 62 63");
}

TEST(BinaryWriterBaseTest, StreamCopyReadsStraightIntoALargeWindow) {
  std::string const payload = zotest::pattern_string(0, 10000);
  WindowWriter writer(20000);
  ByteSource source(payload);
  writer.write_binary(source);
  EXPECT_EQ(writer.hook_calls(), 0u);
  EXPECT_EQ(writer.bytes(), zotest::bytes("99 27 10") + payload);
}

// ---- Integer range --------------------------------------------------------------------------

struct TooWideCase {
  char const* name;
  bool is_signed;
  std::string image;
  unsigned actual_bits;
};

std::ostream& operator<<(std::ostream& os, TooWideCase const& c) {
  return os << c.name;
}

class BinaryWriterBaseIntegerRangeTest : public ::testing::TestWithParam<TooWideCase> {};

std::string fill(std::string head, std::size_t total, char byte) {
  head.resize(total, byte);
  return head;
}

TEST_P(BinaryWriterBaseIntegerRangeTest, RefusesValuesBeyond512BitsAndWritesNothing) {
  TooWideCase const& c = GetParam();
  WindowWriter writer(16);
  auto const size = static_cast<unsigned>(c.image.size());
  zotest::ErrorPtr info;
  if (c.is_signed) {
    info = ZO_EXPECT_ERROR(
        writer.write_int_big_endian(c.image.data(), size), error::zoserialize_writer_data_range,
        "Minimum number of bits required to represent the signed integer "
        "exceeds supported maximum.  Max={@maxBits}bits, Given={@actualBits}bits");
  } else {
    info = ZO_EXPECT_ERROR(
        writer.write_uint_big_endian(c.image.data(), size), error::zoserialize_writer_data_range,
        "Minimum number of bits required to represent the unsigned integer "
        "exceeds supported maximum.  Max={@maxBits}bits, Given={@actualBits}bits");
  }
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "maxBits"), "512");
  EXPECT_EQ(zotest::param(info, "actualBits"), std::to_string(c.actual_bits));
  EXPECT_EQ(info->location().function().view(),
            c.is_signed ? "zoserialize::BinaryWriterBase::write_int_big_endian()"
                        : "zoserialize::BinaryWriterBase::write_uint_big_endian()");
  EXPECT_EQ(writer.bytes(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Images, BinaryWriterBaseIntegerRangeTest,
    ::testing::Values(
        // A positive value whose top bit needs a sign byte: 65 bytes.
        TooWideCase{"Signed65BytesPositive", true, fill(std::string("\x00\x80", 2), 65, '\0'), 520},
        TooWideCase{"Signed66BytesRedundantZero", true,
                    fill(std::string("\x00\x00\x80", 3), 66, '\0'), 520},
        TooWideCase{"Signed65BytesNegative", true, fill("\xFF\x7F", 65, '\xFF'), 520},
        TooWideCase{"Signed100Bytes", true, fill("\x12", 100, '\x34'), 800},
        // The unsigned limit is one byte tighter.
        TooWideCase{"Unsigned64BytesTopOne", false, fill("\x01", 64, '\0'), 512},
        TooWideCase{"Unsigned64BytesAllOnes", false, fill("", 64, '\xFF'), 512},
        TooWideCase{"Unsigned64BytesLikeSignedMax", false, fill("\x7F", 64, '\xFF'), 512},
        TooWideCase{"Unsigned65BytesLeadingZero", false, fill(std::string("\x00\x80", 2), 65, '\0'),
                    512},
        TooWideCase{"Unsigned65Bytes", false, fill("\x01", 65, '\0'), 520}),
    [](auto const& p) { return std::string(p.param.name); });

TEST(BinaryWriterBaseTest, SignedAndUnsignedLimitsAreAsymmetric) {
  // The same 64 significant bytes: accepted as signed, refused as unsigned.
  std::string const image = fill("\x7F", 64, '\xFF');
  WindowWriter writer(0);
  writer.write_int_big_endian(image.data(), 64);
  EXPECT_EQ(writer.bytes(), "\x2A" + image);
  ZO_EXPECT_ERROR(writer.write_uint_big_endian(image.data(), 64),
                  error::zoserialize_writer_data_range,
                  "Minimum number of bits required to represent the unsigned integer exceeds "
                  "supported maximum.  Max={@maxBits}bits, Given={@actualBits}bits");
  // 63 significant bytes fit both.
  std::string const shorter = fill("", 63, '\xFF');
  WindowWriter second(0);
  second.write_uint_big_endian(shorter.data(), 63);
  EXPECT_EQ(second.bytes(), std::string("\x3A\x00", 2) + shorter);
}

// ---- Marker start tags ----------------------------------------------------------------------

struct MarkerTagCase {
  unsigned size;
  unsigned field_size;
  char const* encoding;  // null: the size does not fit
  unsigned field_bits;   // reported when it does not fit
};

std::ostream& operator<<(std::ostream& os, MarkerTagCase const& c) {
  return os << "size " << c.size << " field " << c.field_size;
}

class BinaryWriterBaseMarkerTagTest : public ::testing::TestWithParam<MarkerTagCase> {};

TEST_P(BinaryWriterBaseMarkerTagTest, WritesTheRequestedFieldOrRefusesTheSize) {
  MarkerTagCase const& c = GetParam();
  WindowWriter writer(0);
  if (c.encoding) {
    writer.write_marker_start_tag(c.size, c.field_size);
    EXPECT_EQ(zotest::hex(writer.bytes()), zotest::hex(zotest::bytes(c.encoding)));
    return;
  }
  auto const info = ZO_EXPECT_ERROR(
      writer.write_marker_start_tag(c.size, c.field_size), error::zoserialize_writer_data_range,
      "Marker size value ({@size}) exceeds bit size of field ({@fieldSize})");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "size"), std::to_string(c.size));
  EXPECT_EQ(zotest::param(info, "fieldSize"), std::to_string(c.field_bits));
  EXPECT_EQ(info->nested_errno(), 22);
  EXPECT_EQ(info->location().function().view(),
            "zoserialize::BinaryWriterBase::write_marker_start_tag()");
  EXPECT_EQ(writer.bytes(), "");
}

INSTANTIATE_TEST_SUITE_P(ShortestForm, BinaryWriterBaseMarkerTagTest,
                         ::testing::Values(MarkerTagCase{0, 0, "B0", 0},
                                           MarkerTagCase{1, 0, "B4 01", 0},
                                           MarkerTagCase{255, 0, "B4 FF", 0},
                                           MarkerTagCase{256, 0, "B5 01 00", 0},
                                           MarkerTagCase{65535, 0, "B5 FF FF", 0},
                                           MarkerTagCase{65536, 0, "B6 00 01 00 00", 0},
                                           MarkerTagCase{0xFFFFFFFF, 0, "B6 FF FF FF FF", 0}));

// A fixed field admits only sizes below 2 to the power of its width in bytes.
INSTANTIATE_TEST_SUITE_P(
    FixedField, BinaryWriterBaseMarkerTagTest,
    ::testing::Values(MarkerTagCase{0, 1, "B4 00", 0}, MarkerTagCase{1, 1, "B4 01", 0},
                      MarkerTagCase{2, 1, nullptr, 8}, MarkerTagCase{255, 1, nullptr, 8},
                      MarkerTagCase{0, 2, "B5 00 00", 0}, MarkerTagCase{3, 2, "B5 00 03", 0},
                      MarkerTagCase{4, 2, nullptr, 16}, MarkerTagCase{0, 3, "B6 00 00 00 00", 0},
                      MarkerTagCase{15, 3, "B6 00 00 00 0F", 0}, MarkerTagCase{16, 3, nullptr, 32},
                      MarkerTagCase{15, 4, "B6 00 00 00 0F", 0}, MarkerTagCase{16, 4, nullptr, 32},
                      MarkerTagCase{0, 5, "B7 00 00 00 00 00 00 00 00", 0},
                      MarkerTagCase{255, 5, "B7 00 00 00 00 00 00 00 FF", 0},
                      MarkerTagCase{255, 8, "B7 00 00 00 00 00 00 00 FF", 0},
                      MarkerTagCase{256, 8, nullptr, 64},
                      MarkerTagCase{0xFFFFFFFF, 8, nullptr, 64}));

TEST(BinaryWriterBaseTest, MarkerFieldWiderThan8BytesIsRefused) {
  for (unsigned field : {9u, 16u, 0xFFFFFFFFu}) {
    WindowWriter writer(0);
    auto const info = ZO_EXPECT_ERROR(writer.write_marker_start_tag(0, field),
                                      error::zoserialize_writer_data_range,
                                      "Field size must be less than or equal to 8 (64-bit field)");
    ASSERT_TRUE(info);
    EXPECT_EQ(info->nested_errno(), 22);
    EXPECT_EQ(info->location().function().view(),
              "zoserialize::BinaryWriterBase::write_marker_start_tag()");
    EXPECT_EQ(writer.bytes(), "");
  }
}

TEST(BinaryWriterBaseTest, BinaryTagAuxWritesTheWholeValueHeader) {
  struct Case {
    ETypePrefix prefix;
    unsigned length;
    char const* encoding;
  };
  for (Case const& c :
       {Case{ETypePrefix::String, 0, "50"}, Case{ETypePrefix::String, 7, "57"},
        Case{ETypePrefix::String, 8, "58 08"}, Case{ETypePrefix::Binary, 255, "98 FF"},
        Case{ETypePrefix::Binary, 256, "99 01 00"}, Case{ETypePrefix::Binary, 65535, "99 FF FF"},
        Case{ETypePrefix::Binary, 65536, "9A 00 01 00 00"},
        Case{ETypePrefix::String, 0xFFFFFFFF, "5A FF FF FF FF"}}) {
    WindowWriter writer(0);
    writer.write_binary_tag_aux(c.prefix, c.length);
    EXPECT_EQ(zotest::hex(writer.bytes()), c.encoding) << c.length;
  }
}

// ---- Sequences ------------------------------------------------------------------------------

// Starts a sequence and writes `elements` nulls with a separator between each two.
void write_nulls(Writer& w, std::optional<unsigned> hint, unsigned elements) {
  if (hint) {
    w.write_sequence_start(*hint);
  } else {
    w.write_sequence_start();
  }
  for (unsigned i = 0; i < elements; ++i) {
    if (i != 0) w.write_sequence_separator();
    w.write_null();
  }
}

TEST(BinaryWriterBaseTest, SequenceWithExactlyHintElementsSucceeds) {
  WindowWriter writer(0);
  write_nulls(writer, 3u, 3);
  writer.write_sequence_end();
  EXPECT_EQ(zotest::hex(writer.bytes()), "A3 00 AE 00 AE 00 AF");
}

TEST(BinaryWriterBaseTest, HintOneClosedDirectlyPassesTheCountCheck) {
  // No separator was written, which is what a one-element sequence has.
  WindowWriter writer(0);
  writer.write_sequence_start(1);
  writer.write_sequence_end();
  EXPECT_EQ(zotest::hex(writer.bytes()), "A1 AF");
}

TEST(BinaryWriterBaseTest, SeparatorBeyondTheHintFailsAndIsNotWritten) {
  WindowWriter writer(0);
  write_nulls(writer, 3u, 3);
  auto const info = ZO_EXPECT_ERROR(
      writer.write_sequence_separator(), error::zoserialize_writer_sequence_element_count,
      "Attempt to add more sequence elements than the count hint indicated.  "
      "CountHint={@countHint}");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "countHint"), "3");
  EXPECT_EQ(info->location().function().view(),
            "zoserialize::BinaryWriterBase::write_sequence_separator()");
  EXPECT_EQ(zotest::hex(writer.bytes()), "A3 00 AE 00 AE 00");
  // The sequence is still open and can be ended properly.
  writer.write_sequence_end();
  EXPECT_EQ(zotest::hex(writer.bytes()), "A3 00 AE 00 AE 00 AF");
}

TEST(BinaryWriterBaseTest, HintOneRefusesAnySeparator) {
  WindowWriter writer(0);
  writer.write_sequence_start(1);
  writer.write_null();
  auto const info = ZO_EXPECT_ERROR(
      writer.write_sequence_separator(), error::zoserialize_writer_sequence_element_count,
      "Attempt to add more sequence elements than the count hint indicated.  "
      "CountHint={@countHint}");
  EXPECT_EQ(zotest::param(info, "countHint"), "1");
}

struct CountMismatchCase {
  unsigned hint;
  unsigned separators;
};

std::ostream& operator<<(std::ostream& os, CountMismatchCase const& c) {
  return os << "hint " << c.hint << " separators " << c.separators;
}

class BinaryWriterBaseCountMismatchTest : public ::testing::TestWithParam<CountMismatchCase> {};

TEST_P(BinaryWriterBaseCountMismatchTest, EndReportsTheSeparatorCountAndClosesTheSequence) {
  CountMismatchCase const& c = GetParam();
  WindowWriter writer(0);
  write_nulls(writer, c.hint, c.separators + 1);
  std::string const before = writer.bytes();
  auto const info =
      ZO_EXPECT_ERROR(writer.write_sequence_end(), error::zoserialize_writer_sequence_element_count,
                      "Number of elements added to sequence does not match count hint.  "
                      "CountHint={@countHint}, Added={@elementCount}");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "countHint"), std::to_string(c.hint));
  // The number of separators, deliberately not the number of elements.
  EXPECT_EQ(zotest::param(info, "elementCount"), std::to_string(c.separators));
  EXPECT_EQ(info->location().function().view(),
            "zoserialize::BinaryWriterBase::write_sequence_end()");
  EXPECT_EQ(writer.bytes(), before) << "the end tag must not be written";
  // The entry was popped before the check: the writer has no open sequence any more.
  ZO_EXPECT_ERROR(writer.write_sequence_end(), error::zoserialize_writer_sequence_nesting,
                  "Attempt to close sequence and none is open");
  writer.close();
}

INSTANTIATE_TEST_SUITE_P(Counts, BinaryWriterBaseCountMismatchTest,
                         ::testing::Values(CountMismatchCase{2, 0}, CountMismatchCase{3, 1},
                                           CountMismatchCase{8, 0}, CountMismatchCase{8, 6},
                                           CountMismatchCase{300, 100}));

TEST(BinaryWriterBaseTest, ZeroHintAndNoHintAcceptAnyCount) {
  for (std::optional<unsigned> hint : {std::optional<unsigned>(), std::optional<unsigned>(0)}) {
    WindowWriter writer(0);
    write_nulls(writer, hint, 20);
    writer.write_sequence_end();
    writer.close();
    EXPECT_EQ(writer.bytes().size(), 1 + 20 + 19 + 1);
  }
}

TEST(BinaryWriterBaseTest, NestedSequencesCountSeparately) {
  WindowWriter writer(0);
  writer.write_sequence_start(2);
  writer.write_sequence_start(3);
  writer.write_null();
  writer.write_sequence_separator();
  writer.write_null();
  writer.write_sequence_separator();
  writer.write_null();
  writer.write_sequence_end();
  writer.write_sequence_separator();
  writer.write_null();
  writer.write_sequence_end();
  writer.close();
  EXPECT_EQ(zotest::hex(writer.bytes()), "A2 A3 00 AE 00 AE 00 AF AE 00 AF");
}

TEST(BinaryWriterBaseTest, SeparatorAndEndWithoutSequenceFail) {
  WindowWriter writer(0);
  auto info =
      ZO_EXPECT_ERROR(writer.write_sequence_separator(), error::zoserialize_writer_sequence_nesting,
                      "Attempt to add sequence separator and no sequence is open");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(),
            "zoserialize::BinaryWriterBase::write_sequence_separator()");
  info = ZO_EXPECT_ERROR(writer.write_sequence_end(), error::zoserialize_writer_sequence_nesting,
                         "Attempt to close sequence and none is open");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(),
            "zoserialize::BinaryWriterBase::write_sequence_end()");
  EXPECT_EQ(writer.bytes(), "");
}

TEST(BinaryWriterBaseTest, CloseWithOpenSequenceFailsAfterFinishingTheValueStream) {
  WindowWriter writer(0);
  writer.write_sequence_start();
  auto const stream = writer.write_binary();
  stream->write("xy", 2);
  auto const info = ZO_EXPECT_ERROR(writer.close(), error::zoserialize_writer_sequence_nesting,
                                    "Attempt to close writer that has open sequences");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryWriterBase::close()");
  EXPECT_EQ(zotest::hex(writer.bytes()), "A0 92 78 79");
}

TEST(BinaryWriterBaseTest, MarkersAndSequencesInterleaveUnchecked) {
  // The base stacks sequences only; markers are the concrete writer's business.
  WindowWriter writer(0);
  writer.write_sequence_start();
  writer.write_marker_start();
  writer.write_sequence_end();
  writer.write_marker_end();
  writer.close();
  EXPECT_EQ(zotest::hex(writer.bytes()), "A0 B0 AF BF");
}

// ---- Values from input streams ----------------------------------------------------------------

TEST(BinaryWriterBaseTest, SourceDeliveringMoreThanAnnouncedFails) {
  struct Case {
    unsigned announced;
    std::size_t delivered;
    std::size_t emitted_payload;  // payload bytes already emitted when the failure is seen
  };
  for (Case const& c :
       {Case{10, 20, 0}, Case{1, 4096, 0}, Case{5000, 5001, 4096}, Case{4096, 8192, 4096}}) {
    SCOPED_TRACE(c.announced);
    std::string const payload = zotest::pattern_string(0, c.delivered);
    ByteSource source(payload);
    source.announce(c.announced);
    WindowWriter writer(0);
    auto const info =
        ZO_EXPECT_ERROR(writer.write_binary(source), error::zoserialize_writer_data_size,
                        "IReadStream returns more data than the announced {@expected} bytes");
    ASSERT_TRUE(info);
    EXPECT_EQ(zotest::param(info, "expected"), std::to_string(c.announced));
    EXPECT_EQ(info->location().function().view(),
              "zoserialize::BinaryWriterBase::write_binary_aux()");
    // The header and the blocks before the failing one stay emitted.
    std::string const bytes = writer.bytes();
    ASSERT_GE(bytes.size(), c.emitted_payload);
    EXPECT_EQ(bytes.substr(bytes.size() - c.emitted_payload), payload.substr(0, c.emitted_payload));
  }
}

TEST(BinaryWriterBaseTest, SourceEndingBeforeTheAnnouncedSizeFails) {
  struct Case {
    unsigned announced;
    std::size_t delivered;
    char const* header;
  };
  for (Case const& c : {Case{5, 0, "55"}, Case{5000, 3000, "59 13 88"},
                        Case{70000, 65536, "5A 00 01 11 70"}, Case{4097, 4096, "59 10 01"}}) {
    SCOPED_TRACE(c.announced);
    std::string const payload = zotest::golden_text(c.delivered);
    ByteSource source(payload);
    source.announce(c.announced);
    WindowWriter writer(0);
    auto const info = ZO_EXPECT_ERROR(
        writer.write_string_stream(source), error::zoserialize_writer_data_size,
        "Early EOS in IReadStream.  Expected {@expected} bytes, read {@read} bytes");
    ASSERT_TRUE(info);
    EXPECT_EQ(zotest::param(info, "expected"), std::to_string(c.announced));
    EXPECT_EQ(zotest::param(info, "read"), std::to_string(c.delivered));
    EXPECT_EQ(info->location().function().view(),
              "zoserialize::BinaryWriterBase::write_binary_aux()");
    EXPECT_TRUE(writer.bytes() == zotest::bytes(c.header) + payload) << "what was read stays";
  }
}

TEST(BinaryWriterBaseTest, AnnouncedSizeIsReadInBlocksOf4096) {
  std::string const payload = zotest::pattern_string(0, 10000);
  ByteSource source(payload);
  WindowWriter writer(0);
  writer.write_binary(source);
  std::vector<ByteSource::Call> const expected = {
      {false, 4096, 4096}, {false, 4096, 4096}, {false, 4096, 1808}, {false, 4096, 0}};
  EXPECT_EQ(source.calls(), expected);
}

TEST(BinaryWriterBaseTest, UnknownSizeIsReadUntilAReadReturnsNothing) {
  std::string const payload = zotest::pattern_string(0, 9000);
  ByteSource source(payload);
  source.unknown_size();
  WindowWriter writer(0);
  writer.write_binary(source);
  std::vector<ByteSource::Call> const expected = {
      {false, 4096, 4096}, {false, 4096, 4096}, {false, 4096, 808}, {false, 4096, 0}};
  EXPECT_EQ(source.calls(), expected);
  EXPECT_EQ(zotest::hex(writer.bytes().substr(0, 3)), "9C 10 00");
}

// ---- Value streams ----------------------------------------------------------------------------

// Every element operation finishes an open value stream before its own bytes.
struct FinishingCase {
  char const* name;
  std::function<void(WindowWriter&)> op;
  char const* encoding;
};

std::ostream& operator<<(std::ostream& os, FinishingCase const& c) {
  return os << c.name;
}

class BinaryWriterBaseFinishTest : public ::testing::TestWithParam<FinishingCase> {};

TEST_P(BinaryWriterBaseFinishTest, NextOperationFinishesTheValueStream) {
  WindowWriter writer(0);
  auto const stream = writer.write_string_stream();
  stream->write("ab", 2);
  GetParam().op(writer);
  EXPECT_EQ(zotest::hex(writer.bytes()), zotest::hex(zotest::bytes(GetParam().encoding)));
  ZO_EXPECT_ERROR(stream->write("c", 1), error::zoserialize_writer_state,
                  "Binary stream writer object has already been closed");
}

INSTANTIATE_TEST_SUITE_P(
    Operations, BinaryWriterBaseFinishTest,
    ::testing::Values(
        FinishingCase{"Null", [](WindowWriter& w) { w.write_null(); }, "52 61 62 00"},
        FinishingCase{"Bool", [](WindowWriter& w) { w.write_bool(true); }, "52 61 62 11"},
        FinishingCase{"Int", [](WindowWriter& w) { w << 5; }, "52 61 62 24 05"},
        FinishingCase{"WideInt",
                      [](WindowWriter& w) {
                        unsigned char const image[12] = {};
                        w.write_int_big_endian(image, 12);
                      },
                      "52 61 62 20"},
        FinishingCase{"Uint", [](WindowWriter& w) { w << 5u; }, "52 61 62 34 05"},
        FinishingCase{"WideUint",
                      [](WindowWriter& w) {
                        unsigned char const image[12] = {};
                        w.write_uint_big_endian(image, 12);
                      },
                      "52 61 62 30"},
        FinishingCase{"Double", [](WindowWriter& w) { w << 1.0; }, "52 61 62 41"},
        FinishingCase{"String", [](WindowWriter& w) { w.write_string("c", 1); }, "52 61 62 51 63"},
        FinishingCase{"StringFromStream",
                      [](WindowWriter& w) {
                        ByteSource source("c");
                        w.write_string_stream(source);
                      },
                      "52 61 62 51 63"},
        FinishingCase{"StringStream", [](WindowWriter& w) { w.write_string_stream(); }, "52 61 62"},
        FinishingCase{"AbsoluteTime", [](WindowWriter& w) { w << zoserialize::AbsoluteTime(0); },
                      "52 61 62 60"},
        FinishingCase{"RelativeTime", [](WindowWriter& w) { w << zoserialize::RelativeTime(0); },
                      "52 61 62 70"},
        FinishingCase{"Uuid", [](WindowWriter& w) { w << zoserialize::Uuid(); }, "52 61 62 80"},
        FinishingCase{"Binary", [](WindowWriter& w) { w.write_binary("c", 1); }, "52 61 62 91 63"},
        FinishingCase{"BinaryFromStream",
                      [](WindowWriter& w) {
                        ByteSource source("c");
                        w.write_binary(source);
                      },
                      "52 61 62 91 63"},
        FinishingCase{"BinaryStream", [](WindowWriter& w) { w.write_binary(); }, "52 61 62"},
        FinishingCase{"SequenceStartHint", [](WindowWriter& w) { w.write_sequence_start(9); },
                      "52 61 62 A8 09"},
        FinishingCase{"SequenceStart", [](WindowWriter& w) { w.write_sequence_start(); },
                      "52 61 62 A0"},
        FinishingCase{"Flush", [](WindowWriter& w) { w.flush(); }, "52 61 62"},
        FinishingCase{"Close", [](WindowWriter& w) { w.close(); }, "52 61 62"}),
    [](auto const& p) { return std::string(p.param.name); });

TEST(BinaryWriterBaseTest, SeparatorAndEndFinishTheValueStreamFirst) {
  WindowWriter writer(0);
  writer.write_sequence_start();
  writer.write_binary()->write("a", 1);
  writer.write_sequence_separator();
  writer.write_binary()->write("b", 1);
  writer.write_sequence_end();
  EXPECT_EQ(zotest::hex(writer.bytes()), "A0 91 61 AE 91 62 AF");
}

TEST(BinaryWriterBaseTest, ClosingAStreamTwiceOrAfterTheWriterMovedOnDoesNothing) {
  WindowWriter writer(0);
  auto const first = writer.write_binary();
  first->write("a", 1);
  auto const second = writer.write_binary();
  first->close();  // already finished by write_binary()
  second->write("b", 1);
  second->close();
  second->close();
  writer.write_null();
  EXPECT_EQ(zotest::hex(writer.bytes()), "91 61 91 62 00");
}

TEST(BinaryWriterBaseTest, StreamOfADestroyedWriterFails) {
  zoserialize::InterfacePtr<zoserialize::IWriteStream> stream;
  {
    WindowWriter writer(0);
    stream = writer.write_string_stream();
    stream->write("abc", 3);
  }
  auto const info = ZO_EXPECT_ERROR(stream->write("d", 1), error::zoserialize_writer_state,
                                    "Binary stream writer object has already been closed");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(),
            "zoserialize::BinaryWriterBase::BinaryStreamImpl::write()");
  stream->close();  // nothing to finish, no writer to reach
}

TEST(BinaryWriterBaseTest, EmptyStreamsGiveTheBareTag) {
  WindowWriter writer(0);
  writer.write_string_stream();
  writer.write_binary()->write(nullptr, 0);
  writer.flush();
  EXPECT_EQ(zotest::hex(writer.bytes()), "50 90");
}

}  // namespace
