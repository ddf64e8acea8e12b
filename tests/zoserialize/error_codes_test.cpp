#include <zocore/error_code.h>

#include <gtest/gtest.h>

TEST(ErrorCodeTest, Placeholder) { EXPECT_TRUE(true); }
