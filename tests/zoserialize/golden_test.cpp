// The golden suite: every golden row (support/golden.h) against every format of zotest::formats()
// that has a column, through each of its writers and readers and with both static types.
#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <support/formats.h>
#include <support/golden.h>
#include <support/hex_bytes.h>
#include <support/random_document.h>
#include <zocore/core_errors.h>
#include <zoserialize/error_codes.h>

namespace {

using zoserialize::Reader;
using zoserialize::Writer;
using zotest::EPath;
using zotest::Format;
using zotest::GoldenRendering;
using zotest::GoldenRow;

// Renderings longer than this (the sequences of 65535 and 65536 elements, at the count hint's
// widest form) are checked once per format, through the interface: the concrete types' inline
// paths take only hints below 8, which the short rows cover. Their cuts stay near both ends, and
// a reader with a seam (whose read-ahead block is the seam position) reads them whole only at the
// first few positions, which already put a seam at every byte of the count hint.
constexpr std::size_t kHuge = 100000;

struct GoldenCase {
  Format const* format;
  EPath path;
  GoldenRow const* row;
  GoldenRendering const* rendering;
  bool written;
};

void PrintTo(GoldenCase const& c, std::ostream* os) {
  *os << c.format->name << " " << c.row->name;
}

std::vector<GoldenCase> golden_cases() {
  std::vector<GoldenCase> out;
  for (Format const& f : zotest::formats()) {
    if (f.column == nullptr) continue;
    for (EPath path : {EPath::kInterface, EPath::kConcrete}) {
      if (path == EPath::kConcrete && !f.own_front_end) continue;
      for (GoldenRow const& row : zotest::golden_rows()) {
        auto const* rendering = f.column->find(row.name);
        if (rendering != nullptr && (path == EPath::kInterface || rendering->bytes.size() <= kHuge))
          out.push_back({&f, path, &row, rendering, true});
      }
      for (GoldenRow const& row : f.column->read_only())
        out.push_back({&f, path, &row, f.column->find(row.name), false});
    }
  }
  return out;
}

// Every position of short renderings; for long ones both ends, the first chunk boundary of
// streamed values and a spread over the first 70000 bytes (every chunk boundary of the payload
// rows); for huge ones the first 128 positions (past the XML root tag and the count hint) and the
// last two.
std::vector<std::size_t> cuts_of(std::size_t size) {
  std::vector<std::size_t> cuts;
  for (std::size_t i = 0; i < size; ++i) {
    if (size > kHuge ? i < 128 || i + 2 >= size
                     : size <= 600 || i < 40 || i + 40 >= size || (i >= 4090 && i < 4100) ||
                           (i < 70000 && (i - 40) % 4099 == 0))
      cuts.push_back(i);
  }
  return cuts;
}

// Runs `fn`; returns what it raised unless that is an archive's, the XML parser's (whose failures
// pass through the XML reader) or the UTF-8 checker's failure.
std::string foreign_failure(std::function<void()> const& fn) {
  static zocore::ErrorCode const xml_parser("error.zoxml", true);
  try {
    fn();
  } catch (zocore::ErrorException const& e) {
    auto const& code = e.info()->code();
    if (!code.is_a(zoserialize::error::zoserialize) && !code.is_a(xml_parser) &&
        code != zocore::error::zocore_utf8)
      return e.what();
  }
  return "";
}

// The row read over a proper prefix of its rendering must fail with an archive error or notice
// a value it did not expect (its assertions are intercepted), never read back as complete.
void expect_incomplete(GoldenCase const& c, std::shared_ptr<Reader> const& reader) {
  bool failed = true;
  std::string foreign;
  {
    ::testing::TestPartResultArray noticed;
    ::testing::ScopedFakeTestPartResultReporter intercept(
        ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &noticed);
    foreign = foreign_failure([&] {
      c.format->read_script(*reader, c.row->script, c.path);
      failed = noticed.size() != 0 || !reader->is_eof();
    });
  }
  EXPECT_TRUE(failed) << "a proper prefix read back as complete";
  EXPECT_EQ(foreign, "");
}

std::size_t skip_all(Reader& reader) {
  std::size_t skipped = 0;
  for (; !reader.is_eof(); ++skipped)
    reader.skip_element();
  return skipped;
}

class GoldenTest : public ::testing::TestWithParam<GoldenCase> {};

TEST_P(GoldenTest, WritesReadsSkipsCopiesAndFailsWhenCut) {
  GoldenCase const& c = GetParam();
  Format const& f = *c.format;
  std::string const& bytes = c.rendering->bytes;
  if (c.written) {
    for (auto const& [name, write] : f.writers) {
      std::string const got = write([&](Writer& w) { f.write_script(w, c.row->script, c.path); });
      EXPECT_TRUE(got == bytes) << name << ": " << zotest::hex(got.substr(0, 64));
    }
  }
  for (auto const& [name, read] : f.readers) {
    SCOPED_TRACE(name);
    auto const reader = read(bytes);
    f.read_script(*reader, c.row->script, c.path);
    EXPECT_TRUE(reader->is_eof());
    if (c.path == EPath::kInterface && (bytes.size() <= kHuge || name == "Default")) {
      EXPECT_EQ(skip_all(*read(bytes)), c.row->elements);
    }
  }
  if (c.path == EPath::kConcrete) {
    // Followed by 16 trues, so that the whole row lies in the readers' input windows: the
    // inline decoders of a concrete type decode in place only what they see whole.
    zotest::Script padded = c.row->script;
    padded.insert(padded.end(), 16, zotest::parse_script("T")[0]);
    std::string more = bytes;
    if (c.written) {
      more = f.write([&](Writer& w) { f.write_script(w, padded, c.path); });
    } else {
      for (int i = 0; i < 16; ++i)
        more += f.column->find("Bool_True")->bytes;
    }
    for (auto const& [name, read] : f.readers) {
      auto const reader = read(more);
      f.read_script(*reader, padded, c.path);
      EXPECT_TRUE(reader->is_eof()) << name;
    }
  }
  for (std::size_t cut : cuts_of(bytes.size())) {
    SCOPED_TRACE(::testing::Message() << "cut at " << cut);
    if (bytes.size() <= kHuge || cut < 8 || cut + 1 == bytes.size()) {
      auto const seamed = f.read_with_seam(bytes, cut);
      f.read_script(*seamed, c.row->script, c.path);
      EXPECT_TRUE(seamed->is_eof());
    }
    std::string const prefix = bytes.substr(0, cut);
    expect_incomplete(c, f.read(prefix));
    if (c.path == EPath::kConcrete) continue;
    expect_incomplete(c, f.read_with_seam(prefix, cut / 2));
    EXPECT_EQ(foreign_failure([&] {
                std::size_t const skipped = skip_all(*f.read(prefix));
                EXPECT_TRUE(skipped < c.row->elements || !f.prefix_is_incomplete);
              }),
              "");
    EXPECT_EQ(
        foreign_failure([&] { f.write([&](Writer& w) { f.read(prefix)->read_copy_all(w); }); }),
        "");
  }
  if (c.path == EPath::kConcrete) return;
  if (!c.row->valid_text) {
    // Comparing streams the strings, which checks them.
    EXPECT_THROW(Reader::read_compare_equal_all(*f.read(bytes), *f.read(bytes)),
                 zocore::ErrorException);
    return;
  }
  std::string const copy = f.write([&](Writer& w) { f.read(bytes)->read_copy_all(w); });
  EXPECT_TRUE(c.rendering->copy != zotest::ECopy::kIdentical || copy == bytes)
      << zotest::hex(copy.substr(0, 64));
  EXPECT_EQ(Reader::read_compare_equal_all(*f.read(bytes), *f.read(copy)), c.row->self_equal);
}

INSTANTIATE_TEST_SUITE_P(Rows, GoldenTest, ::testing::ValuesIn(golden_cases()),
                         [](::testing::TestParamInfo<GoldenCase> const& p) {
                           return p.param.format->name +
                                  (p.param.path == EPath::kConcrete ? "_Concrete_" : "_") +
                                  p.param.row->name;
                         });

// Random documents nesting the golden rows: written by one of the writers of every format and read
// back by one of its readers (each seed takes the next: the rows above run every row through every
// writer and reader), skipped and copied (to the very same bytes), and equal to the document in
// every other format (formats that share a column write the same bytes).
TEST(GoldenTest, RandomDocumentsRoundTripInEveryFormat) {
  for (std::uint64_t seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::vector<std::string> renderings;
    for (Format const& f : zotest::formats()) {
      std::size_t top = 0;
      std::string const bytes = f.writers[seed % f.writers.size()].second([&](Writer& w) {
        top = zotest::RandomDocument(seed).write(w, [] { return std::size_t{0}; }).size();
      });
      zotest::RandomDocument(seed).read(*f.readers[seed % f.readers.size()].second(bytes));
      EXPECT_EQ(skip_all(*f.read(bytes)), top);
      std::string const copy = f.write([&](Writer& w) { f.read(bytes)->read_copy_all(w); });
      EXPECT_TRUE(copy == bytes) << f.name << ": the copy differs";
      for (std::size_t i = 0; i < renderings.size(); ++i) {
        Format const& other = zotest::formats()[i];
        EXPECT_TRUE(Reader::read_compare_equal_all(*other.read(renderings[i]), *f.read(bytes)));
        EXPECT_TRUE(other.column != f.column || renderings[i] == bytes) << other.name << f.name;
      }
      renderings.push_back(bytes);
    }
  }
}

// A column names every row, and only rows that exist (or its own read-only ones).
TEST(GoldenColumnTest, EveryColumnCoversExactlyTheRows) {
  for (Format const& f : zotest::formats()) {
    if (f.column == nullptr) continue;
    for (GoldenRow const& row : zotest::golden_rows())
      EXPECT_TRUE(f.column->knows(row.name)) << f.name << " lacks " << row.name;
    std::vector<std::string> known;
    for (GoldenRow const& row : f.column->read_only())
      known.push_back(row.name);
    for (std::string const& name : f.column->names()) {
      EXPECT_TRUE(zotest::find_golden_row(name) != nullptr ||
                  std::find(known.begin(), known.end(), name) != known.end())
          << f.name << " names an unknown row " << name;
    }
  }
}

}  // namespace
