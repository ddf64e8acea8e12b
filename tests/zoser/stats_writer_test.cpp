#include "stats_writer.h"

#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/test_streams.h>
#include <zocore/memory_stream.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/text_reader.h>

namespace zoser {
namespace {

TEST(StatsWriterTest, CountsKindsDepthAndSizes) {
  // Read from text so that the counts come through a reader's read_copy_all, as in the tool.
  std::string const text =
      "ZYN+5I7fffffffffU7R3ff\"abc\"ST20180305P1.5K[aGk][]{(2{(1+1)},{})}(3Z,Z,Z)";
  zoserialize::TextReader reader(&text);
  StatsWriter w;
  reader.read_copy_all(w);
  w.close();
  Stats const& s = w.stats();
  Stats::EKind const kinds[] = {
      Stats::kNull,   Stats::kBoolean, Stats::kSignedInteger, Stats::kUnsignedInteger,
      Stats::kDouble, Stats::kString,  Stats::kAbsoluteTime,  Stats::kRelativeTime,
      Stats::kUuid,   Stats::kBinary,  Stats::kSequence,      Stats::kMarker};
  std::uint64_t const counts[] = {4, 2, 3, 1, 1, 2, 1, 1, 1, 2, 3, 3};
  for (std::size_t k = 0; k < std::size(kinds); ++k)
    EXPECT_EQ(s.counts[kinds[k]], counts[k]) << Stats::kind_name(kinds[k]);
  EXPECT_EQ(s.elements, 24u);
  EXPECT_EQ(s.max_depth, 4u);  // marker > sequence > marker > sequence
  EXPECT_EQ(s.largest_string, 3u);
  EXPECT_EQ(s.string_bytes, 3u);
  EXPECT_EQ(s.largest_binary, 2u);
  EXPECT_EQ(s.binary_bytes, 2u);
  EXPECT_EQ(Stats::kind_name(Stats::kUnsignedInteger), "unsigned integer");
}

TEST(StatsWriterTest, ValueStreamsAndSourcesAreMeasured) {
  StatsWriter w;
  auto s = w.write_string_stream();
  s->write("abcd", 4);
  s->write("ef", 2);
  auto b = w.write_binary();  // ends the string
  b->write("x", 1);
  w.flush();  // ends the binary
  ZO_EXPECT_ERROR(b->write("y", 1), zoserialize::error::zoserialize_writer_state,
                  "Binary stream writer object has already been closed");
  std::string const big_bytes = zotest::pattern_string(0, 200'000);
  zocore::MemoryReadStream big(big_bytes);
  w.write_binary(big);
  std::string const text_bytes(70'000, 'a');
  zocore::MemoryReadStream text(text_bytes);
  w.write_string_stream(text);
  w.write_binary("12345678", 8);
  w.close();
  Stats const& st = w.stats();
  EXPECT_EQ(st.counts[Stats::kString], 2u);
  EXPECT_EQ(st.counts[Stats::kBinary], 3u);
  EXPECT_EQ(st.largest_string, 70'000u);
  EXPECT_EQ(st.largest_binary, 200'000u);
  EXPECT_EQ(st.string_bytes, 70'006u);
  EXPECT_EQ(st.binary_bytes, 200'009u);
}

}  // namespace
}  // namespace zoser
