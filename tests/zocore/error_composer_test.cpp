#include <cstdint>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/core_errors.h>
#include <zocore/error_composer.h>

namespace {

using zocore::ErrorCode;
using zocore::ErrorComposer;
using zocore::ErrorInfo;
using zocore::SourceLocation;
using zocore::SourceString;

constexpr char kFile[] = "$Id: tests/zocore/error_composer_test.cpp $";
constinit ErrorCode const kCode("error.test.composer", true);  // NOLINT(cert-err58-cpp)
constexpr char kMessage[] =
    "Read {@count} of {@size} bytes from '{@name}'.  Ratio={@ratio}, Path={@path}, Id={@id}";

ErrorComposer& fill(ErrorComposer& composer) {
  std::string const path = "/tmp/x";
  unsigned const size = 4096;
  return composer.add("count", 12)
      .add("size", size)
      .add("name", "archive")
      .add("ratio", 0.25)
      .add("path", path)
      .add("id", std::uint64_t{1} << 40);
}

TEST(ErrorComposerTest, AddCollectsParametersOfEveryKind) {
  ErrorComposer composer(kMessage);
  EXPECT_EQ(&fill(composer), &composer);
  auto const& params = composer.params();
  EXPECT_EQ(params.size(), 6u);
  EXPECT_EQ(*params.find("count"), "12");
  EXPECT_EQ(*params.find("size"), "4096");
  EXPECT_EQ(*params.find("name"), "archive");
  EXPECT_EQ(*params.find("ratio"), "0.25");
  EXPECT_EQ(*params.find("path"), "/tmp/x");
  EXPECT_EQ(*params.find("id"), "1099511627776");
}

TEST(ErrorComposerTest, AddingANameTwiceKeepsTheLastValue) {
  ErrorComposer composer("{@v}");
  composer.add("v", 1).add("v", std::string_view("second"));
  EXPECT_EQ(composer.params().size(), 1u);
  EXPECT_EQ(*composer.params().find("v"), "second");
}

TEST(ErrorComposerTest, ThrowErrorBuildsTheRecord) {
  auto const info = ZO_EXPECT_ERROR(
      {
        ErrorComposer composer(kMessage);
        fill(composer).throw_error(kCode, SourceLocation("ns::C::read()", kFile, 11));
      },
      kCode, kMessage);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->message().data(), kMessage);
  EXPECT_EQ(info->rendered(),
            "Read 12 of 4096 bytes from 'archive'.  Ratio=0.25, Path=/tmp/x, Id=1099511627776");
  EXPECT_EQ(info->location().function().view(), "ns::C::read()");
  EXPECT_EQ(info->location().file().view(), kFile);
  EXPECT_EQ(info->location().line(), 11u);
  EXPECT_FALSE(info->nested());
}

TEST(ErrorComposerTest, ThrowErrorWithoutParametersLeavesPlaceholders) {
  auto const info = ZO_EXPECT_ERROR(
      ErrorComposer("Value={@value}").throw_error(kCode, SourceLocation("f()", kFile, 1)), kCode,
      "Value={@value}");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->rendered(), "Value={@value}");
}

TEST(ErrorComposerTest, ThrowErrorNestsACause) {
  auto const cause = ErrorInfo::create(ErrorCode("error.test.cause", true),
                                       SourceString("cause", true), {}, SourceLocation());
  auto const info = ZO_EXPECT_ERROR(ErrorComposer("Outer {@n}")
                                        .add("n", 3)
                                        .throw_error(kCode, SourceLocation("g()", kFile, 2), cause),
                                    kCode, "Outer {@n}");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->nested().get(), cause.get());
  EXPECT_EQ(info->rendered(), "Outer 3");
}

class ComposerErrnoTest : public ::testing::TestWithParam<int> {};

TEST_P(ComposerErrnoTest, ThrowWithNestedErrno) {
  int const err = GetParam();
  auto const info =
      ZO_EXPECT_ERROR(ErrorComposer("Bits={@bits}")
                          .add("bits", 513)
                          .throw_with_nested_errno(kCode, SourceLocation("ns::h()", kFile, 3), err),
                      kCode, "Bits={@bits}");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->nested_errno(), err);
  EXPECT_EQ(zotest::param(info, "bits"), "513");
  EXPECT_EQ(info->rendered(), "Bits=513");
  ASSERT_TRUE(info->nested());
  EXPECT_EQ(info->nested()->code(), zocore::error::zocore_errno);
  EXPECT_EQ(info->location().function().view(), "ns::h()");
}

INSTANTIATE_TEST_SUITE_P(InvalidArgumentAndRange, ComposerErrnoTest, ::testing::Values(22, 34));

}  // namespace
