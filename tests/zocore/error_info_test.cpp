#include <climits>
#include <exception>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include <zocore/core_errors.h>
#include <zocore/error_exception.h>
#include <zocore/error_info.h>

namespace {

using zocore::ErrorException;
using zocore::ErrorInfo;
using zocore::ErrorParams;
using zocore::SourceLocation;
using zocore::SourceString;

static_assert(std::is_base_of_v<std::exception, ErrorException>);
static_assert(std::is_nothrow_copy_constructible_v<ErrorException>);

constinit zocore::ErrorCode const kCode("error.test.info", true);  // NOLINT(cert-err58-cpp)

// Each value as a parameter renders it, joined with '|'.
template <class... T>
std::string rendered(T const&... values) {
  std::string out;
  ((out += *ErrorParams().set("v", values).find("v") + "|"), ...);
  return out;
}

TEST(ErrorParamsTest, NumbersBecomeDecimalTextAndTextStaysVerbatim) {
  using Limits = std::numeric_limits<double>;
  EXPECT_EQ(rendered(-5, INT_MIN, UINT_MAX, -7L, 7UL, LLONG_MIN, ULLONG_MAX),
            "-5|-2147483648|4294967295|-7|7|-9223372036854775808|18446744073709551615|");
  EXPECT_EQ(rendered(0.1, 100.0, -0.0, -3.4028234663852886e+38, 1e-7, 5e-324),
            "0.1|100|-0|-3.4028234663852886e+38|1e-07|5e-324|");
  EXPECT_EQ(rendered(Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN()),
            "inf|-inf|nan|");
  EXPECT_EQ(rendered("text", static_cast<char const*>(nullptr), std::string("a\0b", 3),
                     std::string_view("viewed").substr(0, 4)),
            std::string("text||a\0b|view|", 15));
}

TEST(ErrorParamsTest, OrderedByNameReplacedByNameFoundByAnyView) {
  ErrorParams params;
  params.set("value", 1).set("maxBits", 2).set("Zeta", 4).set("value", "v");
  std::string name = "actualBits";
  params.set(SourceString(std::string_view(name)), "3");
  name.assign(name.size(), 'x');  // run-time names are owned
  std::string entries;
  for (auto const& [key, value] : params)
    entries += key.str() + "=" + value + " ";
  EXPECT_EQ(entries, "Zeta=4 actualBits=3 maxBits=2 value=v ");
  EXPECT_EQ(params,
            ErrorParams().set("Zeta", 4).set("maxBits", 2).set("value", "v").set("actualBits", 3));
  EXPECT_NE(params, ErrorParams().set("Zeta", 4));
  EXPECT_EQ(params.find("valu"), nullptr);
  EXPECT_EQ(params.find("values"), nullptr);
  std::string const* found = params.find(std::string_view("maxBits-and-more").substr(0, 7));
  EXPECT_EQ(found ? *found : "<none>", "2");
}

TEST(ErrorInfoTest, RenderSubstitutesKnownPlaceholdersOnly) {
  ErrorParams params;
  params.set("a", "1").set("b", "22").set("value", "3.5e+38").set("nested", "{@a}");
  // Values are not expanded again; an unterminated "{@" is text.
  std::pair<char const*, char const*> const cases[] = {
      {"", ""},
      {"Value={@value}.", "Value=3.5e+38."},
      {"{@a}{@a}-{@b}{@missing}{@a}bits", "11-22{@missing}1bits"},
      {"{@} {a} @{a} {{@a}} {@nested}", "{@} {a} @{a} {1} {@a}"},
      {"x {@ y {@b} Open {@a", "x {@ y 22 Open {@a"},
      {"Open {@", "Open {@"},
  };
  for (auto [message, expected] : cases)
    EXPECT_EQ(ErrorInfo::render(message, params), expected) << message;
}

TEST(ErrorInfoTest, CreateKeepsContextAndNestedRecordWhoseErrnoIsFound) {
  auto const nested = ErrorInfo::from_errno(34, SourceLocation());
  auto const info = ErrorInfo::create(kCode, {}, {}, {}, nested, SourceString("context", true));
  EXPECT_EQ(info->context().view(), "context");
  EXPECT_EQ(info->nested(), nested);
  EXPECT_EQ(nested->ref_count(), 2u);
  EXPECT_EQ(ErrorInfo::create(kCode, {}, {}, {}, info)->nested_errno(), 34);  // down the chain
  // Only errno records count.
  EXPECT_EQ(ErrorInfo::create(kCode, {}, ErrorParams().set("errno", 5), {})->nested_errno(), 0);
}

TEST(ErrorInfoTest, FromExceptionKeepsARecordAndWrapsAnythingElse) {
  auto const info = ErrorInfo::create(kCode, {}, {}, {});
  EXPECT_EQ(ErrorInfo::from_exception(ErrorException(info), SourceLocation()), info);
  auto const wrapped = [] {
    std::string what = "foreign {@x} failure";
    std::runtime_error const e(what);
    what.clear();
    return ErrorInfo::from_exception(e, SourceLocation("ns::caller()", "file", 7));
  }();
  EXPECT_EQ(wrapped->code(), zocore::error::zocore_exception);
  EXPECT_FALSE(wrapped->message().is_static());
  EXPECT_EQ(wrapped->rendered(), "foreign {@x} failure");
  EXPECT_TRUE(wrapped->params().empty());
  EXPECT_EQ(wrapped->location().function().view(), "ns::caller()");
  EXPECT_EQ(wrapped->location().line(), 7u);
  auto const empty = ErrorInfo::from_exception(ErrorException(nullptr), SourceLocation());
  EXPECT_EQ(empty ? empty->rendered() : "", "zocore::ErrorException");
  EXPECT_EQ(empty ? empty->code() : kCode, zocore::error::zocore_exception);
}

TEST(ErrorExceptionTest, WhatIsTheRenderedMessageAndCopiesShareTheRecord) {
  auto const info = ErrorInfo::create(kCode, SourceString("Size is {@size}", true),
                                      ErrorParams().set("size", 7), SourceLocation());
  char const* what = nullptr;
  try {
    ErrorException::throw_error(info);
  } catch (std::exception const& e) {
    auto const* error = dynamic_cast<ErrorException const*>(&e);
    ASSERT_NE(error, nullptr);
    ErrorException const copy(*error);
    EXPECT_EQ(copy.info(), info);
    EXPECT_EQ(copy.code(), kCode);
    EXPECT_EQ(info->ref_count(), 3u);
    what = static_cast<std::exception const&>(copy).what();
  }
  EXPECT_EQ(info->ref_count(), 1u);
  EXPECT_STREQ(what, "Size is 7");  // the text belongs to the record, which is still alive
  ErrorException const empty(nullptr);
  EXPECT_STREQ(empty.what(), "zocore::ErrorException");
  EXPECT_TRUE(empty.code().empty());
}

}  // namespace
