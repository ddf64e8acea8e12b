#include <climits>
#include <compare>
#include <stdexcept>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/core_errors.h>
#include <zocore/error_exception.h>
#include <zocore/error_info.h>

namespace {

using zocore::ErrorCode;
using zocore::ErrorException;
using zocore::ErrorInfo;
using zocore::ErrorParams;
using zocore::SourceLocation;
using zocore::SourceString;

static_assert(std::is_base_of_v<std::exception, ErrorException>);
static_assert(std::is_nothrow_copy_constructible_v<ErrorException>);

// The constructor over a literal is usable for constant initialisation.
constinit ErrorCode const kCode("error.test.info", true);  // NOLINT(cert-err58-cpp)

TEST(ErrorCodeTest, ParentAndIsAWorkOnWholeComponents) {
  for (auto [name, parent] : {std::pair{"error.zoserialize.reader", "error.zoserialize"},
                              std::pair{"error", ""}, std::pair{"", ""}, std::pair{"a.", "a"}}) {
    EXPECT_EQ(ErrorCode(name, true).parent().view(), parent) << name;
  }
  for (auto [code, ancestor, expected] :
       {std::tuple{"a.b.c", "a.b.c", true}, std::tuple{"a.b.c", "a", true},
        std::tuple{"a.bc", "a.b", false}, std::tuple{"a.b", "a.b.c", false},
        std::tuple{"a.b", "", false}, std::tuple{"a.b.c", "b.c", false}})
    EXPECT_EQ(ErrorCode(code, true).is_a(ErrorCode(ancestor, false)), expected) << code << ancestor;
  namespace error = zocore::error;
  std::string names;
  for (ErrorCode const* code :
       {&error::zocore_argument, &error::zocore_errno, &error::zocore_exception,
        &error::zocore_format, &error::zocore_range, &error::zocore_utf8}) {
    EXPECT_EQ(code->parent(), error::zocore);
    names += std::string(code->view()) + " ";
  }
  EXPECT_EQ(names,
            "error.zocore.argument error.zocore.errno error.zocore.exception "
            "error.zocore.format error.zocore.range error.zocore.utf8 ");
}

TEST(ErrorCodeTest, ComparesAndPrintsByNameWhateverTheStorage) {
  static char const kName[] = "error.a.b";
  ErrorCode const fixed(kName, true);
  EXPECT_EQ(fixed.c_str(), kName);
  EXPECT_EQ(ErrorCode("error.a", true) <=> fixed, std::strong_ordering::less);
  EXPECT_EQ(ErrorCode("error.b", true) <=> fixed, std::strong_ordering::greater);
  EXPECT_EQ(ErrorCode(), ErrorCode("", true));
  EXPECT_EQ(::testing::PrintToString(fixed), "error.a.b");  // through operator<<
  std::string name = "error.a.b";
  auto original = std::make_unique<ErrorCode>(name.c_str(), false);
  name.assign(name.size(), 'x');
  ErrorCode const copy = *original;
  ErrorCode const parent = original->parent();
  original.reset();
  EXPECT_EQ(copy, fixed);
  EXPECT_EQ(parent.view(), "error.a");
}

// Each value as a parameter renders it, joined with '|'.
template <class... T>
std::string rendered(T const&... values) {
  std::string out;
  ((out += *ErrorParams().set("v", values).find("v") + "|"), ...);
  return out;
}

// Numbers become decimal text and text stays verbatim; parameters are ordered, replaced and
// found by name, with any view.
TEST(ErrorParamsTest, RenderingOrderReplacementAndLookup) {
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
  EXPECT_EQ(params.find("valu"), nullptr);
  std::string const* found = params.find(std::string_view("maxBits-and-more").substr(0, 7));
  EXPECT_EQ(found ? *found : "<none>", "2");
}

TEST(ErrorInfoTest, RenderSubstitutesKnownPlaceholdersOnly) {
  ErrorParams params;
  params.set("a", "1").set("b", "22").set("value", "3.5e+38").set("nested", "{@a}");
  // Values are not expanded again; an unterminated "{@" is text.
  // clang-format off
  std::pair<char const*, char const*> const cases[] = {
      {"", ""}, {"Value={@value}.", "Value=3.5e+38."}, {"Open {@", "Open {@"},
      {"{@a}{@a}-{@b}{@missing}{@a}bits", "11-22{@missing}1bits"},
      {"{@} {a} @{a} {{@a}} {@nested}", "{@} {a} @{a} {1} {@a}"},
      {"x {@ y {@b} Open {@a", "x {@ y 22 Open {@a"}};
  // clang-format on
  for (auto [message, expected] : cases)
    EXPECT_EQ(ErrorInfo::render(message, params), expected) << message;
}

// A record keeps its context and nested record, whose errno is found; from_exception keeps the
// record of an ErrorException and wraps anything else.
TEST(ErrorInfoTest, CreateAndFromException) {
  auto const nested = ErrorInfo::from_errno(34, SourceLocation());
  auto const info = ErrorInfo::create(kCode, {}, {}, {}, nested, SourceString("context", true));
  EXPECT_EQ(info->context().view(), "context");
  EXPECT_EQ(info->nested(), nested);
  EXPECT_EQ(nested->ref_count(), 2u);
  EXPECT_EQ(ErrorInfo::create(kCode, {}, {}, {}, info)->nested_errno(), 34);  // down the chain
  // Only errno records count.
  EXPECT_EQ(ErrorInfo::create(kCode, {}, ErrorParams().set("errno", 5), {})->nested_errno(), 0);
  EXPECT_EQ(ErrorInfo::from_exception(ErrorException(info), SourceLocation()), info);
  auto const wrapped = [] {
    std::string what = "foreign {@x} failure";
    std::runtime_error const e(what);
    what.clear();
    return ErrorInfo::from_exception(e, SourceLocation("ns::caller()", "file", 7));
  }();
  EXPECT_EQ(wrapped->code(), zocore::error::zocore_exception);
  EXPECT_EQ(wrapped->rendered(), "foreign {@x} failure");
  EXPECT_TRUE(wrapped->location().function() == "ns::caller()" && wrapped->location().line() == 7);
  auto const empty = ErrorInfo::from_exception(ErrorException(nullptr), SourceLocation());
  EXPECT_EQ(empty ? empty->rendered() : "", "zocore::ErrorException");
  EXPECT_EQ(empty ? empty->code() : kCode, zocore::error::zocore_exception);
}

// what() is the rendered message; copies share the record, which owns that text.
TEST(ErrorExceptionTest, WhatIsTheRenderedMessageAndCopiesShareTheRecord) {
  auto const info = ErrorInfo::create(kCode, SourceString("Size is {@size}", true),
                                      ErrorParams().set("size", 7), SourceLocation());
  EXPECT_EQ(ZO_EXPECT_ERROR(ErrorException::throw_error(info), kCode, "Size is {@size}"), info);
  char const* what = nullptr;
  {
    ErrorException const original(info);
    ErrorException const copy(original);  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(copy.code(), kCode);
    EXPECT_EQ(info->ref_count(), 3u);
    what = static_cast<std::exception const&>(copy).what();
  }
  EXPECT_EQ(info->ref_count(), 1u);
  EXPECT_STREQ(what, "Size is 7");
  ErrorException const empty(nullptr);
  EXPECT_TRUE(std::string_view(empty.what()) == "zocore::ErrorException" && empty.code().empty());
}

}  // namespace
