#include <cstring>

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

// Every form keeps code, message template and location, renders the parameters, and nests the
// given cause or an errno record made at the same location.
TEST(ThrowErrorTest, EveryFormBuildsItsRecord) {
  static char const kPlain[] = "Plain failure";
  auto const cause = zocore::ErrorInfo::create(kCode, {}, {}, {});
  zocore::ErrorParams params;
  params.set("maxBits", 512).set("actualBits", 520);
  constexpr char kWithParams[] = "Max={@maxBits}bits, Given={@actualBits}bits";
  // Call, message, rendered message, nested record ("cause" or "code@function"), errno.
  using Case = std::tuple<std::function<void()>, char const*, std::string, std::string, int>;
  constexpr char kErrno[] = "System error {@errno}: {@description}";
  std::vector<Case> cases = {
      {[&] { zocore::throw_error(kCode, kPlain, kHere); }, kPlain, kPlain, "", 0},
      {[&] { zocore::throw_error(kCode, kWithParams, params, kHere); }, kWithParams,
       "Max=512bits, Given=520bits", "", 0},
      {[&] { zocore::throw_error(kCode, "Outer {@maxBits}", params, kHere, cause); },
       "Outer {@maxBits}", "Outer 512", "cause", 0},
      {[&] { ErrorComposer("{@n}/{@s}").add("n", 3).add("s", "x").throw_error(kCode, kHere); },
       "{@n}/{@s}", "3/x", "", 0},
      {[&] { ErrorComposer("Outer {@n}").add("n", 3).throw_error(kCode, kHere, cause); },
       "Outer {@n}", "Outer 3", "cause", 0},
  };
  for (int const err : {22, 34}) {
    cases.emplace_back([=] { zocore::throw_with_nested_errno(kCode, "Range", kHere, err); },
                       "Range", "Range", "error.zocore.errno@ns::C::f()", err);
    cases.emplace_back(
        [=] { ErrorComposer("{@n}").add("n", 5).throw_with_nested_errno(kCode, kHere, err); },
        "{@n}", "5", "error.zocore.errno@ns::C::f()", err);
    cases.emplace_back([=] { zocore::throw_errno(kHere, err); }, kErrno,
                       "System error " + std::to_string(err) + ": " + std::strerror(err), "", err);
  }
  for (Case const& c : cases) {
    auto const& [call, message, rendered, nested, err] = c;  // Clang 14 cannot capture bindings
    auto const info = ZO_EXPECT_ERROR(
        std::get<0>(c)(), message == kErrno ? zocore::error::zocore_errno : kCode, message);
    ASSERT_TRUE(info) << message;
    EXPECT_EQ(info->location().function().view(), "ns::C::f()");
    EXPECT_EQ(info->location().file().view(), kFile);
    EXPECT_EQ(info->location().line(), 10u);
    EXPECT_EQ(info->rendered(), rendered);
    EXPECT_EQ(info->nested_errno(), err);
    auto const& inner = info->nested();
    EXPECT_EQ(!inner ? ""
              : inner == cause
                  ? "cause"
                  : std::string(inner->code().view()) + "@" + inner->location().function().str(),
              nested);
  }
  auto const info = ZO_EXPECT_ERROR(zocore::throw_error(kCode, kPlain, kHere), kCode, kPlain);
  EXPECT_EQ(info ? info->message().data() : nullptr, kPlain);  // kept, not copied
}

}  // namespace
