#include "errors.h"

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/error_exception.h>

namespace zoser {
namespace {

TEST(ErrorsTest, CodesFormOneFamily) {
  for (zocore::ErrorCode const* code :
       {&error::zoser_usage, &error::zoser_format, &error::zoser_format_unknown,
        &error::zoser_format_ambiguous, &error::zoser_format_unavailable,
        &error::zoser_format_direction, &error::zoser_output}) {
    EXPECT_TRUE(code->is_a(error::zoser)) << *code;
  }
  EXPECT_EQ(error::zoser_format_ambiguous.view(), "error.zoser.format.ambiguous");
  EXPECT_TRUE(error::zoser_format_ambiguous.is_a(error::zoser_format));
}

TEST(ErrorsTest, LineShowsFilePlaceAndEveryCause) {
  zotest::ErrorPtr e;
  try {
    raise_errno(error::zoser_output, "Cannot write '{@path}'",
                zocore::ErrorParams().set("path", "out.zot"), "zoser::test()", 28);
  } catch (zocore::ErrorException const& x) {
    e = x.info();
  }
  ASSERT_TRUE(e);
  EXPECT_EQ(e->location().function().view(), "zoser::test()");
  std::string const cause = "; caused by: " + e->nested()->rendered() + " [error.zocore.errno]";
  EXPECT_EQ(format_error("out.zot", "", *e),
            "zoser: out.zot: Cannot write 'out.zot' [error.zoser.output]" + cause);
  EXPECT_EQ(format_error("in.zob", "byte 7", *e),
            "zoser: in.zob: byte 7: Cannot write 'out.zot' [error.zoser.output]" + cause);
  EXPECT_EQ(format_error("", "", *e), "zoser: Cannot write 'out.zot' [error.zoser.output]" + cause);
  EXPECT_NE(e->nested()->rendered().find("28"), std::string::npos);
}

}  // namespace
}  // namespace zoser
