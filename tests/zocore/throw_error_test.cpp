#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/core_errors.h>
#include <zocore/error_composer.h>
#include <zocore/throw_error.h>

namespace {

using zocore::ErrorComposer;

constexpr char kFile[] = "$Id: tests/zocore/throw_error_test.cpp $";
constinit zocore::ErrorCode const kCode("error.test.throw", true);  // NOLINT(cert-err58-cpp)
zocore::SourceLocation const kHere("ns::C::f()", kFile, 10);

// Every form keeps the code, the message template and the location, renders the parameters, and
// nests the given cause or an errno record made at the same location.
TEST(ThrowErrorTest, EveryFormBuildsItsRecord) {
  static char const kPlain[] = "Plain failure";
  auto const cause = zocore::ErrorInfo::create(kCode, {}, {}, {});
  zocore::ErrorParams params;
  params.set("maxBits", 512).set("actualBits", 520);
  constexpr char kWithParams[] = "Max={@maxBits}bits, Given={@actualBits}bits";
  constexpr char kKinds[] = "{@count} of {@size} from '{@name}', {@ratio} {@path} {@id}";
  ErrorComposer composer(kKinds);
  EXPECT_EQ(&composer.add("count", 12), &composer);
  composer.add("size", 4096u).add("name", "archive").add("ratio", 0.25);
  composer.add("path", std::string("/tmp/x")).add("id", std::uint64_t{1} << 40);
  struct Case {
    std::function<void()> call;
    char const* message;
    std::string rendered;
    std::string nested;  // "cause", "code@function" of the nested record, or ""
    int err = 0;
  };
  std::vector<Case> cases = {
      {[&] { zocore::throw_error(kCode, kPlain, kHere); }, kPlain, kPlain, ""},
      {[&] { zocore::throw_error(kCode, kWithParams, params, kHere); }, kWithParams,
       "Max=512bits, Given=520bits", ""},
      {[&] { zocore::throw_error(kCode, "Outer {@maxBits}", params, kHere, cause); },
       "Outer {@maxBits}", "Outer 512", "cause"},
      {[&] { composer.throw_error(kCode, kHere); }, kKinds,
       "12 of 4096 from 'archive', 0.25 /tmp/x 1099511627776", ""},
      {[&] { ErrorComposer("Outer {@n}").add("n", 3).throw_error(kCode, kHere, cause); },
       "Outer {@n}", "Outer 3", "cause"},
  };
  for (int const err : {22, 34}) {
    cases.push_back({[=] { zocore::throw_with_nested_errno(kCode, "Out of range", kHere, err); },
                     "Out of range", "Out of range", "error.zocore.errno@ns::C::f()", err});
    cases.push_back(
        {[=] { ErrorComposer("{@n}").add("n", 5).throw_with_nested_errno(kCode, kHere, err); },
         "{@n}", "5", "error.zocore.errno@ns::C::f()", err});
  }
  for (Case const& c : cases) {
    auto const info = ZO_EXPECT_ERROR(c.call(), kCode, c.message);
    ASSERT_TRUE(info) << c.message;
    EXPECT_EQ(info->location().function().view(), "ns::C::f()");
    EXPECT_EQ(info->location().file().view(), kFile);
    EXPECT_EQ(info->location().line(), 10u);
    EXPECT_EQ(info->rendered(), c.rendered);
    EXPECT_EQ(info->nested_errno(), c.err);
    auto const& nested = info->nested();
    EXPECT_EQ(!nested ? ""
              : nested == cause
                  ? "cause"
                  : std::string(nested->code().view()) + "@" + nested->location().function().str(),
              c.nested);
  }
  auto const info = ZO_EXPECT_ERROR(zocore::throw_error(kCode, kPlain, kHere), kCode, kPlain);
  EXPECT_EQ(info ? info->message().data() : nullptr, kPlain);  // kept, not copied
}

TEST(ThrowErrorTest, BareErrnoForInvalidArgumentAndRange) {
  for (int const err : {22, 34}) {
    auto const info = ZO_EXPECT_ERROR(zocore::throw_errno(kHere, err), zocore::error::zocore_errno,
                                      "System error {@errno}: {@description}");
    ASSERT_TRUE(info);
    EXPECT_EQ(info->location().function().view(), "ns::C::f()");
    EXPECT_EQ(info->nested_errno(), err);
    EXPECT_EQ(zotest::param(info, "errno"), std::to_string(err));
    EXPECT_EQ(info->rendered(), "System error " + std::to_string(err) + ": " + std::strerror(err));
    EXPECT_FALSE(info->nested());
  }
}

}  // namespace
