#include <cstring>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/core_errors.h>
#include <zocore/error_exception.h>
#include <zocore/error_info.h>

namespace {

using zocore::ErrorCode;
using zocore::ErrorInfo;
using zocore::ErrorParams;
using zocore::SourceLocation;
using zocore::SourceString;

constexpr char kFile[] = "$Id: tests/zocore/error_info_test.cpp $";
constinit ErrorCode const kCode("error.test.info", true);  // NOLINT(cert-err58-cpp)

struct RenderCase {
  char const* label;
  char const* message;
  char const* expected;
};

TEST(ErrorInfoTest, RenderSubstitutesKnownPlaceholders) {
  ErrorParams params;
  params.set("a", "1").set("b", "22").set("value", "3.5e+38").set("nested", "{@a}");
  RenderCase const cases[] = {
      {"no placeholder", "plain text", "plain text"},
      {"empty", "", ""},
      {"present", "Value={@value}.", "Value=3.5e+38."},
      {"at both ends", "{@a} and {@b}", "1 and 22"},
      {"repeated", "{@a}{@a}-{@a}", "11-1"},
      {"adjacent", "{@a}{@b}", "122"},
      {"missing stays", "Given={@missing}bits", "Given={@missing}bits"},
      {"missing next to present", "{@missing}{@a}", "{@missing}1"},
      {"unterminated", "Open {@a", "Open {@a"},
      {"unterminated at end", "Open {@", "Open {@"},
      {"unterminated before a placeholder", "x {@ y {@b}", "x {@ y 22"},
      {"empty name", "{@}", "{@}"},
      {"brace without at", "{a} @{a} {@a}", "{a} @{a} 1"},
      {"doubled braces", "{{@a}}", "{1}"},
      {"value not expanded again", "{@nested}", "{@a}"},
      {"two-space style", "Range=({@a}, {@b})", "Range=(1, 22)"},
  };
  for (RenderCase const& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(ErrorInfo::render(c.message, params), c.expected);
  }
}

TEST(ErrorInfoTest, CreateKeepsEveryFieldAndRendersOnce) {
  static char const kMessage[] = "Expected {@expected} bytes, got {@actual}";
  ErrorParams params;
  params.set("expected", 4).set("actual", 2u);
  auto const nested = ErrorInfo::create(ErrorCode("error.test.cause", true),
                                        SourceString("cause", true), {}, SourceLocation());
  auto const info = ErrorInfo::create(kCode, SourceString(kMessage, true), params,
                                      SourceLocation("ns::Class::f()", kFile, 42), nested,
                                      SourceString("context text", true));
  EXPECT_EQ(info->code(), kCode);
  EXPECT_EQ(info->message().data(), kMessage);
  EXPECT_EQ(info->params(), params);
  EXPECT_EQ(info->location().function().view(), "ns::Class::f()");
  EXPECT_EQ(info->location().file().view(), kFile);
  EXPECT_EQ(info->location().line(), 42u);
  EXPECT_EQ(info->nested().get(), nested.get());
  EXPECT_EQ(info->context().view(), "context text");
  EXPECT_EQ(info->rendered(), "Expected 4 bytes, got 2");
  EXPECT_EQ(info->nested_errno(), 0);
  EXPECT_EQ(info->ref_count(), 1u);
  EXPECT_EQ(nested->ref_count(), 2u);
}

TEST(ErrorInfoTest, FromExceptionReturnsTheRecordOfAnErrorException) {
  auto const info =
      ErrorInfo::create(kCode, SourceString("original", true), {}, SourceLocation("f()", kFile, 1));
  zocore::ErrorException const e(info);
  auto const from = ErrorInfo::from_exception(e, SourceLocation("g()", kFile, 2));
  EXPECT_EQ(from.get(), info.get());
  EXPECT_EQ(from->location().function().view(), "f()");
}

TEST(ErrorInfoTest, FromExceptionWrapsAForeignException) {
  auto const info = [] {
    std::string what = "foreign {@x} failure";
    std::runtime_error const e(what);
    what.clear();
    return ErrorInfo::from_exception(e, SourceLocation("ns::caller()", kFile, 7));
  }();
  EXPECT_EQ(info->code(), zocore::error::zocore_exception);
  EXPECT_EQ(info->message().view(), "foreign {@x} failure");
  EXPECT_FALSE(info->message().is_static());
  EXPECT_EQ(info->rendered(), "foreign {@x} failure");
  EXPECT_TRUE(info->params().empty());
  EXPECT_EQ(info->location().function().view(), "ns::caller()");
  EXPECT_EQ(info->location().line(), 7u);
  EXPECT_FALSE(info->nested());
}

TEST(ErrorInfoTest, FromExceptionOfAnEmptyErrorExceptionUsesItsText) {
  zocore::ErrorException const e(nullptr);
  auto const info = ErrorInfo::from_exception(e, SourceLocation("f()", kFile, 3));
  ASSERT_TRUE(info);
  EXPECT_EQ(info->code(), zocore::error::zocore_exception);
  EXPECT_EQ(info->rendered(), "zocore::ErrorException");
}

class ErrnoRecordTest : public ::testing::TestWithParam<int> {};

TEST_P(ErrnoRecordTest, FromErrnoDescribesTheValue) {
  int const err = GetParam();
  auto const info = ErrorInfo::from_errno(err, SourceLocation("ns::f()", kFile, 9));
  EXPECT_EQ(info->code(), zocore::error::zocore_errno);
  EXPECT_EQ(info->message().view(), "System error {@errno}: {@description}");
  EXPECT_EQ(zotest::param(info, "errno"), std::to_string(err));
  EXPECT_EQ(zotest::param(info, "description"), std::strerror(err));
  EXPECT_EQ(info->rendered(), "System error " + std::to_string(err) + ": " + std::strerror(err));
  EXPECT_EQ(info->nested_errno(), err);
  EXPECT_EQ(info->location().function().view(), "ns::f()");
}

INSTANTIATE_TEST_SUITE_P(InvalidArgumentAndRange, ErrnoRecordTest, ::testing::Values(22, 34));

TEST(ErrorInfoTest, NestedErrnoIsFoundDownTheChain) {
  auto const errno_record = ErrorInfo::from_errno(34, SourceLocation());
  auto const middle =
      ErrorInfo::create(kCode, SourceString("middle", true), {}, SourceLocation(), errno_record);
  auto const outer =
      ErrorInfo::create(kCode, SourceString("outer", true), {}, SourceLocation(), middle);
  EXPECT_EQ(outer->nested_errno(), 34);
  EXPECT_EQ(middle->nested_errno(), 34);

  // A record that merely carries a parameter named "errno" is not an errno record.
  ErrorParams params;
  params.set("errno", 5);
  auto const lookalike =
      ErrorInfo::create(kCode, SourceString("x", true), params, SourceLocation());
  EXPECT_EQ(lookalike->nested_errno(), 0);
}

}  // namespace
