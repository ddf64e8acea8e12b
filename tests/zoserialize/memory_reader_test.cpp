#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <support/binary_golden.h>
#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/memory_lists.h>
#include <support/random_document.h>
#include <support/test_streams.h>
#include <zocore/core_errors.h>
#include <zocore/error_exception.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/memory_reader.h>
#include <zoserialize/memory_writer.h>

namespace zoserialize {

// Sets up marker records that the public interface cannot produce.
class MemoryReaderTestPeer {
 public:
  static void push_marker(MemoryReader& reader, std::uint32_t start, std::uint32_t size) {
    reader.markers_.push_back({start, size});
  }
};

}  // namespace zoserialize

namespace {

namespace error = zoserialize::error;
using zoserialize::BinaryReader;
using zoserialize::BinaryWriter;
using zoserialize::ConstMemoryListPtr;
using zoserialize::InterfacePtr;
using zoserialize::IReadStream;
using zoserialize::MemoryListPtr;
using zoserialize::MemoryReader;
using zoserialize::MemoryReaderTestPeer;
using zoserialize::MemoryWriter;
using zoserialize::Reader;
using zotest::BinaryGoldenCase;
using zotest::bytes_of;
using zotest::list_in_pieces;
using zotest::list_of;
using EToken = Reader::EToken;

constexpr unsigned kUnknownSize = 0xFFFFFFFFU;

MemoryReader reader_of(std::string_view data) {
  return MemoryReader(ConstMemoryListPtr(list_of(data)));
}

MemoryReader reader_of_hex(std::string_view hex) {
  return reader_of(zotest::bytes(hex));
}

std::unique_ptr<BinaryReader> stream_reader_of(std::string data, unsigned buffer = 4096) {
  return std::make_unique<BinaryReader>(
      zocore::make_ref_counted<zotest::ByteSource>(std::move(data)), buffer);
}

// Everything left in `reader`, copied element by element into a stream writer.
std::string copy_all(Reader& reader) {
  auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  {
    BinaryWriter writer(sink, 4096);
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

// Cut positions: every one for short byte strings, a spread (and both ends) for long ones.
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
  for (std::size_t i = 4090; i < 4100 && i + 40 < size; ++i)
    cuts.push_back(i);  // around the first chunk boundary of streamed values
  for (std::size_t i = size - 40; i < size; ++i)
    cuts.push_back(i);
  return cuts;
}

std::vector<zotest::ListLayout> const& layouts_for(std::string const& data) {
  return data.size() <= 20000 ? zotest::list_layouts() : zotest::large_list_layouts();
}

// Reads `row` from a truncated copy of its bytes: it must fail with a reader error or notice a
// value it did not expect (its assertions are intercepted), never read back as complete.
void expect_truncated_read_fails(std::function<void(Reader&)> const& read,
                                 MemoryListPtr const& prefix) {
  bool failed = false;
  std::string unexpected_failure;
  MemoryReader reader{ConstMemoryListPtr(prefix)};
  {
    ::testing::TestPartResultArray noticed;
    ::testing::ScopedFakeTestPartResultReporter intercept(
        ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &noticed);
    try {
      read(reader);
      failed = noticed.size() != 0 || !reader.is_eof();
    } catch (zocore::ErrorException const& e) {
      failed = true;
      if (!is_reader_failure(e)) unexpected_failure = e.what();
    }
  }
  EXPECT_TRUE(failed) << "the truncated data read back as complete";
  EXPECT_EQ(unexpected_failure, "");
  EXPECT_LE(reader.position(), prefix->size());
}

// ---- Golden vectors -----------------------------------------------------------------------------

class MemoryReaderGoldenTest : public ::testing::TestWithParam<BinaryGoldenCase> {};

TEST_P(MemoryReaderGoldenTest, ReadsTheRowOverEveryLayout) {
  BinaryGoldenCase const& row = GetParam();
  for (zotest::ListLayout const& layout : layouts_for(row.bytes)) {
    SCOPED_TRACE(layout.name);
    MemoryListPtr const list = layout.make(row.bytes);
    MemoryReader reader{ConstMemoryListPtr(list)};
    EXPECT_EQ(reader.size(), row.bytes.size());
    row.read(reader);
    EXPECT_TRUE(reader.is_eof());
    EXPECT_EQ(reader.position(), row.bytes.size());
    EXPECT_TRUE(bytes_of(*list) == row.bytes) << "the reader changed its list";
  }
}

TEST_P(MemoryReaderGoldenTest, ReadsTheRowWithASeamAtEveryPosition) {
  BinaryGoldenCase const& row = GetParam();
  for (std::size_t cut : cuts_of(row.bytes.size())) {
    SCOPED_TRACE(::testing::Message() << "seam at " << cut);
    MemoryReader reader{ConstMemoryListPtr(zotest::list_cut_at(row.bytes, cut))};
    row.read(reader);
    EXPECT_TRUE(reader.is_eof());
    EXPECT_EQ(reader.position(), row.bytes.size());
  }
}

TEST_P(MemoryReaderGoldenTest, SkipElementLandsAtTheEnd) {
  BinaryGoldenCase const& row = GetParam();
  for (zotest::ListLayout const& layout : zotest::large_list_layouts()) {
    MemoryReader reader{ConstMemoryListPtr(layout.make(row.bytes))};
    std::size_t skipped = 0;
    while (!reader.is_eof()) {
      reader.skip_element();
      ++skipped;
    }
    EXPECT_EQ(skipped, row.elements) << layout.name;
    EXPECT_EQ(reader.position(), row.bytes.size());
  }
}

TEST_P(MemoryReaderGoldenTest, ComparesLikeTheStreamReader) {
  BinaryGoldenCase const& row = GetParam();
  for (zotest::ListLayout const& layout : zotest::large_list_layouts()) {
    SCOPED_TRACE(layout.name);
    MemoryReader memory{ConstMemoryListPtr(layout.make(row.bytes))};
    auto const stream = stream_reader_of(row.bytes, 7);
    MemoryReader memory2{ConstMemoryListPtr(layout.make(row.bytes))};
    auto const stream2 = stream_reader_of(row.bytes);
    if (row.copy == BinaryGoldenCase::ECopy::kNone) {
      // Comparing streams the strings, which validates them: both readers refuse.
      EXPECT_THROW(Reader::read_compare_equal_all(memory, *stream), zocore::ErrorException);
      EXPECT_THROW(Reader::read_compare_equal_all(*stream2, memory2), zocore::ErrorException);
      continue;
    }
    EXPECT_EQ(Reader::read_compare_equal_all(memory, *stream), row.self_equal);
    EXPECT_EQ(Reader::read_compare_equal_all(*stream2, memory2), row.self_equal);
  }
}

TEST_P(MemoryReaderGoldenTest, CopiesLikeTheStreamReader) {
  BinaryGoldenCase const& row = GetParam();
  if (row.copy == BinaryGoldenCase::ECopy::kNone) GTEST_SKIP() << "not copyable";
  std::string const expected = copy_all(*stream_reader_of(row.bytes));
  if (row.copy == BinaryGoldenCase::ECopy::kIdentical) {
    EXPECT_TRUE(expected == row.bytes);
  }
  for (zotest::ListLayout const& layout : zotest::large_list_layouts()) {
    MemoryReader reader{ConstMemoryListPtr(layout.make(row.bytes))};
    std::string const copy = copy_all(reader);
    EXPECT_TRUE(copy == expected) << layout.name << ": " << zotest::hex(copy.substr(0, 64));
  }
}

TEST_P(MemoryReaderGoldenTest, EveryTruncationFailsCleanly) {
  BinaryGoldenCase const& row = GetParam();
  for (std::size_t cut : cuts_of(row.bytes.size())) {
    SCOPED_TRACE(::testing::Message() << "cut at " << cut);
    std::string const prefix = row.bytes.substr(0, cut);
    std::size_t const piece = prefix.size() <= 5000 ? 3 : 4093;
    for (MemoryListPtr const& list : {list_of(prefix), list_in_pieces(prefix, {piece})}) {
      expect_truncated_read_fails(row.read, list);

      MemoryReader skipper{ConstMemoryListPtr(list)};
      std::size_t skipped = 0;
      try {
        while (!skipper.is_eof()) {
          skipper.skip_element();
          ++skipped;
        }
        EXPECT_LT(skipped, row.elements);
      } catch (zocore::ErrorException const& e) {
        EXPECT_TRUE(is_reader_failure(e)) << e.what();
      }
      EXPECT_LE(skipper.position(), cut);

      MemoryReader copier{ConstMemoryListPtr(list)};
      try {
        copy_all(copier);
      } catch (zocore::ErrorException const& e) {
        EXPECT_TRUE(is_reader_failure(e)) << e.what();
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, MemoryReaderGoldenTest,
                         ::testing::ValuesIn(zotest::binary_golden_cases()),
                         [](auto const& p) { return p.param.name; });

// ---- Every tag byte, against the stream reader --------------------------------------------------

// What one operation did: the value it read or its failure, and where the reader stood after it.
struct Outcome {
  bool ok = false;
  std::string value;
  std::string code;
  std::string message;
  std::map<std::string, std::string> params;
  std::uint64_t position = 0;
};

std::ostream& operator<<(std::ostream& os, Outcome const& o) {
  if (o.ok) return os << "ok " << o.value << " at " << o.position;
  os << o.code << " \"" << o.message << "\"";
  for (auto const& [name, value] : o.params)
    os << ' ' << name << '=' << value;
  return os;
}

template <class R>
Outcome run(R& reader, std::function<std::string(Reader&)> const& op) {
  Outcome o;
  try {
    o.value = op(reader);
    o.ok = true;
  } catch (zocore::ErrorException const& e) {
    o.code = std::string(e.info()->code().view());
    o.message = std::string(e.info()->message().view());
    for (auto const& [name, value] : e.info()->params())
      o.params[std::string(name.view())] = value;
  }
  o.position = reader.position();
  return o;
}

constexpr char kTypeMismatch[] =
    "Current tag has unexpected type prefix.  Expected={@expectedType}, Actual={@actualType} "
    "(ActualTag={@actualTag})";
constexpr char kUnexpectedTag[] = "Tag has unexpected value.  Type={@tagType}, Value={@tagValue}";
constexpr char kBlobLength[] =
    "Invalid blob length or truncated stream: number of bytes remaining in stream is smaller "
    "than size of blob.  Expected={@expected}, BytesRemaining={@remaining}";
constexpr char kMarkerSize[] =
    "Invalid marker size or truncated stream: number of bytes remaining in stream is smaller "
    "than size of marker.  Expected={@expected}, BytesRemaining={@remaining}";
constexpr char kTagAtEnd[] = "Unable to read tag byte, reader at end of memory list";
constexpr char kEofError[] =
    "End of data reached reading from source.  ExpectedBytes={@expected}, ReadBytes={@actual}";

// The stream reader's failure in the memory reader's words. The two differ only where the memory
// reader knows more: it has no end-of-stream tag message of its own, and it walks a chunked
// payload when it hands out its stream, so it reports a foreign chunk tag with the ordinary tag
// messages.
Outcome in_memory_terms(Outcome o) {
  if (o.ok) return o;
  if (o.message == "Unable to read tag byte, reader is EOF") o.message = kTagAtEnd;
  if (o.message.starts_with("Invalid tag in chunked element.")) o.message = kTypeMismatch;
  if (o.message.starts_with("Unexpected tag.  Expecting chunk continuation or end tag.")) {
    o.message = kUnexpectedTag;
    o.params = {{"tagType", o.params["type"]}, {"tagValue", o.params["value"]}};
  }
  return o;
}

void expect_same_outcome(Outcome const& stream, Outcome const& memory) {
  if (memory.ok) {
    EXPECT_TRUE(stream.ok) << "stream reader: " << stream << ", memory reader: " << memory;
    EXPECT_EQ(stream.value, memory.value);
    EXPECT_EQ(stream.position, memory.position);
    return;
  }
  // A marker size is checked against the data when the marker starts; the stream reader cannot
  // check it and even accepts a marker whose end tag comes before its declared end.
  if (memory.message == kMarkerSize) return;
  EXPECT_FALSE(stream.ok) << "stream reader: " << stream << ", memory reader: " << memory;
  // Lengths are checked against the data before anything is read, and chunks when the payload's
  // stream is handed out: the stream reader runs into the end, or into whatever bad byte comes
  // first, later.
  if (memory.message == kBlobLength || memory.message == kEofError) return;
  // Where a text has more than one fault, which is found first depends on where the pieces the
  // validator sees are cut (a character cut at a piece boundary is held back), so a bad
  // character may be reported before or after a bad tag.
  if (memory.code == "error.zocore.utf8" || stream.code == "error.zocore.utf8") return;
  Outcome const expected = in_memory_terms(stream);
  EXPECT_EQ(expected.code, memory.code) << "stream reader: " << stream << ", memory: " << memory;
  EXPECT_EQ(expected.message, memory.message);
  EXPECT_EQ(expected.params, memory.params);
}

std::string hex_of(IReadStream& stream) {
  return zotest::hex(zotest::read_all(stream, 3));
}

// Reads one element with the operation its prefix calls for and describes the value.
std::string read_by_prefix(Reader& r, unsigned tag) {
  switch (tag & 0xF0) {
    case 0x00:
      r.read_null();
      return "null";
    case 0x10:
      return r.read_bool() ? "true" : "false";
    case 0x20:
      return std::to_string(r.read_int64());
    case 0x30:
      return std::to_string(r.read_uint64());
    case 0x40:
      return std::to_string(std::bit_cast<std::uint64_t>(r.read_double()));
    case 0x50:
      return zotest::hex(r.read_string());
    case 0x60:
      return std::to_string(r.read_absolute_time().count());
    case 0x70:
      return std::to_string(r.read_relative_time().count());
    case 0x80:
      return r.read_uuid().as_string();
    case 0x90:
      return hex_of(*r.read_binary());
    case 0xA0: {
      std::string out = "hint " + std::to_string(r.read_sequence_start());
      while (r.read_sequence_next()) {
        r.skip_element();
        out += " element";
      }
      return out;
    }
    case 0xB0: {
      r.read_marker_start();
      std::string out = "marker";
      while (!r.read_marker_is_end()) {
        r.skip_element();
        out += " element";
      }
      r.read_marker_end();
      return out;
    }
    default:
      r.read_null();
      return "null";
  }
}

// Payload bytes after the tag: lengths, counts and chunk headers in their common forms, padded so
// that fixed-width payloads are complete.
std::vector<std::string> const& tails() {
  static std::vector<std::string> const all = [] {
    std::vector<std::string> out;
    std::string const padding(24, '\0');
    out.emplace_back();
    for (char const* hex : {"",
                            "00 AF",
                            "00 BF",
                            "01 61 5F",
                            "01 61 9F",
                            "00 01 61 5F",
                            "00 01 61 9F",
                            "00 00 00 01 61",
                            "01 11 BF",
                            "02 21 AE 21 AF",
                            "01 11 BF BF",
                            "02 C3 A9 5D 01 62 5F",
                            "02 C3 A9 9D 01 62 9F",
                            "01 61 5E 00 01 62 5F",
                            "01 61 9E 00 01 62 9F",
                            "01 C3 5D 01 A9 5F",
                            "01 FF 5F",
                            "01 61 99",
                            "01 61 5B",
                            "00 00 00 00 00 00 00 02 21 AE 21 AF",
                            "FF FF FF FF",
                            "7F 80 80 80 80 80 80 80",
                            "01 61 AF"}) {
      out.push_back(zotest::bytes(hex) + padding);
    }
    return out;
  }();
  return all;
}

class MemoryReaderTagTest : public ::testing::TestWithParam<int> {};

TEST_P(MemoryReaderTagTest, EveryOperationAgreesWithTheStreamReader) {
  auto const tag = static_cast<unsigned>(GetParam());
  std::vector<std::function<std::string(Reader&)>> ops = {
      [](Reader& r) { return std::to_string(static_cast<int>(r.next_token())); },
      [tag](Reader& r) { return read_by_prefix(r, tag); },
      [](Reader& r) {
        r.skip_element();
        return std::string("skipped");
      },
      [](Reader& r) { return zotest::hex(copy_all(r)); },
  };
  if ((tag & 0xF0) == 0x50) {
    ops.emplace_back([](Reader& r) { return hex_of(*r.read_string_stream()); });
  }
  if ((tag & 0xF0) == 0x90) {
    ops.emplace_back([](Reader& r) {
      MemoryReader* memory = dynamic_cast<MemoryReader*>(&r);
      if (!memory) return hex_of(*r.read_binary());
      return zotest::hex(bytes_of(*memory->read_binary_as_memory_list()));
    });
  }
  for (std::size_t t = 0; t < tails().size(); ++t) {
    std::string const data = std::string(1, static_cast<char>(tag)) + tails()[t];
    SCOPED_TRACE(::testing::Message() << "element " << zotest::hex(data.substr(0, 16)));
    MemoryListPtr const lists[] = {list_of(data), list_in_pieces(data, {1})};
    for (std::size_t i = 0; i < ops.size(); ++i) {
      SCOPED_TRACE(::testing::Message() << "operation " << i);
      auto const stream = stream_reader_of(data);
      Outcome const expected = run(*stream, ops[i]);
      for (MemoryListPtr const& list : lists) {
        MemoryReader reader{ConstMemoryListPtr(list)};
        expect_same_outcome(expected, run(reader, ops[i]));
      }
    }
  }
}

TEST_P(MemoryReaderTagTest, ReadOfAnotherTypeFailsAndLeavesTheTag) {
  auto const tag = static_cast<unsigned>(GetParam());
  bool const is_bool = (tag & 0xF0) == 0x10;
  std::string const data = std::string(1, static_cast<char>(tag)) + std::string(24, '\0');
  for (MemoryListPtr const& list : {list_of(data), list_in_pieces(data, {1})}) {
    MemoryReader reader{ConstMemoryListPtr(list)};
    EToken const token = reader.next_token();
    auto const info = ZO_EXPECT_ERROR(is_bool ? reader.read_null() : (void)reader.read_bool(),
                                      error::zoserialize_reader_data_type_mismatch, kTypeMismatch);
    ASSERT_TRUE(info);
    EXPECT_EQ(zotest::param(info, "expectedType"), is_bool ? "Null" : "Boolean");
    EXPECT_EQ(zotest::param(info, "actualType"),
              zoserialize::impl::type_prefix_name(static_cast<int>(tag)));
    EXPECT_EQ(zotest::param(info, "actualTag"), std::to_string(tag));
    EXPECT_EQ(info->location().function().view(),
              "zoserialize::MemoryReader::impl_read_tag_check_type()");
    EXPECT_EQ(reader.position(), 0u);
    EXPECT_EQ(reader.next_token(), token);
  }
}

INSTANTIATE_TEST_SUITE_P(AllTags, MemoryReaderTagTest, ::testing::Range(0, 256),
                         [](::testing::TestParamInfo<int> const& p) {
                           char name[8];
                           std::snprintf(name, sizeof name, "Tag%02X", p.param);
                           return std::string(name);
                         });

// ---- Random documents ---------------------------------------------------------------------------

struct WrittenDocument {
  std::string bytes;
  std::vector<std::size_t> ends;
};

WrittenDocument write_document(std::uint64_t seed) {
  MemoryWriter writer;
  WrittenDocument doc;
  doc.ends =
      zotest::RandomDocument(seed).write(writer, [&] { return writer.memory_list()->size(); });
  writer.close();
  doc.bytes = bytes_of(*writer.memory_list());
  return doc;
}

TEST(MemoryReaderTest, RandomDocumentsRoundTripOverEveryLayout) {
  for (std::uint64_t seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    WrittenDocument const doc = write_document(seed);
    for (zotest::ListLayout const& layout : layouts_for(doc.bytes)) {
      SCOPED_TRACE(layout.name);
      MemoryListPtr const list = layout.make(doc.bytes);
      MemoryReader reader{ConstMemoryListPtr(list)};
      zotest::RandomDocument(seed).read(reader);
      EXPECT_TRUE(reader.is_eof());

      MemoryReader skipper{ConstMemoryListPtr(list)};
      for (std::size_t end : doc.ends) {
        skipper.skip_element();
        EXPECT_EQ(skipper.position(), end);
      }
      EXPECT_TRUE(skipper.is_eof());

      MemoryReader copier{ConstMemoryListPtr(list)};
      EXPECT_TRUE(copy_all(copier) == doc.bytes);
      MemoryReader memory{ConstMemoryListPtr(list)};
      auto const stream = stream_reader_of(doc.bytes, 3);
      EXPECT_TRUE(Reader::read_compare_equal_all(memory, *stream));
    }
  }
}

TEST(MemoryReaderTest, TruncatedRandomDocumentsFailCleanly) {
  for (std::uint64_t seed = 1; seed <= 12; ++seed) {
    WrittenDocument const doc = write_document(seed);
    std::mt19937 cuts(static_cast<unsigned>(seed));
    for (int i = 0; i < 60; ++i) {
      std::size_t const cut = cuts() % doc.bytes.size();
      SCOPED_TRACE(::testing::Message() << "seed " << seed << ", cut at " << cut);
      expect_truncated_read_fails([seed](Reader& r) { zotest::RandomDocument(seed).read(r); },
                                  list_in_pieces(doc.bytes.substr(0, cut), {5, 1, 4093}));
    }
  }
}

// ---- Failures -----------------------------------------------------------------------------------

struct FailureCase {
  char const* name;
  std::string data;
  std::function<void(MemoryReader&)> op;
  zocore::ErrorCode const* code;
  char const* message;
  std::map<std::string, std::string> params;
  char const* function;
  unsigned position;  // where the reader stands after the failure
};

std::ostream& operator<<(std::ostream& os, FailureCase const& c) {
  return os << c.name;
}

class MemoryReaderFailureTest : public ::testing::TestWithParam<FailureCase> {};

TEST_P(MemoryReaderFailureTest, FailsWithCodeMessageAndParameters) {
  FailureCase const& c = GetParam();
  for (zotest::ListLayout const& layout : zotest::list_layouts()) {
    SCOPED_TRACE(layout.name);
    MemoryListPtr const list = layout.make(c.data);
    MemoryReader reader{ConstMemoryListPtr(list)};
    auto const info = zotest::expect_error([&] { c.op(reader); }, *c.code, c.message);
    ASSERT_TRUE(info);
    for (auto const& [name, value] : c.params)
      EXPECT_EQ(zotest::param(info, name), value) << name;
    EXPECT_EQ(info->params().size(), c.params.size());
    EXPECT_EQ(info->location().function().view(), c.function);
    EXPECT_EQ(reader.position(), c.position);
    EXPECT_TRUE(bytes_of(*list) == c.data);
  }
}

void read_binary(MemoryReader& r) {
  r.read_binary();
}
void read_string_stream(MemoryReader& r) {
  r.read_string_stream();
}
void read_as_list(MemoryReader& r) {
  r.read_binary_as_memory_list();
}

std::string with_bytes(std::string_view hex, std::size_t n, char fill = 'a') {
  return zotest::bytes(hex) + std::string(n, fill);
}

constexpr char kCalcSize[] = "zoserialize::MemoryReader::checked_calc_binary_block_size()";
constexpr char kPayloadStream[] = "zoserialize::MemoryReader::read_payload_stream()";
constexpr char kAppendList[] = "zoserialize::MemoryReader::read_binary_append_memory_list()";
constexpr char kTagCheck[] = "zoserialize::MemoryReader::impl_read_tag_check_type()";
constexpr char kMarkerStart[] = "zoserialize::MemoryReader::read_marker_start()";
constexpr char kMarkerEnd[] = "zoserialize::MemoryReader::read_marker_end()";
constexpr char kMarkerIsEnd[] = "zoserialize::MemoryReader::read_marker_is_end()";
constexpr char kThrowEof[] = "zoserialize::BinaryReaderBase::throw_eof_error()";
constexpr char kNoMarkers[] = "No markers are currently open";
constexpr char kEndInMarker[] = "Unexpected end of data in marker, expecting marker end tag";

std::vector<FailureCase> failure_cases() {
  auto const& size = error::zoserialize_reader_data_size;
  auto const& eof = error::zoserialize_reader_eof;
  auto const& mismatch = error::zoserialize_reader_data_type_mismatch;
  auto const& type = error::zoserialize_reader_data_type;
  auto const& markers = error::zoserialize_reader_marker_mismatch;
  return {
      // A declared length beyond the data fails once the length is read, before any payload byte.
      {"BlobLength300Of200",
       with_bytes("99 01 2C", 200),
       read_binary,
       &size,
       kBlobLength,
       {{"expected", "300"}, {"remaining", "200"}},
       kCalcSize,
       3},
      {"StringLength300Of200",
       with_bytes("59 01 2C", 200),
       read_string_stream,
       &size,
       kBlobLength,
       {{"expected", "300"}, {"remaining", "200"}},
       kCalcSize,
       3},
      {"BlobLengthAsList",
       with_bytes("99 01 2C", 200),
       read_as_list,
       &size,
       kBlobLength,
       {{"expected", "300"}, {"remaining", "200"}},
       kCalcSize,
       3},
      {"BlobLength1Byte",
       zotest::bytes("98 05 AA"),
       read_binary,
       &size,
       kBlobLength,
       {{"expected", "5"}, {"remaining", "1"}},
       kCalcSize,
       2},
      {"BlobLength4Bytes",
       zotest::bytes("9A 00 01 00 00"),
       read_binary,
       &size,
       kBlobLength,
       {{"expected", "65536"}, {"remaining", "0"}},
       kCalcSize,
       5},
      {"BlobLength4BytesHuge",
       zotest::bytes("9A FF FF FF FF 00"),
       read_as_list,
       &size,
       kBlobLength,
       {{"expected", "4294967295"}, {"remaining", "1"}},
       kCalcSize,
       5},
      {"BlobLengthInTheTag",
       zotest::bytes("95 01 02"),
       read_binary,
       &size,
       kBlobLength,
       {{"expected", "5"}, {"remaining", "2"}},
       kCalcSize,
       1},
      {"StringLengthInTheTag",
       zotest::bytes("57 61"),
       read_string_stream,
       &size,
       kBlobLength,
       {{"expected", "7"}, {"remaining", "1"}},
       kCalcSize,
       1},
      // Length bytes themselves cut short.
      {"LengthFieldCutShort",
       zotest::bytes("99 01"),
       read_binary,
       &eof,
       kEofError,
       {{"expected", "2"}, {"actual", "1"}},
       kThrowEof,
       2},
      {"ChunkRunsPastTheEnd",
       zotest::bytes("9B 05 AA"),
       read_binary,
       &eof,
       kEofError,
       {{"expected", "5"}, {"actual", "1"}},
       kThrowEof,
       3},
      {"StringChunkRunsPastTheEnd",
       zotest::bytes("5B 01 61 5D 05 62"),
       read_string_stream,
       &eof,
       kEofError,
       {{"expected", "5"}, {"actual", "1"}},
       kThrowEof,
       6},
      {"ChunkRunsPastTheEndAsList",
       zotest::bytes("9B 01 AA 9D 05 AA"),
       read_as_list,
       &eof,
       kEofError,
       {{"expected", "5"}, {"actual", "1"}},
       kThrowEof,
       5},
      {"ChunkEndTagMissing",
       zotest::bytes("9B 01 AA"),
       read_binary,
       &eof,
       kTagAtEnd,
       {},
       kTagCheck,
       3},
      {"ChunkEndTagMissingAsList",
       zotest::bytes("9B 01 AA"),
       read_as_list,
       &eof,
       kTagAtEnd,
       {},
       kTagCheck,
       3},
      // Tags.
      {"NoTagInAnEmptyList",
       "",
       [](MemoryReader& r) { r.read_null(); },
       &eof,
       kTagAtEnd,
       {},
       kTagCheck,
       0},
      {"NoTagAfterTheLastElement",
       zotest::bytes("11"),
       [](MemoryReader& r) {
         r.read_bool();
         r.read_bool();
       },
       &eof,
       kTagAtEnd,
       {},
       kTagCheck,
       1},
      {"TypeMismatch",
       zotest::bytes("11"),
       [](MemoryReader& r) { r.read_null(); },
       &mismatch,
       kTypeMismatch,
       {{"expectedType", "Null"}, {"actualType", "Boolean"}, {"actualTag", "17"}},
       kTagCheck,
       0},
      {"BinaryTagWithoutLengthForm",
       zotest::bytes("9D 00"),
       read_binary,
       &type,
       kUnexpectedTag,
       {{"tagType", "Binary"}, {"tagValue", "157"}},
       kPayloadStream,
       1},
      {"StringTagWithoutLengthForm",
       zotest::bytes("5F"),
       read_string_stream,
       &type,
       kUnexpectedTag,
       {{"tagType", "String"}, {"tagValue", "95"}},
       kPayloadStream,
       1},
      {"AppendTagWithoutLengthForm",
       zotest::bytes("9E 00 00"),
       read_as_list,
       &type,
       kUnexpectedTag,
       {{"tagType", "Binary"}, {"tagValue", "158"}},
       kAppendList,
       1},
      {"ChunkTagOfAnotherType",
       zotest::bytes("9B 01 AA 5F"),
       read_binary,
       &mismatch,
       kTypeMismatch,
       {{"expectedType", "Binary"}, {"actualType", "String"}, {"actualTag", "95"}},
       kTagCheck,
       3},
      {"ChunkTagOfAnotherTypeAsList",
       zotest::bytes("9B 01 AA 5F"),
       read_as_list,
       &mismatch,
       kTypeMismatch,
       {{"expectedType", "Binary"}, {"actualType", "String"}, {"actualTag", "95"}},
       kTagCheck,
       3},
      {"ChunkTagNotAContinuation",
       zotest::bytes("9B 01 AA 98 01 AA"),
       read_binary,
       &type,
       kUnexpectedTag,
       {{"tagType", "Binary"}, {"tagValue", "152"}},
       kPayloadStream,
       4},
      {"StringChunkTagNotAContinuation",
       zotest::bytes("5C 00 01 61 5C 00 01 61"),
       read_string_stream,
       &type,
       kUnexpectedTag,
       {{"tagType", "String"}, {"tagValue", "92"}},
       kPayloadStream,
       5},
      {"ChunkTagNotAContinuationAsList",
       zotest::bytes("9B 01 AA 9B 01 AA"),
       read_as_list,
       &type,
       kUnexpectedTag,
       {{"tagType", "Binary"}, {"tagValue", "155"}},
       kAppendList,
       4},
      // Markers.
      {"MarkerSizeBeyondTheData",
       zotest::bytes("B4 05 11 BF"),
       [](MemoryReader& r) { r.read_marker_start(); },
       &size,
       kMarkerSize,
       {{"expected", "5"}, {"remaining", "2"}},
       kMarkerStart,
       2},
      {"MarkerSize2BytesBeyondTheData",
       with_bytes("B5 01 00", 255, '\0'),
       [](MemoryReader& r) { r.read_marker_start(); },
       &size,
       kMarkerSize,
       {{"expected", "256"}, {"remaining", "255"}},
       kMarkerStart,
       3},
      {"MarkerSize8BytesBeyondTheData",
       zotest::bytes("B7 00 00 00 00 00 00 00 03 11 BF"),
       [](MemoryReader& r) { r.read_marker_start(); },
       &size,
       kMarkerSize,
       {{"expected", "3"}, {"remaining", "2"}},
       kMarkerStart,
       9},
      {"MarkerEndWithoutMarker",
       zotest::bytes("BF"),
       [](MemoryReader& r) { r.read_marker_end(); },
       &markers,
       kNoMarkers,
       {},
       kMarkerEnd,
       0},
      {"MarkerIsEndWithoutMarker",
       zotest::bytes("BF"),
       [](MemoryReader& r) { r.read_marker_is_end(); },
       &markers,
       kNoMarkers,
       {},
       kMarkerIsEnd,
       0},
      {"MarkerEndAfterTheMarkerWasClosed",
       zotest::bytes("B0 BF BF"),
       [](MemoryReader& r) {
         r.read_marker_start();
         r.read_marker_end();
         r.read_marker_end();
       },
       &markers,
       kNoMarkers,
       {},
       kMarkerEnd,
       2},
      {"EndOfDataWhereTheMarkerEnds",
       zotest::bytes("B0 11"),
       [](MemoryReader& r) {
         r.read_marker_start();
         r.read_bool();
         r.read_marker_end();
       },
       &eof,
       kEndInMarker,
       {},
       kMarkerEnd,
       2},
      {"EndOfDataWhereASizedMarkerEnds",
       zotest::bytes("B4 01 11"),
       [](MemoryReader& r) {
         r.read_marker_start();
         r.read_bool();
         r.read_marker_end();
       },
       &eof,
       kEndInMarker,
       {},
       kMarkerEnd,
       3},
      {"EndOfDataSkippingAnUnsizedMarker",
       zotest::bytes("B0 11 20"),
       [](MemoryReader& r) {
         r.read_marker_start();
         r.read_marker_end();
       },
       &eof,
       kEndInMarker,
       {},
       "zoserialize::BinaryReaderBase::skip_to_marker_end_tag()",
       3},
      {"EndOfDataSkippingANestedMarker",
       zotest::bytes("B0 11 B0 20"),
       [](MemoryReader& r) {
         r.read_marker_start();
         r.read_marker_end();
       },
       &eof,
       "Unexpected end of data, expecting tag",
       {},
       "zoserialize::BinaryReaderBase::skip_element()",
       4},
      {"ReaderPastTheDeclaredEnd",
       zotest::bytes("B4 01 20 21 22 BF"),
       [](MemoryReader& r) {
         r.read_marker_start();
         r.read_int32();
         r.read_int32();
         r.read_marker_end();
       },
       &error::zoserialize_reader_marker_overrun,
       "Marker size mismatch; reader has already passed calculated marker end.  "
       "MarkerEnd={@markerEndPos}, ReaderPos={@readerPos}",
       {{"markerEndPos", "3"}, {"readerPos", "4"}},
       kMarkerEnd,
       4},
      {"NoEndTagAtTheDeclaredEnd",
       zotest::bytes("B4 01 20 21 BF"),
       [](MemoryReader& r) {
         r.read_marker_start();
         r.read_marker_end();
       },
       &error::zoserialize_reader_marker_size,
       "Inconsistent marker size: no end tag at end position",
       {},
       kMarkerEnd,
       3},
      {"NoEndTagAtTheDeclaredEndHalfRead",
       zotest::bytes("B4 03 20 21 22 23 BF"),
       [](MemoryReader& r) {
         r.read_marker_start();
         r.read_int32();
         r.read_marker_end();
       },
       &error::zoserialize_reader_marker_size,
       "Inconsistent marker size: no end tag at end position",
       {},
       kMarkerEnd,
       5},
      {"NullListArgument",
       zotest::bytes("91 AA"),
       [](MemoryReader& r) { r.read_binary_append_memory_list(nullptr); },
       &error::zoserialize_reader,
       "NULL pMemoryList argument",
       {},
       kAppendList,
       0},
  };
}

INSTANTIATE_TEST_SUITE_P(Cases, MemoryReaderFailureTest, ::testing::ValuesIn(failure_cases()),
                         [](auto const& p) { return std::string(p.param.name); });

TEST(MemoryReaderTest, NullListArgumentNestsEinval) {
  MemoryReader reader = reader_of_hex("91 AA");
  auto const info = ZO_EXPECT_ERROR(reader.read_binary_append_memory_list(nullptr),
                                    error::zoserialize_reader, "NULL pMemoryList argument");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->nested_errno(), 22);
  EXPECT_EQ(reader.next_token(), EToken::Binary);
}

TEST(MemoryReaderTest, MarkerEndBeyondTheListFails) {
  // A record whose end lies beyond the data: the marker start refuses to create one, so it is
  // planted; the end check must still refuse to move past the list.
  MemoryReader reader = reader_of_hex("B0 20 21 22");
  reader.read_marker_start();
  MemoryReaderTestPeer::push_marker(reader, 1, 10);
  auto const info = ZO_EXPECT_ERROR(reader.read_marker_end(), error::zoserialize_reader_eof,
                                    "Remaining data no sufficient for expected size of marker");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "markerEndPos"), "11");
  EXPECT_EQ(zotest::param(info, "streamSize"), "4");
  EXPECT_EQ(info->location().function().view(), "zoserialize::MemoryReader::read_marker_end()");
  EXPECT_EQ(reader.position(), 1u);
}

TEST(MemoryReaderTest, AssignmentWithOpenScopesFailsAndChangesNothing) {
  MemoryReader const source = reader_of_hex("20 21 22");
  struct Scope {
    char const* hex;
    std::function<void(MemoryReader&)> open;
  };
  for (Scope const& scope : {
           Scope{"B0 11 BF", [](MemoryReader& r) { r.read_marker_start(); }},
           Scope{"A1 11 AF",
                 [](MemoryReader& r) {
                   r.read_sequence_start();
                   r.read_sequence_next();
                 }},
           Scope{"A0 AF", [](MemoryReader& r) { r.read_sequence_start(); }},
       }) {
    SCOPED_TRACE(scope.hex);
    MemoryReader target = reader_of_hex(scope.hex);
    scope.open(target);
    unsigned const position = target.position();
    ZO_EXPECT_ERROR(target = source, error::zoserialize_reader,
                    "Cannot assign to a reader that has open read marker or sequences");
    auto const info = ZO_EXPECT_ERROR(target = reader_of_hex("00"), error::zoserialize_reader,
                                      "Cannot assign to a reader that has open read marker or "
                                      "sequences");
    ASSERT_TRUE(info);
    EXPECT_EQ(info->location().function().view(), "zoserialize::MemoryReader::operator=()");
    EXPECT_EQ(target.position(), position);
    EXPECT_EQ(target.size(), zotest::bytes(scope.hex).size());
  }
}

// ---- UTF-8 --------------------------------------------------------------------------------------

std::string chunked_string(std::string const& text, std::size_t chunk) {
  std::string out;
  for (std::size_t at = 0; at < text.size(); at += chunk) {
    std::size_t const n = std::min(chunk, text.size() - at);
    out += at == 0 ? zotest::bytes("5C") : zotest::bytes("5E");
    out.push_back(static_cast<char>(n >> 8));
    out.push_back(static_cast<char>(n & 0xFF));
    out += text.substr(at, n);
  }
  return out + zotest::bytes("5F");
}

TEST(MemoryReaderTest, InvalidUtf8AnywhereFailsInReadStringStream) {
  std::string const text = zotest::golden_text(120);
  for (std::size_t bad = 0; bad < text.size(); ++bad) {
    SCOPED_TRACE(::testing::Message() << "invalid byte at " << bad);
    std::string broken = text;
    broken[bad] = '\xFF';
    for (std::string const& encoded :
         {zotest::bytes("58 78") + broken, chunked_string(broken, 50), chunked_string(broken, 7)}) {
      for (MemoryListPtr const& list :
           {list_of(encoded), list_in_pieces(encoded, {1}), list_in_pieces(encoded, {3, 5})}) {
        MemoryReader reader{ConstMemoryListPtr(list)};
        ZO_EXPECT_ERROR(reader.read_string_stream(), zocore::error::zocore_utf8,
                        "Invalid UTF-8 sequence at offset {@offset}");
      }
    }
  }
}

TEST(MemoryReaderTest, IncompleteLastCharacterFailsInReadStringStream) {
  for (char const* hex :
       {"51 C3", "53 61 E2 82", "5B 02 61 E2 5D 01 82 5F", "5B 01 F0 5F", "5B 01 C3 5D 00 5F"}) {
    SCOPED_TRACE(hex);
    std::string const encoded = zotest::bytes(hex);
    for (MemoryListPtr const& list : {list_of(encoded), list_in_pieces(encoded, {1})}) {
      MemoryReader reader{ConstMemoryListPtr(list)};
      ZO_EXPECT_ERROR(reader.read_string_stream(), zocore::error::zocore_utf8,
                      "Invalid UTF-8 sequence at offset {@offset}");
    }
  }
}

TEST(MemoryReaderTest, CharactersSplitAcrossSegmentsAndChunksValidate) {
  std::string const text = zotest::golden_text(300);
  for (std::string const& encoded :
       {zotest::bytes("59 01 2C") + text, chunked_string(text, 7), chunked_string(text, 1)}) {
    for (std::size_t cut : cuts_of(encoded.size())) {
      MemoryReader reader{ConstMemoryListPtr(zotest::list_cut_at(encoded, cut))};
      auto const stream = reader.read_string_stream();
      EXPECT_TRUE(zotest::read_all(*stream, 5) == text) << "seam at " << cut;
      EXPECT_TRUE(reader.is_eof());
    }
  }
}

// ---- Positions, ranges and markers --------------------------------------------------------------

TEST(MemoryReaderTest, NullListReadsAsEmpty) {
  MemoryReader reader{ConstMemoryListPtr()};
  EXPECT_TRUE(reader.is_eof());
  EXPECT_EQ(reader.size(), 0u);
  EXPECT_EQ(reader.next_token(), EToken::Eof);
  ASSERT_TRUE(reader.memory_list());
  EXPECT_TRUE(reader.memory_list()->empty());
}

TEST(MemoryReaderTest, ReadsWhatAWriterHasWritten) {
  MemoryWriter writer;
  writer << 100000 << std::string("abc");
  MemoryReader reader(writer);
  EXPECT_EQ(reader.size(), 9u);
  EXPECT_EQ(reader.read_int32(), 100000);
  EXPECT_EQ(reader.read_string(), "abc");
  EXPECT_TRUE(reader.is_eof());
}

TEST(MemoryReaderTest, ReadMemoryReaderOfTenContentBytes) {
  // 10 content bytes: 26 00 01 86 A0, 53 61 62 63, 11.
  for (char const* start : {"B0", "B4 0A", "B5 00 0A", "B7 00 00 00 00 00 00 00 0A"}) {
    SCOPED_TRACE(start);
    std::string const data =
        zotest::bytes(std::string(start) + " 26 00 01 86 A0 53 61 62 63 11 BF 22");
    for (zotest::ListLayout const& layout : zotest::list_layouts()) {
      MemoryReader reader{ConstMemoryListPtr(layout.make(data))};
      MemoryReader contents = reader.read_memory_reader();
      EXPECT_EQ(contents.size(), 10u) << layout.name;
      EXPECT_EQ(contents.position(), 0u);
      EXPECT_EQ(reader.position(), data.size() - 1);
      EXPECT_EQ(contents.read_int32(), 100000);
      EXPECT_EQ(contents.position(), 5u);
      std::string rest;
      for (auto piece = contents.segment_iterator(); !piece.at_end(); piece.next())
        rest.append(piece.data(), piece.size());
      EXPECT_EQ(zotest::hex(rest), "53 61 62 63 11");
      EXPECT_EQ(contents.read_string(), "abc");
      EXPECT_TRUE(contents.read_bool());
      EXPECT_TRUE(contents.is_eof());
      EXPECT_EQ(contents.position(), 10u);
      // The range ends before the end tag, although the list goes on.
      EXPECT_EQ(contents.next_token(), EToken::Eof);
      ZO_EXPECT_ERROR(contents.read_marker_end(), error::zoserialize_reader_marker_mismatch,
                      kNoMarkers);
      ZO_EXPECT_ERROR(contents.read_null(), error::zoserialize_reader_eof, kTagAtEnd);
      EXPECT_EQ(reader.read_int32(), -1);
      EXPECT_TRUE(reader.is_eof());
    }
  }
}

TEST(MemoryReaderTest, RangesNestAndCountFromTheirOwnStart) {
  MemoryReader outer = reader_of_hex("00 B0 21 B4 03 22 A0 AF BF 11 BF 00");
  outer.read_null();
  MemoryReader middle = outer.read_memory_reader();
  EXPECT_EQ(middle.size(), 8u);
  EXPECT_EQ(middle.read_int32(), 1);
  EXPECT_EQ(middle.position(), 1u);
  MemoryReader inner = middle.read_memory_reader();
  EXPECT_EQ(inner.size(), 3u);
  EXPECT_EQ(middle.position(), 7u);
  EXPECT_TRUE(middle.read_bool());
  EXPECT_TRUE(middle.is_eof());
  EXPECT_EQ(inner.read_int32(), -1);
  EXPECT_EQ(inner.read_sequence_start(), 0u);
  EXPECT_FALSE(inner.read_sequence_next());
  EXPECT_TRUE(inner.is_eof());
  outer.read_null();
  EXPECT_TRUE(outer.is_eof());
  // A marker inside a range may not claim bytes beyond the range.
  MemoryReader range = reader_of_hex("B4 03 B4 05 11 BF 20 20 20 20");
  MemoryReader contents = range.read_memory_reader();
  auto const info = ZO_EXPECT_ERROR(contents.read_marker_start(),
                                    error::zoserialize_reader_data_size, kMarkerSize);
  EXPECT_EQ(zotest::param(info, "remaining"), "1");
}

TEST(MemoryReaderTest, MarkerEndOnAHalfReadSizedMarkerLandsOnTheEndTag) {
  // From wherever the reader stands, the end is the one the marker declared; the stream reader
  // would skip the whole declared size again and miss it.
  std::string const data = zotest::bytes("B4 05 21 22 20 30 31 BF 00");
  for (zotest::ListLayout const& layout : zotest::list_layouts()) {
    MemoryReader reader{ConstMemoryListPtr(layout.make(data))};
    reader.read_marker_start();
    EXPECT_EQ(reader.read_int32(), 1);
    EXPECT_EQ(reader.read_int32(), -1);
    reader.read_marker_end();
    EXPECT_EQ(reader.position(), 8u) << layout.name;
    reader.read_null();
    EXPECT_TRUE(reader.is_eof());
  }
  auto const stream = stream_reader_of(data);
  stream->read_marker_start();
  stream->read_int32();
  stream->read_int32();
  EXPECT_THROW(stream->read_marker_end(), zocore::ErrorException);
}

TEST(MemoryReaderTest, UnreadSizedMarkerIsSkippedWhole) {
  MemoryReader reader = reader_of_hex("B4 04 59 00 01 BF BF 11");
  reader.read_marker_start();
  reader.read_marker_end();
  EXPECT_EQ(reader.position(), 7u);
  EXPECT_TRUE(reader.read_bool());
}

// ---- Payload streams and lists ------------------------------------------------------------------

TEST(MemoryReaderTest, PayloadStreamsOutliveTheirPositionAndTheReader) {
  std::string const data = zotest::pattern_string(0, 600);
  std::string const chunked = zotest::bytes("9C 01 2C") + data.substr(0, 300) +
                              zotest::bytes("9D 00 9E 01 2C") + data.substr(300) +
                              zotest::bytes("9F");
  std::string const doc = zotest::bytes("99 02 58") + data + chunked + zotest::bytes("11");
  for (zotest::ListLayout const& layout : zotest::list_layouts()) {
    SCOPED_TRACE(layout.name);
    InterfacePtr<IReadStream> plain;
    InterfacePtr<IReadStream> pieces;
    {
      MemoryReader reader{ConstMemoryListPtr(layout.make(doc))};
      plain = reader.read_binary();
      EXPECT_EQ(plain->bytes_remaining(), 600u);
      char first[10];
      ASSERT_EQ(plain->read(first, 10), 10u);
      EXPECT_EQ(plain->bytes_remaining(), 590u);
      pieces = reader.read_binary();
      EXPECT_EQ(pieces->bytes_remaining(), kUnknownSize);
      EXPECT_TRUE(reader.read_bool());
      EXPECT_TRUE(reader.is_eof());
    }
    EXPECT_EQ(plain->skip(90), 90u);
    EXPECT_TRUE(zotest::read_all(*plain, 7) == data.substr(100));
    EXPECT_EQ(plain->bytes_remaining(), 0u);
    EXPECT_EQ(plain->read(nullptr, 0), 0u);
    EXPECT_EQ(pieces->skip(299), 299u);
    EXPECT_TRUE(zotest::read_all(*pieces, 13) == data.substr(299));
    EXPECT_EQ(pieces->bytes_remaining(), kUnknownSize);
  }
}

TEST(MemoryReaderTest, StringStreamReadsTheValidatedPayload) {
  std::string const text = zotest::golden_text(5000);
  MemoryReader reader = reader_of(chunked_string(text, 4096) + zotest::bytes("53 61 62 63"));
  auto const first = reader.read_string_stream();
  auto const second = reader.read_string_stream();
  EXPECT_TRUE(reader.is_eof());
  EXPECT_EQ(zotest::read_all(*second), "abc");
  EXPECT_TRUE(zotest::read_all(*first, 1000) == text);
}

TEST(MemoryReaderTest, ClosedPayloadStreamDeliversNothing) {
  MemoryReader reader = reader_of_hex("93 01 02 03 9B 01 AA 9F");
  auto const plain = reader.read_binary();
  auto const chunked = reader.read_binary();
  plain->close();
  chunked->close();
  char c;
  EXPECT_EQ(plain->read(&c, 1), 0u);
  EXPECT_EQ(chunked->read(&c, 1), 0u);
  EXPECT_EQ(plain->bytes_remaining(), 0u);
}

// The chunks of `list` that `result` refers to, in order of `result`'s segments.
std::vector<void const*> chunks_of(zoserialize::MemoryListBaseType const& list) {
  std::vector<void const*> out;
  for (auto const& segment : list)
    out.push_back(segment.chunk().get());
  return out;
}

TEST(MemoryReaderTest, ReadBinaryAsMemoryListSharesTheChunks) {
  std::string const payload = zotest::pattern_string(7, 5000);
  std::string const plain = zotest::bytes("99 13 88") + payload;
  MemoryListPtr const list = list_in_pieces(plain + zotest::bytes("00"), {1003, 2000, 3000});
  std::vector<void const*> const source = chunks_of(*list);
  MemoryReader reader{ConstMemoryListPtr(list)};
  MemoryListPtr const result = reader.read_binary_as_memory_list();
  EXPECT_TRUE(bytes_of(*result) == payload);
  // Segments: the rest of the first piece, the second, the front of the third.
  EXPECT_EQ(chunks_of(*result), (std::vector<void const*>{source[0], source[1], source[2]}));
  EXPECT_EQ(result->begin()->size(), 1000u);
  reader.read_null();
  EXPECT_TRUE(reader.is_eof());
}

TEST(MemoryReaderTest, ChunkedPayloadAsMemoryListSharesTheChunksWithoutHeaders) {
  std::string const payload = zotest::pattern_string(0, 700);
  std::string const data = zotest::bytes("9C 01 2C") + payload.substr(0, 300) +
                           zotest::bytes("9D 00 9D 64") + payload.substr(300, 100) +
                           zotest::bytes("9E 01 2C") + payload.substr(400) + zotest::bytes("9F 11");
  MemoryListPtr const list = list_in_pieces(data, {data.size()});
  MemoryReader reader{ConstMemoryListPtr(list)};
  MemoryListPtr const result = reader.read_binary_as_memory_list();
  EXPECT_TRUE(bytes_of(*result) == payload);
  for (void const* chunk : chunks_of(*result))
    EXPECT_EQ(chunk, list->begin()->chunk().get());
  EXPECT_TRUE(reader.read_bool());
}

TEST(MemoryReaderTest, AppendKeepsWhatTheListHeld) {
  MemoryReader reader = reader_of_hex("92 AA BB 9B 01 CC 9D 01 DD 9F");
  MemoryListPtr const target = list_of("xy");
  reader.read_binary_append_memory_list(target);
  reader.read_binary_append_memory_list(target);
  EXPECT_EQ(zotest::hex(bytes_of(*target)), "78 79 AA BB CC DD");
  EXPECT_TRUE(reader.is_eof());
}

TEST(MemoryReaderTest, AppendIntoTheListBeingReadIsRefused) {
  // Growing the list being read could move the segment array under the cursors of the reader,
  // its copies and its payload streams.
  std::string const data = zotest::bytes("92 AA BB 11");
  MemoryListPtr const list = list_of(data);
  MemoryReader reader{ConstMemoryListPtr(list)};
  auto const info = ZO_EXPECT_ERROR(
      reader.read_binary_append_memory_list(list), error::zoserialize_reader,
      "Cannot append a payload to the memory list that is being read");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->nested_errno(), 22);
  EXPECT_EQ(reader.position(), 0u);
  EXPECT_EQ(zotest::hex(bytes_of(*list)), zotest::hex(data));
}

// ---- Copies -------------------------------------------------------------------------------------

TEST(MemoryReaderTest, CopiesKeepOrDropTheOpenScopes) {
  std::string const data = zotest::bytes("B0 A2 21 AE 22 AF BF 00");
  MemoryReader reader = reader_of(data);
  reader.read_marker_start();
  EXPECT_EQ(reader.read_sequence_start(), 2u);
  EXPECT_TRUE(reader.read_sequence_next());

  for (MemoryReader copy : {MemoryReader(reader), reader.clone(true)}) {
    EXPECT_EQ(copy.position(), 2u);
    EXPECT_EQ(copy.read_int32(), 1);
    EXPECT_TRUE(copy.read_sequence_next());
    EXPECT_EQ(copy.read_int32(), -1);
    EXPECT_FALSE(copy.read_sequence_next());
    copy.read_marker_end();
    copy.read_null();
    EXPECT_TRUE(copy.is_eof());
  }

  MemoryReader bare = reader.clone(false);
  EXPECT_EQ(bare.position(), 2u);
  EXPECT_EQ(bare.read_int32(), 1);
  ZO_EXPECT_ERROR(bare.read_sequence_next(), error::zoserialize_reader_sequence_nesting,
                  "Attempt to advance to next element in sequence but no sequence is open");
  ZO_EXPECT_ERROR(bare.read_marker_is_end(), error::zoserialize_reader_marker_mismatch, kNoMarkers);
  // A reader without scopes may be assigned to; the original is untouched by its copies.
  bare = reader;
  EXPECT_EQ(bare.position(), 2u);
  EXPECT_EQ(reader.read_int32(), 1);
  EXPECT_EQ(reader.position(), 3u);
}

TEST(MemoryReaderTest, AssignmentCopiesListPositionAndRange) {
  MemoryReader outer = reader_of_hex("B0 21 22 BF 20");
  MemoryReader contents = outer.read_memory_reader();
  contents.read_int32();
  MemoryReader target = reader_of_hex("11 11 11 11 11 11");
  target.read_bool();
  target = contents;
  EXPECT_EQ(target.position(), 1u);
  EXPECT_EQ(target.size(), 2u);
  EXPECT_EQ(target.memory_list().get(), outer.memory_list().get());
  EXPECT_EQ(target.read_int32(), -1);
  EXPECT_TRUE(target.is_eof());
  EXPECT_EQ(contents.position(), 1u);

  MemoryReader assigned = reader_of_hex("00");
  assigned = target;
  EXPECT_TRUE(assigned.is_eof());
  EXPECT_EQ(assigned.size(), 2u);
}

TEST(MemoryReaderTest, MoveAndSwapExchangeEverything) {
  MemoryReader a = reader_of_hex("B0 21 BF");
  a.read_marker_start();
  MemoryReader b = reader_of_hex("22 20 00");
  b.read_int32();
  a.swap(b);
  EXPECT_EQ(a.position(), 1u);
  EXPECT_EQ(a.read_int32(), 0);
  EXPECT_EQ(b.position(), 1u);
  EXPECT_EQ(b.read_int32(), 1);
  b.read_marker_end();
  EXPECT_TRUE(b.is_eof());

  MemoryReader moved(std::move(a));
  EXPECT_EQ(moved.position(), 2u);
  moved.read_null();
  EXPECT_TRUE(moved.is_eof());
}

// ---- Trace --------------------------------------------------------------------------------------

std::string trace_of(MemoryReader const& reader) {
  std::ostringstream os;
  os << MemoryReader::Trace{reader};
  return os.str();
}

TEST(MemoryReaderTest, TracePrintsTheStateAndUpTo16NextBytes) {
  MemoryReader reader = reader_of_hex("B0 A1 05 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50");
  EXPECT_EQ(trace_of(reader),
            "MemoryReader: position=0, size=19, openMarkers=0, openSequences=false, "
            "currentTag=0x00\n"
            "  00000000  b0 a1 05 41 42 43 44 45  46 47 48 49 4a 4b 4c 4d  |...ABCDEFGHIJKLM|");
}

TEST(MemoryReaderTest, TraceOfAReaderInsideScopes) {
  MemoryReader reader = reader_of_hex("B0 A1 55 61 62 63 64 65 AF BF");
  reader.read_marker_start();
  reader.read_sequence_start();
  EXPECT_TRUE(reader.read_sequence_next());
  std::ostringstream os;
  os << std::hex << 255 << ' ' << MemoryReader::Trace{reader} << ' ' << 255;
  EXPECT_EQ(os.str(),
            "ff MemoryReader: position=2, size=10, openMarkers=1, openSequences=true, "
            "currentTag=0xa1\n"
            "  00000002  55 61 62 63 64 65 af bf" +
                std::string(27, ' ') + "|Uabcde..| ff");
  EXPECT_EQ(reader.read_string(), "abcde");
  EXPECT_FALSE(reader.read_sequence_next());
  reader.read_marker_end();
  EXPECT_EQ(trace_of(reader),
            "MemoryReader: position=10, size=10, openMarkers=0, openSequences=false, "
            "currentTag=0xbf");
}

// ---- Threads ------------------------------------------------------------------------------------

// Readers on several threads read one list at the same time, and hand their payload streams to
// threads that finish reading and release them.
TEST(MemoryReaderThreadsTest, ReadersShareOneListAcrossThreads) {
  std::string const payload = zotest::pattern_string(3, 3000);
  MemoryWriter writer;
  for (int i = 0; i < 200; ++i) {
    writer.write_sequence_start(2);
    writer << i;
    writer.write_sequence_separator();
    writer.write_binary(payload.data(), static_cast<unsigned>(payload.size()));
    writer.write_sequence_end();
  }
  ConstMemoryListPtr const list = writer.close_and_detach_memory_list();
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&list, &payload] {
      MemoryReader reader(list);
      std::vector<InterfacePtr<IReadStream>> streams;
      for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(reader.read_sequence_start(), 2u);
        EXPECT_TRUE(reader.read_sequence_next());
        EXPECT_EQ(reader.read_int32(), i);
        EXPECT_TRUE(reader.read_sequence_next());
        streams.push_back(reader.read_binary());
        EXPECT_FALSE(reader.read_sequence_next());
      }
      std::thread finisher([held = std::move(streams), &payload]() mutable {
        for (auto& stream : held)
          EXPECT_TRUE(zotest::read_all(*stream, 512) == payload);
        held.clear();
      });
      finisher.join();
    });
  }
  for (std::thread& t : threads)
    t.join();
  EXPECT_TRUE(list->is_unique());
}

}  // namespace
