#include <compare>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include <zocore/core_errors.h>
#include <zocore/error_code.h>

namespace {

using zocore::ErrorCode;

// The constructor over a literal is usable for constant initialisation.
constinit ErrorCode const kConstantCode("error.test.constant", true);  // NOLINT(cert-err58-cpp)

TEST(ErrorCodeTest, ParentAndIsAWorkOnWholeComponents) {
  for (auto [name, parent] : {std::pair{"error.zoserialize.reader", "error.zoserialize"},
                              std::pair{"error", ""}, std::pair{"", ""}, std::pair{"a.", "a"}}) {
    EXPECT_EQ(ErrorCode(name, true).parent().view(), parent) << name;
  }
  std::tuple<char const*, char const*, bool> const cases[] = {
      {"a.b.c", "a.b.c", true}, {"a.b.c", "a", true},    {"a.bc", "a.b", false},
      {"ab.c", "a", false},     {"a.b", "a.b.c", false}, {"a.b", "", false},
      {"", "", false},          {"a.b.c", "b.c", false}, {"a.b.c", "a.b.", false},
  };
  for (auto [code, ancestor, expected] : cases)
    EXPECT_EQ(ErrorCode(code, true).is_a(ErrorCode(ancestor, false)), expected) << code << ancestor;
}

TEST(ErrorCodeTest, ComparesAndPrintsByNameWhateverTheStorage) {
  ErrorCode const fixed("error.a.b", true);
  EXPECT_EQ(fixed, ErrorCode("error.a.b", false));
  EXPECT_EQ(ErrorCode("error.a", true) <=> fixed, std::strong_ordering::less);
  EXPECT_EQ(ErrorCode("error.b", true) <=> fixed, std::strong_ordering::greater);
  EXPECT_EQ(ErrorCode(), ErrorCode("", true));
  std::ostringstream out;
  out << fixed;
  EXPECT_EQ(out.str(), "error.a.b");
}

TEST(ErrorCodeTest, LiteralNamesAreReferencedAndOtherNamesCopied) {
  static char const kName[] = "error.literal";
  EXPECT_EQ(ErrorCode(kName, true).c_str(), kName);
  EXPECT_EQ(kConstantCode.view(), "error.test.constant");
  std::string name = "error.dynamic.code";
  auto original = std::make_unique<ErrorCode>(name.c_str(), false);
  name.assign(name.size(), 'x');
  ErrorCode const copy = *original;
  ErrorCode const parent = original->parent();
  original.reset();
  EXPECT_EQ(copy.view(), "error.dynamic.code");
  EXPECT_EQ(parent.view(), "error.dynamic");
}

TEST(ErrorCodeTest, CoreCodesFormTheirOwnTree) {
  namespace error = zocore::error;
  for (auto [code, name] :
       {std::pair{&error::zocore_argument, "argument"}, std::pair{&error::zocore_errno, "errno"},
        std::pair{&error::zocore_exception, "exception"},
        std::pair{&error::zocore_format, "format"}, std::pair{&error::zocore_range, "range"},
        std::pair{&error::zocore_utf8, "utf8"}}) {
    EXPECT_EQ(code->view(), std::string("error.zocore.") + name);
    EXPECT_EQ(code->parent(), error::zocore);
  }
}

}  // namespace
