#include <gtest/gtest.h>

#include <zocore/simple_date_time.h>

namespace {

TEST(SimpleDateTimeTest, SetReplacesBothParts) {
  zocore::SimpleDateTime date;
  EXPECT_EQ(date, zocore::SimpleDateTime(zocore::AbsoluteTime(0), 0));
  date.set(zocore::AbsoluteTime(86'400'000'000'000), -330);
  EXPECT_EQ(::testing::PrintToString(date), "1970-01-02 00:00:00 UTC-330min");
  date.set(zocore::AbsoluteTime(0), 60);
  EXPECT_EQ(::testing::PrintToString(date), "1970-01-01 00:00:00 UTC+60min");
}

}  // namespace
