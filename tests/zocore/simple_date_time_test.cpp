#include <gtest/gtest.h>

#include <zocore/simple_date_time.h>

namespace {

using zocore::AbsoluteTime;
using zocore::SimpleDateTime;

TEST(SimpleDateTimeTest, SetReplacesBothParts) {
  SimpleDateTime date;
  EXPECT_EQ(date, SimpleDateTime(AbsoluteTime(0), 0));
  date.set(AbsoluteTime(86'400'000'000'000), -330);
  EXPECT_EQ(date.time().count(), 86'400'000'000'000);
  EXPECT_EQ(date.offset_minutes(), -330);
  EXPECT_EQ(::testing::PrintToString(date), "1970-01-02 00:00:00 UTC-330min");
  EXPECT_EQ(::testing::PrintToString(SimpleDateTime(AbsoluteTime(0), 60)),
            "1970-01-01 00:00:00 UTC+60min");
}

}  // namespace
