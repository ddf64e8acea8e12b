#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/core_errors.h>
#include <zocore/throw_error.h>

namespace {

using zocore::ErrorCode;
using zocore::ErrorInfo;
using zocore::ErrorParams;
using zocore::SourceLocation;
using zocore::SourceString;

constexpr char kFile[] = "$Id: tests/zocore/throw_error_test.cpp $";
constinit ErrorCode const kCode("error.test.throw", true);  // NOLINT(cert-err58-cpp)

void expect_location(zotest::ErrorPtr const& info, char const* function, unsigned line) {
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(), function);
  EXPECT_EQ(info->location().file().view(), kFile);
  EXPECT_EQ(info->location().line(), line);
}

TEST(ThrowErrorTest, PlainFormCarriesCodeMessageAndLocation) {
  static char const kMessage[] = "Plain failure";
  auto const info = ZO_EXPECT_ERROR(
      zocore::throw_error(kCode, kMessage, SourceLocation("ns::plain()", kFile, 10)), kCode,
      "Plain failure");
  expect_location(info, "ns::plain()", 10);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->message().data(), kMessage);  // kept, not copied
  EXPECT_TRUE(info->params().empty());
  EXPECT_FALSE(info->nested());
  EXPECT_EQ(info->nested_errno(), 0);
}

TEST(ThrowErrorTest, ParameterFormRendersTheMessage) {
  ErrorParams params;
  params.set("maxBits", 512).set("actualBits", 520);
  auto const info =
      ZO_EXPECT_ERROR(zocore::throw_error(kCode, "Max={@maxBits}bits, Given={@actualBits}bits",
                                          params, SourceLocation("ns::params()", kFile, 20)),
                      kCode, "Max={@maxBits}bits, Given={@actualBits}bits");
  expect_location(info, "ns::params()", 20);
  EXPECT_EQ(zotest::param(info, "maxBits"), "512");
  EXPECT_EQ(zotest::param(info, "actualBits"), "520");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->rendered(), "Max=512bits, Given=520bits");
}

TEST(ThrowErrorTest, NestedFormKeepsTheCause) {
  auto const cause = ErrorInfo::create(ErrorCode("error.test.cause", true),
                                       SourceString("cause", true), {}, SourceLocation());
  ErrorParams params;
  params.set("name", "x");
  auto const info =
      ZO_EXPECT_ERROR(zocore::throw_error(kCode, "Outer {@name}", params,
                                          SourceLocation("ns::nested()", kFile, 30), cause),
                      kCode, "Outer {@name}");
  expect_location(info, "ns::nested()", 30);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->nested().get(), cause.get());
  EXPECT_EQ(info->rendered(), "Outer x");
}

class ThrowErrnoTest : public ::testing::TestWithParam<int> {};

TEST_P(ThrowErrnoTest, NestedErrnoFormNestsAnErrnoRecord) {
  int const err = GetParam();
  auto const info = ZO_EXPECT_ERROR(
      zocore::throw_with_nested_errno(kCode, "Value out of range",
                                      SourceLocation("ns::with_errno()", kFile, 40), err),
      kCode, "Value out of range");
  expect_location(info, "ns::with_errno()", 40);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->nested_errno(), err);
  ASSERT_TRUE(info->nested());
  EXPECT_EQ(info->nested()->code(), zocore::error::zocore_errno);
  EXPECT_EQ(info->nested()->location().function().view(), "ns::with_errno()");
  EXPECT_EQ(info->rendered(), "Value out of range");
}

TEST_P(ThrowErrnoTest, BareErrnoFormThrowsTheErrnoRecordItself) {
  int const err = GetParam();
  auto const info =
      ZO_EXPECT_ERROR(zocore::throw_errno(SourceLocation("ns::bare()", kFile, 50), err),
                      zocore::error::zocore_errno, "System error {@errno}: {@description}");
  expect_location(info, "ns::bare()", 50);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->nested_errno(), err);
  EXPECT_EQ(zotest::param(info, "errno"), std::to_string(err));
  EXPECT_EQ(zotest::param(info, "description"), std::strerror(err));
  EXPECT_FALSE(info->nested());
}

INSTANTIATE_TEST_SUITE_P(InvalidArgumentAndRange, ThrowErrnoTest, ::testing::Values(22, 34));

}  // namespace
