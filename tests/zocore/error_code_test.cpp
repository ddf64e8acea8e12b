#include <compare>
#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include <zocore/core_errors.h>
#include <zocore/error_code.h>

namespace {

using zocore::ErrorCode;
using zocore::SourceString;

// The constructor over a literal is usable for constant initialisation.
constinit ErrorCode const kConstantCode("error.test.constant", true);  // NOLINT(cert-err58-cpp)

struct ParentCase {
  char const* name;
  char const* parent;
};

TEST(ErrorCodeTest, ParentDropsTheLastComponent) {
  ParentCase const cases[] = {
      {"error.zoserialize.reader.eof", "error.zoserialize.reader"},
      {"error.zoserialize", "error"},
      {"error", ""},
      {"", ""},
      {"a.", "a"},
      {".a", ""},
  };
  for (ParentCase const& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(ErrorCode(c.name, true).parent().view(), c.parent);
    EXPECT_EQ(ErrorCode(c.name, false).parent().view(), c.parent);
  }
}

TEST(ErrorCodeTest, ParentOwnsItsName) {
  auto code = std::make_unique<ErrorCode>(SourceString(std::string_view("x.y.z")));
  ErrorCode const parent = code->parent();
  code.reset();
  EXPECT_EQ(parent.view(), "x.y");
  EXPECT_STREQ(parent.c_str(), "x.y");
}

struct IsACase {
  char const* code;
  char const* ancestor;
  bool expected;
};

TEST(ErrorCodeTest, IsAMatchesWholeComponentsOnly) {
  IsACase const cases[] = {
      {"a.b.c", "a.b.c", true}, {"a.b.c", "a.b", true},   {"a.b.c", "a", true},
      {"a.bc", "a.b", false},   {"ab.c", "a", false},     {"a.b", "a.b.c", false},
      {"a.b", "", false},       {"", "", false},          {"", "a", false},
      {"a.b.c", "b.c", false},  {"a.b.c", "a.b.", false}, {"x", "x", true},
  };
  for (IsACase const& c : cases) {
    SCOPED_TRACE(std::string(c.code) + " is_a " + c.ancestor);
    EXPECT_EQ(ErrorCode(c.code, true).is_a(ErrorCode(c.ancestor, false)), c.expected);
  }
}

TEST(ErrorCodeTest, ComparesByNameWhateverTheStorage) {
  ErrorCode const fixed("error.a.b", true);
  ErrorCode const copied("error.a.b", false);
  ErrorCode const dynamic(SourceString(std::string_view("error.a.b")));
  EXPECT_EQ(fixed, copied);
  EXPECT_EQ(fixed, dynamic);
  EXPECT_NE(fixed, ErrorCode("error.a.c", true));
  EXPECT_EQ(ErrorCode("error.a", true) <=> fixed, std::strong_ordering::less);
  EXPECT_EQ(ErrorCode("error.b", true) <=> fixed, std::strong_ordering::greater);
  EXPECT_TRUE(ErrorCode().empty());
  EXPECT_EQ(ErrorCode(), ErrorCode("", true));
}

TEST(ErrorCodeTest, CopiesOfDynamicCodesAreIndependent) {
  std::string name = "error.dynamic.code";
  auto original = std::make_unique<ErrorCode>(name.c_str(), false);
  name.assign(name.size(), 'x');
  ErrorCode copy = *original;
  original.reset();
  EXPECT_EQ(copy.view(), "error.dynamic.code");

  ErrorCode other("error.other", true);
  copy.swap(other);
  EXPECT_EQ(copy.view(), "error.other");
  EXPECT_EQ(other.view(), "error.dynamic.code");
}

TEST(ErrorCodeTest, StaticCodeRefersToItsLiteral) {
  static char const kName[] = "error.literal";
  ErrorCode const code(kName, true);
  EXPECT_EQ(code.c_str(), kName);
  EXPECT_TRUE(code.name().is_static());
  EXPECT_EQ(kConstantCode.view(), "error.test.constant");
}

TEST(ErrorCodeTest, PrintsItsName) {
  std::ostringstream out;
  out << ErrorCode("error.printed", true);
  EXPECT_EQ(out.str(), "error.printed");
}

struct CoreCodeCase {
  ErrorCode const* code;
  char const* name;
};

TEST(ErrorCodeTest, CoreCodesFormTheirOwnTree) {
  namespace error = zocore::error;
  CoreCodeCase const cases[] = {
      {&error::zocore, "error.zocore"},
      {&error::zocore_argument, "error.zocore.argument"},
      {&error::zocore_errno, "error.zocore.errno"},
      {&error::zocore_exception, "error.zocore.exception"},
      {&error::zocore_format, "error.zocore.format"},
      {&error::zocore_range, "error.zocore.range"},
      {&error::zocore_utf8, "error.zocore.utf8"},
  };
  for (CoreCodeCase const& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.code->view(), c.name);
    EXPECT_TRUE(c.code->is_a(error::zocore));
    if (c.code != &error::zocore) {
      EXPECT_EQ(c.code->parent(), error::zocore);
    }
  }
}

}  // namespace
